#include "ScriptedSession.h"

// The fixture comes first: it brings the interpreter's header.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

namespace {

std::string FileText(const std::string& strPath) {
    std::ifstream in(strPath, std::ios::binary);
    if (!in) return "(none)";
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class Connecting : public CScriptedSession {
  protected:
    // Connects as ordered and expects a failure that leaves nothing open.
    void ExpectFailure(int nResult) {
        EXPECT_EQ(Connect(), nResult);
        EXPECT_TRUE(server.Done());
        ExpectClosed();
    }
    void ExpectClosed() {
        EXPECT_FALSE(core->m_reqSock.IsSocket());
        EXPECT_FALSE(core->m_rcvSock.IsSocket());
        EXPECT_FALSE(core->m_bConnect);
        EXPECT_TRUE(Becomes(ReceiveThreads, 0));  // it leaves when its session has ended
    }
};

TEST_F(Connecting, ANewCoreIsUnconnected) {
    EXPECT_FALSE(core->m_bConnect);
    EXPECT_EQ(core->m_nRights, 0u);
    EXPECT_TRUE(core->m_pDrivers.empty());
    EXPECT_TRUE(core->m_mapDrvInfos.empty());
    EXPECT_FALSE(core->m_bLocalDB);
    EXPECT_EQ(core->m_rtAlarmNotifyFn.load(), nullptr);
}

TEST_F(Connecting, LogsInStepByStep) {
    LogIn();  // hellos, user, driver file, byte by byte
    EXPECT_TRUE(core->m_bConnect);
    EXPECT_EQ(strHello[0], '7');
    EXPECT_EQ(strNotifyHello[0], '8');
    EXPECT_EQ(server.Unread(0), "");
    EXPECT_EQ(server.Unread(1), "");
}

TEST_F(Connecting, TellsTheServerThatItWillAccessTheDatabase) {
    LogIn();
    const std::string strBody = Unscramble(strNotifyHello.substr(1));
    EXPECT_EQ(strBody.substr(strBody.size() - 2), Hex("01 01"));
}

TEST_F(Connecting, StartsOneReceiveThread) {
    const int nThreads = CountThreads();
    LogIn();
    EXPECT_TRUE(Becomes(CountThreads, nThreads + 1));
    EXPECT_EQ(ReceiveThreads(), 1);
}

TEST_F(Connecting, HasThreePausesOfSixMilliseconds) {
    OrderLogin();
    timespec tBefore{};
    timespec tAfter{};
    clock_gettime(CLOCK_MONOTONIC, &tBefore);
    EXPECT_EQ(Connect(), kConnected);
    clock_gettime(CLOCK_MONOTONIC, &tAfter);
    const double dMs = static_cast<double>(tAfter.tv_sec - tBefore.tv_sec) * 1e3 +
                       static_cast<double>(tAfter.tv_nsec - tBefore.tv_nsec) / 1e6;
    EXPECT_GE(dMs, 18.0);
}

TEST_F(Connecting, BringsTheDriverFileIntoTheCache) {
    LogIn();
    const std::string strFile = ProjectFolder() + "RecData/drvinfo.dat";
    EXPECT_EQ(FileText(strFile), plant.strDrvInfo);
    struct stat st {};
    ASSERT_EQ(stat(strFile.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1600000000);
    EXPECT_EQ(core->m_strPrjPath, ProjectFolder());
}

TEST_F(Connecting, AsksNoFileThatIsCurrent) {
    LogIn();
    core->_Disconnect();
    OrderHellos(2);
    OrderUser(2);
    EXPECT_EQ(Connect(), kConnected);
    EXPECT_EQ(server.Unread(2), "");
    EXPECT_EQ(core->m_mapDrvInfos.size(), 2u);
}

TEST_F(Connecting, TellsOfAFileThatIsOld) {
    LogIn();
    core->_Disconnect();
    plant.strDrvInfo = Z("Boiler") + U16(0) + U16(9);
    plant.nDrvTime += 100;
    OrderHellos(2);
    OrderUser(2);
    // The copy that is held: its time, and its size of 20 bytes.
    server.Expect(2, "4RecData/drvinfo.dat\r\nLastTime:5F5E1000\r\nSize:14\r\nHello:Yes\r\n\r\n");
    server.Send(2, plant.DrvInfoReply());
    EXPECT_EQ(Connect(), kConnected);
    EXPECT_EQ(core->m_mapDrvInfos.size(), 1u);
}

TEST_F(Connecting, UsesTheCopyThatTheServerCallsCurrent) {
    LogIn();
    core->_Disconnect();
    plant.nDrvTime += 100;
    OrderHellos(2);
    OrderUser(2);
    server.Expect(2, "4RecData/drvinfo.dat\r\nLastTime:5F5E1000\r\nSize:14\r\nHello:Yes\r\n\r\n");
    server.Send(2, "UseLast:Yes\r\n\r\n");
    EXPECT_EQ(Connect(), kConnected);
    EXPECT_EQ(core->m_mapDrvInfos.size(), 2u);
}

TEST_F(Connecting, ProjectWithoutADriverFileHasNoDrivers) {
    OrderHellos();
    OrderUser();
    server.Expect(0, kFirstDrvInfoRequest);
    server.Send(0, "Exist:No\r\n\r\n");
    EXPECT_EQ(Connect(), kConnected);
    EXPECT_TRUE(core->m_mapDrvInfos.empty());
    EXPECT_TRUE(core->m_pDrivers.empty());
    EXPECT_EQ(core->_GetDriver("Boiler"), nullptr);
}

TEST_F(Connecting, ProjectNameOfGb2312LiesInAUtf8Folder) {
    plant.strProject = "\xD6\xD0";
    OrderLogin();
    EXPECT_EQ(Connect(), kConnected);
    EXPECT_EQ(FileText(CacheFolder() + "/\xE4\xB8\xAD/RecData/drvinfo.dat"), plant.strDrvInfo);
    EXPECT_EQ(core->m_mapDrvInfos.size(), 2u);
}

// ---- Users --------------------------------------------------------------------------------------

TEST_F(Connecting, RefusedUserIsMinus1) {
    plant.strLoginReply = "0";
    OrderHellos();
    OrderUser();
    ExpectFailure(-1);
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(Connecting, RefusedUserMayConnectLater) {
    plant.strLoginReply = "0";
    OrderHellos();
    OrderUser();
    ExpectFailure(-1);
    plant.strLoginReply = "9" + Hex("00 00 00 00 08 00 00 00");
    OrderHellos(2);
    OrderUser(2);
    server.Expect(2, kFirstDrvInfoRequest);
    server.Send(2, plant.DrvInfoReply());
    EXPECT_EQ(Connect(), kConnected);
}

TEST_F(Connecting, UnexpectedLoginReplyIsMinus3) {
    plant.strLoginReply = "8";
    OrderHellos();
    OrderUser();
    ExpectFailure(-3);
}

TEST_F(Connecting, LoginNotAnsweredIsMinus2) {
    OrderHellos();
    server.Expect(0, plant.LoginRequest());
    server.Close(0);
    ExpectFailure(-2);
}

TEST_F(Connecting, SocketsAreClosedAfterAFailure) {
    plant.strLoginReply = "0";
    OrderHellos();
    OrderUser();
    server.ExpectEnd(0);
    server.ExpectEnd(1);
    ExpectFailure(-1);
}

TEST_F(Connecting, RightsStandAtTheFifthByteInLittleEndian) {
    plant.strLoginReply = "9" + Hex("11 22 33 44 78 56 34 F2");
    LogIn();
    EXPECT_EQ(core->m_nRights, 0xF2345678u);
}

TEST_F(Connecting, LoginReplyOfNineBytesGivesRights) {
    plant.strLoginReply = "9" + Hex("00 00 00 00 09 00 00 00");
    LogIn();
    EXPECT_EQ(core->m_nRights, 9u);
}

TEST_F(Connecting, EveryShorterLoginReplyConnectsWithoutRights) {
    const std::string strReply = "9" + Hex("00 00 00 00 FF FF FF FF");
    for (size_t n = 1; n < strReply.size(); ++n) {
        plant.strLoginReply = strReply.substr(0, n);
        CScriptedServer other;
        const std::string strCache = "/tmp/vzbrowser/127.0.0.1_" + std::to_string(other.Port());
        RemoveTree(strCache);  // of a run that was broken off and had this port
        core->m_nRights = 7;
        other.Accept();
        other.Take(0, &strHello);
        other.Send(0, "7");
        other.Accept();
        other.Take(1, &strNotifyHello);
        other.Send(1, Scramble(plant.NotifyReply()));
        other.Expect(0, plant.LoginRequest());
        other.Send(0, plant.strLoginReply);
        other.Expect(0, kFirstDrvInfoRequest);
        other.Send(0, plant.DrvInfoReply());
        EXPECT_EQ(core->_Connect(other.Host().c_str(), "u", "p"), kConnected) << n;
        EXPECT_EQ(core->m_nRights, 0u) << n;
        core->_Disconnect();
        RemoveTree(strCache);
    }
}

TEST_F(Connecting, CredentialsGoOutAsTheyAre) {
    plant.strUser = "\xE4\xB8\xAD";  // UTF-8 stays UTF-8
    plant.strPassword = "";
    LogIn();
    EXPECT_TRUE(core->m_bConnect);
}

TEST_F(Connecting, CredentialsOf253BytesAreSent) {
    plant.strUser = std::string(200, 'u');
    plant.strPassword = std::string(53, 'p');
    LogIn();
    EXPECT_TRUE(core->m_bConnect);
}

TEST_F(Connecting, CredentialsOf254BytesAreRefusedWithoutALoginRequest) {
    plant.strUser = std::string(200, 'u');
    plant.strPassword = std::string(54, 'p');
    OrderHellos();
    ExpectFailure(-2);
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(Connecting, EndlessUserNameIsRefused) {
    plant.strUser = std::string(100000, 'u');
    OrderHellos();
    ExpectFailure(-2);
}

// ---- Earlier steps ------------------------------------------------------------------------------

TEST_F(Connecting, NobodyListeningIsMinus2) {
    EXPECT_EQ(core->_Connect("127.0.0.1:1", "u", "p"), -2);
    ExpectClosed();
}

TEST_F(Connecting, BadHostTextIsMinus2) {
    EXPECT_EQ(core->_Connect("p2p", "u", "p"), -2);
    ExpectClosed();
}

TEST_F(Connecting, RefusedHelloIsMinus2) {
    server.Accept();
    server.Take(0, &strHello);
    server.Send(0, "0");
    server.ExpectEnd(0);
    ExpectFailure(-2);
}

TEST_F(Connecting, RefusedNotificationChannelIsMinus2) {
    server.Accept();
    server.Take(0, &strHello);
    server.Send(0, "7");
    server.Accept();
    server.Take(1, &strNotifyHello);
    server.Send(1, Scramble("0"));
    server.ExpectEnd(0);
    server.ExpectEnd(1);
    ExpectFailure(-2);
}

TEST_F(Connecting, EmptyProjectNameIsMinus3WithoutALoginRequest) {
    plant.strProject = "";
    OrderHellos();
    server.ExpectEnd(0);
    server.ExpectEnd(1);
    ExpectFailure(-3);
}

TEST_F(Connecting, ProjectNameThatLeadsElsewhereIsMinus2WithoutALoginRequest) {
    plant.strProject = "..";
    OrderHellos();
    server.ExpectEnd(0);
    ExpectFailure(-2);
}

TEST_F(Connecting, NullHostIsACallersError) {
    EXPECT_THROW(core->_Connect(nullptr, "u", "p"), std::logic_error);
    ExpectClosed();
}

// ---- The driver file ----------------------------------------------------------------------------

TEST_F(Connecting, DriverFileNotObtainedIsMinus2) {
    OrderHellos();
    OrderUser();
    server.Expect(0, kFirstDrvInfoRequest);
    server.Close(0);
    ExpectFailure(-2);
    EXPECT_TRUE(core->m_mapDrvInfos.empty());
}

TEST_F(Connecting, DriverFileCutInItsBodyIsMinus2) {
    OrderHellos();
    OrderUser();
    server.Expect(0, kFirstDrvInfoRequest);
    server.Send(0, plant.DrvInfoReply().substr(0, plant.DrvInfoReply().size() - 4));
    server.Close(0);
    ExpectFailure(-2);
    EXPECT_TRUE(core->m_mapDrvInfos.empty());
}

TEST_F(Connecting, HalfWrittenDriverFileIsAskedForAgain) {
    OrderHellos();
    OrderUser();
    server.Expect(0, kFirstDrvInfoRequest);
    server.Send(0, plant.DrvInfoReply().substr(0, plant.DrvInfoReply().size() - 8));
    server.Close(0);
    ExpectFailure(-2);
    OrderHellos(2);
    OrderUser(2);
    server.Expect(2, "4RecData/drvinfo.dat\r\nLastTime:5F5E1000\r\nSize:C\r\nHello:Yes\r\n\r\n");
    server.Send(2, plant.DrvInfoReply());
    EXPECT_EQ(Connect(), kConnected);
    EXPECT_EQ(core->m_mapDrvInfos.size(), 2u);
}

// What is left of a transfer that broke off is no driver file, whatever the server says of it.
class HalfDriverFile : public Connecting, public ::testing::WithParamInterface<const char*> {};

TEST_P(HalfDriverFile, IsNeverLoaded) {
    OrderHellos();
    OrderUser();
    server.Expect(0, kFirstDrvInfoRequest);
    server.Send(0, plant.DrvInfoReply().substr(0, plant.DrvInfoReply().size() - 8));
    server.Close(0);
    ExpectFailure(-2);
    OrderHellos(2);
    OrderUser(2);
    server.Expect(2, "4RecData/drvinfo.dat\r\nLastTime:5F5E1000\r\nSize:C\r\nHello:Yes\r\n\r\n");
    server.Send(2, GetParam());
    ExpectFailure(-2);
    EXPECT_TRUE(core->m_mapDrvInfos.empty());
}

INSTANTIATE_TEST_SUITE_P(Replies, HalfDriverFile,
                         ::testing::Values("UseLast:Yes\r\n\r\n", "GZ:Yes\r\nSize:1\r\n\r\nx"));

// A driver file in the cache that cannot be written: a program that runs. Its bytes read as entries
// of some kind.
class CRunningFile {
  public:
    explicit CRunningFile(const std::string& strPath) {
        const std::string strProgram = FileText("/bin/sleep");
        std::ofstream(strPath, std::ios::binary) << strProgram;
        nSize = static_cast<uint32_t>(strProgram.size());
        chmod(strPath.c_str(), 0700);
        int pipe[2];
        EXPECT_EQ(pipe2(pipe, O_CLOEXEC), 0);
        m_nChild = fork();
        if (m_nChild == 0) {
            execl(strPath.c_str(), "sleep", "60", nullptr);
            _exit(1);
        }
        close(pipe[1]);
        char c;
        EXPECT_EQ(read(pipe[0], &c, 1), 0);  // ends when the program has started
        close(pipe[0]);
    }
    ~CRunningFile() {
        kill(m_nChild, SIGKILL);
        waitpid(m_nChild, nullptr, 0);
    }
    uint32_t nSize;

  private:
    pid_t m_nChild;
};

TEST_F(Connecting, DriverFileThatCannotBeReplacedIsLoadedWhenItIsWhole) {
    LogIn();
    core->_Disconnect();
    const CRunningFile file(ProjectFolder() + "RecData/drvinfo.dat");
    plant.strDrvInfo = std::string(file.nSize, 'x');
    std::string strRequest;
    OrderHellos(2);
    OrderUser(2);
    server.Take(2, &strRequest);
    server.Send(2, "Size:" + Upper(file.nSize) + "\r\n\r\n");
    EXPECT_EQ(Connect(), kConnected);  // a file that cannot be written counts as not needed
    EXPECT_FALSE(core->m_mapDrvInfos.empty());
}

TEST_F(Connecting, DriverFileThatCannotBeReplacedIsNotLoadedWhenItIsNot) {
    LogIn();
    core->_Disconnect();
    const CRunningFile file(ProjectFolder() + "RecData/drvinfo.dat");
    plant.strDrvInfo = std::string(file.nSize + 1, 'x');
    std::string strRequest;
    OrderHellos(2);
    OrderUser(2);
    server.Take(2, &strRequest);
    server.Send(2, "Size:" + Upper(file.nSize + 1) + "\r\n\r\n");
    EXPECT_EQ(Connect(), kConnected);
    EXPECT_TRUE(core->m_mapDrvInfos.empty());
    EXPECT_EQ(core->_GetDriver("Boiler"), nullptr);
}

TEST_F(Connecting, TableReachesToTheHighestId) {
    plant.strDrvInfo = Z("A") + U16(5) + U16(1) + Z("B") + U16(2) + U16(1);
    LogIn();
    EXPECT_EQ(core->m_pDrivers.size(), 6u);
    ASSERT_NE(core->_GetDriver("A"), nullptr);
    EXPECT_EQ(core->m_pDrivers[5], core->_GetDriver("A"));
}

TEST_F(Connecting, TableHasAtLeastAnEntryForEachDriver) {
    plant.strDrvInfo =
        Z("A") + U16(0) + U16(1) + Z("B") + U16(0) + U16(1) + Z("C") + U16(1) + U16(1);
    LogIn();
    EXPECT_EQ(core->m_pDrivers.size(), 3u);
}

TEST_F(Connecting, HighestIdOfAllIsKept) {
    plant.strDrvInfo = Z("A") + U16(0xFFFF) + U16(1);
    LogIn();
    EXPECT_EQ(core->m_pDrivers.size(), 65536u);
    EXPECT_NE(core->_GetDriver("A"), nullptr);
}

TEST_F(Connecting, DriverOfTheLaterRecordOfANameCounts) {
    plant.strDrvInfo = Z("A") + U16(0) + U16(1) + Z("A") + U16(1) + U16(4);
    LogIn();
    EXPECT_EQ(core->_GetDriver("A")->m_drvId, 1);
    EXPECT_EQ(core->_GetDriver("A")->TagCount(), 4u);
}

// ---- Drivers ------------------------------------------------------------------------------------

TEST_F(Connecting, DriverIsMadeOnFirstUseAndThenTheSame) {
    LogIn();
    EXPECT_EQ(core->m_pDrivers[1], nullptr);
    CDBDriver* pMill = core->_GetDriver("Mill");
    ASSERT_NE(pMill, nullptr);
    EXPECT_EQ(core->_GetDriver("Mill"), pMill);
    EXPECT_EQ(core->m_pDrivers[1], pMill);
    EXPECT_EQ(pMill->m_drvId, 1);
    EXPECT_EQ(pMill->m_strDriver, "Mill");
    EXPECT_EQ(pMill->TagCount(), 3u);
    EXPECT_EQ(pMill->m_tagNotifyFn.load(), nullptr);
    EXPECT_TRUE(pMill->m_mapTagToId.empty());
}

TEST_F(Connecting, TagRecordsBeginEmptyWithTheirIndexAsId) {
    LogIn();
    CDBDriver* pMill = core->_GetDriver("Mill");
    for (WORD i = 0; i < 3; ++i) {
        EXPECT_EQ(pMill->m_tags[i].id, i);
        EXPECT_EQ(pMill->m_tags[i].value.vt, VT_EMPTY);
        EXPECT_FALSE(pMill->m_tags[i].bSubscribe);
        EXPECT_TRUE(pMill->m_tags[i].strTag.empty());
    }
}

TEST_F(Connecting, DriverNamesCountByteForByte) {
    LogIn();
    EXPECT_EQ(core->_GetDriver("mill"), nullptr);
    EXPECT_EQ(core->_GetDriver("Mill "), nullptr);
    EXPECT_EQ(core->_GetDriver(""), nullptr);
}

TEST_F(Connecting, UnconnectedCoreHasNoDrivers) { EXPECT_EQ(core->_GetDriver("Mill"), nullptr); }

// ---- Again --------------------------------------------------------------------------------------

TEST_F(Connecting, ConnectedCoreFirstEndsItsOldSession) {
    LogIn();
    server.ExpectEnd(0);
    server.ExpectEnd(1);
    OrderHellos(2);
    OrderUser(2);
    EXPECT_EQ(Connect(), kConnected);
    EXPECT_TRUE(server.Done());
    EXPECT_TRUE(Becomes(ReceiveThreads, 1));
}

TEST_F(Connecting, FailedConnectOnAConnectedCoreLeavesItUnconnected) {
    LogIn();
    core->_GetDriver("Mill");
    EXPECT_EQ(core->_Connect("p2p", "u", "p"), -2);
    ExpectClosed();
    EXPECT_TRUE(core->m_mapDrvInfos.empty());
    EXPECT_EQ(core->m_pDrivers, std::vector<CDBDriver*>(2, nullptr));
}

TEST_F(Connecting, NewSessionMakesNewDrivers) {
    LogIn();
    CDBDriver* pOld = core->_GetDriver("Mill");
    pOld->m_mapTagToId[CString("X")] = 1;
    OrderHellos(2);
    OrderUser(2);
    ASSERT_EQ(Connect(), kConnected);
    CDBDriver* pNew = core->_GetDriver("Mill");
    ASSERT_NE(pNew, nullptr);
    EXPECT_TRUE(pNew->m_mapTagToId.empty());
    EXPECT_EQ(core->m_pDrivers[1], pNew);
}

TEST_F(Connecting, FailuresLeaveNoDescriptorBehind) {
    const int nDescriptors = CountDescriptors();
    for (int i = 0; i < 20; ++i) EXPECT_EQ(core->_Connect("127.0.0.1:1", "u", "p"), -2);
    EXPECT_TRUE(Becomes(CountDescriptors, nDescriptors));
}

// Threads that get a stack larger than the address space cannot start.
TEST_F(Connecting, ReceiveThreadThatCannotStartIsMinus2) {
    OrderLogin();
    pthread_attr_t usual;
    pthread_attr_t huge;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    pthread_attr_init(&huge);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, size_t{1} << (sizeof(size_t) * 8 - 2)), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    const int nDescriptors = CountDescriptors();
    EXPECT_EQ(Connect(), -2);
    pthread_setattr_default_np(&usual);
    pthread_attr_destroy(&huge);
    pthread_attr_destroy(&usual);
    ExpectClosed();
    server.Done();
    EXPECT_TRUE(Becomes(CountDescriptors, nDescriptors + 2));  // the server's two ends
    EXPECT_TRUE(core->m_mapDrvInfos.empty());
    OrderHellos(2);
    OrderUser(2);
    EXPECT_EQ(Connect(), kConnected);
}

}  // namespace
