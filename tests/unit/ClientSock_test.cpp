#include "ClientSock.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/stat.h>

#include <cstring>

#include "ProcessState.h"
#include "ScriptedServer.h"
#include "WireBytes.h"
#include "mtool3.h"

namespace {

// ---- Host texts ---------------------------------------------------------------------------------

CHostAddress Parsed(const std::string& strHost) {
    CHostAddress address;
    EXPECT_EQ(ParseHostText(strHost.c_str(), address), kLoggedIn) << strHost;
    return address;
}

TEST(HostText, WithoutPortMeansPort80AndEightSeconds) {
    const CHostAddress address = Parsed("plant.local");
    EXPECT_EQ(address.strHost, "plant.local");
    EXPECT_EQ(address.nPort, 80u);
    EXPECT_EQ(address.nTimeOutMs, 8000);
    EXPECT_EQ(address.nCenterIp, 0u);
    EXPECT_FALSE(address.bRelay);
}

TEST(HostText, PortStandsBehindTheLastColon) {
    const CHostAddress address = Parsed("a:b:8080");
    EXPECT_EQ(address.strHost, "a:b");
    EXPECT_EQ(address.nPort, 8080u);
}

TEST(HostText, PortZeroMeans80) { EXPECT_EQ(Parsed("h:0").nPort, 80u); }
TEST(HostText, NoDigitsMean80) { EXPECT_EQ(Parsed("h:").nPort, 80u); }
TEST(HostText, NoDigitsMean80AndTheHostIsCutAllTheSame) { EXPECT_EQ(Parsed("h:x").strHost, "h"); }
TEST(HostText, Port65535Stays) { EXPECT_EQ(Parsed("h:65535").nPort, 65535u); }
TEST(HostText, Port65536IsCutToZeroAndMeans80) { EXPECT_EQ(Parsed("h:65536").nPort, 80u); }
TEST(HostText, Port70000IsCutTo4464) { EXPECT_EQ(Parsed("h:70000").nPort, 4464u); }
TEST(HostText, PortBeyond32BitsSaturatesAndIsCutTo65535) {
    EXPECT_EQ(Parsed("h:99999999999").nPort, 65535u);  // 0x7FFFFFFF
}
TEST(HostText, PortBelow32BitsSaturatesAndIsCutTo80) {
    EXPECT_EQ(Parsed("h:-99999999999").nPort, 80u);  // 0x80000000
}
TEST(HostText, NegativePortIsCutTo16Bits) { EXPECT_EQ(Parsed("h:-1").nPort, 65535u); }
TEST(HostText, PortMayHaveBlanksBeforeAndLettersBehind) { EXPECT_EQ(Parsed("h: 81x").nPort, 81u); }

TEST(HostText, ColonInFirstPlaceIsNoSeparator) {
    const CHostAddress address = Parsed(":81");
    EXPECT_EQ(address.strHost, ":81");
    EXPECT_EQ(address.nPort, 80u);
}

TEST(HostText, RelayNamesItsCenterInParentheses) {
    const CHostAddress address = Parsed("p2p(10.1.2.3):Plant");
    EXPECT_TRUE(address.bRelay);
    EXPECT_EQ(address.strHost, "Plant");
    EXPECT_EQ(address.nCenterIp, inet_addr("10.1.2.3"));
    EXPECT_EQ(address.nPort, 3968u);
    EXPECT_EQ(address.nTimeOutMs, 13000);
}

TEST(HostText, RelayInCapitalsGoesThroughTheDefaultCenter) {
    const CHostAddress address = Parsed("P2P:Plant");
    EXPECT_EQ(address.strHost, "Plant");
    EXPECT_EQ(address.nCenterIp, inet_addr("127.0.0.1"));
}

TEST(HostText, RelayWithAllKindsOfParentheses) {
    EXPECT_EQ(Parsed("p2p(10.1.2.3))):P").nCenterIp, inet_addr("10.1.2.3"));
    EXPECT_EQ(Parsed("p2p(10.1.2.3:P").nCenterIp, inet_addr("10.1.2.3"));
    EXPECT_EQ(Parsed("p2p x(10.1.2.3):P").nCenterIp, inet_addr("10.1.2.3"));
}

TEST(HostText, RelayPlantNameGoesFromTheFirstColonOn) {
    EXPECT_EQ(Parsed("p2p:a:b:9").strHost, "a:b:9");
}

TEST(HostText, RelayCenterIsNotLookedUp) {
    EXPECT_EQ(Parsed("p2p(localhost):P").nCenterIp, INADDR_NONE);
}

TEST(HostText, RelayWithoutColonIsBad) {
    CHostAddress address;
    EXPECT_EQ(ParseHostText("p2pPlant", address), static_cast<HRESULT>(0x80070057));
}

TEST(HostText, RelayPlantNameOf255BytesIsTaken) {
    EXPECT_EQ(Parsed("p2p:" + std::string(255, 'n')).strHost.size(), 255u);
}

TEST(HostText, RelayPlantNameOf256BytesFails) {
    CHostAddress address;
    EXPECT_EQ(ParseHostText(("p2p:" + std::string(256, 'n')).c_str(), address),
              static_cast<HRESULT>(0x80004005));
}

// ---- Identifiers --------------------------------------------------------------------------------

TEST(Guid, LeavesTheScriptsRandomNumbersAlone) {
    srand(7);
    const int nFirst = rand();
    const int nSecond = rand();
    srand(7);
    EXPECT_EQ(rand(), nFirst);
    _GUID guid;
    CoCreateGuid(&guid);
    EXPECT_EQ(rand(), nSecond);
}

TEST(Guid, BeginsWithTheSecondAndEndsWithSecondAndMicrosecond) {
    const time_t tBefore = time(nullptr);
    _GUID guid;
    CoCreateGuid(&guid);
    const time_t tAfter = time(nullptr);
    DWORD parts[2];
    std::memcpy(parts, guid.Data4, sizeof parts);
    EXPECT_TRUE(guid.Data1 >= tBefore && guid.Data1 <= tAfter);
    EXPECT_TRUE(parts[0] >= tBefore && parts[0] <= tAfter);
    EXPECT_LT(parts[1], 1000000u);
}

TEST(ServerConnection, NoHostIsThisMachine) {
    EXPECT_FALSE(CClientSock::_IsLocalDB("127.0.0.1"));
    EXPECT_FALSE(CClientSock::_IsLocalDB("localhost"));
}

TEST(ServerConnection, GatewayAddressIsSixZeroBytes) {
    BYTE mac[7];
    std::memset(mac, 0xAA, sizeof mac);
    CClientSock::GetGatewayMac(0x01020304, mac);
    EXPECT_EQ(std::string(mac, mac + 7), Hex("00 00 00 00 00 00 AA"));
}

TEST(ServerConnection, BeginsLocalAndEmpty) {
    CClientSock sock;
    EXPECT_TRUE(sock.m_bLocalDB);
    EXPECT_FALSE(sock.m_bLan);
    EXPECT_FALSE(sock.m_reqSock.IsSocket());
    EXPECT_FALSE(sock.m_rcvSock.IsSocket());
    EXPECT_TRUE(sock.m_strPrjPath.empty());
}

// ---- Login --------------------------------------------------------------------------------------

// What a login gave, with outputs that were set before to tell what was touched.
class CLogin {
  public:
    HRESULT Connect(const std::string& strHost, bool bAccessDB = true) {
        std::memset(&ack, 0x55, sizeof ack);
        return sock.ConnectDB(strHost.c_str(), strName, strTitle, ack, bAccessDB);
    }
    bool Untouched() const {
        SNAckRegReq untouched;
        std::memset(&untouched, 0x55, sizeof untouched);
        return strName == "name" && strTitle == "title" &&
               std::memcmp(&ack, &untouched, sizeof ack) == 0;
    }

