// A socket's calls under a guard: when it is asked, and what it sees.
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "LoopbackPair.h"
#include "ProcessState.h"
#include "SyncSocket.h"

namespace {

// Notes what it is asked and sees.
class CNotingGuard final : public CSocketGuard {
  public:
    bool MayWait() override { return bMayWait; }
    bool Await(SOCKET hSocket, short nEvents) override {
        ++nAwaits;
        nLastEvents = nEvents;
        if (fnAwait) return fnAwait(nAwaits);
        pollfd fd{hSocket, nEvents, 0};
        return poll(&fd, 1, 20000) == 1;
    }
    bool WaitOn() override { return false; }
    void Passed(bool bSent, const void* pData, size_t nLen) override {
        (bSent ? strSent : strReceived).append(static_cast<const char*>(pData), nLen);
    }

    bool bMayWait = true;
    std::function<bool(int)> fnAwait;  // told how many have been
    int nAwaits = 0;
    short nLastEvents = 0;
    std::string strSent;
    std::string strReceived;
};

class GuardedSocket : public ::testing::Test {
  protected:
    GuardedSocket() { near.SetGuard(&guard); }

    std::string Recv(int n, int nFlags = 0) {
        std::string str(static_cast<size_t>(n), '\0');
        const int nGot = near._Recv(&str[0], n, nFlags);
        if (nGot < 0) return "failed";
        str.resize(static_cast<size_t>(nGot));
        return str;
    }
    void Arrived(size_t n) {
        pollfd fd{near, POLLIN, 0};
        for (int i = 0; i < 20000 && BytesWaiting(near) < static_cast<int>(n); ++i) {
            poll(&fd, 1, 1);
            usleep(1000);
        }
    }

    CSyncSocket near;
    CLoopbackPeer peer{near};
    CNotingGuard guard;
};

// ---- What passes --------------------------------------------------------------------------------

TEST_F(GuardedSocket, GuardSeesTheBytesThatPass) {
    EXPECT_EQ(near._Send("ask", 3, 0), 3);
    EXPECT_TRUE(near.SendAll("more", 4, 0));
    peer.Say("answer");
    Arrived(6);
    EXPECT_EQ(Recv(3), "ans");
    char rest[3];
    EXPECT_TRUE(near.RecvAll(rest, 3, 0));
    EXPECT_EQ(guard.strSent, "askmore");
    EXPECT_EQ(guard.strReceived, "answer");
    EXPECT_EQ(guard.nAwaits, 0);
}

TEST_F(GuardedSocket, BytesTakenAheadPassOnce) {
    peer.Say("headbody");
    Arrived(8);
    ASSERT_NE(near.TakeOnce(4), nullptr);
    EXPECT_EQ(guard.strReceived, "headbody");
    ASSERT_NE(near.TakeAll(4), nullptr);
    EXPECT_EQ(guard.strReceived, "headbody");
}

TEST_F(GuardedSocket, NothingIsSeenAfterTheGuardIsGone) {
    near.SetGuard(nullptr);
    guard.bMayWait = false;
    near._Send("ask", 3, 0);
    peer.Say("answer");
    EXPECT_EQ(Recv(1), "a");
    EXPECT_EQ(guard.strSent + guard.strReceived, "");
    EXPECT_EQ(guard.nAwaits, 0);
}

// ---- Receives -----------------------------------------------------------------------------------

TEST_F(GuardedSocket, ReceiveAsksFirstWhenItMayNotWait) {
    guard.bMayWait = false;
    peer.Say("x");
    EXPECT_EQ(Recv(1), "x");
    EXPECT_EQ(guard.nAwaits, 1);
    EXPECT_EQ(guard.nLastEvents, POLLIN);
}

TEST_F(GuardedSocket, ReceiveThatIsRefusedTakesNothing) {
    guard.bMayWait = false;
    guard.fnAwait = [](int) { return false; };
    peer.Say("x");
    Arrived(1);
    EXPECT_EQ(Recv(1), "failed");
    EXPECT_EQ(BytesWaiting(near), 1);
    char c;
    EXPECT_FALSE(near.RecvAll(&c, 1, 0));
    EXPECT_EQ(near.TakeOnce(1), nullptr);
    EXPECT_EQ(near.TakeAll(1), nullptr);
    EXPECT_EQ(guard.strReceived, "");
}

TEST_F(GuardedSocket, ReceiveWhoseTimePassedAsksUntilThatIsEnough) {
    ASSERT_TRUE(near.SetTimeOut(5));
    guard.fnAwait = [](int n) { return n < 3; };
    EXPECT_EQ(Recv(1), "failed");
    EXPECT_EQ(guard.nAwaits, 3);
}

TEST_F(GuardedSocket, ReceiveWhoseTimePassedGetsWhatComesThen) {
    ASSERT_TRUE(near.SetTimeOut(5));
    guard.fnAwait = [this](int n) {
        if (n == 2) peer.Say("late");
        return true;
    };
    char late[4];
    EXPECT_TRUE(near.RecvAll(late, 4, 0));
    EXPECT_EQ(std::string(late, 4), "late");
    EXPECT_EQ(guard.strReceived, "late");
}

TEST_F(GuardedSocket, ReceiveThatNeedNotWaitNeverAsks) {
    guard.bMayWait = false;
    EXPECT_EQ(Recv(1, MSG_DONTWAIT), "failed");
    EXPECT_EQ(guard.nAwaits, 0);
}

TEST_F(GuardedSocket, EndAndResetAreNotWaitedFor) {
    peer.m_peer.Close();
    EXPECT_EQ(Recv(1), "");
    EXPECT_EQ(guard.nAwaits, 0);
    CSyncSocket other;
    CLoopbackPeer otherPeer(other);
    other.SetGuard(&guard);
    otherPeer.Reset();
    char c;
    EXPECT_EQ(other._Recv(&c, 1, 0), -1);
    EXPECT_EQ(guard.nAwaits, 0);
}

TEST_F(GuardedSocket, InterruptedReceiveAsksAndGoesOn) {
    struct sigaction before;
    struct sigaction nothing {};
    nothing.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &nothing, &before), 0);
    std::atomic<bool> bAsked{false};
    guard.fnAwait = [&](int) {
        bAsked = true;
        peer.Say("x");
        return true;
    };
    const pthread_t self = pthread_self();
    std::thread disturber([&] {
        while (!bAsked) {
            pthread_kill(self, SIGUSR1);
            usleep(1000);
        }
    });
    EXPECT_EQ(Recv(1), "x");
    disturber.join();
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_GE(guard.nAwaits, 1);
    EXPECT_EQ(guard.strReceived, "x");
}

