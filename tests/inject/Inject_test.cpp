// Every call of the system and every allocation fails once, along everything a script does. Each
// time the result is a documented one, nothing is left behind, and a following Connect works.

#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "Faults.h"
#include "PlantServer.h"
#include "ProcessState.h"
#include "WireBytes.h"

extern "C" PyObject* PyInit_VzDBAccess();

namespace {

constexpr int kMostPoints = 5000;  // of one kind in one step: more is a run without end
const std::string kText = "a text of more than fifteen bytes";

std::string ReprOfBorrowed(PyObject* obj) {
    Py_INCREF(obj);
    return ReprOf(obj);
}

// What came of a call: the result, or the name of the exception.
std::string OutcomeOf(PyObject* obj) {
    CPyRef ref(obj);
    if (!obj) return TakeError();
    if (PyErr_Occurred()) return "a result and " + TakeError();
    if (std::string(Py_TYPE(obj)->tp_name).find("VzDBAccess.") == 0) return "object";
    if (!PyList_Check(obj)) return ReprOfBorrowed(obj);
    std::string str;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(obj); ++i) {
        PyObject* item = PyList_GET_ITEM(obj, i);
        str += (i ? ", " : "") + (item ? ReprOfBorrowed(item) : std::string("-"));
    }
    return "[" + str + "]";
}

// A script with its objects, in the interpreter of this process.
class CScript {
  public:
    ~CScript() { Drop(); }
    // The calls of the library: in these alone this thread meets faults.
    void Make() {
        const CCalling calling;
        db = PyObject_CallObject(PyDict_GetItemString(ScriptGlobals(), "DBCore"), nullptr);
    }
    void Drop() {
        const CCalling calling;
        Py_CLEAR(drv);
        Py_CLEAR(db);
    }
    PyObject* Connect(const std::string& strHost) {
        const CCalling calling;
        return PyObject_CallMethod(db, "Connect", "sss", strHost.c_str(), "user", "password");
    }
    PyObject* Driver(const char* szName = "水") {
        const CCalling calling;
        return PyObject_CallMethod(db, "GetDriver", "s", szName);
    }
    PyObject* Read(const char* szTags) {
        const CCalling calling;
        return PyObject_CallMethod(drv, "GetTagValue", "s", szTags);
    }
    // An expression of a script in which db and drv are these objects.
    PyObject* Do(const char* szExpression) {
        PyObject* names = ScriptGlobals();
        PyDict_SetItemString(names, "db", db);
        PyDict_SetItemString(names, "drv", drv);
        PyObject* obj;
        {
            const CCalling calling;
            obj = PyRun_String(szExpression, Py_eval_input, names, names);
        }
        PyDict_SetItemString(names, "db", Py_None);
        PyDict_SetItemString(names, "drv", Py_None);
        return obj;
    }
    // Without faults.
    bool HasDriver(const char* szName) {
        CPyRef driver(PyObject_CallMethod(db, "GetDriver", "s", szName));
        PyErr_Clear();
        return driver;
    }

    PyObject* db = nullptr;
    PyObject* drv = nullptr;
};

// One thing that a script does, with faults in it.
struct SStep {
    EWho eWho;
    // Brings the script to where the step begins. What fails in it fails the test.
    std::function<void()> fnPrepare;
    // The step; its outcome.
    std::function<std::string()> fnStep;
    std::string strGood;            // the outcome without a fault
    std::set<std::string> allowed;  // further ones with a fault
    bool bStartsThread = false;     // without one the outcome is -2
    std::set<EFault> faults = {};   // these alone; empty: all
};

constexpr int kEntries = 18;  // the tests below
int g_nEntries = 0;
int g_nPoints = 0;
int g_nRuns = 0;
std::set<std::string> g_reached;

