#include "LiveSession.h"

#include <unistd.h>

#include <cstdlib>

#include "Peer.h"
#include "ScratchFolder.h"
#include "WireBytes.h"

namespace {

constexpr uint32_t kDrvTime = 1600000000;  // of the driver file

unsigned g_nCalls = 0;

PyObject* CountCall(PyObject*, PyObject*) {
    ++g_nCalls;
    Py_RETURN_NONE;
}

PyMethodDef g_countCall = {"count", CountCall, METH_VARARGS, nullptr};

void ForgetDriver(CDBDriver& driver) {
    driver.m_mapTagToId.clear();
    driver.m_tagNotifyFn = nullptr;
    for (CDBDriver::STag& tag : driver.m_tags) {
        tag.value.Clear();
        tag.strTag.clear();
        tag.bSubscribe = false;
    }
}

}  // namespace

void StartInterpreter() {
    if (Py_IsInitialized()) return;
    setenv("PYTHONMALLOC", "malloc", 1);
    Py_InitializeEx(0);
    if (!LoadDateTime()) abort();
}

PyObject* CountingFunction() {
    StartInterpreter();
    static PyObject* const fn = PyCFunction_New(&g_countCall, nullptr);
    return fn;
}

unsigned TakeCalls() {
    const unsigned n = g_nCalls;
    g_nCalls = 0;
    return n;
}

std::string FuzzHost() { return "192.0.2.1:" + std::to_string(getpid() % 60000 + 1); }

std::string FuzzCacheFolder(std::string strHost) {
    for (char& c : strHost)
        if (c == ':') c = '_';
    return "/tmp/vzbrowser/" + strHost;
}

CLiveSession& CLiveSession::Get() {
    static CLiveSession& session = *new CLiveSession;  // its thread runs until the process ends
    return session;
}

CLiveSession::CLiveSession() : core(new CDBCore) {
    StartInterpreter();
    const std::string strDrvInfo = Z("Types") + U16(0) + U16(40) + Z("Never") + U16(1) + U16(3) +
                                   Z("\xB9\xF8\xC2\xAF") + U16(3) + U16(6);
    const std::string strSize = Upper(static_cast<unsigned>(strDrvInfo.size()));
    const std::string strReplies = std::string("7") + kCut + "9" + Hex("00 00 00 00") + U32(8) +
                                   kCut + "Size:" + strSize + "\r\n\r\n" + strDrvInfo;
    const std::string strRecord = "8" + std::string(50, 'x') + U32Big(kDrvTime) + U32Big(0);
    CPeer peer({SScript(strReplies), SScript(Scramble(strRecord + Z("Fuzz") + Z("Plant")))});
    static const CScratchFolder folder;
    if (core->_Connect(FuzzHost().c_str(), "u", "p") != kConnected) abort();
    RemoveTree(FuzzCacheFolder(FuzzHost()));
    core->m_strPrjPath = CString(folder.Path());
    peer.Keep(1);  // the receive thread waits for good
    types = core->_GetDriver("Types");
    boiler = core->_GetDriver("\xB9\xF8\xC2\xAF");
    if (!types || !boiler || core->_GetDriver("None")) abort();
}

void CLiveSession::Forget() {
    ForgetDriver(*types);
    ForgetDriver(*boiler);
    core->m_rtAlarmNotifyFn = nullptr;
    core->m_textList.clear();
    core->m_tagList.clear();
    core->m_nRights = 8;
}