    CClientSock sock;
    CString strName = "name";
    CString strTitle = "title";
    SNAckRegReq ack;
};

const std::string kRecord = std::string(42, 'd') + U32Big(0x11223344) + U32Big(0x22334455) +
                            U32Big(0x33445566) + U32Big(0x44556677);

class Login : public ::testing::Test, protected CLogin {
  protected:
    void OrderFirstHello(const std::string& strReply) {
        server.Accept();
        server.Take(0, &strHello);
        server.Send(0, strReply);
    }
    void OrderSecondHello(const std::string& strPlainReply) {
        OrderRawSecondHello(Scramble(strPlainReply));
    }
    void OrderRawSecondHello(const std::string& strReply) {
        server.Accept();
        server.Take(1, &strNotifyHello);
        server.Send(1, strReply);
    }
    void LogIn(const std::string& strName_ = "Line1", const std::string& strTitle_ = "Mill") {
        OrderFirstHello("7");
        OrderSecondHello("8" + kRecord + Z(strName_) + Z(strTitle_));
        ASSERT_EQ(Connect(server.Host()), kLoggedIn);
        ASSERT_TRUE(server.Done());
    }

    std::string strHello;
    std::string strNotifyHello;
    CScriptedServer server;
};

TEST_F(Login, FirstHelloIs23BytesAndHoldsTheGuidAlone) {
    LogIn();
    ASSERT_EQ(strHello.size(), 23u);
    EXPECT_EQ(strHello[0], '7');
    EXPECT_EQ(Unscramble(strHello.substr(1)).size(), 16u);
}

TEST_F(Login, GuidBeginsWithTheSecondInLittleEndian) {
    const time_t tBefore = time(nullptr);
    LogIn();
    const std::string strGuid = Unscramble(strHello.substr(1));
    DWORD nSecond = 0;
    for (size_t i = 0; i < 4; ++i)
        nSecond |= static_cast<DWORD>(static_cast<BYTE>(strGuid[i])) << (8 * i);
    EXPECT_GE(nSecond, tBefore);
    EXPECT_LE(nSecond, time(nullptr));
}

TEST_F(Login, SecondHelloHoldsTheSameGuidThisMachinesNameAndTwoFlags) {
    LogIn();
    char szName[236] = "";
    gethostname(szName, sizeof szName - 1);
    ASSERT_EQ(strNotifyHello[0], '8');
    EXPECT_EQ(Unscramble(strNotifyHello.substr(1)),
              Unscramble(strHello.substr(1)) + Z(szName) + Hex("01 01"));
}

TEST_F(Login, SecondHelloTellsWhenTheDatabaseIsNotAccessed) {
    OrderFirstHello("7");
    OrderSecondHello("8" + kRecord + Z("P") + Z("T"));
    ASSERT_EQ(Connect(server.Host(), false), kLoggedIn);
    ASSERT_TRUE(server.Done());
    const std::string strBody = Unscramble(strNotifyHello.substr(1));
    EXPECT_EQ(strBody.substr(strBody.size() - 3), Hex("00 00 01"));
}

TEST_F(Login, GivesRecordNameAndTitle) {
    LogIn("Line1", "Mill");
    EXPECT_EQ(strName, "Line1");
    EXPECT_EQ(strTitle, "Mill");
    EXPECT_EQ(std::memcmp(&ack, (kRecord + "L").data(), 59), 0);
    EXPECT_EQ(ntohl(ack.dif_time), 0x33445566u);
    EXPECT_EQ(ntohl(ack.dif_size), 0x44556677u);
}

TEST_F(Login, EmptyNameIsASuccess) {
    LogIn("", "Mill");
    EXPECT_EQ(strName, "");
    EXPECT_EQ(strTitle, "Mill");
}

TEST_F(Login, ReplyOf60BytesIsASuccessWithAnEmptyNameAndTitle) {
    OrderFirstHello("7");
    OrderSecondHello("8" + kRecord + "\0"s);
    EXPECT_EQ(Connect(server.Host()), kLoggedIn);
    EXPECT_EQ(strName, "");
    EXPECT_EQ(strTitle, "");
}

TEST_F(Login, NameWithoutItsZeroByteEndsWithTheReply) {
    OrderFirstHello("7");
    OrderSecondHello("8" + kRecord + "Lin");
    EXPECT_EQ(Connect(server.Host()), kLoggedIn);
    EXPECT_EQ(strName, "Lin");
    EXPECT_EQ(strTitle, "");
}

TEST_F(Login, TitleWithoutItsZeroByteEndsWithTheReply) {
    OrderFirstHello("7");
    OrderSecondHello("8" + kRecord + Z("P") + "Mi");
    EXPECT_EQ(Connect(server.Host()), kLoggedIn);
    EXPECT_EQ(strTitle, "Mi");
}

TEST_F(Login, ReplyOf512ScrambledBytesIsTaken) {
    OrderFirstHello("7");
    OrderSecondHello("8" + kRecord + std::string(384 - 59, 'n'));
    EXPECT_EQ(Connect(server.Host()), kLoggedIn);
    EXPECT_EQ(strName.size(), 384u - 59);
}

TEST_F(Login, EveryShorterReplyFailsAndTouchesNothing) {
    const std::string strReply = Scramble("8" + kRecord + "\0"s);
    for (size_t n = 1; n < strReply.size(); ++n) {
        CScriptedServer cutting;
        cutting.Accept();
        cutting.Take(0, &strHello);
        cutting.Send(0, "7");
        cutting.Accept();
        cutting.Take(1, &strNotifyHello);
        cutting.Send(1, strReply.substr(0, n));
        CLogin login;
        EXPECT_EQ(login.Connect(cutting.Host()), 1) << n;
        EXPECT_TRUE(login.Untouched()) << n;
    }
}

TEST_F(Login, SingleByte0IsARefusedLogin) {
    OrderFirstHello("7");
    OrderSecondHello("0");
    EXPECT_EQ(Connect(server.Host()), 1244);
    EXPECT_TRUE(Untouched());
}

TEST_F(Login, Byte0WithMoreBehindItIsAFailure) {
    OrderFirstHello("7");
    OrderSecondHello("00");
    EXPECT_EQ(Connect(server.Host()), 1);
}

TEST_F(Login, OtherSingleByteIsAFailure) {
    OrderFirstHello("7");
    OrderSecondHello("8");
    EXPECT_EQ(Connect(server.Host()), 1);
}

TEST_F(Login, LongReplyWithoutItsCodeFails) {
    OrderFirstHello("7");
    OrderSecondHello("9" + kRecord + Z("P") + Z("T"));
    EXPECT_EQ(Connect(server.Host()), 1);
    EXPECT_TRUE(Untouched());
}

TEST_F(Login, UnscrambledReplyFails) {
    OrderFirstHello("7");
    OrderRawSecondHello("8" + kRecord + Z("P") + Z("T"));
    EXPECT_EQ(Connect(server.Host()), 1);
}

TEST_F(Login, FirstHelloAnsweredWith0Fails) {
    OrderFirstHello("0");
    EXPECT_EQ(Connect(server.Host()), static_cast<HRESULT>(0x80004005));
    EXPECT_TRUE(Untouched());
}

TEST_F(Login, FirstHelloAnsweredWithAnotherCodeFails) {
    OrderFirstHello("8");
    EXPECT_EQ(Connect(server.Host()), 1);
}

TEST_F(Login, ServerThatClosesInsteadOfAnsweringFails) {
    server.Accept();
    server.Take(0, &strHello);
    server.Close(0);
    EXPECT_EQ(Connect(server.Host()), 1);
}

TEST_F(Login, ServerThatClosesTheSecondChannelFails) {
    OrderFirstHello("7");
    server.Accept();
    server.Take(1, &strNotifyHello);
    server.Close(1);
    EXPECT_EQ(Connect(server.Host()), 1);
    EXPECT_TRUE(Untouched());
}

TEST_F(Login, NobodyListeningFails) {
    std::string strHost;
    {
        CScriptedServer gone;
        strHost = gone.Host();
    }
    EXPECT_EQ(Connect(strHost), 1);
    EXPECT_TRUE(Untouched());
}

TEST_F(Login, UnknownHostFails) { EXPECT_EQ(Connect("no.such.host.invalid:81"), 1); }

TEST_F(Login, BadHostTextsFailWithoutAConnection) {
    EXPECT_EQ(Connect("p2p"), static_cast<HRESULT>(0x80070057));
    EXPECT_EQ(Connect("p2p(127.0.0.1):" + std::string(256, 'n')), static_cast<HRESULT>(0x80004005));
    EXPECT_FALSE(sock.m_reqSock.IsSocket());
    EXPECT_FALSE(sock.m_bLocalDB);
}

TEST_F(Login, IsNeverLocal) {
    LogIn();
    EXPECT_FALSE(sock.m_bLocalDB);
    EXPECT_FALSE(sock.m_bLan);
}

TEST_F(Login, FailureLeavesTheRequestSocketForTheCallerToClose) {
    OrderFirstHello("0");
    Connect(server.Host());
    EXPECT_TRUE(sock.m_reqSock.IsSocket());
}

TEST_F(Login, FirstClosesBothSockets) {
    LogIn();
    server.ExpectEnd(0);
    server.ExpectEnd(1);
    EXPECT_EQ(Connect("p2p"), kBadHostText);
    EXPECT_TRUE(server.Done());
    EXPECT_FALSE(sock.m_reqSock.IsSocket());
    EXPECT_FALSE(sock.m_rcvSock.IsSocket());
}

int64_t OptionMs(int h, int nOption) { return TimeOptionUs(h, nOption) / 1000; }

TEST_F(Login, RequestSocketHasEightSecondsBothWays) {
    LogIn();
    EXPECT_EQ(OptionMs(sock.m_reqSock, SO_RCVTIMEO), 8000);
    EXPECT_EQ(OptionMs(sock.m_reqSock, SO_SNDTIMEO), 8000);
}

TEST_F(Login, NotificationSocketWaitsPracticallyForever) {
    LogIn();
    // The system rounds to its own ticks.
    EXPECT_NEAR(static_cast<double>(OptionMs(sock.m_rcvSock, SO_RCVTIMEO)), 2147483647.0, 10.0);
    EXPECT_NEAR(static_cast<double>(OptionMs(sock.m_rcvSock, SO_SNDTIMEO)), 2147483647.0, 10.0);
}

TEST_F(Login, NotificationSocketHasEightSecondsWhileItLogsIn) {
    OrderFirstHello("7");
    OrderSecondHello("0");
    EXPECT_EQ(Connect(server.Host()), 1244);
    EXPECT_EQ(OptionMs(sock.m_rcvSock, SO_RCVTIMEO), 8000);
}

TEST_F(Login, TimeOutsAreSetBeforeTheConnect) {
    std::string strHost;
    {
        CScriptedServer gone;
        strHost = gone.Host();
    }
    EXPECT_EQ(Connect(strHost), 1);
    EXPECT_EQ(OptionMs(sock.m_reqSock, SO_RCVTIMEO), 8000);
    EXPECT_EQ(OptionMs(sock.m_reqSock, SO_SNDTIMEO), 8000);
}

TEST_F(Login, BothSocketsAreKeptAlive) {
    LogIn();
    for (const int h : {sock.m_reqSock.GetSocket(), sock.m_rcvSock.GetSocket()}) {
        int nOn = 0;
        socklen_t nLen = sizeof nOn;
        EXPECT_EQ(getsockopt(h, SOL_SOCKET, SO_KEEPALIVE, &nOn, &nLen), 0);
        EXPECT_EQ(nOn, 1);
    }
}

// A read right after a write, which has no reply, must not wait for the write's acknowledgement.
TEST_F(Login, RequestsAreSentAtOnce) {
    LogIn();
    int nOn = 0;
    socklen_t nLen = sizeof nOn;
    EXPECT_EQ(getsockopt(sock.m_reqSock, IPPROTO_TCP, TCP_NODELAY, &nOn, &nLen), 0);
    EXPECT_NE(nOn, 0);
}

TEST_F(Login, StampsTheRequestTime) {
    const time_t tBefore = time(nullptr);
    LogIn();
    EXPECT_GE(sock.m_reqSock.GetLastReqTime(), tBefore);
}

// ---- Center servers -----------------------------------------------------------------------------

// A center server has a fixed port, so each test process takes an address of its own for it.
class CenterLogin : public ::testing::Test, protected CLogin {
  protected:
    static std::string CenterIp() {
        return "127." + std::to_string(64 + getpid() % 64) + "." +
               std::to_string(getpid() / 64 % 256) + ".9";
    }
    CenterLogin() : strIp(CenterIp()), center(strIp.c_str(), 3968) {}
    void SetUp() override {
        if (!center.Listens()) GTEST_SKIP() << "port 3968 of " << strIp << " is taken";
    }
    void OrderHello(const std::string& strReply, size_t nConn = 0) {
        center.Accept();
        center.Take(nConn, &strHello);
        center.Send(nConn, strReply);
    }
    static std::string Redirect(const std::string& strTo, unsigned nPort,
                                const std::string& strLan = "lan") {
        const uint32_t nIp = ntohl(inet_addr(strTo.c_str()));
        return "7" + strLan + U32Big(nIp) + U8(nPort >> 8) + U8(nPort & 0xFF);
    }
    void OrderPlant(CScriptedServer& server) {
        server.Accept();
        server.Take(0, &strPlantHello);
        server.Send(0, "7");
        server.Accept();
        server.Take(1, &strNotifyHello);
        server.Send(1, Scramble("8" + kRecord + Z("Line1") + Z("Mill")));
    }

