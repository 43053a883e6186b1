// What a notification frame asks the script to be called for, and the call itself.
#pragma once

#include <Python.h>

#include <string>
#include <vector>

#include "ByteCursor.h"
#include "VzDBAccess/DBSession.h"
#include "nonwin/XVariant.h"
#include "nonwin/cstring.h"
#include "vznetdef.h"

// A name that calls tell again and again: converted from GB2312 and made a str only when it is
// another one than before.
class CToldName {
  public:
    CToldName() = default;
    CToldName(const CToldName&) = delete;
    CToldName& operator=(const CToldName&) = delete;

    // GB2312. Needs no interpreter lock.
    void Set(const std::string& strName);
    // A new reference to the str, or null with MemoryError set. Needs the interpreter lock, as
    // Drop does.
    PyObject* Object();
    // Gives the str back.
    void Drop() { Py_CLEAR(m_obj); }

  private:
    std::string m_strName;  // GB2312
    CString m_strUtf8;
    PyObject* m_obj = nullptr;  // counted by hand; the str of m_strUtf8 unless m_bStale
    bool m_bStale = false;
};

// One call of a script function, filled from a frame without the interpreter lock and made with it.
// Reused from frame to frame.
//
// Ownership: owns its texts and value; the callable is borrowed.
// Threads:   receive thread only.
// Python:    MakeCall and KeepThreadState need the interpreter lock, everything else, the
//            destructor too, does not. What calls keep for the next one is given back by
//            LeaveInterpreter; a thread that the interpreter ends, or that outlives it, leaves it
//            behind.
class CNotifyCall {
  public:
    CNotifyCall() = default;
    CNotifyCall(const CNotifyCall&) = delete;
    CNotifyCall& operator=(const CNotifyCall&) = delete;

    void Clear() { m_nKind = EKind::kNone; }
    bool Wanted() const { return m_nKind != EKind::kNone; }

    // A tag has a new value. Names are GB2312.
    void SetTagChange(PyObject* fn, const CString& strDriver, const CString& strTag,
                      const XVariant& value);
    // An alarm came. The lists are the core's and must not change from now on.
    void SetAlarm(PyObject* fn, const S2RtAlarm2& alarm, const std::vector<CString>& textList,
                  const std::vector<CString>& tagList);

    // Calls the function, unless the session ends first: making the arguments may start a
    // collection of garbage, and with it any script code. What the function returns is released;
    // what it raises goes to sys.unraisablehook. Counts references by hand and owns nothing: the
    // interpreter may end the calling thread here.
    void MakeCall(const CDBSession& session);

    // Makes the interpreter keep what it has for this thread, its thread state, from one time with
    // the lock to the next: to make it anew costs more than fifty calls. Needs the interpreter
    // lock.
    void KeepThreadState();
    // Whether the thread must leave the interpreter before it ends.
    bool InInterpreter() const { return m_bThreadState; }
    // Takes the interpreter lock, drops the thread state and what calls have kept for the next one,
    // and gives the lock back. Owns nothing, as MakeCall.
    void LeaveInterpreter();

  private:
    enum class EKind { kNone, kTagChange, kAlarm };

    void CallWithChange(const CDBSession& session);
    void CallWithAlarm(const CDBSession& session);

    bool m_bThreadState = false;
    EKind m_nKind = EKind::kNone;
    PyObject* m_fn = nullptr;
    CToldName m_driver;
    CToldName m_tag;
    XVariant m_value;
    S2RtAlarm2 m_alarm = {};
    const std::vector<CString>* m_pTextList = nullptr;
    const std::vector<CString>* m_pTagList = nullptr;
};

// A str of text that should be UTF-8; what is not becomes replacement characters. New reference, or
// null with MemoryError set. Needs the interpreter lock.
PyObject* TextToObj(const CString& strUtf8);

// Calls fn, which the caller holds, with args, which it releases; null args are an error already
// set. Results are released, errors reported through sys.unraisablehook. Needs the interpreter
// lock.
void CallAndReport(PyObject* fn, PyObject* args);

// Loads the interpreter's datetime interface; false with an error set when it cannot be had. Needs
// the interpreter lock. Called by the alarm subscription, before any FireRtAlarm.
bool LoadDateTime();

// Calls fn once with the ten arguments of an alarm: alarm time and event time (naive local
// datetimes; the alarm time twice when there is no event time), tag name, 1 when there is an event
// time else 0, kind, group, level, value, limit, status. A text that its list does not hold is
// "???". Needs the interpreter lock.
void FireRtAlarm(PyObject* rtAlarmNotifyFn, const S2RtAlarm2* pRA,
                 const std::vector<CString>& textList, const std::vector<CString>& tagList);