class Faulty : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        s_pServer = new CPlantServer;
        RunScript(
            "from VzDBAccess import DBCore\n"
            "calls, alarms = [], []\n"
            "def note(*args): calls.append(args)\n"
            "def alarm(*args): alarms.append(args)\n"
            "told = [('水', 'a', 8), ('水', '水', 'another text of some length'), ('水', "
            "'the_flow_of_a_pump', "
            "3.5),\n"
            "        ('水', 'a', 99)]\n"
            "def wrong(conversions_fail):\n"
            "    # A name that could not be converted is empty, that one time.\n"
            "    gaps = [c for c in calls if '' in c[:2] and c[2] in [t[2] for t in told]]\n"
            "    return ([c for c in calls if c not in told and c not in gaps] + "
            "gaps[conversions_fail:] +\n"
            "            [a for a in alarms if a[2:6] != ('T1', 0, '水', 'high')])\n");
    }
    static void TearDownTestSuite() {
        RemoveTree(Cache());
        delete s_pServer;
    }
    static std::string Cache() {
        std::string strFolder = s_pServer->Host();
        strFolder[strFolder.find(':')] = '_';
        return "/tmp/vzbrowser/" + strFolder;
    }
    void SetUp() override {
        m_nThreads = CountThreads();
        m_nDescriptors = CountDescriptors();
    }

    void Connected() {
        script.Make();
        ASSERT_EQ(OutcomeOf(script.Connect(Host())), "0");
        script.drv = script.Driver();
        ASSERT_NE(script.drv, nullptr);
    }
    static const std::string& Host() { return s_pServer->Host(); }

    // Fails each call of the step, one in each run, until a run meets no fault.
    void Torture(const char* szEntry, const SStep& step) {
        int nPoints = 0;
        int nRuns = 0;
        for (size_t iFault = 0; iFault < static_cast<size_t>(EFault::kCount); ++iFault) {
            if (!step.faults.empty() && !step.faults.count(static_cast<EFault>(iFault))) continue;
            for (int nth = 1;; ++nth) {
                SCOPED_TRACE(std::string(kFaultNames[iFault]) + " " + std::to_string(nth));
                ASSERT_LT(nth, kMostPoints);
                ++nRuns;
                const bool bMet = Run(step, static_cast<EFault>(iFault), nth);
                if (HasFatalFailure()) return;
                if (!bMet) break;
                g_reached.insert(kFaultNames[iFault]);
                ++nPoints;
            }
        }
        ++g_nEntries;
        g_nPoints += nPoints;
        g_nRuns += nRuns;
        std::printf("%-22s %4d points, %4d runs\n", szEntry, nPoints, nRuns);
        std::fflush(stdout);
    }

    CScript script;

  private:
    bool Run(const SStep& step, EFault eFault, int nth) {
        step.fnPrepare();
        if (HasFatalFailure()) return false;
        Arm(eFault, nth, step.eWho);
        const std::string strOutcome = step.fnStep();
        const bool bMet = Disarm();
        if (strOutcome != step.strGood) {
            EXPECT_TRUE(bMet && step.allowed.count(strOutcome)) << "outcome: " << strOutcome;
        }
        if (bMet && step.bStartsThread && IsOfThreads(eFault)) {
            EXPECT_EQ(strOutcome, "-2");
        }
        ExpectWhole();
        script.Drop();
        ExpectNothingLeft();
        return bMet;
    }
    static bool IsOfThreads(EFault eFault) {
        return eFault == EFault::kPthreadCreate || eFault == EFault::kPthreadAttrInit ||
               eFault == EFault::kSemInit || eFault == EFault::kFcntl;
    }
    // A following Connect works, and gives all drivers with their values.
    void ExpectWhole() {
        s_pServer->AnswerFile(CPlantServer::EFile::kWhole);
        if (!script.db) script.Make();
        ASSERT_NE(script.db, nullptr);
        ASSERT_EQ(OutcomeOf(script.Connect(Host())), "0");
        Py_CLEAR(script.drv);
        script.drv = script.Driver();
        ASSERT_NE(script.drv, nullptr) << TakeError();
        EXPECT_TRUE(script.HasDriver("mill"));
        EXPECT_EQ(OutcomeOf(script.Read("a,水,none")), "[7, '" + kText + "', -]");
    }
    void ExpectNothingLeft() {
        EXPECT_TRUE(WaitFor([] { return s_pServer->Connections() == 0; }));
        EXPECT_TRUE(WaitFor([&] { return CountThreads() <= m_nThreads; }));
        EXPECT_TRUE(WaitFor([&] { return CountDescriptors() <= m_nDescriptors; }));
    }

  protected:
    static CPlantServer* s_pServer;
    int m_nThreads = 0;
    int m_nDescriptors = 0;
};

CPlantServer* Faulty::s_pServer = nullptr;

// ---- Sessions -----------------------------------------------------------------------------------

TEST_F(Faulty, Object) {
    Torture("DBCore", {EWho::kCaller,
                       [] {},
                       [&] {
                           script.Make();
                           return script.db ? "object" : TakeError();
                       },
                       "object",
                       {"MemoryError"}});
}