    std::string strIp;
    std::string strHello;
    std::string strPlantHello;
    std::string strNotifyHello;
    CScriptedServer center;
};

TEST_F(CenterLogin, HelloNamesThePlantBehindTheCenter) {
    OrderHello("7");
    center.Accept();
    center.Take(1, &strNotifyHello);
    center.Send(1, Scramble("8" + kRecord + Z("Line1") + Z("Mill")));
    EXPECT_EQ(Connect("p2p(" + strIp + "):Plant"), kLoggedIn);
    ASSERT_TRUE(center.Done());
    const std::string strBody = Unscramble(strHello.substr(1));
    EXPECT_EQ(strBody.substr(16), Hex("00 00 00 00 00 00") + Z("Plant"));
    EXPECT_EQ(strBody.size(), 28u);
}

TEST_F(CenterLogin, BothChannelsHaveThirteenSecondsToLogIn) {
    OrderHello("7");
    center.Accept();
    center.Take(1, &strNotifyHello);
    center.Send(1, Scramble("0"));
    EXPECT_EQ(Connect("p2p(" + strIp + "):Plant"), 1244);
    EXPECT_EQ(OptionMs(sock.m_reqSock, SO_RCVTIMEO), 13000);
    EXPECT_EQ(OptionMs(sock.m_rcvSock, SO_SNDTIMEO), 13000);
    EXPECT_EQ(sock.m_reqSock.GetP2PCenterIp(), inet_addr(strIp.c_str()));
    EXPECT_EQ(sock.m_rcvSock.GetP2PCenterIp(), inet_addr(strIp.c_str()));
    EXPECT_FALSE(sock.m_bLocalDB);
}

TEST_F(CenterLogin, PlantNameOf255BytesIsSentWhole) {
    OrderHello("0");
    EXPECT_EQ(Connect("p2p(" + strIp + "):" + std::string(255, 'n')), kLoginFailure);
    ASSERT_TRUE(center.Done());
    EXPECT_EQ(Unscramble(strHello.substr(1)).substr(22), Z(std::string(255, 'n')));
}

TEST_F(CenterLogin, DirectTextWithTheCenterPortSpeaksToACenterToo) {
    OrderHello("0");
    EXPECT_EQ(Connect(strIp + ":3968"), kLoginFailure);
    ASSERT_TRUE(center.Done());
    EXPECT_EQ(Unscramble(strHello.substr(1)).substr(16), Hex("00 00 00 00 00 00") + Z(strIp));
}

TEST_F(CenterLogin, RedirectLeadsToAServerOfTheSameNetwork) {
    CScriptedServer server;
    OrderHello(Redirect("127.0.0.1", server.Port()));
    OrderPlant(server);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect("p2p(" + strIp + "):Plant"), kLoggedIn);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Is same lan ...\n");
    EXPECT_TRUE(sock.m_bLan);
    EXPECT_EQ(strName, "Line1");
    EXPECT_EQ(strPlantHello.size(), 23u);
    EXPECT_EQ(sock.m_reqSock.GetP2PCenterIp(), 0u);
    EXPECT_EQ(sock.m_rcvSock.GetP2PCenterIp(), 0u);
    EXPECT_EQ(OptionMs(sock.m_reqSock, SO_RCVTIMEO), 8000);
}

