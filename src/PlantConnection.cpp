#include "PlantConnection.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "AlarmList.h"
#include "CacheFile.h"
#include "DrvInfo.h"

namespace {

constexpr useconds_t kConnectPauseUs = 6000;  // three of them in a connect
constexpr size_t kLoginBytes = 256;           // login request and reply
constexpr size_t kMaxCredentials = 253;       // user name and password together
constexpr size_t kRightsAt = 5;               // offset of the rights word in the login reply
constexpr size_t kAlarmHeader = 3;
constexpr size_t kAlarmBytes = 32;
constexpr char kTextListFile[] = "RecData/textlist";
constexpr char kTagListFile[] = "RecData/taglist";

bool StartsWith(const CString& str, const char* szPrefix) {
    return str.compare(0, std::strlen(szPrefix), szPrefix) == 0;
}

// Size in bytes of a file of the project folder, -1 when there is none.
int64_t LocalSize(const CString& strPrjPath, LPCTSTR szFileName) {
    struct stat st;
    return CCacheFile(strPrjPath + szFileName).Stat(st) ? st.st_size : -1;
}

}  // namespace

// ---- Login --------------------------------------------------------------------------------------

int CPlantConnection::Login(LPCTSTR szHost, const char* szUserName, const char* szPassword,
                            CString& strPrjName) {
    CString strTitle;
    CString strErr;
    SNAckRegReq ackRegReq = {};
    m_hrConnect = ConnectDB(szHost, strPrjName, strTitle, ackRegReq, true);
    if (m_hrConnect != kLoggedIn) return kConnectFailed;
    usleep(kConnectPauseUs);
    if (strPrjName.IsEmpty()) return kConnectProtocol;
    if (!AfterConnect(szHost, strPrjName, strErr)) return kConnectFailed;
    usleep(kConnectPauseUs);

    UINT nRights = 0;
    const int nUser = CheckUser(szUserName, szPassword, nRights);
    if (nUser != kConnected) return nUser;
    if (!FetchDriverInfos(ackRegReq)) return kConnectFailed;
    m_nRights = nRights;
    return kConnected;
}

// Login request: '9', user name and zero byte, password and zero byte. Reply: '9' or '0', four
// bytes that mean nothing here, rights word (4). A reply that ends before the rights word gives
// none.
int CPlantConnection::CheckUser(const char* szUserName, const char* szPassword, UINT& nRights) {
    const size_t nUser = std::strlen(szUserName);
    const size_t nPassword = std::strlen(szPassword);
    if (nUser > kMaxCredentials || nPassword > kMaxCredentials - nUser) return kConnectFailed;
    BYTE request[kLoginBytes];
    CByteWriter writer(request, sizeof request);
    writer.WriteU8(kReqLogin);
    writer.WriteText(szUserName, nUser);
    writer.WriteText(szPassword, nPassword);
    if (ReqSend(request, static_cast<int>(writer.Size())) <= 0) return kConnectFailed;

    BYTE reply[kLoginBytes];
    const int nReply = m_reqSock._Recv(reply, sizeof reply, 0);
    if (nReply <= 0) return kConnectFailed;
    usleep(kConnectPauseUs);
    if (reply[0] == kRefused) return kConnectRefused;
    if (reply[0] != kReqLogin) return kConnectProtocol;
    CByteReader reader(reply, static_cast<size_t>(nReply));
    reader.Take(kRightsAt);
    nRights = reader.ReadU32();
    return kConnected;
}

bool CPlantConnection::FetchDriverInfos(const SNAckRegReq& ackRegReq) {
    const SNFileInfo info = {ntohl(ackRegReq.dif_time), ntohl(ackRegReq.dif_size)};
    std::map<CString, SNFileInfo> mapFileInfos;
    mapFileInfos[CString("recdata/drvinfo.dat")] = info;
    const EGetFile eHow = SyncPrjFile(kDrvInfoFile, mapFileInfos);
    if (eHow == EGetFile::kFailed) return false;
    if (eHow == EGetFile::kRemoved) return true;  // no drivers, also when it could not be removed
    // A file that cannot be written counts as not needed. What stands there then may be half of a
    // transfer that broke off, and is loaded only when it has the server's size.
    if (eHow == EGetFile::kNotWritten && LocalSize(m_strPrjPath, kDrvInfoFile) != info.size) {
        return true;
    }
    return LoadPrjDrvInfo(m_strPrjPath, m_mapDrvInfos, m_reqSock.Guard());
}

