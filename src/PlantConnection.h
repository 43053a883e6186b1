// A logged-in connection to one plant's server: what both faces of the library build upon.
#pragma once

#include <map>
#include <vector>

#include "ByteCursor.h"
#include "ClientSock.h"
#include "DownFile.h"
#include "VzDefine.h"
#include "nonwin/cstring.h"
#include "vzcommondef.h"
#include "vznetdef.h"

// Results of Login.
constexpr int kConnected = 0;
constexpr int kConnectRefused = -1;   // the server refused the user
constexpr int kConnectFailed = -2;    // transport or file failure, or input that cannot be sent
constexpr int kConnectProtocol = -3;  // no project name, or an unexpected login reply

// Bit of the rights word that lets a user write values.
constexpr UINT kRightWrite = 8;

// Takes a 32-byte alarm record from the reader. False when it is cut.
bool DecodeAlarm(CByteReader& reader, S2RtAlarm2& alarm);

// Connects, logs in, brings the driver file into the cache, and makes the requests that are not
// about tags.
//
// Ownership: as CClientSock.
// Threads:   one thread at a time.
// Python:    none.
class CPlantConnection : public CClientSock {
  public:
    // One request, one reply of known length: sends nReqLen bytes and receives needLen bytes into
    // buf. TRUE only when both are complete.
    BOOL RequestAll(const char* szReq, size_t nReqLen, size_t needLen, char* buf);

    // Brings a project file into the local cache, or takes it out, by what the server has
    // (mapFileInfos: lower-case relative path to time and size). szFileName: relative path, GB2312,
    // any case. TRUE when the local copy may be used, FALSE when a transfer failed.
    BOOL GetPrjFile(LPCTSTR szFileName, std::map<CString, SNFileInfo>& mapFileInfos);

    std::map<CString, SNDrvInfoEx> m_mapDrvInfos;
    std::vector<CString> m_textList;  // alarm texts, UTF-8
    std::vector<CString> m_tagList;   // alarm tag names, UTF-8
    UINT m_nRights = 0;
    // Never set; another field than the base's of the same name, which tells where the paths are.
    bool m_bLocalDB = false;

  protected:
    // Connects both channels, logs in, fills m_nRights and m_mapDrvInfos. szHost: a host text,
    // never null; user and password as the script gave them. strPrjName (GB2312) is set as soon as
    // the server told it. Returns one of the results above, with the sockets left for the caller to
    // close after a failure.
    int Login(LPCTSTR szHost, const char* szUserName, const char* szPassword, CString& strPrjName);

    // Subscribes to alarms and, with bKeep, puts the active ones into alarms. False when the
    // exchange failed.
    bool FetchAlarms(bool bKeep, std::vector<S2RtAlarm2>& alarms);
    // Brings the two lists of alarm texts, unless they were loaded before. False when a transfer
    // failed; the lists are then what the cache holds.
    bool LoadAlarmLists();

    // Headers of files and of the alarms that come in pieces are put together.
    bool m_bJoinHeaders = false;
    // The cache could not take a file: its body is still to come on m_reqSock.
    bool m_bUnreadBody = false;
    // What ConnectDB said in the last Login.
    HRESULT m_hrConnect = kLoggedIn;

  private:
    int CheckUser(const char* szUserName, const char* szPassword, UINT& nRights);
    bool FetchDriverInfos(const SNAckRegReq& ackRegReq);
    EGetFile Transfer(LPCTSTR szFileName, unsigned long nTime, unsigned long nSize);
    EGetFile SyncPrjFile(LPCTSTR szFileName, const std::map<CString, SNFileInfo>& mapFileInfos);
    bool LoadAlarmList(LPCTSTR szFileName, std::vector<CString>& strList);
};
