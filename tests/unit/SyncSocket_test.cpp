#include "SyncSocket.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/time.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <type_traits>

#include "LoopbackPair.h"
#include "ProcessState.h"

namespace {

// A label of more than 63 characters is never sent to a name server.
const std::string kNoHost(64, 'x');

int IntOption(int fd, int nLevel, int nOption) {
    int n = -1;
    socklen_t nLen = sizeof n;
    EXPECT_EQ(getsockopt(fd, nLevel, nOption, &n, &nLen), 0);
    return n;
}

// A time-out option in microseconds.
// --- the object and its descriptor

// The place of a virtual function in the table of virtual operations.
template <class TMember>
size_t VirtualSlot(TMember member) {
    size_t words[2];
    static_assert(sizeof member == sizeof words, "a function's place and an adjustment");
    std::memcpy(words, &member, sizeof words);
#if defined(__arm__) || defined(__aarch64__)
    return words[0] / sizeof(void*);
#else
    return (words[0] - 1) / sizeof(void*);
#endif
}

TEST(SyncSocket, VirtualOperationsKeepTheirOrder) {
    // Two slots for the destructor: the complete object and the deleting form.
    EXPECT_EQ(VirtualSlot(&CSyncSocket::IsSocket), 2u);
    EXPECT_EQ(VirtualSlot(&CSyncSocket::_Send), 3u);
    EXPECT_EQ(VirtualSlot(&CSyncSocket::_Recv), 4u);
    EXPECT_TRUE(std::has_virtual_destructor<CSyncSocket>::value);
}

TEST(SyncSocket, IsNeverCopied) {
    EXPECT_FALSE(std::is_copy_constructible<CSyncSocket>::value);
    EXPECT_FALSE(std::is_copy_assignable<CSyncSocket>::value);
}

TEST(SyncSocket, StartsEmpty) {
    CSyncSocket sock;
    EXPECT_EQ(sock.GetSocket(), -1);
    EXPECT_FALSE(sock.IsSocket());
}

TEST(SyncSocket, AdoptsADescriptorAndClosesItWhenDestroyed) {
    const int fd = dup(STDOUT_FILENO);
    {
        CSyncSocket sock(fd);
        EXPECT_EQ(sock.GetSocket(), fd);
        EXPECT_EQ(static_cast<SOCKET>(sock), fd);
        EXPECT_TRUE(sock.IsSocket());
    }
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST(SyncSocket, CloseClosesAndCanBeRepeated) {
    const int fd = dup(STDOUT_FILENO);
    CSyncSocket sock(fd);
    sock.Close();
    EXPECT_FALSE(IsOpenFd(fd));
    EXPECT_EQ(sock.GetSocket(), -1);
    sock.Close();
    EXPECT_EQ(sock.GetSocket(), -1);
}

TEST(SyncSocket, CloseAsksTheVirtualIsSocket) {
    class CNeverSocket : public CSyncSocket {
      public:
        using CSyncSocket::CSyncSocket;
        bool IsSocket() const override { return false; }
    };
    const int fd = dup(STDOUT_FILENO);
    CNeverSocket sock(fd);
    sock.Close();
    EXPECT_TRUE(IsOpenFd(fd));
    EXPECT_EQ(sock.GetSocket(), -1);
    close(fd);
}

// Descriptor 0 stands for an open file of the test's own while one of these exists.
class CBorrowedDescriptorZero {
  public:
    CBorrowedDescriptorZero() : m_fdSaved(dup(0)) {
        const int fd = open("/dev/null", O_RDONLY);
        if (fd != 0) {
            dup2(fd, 0);
            close(fd);
        }
    }
    ~CBorrowedDescriptorZero() {
        if (m_fdSaved == -1) {
            close(0);
        } else {
            dup2(m_fdSaved, 0);
            close(m_fdSaved);
        }
    }

  private:
    int m_fdSaved;
};

TEST(SyncSocket, CloseForgetsDescriptorZeroWithoutClosingIt) {
    CBorrowedDescriptorZero zero;
    CSyncSocket sock(0);
    EXPECT_FALSE(sock.IsSocket());
    sock.Close();
    EXPECT_EQ(sock.GetSocket(), -1);
    EXPECT_TRUE(IsOpenFd(0));
}

TEST(SyncSocket, DestructorClosesDescriptorZero) {
    CBorrowedDescriptorZero zero;
    { CSyncSocket sock(0); }
    EXPECT_FALSE(IsOpenFd(0));
}

// --- Create

TEST(SyncSocketCreate, WithoutPortAndAddressDoesNotBind) {
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, TRUE));
    SOCKADDR_IN addr{};
    ASSERT_TRUE(sock.GetSockName(&addr));
    EXPECT_EQ(addr.sin_port, 0);
    EXPECT_EQ(IntOption(sock, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(IntOption(sock, SOL_SOCKET, SO_REUSEADDR), 0);  // only what is bound is reused
}

TEST(SyncSocketCreate, TakesTheType) {
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_DGRAM, nullptr, FALSE));
    EXPECT_EQ(IntOption(sock, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
}

TEST(SyncSocketCreate, FailsForATypeThatTheSystemRefuses) {
    CSyncSocket sock;
    EXPECT_FALSE(sock.Create(0, 15, nullptr, FALSE));
    EXPECT_EQ(sock.GetSocket(), -1);
}

TEST(SyncSocketCreate, IsNotInheritedByPrograms) {
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, FALSE));
    EXPECT_TRUE(IsCloseOnExec(sock));
}

