// Sends and receives of CSyncSocket: single, whole-buffer, bounded and datagrams.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>

#include "LoopbackPair.h"
#include "SyncSocket.h"

namespace {

// A label of more than 63 characters is never sent to a name server.
const std::string kNoHost(64, 'x');

constexpr long kTenMinutes = 600000;

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point start) {
    const auto d = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    return static_cast<long>(d.count());
}

// Sees the calls that go through the virtual operations.
class CWatchedSocket : public CSyncSocket {
  public:
    int _Send(const void* lpBuf, int nBufLen, int nFlags) override {
        ++m_nSends;
        m_nLastLen = nBufLen;
        m_nLastFlags = nFlags;
        if (m_nSendResult) return m_nSendResult;
        return CSyncSocket::_Send(lpBuf, nBufLen, nFlags);
    }
    int _Recv(void* lpBuf, int nBufLen, int nFlags) override {
        ++m_nRecvs;
        m_nLastLen = nBufLen;
        m_nLastFlags = nFlags;
        return CSyncSocket::_Recv(lpBuf, nBufLen, nFlags);
    }

    int m_nSends = 0;
    int m_nRecvs = 0;
    int m_nLastLen = -1;
    int m_nLastFlags = -1;
    int m_nSendResult = 0;  // given back instead of sending, when not 0
};

// A pair of stream sockets of which the near one takes no byte more, until the far one is read.
// Local sockets, because those of TCP may still make room a moment after they were full.
class CFullSocket : public CWatchedSocket {
  public:
    CFullSocket() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        m_hSocket = fds[0];
        m_fdFar = fds[1];
        const std::string str(4096, 'x');
        while (send(m_hSocket, str.data(), str.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
        }
    }
    ~CFullSocket() override { close(m_fdFar); }

  private:
    int m_fdFar;
};

// Runs a blocking call on a thread of its own and interrupts it by a signal until it returns.
template <class TCall>
void RunInterrupted(TCall call) {
    struct sigaction act {};
    act.sa_handler = [](int) {};  // without SA_RESTART
    struct sigaction old;
    sigaction(SIGUSR1, &act, &old);
    std::atomic<bool> bDone{false};
    std::thread thread([&] {
        call();
        bDone = true;
    });
    while (!bDone) {
        pthread_kill(thread.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    thread.join();
    sigaction(SIGUSR1, &old, nullptr);
}

// The record as it was before: every byte must be written.
SOCKADDR_IN DirtyAddr() {
    SOCKADDR_IN addr;
    std::memset(&addr, 0xEE, sizeof addr);
    return addr;
}

// --- single sends and receives

TEST(SyncSocketSend, GivesTheBytesMoved) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    EXPECT_EQ(near._Send("abcde", 5, 0), 5);
    EXPECT_EQ(far.Hear(5), "abcde");
    far.Say("xyz");
    char buf[16] = {};
    EXPECT_EQ(near._Recv(buf, sizeof buf, 0), 3);
    EXPECT_STREQ(buf, "xyz");
}

TEST(SyncSocketSend, ReceiveGivesZeroAtTheOrderlyEndAndMinusOneOnError) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    far.m_peer.Close();
    char c;
    EXPECT_EQ(near._Recv(&c, 1, 0), 0);
    near.Close();
    EXPECT_EQ(near._Recv(&c, 1, 0), -1);
    EXPECT_EQ(near._Send(&c, 1, 0), -1);
}

