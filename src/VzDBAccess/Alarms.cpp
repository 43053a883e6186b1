// The real-time alarm subscription.

#include "VzDBAccess/DBCore.h"

// Existing alarms are delivered before the callback is stored, so the receive thread, which reads
// the lists only when a callback is set, never reads them while they are filled.
int CDBCore::_SetRtAlarmNotify(PyObject* rtAlarmNotifyFn, bool notifyExisting) {
    if (m_rtAlarmNotifyFn) return kAlarmsAlreadySet;
    if (!LoadDateTime()) {
        PyErr_WriteUnraisable(rtAlarmNotifyFn);
        return kAlarmsFailed;
    }
    std::vector<S2RtAlarm2> alarms;
    {
        std::lock_guard<std::mutex> op(m_opLock);
        if (m_rtAlarmNotifyFn) return kAlarmsAlreadySet;
        if (!Serves(m_pSession.get()) || !FetchAlarms(notifyExisting, alarms)) return kAlarmsFailed;
        LoadAlarmLists();
    }
    for (const S2RtAlarm2& alarm : alarms) {
        FireRtAlarm(rtAlarmNotifyFn, &alarm, m_textList, m_tagList);
    }
    // A call just made may have subscribed in turn; the first callback that is stored stays.
    PyObject* pNone = nullptr;
    return m_rtAlarmNotifyFn.compare_exchange_strong(pNone, rtAlarmNotifyFn) ? kAlarmsSubscribed
                                                                             : kAlarmsAlreadySet;
}