TEST(SyncSocketCreate, KeepsADescriptorWhateverItsType) {
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_DGRAM, nullptr, FALSE));
    const SOCKET hOld = sock.GetSocket();
    EXPECT_TRUE(sock.Create(0, SOCK_STREAM, "127.0.0.1", FALSE));
    EXPECT_EQ(sock.GetSocket(), hOld);
    EXPECT_EQ(IntOption(sock, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
}

TEST(SyncSocketCreate, WithAnAddressAloneBindsToIt) {
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, "127.0.0.1", FALSE));
    SOCKADDR_IN addr{};
    ASSERT_TRUE(sock.GetSockName(&addr));
    EXPECT_EQ(addr.sin_addr.s_addr, LoopbackIp());
    EXPECT_NE(addr.sin_port, 0);
    EXPECT_EQ(IntOption(sock, SOL_SOCKET, SO_REUSEADDR), 0);
}

TEST(SyncSocketCreate, WithAPortAloneBindsToAnyAddress) {
    UINT nPort;
    {
        CLoopbackListener listener;
        nPort = listener.Port();
    }
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create(nPort, SOCK_STREAM, nullptr, TRUE));
    SOCKADDR_IN addr{};
    ASSERT_TRUE(sock.GetSockName(&addr));
    EXPECT_EQ(addr.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ntohs(addr.sin_port), nPort);
    EXPECT_NE(IntOption(sock, SOL_SOCKET, SO_REUSEADDR), 0);
}

TEST(SyncSocketCreate, IsEmptyAfterAFailedBind) {
    CLoopbackListener listener;
    const int fdNext = dup(STDOUT_FILENO);
    close(fdNext);
    CSyncSocket sock;
    EXPECT_FALSE(sock.Create(listener.Port(), SOCK_STREAM, "127.0.0.1", FALSE));
    EXPECT_EQ(sock.GetSocket(), -1);
    EXPECT_FALSE(IsOpenFd(fdNext));
}

// --- addresses

// The record as it was before: every byte must be written.
SOCKADDR_IN DirtyAddr() {
    SOCKADDR_IN addr;
    std::memset(&addr, 0xEE, sizeof addr);
    return addr;
}

void ExpectAddr(const SOCKADDR_IN& addr, UINT nPort, const BYTE (&ip)[4]) {
    EXPECT_EQ(addr.sin_family, 2);
    BYTE bytes[16];
    std::memcpy(bytes, &addr, sizeof bytes);
    const BYTE rest[14] = {
        static_cast<BYTE>(nPort >> 8), static_cast<BYTE>(nPort), ip[0], ip[1], ip[2], ip[3]};
    EXPECT_EQ(std::memcmp(bytes + 2, rest, sizeof rest), 0);
}

TEST(SyncSocketAddress, NumberIsTakenAsItGoesOnTheWire) {
    const BYTE ip[4] = {10, 1, 2, 3};
    in_addr_t uIp;
    std::memcpy(&uIp, ip, sizeof uIp);
    SOCKADDR_IN addr = DirtyAddr();
    CSyncSocket::CreateAddrIn(static_cast<ULONG>(uIp), 8080, &addr);
    ExpectAddr(addr, 8080, ip);
}