TEST_F(CenterLogin, RedirectInCapitalsCountsAndClosesTheFirstConnection) {
    CScriptedServer server;
    OrderHello(Redirect("127.0.0.1", server.Port(), "LaN"));
    center.ExpectEnd(0);
    OrderPlant(server);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect(strIp + ":3968"), kLoggedIn);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(center.Done());
}

TEST_F(CenterLogin, RedirectOfNineBytesIsNone) {
    OrderHello(Redirect("127.0.0.1", 9).substr(0, 9));
    center.Accept();
    center.Take(1, &strNotifyHello);
    center.Send(1, Scramble("0"));
    EXPECT_EQ(Connect("p2p(" + strIp + "):Plant"), 1244);
    EXPECT_FALSE(sock.m_bLan);
}

TEST_F(CenterLogin, RedirectWithOtherLettersIsNone) {
    OrderHello(Redirect("127.0.0.1", 9, "wan"));
    center.Accept();
    center.Take(1, &strNotifyHello);
    center.Send(1, Scramble("0"));
    EXPECT_EQ(Connect("p2p(" + strIp + "):Plant"), 1244);
}

TEST_F(CenterLogin, RedirectByAnotherPortIsNone) {
    CScriptedServer server;
    server.Accept();
    server.Take(0, &strHello);
    server.Send(0, Redirect("127.0.0.1", 9));
    server.Accept();
    server.Take(1, &strNotifyHello);
    server.Send(1, Scramble("0"));
    EXPECT_EQ(Connect(server.Host()), 1244);
    EXPECT_FALSE(sock.m_bLan);
}