TEST(SyncSocketSend, PassesItsFlagsOn) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    char buf[4] = {};
    EXPECT_EQ(near._Recv(buf, 4, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    far.Say("peek");
    EXPECT_EQ(near._Recv(buf, 4, MSG_PEEK | MSG_WAITALL), 4);
    EXPECT_EQ(near._Recv(buf, 4, MSG_WAITALL), 4);
    CFullSocket full;
    EXPECT_EQ(full._Send("x", 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(SyncSocketSend, RefusesNegativeLengths) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    far.Say("x");
    char c = 0;
    errno = 0;
    EXPECT_EQ(near._Send(&c, -1, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(near._Recv(&c, INT_MIN, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

// The test program would die of a SIGPIPE.
TEST(SyncSocketSend, ToAClosedConnectionIsAFailureAndNoSignal) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    near.ShutDown(SHUT_WR);
    EXPECT_EQ(near._Send("x", 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_FALSE(near.SendAll("x", 1, 0));
    EXPECT_EQ(errno, EPIPE);
    SOCKADDR_IN addr;
    CSyncSocket::CreateAddrIn(LoopbackIp(), 1, &addr);
    EXPECT_EQ(near._SendTo("x", 1, &addr, 0), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST(SyncSocketSend, ASignalEndsAReceive) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    int nResult = 0, nError = 0;
    RunInterrupted([&] {
        char c;
        nResult = near._Recv(&c, 1, 0);
        nError = errno;
    });
    EXPECT_EQ(nResult, -1);
    EXPECT_EQ(nError, EINTR);
}

// --- whole buffers

TEST(SyncSocketAll, EmptyBufferSucceedsWithoutACallAndNegativeLengthFails) {
    CSyncSocket empty;  // any call would fail
    EXPECT_TRUE(empty.SendAll(nullptr, 0, 0));
    EXPECT_TRUE(empty.RecvAll(nullptr, 0, 0));
    EXPECT_FALSE(empty.SendAll(nullptr, -1, 0));
    EXPECT_FALSE(empty.RecvAll(nullptr, -1, 0));
    EXPECT_FALSE(empty.SendAll("x", 1, 0));
}

TEST(SyncSocketAll, ReceiveCollectsSinglePieces) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    const std::string strBytes = "collected";
    std::thread sender([&] {
        for (char c : strBytes) {
            far.Say(std::string(1, c));
            while (BytesWaiting(near)) std::this_thread::yield();  // taken by a receive of its own
        }
    });
    char buf[10] = {};
    EXPECT_TRUE(near.RecvAll(buf, 9, 0));
    EXPECT_STREQ(buf, "collected");
    sender.join();
}

TEST(SyncSocketAll, ReceiveFailsWhenThePeerEndsInBetweenAndKeepsWhatCame) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    far.Say("half");
    far.m_peer.Close();
    char buf[9] = "--------";
    EXPECT_FALSE(near.RecvAll(buf, 8, 0));
    EXPECT_STREQ(buf, "half----");
}

TEST(SyncSocketAll, SendGoesOnAfterAShortOne) {
    struct sigaction act {};
    static std::atomic<bool> bSeen;
    bSeen = false;
    act.sa_handler = [](int) { bSeen = true; };
    struct sigaction old;
    sigaction(SIGUSR1, &act, &old);

    CSyncSocket near;
    CLoopbackPeer far(near);
    const int nSmall = 65536;
    setsockopt(near, SOL_SOCKET, SO_SNDBUF, &nSmall, sizeof nSmall);
    setsockopt(far.m_peer, SOL_SOCKET, SO_RCVBUF, &nSmall, sizeof nSmall);
    std::string strBytes(4 << 20, 'a');  // more than both buffers take
    strBytes.front() = 'F';
    strBytes.back() = 'L';
    std::atomic<bool> bSent{false};
    std::thread sender(
        [&] { bSent = near.SendAll(strBytes.data(), static_cast<int>(strBytes.size()), 0); });
    while (!BytesWaiting(far.m_peer)) std::this_thread::yield();
    pthread_kill(sender.native_handle(), SIGUSR1);  // ends a send that has moved bytes: a short one
    while (!bSeen) std::this_thread::yield();
    EXPECT_EQ(far.Hear(strBytes.size()), strBytes);
    sender.join();
    EXPECT_TRUE(bSent);
    sigaction(SIGUSR1, &old, nullptr);
}

TEST(SyncSocketAll, PassTheirFlagsOn) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    char c;
    EXPECT_FALSE(near.RecvAll(&c, 1, MSG_DONTWAIT));
    CFullSocket full;
    EXPECT_FALSE(full.SendAll("x", 1, MSG_DONTWAIT));
}

TEST(SyncSocketAll, ASignalIsAFailure) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    bool bReceived = true;
    RunInterrupted([&] {
        char c;
        bReceived = near.RecvAll(&c, 1, 0);
    });
    EXPECT_FALSE(bReceived);
    CFullSocket full;
    bool bSent = true;
    RunInterrupted([&] { bSent = full.SendAll("x", 1, 0); });
    EXPECT_FALSE(bSent);
}

TEST(SyncSocketAll, BypassTheOverrides) {
    CWatchedSocket near;
    CLoopbackPeer far(near);
    EXPECT_TRUE(near.SendAll("x", 1, 0));
    far.Say("y");
    char c;
    EXPECT_TRUE(near.RecvAll(&c, 1, 0));
    EXPECT_EQ(near.m_nSends, 0);
    EXPECT_EQ(near.m_nRecvs, 0);
}

// --- bounded single operations

TEST(SyncSocketRecvTimeOut, GivesMinusThreeAfterTheTime) {
    CWatchedSocket near;
    CLoopbackPeer far(near);
    char c;
    const auto start = Clock::now();
    EXPECT_EQ(near.RecvTimeOut(&c, 1, 100), -3);
    EXPECT_GE(MsSince(start), 90);
    EXPECT_EQ(near.m_nRecvs, 0);
}

TEST(SyncSocketRecvTimeOut, ReceivesOnceThroughTheOverride) {
    CWatchedSocket near;
    CLoopbackPeer far(near);
    far.Say("abc");
    char buf[10] = {};
    EXPECT_EQ(near.RecvTimeOut(buf, 10, kTenMinutes), 3);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(near.m_nRecvs, 1);
    EXPECT_EQ(near.m_nLastLen, 10);
    EXPECT_EQ(near.m_nLastFlags, 0);
}

TEST(SyncSocketRecvTimeOut, WaitsForBytesThatComeLater) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    std::thread sender([&] { far.Say("z"); });
    char c = 0;
    EXPECT_EQ(near.RecvTimeOut(&c, 1, kTenMinutes), 1);
    EXPECT_EQ(c, 'z');
    sender.join();
}

TEST(SyncSocketRecvTimeOut, GivesZeroAtTheEndAndMinusOneAfterAReset) {
    CSyncSocket ended, broken;
    CLoopbackPeer farEnded(ended), farBroken(broken);
    farEnded.m_peer.Close();
    char c;
    EXPECT_EQ(ended.RecvTimeOut(&c, 1, kTenMinutes), 0);
    farBroken.Reset();
    EXPECT_EQ(broken.RecvTimeOut(&c, 1, kTenMinutes), -1);
}

TEST(SyncSocketRecvTimeOut, OfZeroTakesWhatIsThere) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    char c;
    EXPECT_EQ(near.RecvTimeOut(&c, 1, 0), -3);
    far.Say("x");
    while (!BytesWaiting(near)) std::this_thread::yield();
    EXPECT_EQ(near.RecvTimeOut(&c, 1, 0), 1);
}

TEST(SyncSocketRecvTimeOut, OfANegativeTimeFailsAtOnce) {
    CWatchedSocket near;
    CLoopbackPeer far(near);
    far.Say("x");
    while (!BytesWaiting(near)) std::this_thread::yield();
    char c;
    EXPECT_EQ(near.RecvTimeOut(&c, 1, -1), -3);
    EXPECT_EQ(near.RecvTimeOut(&c, 1, LONG_MIN), -3);
    EXPECT_FALSE(near.SendTimeOut("x", 1, -1));
    EXPECT_EQ(near.m_nRecvs + near.m_nSends, 0);
}

TEST(SyncSocketRecvTimeOut, OfTheLongestTimeIsNoError) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    far.Say("x");
    char c;
    EXPECT_EQ(near.RecvTimeOut(&c, 1, LONG_MAX), 1);
    EXPECT_TRUE(near.SendTimeOut("x", 1, LONG_MAX));
}

TEST(SyncSocketRecvTimeOut, ATimeBeyondAnIntIsNotCutToNothing) {
    if (sizeof(long) == sizeof(int)) GTEST_SKIP();
    CSyncSocket near;
    CLoopbackPeer far(near);
    std::thread sender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        far.Say("x");
    });
    char c;
    EXPECT_EQ(near.RecvTimeOut(&c, 1, static_cast<long>(0x100000000)), 1);
    sender.join();
}

TEST(SyncSocketRecvTimeOut, WithoutAnOpenDescriptorFailsAtOnce) {
    const int fd = dup(STDOUT_FILENO);
    close(fd);
    CSyncSocket empty, stale(fd);
    char c;
    EXPECT_EQ(empty.RecvTimeOut(&c, 1, kTenMinutes), -3);
    EXPECT_EQ(stale.RecvTimeOut(&c, 1, kTenMinutes), -3);
    EXPECT_FALSE(empty.SendTimeOut("x", 1, kTenMinutes));
    EXPECT_FALSE(stale.SendTimeOut("x", 1, kTenMinutes));
}

TEST(SyncSocketRecvTimeOut, ASignalEndsTheWait) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    int nResult = 0;
    RunInterrupted([&] {
        char c;
        nResult = near.RecvTimeOut(&c, 1, kTenMinutes);
    });
    EXPECT_EQ(nResult, -3);
    CFullSocket full;
    bool bSent = true;
    RunInterrupted([&] { bSent = full.SendTimeOut("x", 1, kTenMinutes); });
    EXPECT_FALSE(bSent);
}