TEST(SyncSocketAddress, PortIsCutTo16Bits) {
    SOCKADDR_IN addr = DirtyAddr();
    CSyncSocket::CreateAddrIn(LoopbackIp(), 70000, &addr);
    ExpectAddr(addr, 4464, {127, 0, 0, 1});
    addr = DirtyAddr();
    CSyncSocket::CreateAddrIn("127.0.0.1", 70000, &addr);
    ExpectAddr(addr, 4464, {127, 0, 0, 1});
}

TEST(SyncSocketAddress, NullIsAnyAddress) {
    SOCKADDR_IN addr = DirtyAddr();
    CSyncSocket::CreateAddrIn(nullptr, 80, &addr);
    ExpectAddr(addr, 80, {0, 0, 0, 0});
}

TEST(SyncSocketAddress, DottedQuadIsReadAsIs) {
    SOCKADDR_IN addr = DirtyAddr();
    CSyncSocket::CreateAddrIn("192.168.7.254", 3968, &addr);
    ExpectAddr(addr, 3968, {192, 168, 7, 254});
}

TEST(SyncSocketAddress, QuadsOfZerosAndOnesComeBackFromTheLookup) {
    SOCKADDR_IN addr = DirtyAddr();
    CSyncSocket::CreateAddrIn("0.0.0.0", 80, &addr);
    ExpectAddr(addr, 80, {0, 0, 0, 0});
    addr = DirtyAddr();
    CSyncSocket::CreateAddrIn("255.255.255.255", 80, &addr);
    ExpectAddr(addr, 80, {255, 255, 255, 255});
}

TEST(SyncSocketAddress, HostNameIsLookedUp) {
    SKIP_WITHOUT_LOCALHOST();
    SOCKADDR_IN addr = DirtyAddr();
    CSyncSocket::CreateAddrIn("localhost", 80, &addr);
    ExpectAddr(addr, 80, {127, 0, 0, 1});
}

TEST(SyncSocketAddress, UnknownNameLeavesAllOnes) {
    SOCKADDR_IN addr = DirtyAddr();
    CSyncSocket::CreateAddrIn(kNoHost.c_str(), 80, &addr);
    ExpectAddr(addr, 80, {255, 255, 255, 255});
}

// --- connecting

TEST(SyncSocketConnect, ReachesANumberANameAndAQuad) {
    SKIP_WITHOUT_LOCALHOST();
    CLoopbackListener listener;
    CSyncSocket a, b, c, far;
    ASSERT_TRUE(a.Create(0, SOCK_STREAM, nullptr, FALSE));
    ASSERT_TRUE(b.Create(0, SOCK_STREAM, nullptr, FALSE));
    ASSERT_TRUE(c.Create(0, SOCK_STREAM, nullptr, FALSE));
    EXPECT_EQ(a._Connect(LoopbackIp(), listener.Port()), TRUE);
    EXPECT_EQ(b._Connect("localhost", listener.Port()), TRUE);
    EXPECT_EQ(c._Connect("127.0.0.1", listener.Port()), TRUE);
}

TEST(SyncSocketConnect, FailureLeavesTheDescriptorOpen) {
    UINT nPort;
    {
        CLoopbackListener listener;
        nPort = listener.Port();
    }
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, FALSE));
    EXPECT_EQ(sock._Connect(LoopbackIp(), nPort), FALSE);
    EXPECT_TRUE(sock.IsSocket());
    EXPECT_TRUE(IsOpenFd(sock));
}

TEST(SyncSocketConnect, FailsForAnUnknownName) {
    CLoopbackListener listener;
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, FALSE));
    EXPECT_EQ(sock._Connect(kNoHost.c_str(), listener.Port()), FALSE);
}

TEST(SyncSocketConnect, FailsWithoutADescriptor) {
    CLoopbackListener listener;
    CSyncSocket sock;
    EXPECT_EQ(sock._Connect(LoopbackIp(), listener.Port()), FALSE);
}

