// Replies to the requests of a driver and a session. Input: how the replies arrive (see SScript),
// which requests are made (one bit each), then the replies' bytes.

#include "Input.h"
#include "LiveSession.h"
#include "Peer.h"

namespace {

// Known and unknown names; the second list shares one with the first.
constexpr char kNames[] = "a,b,c,\xCB\xAE\xCE\xBB,none";
constexpr char kMoreNames[] = "d,a, ,e";

// An object of a read: none without an error, or with the count of a list.
void CheckRead(PyObject* obj, size_t nNames) {
    Require(!PyErr_Occurred(), "no error left");
    if (!obj) {
        Require(nNames == 1, "a list without an object");
        return;
    }
    if (nNames > 1) {
        const bool bList = PyList_Check(obj);
        Require(bList || obj == Py_None, "a list or None");
        Require(!bList || PyList_GET_SIZE(obj) == static_cast<Py_ssize_t>(nNames), "list size");
    }
    Py_DECREF(obj);
}

PyObject* ThreeValues() {
    static PyObject* const list = Py_BuildValue("[dsiOO]", 1.5, "text", 7, Py_True, Py_True);
    return list;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    CLiveSession& live = CLiveSession::Get();
    live.Forget();
    TakeCalls();
    CInput input(pData, nSize);
    const unsigned nHow = input.Byte();
    const unsigned nRequests = input.Byte();
    CPeer peer({SScript(input.Rest(), nHow)});
    if (!peer.Attach(live.core->m_reqSock)) return 0;
    CDBDriver& driver = *live.types;

    if (nRequests & 1) driver._ConnectTag(kNames);
    if (nRequests & 2) CheckRead(driver.GetTagValue(kNames), 5);
    if (nRequests & 4) CheckRead(driver.GetTagValue("d"), 1);
    if (nRequests & 8) driver._ConnectTag(kMoreNames);
    if (nRequests & 16) CheckRead(driver.GetTagValue(kMoreNames), 4);
    if (nRequests & 32) {
        const int nResult = driver.SetTagValue(kNames, ThreeValues());
        Require(nResult == kWriteDone || nResult == kWriteFailed, "write");
    }
    if (nRequests & 64) {
        WORD nId = 0x1234;
        if (!live.core->GetTagId(0, "f", &nId)) Require(nId == 0x1234, "id untouched");
        driver.GetTagId("f");
        live.core->UnadviseTag(1);
        CString paths[4];
        if (!live.core->GetPrjPath(paths[0], paths[1], paths[2], paths[3]))
            Require(paths[0].empty() && paths[3].empty(), "paths untouched");
    }
    if (nRequests & 128) {
        const int nResult = live.core->_SetRtAlarmNotify(CountingFunction(), (nRequests & 1) != 0);
        Require(nResult == kAlarmsSubscribed || nResult == kAlarmsFailed, "alarms");
        if (nResult == kAlarmsFailed)
            Require(!live.core->m_rtAlarmNotifyFn, "callback stays unset");
        if (!(nRequests & 1)) Require(TakeCalls() == 0, "no call unasked");
    }
    Require(!PyErr_Occurred(), "no error left");

    for (const CDBDriver::STag& tag : driver.m_tags) {
        Require(&tag == &driver.m_tags[tag.id], "an id is its index");
        if (tag.value.vt != VT_EMPTY) Require(!tag.strTag.empty(), "a value without a name");
        if (tag.bSubscribe)
            Require((nRequests & 9) != 0 && !tag.strTag.empty(), "subscribed unasked");
    }
    for (const auto& entry : driver.m_mapTagToId)
        Require(entry.first.find_first_of(", ") == CString::npos, "names");
    return 0;
}