// The outcome of a Connect, with what must hold behind each.
std::string CheckedConnect(CScript& script, const std::string& strOutcome, CPlantServer& server) {
    const bool bOne = script.HasDriver("水");
    if (bOne != script.HasDriver("mill")) return strOutcome + " with half of the drivers";
    if (strOutcome == "0") return strOutcome;
    if (bOne) return strOutcome + " with drivers";
    // Both sockets are closed at once, and not only when the object goes.
    return WaitFor([&] { return server.Connections() == 0; }) ? strOutcome
                                                              : strOutcome + " with a connection";
}

TEST_F(Faulty, ConnectWithAnEmptyCache) {
    Torture("Connect, no cache", {EWho::kCaller,
                                  [&] {
                                      RemoveTree(Cache());
                                      script.Make();
                                      ASSERT_NE(script.db, nullptr);
                                  },
                                  [&] {
                                      PyObject* result = script.Connect(Host());
                                      return CheckedConnect(script, OutcomeOf(result), *s_pServer);
                                  },
                                  "0",
                                  {"-2", "MemoryError"},
                                  true});
}

// A half of the driver file is in the cache.
void PutHalf(const std::string& strCache) {
    std::ofstream(strCache + "/水/RecData/drvinfo.dat", std::ios::binary)
        << CPlantServer::FirstHalf();
}

const std::set<EFault> kFileFaults = {
    EFault::kNew,        EFault::kOpenat,          EFault::kFstat,
    EFault::kFstatat,    EFault::kFchmod,          EFault::kFutimens,
    EFault::kFlock,      EFault::kLseek,           EFault::kUnlinkat,
    EFault::kRead,       EFault::kReadShort,       EFault::kWrite,
    EFault::kWriteShort, EFault::kWriteInterrupted};

TEST_F(Faulty, ConnectThatCompletesTheFile) {
    Torture("Connect, half a cache", {EWho::kCaller,
                                      [&] {
                                          Connected();
                                          script.Drop();
                                          script.Make();
                                          PutHalf(Cache());
                                          s_pServer->AnswerFile(CPlantServer::EFile::kRest);
                                      },
                                      [&] {
                                          PyObject* result = script.Connect(Host());
                                          return CheckedConnect(script, OutcomeOf(result),
                                                                *s_pServer);
                                      },
                                      "0",
                                      {"-2", "MemoryError"},
                                      true,
                                      kFileFaults});
}

TEST_F(Faulty, ConnectThatShortensTheFile) {
    Torture("Connect, long cache",
            {EWho::kCaller,
             [&] {
                 Connected();
                 script.Drop();
                 script.Make();
                 std::ofstream(Cache() + "/水/RecData/drvinfo.dat", std::ios::binary)
                     << CPlantServer::FirstHalf() + Z("mill") + U16(1) + U16(0) + Z("stale") +
                            U16(2) + U16(0);
             },
             [&] {
                 PyObject* result = script.Connect(Host());
                 const std::string str = CheckedConnect(script, OutcomeOf(result), *s_pServer);
                 return script.HasDriver("stale") ? "stale" : str;
             },
             "0",
             {"-2", "MemoryError"},
             true,
             {EFault::kFtruncate, EFault::kFstat}});
}

TEST_F(Faulty, ConnectThatRemovesTheFile) {
    Torture("Connect, file gone", {EWho::kCaller,
                                   [&] {
                                       Connected();
                                       script.Drop();
                                       script.Make();
                                       PutHalf(Cache());
                                       s_pServer->AnswerFile(CPlantServer::EFile::kGone);
                                   },
                                   [&] {
                                       const std::string str = OutcomeOf(script.Connect(Host()));
                                       return script.HasDriver("水") ? str + ", old drivers" : str;
                                   },
                                   "0",
                                   {"-2", "MemoryError"},
                                   true,
                                   kFileFaults});
}

TEST_F(Faulty, ConnectAgain) {
    Torture("Connect again", {EWho::kCaller,
                              [&] { Connected(); },
                              [&] {
                                  PyObject* result = script.Connect(Host());
                                  return CheckedConnect(script, OutcomeOf(result), *s_pServer);
                              },
                              "0",
                              {"-2", "MemoryError"},
                              true});
}