TEST(SyncSocketAccept, FillsTheOtherObjectAndTheAddress) {
    CLoopbackListener listener;
    CSyncSocket near;
    ASSERT_TRUE(near.Create(0, SOCK_STREAM, nullptr, FALSE));
    ASSERT_TRUE(near._Connect(LoopbackIp(), listener.Port()));
    CSyncSocket far;
    sockaddr_storage peer{};
    socklen_t nLen = sizeof peer;
    ASSERT_EQ(listener.m_sock.Accept(far, reinterpret_cast<SOCKADDR*>(&peer), &nLen), TRUE);
    EXPECT_EQ(nLen, sizeof(SOCKADDR_IN));
    EXPECT_TRUE(IsCloseOnExec(far));
    SOCKADDR_IN expected{}, actual{};
    ASSERT_TRUE(near.GetSockName(&expected));
    ASSERT_TRUE(far.GetPeerName(&actual));
    EXPECT_EQ(actual.sin_port, expected.sin_port);
    EXPECT_EQ(std::memcmp(&peer, &expected, sizeof expected), 0);
}

TEST(SyncSocketAccept, FailureReplacesTheOtherDescriptorWithoutClosingIt) {
    const int fd = dup(STDOUT_FILENO);
    CSyncSocket notListening, other(fd);
    ASSERT_TRUE(notListening.Create(0, SOCK_STREAM, nullptr, FALSE));
    EXPECT_EQ(notListening.Accept(other, nullptr, nullptr), FALSE);
    EXPECT_EQ(other.GetSocket(), -1);
    EXPECT_TRUE(IsOpenFd(fd));
    close(fd);
}

TEST(SyncSocketNames, FailWithoutAConnection) {
    CSyncSocket sock;
    SOCKADDR_IN addr = DirtyAddr();
    const SOCKADDR_IN before = addr;
    EXPECT_EQ(sock.GetSockName(&addr), FALSE);
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, FALSE));
    EXPECT_EQ(sock.GetPeerName(&addr), FALSE);
    EXPECT_EQ(std::memcmp(&addr, &before, sizeof addr), 0);
    EXPECT_EQ(CSyncSocket().Listen(), FALSE);
}

TEST(SyncSocketShutDown, WakesAThreadThatReceivesAndKeepsTheDescriptor) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    std::atomic<int> nResult{-99};
    std::thread receiver([&] {
        char c;
        nResult = near._Recv(&c, 1, 0);
    });
    EXPECT_EQ(near.ShutDown(), TRUE);
    receiver.join();
    EXPECT_EQ(nResult, 0);
    EXPECT_TRUE(IsOpenFd(near));
}

TEST(SyncSocketShutDown, OfOneDirectionLeavesTheOther) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    EXPECT_EQ(near.ShutDown(SHUT_WR), TRUE);
    char c = 0;
    EXPECT_EQ(far.m_peer._Recv(&c, 1, 0), 0);
    far.Say("x");
    EXPECT_EQ(near._Recv(&c, 1, 0), 1);
}

TEST(SyncSocketShutDown, FailsWhenThereIsNoConnection) {
    CSyncSocket sock;
    EXPECT_EQ(sock.ShutDown(), FALSE);
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, FALSE));
    EXPECT_EQ(sock.ShutDown(), FALSE);
}

// --- options

class SyncSocketOptions : public ::testing::Test {
  protected:
    SyncSocketOptions() { EXPECT_TRUE(m_sock.Create(0, SOCK_STREAM, nullptr, FALSE)); }
    CSyncSocket m_sock;
    CSyncSocket m_empty;
};

TEST_F(SyncSocketOptions, TimeOutsAreSetOneByOne) {
    EXPECT_EQ(m_sock.SetRecvTimeOut(1500), TRUE);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_RCVTIMEO), 1500000);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_SNDTIMEO), 0);
    EXPECT_EQ(m_sock.SetSendTimeOut(2500), TRUE);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_RCVTIMEO), 1500000);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_SNDTIMEO), 2500000);
    EXPECT_EQ(m_sock.SetRecvTimeOut(0), TRUE);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_RCVTIMEO), 0);
}

TEST_F(SyncSocketOptions, SetTimeOutSetsBoth) {
    EXPECT_EQ(m_sock.SetTimeOut(8000), TRUE);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_RCVTIMEO), 8000000);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_SNDTIMEO), 8000000);
}