// ---- Sends --------------------------------------------------------------------------------------

TEST_F(GuardedSocket, SendAsksFirstWhenItMayNotWait) {
    guard.bMayWait = false;
    EXPECT_EQ(near._Send("x", 1, 0), 1);
    EXPECT_EQ(guard.nAwaits, 1);
    EXPECT_EQ(guard.nLastEvents, POLLOUT);
    EXPECT_EQ(peer.Hear(1), "x");
}

TEST_F(GuardedSocket, SendThatIsRefusedSendsNothing) {
    guard.bMayWait = false;
    guard.fnAwait = [](int) { return false; };
    EXPECT_EQ(near._Send("x", 1, 0), -1);
    EXPECT_FALSE(near.SendAll("x", 1, 0));
    near.Close();
    char c;
    EXPECT_EQ(peer.m_peer._Recv(&c, 1, 0), 0);
    EXPECT_EQ(guard.strSent, "");
}

TEST_F(GuardedSocket, LongSendAsksWhileThePeerTakesNothing) {
    ASSERT_TRUE(near.SetTimeOut(5));
    const std::string strLong(16u << 20, 'x');
    std::atomic<int> nBefore{0};
    std::thread reader;
    guard.fnAwait = [&](int n) {
        if (n == 2) {
            reader =
                std::thread([&] { nBefore = static_cast<int>(peer.Hear(strLong.size()).size()); });
        }
        pollfd fd{near, POLLOUT, 0};
        return n < 2 || poll(&fd, 1, 20000) == 1;
    };
    EXPECT_TRUE(near.SendAll(strLong.data(), static_cast<int>(strLong.size()), 0));
    ASSERT_TRUE(reader.joinable());
    reader.join();
    EXPECT_EQ(nBefore, 16 << 20);
    EXPECT_EQ(guard.strSent.size(), strLong.size());
}