// Changes of three types and an alarm come, and a last change again and again, until it is told of
// or the session is over.
std::string Told(CScript& script, CPlantServer& server, bool bConversionsFail) {
    server.Push(U16(0) + U16(0) + U32(8) + U16(0) + U16(2) + Z("another text of some length") +
                U16(0) + U16(1) + Hex("00 00 00 00 00 00 0C 40"));
    server.Push(Hex("FF FF 01") + CPlantServer::Alarm());
    std::string strEnd;
    int i = 0;
    WaitFor([&] {
        // Seldom: what piles up behind a slow client is cut anywhere.
        if (i++ % 50 == 3) server.Push(U16(0) + U16(0) + U32(99));
        if (!script.HasDriver("mill")) strEnd = "lost";
        if (Repr("('水', 'a', 99) in calls") == "True") strEnd = "told";
        return !strEnd.empty();
    });
    const std::string strWrong = Repr(bConversionsFail ? "wrong(True)" : "wrong(False)");
    return strWrong == "[]" ? strEnd : strEnd + " " + strWrong;
}

// ---- Requests -----------------------------------------------------------------------------------

TEST_F(Faulty, GetDriver) {
    Torture("GetDriver", {EWho::kCaller,
                          [&] {
                              script.Make();
                              ASSERT_EQ(OutcomeOf(script.Connect(Host())), "0");
                          },
                          [&] { return OutcomeOf(script.Driver()); },
                          "object",
                          {"SystemError", "MemoryError"}});
}

TEST_F(Faulty, ReadOfOneTag) {
    Torture("GetTagValue, one", {EWho::kCaller,
                                 [&] { Connected(); },
                                 [&] { return OutcomeOf(script.Read("水")); },
                                 "'" + kText + "'",
                                 {"None", "MemoryError"}});
}

TEST_F(Faulty, ReadOfManyTags) {
    // Names are cut where a conversion fails: fewer names, fewer values.
    Torture("GetTagValue, many",
            {EWho::kCaller,
             [&] { Connected(); },
             [&] { return OutcomeOf(script.Read("a,none,the_flow_of_a_pump,水")); },
             "[7, -, 2.5, '" + kText + "']",
             {"None", "MemoryError"}});
}

TEST_F(Faulty, ReadAfterAFaultyReadIsRight) {
    Torture("GetTagValue, twice", {EWho::kCaller,
                                   [&] { Connected(); },
                                   [&] {
                                       const std::string str =
                                           OutcomeOf(script.Read("the_flow_of_a_pump,水"));
                                       return str == "[2.5, '" + kText + "']"
                                                  ? OutcomeOf(script.Read("the_flow_of_a_pump,水"))
                                                  : str;
                                   },
                                   "[2.5, '" + kText + "']",
                                   {"None", "MemoryError"}});
}

// After a fault without an answer lost the same call works, and all changes are told with their
// names.
TEST_F(Faulty, Subscription) {
    Torture("ConnectTag",
            {EWho::kCaller,
             [&] {
                 Connected();
                 RunScript("calls.clear(); alarms.clear()");
             },
             [&] {
                 script.Do("drv.SetTagNotify(note)");
                 std::string str =
                     OutcomeOf(script.Do("drv.ConnectTag('a,水,the_flow_of_a_pump')"));
                 Disarm();
                 // Also what a failed conversion has left out.
                 if (str != "0")
                     str = OutcomeOf(script.Do("drv.ConnectTag('a,水,the_flow_of_a_pump')"));
                 return str == "1" ? Told(script, *s_pServer, false) : str;
             },
             "told",
             {"0"}});
}

TEST_F(Faulty, WriteOfOneValue) {
    Torture("SetTagValue, one",
            {EWho::kCaller,
             [&] { Connected(); },
             [&] { return OutcomeOf(script.Do("drv.SetTagValue('水', '深' * 20)")); },
             "0",
             {"-2", "-3", "MemoryError"}});
}

TEST_F(Faulty, WriteOfManyValues) {
    RunScript(
        "values = [12345678901, 2.5, 'text of more than fifteen bytes', 10**6]\n"
        "import sys\n");
    Torture("SetTagValue, many",
            {EWho::kCaller,
             [&] { Connected(); },
             [&] {
                 CPyRef before(Eval("[sys.getrefcount(x) for x in values]"));
                 const std::string str = OutcomeOf(
                     script.Do("drv.SetTagValue('a,the_flow_of_a_pump,水,a', values[1:] + [3])"));
                 CPyRef after(Eval("[sys.getrefcount(x) for x in values]"));
                 return PyObject_RichCompareBool(before, after, Py_EQ) == 1
                            ? str
                            : str + " and references";
             },
             "0",
             {"-2", "-3", "MemoryError"}});
}