TEST_F(SyncSocketOptions, SetTimeOutOfZeroChangesNothingAndSucceeds) {
    EXPECT_EQ(m_sock.SetTimeOut(8000), TRUE);
    EXPECT_EQ(m_sock.SetTimeOut(0), TRUE);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_RCVTIMEO), 8000000);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_SNDTIMEO), 8000000);
    EXPECT_EQ(m_empty.SetTimeOut(0), TRUE);
}

TEST_F(SyncSocketOptions, LongestTimeOutIsSomeTwentyFourDays) {
    EXPECT_EQ(m_sock.SetTimeOut(0x7fffffff), TRUE);
    EXPECT_GE(TimeOptionUs(m_sock, SO_RCVTIMEO), 2147483000000LL);
    EXPECT_GE(TimeOptionUs(m_sock, SO_SNDTIMEO), 2147483000000LL);
    long nMs = 0;
    EXPECT_EQ(m_sock.GetRecvTimeOut(nMs), TRUE);
    EXPECT_GE(nMs, 2147483000L);
}

TEST_F(SyncSocketOptions, PartsOfASecondBelowZeroAreRefused) {
    EXPECT_EQ(m_sock.SetTimeOut(8000), TRUE);
    EXPECT_EQ(m_sock.SetRecvTimeOut(-1), FALSE);
    EXPECT_EQ(m_sock.SetSendTimeOut(-1), FALSE);
    EXPECT_EQ(m_sock.SetTimeOut(-1), FALSE);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_RCVTIMEO), 8000000);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_SNDTIMEO), 8000000);
}

TEST_F(SyncSocketOptions, RecvTimeOutIsReadBackInMilliseconds) {
    EXPECT_EQ(m_sock.SetRecvTimeOut(1500), TRUE);
    EXPECT_EQ(m_sock.SetSendTimeOut(9000), TRUE);
    timeval tv{};
    socklen_t nLen = sizeof tv;
    ASSERT_EQ(getsockopt(m_sock, SOL_SOCKET, SO_RCVTIMEO, &tv, &nLen), 0);
    if (nLen != sizeof tv) GTEST_SKIP() << "the emulator gives an int for 64-bit seconds";
    long nMs = -1;
    EXPECT_EQ(m_sock.GetRecvTimeOut(nMs), TRUE);
    EXPECT_EQ(nMs, 1500);
    EXPECT_EQ(TimeOptionUs(m_sock, SO_RCVTIMEO), 1500000);  // asking changed nothing
}

TEST_F(SyncSocketOptions, FailWithoutASocket) {
    long nMs = 77;
    EXPECT_EQ(m_empty.SetRecvTimeOut(1000), FALSE);
    EXPECT_EQ(m_empty.SetSendTimeOut(1000), FALSE);
    EXPECT_EQ(m_empty.SetTimeOut(1000), FALSE);
    EXPECT_EQ(m_empty.GetRecvTimeOut(nMs), FALSE);
    EXPECT_EQ(nMs, 77);
    EXPECT_FALSE(m_empty.SetKeepAlive());
}

TEST_F(SyncSocketOptions, RecvTimeOutEndsAReceive) {
    CSyncSocket near;
    CLoopbackPeer far(near);
    ASSERT_TRUE(near.SetRecvTimeOut(50));
    char c;
    EXPECT_EQ(near._Recv(&c, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(near.RecvAll(&c, 1, 0));
}

TEST_F(SyncSocketOptions, KeepAliveFindsACutCableWithinTwoMinutes) {
    EXPECT_TRUE(m_sock.SetKeepAlive());
    EXPECT_EQ(IntOption(m_sock, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(IntOption(m_sock, IPPROTO_TCP, TCP_KEEPIDLE), 60);
    EXPECT_EQ(IntOption(m_sock, IPPROTO_TCP, TCP_KEEPINTVL), 20);
    EXPECT_EQ(IntOption(m_sock, IPPROTO_TCP, TCP_KEEPCNT), 3);
}

TEST_F(SyncSocketOptions, NoDelaySendsAtOnce) {
    EXPECT_EQ(IntOption(m_sock, IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_TRUE(m_sock.SetNoDelay());
    EXPECT_NE(IntOption(m_sock, IPPROTO_TCP, TCP_NODELAY), 0);
}

}  // namespace
