#include "VzDBAccess/NotifyCall.h"

#include <datetime.h>

#include <ctime>

#include "VzDBAccess/DBDriver.h"

namespace {

// Naive local datetime of seconds since 1970 UTC. New reference, or null with an error set.
PyObject* LocalDateTime(UINT nSeconds) {
    const time_t t = static_cast<time_t>(nSeconds);
    struct tm tmLocal;
    if (!localtime_r(&t, &tmLocal)) {
        PyErr_SetString(PyExc_ValueError, "alarm time has no local form");
        return nullptr;
    }
    return PyDateTimeAPI->DateTime_FromDateAndTime(
        tmLocal.tm_year + 1900, tmLocal.tm_mon + 1, tmLocal.tm_mday, tmLocal.tm_hour,
        tmLocal.tm_min, tmLocal.tm_sec, 0, Py_None, PyDateTimeAPI->DateTimeType);
}

// The list's text at nIndex as a str, "???" beyond its end.
PyObject* ListText(const std::vector<CString>& list, WORD nIndex) {
    return nIndex < list.size() ? TextToObj(list[nIndex]) : PyUnicode_FromString("???");
}

// The arguments of an alarm's call; null with an error set when one cannot be made.
PyObject* AlarmArgs(const S2RtAlarm2& alarm, const std::vector<CString>& textList,
                    const std::vector<CString>& tagList) {
    PyObject* almtm = LocalDateTime(alarm.almtm);
    PyObject* evttm = almtm ? LocalDateTime(alarm.evttm ? alarm.evttm : alarm.almtm) : nullptr;
    PyObject* tag = evttm ? ListText(tagList, alarm.tid) : nullptr;
    PyObject* type = tag ? ListText(textList, alarm.type) : nullptr;
    PyObject* group = type ? ListText(textList, alarm.grp) : nullptr;
    PyObject* args = nullptr;
    if (group) {
        args = Py_BuildValue("(OOOiOOiddi)", almtm, evttm, tag, alarm.evttm != 0 ? 1 : 0, type,
                             group, static_cast<int>(alarm.level), alarm.value, alarm.limit,
                             static_cast<int>(alarm.status));
    }
    Py_XDECREF(almtm);
    Py_XDECREF(evttm);
    Py_XDECREF(tag);
    Py_XDECREF(type);
    Py_XDECREF(group);
    return args;
}

// What a call of fn gave is of no use; that it failed is.
void ReleaseOrReport(PyObject* fn, PyObject* result) {
    if (!result) PyErr_WriteUnraisable(fn);
    Py_XDECREF(result);
}

// Calls fn with three arguments. args[0] is the interpreter's to use.
PyObject* CallWithThree(PyObject* fn, PyObject** args) {
#if PY_VERSION_HEX >= 0x03090000  // without a tuple, which costs as much as the call
    return PyObject_Vectorcall(fn, args + 1, 3 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr);
#else
    return PyObject_CallFunctionObjArgs(fn, args[1], args[2], args[3], nullptr);
#endif
}

}  // namespace

PyObject* TextToObj(const CString& strUtf8) {
    return PyUnicode_DecodeUTF8(strUtf8.data(), static_cast<Py_ssize_t>(strUtf8.size()), "replace");
}

void CallAndReport(PyObject* fn, PyObject* args) {
    ReleaseOrReport(fn, args ? PyObject_CallObject(fn, args) : nullptr);
    Py_XDECREF(args);
}

bool LoadDateTime() {
    if (!PyDateTimeAPI) PyDateTime_IMPORT;
    return PyDateTimeAPI != nullptr;
}

void FireRtAlarm(PyObject* rtAlarmNotifyFn, const S2RtAlarm2* pRA,
                 const std::vector<CString>& textList, const std::vector<CString>& tagList) {
    CallAndReport(rtAlarmNotifyFn, AlarmArgs(*pRA, textList, tagList));
}

void CToldName::Set(const std::string& strName) {
    if (m_strName == strName) return;
    std::string strCopy(strName);
    CString strUtf8;
    ToUtf8(strName.c_str(), strUtf8, 0);
    if (strUtf8.empty()) strCopy.clear();  // no converter was to be had: asked for again next time
    m_strName.swap(strCopy);
    m_strUtf8.swap(strUtf8);
    m_bStale = true;
}

PyObject* CToldName::Object() {
    if (m_bStale) Drop();
    m_bStale = false;
    if (!m_obj) m_obj = TextToObj(m_strUtf8);
    Py_XINCREF(m_obj);
    return m_obj;
}

void CNotifyCall::SetTagChange(PyObject* fn, const CString& strDriver, const CString& strTag,
                               const XVariant& value) {
    m_driver.Set(strDriver);
    m_tag.Set(strTag);
    m_value = value;
    m_fn = fn;
    m_nKind = EKind::kTagChange;
}

void CNotifyCall::SetAlarm(PyObject* fn, const S2RtAlarm2& alarm,
                           const std::vector<CString>& textList,
                           const std::vector<CString>& tagList) {
    m_alarm = alarm;
    m_pTextList = &textList;
    m_pTagList = &tagList;
    m_fn = fn;
    m_nKind = EKind::kAlarm;
}

// The thread state is counted: it goes with the last PyGILState_Release.
void CNotifyCall::KeepThreadState() {
    if (!m_bThreadState) PyGILState_Ensure();
    m_bThreadState = true;
}

void CNotifyCall::LeaveInterpreter() {
    const PyGILState_STATE gil = PyGILState_Ensure();
    m_driver.Drop();
    m_tag.Drop();
    m_bThreadState = false;
    PyGILState_Release(PyGILState_LOCKED);  // that of KeepThreadState
    PyGILState_Release(gil);
}

void CNotifyCall::MakeCall(const CDBSession& session) {
    PyObject* fn = m_fn;
    Py_INCREF(fn);  // before anything is made: a collection of garbage may drop the script's own
    if (m_nKind == EKind::kAlarm) {
        CallWithAlarm(session);
    } else {
        CallWithChange(session);
    }
    Py_DECREF(fn);
}

void CNotifyCall::CallWithAlarm(const CDBSession& session) {
    PyObject* args = AlarmArgs(m_alarm, *m_pTextList, *m_pTagList);
    if (session.Ended()) {
        PyErr_Clear();
        Py_XDECREF(args);
        return;
    }
    CallAndReport(m_fn, args);
}

void CNotifyCall::CallWithChange(const CDBSession& session) {
    PyObject* value = CDBDriver::ValueToObj(&m_value);
    if (!value && !PyErr_Occurred()) return;  // a type without a script object: nothing to tell
    PyObject* driver = value ? m_driver.Object() : nullptr;
    PyObject* tag = driver ? m_tag.Object() : nullptr;
    PyObject* args[] = {nullptr, driver, tag, value};
    if (session.Ended()) {
        PyErr_Clear();
    } else {
        ReleaseOrReport(m_fn, tag ? CallWithThree(m_fn, args) : nullptr);
    }
    Py_XDECREF(value);
    Py_XDECREF(driver);
    Py_XDECREF(tag);
}