constexpr char kAlarmTexts[] =
    "[tuple(t.replace('?', '') or '-' for t in (a[2], a[4], a[5])) for a in alarms]";
constexpr char kGoodAlarm[] = "None [('T1', '水', 'high')]";

TEST_F(Faulty, AlarmSubscription) {
    const auto fnSubscribe = [&] {
        RunScript("alarms.clear()");
        const std::string str = OutcomeOf(script.Do("db.SetRtAlarmNotify(alarm, 1)"));
        return str + " " + Repr(kAlarmTexts);
    };
    // Lists that are not there, and texts that cannot be converted, leave gaps. What a broken
    // transfer of the first list leaves on the connection is taken for the second one.
    Torture("SetRtAlarmNotify", {EWho::kCaller,
                                 [&] { Connected(); },
                                 [&] {
                                     const std::string str = fnSubscribe();
                                     Disarm();
                                     if (str.find("MemoryError") != 0) return str;
                                     // Nothing half is kept.
                                     script.Connect(Host());
                                     const std::string strAgain = fnSubscribe();
                                     return strAgain == kGoodAlarm ? "MemoryError"
                                                                   : str + ", then " + strAgain;
                                 },
                                 kGoodAlarm,
                                 {"MemoryError", "None []", "None [('-', '-', '-')]",
                                  "None [('T1', '-', '-')]", "None [('T1', '-', 'high')]",
                                  "None [('-', '水', 'high')]", "None [('水', '水', 'high')]"}});
}

// ---- What the receive thread does ---------------------------------------------------------------

std::string Notified(CScript& script, const std::string& strHost, CPlantServer& server) {
    const std::string str = OutcomeOf(script.Connect(strHost));
    if (str != "0") return str;
    script.drv = script.Driver();
    if (OutcomeOf(script.Read("a,the_flow_of_a_pump,水")) != "[7, 2.5, '" + kText + "']")
        return "cannot be read";
    script.Do(
        "(drv.SetTagNotify(note), db.SetRtAlarmNotify(alarm, 0), "
        "drv.ConnectTag('a,the_flow_of_a_pump,水'))");
    PyErr_Clear();  // the session may have ended already
    return Told(script, server, true);
}

TEST_F(Faulty, Notifications) {
    Torture("notifications", {EWho::kReceiver,
                              [&] {
                                  script.Make();
                                  RunScript("calls.clear(); alarms.clear()");
                              },
                              [&] { return Notified(script, Host(), *s_pServer); },
                              "told",
                              {"lost"}});
}

TEST_F(Faulty, HangUp) {
    Torture("hang-up", {EWho::kReceiver,
                        [&] { script.Make(); },
                        [&] {
                            const std::string str = OutcomeOf(script.Connect(Host()));
                            if (str != "0") return str;
                            s_pServer->HangUp();
                            return std::string(WaitFor([&] { return !script.HasDriver("mill"); })
                                                   ? "lost"
                                                   : "lives");
                        },
                        "lost",
                        {}});
}

// ---- Endings ------------------------------------------------------------------------------------

TEST_F(Faulty, EndOfTheReceiveThread) {
    Torture("end of the thread", {EWho::kReceiver,
                                  [&] { Connected(); },
                                  [&] {
                                      script.Drop();
                                      return std::string("ended");
                                  },
                                  "ended",
                                  {}});
}

TEST_F(Faulty, End) {
    Torture("end", {EWho::kCaller,
                    [&] { Connected(); },
                    [&] {
                        script.Drop();
                        return std::string(PyErr_Occurred() ? TakeError() : "ended");
                    },
                    "ended",
                    {}});
}

TEST_F(Faulty, Faults) {
    if (g_nEntries < kEntries) GTEST_SKIP() << "only after all other tests";
    for (const char* sz : kFaultNames) EXPECT_TRUE(g_reached.count(sz)) << sz << " was never met";
}

}  // namespace

int main(int argc, char** argv) {
    PyImport_AppendInittab("VzDBAccess", PyInit_VzDBAccess);
    testing::InitGoogleTest(&argc, argv);
    const int nResult = RUN_ALL_TESTS();
    std::printf("%d entries, %d points: %d runs\n", g_nEntries, g_nPoints, g_nRuns);
    return nResult;
}