TEST_F(CenterLogin, RedirectWith0AsCodeIsAFailure) {
    std::string strReply = Redirect("127.0.0.1", 9);
    strReply[0] = '0';
    OrderHello(strReply);
    EXPECT_EQ(Connect("p2p(" + strIp + "):Plant"), kLoginFailure);
}

TEST_F(CenterLogin, FourRedirectsAreFollowed) {
    for (size_t i = 0; i < 4; ++i) OrderHello(Redirect(strIp, 3968), i);
    OrderHello("0", 4);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect(strIp + ":3968"), kLoginFailure);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(center.Done());
}

TEST_F(CenterLogin, FifthRedirectIsAFailure) {
    for (size_t i = 0; i < 5; ++i) OrderHello(Redirect(strIp, 3968), i);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect(strIp + ":3968"), kTransportFailure);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(center.Done());
    EXPECT_FALSE(center.Knocked());
    EXPECT_TRUE(Untouched());
}

TEST_F(CenterLogin, LanIsRememberedForTheObjectsLife) {
    OrderHello(Redirect("127.0.0.1", 1));  // nobody listens there
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect("p2p(" + strIp + "):Plant"), kTransportFailure);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(Connect("p2p"), kBadHostText);
    EXPECT_TRUE(sock.m_bLan);
}