TEST(SyncSocketRecvTimeOut, WorksOnDescriptorsBeyondAThousand) {
    constexpr int kHighFd = FD_SETSIZE + 500;
    rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    if (old.rlim_max != RLIM_INFINITY && old.rlim_max <= kHighFd) GTEST_SKIP();
    rlimit high = old;
    high.rlim_cur = kHighFd + 1;
    if (old.rlim_cur < high.rlim_cur) {
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &high), 0);
    }

    CSyncSocket near;
    CLoopbackPeer far(near);
    {
        CSyncSocket same(dup2(near, kHighFd));
        char c = 0;
        EXPECT_EQ(same.RecvTimeOut(&c, 1, 1), -3);
        far.Say("h");
        EXPECT_EQ(same.RecvTimeOut(&c, 1, kTenMinutes), 1);
        EXPECT_TRUE(same.SendTimeOut("x", 1, kTenMinutes));
    }
    setrlimit(RLIMIT_NOFILE, &old);
}

TEST(SyncSocketSendTimeOut, SendsOnceThroughTheOverride) {
    CWatchedSocket near;
    CLoopbackPeer far(near);
    EXPECT_TRUE(near.SendTimeOut("abc", 3, kTenMinutes));
    EXPECT_EQ(far.Hear(3), "abc");
    EXPECT_EQ(near.m_nSends, 1);
    EXPECT_EQ(near.m_nLastFlags, 0);
}

