#include "ScriptedSession.h"

// The fixture comes first: it brings the interpreter's header.
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#if defined(__SANITIZE_THREAD__)
// The forked children here start threads, which the thread sanitizer has to be told.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }
#endif

namespace {

using CClock = std::chrono::steady_clock;

double Seconds(CClock::time_point tSince) {
    return std::chrono::duration<double>(CClock::now() - tSince).count();
}

// Seconds that nothing takes unless it waits for a time-out, the shortest of which is 8 s.
constexpr double kNoWait = 6.0;

// Tag 0 of Boiler is an int from here on; its changes are 8 bytes.
std::string Change(uint32_t nValue) { return U16(0) + U16(0) + U32(nValue); }

class Ending : public CDriverTest {
  protected:
    void SubscribeInt() {
        Resolve(1);
        Subscribe("T0", 1, Hex("03 00") + U32(1));
    }
    // Waits for the receive thread to park. The interpreter lock is ours, so it stays so.
    static bool Parks(const CDBSession& session) {
        for (int i = 0; i < 20000 && !session.Parked(); ++i) usleep(1000);
        return session.Parked();
    }
    bool Gone() { return !core->m_bConnect && core->m_mapDrvInfos.empty(); }
};

TEST_F(Ending, OfAnUnconnectedCoreDoesNothing) {
    core->_Disconnect();
    core->_Disconnect();
    EXPECT_FALSE(core->m_bConnect);
}

TEST_F(Ending, ClosesBothConnections) {
    server.ExpectEnd(0);
    server.ExpectEnd(1);
    core->_Disconnect();
    EXPECT_TRUE(server.Done());
    EXPECT_FALSE(core->m_reqSock.IsSocket());
    EXPECT_FALSE(core->m_rcvSock.IsSocket());
    EXPECT_FALSE(core->m_bConnect);
}

TEST_F(Ending, WaitsForTheReceiveThreadsSignalAfter60Milliseconds) {
    const auto tStart = CClock::now();
    core->_Disconnect();
    EXPECT_GE(Seconds(tStart), 0.060);
    EXPECT_LT(Seconds(tStart), kNoWait);
}

TEST_F(Ending, TwiceIsHarmless) {
    core->_Disconnect();
    const auto tStart = CClock::now();
    core->_Disconnect();
    EXPECT_LT(Seconds(tStart), kNoWait);
}

TEST_F(Ending, EmptiesTheMapAndKeepsTheTablesLength) {
    core->_Disconnect();
    EXPECT_TRUE(core->m_mapDrvInfos.empty());
    EXPECT_EQ(core->m_pDrivers, std::vector<CDBDriver*>(2, nullptr));
}

TEST_F(Ending, KeepsRightsListsAndCallback) {
    core->m_textList.push_back(CString("t"));
    core->m_tagList.push_back(CString("g"));
    core->m_rtAlarmNotifyFn = Py_None;
    core->_Disconnect();
    EXPECT_EQ(core->m_nRights, 8u);
    EXPECT_EQ(core->m_textList.size(), 1u);
    EXPECT_EQ(core->m_tagList.size(), 1u);
    EXPECT_EQ(core->m_rtAlarmNotifyFn.load(), Py_None);
}

TEST_F(Ending, LeavesNoDriverToBeHad) {
    core->_Disconnect();
    EXPECT_EQ(core->_GetDriver("Boiler"), nullptr);
}

TEST_F(Ending, OfAKeptSessionLeavesItsDriversInMemoryButDead) {
    std::shared_ptr<CDBSession> pSession;
    CDBDriver* pDriver = core->_GetDriver("Boiler", &pSession);
    core->_Disconnect();
    EXPECT_TRUE(pSession->Ended());
    EXPECT_EQ(pDriver->m_strDriver, "Boiler");
    EXPECT_FALSE(pDriver->_ConnectTag("A"));
    EXPECT_EQ(ReprOf(pDriver->GetTagValue("A")), "None");
    CPyRef one(Eval("1"));
    EXPECT_EQ(pDriver->SetTagValue("A", one), -2);
}

TEST_F(Ending, OldDriverNeverReachesALaterSession) {
    std::shared_ptr<CDBSession> pSession;
    CDBDriver* pDriver = core->_GetDriver("Boiler", &pSession);
    OrderHellos(2);
    OrderUser(2);
    ASSERT_EQ(Connect(), kConnected);
    EXPECT_EQ(ReprOf(pDriver->GetTagValue("A")), "None");
    EXPECT_EQ(server.Unread(2), "");
}

// ---- Lost connections ---------------------------------------------------------------------------

TEST_F(Ending, LostNotificationConnectionEndsTheSession) {
    server.Close(1);
    server.ExpectEnd(0);
    EXPECT_TRUE(WaitFor([&] { return Gone(); }));
    EXPECT_FALSE(core->m_reqSock.IsSocket());
    EXPECT_EQ(core->m_pDrivers, std::vector<CDBDriver*>(2, nullptr));
    EXPECT_TRUE(Becomes(ReceiveThreads, 0));
}

TEST_F(Ending, AfterALossDisconnectDoesNotWait) {
    server.Close(1);
    EXPECT_TRUE(WaitFor([&] { return Gone() && ReceiveThreads() == 0; }));
    const auto tStart = CClock::now();
    core->_Disconnect();
    EXPECT_LT(Seconds(tStart), kNoWait);
}

TEST_F(Ending, AfterALossOneMayConnectAgain) {
    server.Close(1);
    EXPECT_TRUE(WaitFor([&] { return Gone(); }));
    OrderHellos(2);
    OrderUser(2);
    EXPECT_EQ(Connect(), kConnected);
    EXPECT_NE(core->_GetDriver("Boiler"), nullptr);
}

TEST_F(Ending, LostRequestConnectionAloneDoesNotEndTheSession) {
    server.Close(0);
    ASSERT_TRUE(server.Done());
    EXPECT_EQ(ReprOf(drv->GetTagValue("A")), "None");
    EXPECT_TRUE(core->m_bConnect);
    EXPECT_NE(core->_GetDriver("Boiler"), nullptr);
}

TEST_F(Ending, ResetCountsAsALoss) {
    // A server that closes with bytes unread resets the connection.
    {
        std::lock_guard<std::mutex> op(core->m_opLock);
        ASSERT_EQ(core->m_rcvSock._Send("x", 1, 0), 1);
    }
    ASSERT_TRUE(WaitFor([&] { return server.Unread(1) == "x"; }));
    server.Close(1);
    EXPECT_TRUE(WaitFor([&] { return Gone(); }));
}

// ---- Nothing left behind ------------------------------------------------------------------------

TEST_F(Ending, DisconnectsLeaveNothingBehind) {
    core->_Disconnect();
    for (size_t i = 1; i <= 15; ++i) {
        OrderHellos(2 * i);
        OrderUser(2 * i);
        ASSERT_EQ(Connect(), kConnected);
        ASSERT_NE(core->_GetDriver("Boiler"), nullptr);
        server.ExpectEnd(2 * i);
        server.ExpectEnd(2 * i + 1);
        core->_Disconnect();
        server.Close(2 * i);
        server.Close(2 * i + 1);
        ASSERT_TRUE(server.Done());
    }
    ASSERT_TRUE(Becomes(ReceiveThreads, 0));
    const int nDescriptors = CountDescriptors();
    for (size_t i = 16; i <= 30; ++i) {
        OrderHellos(2 * i);
        OrderUser(2 * i);
        ASSERT_EQ(Connect(), kConnected);
        server.ExpectEnd(2 * i);
        server.ExpectEnd(2 * i + 1);
        core->_Disconnect();
        server.Close(2 * i);
        server.Close(2 * i + 1);
        ASSERT_TRUE(server.Done());
    }
    EXPECT_TRUE(Becomes(CountDescriptors, nDescriptors));
    EXPECT_TRUE(FallsTo(CountThreads, m_nThreads));
}

TEST_F(Ending, LossesLeaveNothingBehind) {
    server.Close(0);
    server.Close(1);
    ASSERT_TRUE(server.Done());
    ASSERT_TRUE(WaitFor([&] { return Gone() && ReceiveThreads() == 0; }));
    const int nDescriptors = CountDescriptors();
    for (size_t i = 1; i <= 20; ++i) {
        OrderHellos(2 * i);
        OrderUser(2 * i);
        ASSERT_EQ(Connect(), kConnected);
        server.Close(2 * i + 1);
        server.Close(2 * i);
        ASSERT_TRUE(server.Done());
        ASSERT_TRUE(WaitFor([&] { return Gone(); }));
    }
    EXPECT_TRUE(Becomes(CountDescriptors, nDescriptors));
    EXPECT_TRUE(FallsTo(CountThreads, m_nThreads));
}

// ---- Endings and callbacks ----------------------------------------------------------------------

TEST_F(Ending, DoesNotWaitForAThreadThatWaitsForTheInterpreterLock) {
    SubscribeInt();
    drv->SetCBFunc(NotingFunction());
    std::shared_ptr<CDBSession> pSession;
    core->_GetDriver("Boiler", &pSession);
    Push(Change(2));
    ASSERT_TRUE(server.Done());
    ASSERT_TRUE(Parks(*pSession));
    const auto tStart = CClock::now();
    core->_Disconnect();
    EXPECT_LT(Seconds(tStart), kNoWait);
    EXPECT_TRUE(WaitFor([] { return ReceiveThreads() == 0; }));
    EXPECT_EQ(Repr("calls"), "[]") << "called after the end";
}

TEST_F(Ending, DroppedCoreLivesUntilItsParkedThreadLeaves) {
    SubscribeInt();
    drv->SetCBFunc(NotingFunction());
    std::shared_ptr<CDBSession> pSession;
    core->_GetDriver("Boiler", &pSession);
    Push(Change(2));
    ASSERT_TRUE(server.Done());
    ASSERT_TRUE(Parks(*pSession));
    core->_Disconnect();
    Drop();
    EXPECT_TRUE(WaitFor([] { return ReceiveThreads() == 0; }));
    EXPECT_EQ(Repr("calls"), "[]");
}

CDBCore* s_pCore = nullptr;
std::string s_strHost;
int s_nResult = 77;

PyObject* EndFromInside(PyObject*, PyObject*) {
    s_pCore->_Disconnect();
    Py_RETURN_NONE;
}

PyObject* DropFromInside(PyObject*, PyObject*) {
    s_pCore->_Disconnect();
    UnregisterCore(s_pCore);
    s_pCore->LetGo();
    Py_RETURN_NONE;
}

PyObject* ConnectFromInside(PyObject*, PyObject*) {
    s_nResult = s_pCore->_Connect(s_strHost.c_str(), "u", "p");
    Py_RETURN_NONE;
}

// A call that cannot be interrupted half-way, as one of a script could.
int s_nCalls = 0;

PyObject* CountCall(PyObject*, PyObject*) {
    ++s_nCalls;
    Py_RETURN_NONE;
}

PyMethodDef kCountDef = {"count", CountCall, METH_VARARGS, nullptr};
PyMethodDef kEndDef = {"end", EndFromInside, METH_VARARGS, nullptr};
PyMethodDef kDropDef = {"drop", DropFromInside, METH_VARARGS, nullptr};
PyMethodDef kConnectDef = {"connect", ConnectFromInside, METH_VARARGS, nullptr};

TEST_F(Ending, FromInsideACallbackReturnsAtOnce) {
    SubscribeInt();
    CPyRef fn(PyCFunction_New(&kEndDef, nullptr));
    drv->SetCBFunc(fn);
    s_pCore = core;
    const auto tStart = CClock::now();
    Push(Change(2) + Change(3));
    EXPECT_TRUE(WaitFor([&] { return Gone() && ReceiveThreads() == 0; }));
    EXPECT_LT(Seconds(tStart), kNoWait);
}

TEST_F(Ending, LastShareMayBeDroppedInsideACallback) {
    SubscribeInt();
    CPyRef fn(PyCFunction_New(&kDropDef, nullptr));
    drv->SetCBFunc(fn);
    s_pCore = core;
    core = nullptr;
    Push(Change(2) + Change(3));
    EXPECT_TRUE(WaitFor([] { return ReceiveThreads() == 0; }));
}

TEST_F(Ending, ConnectInsideACallbackStartsANewSession) {
    SubscribeInt();
    CPyRef fn(PyCFunction_New(&kConnectDef, nullptr));
    drv->SetCBFunc(fn);
    s_pCore = core;
    s_strHost = server.Host();
    s_nResult = 77;
    Push(Change(2) + Change(3));
    OrderHellos(2);
    OrderUser(2);
    EXPECT_TRUE(WaitFor([] { return s_nResult != 77; }));
    EXPECT_EQ(s_nResult, kConnected);
    EXPECT_TRUE(core->m_bConnect);
    EXPECT_TRUE(WaitFor([] { return ReceiveThreads() == 1; }));
    EXPECT_NE(core->_GetDriver("Boiler"), nullptr);
}

// Whichever way each ending falls, it is over at once and no call comes after it.
TEST_F(Ending, UnderAStreamOfChangesIsQuickManyTimes) {
    CPyRef fn(PyCFunction_New(&kCountDef, nullptr));
    int nSessionsWithCalls = 0;
    SubscribeInt();
    core->_Disconnect();
    for (size_t i = 1; i <= 40; ++i) {
        const size_t nConn = 2 * i;
        OrderHellos(nConn);
        OrderUser(nConn);
        ASSERT_EQ(Connect(), kConnected);
        drv = core->_GetDriver("Boiler");
        nReq = nConn;
        nNotify = nConn + 1;
        SubscribeInt();
        drv->SetCBFunc(fn);
        s_nCalls = 0;
        for (int n = 0; n < 5; ++n) server.SendAnyway(nNotify, Repeat(Change(5), 200));
        for (size_t n = 0; n < i % 5; ++n) Unlocked([] { usleep(300); });
        if (i % 5 == 4) EXPECT_TRUE(WaitFor([] { return s_nCalls > 0; }));
        const auto tStart = CClock::now();
        core->_Disconnect();
        EXPECT_LT(Seconds(tStart), kNoWait);
        const int nCalls = s_nCalls;
        Unlocked([] { usleep(1000); });
        EXPECT_EQ(s_nCalls, nCalls);
        nSessionsWithCalls += nCalls > 0;
        server.Done();
        if (::testing::Test::HasFailure()) break;
    }
    EXPECT_TRUE(WaitFor([] { return ReceiveThreads() == 0; }));
    EXPECT_GT(nSessionsWithCalls, 0);
}

// A reader on the script's side, changes and losses from the server's: for the thread sanitizer.
TEST_F(Ending, LossesMeetReadsWithoutHarm) {
    core->_Disconnect();
    for (size_t i = 1; i <= 30; ++i) {
        const size_t nConn = 2 * i;
        OrderHellos(nConn);
        OrderUser(nConn);
        ASSERT_EQ(Connect(), kConnected);
        drv = core->_GetDriver("Boiler");
        nReq = nConn;
        nNotify = nConn + 1;
        SubscribeInt();
        std::shared_ptr<CDBSession> pSession;
        core->_GetDriver("Boiler", &pSession);
        Push(Repeat(Change(5), 100));
        server.Close(nNotify);
        while (!pSession->Ended()) {
            const std::string strValue = ReprOf(drv->GetTagValue("T0"));
            EXPECT_TRUE(strValue == "1" || strValue == "5" || strValue == "None") << strValue;
        }
        EXPECT_TRUE(WaitFor([&] { return Gone(); }));
        ASSERT_TRUE(server.Done());
    }
}

// The single-tag requests keep the receive thread from closing the socket that they use.
TEST_F(Ending, LossesMeetSingleRequestsWithoutHarm) {
    core->_Disconnect();
    for (size_t i = 1; i <= 20; ++i) {
        const size_t nConn = 2 * i;
        OrderHellos(nConn);
        OrderUser(nConn);
        ASSERT_EQ(Connect(), kConnected);
        std::shared_ptr<CDBSession> pSession;
        core->_GetDriver("Boiler", &pSession);
        server.Close(nConn);  // each request fails at once
        server.Close(nConn + 1);
        WORD nId = 77;
        while (!pSession->Ended()) {
            EXPECT_FALSE(core->GetTagId(0, "A", &nId));
            EXPECT_FALSE(core->UnadviseTag(1));
        }
        EXPECT_FALSE(core->GetTagId(0, "A", &nId));
        EXPECT_FALSE(core->UnadviseTag(1));
        EXPECT_EQ(nId, 77);
        EXPECT_TRUE(WaitFor([&] { return Gone(); }));
        ASSERT_TRUE(server.Done());
    }
}

CDBDriver* s_pDriver = nullptr;
std::string s_strRead;

PyObject* ReadFromInside(PyObject*, PyObject*) {
    s_strRead = ReprOf(s_pDriver->GetTagValue("T1"));
    Py_RETURN_NONE;
}

PyMethodDef kReadDef = {"read", ReadFromInside, METH_VARARGS, nullptr};

TEST_F(Ending, CallbackMayReadATag) {
    Resolve(2);
    Subscribe("T0", 1, Hex("03 00") + U32(1));
    CPyRef fn(PyCFunction_New(&kReadDef, nullptr));
    drv->SetCBFunc(fn);
    s_pDriver = drv;
    s_strRead.clear();
    Push(Change(2));
    OnRequest(Hex("48 01 00 00 00 01 00"), Hex("48 00 06 00 03 00 2A 00 00 00"));
    EXPECT_TRUE(WaitFor([] { return !s_strRead.empty(); }));
    EXPECT_EQ(s_strRead, "42");
}

// ---- Signals ------------------------------------------------------------------------------------

void OnAlarm(int) {}

TEST_F(Ending, SignalEndsTheWaitOfAReadAsAFailure) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = OnAlarm;
    sigaction(SIGALRM, &action, &before);
    Resolve(1);
    // Again and again: a signal that comes just before the wait ends nothing.
    itimerval often{};
    often.it_value.tv_usec = often.it_interval.tv_usec = 100000;
    setitimer(ITIMER_REAL, &often, nullptr);
    const auto tStart = CClock::now();
    EXPECT_EQ(ReprOf(drv->GetTagValue("T0")), "None");  // the server never answers
    EXPECT_LT(Seconds(tStart), kNoWait);
    EXPECT_TRUE(core->m_bConnect);
    often = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

sigset_t s_blocked;

PyObject* TellMask(PyObject*, PyObject*) {
    pthread_sigmask(SIG_BLOCK, nullptr, &s_blocked);
    ++s_nCalls;
    Py_RETURN_NONE;
}

PyMethodDef kMaskDef = {"mask", TellMask, METH_VARARGS, nullptr};

TEST_F(Ending, ReceiveThreadBlocksAllSignals) {
    SubscribeInt();
    CPyRef fn(PyCFunction_New(&kMaskDef, nullptr));
    drv->SetCBFunc(fn);
    s_nCalls = 0;
    Push(Change(2));
    ASSERT_TRUE(WaitFor([] { return s_nCalls == 1; }));
    for (int n = 1; n <= SIGSYS; ++n) {
        if (n == SIGKILL || n == SIGSTOP) continue;  // these cannot be
        EXPECT_EQ(sigismember(&s_blocked, n), 1) << n;
    }
}

// ---- Forked children ----------------------------------------------------------------------------

// Runs fn in a forked child; its result is the child's exit status.
template <class TFunction>
int InChild(TFunction fn) {
    const pid_t nChild = fork();
    if (nChild == 0) _exit(fn());
    int nStatus = -1;
    waitpid(nChild, &nStatus, 0);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 1000 + WTERMSIG(nStatus);
}

TEST_F(Ending, SessionIsDeadInAForkedChild) {
    std::shared_ptr<CDBSession> pSession;
    core->_GetDriver("Boiler", &pSession);
    EXPECT_EQ(InChild([&] {
                  if (core->m_bConnect || !pSession->Ended()) return 1;
                  if (core->_GetDriver("Boiler")) return 2;
                  if (drv->_ConnectTag("A")) return 3;
                  if (core->m_reqSock.IsSocket() || core->m_rcvSock.IsSocket()) return 4;
                  if (ReceiveThreads() != 0) return 5;
                  return 0;
              }),
              0);
}

TEST_F(Ending, ChildsEndingsLeaveTheParentConnected) {
    EXPECT_EQ(InChild([&] {
                  core->_Disconnect();
                  UnregisterCore(core);
                  core->LetGo();
                  return 0;
              }),
              0);
    OnLookup({"A"}, {3});
    EXPECT_EQ(Ids("A"), std::vector<int>{3});
    EXPECT_TRUE(core->m_bConnect);
    SubscribeInt();
    drv->SetCBFunc(NotingFunction());
    Push(Change(9));
    EXPECT_TRUE(WaitFor([] { return Repr("calls") == "[('Boiler', 'T0', 9)]"; }));
}

TEST_F(Ending, ChildHoldsNoDescriptorOfTheSession) {
    const int nDescriptors = CountDescriptors();
    EXPECT_EQ(InChild([&] { return nDescriptors - CountDescriptors(); }), 3);
}

TEST_F(Ending, ChildMayConnectAnew) {
    OrderHellos(2);
    OrderUser(2);
    EXPECT_EQ(InChild([&] {
                  if (Connect() != kConnected) return 1;
                  if (!core->_GetDriver("Boiler")) return 2;
                  core->_Disconnect();
                  return core->m_bConnect ? 3 : 0;
              }),
              0);
    EXPECT_TRUE(core->m_bConnect);
}

// ---- The process's end --------------------------------------------------------------------------

TEST_F(Ending, OfAllSessionsIsForGood) {
    EXPECT_EQ(InChild([&] {
                  if (ProcessIsEnding()) return 1;
                  EndAllSessions();
                  if (!ProcessIsEnding()) return 2;
                  return core->_Connect("127.0.0.1:1", "u", "p") == -2 ? 0 : 3;
              }),
              0);
    EXPECT_FALSE(ProcessIsEnding());
}

constexpr int kSlow = 2;

// What a child finds that logs in by itself, so that there is a session to end; 0 is well.
int EndsAll(const std::string& strHost) {
    CDBCore* pCore = new CDBCore;
    RegisterCore(pCore);
    if (pCore->_Connect(strHost.c_str(), "u", "p") != 0) return 1;
    const auto tStart = CClock::now();
    EndAllSessions();
    if (Seconds(tStart) > 0.040) return kSlow;
    if (pCore->m_bConnect || pCore->m_reqSock.IsSocket()) return 3;
    if (pCore->_Connect(strHost.c_str(), "u", "p") != -2) return 4;
    return Becomes(ReceiveThreads, 0) ? 0 : 5;
}

// An ending that waits takes 60 ms every time; one that does not may, when the machine is busy.
TEST_F(Ending, OfAllSessionsEndsEachWithoutWaiting) {
    core->_Disconnect();
    int nResult = kSlow;
    for (size_t nConn = 2; nConn <= 40 && nResult == kSlow; nConn += 2) {
        OrderHellos(nConn);
        OrderUser(nConn);
        server.ExpectEnd(nConn);
        server.ExpectEnd(nConn + 1);
        nResult = InChild([&] { return EndsAll(server.Host()); });
        ASSERT_TRUE(server.Done());
    }
    EXPECT_EQ(nResult, 0);
    EXPECT_FALSE(server.Knocked());
}

}  // namespace