// ---- The cache ----------------------------------------------------------------------------------

constexpr char kRoot[] = "/tmp/vzbrowser/";

class Cache : public ::testing::Test {
  protected:
    Cache() : strFolder("unit." + std::to_string(getpid())) { sock.m_bLocalDB = false; }
    ~Cache() override {
        umask(m_nMask);
        RemoveTree(kRoot + strFolder);
        RemoveTree(kRoot + strFolder + "_8000");
    }
    static int Mode(const std::string& strPath) {
        struct stat st {};
        return stat(strPath.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? int(st.st_mode & 07777)
                                                                      : -1;
    }
    std::string PathFor(const std::string& strHost) {
        EXPECT_TRUE(sock.AfterConnect(strHost.c_str(), "P", strErr));
        return sock.m_strPrjPath;
    }

    const std::string strFolder;
    CClientSock sock;
    CString strErr = "untouched";

  private:
    const mode_t m_nMask = umask(022);
};

TEST_F(Cache, ProjectFolderIsNamedByHostAndProject) {
    EXPECT_TRUE(sock.AfterConnect((strFolder + ":8000").c_str(), "Line1", strErr));
    EXPECT_EQ(sock.m_strPrjPath, kRoot + strFolder + "_8000/Line1/");
    EXPECT_EQ(strErr, "untouched");
    EXPECT_EQ(Mode(kRoot + strFolder + "_8000/Line1"), 0700);
}

TEST_F(Cache, HasTwelveFolders) {
    ASSERT_TRUE(sock.AfterConnect(strFolder.c_str(), "Line1", strErr));
    const std::string strProject = kRoot + strFolder + "/Line1/";
    for (const char* sz : {"Window", "3DWnd", "Report", "CtmGph", "ScnDrv", "DBDrv", "Media",
                           "SysCfg", "RecData", "ExtData", "RecData/Event", "RecData/Alarm2"}) {
        EXPECT_EQ(Mode(strProject + sz), 0700) << sz;
    }
    EXPECT_EQ(CountEntries(strProject.c_str()), 2 + 10);
    EXPECT_EQ(CountEntries((strProject + "RecData").c_str()), 2 + 2);
}

TEST_F(Cache, MaskWeighsOnTheFoldersThatAreNotForced) {
    umask(0070 | 0100);
    ASSERT_TRUE(sock.AfterConnect(strFolder.c_str(), "Line1", strErr));
    umask(0);
    const std::string strHost = kRoot + strFolder;
    EXPECT_EQ(Mode(strHost), 0700);
    EXPECT_EQ(Mode(strHost + "/Line1"), 0700);
    EXPECT_EQ(Mode(strHost + "/Line1/Window"), 0600);
    EXPECT_EQ(Mode(strHost + "/Line1/ExtData"), 0600);
    if (getuid() != 0) return;  // who may not enter RecData can make nothing in it
    EXPECT_EQ(Mode(strHost + "/Line1/RecData/Event"), 0700);
    EXPECT_EQ(Mode(strHost + "/Line1/RecData/Alarm2"), 0700);
}

TEST_F(Cache, ForcedModeIsSetOnFoldersThatStandAlready) {
    ASSERT_TRUE(sock.AfterConnect(strFolder.c_str(), "Line1", strErr));
    const std::string strHost = kRoot + strFolder;
    ASSERT_EQ(chmod(strHost.c_str(), 0755), 0);
    ASSERT_EQ(chmod((strHost + "/Line1").c_str(), 0755), 0);
    ASSERT_EQ(chmod((strHost + "/Line1/Media").c_str(), 0755), 0);
    EXPECT_TRUE(sock.AfterConnect(strFolder.c_str(), "Line1", strErr));
    EXPECT_EQ(Mode(strHost), 0700);
    EXPECT_EQ(Mode(strHost + "/Line1"), 0700);
    EXPECT_EQ(Mode(strHost + "/Line1/Media"), 0755);
}

TEST_F(Cache, EveryColonOfTheHostTextBecomesALine) {
    EXPECT_EQ(PathFor("unit." + std::to_string(getpid())), kRoot + strFolder + "/P/");
    const std::string strRelay = "p2p(10.1.2.3)-" + strFolder;
    EXPECT_EQ(PathFor(strRelay + ":Plant:9"), kRoot + strRelay + "_Plant_9/P/");
    RemoveTree(kRoot + strRelay + "_Plant_9");
}

TEST_F(Cache, SlashesAndOtherLettersOfTheHostTextBecomeLines) {
    EXPECT_EQ(PathFor("../" + strFolder + "/\xD6\xD0"), kRoot + (".._" + strFolder) + "___/P/");
    RemoveTree(kRoot + (".._" + strFolder) + "___");
}

TEST_F(Cache, HostTextOfDotsStaysBelowTheCache) {
    const bool bOne = access("/tmp/vzbrowser/_", F_OK) != 0;
    const bool bTwo = access("/tmp/vzbrowser/__", F_OK) != 0;
    EXPECT_EQ(PathFor("."), "/tmp/vzbrowser/_/P/");
    EXPECT_EQ(PathFor(".."), "/tmp/vzbrowser/__/P/");
    if (bOne) RemoveTree("/tmp/vzbrowser/_");
    if (bTwo) RemoveTree("/tmp/vzbrowser/__");
}

TEST_F(Cache, ProjectNameKeepsItsBytesAndItsFolderIsUtf8) {
    // Two characters, four bytes of GB2312, six of UTF-8.
    ASSERT_TRUE(sock.AfterConnect(strFolder.c_str(), "\xD6\xD0\xCE\xC4", strErr));
    EXPECT_EQ(sock.m_strPrjPath, kRoot + strFolder + "/\xD6\xD0\xCE\xC4/");
    EXPECT_EQ(Mode(kRoot + strFolder + "/\xE4\xB8\xAD\xE6\x96\x87/RecData/Event"), 0700);
}

TEST_F(Cache, FilesAndFoldersOfSuchAProjectMeet) {
    ASSERT_TRUE(sock.AfterConnect(strFolder.c_str(), "\xD6\xD0", strErr));
    const CT2UTF8 strUtf8(sock.m_strPrjPath);
    EXPECT_EQ(Mode(strUtf8), 0700);
}

TEST_F(Cache, SecondConnectionFindsAllInPlace) {
    EXPECT_TRUE(sock.AfterConnect(strFolder.c_str(), "Line1", strErr));
    EXPECT_TRUE(sock.AfterConnect(strFolder.c_str(), "Line1", strErr));
}

TEST_F(Cache, OtherPathsAreNotTouched) {
    sock.m_strEventPath = "e";
    sock.m_strAlarmPath = "a";
    sock.m_strHistPath = "h";
    ASSERT_TRUE(sock.AfterConnect(strFolder.c_str(), "Line1", strErr));
    EXPECT_EQ(sock.m_strEventPath + sock.m_strAlarmPath + sock.m_strHistPath, "eah");
}

TEST_F(Cache, NamesThatAreNoFoldersNameAreRefused) {
    sock.m_strPrjPath = "before";
    for (const char* sz : {".", "..", "a/b", "/", "../x", "\xD6", "a\xFF\xFF", "a\xD6"}) {
        strErr = CString();
        EXPECT_FALSE(sock.AfterConnect(strFolder.c_str(), sz, strErr)) << sz;
        EXPECT_FALSE(strErr.empty()) << sz;
    }
    EXPECT_EQ(sock.m_strPrjPath, "before");
    EXPECT_EQ(Mode(kRoot + strFolder), -1);
}

TEST_F(Cache, DotsInsideANameAreNoHarm) {
    EXPECT_TRUE(sock.AfterConnect(strFolder.c_str(), "...", strErr));
    EXPECT_TRUE(sock.AfterConnect(strFolder.c_str(), ".a", strErr));
}

// ---- Paths and requests -------------------------------------------------------------------------

class Requests : public ::testing::Test {
  protected:
    void SetUp() override {
        server.Accept();
        ASSERT_TRUE(sock.m_reqSock.Create(0, SOCK_STREAM, nullptr, FALSE));
        ASSERT_TRUE(sock.m_reqSock._Connect("127.0.0.1", server.Port()));
    }
    bool Paths() { return sock.GetPrjPath(paths[0], paths[1], paths[2], paths[3]); }
    std::string All() const { return paths[0] + "|" + paths[1] + "|" + paths[2] + "|" + paths[3]; }