TEST(SyncSocketSendTimeOut, AShortSendIsAFailureAndNotRepeated) {
    CWatchedSocket near;
    CLoopbackPeer far(near);
    near.m_nSendResult = 2;
    EXPECT_FALSE(near.SendTimeOut("abc", 3, kTenMinutes));
    EXPECT_EQ(near.m_nSends, 1);
    near.m_nSendResult = -1;
    EXPECT_FALSE(near.SendTimeOut("abc", 3, kTenMinutes));
}

TEST(SyncSocketSendTimeOut, FailsAfterTheTimeWhenNothingCanBeSent) {
    CFullSocket full;
    const auto start = Clock::now();
    EXPECT_FALSE(full.SendTimeOut("x", 1, 100));
    EXPECT_GE(MsSince(start), 90);
    EXPECT_EQ(full.m_nSends, 0);
}

TEST(SyncSocketSendTimeOut, RefusesASizeThatOneSendCannotName) {
    CWatchedSocket near;
    CLoopbackPeer far(near);
    EXPECT_FALSE(near.SendTimeOut("x", 0x80000000u, kTenMinutes));
    EXPECT_EQ(near.m_nSends, 0);
}

// --- datagrams

TEST(SyncSocketDatagram, GoesToANamedHostAndToAReadyAddress) {
    SKIP_WITHOUT_LOCALHOST();
    CSyncSocket to, from;
    ASSERT_TRUE(to.Create(0, SOCK_DGRAM, "127.0.0.1", FALSE));
    ASSERT_TRUE(from.Create(0, SOCK_DGRAM, "127.0.0.1", FALSE));
    ASSERT_TRUE(to.SetRecvTimeOut(30000));
    SOCKADDR_IN toAddr{}, fromAddr{};
    ASSERT_TRUE(to.GetSockName(&toAddr));
    ASSERT_TRUE(from.GetSockName(&fromAddr));
    EXPECT_EQ(from._SendTo("one", 3, ntohs(toAddr.sin_port), "localhost", 0), 3);
    EXPECT_EQ(from._SendTo("three", 5, &toAddr, 0), 5);

    char buf[16] = {};
    SOCKADDR_IN sender = DirtyAddr();
    EXPECT_EQ(to._RecvFrom(buf, sizeof buf, &sender, 0), 3);
    EXPECT_STREQ(buf, "one");
    EXPECT_EQ(std::memcmp(&sender, &fromAddr, sizeof sender), 0);
    EXPECT_EQ(to._RecvFrom(buf, sizeof buf, &sender, 0), 5);
    EXPECT_STREQ(buf, "three");
}

TEST(SyncSocketDatagram, ReceiveClearsTheSenderOnFailure) {
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_DGRAM, "127.0.0.1", FALSE));
    char c = 0;
    const SOCKADDR_IN clear{};
    SOCKADDR_IN sender = DirtyAddr();
    EXPECT_EQ(sock._RecvFrom(&c, 1, &sender, MSG_DONTWAIT), -1);
    EXPECT_EQ(std::memcmp(&sender, &clear, sizeof sender), 0);
    sender = DirtyAddr();
    EXPECT_EQ(sock._RecvFrom(&c, -1, &sender, MSG_DONTWAIT), -1);
    EXPECT_EQ(std::memcmp(&sender, &clear, sizeof sender), 0);
    EXPECT_EQ(sock._SendTo(&c, -1, &sender, 0), -1);
    EXPECT_EQ(sock._SendTo(&c, 1, 1, kNoHost.c_str(), 0), -1);
}

}  // namespace