// ---- Files and requests
// --------------------------------------------------------------------------

BOOL CPlantConnection::GetPrjFile(LPCTSTR szFileName, std::map<CString, SNFileInfo>& mapFileInfos) {
    return SyncPrjFile(szFileName, mapFileInfos) != EGetFile::kFailed;
}

EGetFile CPlantConnection::Transfer(LPCTSTR szFileName, unsigned long nTime, unsigned long nSize) {
    const EGetFile eHow = TransferFile(szFileName, m_reqSock, kReqFile, m_strPrjPath, nTime, nSize,
                                       nullptr, nullptr, m_bJoinHeaders);
    if (eHow == EGetFile::kNotWritten) m_bUnreadBody = true;
    return eHow;
}

EGetFile CPlantConnection::SyncPrjFile(LPCTSTR szFileName,
                                       const std::map<CString, SNFileInfo>& mapFileInfos) {
    if (m_bLocalDB) return EGetFile::kKept;  // files are read where the server keeps them
    CString strFileName(szFileName);
    strFileName.MakeLower();
    const auto it = mapFileInfos.find(strFileName);
    if (it != mapFileInfos.end()) {
        return Transfer(szFileName, it->second.time, it->second.size);
    }
    if (StartsWith(strFileName, "media/") || StartsWith(strFileName, "recdata/") ||
        StartsWith(strFileName, "syscfg/")) {
        return Transfer(szFileName, kNeverCurrent, kNeverCurrent);
    }
    CCacheFile(m_strPrjPath + szFileName).Remove();
    return EGetFile::kRemoved;
}

BOOL CPlantConnection::RequestAll(const char* szReq, size_t nReqLen, size_t needLen, char* buf) {
    return m_reqSock.SendAll(szReq, static_cast<int>(nReqLen), 0) &&
           m_reqSock.RecvAll(buf, static_cast<int>(needLen), 0);
}

// ---- Alarms -------------------------------------------------------------------------------------

// Alarm record, 32 bytes: almtm u32, evttm u32, tid u16, type u16, grp u16, level u8, status u8,
// value f64, limit f64.
bool DecodeAlarm(CByteReader& reader, S2RtAlarm2& alarm) {
    alarm.almtm = reader.ReadU32();
    alarm.evttm = reader.ReadU32();
    alarm.tid = reader.ReadU16();
    alarm.type = reader.ReadU16();
    alarm.grp = reader.ReadU16();
    alarm.level = reader.ReadU8();
    alarm.status = reader.ReadU8();
    alarm.value = reader.ReadF64();
    alarm.limit = reader.ReadF64();
    return !reader.Failed();
}

// Request: 'n', alone. Reply: 'n', count (2), then that many alarm records. Deliberate: unless
// headers are put together, this one must come in one receive.
bool CPlantConnection::FetchAlarms(bool bKeep, std::vector<S2RtAlarm2>& alarms) {
    if (ReqSend(&kReqAlarms, 1) <= 0) return false;
    BYTE header[kAlarmHeader];
    constexpr int nHeader = static_cast<int>(sizeof header);
    if (m_bJoinHeaders ? !m_reqSock.RecvAll(header, nHeader, 0)
                       : m_reqSock._Recv(header, nHeader, 0) != nHeader) {
        return false;
    }
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
bool CPlantConnection::LoadAlarmList(LPCTSTR szFileName, std::vector<CString>& strList) {
    if (!strList.empty()) return true;
    const EGetFile eHow = Transfer(szFileName, kNeverCurrent, kNeverCurrent);
    CString strPath = m_strPrjPath;
    strPath += szFileName;
    InitStringList(strPath, strList);
    return eHow != EGetFile::kFailed;
}

bool CPlantConnection::LoadAlarmLists() {
    const bool bTexts = LoadAlarmList(kTextListFile, m_textList);
    return LoadAlarmList(kTagListFile, m_tagList) && bTexts;
}
