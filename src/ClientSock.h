// The server connection: login on two channels, project paths and the local cache.
#pragma once

#include <cstddef>

#include "ScnSocket.h"
#include "VzDefine.h"
#include "nonwin/cstring.h"
#include "vznetdef.h"

// A connection identifier. Travels in the host's byte order, little-endian on the board.
struct _GUID {
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];
};
static_assert(sizeof(_GUID) == 16);
static_assert(offsetof(_GUID, Data2) == 4);
static_assert(offsetof(_GUID, Data3) == 6);
static_assert(offsetof(_GUID, Data4) == 8);

// Fills a connection identifier: seconds since 1970, two random numbers, and the time of day as
// seconds and microseconds of 32 bits each. Does not touch the process-wide random generator.
void CoCreateGuid(_GUID* guid);

// Results of ConnectDB.
constexpr HRESULT kLoggedIn = 0;
constexpr HRESULT kTransportFailure = 1;
constexpr HRESULT kBadHostText = static_cast<HRESULT>(0x80070057);
constexpr HRESULT kLoginFailure = static_cast<HRESULT>(0x80004005);
constexpr HRESULT kLoginRefused = 1244;

// Port of a center server; requests sent to it name the plant behind it.
constexpr UINT kCenterPort = 3968;
constexpr UINT kDefaultPort = 80;
constexpr long kDirectTimeOutMs = 8000;
constexpr long kRelayTimeOutMs = 13000;
// LAN redirects followed in one connect.
constexpr int kMaxRedirects = 4;

// Where a host text leads.
struct CHostAddress {
    CString strHost;      // host name or dotted quad; behind a center server the plant's name
    ULONG nCenterIp = 0;  // the center server, network byte order; 0: connect to strHost itself
    UINT nPort = kDefaultPort;
    long nTimeOutMs = kDirectTimeOutMs;
    bool bRelay = false;
};

// Takes a host text apart: "host", "host:port", "p2p:plant" (through the default center server) or
// "p2p(1.2.3.4):plant". The port's digits are read as a 32-bit strtol would, cut to 16 bits; 0 then
// means 80. Results: 0; kBadHostText for a relay text without ':'; kLoginFailure for a plant name
// of more than 255 bytes. bRelay is set in every case, the rest only on success.
HRESULT ParseHostText(LPCTSTR szHost, CHostAddress& address);

// The two TCP connections to a server: m_reqSock for requests and their replies, m_rcvSock for
// what the server pushes. Base of the session.
//
// Ownership: owns both sockets.
// Threads:   one thread at a time.
// Python:    none.
class CClientSock {
  public:
    CClientSock() = default;
    CClientSock(const CClientSock&) = delete;
    CClientSock& operator=(const CClientSock&) = delete;

    // Connects both channels and logs in. szHost: a host text (see ParseHostText), never null.
    // bAccessDB is told to the server. Results: kLoggedIn, with the three outputs filled;
    // kTransportFailure, kBadHostText, kLoginFailure, kLoginRefused, with the outputs untouched and
    // the sockets left as they are for the caller to close.
    HRESULT ConnectDB(LPCTSTR szHost, CString& strPrjName, CString& strTitle,
                      SNAckRegReq& ackRegReq, bool bAccessDB);

    // Prepares the place of the project's files and sets m_strPrjPath: the local cache tree below
    // /tmp/vzbrowser/, or, for a database on this machine, the server's own paths.
    // szHost: the host text of the connection, never null. strPrjName: GB2312.
    // False, with strErr saying why, when the name cannot be a folder's name, when another ordinary
    // user owns a folder of the tree (standard error gets the line too), or when the server does
    // not tell its paths. Folders that cannot be made are no failure here.
    bool AfterConnect(LPCTSTR szHost, const CString& strPrjName, CString& strErr);

    // Asks the server for its project, event, alarm and history paths. The four outputs change only
    // on success.
    bool GetPrjPath(CString& strPrjPath, CString& strEventPath, CString& strAlarmPath,
                    CString& strHistPath);

    // Sends a request on the request socket. Returns nBufLen when all is sent, the result of the
    // failed send (0 or less) otherwise; a length below 1 is returned as it is, with nothing sent.
    int ReqSend(const void* lpBuf, int nBufLen);

    // Whether the host is this machine: false for every host.
    static bool _IsLocalDB(const char* szHost);
    // The hardware address of the gateway towards a center server: six zero bytes.
    static void GetGatewayMac(ULONG nP2PServ, BYTE* mac);

    bool m_bLocalDB = true;
    bool m_bTellLan = true;  // print a line when that happens
    ULONG m_nHostIp = 0;  // where a direct host text's host is, network byte order; 0: look it up
    bool m_bLan = false;  // a center server sent this object to a server in the same network
    CReqTimeSock m_reqSock;
    CScnSocket m_rcvSock;
    CString m_strPrjPath;  // ends with "/"; GB2312, as all paths here
    CString m_strEventPath;
    CString m_strAlarmPath;
    CString m_strHistPath;

  private:
    HRESULT ConnectDB(LPCTSTR szHost, CString& strPrjName, CString& strTitle,
                      SNAckRegReq& ackRegReq, bool bAccessDB, int nRedirects);
    HRESULT SayHello(const CHostAddress& address, const _GUID& guid, CString& strRedirect);
    HRESULT OpenNotify(const CHostAddress& address, const _GUID& guid, bool bAccessDB,
                       CString& strPrjName, CString& strTitle, SNAckRegReq& ackRegReq);
    bool PrepareCache(LPCTSTR szHost, const CString& strPrjName, CString& strErr);
};
