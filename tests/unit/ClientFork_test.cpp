// Sessions of vzclient in processes that fork.
#include "ClientFixture.h"

#include <signal.h>
#include <sys/wait.h>

namespace {

class ClientFork : public CClientFixture {
  protected:
    // Runs fn in a forked child; its result is the child's exit status.
    template <class TFunction>
    static int InChild(TFunction fn) {
        const pid_t nChild = fork();
        if (nChild == 0) _exit(fn());
        int nStatus = -1;
        waitpid(nChild, &nStatus, 0);
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 1000 + WTERMSIG(nStatus);
    }
};

TEST_F(ClientFork, ChildHoldsNoDescriptorOfTheSession) {
    LogIn();
    const int nDescriptors = CountDescriptors();
    EXPECT_EQ(InChild([&] { return nDescriptors - CountDescriptors(); }), 2);
    EXPECT_EQ(CountDescriptors(), nDescriptors);
}

TEST_F(ClientFork, ChildHoldsNoDescriptorOfASessionThatIsBeingConnected) {
    server.Accept();
    server.Take(0, &strHello);
    std::thread connecting = ScriptThread([&] { EXPECT_NE(Connect(), kConnected); });
    Unlocked([this] { server.Done(); });
    const int nDescriptors = CountDescriptors();
    EXPECT_EQ(InChild([&] { return nDescriptors - CountDescriptors(); }), 1);
    session->End("closed");
    Unlocked([&] { connecting.join(); });
}

TEST_F(ClientFork, SessionThatIsGoneIsNoneOfTheChilds) {
    LogIn();
    Unlocked([this] { session.reset(); });
    const int nDescriptors = CountDescriptors();
    EXPECT_EQ(InChild([&] { return nDescriptors - CountDescriptors(); }), 0);
    MakeSession(nullptr);
}

TEST_F(ClientFork, ParentGoesOnWhateverBecomesOfTheChild) {
    LogIn();
    EXPECT_EQ(InChild([] { return 0; }), 0);
    OnRequest(LookupRequest({"a"}), LookupReply({1}));
    EXPECT_EQ(LookUp({"a"}), EResult::kDone);
    server.Send(1, Hex("FF FF FF"));
    EXPECT_TRUE(WaitFor([this] { return session->m_nBytes == 3; }));
    ExpectLive();
}

TEST_F(ClientFork, ChildMayConnectAnew) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer still knows the parent's receive thread in the child";
#endif
    LogIn();
    server.Accept();
    server.Take(2, &strHello);
    server.Send(2, "7");
    server.Accept();
    server.Take(3, &strNotifyHello);
    server.Send(3, Scramble(plant.NotifyReply()));
    server.Expect(2, plant.LoginRequest());
    server.Send(2, plant.strLoginReply);
    server.ExpectEnd(2);
    server.ExpectEnd(3);
    EXPECT_EQ(InChild([this] {
                  (void)session.release();
                  MakeSession(nullptr);
                  if (Connect() != kConnected) return 1;
                  Unlocked([this] { session.reset(); });
                  return 0;
              }),
              0);
    EXPECT_TRUE(server.Done());
    EXPECT_FALSE(session->Over());
}

// The parent of a process that lives on and has nothing to do with the session.
[[noreturn]] void ForkAndDie(const int* alive, const int* until) {
    if (fork() == 0) {
        ::close(alive[0]);
        ::close(until[1]);
        char c;
        (void)!::read(until[0], &c, 1);
        _exit(0);
    }
    kill(getpid(), SIGKILL);
    _exit(1);
}

TEST_F(ClientFork, ConnectionsEndWithTheParentThoughTheChildLivesOn) {
    int alive[2];
    int until[2];
    ASSERT_EQ(pipe(alive), 0);
    ASSERT_EQ(pipe(until), 0);
    OrderLogin();
    const pid_t nParent = fork();
    if (nParent == 0) {
        (void)session.release();
        MakeSession(nullptr);
        if (Connect() != kConnected) _exit(1);
        ForkAndDie(alive, until);
    }
    ::close(alive[1]);
    ::close(until[0]);
    int nStatus = -1;
    EXPECT_EQ(waitpid(nParent, &nStatus, 0), nParent);
    EXPECT_TRUE(WIFSIGNALED(nStatus)) << nStatus;
    server.ExpectEnd(0);
    server.ExpectEnd(1);
    EXPECT_TRUE(server.Done());
    pollfd fd{alive[0], POLLIN, 0};
    EXPECT_EQ(poll(&fd, 1, 0), 0) << "the child is gone";
    ::close(until[1]);
    EXPECT_EQ(poll(&fd, 1, 20000), 1);
    ::close(alive[0]);
}

}  // namespace