    CString paths[4] = {"1", "2", "3", "4"};
    CScriptedServer server;
    CClientSock sock;
};

TEST_F(Requests, PathsComeInTheirOrder) {
    server.Expect(0, "3");
    server.Send(0, "3" + Z("/prj/") + Z("/ev/") + Z("/alm/") + Z("/his/"));
    EXPECT_TRUE(Paths());
    EXPECT_EQ(All(), "/prj/|/ev/|/alm/|/his/");
}

TEST_F(Requests, PathsMayBeEmpty) {
    server.Expect(0, "3");
    server.Send(0, "3" + Z("") + Z("e") + Z("") + Z(""));
    EXPECT_TRUE(Paths());
    EXPECT_EQ(All(), "|e||");
}

TEST_F(Requests, PathsCutByTheReplysEndAreWhatItHolds) {
    server.Expect(0, "3");
    server.Send(0, "3" + Z("/prj/") + "/e");
    EXPECT_TRUE(Paths());
    EXPECT_EQ(All(), "/prj/|/e||");
}

TEST_F(Requests, PathsReplyOfItsCodeAloneGivesEmptyPaths) {
    server.Expect(0, "3");
    server.Send(0, "3");
    EXPECT_TRUE(Paths());
    EXPECT_EQ(All(), "|||");
}

TEST_F(Requests, PathsReplyWithAnotherCodeTouchesNothing) {
    server.Expect(0, "3");
    server.Send(0, "0" + Z("/prj/"));
    EXPECT_FALSE(Paths());
    EXPECT_EQ(All(), "1|2|3|4");
}

TEST_F(Requests, PathsNotAnsweredTouchNothing) {
    server.Expect(0, "3");
    server.Close(0);
    EXPECT_FALSE(Paths());
    EXPECT_EQ(All(), "1|2|3|4");
}

TEST_F(Requests, LocalDatabaseAsksTheServerForItsPaths) {
    server.Expect(0, "3");
    server.Send(0, "3" + Z("/prj/") + Z("/ev/") + Z("/alm/") + Z("/his/"));
    CString strErr;
    EXPECT_TRUE(sock.AfterConnect("h", "P", strErr));
    EXPECT_EQ(sock.m_strPrjPath, "/prj/");
    EXPECT_EQ(sock.m_strHistPath, "/his/");
}

TEST_F(Requests, LocalDatabaseWithoutPathsSaysSo) {
    server.Expect(0, "3");
    server.Send(0, "0");
    CString strErr;
    EXPECT_FALSE(sock.AfterConnect("h", "P", strErr));
    EXPECT_EQ(strErr.size(), 16u);
    EXPECT_EQ(CT2UTF8(strErr), "无法获取工程路径");
}

TEST_F(Requests, RequestIsSentWholeAndItsLengthReturned) {
    server.Expect(0, "hello");
    EXPECT_EQ(sock.ReqSend("hello", 5), 5);
    EXPECT_TRUE(server.Done());
}

TEST_F(Requests, RequestWithoutLengthIsNotSent) {
    EXPECT_EQ(sock.ReqSend("hello", 0), 0);
    EXPECT_EQ(sock.ReqSend("hello", -3), -3);
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(Requests, RequestOnAClosedSocketGivesTheSendsResult) {
    sock.m_reqSock.Close();
    EXPECT_EQ(sock.ReqSend("hello", 5), -1);
}

}  // namespace
