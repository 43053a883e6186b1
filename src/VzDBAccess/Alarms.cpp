// The real-time alarm subscription and its text lists.

#include <fcntl.h>

#include "ByteCursor.h"
#include "DownFile.h"
#include "VzDBAccess/AlarmList.h"
#include "VzDBAccess/DBCore.h"
#include "XFile.h"

namespace {

constexpr size_t kAlarmHeader = 3;
constexpr size_t kAlarmBytes = 32;
constexpr char kTextListFile[] = "RecData/textlist";
constexpr char kTagListFile[] = "RecData/taglist";

}  // namespace

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
        LoadAlarmList(kTextListFile, m_textList);
        LoadAlarmList(kTagListFile, m_tagList);
    }
    for (const S2RtAlarm2& alarm : alarms) {
        FireRtAlarm(rtAlarmNotifyFn, &alarm, m_textList, m_tagList);
    }
    // A call just made may have subscribed in turn; the first callback that is stored stays.
    PyObject* pNone = nullptr;
    return m_rtAlarmNotifyFn.compare_exchange_strong(pNone, rtAlarmNotifyFn) ? kAlarmsSubscribed
                                                                             : kAlarmsAlreadySet;
}

// Request: 'n', alone. Reply: 'n', count (2), then that many alarm records. Deliberate: the header
// must come in one receive.
bool CDBCore::FetchAlarms(bool bKeep, std::vector<S2RtAlarm2>& alarms) {
    if (ReqSend(&kReqAlarms, 1) <= 0) return false;
    BYTE header[kAlarmHeader];
    if (m_reqSock._Recv(header, sizeof header, 0) != static_cast<int>(sizeof header)) return false;
    CByteReader reader(header, sizeof header);
    if (reader.ReadU8() != kReqAlarms) return false;
    for (UINT nLeft = reader.ReadU16(); nLeft > 0; --nLeft) {
        BYTE record[kAlarmBytes];
        if (!m_reqSock.RecvAll(record, sizeof record, 0)) return false;
        if (!bKeep) continue;
        CByteReader recordReader(record, sizeof record);
        S2RtAlarm2 alarm;
        DecodeAlarm(recordReader, alarm);
        alarms.push_back(alarm);
    }
    return true;
}

// A list that was loaded once is never loaded again. The server is always asked: to 0 and 0, for
// "not known", an empty copy of time 0, which a broken reply may leave, would be current for ever.
// What the server says of the file is not examined: the list is read from whatever the cache holds.
void CDBCore::LoadAlarmList(LPCTSTR szFileName, std::vector<CString>& strList) {
    if (!strList.empty()) return;
    GetFile(szFileName, m_reqSock, kReqFile, m_strPrjPath, kNeverCurrent, kNeverCurrent, nullptr,
            nullptr);
    CString strPath = m_strPrjPath;
    strPath += szFileName;
    InitStringList(strPath, strList);
}
