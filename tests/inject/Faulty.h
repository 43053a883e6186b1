// Runs what a script does again and again, each time with another call that fails.
#pragma once

#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <set>
#include <string>

#include "Faults.h"
#include "PlantServer.h"
#include "ProcessState.h"
#include "WireBytes.h"

constexpr int kMostPoints = 5000;  // of one kind in one step: more is a run without end
inline const std::string kText = "a text of more than fifteen bytes";

inline std::string ReprOfBorrowed(PyObject* obj) {
    Py_INCREF(obj);
    return ReprOf(obj);
}

// What came of a call: the result, or the name of the exception.
inline std::string OutcomeOf(PyObject* obj) {
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

inline int g_nEntries = 0;
inline int g_nPoints = 0;
inline int g_nRuns = 0;
inline std::set<std::string> g_reached;

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
    static inline CPlantServer* s_pServer = nullptr;
    int m_nThreads = 0;
    int m_nDescriptors = 0;
};