TEST_F(GuardedSocket, LongSendFailsWhenTheGuardHasEnough) {
    ASSERT_TRUE(near.SetTimeOut(5));
    guard.fnAwait = [](int) { return false; };
    const std::string strLong(64u << 20, 'x');
    EXPECT_FALSE(near.SendAll(strLong.data(), static_cast<int>(strLong.size()), 0));
    EXPECT_EQ(guard.nAwaits, 1);
    EXPECT_LT(guard.strSent.size(), strLong.size());
}

// ---- Time-outs ----------------------------------------------------------------------------------

TEST_F(GuardedSocket, TimeOutsAreCutToTheGuardsSlice) {
    ASSERT_TRUE(near.SetTimeOut(15000));
    EXPECT_EQ(TimeOptionUs(near, SO_RCVTIMEO), 200000);
    EXPECT_EQ(TimeOptionUs(near, SO_SNDTIMEO), 200000);
    ASSERT_TRUE(near.SetTimeOut(100));
    EXPECT_EQ(TimeOptionUs(near, SO_RCVTIMEO), 100000);
    near.SetGuard(nullptr);
    ASSERT_TRUE(near.SetTimeOut(15000));
    EXPECT_EQ(TimeOptionUs(near, SO_RCVTIMEO), 15000000);
}

// ---- Connects -----------------------------------------------------------------------------------

// A listener that answers no further connection: its queue is full.
class CFullListener {
  public:
    CFullListener() {
        EXPECT_TRUE(m_sock.Create(0, SOCK_STREAM, "127.0.0.1", FALSE));
        EXPECT_TRUE(m_sock.Listen(0));
        SOCKADDR_IN addr{};
        EXPECT_TRUE(m_sock.GetSockName(&addr));
        nPort = ntohs(addr.sin_port);
        EXPECT_TRUE(m_first.Create(0, SOCK_STREAM, nullptr, FALSE));
        EXPECT_TRUE(m_first._Connect(LoopbackIp(), nPort));
    }
    void Accept() {
        CSyncSocket taken;
        EXPECT_TRUE(m_sock.Accept(taken, nullptr, nullptr));
    }

    UINT nPort = 0;
    CSyncSocket m_sock;

  private:
    CSyncSocket m_first;
};

class GuardedConnect : public ::testing::Test {
  protected:
    GuardedConnect() {
        sock.SetGuard(&guard);
        EXPECT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, FALSE));
        EXPECT_TRUE(sock.SetTimeOut(5));
    }
    bool Connect() { return sock._Connect(LoopbackIp(), listener.nPort) != FALSE; }
    bool Await() {
        pollfd fd{sock, POLLOUT, 0};
        return poll(&fd, 1, 20000) == 1;
    }

    CFullListener listener;
    CSyncSocket sock;
    CNotingGuard guard;
};

TEST_F(GuardedConnect, ConnectThatIsTakenAtOnceAsksNothing) {
    listener.Accept();
    EXPECT_TRUE(Connect());
    EXPECT_EQ(guard.nAwaits, 0);
}

TEST_F(GuardedConnect, ConnectThatHasToWaitFailsWhenTheGuardHasEnough) {
    guard.fnAwait = [](int) { return false; };
    EXPECT_FALSE(Connect());
    EXPECT_EQ(guard.nAwaits, 1);
    EXPECT_EQ(guard.nLastEvents, POLLOUT);
}

TEST_F(GuardedConnect, ConnectThatHasToWaitSucceedsOnceItIsTaken) {
    guard.fnAwait = [this](int) {
        listener.Accept();
        return Await();
    };
    EXPECT_TRUE(Connect());
    SOCKADDR_IN addr{};
    EXPECT_TRUE(sock.GetPeerName(&addr));
}

TEST_F(GuardedConnect, ConnectThatIsRefusedWhileItWaitsFails) {
    guard.fnAwait = [this](int) {
        listener.m_sock.Close();
        return Await();
    };
    EXPECT_FALSE(Connect());
    EXPECT_EQ(guard.nAwaits, 1);
}

TEST_F(GuardedConnect, ConnectThatIsRefusedAtOnceAsksNothing) {
    listener.m_sock.Close();
    EXPECT_FALSE(Connect());
    EXPECT_EQ(guard.nAwaits, 0);
}

}  // namespace
