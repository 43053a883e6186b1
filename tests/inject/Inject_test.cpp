// Every call of the system and every allocation fails once, along everything a script does. Each
// time the result is a documented one, nothing is left behind, and a following Connect works.

#include "Faulty.h"

// The interpreter's header comes first, as it asks for.
#include <fstream>
#include <set>
#include <string>

extern "C" PyObject* PyInit_VzDBAccess();

namespace {

constexpr int kEntries = 18;  // the tests below

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
    // The session may have ended already, here as below.
    if (OutcomeOf(script.Read("a,the_flow_of_a_pump,水")) != "[7, 2.5, '" + kText + "']")
        return script.HasDriver("mill") ? "cannot be read" : "lost";
    script.Do(
        "(drv.SetTagNotify(note), db.SetRtAlarmNotify(alarm, 0), "
        "drv.ConnectTag('a,the_flow_of_a_pump,水'))");
    PyErr_Clear();
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
