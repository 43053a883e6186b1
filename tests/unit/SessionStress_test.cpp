// Sessions under load, for the sanitizers: a script thread that does everything a script can, the
// receive threads of its sessions, and a server that streams changes into them.

#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <thread>

#include "ProcessState.h"
#include "StreamingServer.h"
#include "VzDBAccess/DBCore.h"
#include "VzDBAccess/DBDriver.h"
#include "VzDBAccess/Registry.h"
#include "VzDBAccess/vzdb.h"

namespace {

constexpr int kRounds = 30;

class SessionStress : public ::testing::Test {
  protected:
    SessionStress() {
        RunScript("count = 0\ndef called(*args):\n    global count\n    count += 1\n");
        m_fn = PyDict_GetItemString(ScriptGlobals(), "called");
    }
    ~SessionStress() override {
        EXPECT_TRUE(WaitFor([] { return ReceiveThreads() == 0; }));
        RemoveTree("/tmp/vzbrowser/127.0.0.1_" + m_server.Host().substr(10));
    }

    // Connects, subscribes and reads; the changes stream into the callback from then on.
    void Begin(CDBCore* pDB) {
        ASSERT_EQ(_DBConnect(pDB, m_server.Host().c_str(), "u", "p"), kConnected);
        SDriverRef* pDrv = _DBGetDriver(pDB, "Boiler");
        ASSERT_NE(pDrv, nullptr);
        _DrvSetTagNotify(pDrv, m_fn);
        EXPECT_EQ(_DrvConnectTag(pDrv, "0,1,2"), 1);
        for (int i = 0; i < 20; ++i) Work(pDrv);
        _DrvRelease(pDrv);
    }
    void Work(SDriverRef* pDrv) {
        Py_XDECREF(_DrvGetTagValue(pDrv, "0,1,2,3,4"));
        Py_XDECREF(_DrvGetTagValue(pDrv, "0"));
        CPyRef value(PyLong_FromLong(5));
        EXPECT_EQ(_DrvSetTagValue(pDrv, "4", value), kWriteDone);
        Unlocked([] { usleep(200); });
    }

    CStreamingServer m_server;
    PyObject* m_fn;
};

TEST_F(SessionStress, ScriptEndsItsSessions) {
    for (int i = 0; i < kRounds; ++i) {
        CDBCore* pDB = _DBCoreNew();
        Begin(pDB);
        _DBCoreDelete(pDB);
    }
}

TEST_F(SessionStress, ServerEndsThem) {
    CDBCore* pDB = _DBCoreNew();
    for (int i = 0; i < kRounds; ++i) {
        Begin(pDB);
        m_server.DropNotify();
        // Sometimes the loss is waited for, sometimes the next connect races it.
        if (i % 2) {
            EXPECT_TRUE(WaitFor([] { return ReceiveThreads() == 0; }));
        }
    }
    _DBCoreDelete(pDB);
}

TEST_F(SessionStress, ConnectReplacesThem) {
    CDBCore* pDB = _DBCoreNew();
    for (int i = 0; i < kRounds; ++i) Begin(pDB);
    _DBCoreDelete(pDB);
}

TEST_F(SessionStress, BothEndThemAtOnce) {
    for (int i = 0; i < kRounds; ++i) {
        CDBCore* pDB = _DBCoreNew();
        Begin(pDB);
        std::thread server([this] { m_server.DropNotify(); });
        if (i % 3) Unlocked([i] { usleep(static_cast<useconds_t>(i * 10)); });
        _DBCoreDelete(pDB);
        server.join();
    }
}

TEST_F(SessionStress, ForksFindItsLocksFree) {
    CDBCore* pDB = _DBCoreNew();
    Begin(pDB);
    for (int i = 0; i < kRounds; ++i) {
        Unlocked([] { usleep(300); });
        const pid_t nChild = fork();
        if (nChild == 0) {
            pDB->_Disconnect();
            _exit(0);
        }
        int nStatus = -1;
        EXPECT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
    }
    _DBCoreDelete(pDB);
}

}  // namespace
