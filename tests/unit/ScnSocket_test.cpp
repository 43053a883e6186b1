#include "ScnSocket.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

#include "LoopbackPair.h"

namespace {

// A label of more than 63 characters is never sent to a name server.
const std::string kNoHost(64, 'x');

constexpr long kTenMinutes = 600000;

TEST(ScnSocket, StartsWithoutACenterServer) {
    CScnSocket sock;
    EXPECT_EQ(sock.GetP2PCenterIp(), 0u);
    EXPECT_FALSE(sock.IsSocket());
    sock.SetP2PCenterIp(0xFFFFFFFE);
    EXPECT_EQ(sock.GetP2PCenterIp(), 0xFFFFFFFEu);
}

TEST(ScnSocket, ConnectsToTheNamedHostWithoutACenterServer) {
    CLoopbackListener listener;
    CScnSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, FALSE));
    EXPECT_EQ(sock._Connect("127.0.0.1", listener.Port()), TRUE);
}

TEST(ScnSocket, ConnectsToTheCenterServerAndNeverLooksAtTheHost) {
    CLoopbackListener listener;
    CScnSocket sock, other;
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, FALSE));
    sock.SetP2PCenterIp(LoopbackIp());
    EXPECT_EQ(sock._Connect(kNoHost.c_str(), listener.Port()), TRUE);
    ASSERT_TRUE(other.Create(0, SOCK_STREAM, nullptr, FALSE));
    other.SetP2PCenterIp(LoopbackIp());
    EXPECT_EQ(other._Connect(nullptr, listener.Port()), TRUE);
}

TEST(ScnSocket, CloseForgetsTheCenterServer) {
    CScnSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, FALSE));
    const int fd = sock;
    sock.SetP2PCenterIp(LoopbackIp());
    sock.Close();
    EXPECT_EQ(sock.GetP2PCenterIp(), 0u);
    EXPECT_FALSE(sock.IsSocket());
    EXPECT_FALSE(IsOpenFd(fd));
}

template <class TSock, class = void>
struct ConnectsToNumbers : std::false_type {};
template <class TSock>
struct ConnectsToNumbers<TSock, decltype(void(std::declval<TSock&>()._Connect(
                                    std::declval<ULONG>(), 80u)))> : std::true_type {};

TEST(ScnSocket, HidesTheFormThatWouldPassTheCenterServerBy) {
    EXPECT_TRUE(ConnectsToNumbers<CSyncSocket>::value);
    EXPECT_FALSE(ConnectsToNumbers<CScnSocket>::value);
}

// --- CReqTimeSock

class CTestReqTimeSock : public CReqTimeSock {
  public:
    void Forget() { m_lastReqTime = 0; }
};

TEST(ReqTimeSock, StartsWithTheTimeOfItsConstruction) {
    const time_t before = time(nullptr);
    CReqTimeSock sock;
    EXPECT_GE(sock.GetLastReqTime(), before);
    EXPECT_LE(sock.GetLastReqTime(), time(nullptr));
}

TEST(ReqTimeSock, EverySendIsStamped) {
    CTestReqTimeSock sock;
    CLoopbackPeer far(sock);
    sock.Forget();
    const time_t before = time(nullptr);
    EXPECT_EQ(sock._Send("abc", 3, 0), 3);
    EXPECT_GE(sock.GetLastReqTime(), before);
    EXPECT_EQ(far.Hear(3), "abc");
    sock.Forget();
    EXPECT_TRUE(sock.SendTimeOut("abc", 3, kTenMinutes));
    EXPECT_GE(sock.GetLastReqTime(), before);
}

TEST(ReqTimeSock, AFailedSendIsStampedToo) {
    CTestReqTimeSock sock;
    sock.Forget();
    const time_t before = time(nullptr);
    EXPECT_EQ(sock._Send("abc", 3, 0), -1);
    EXPECT_GE(sock.GetLastReqTime(), before);
}

TEST(ReqTimeSock, WholeBufferSendsAndReceivesAreNotStamped) {
    CTestReqTimeSock sock;
    CLoopbackPeer far(sock);
    sock.Forget();
    EXPECT_TRUE(sock.SendAll("abc", 3, 0));
    far.Say("x");
    char c;
    EXPECT_EQ(sock._Recv(&c, 1, 0), 1);
    EXPECT_EQ(sock.GetLastReqTime(), 0);
}

}  // namespace
