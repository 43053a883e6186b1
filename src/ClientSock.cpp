#include "ClientSock.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "ByteCursor.h"
#include "CacheFile.h"
#include "mtool3.h"

namespace {

constexpr size_t kHelloBytes = 512;       // send and reply buffers of the login
constexpr size_t kMaxPlantName = 255;     // bytes of a plant's name behind a center server
constexpr size_t kMaxLocalName = 236;     // this machine's name, with its terminator
constexpr size_t kMinNotifyReply = 60;    // unscrambled: code, login record, end of the name
constexpr size_t kMinRedirectReply = 10;  // code, "lan", address, port
constexpr size_t kPathsReplyBytes = 2048;
constexpr long kForeverMs = 0x7fffffff;  // the notification socket waits practically forever

constexpr char kCacheRoot[] = "/tmp/vzbrowser/";
// "The project path could not be obtained", GB2312.
constexpr char kNoPaths[] = "\xce\xde\xb7\xa8\xbb\xf1\xc8\xa1\xb9\xa4\xb3\xcc\xc2\xb7\xbe\xb6";
constexpr char kBadProjectName[] = "invalid project name";

bool OpenChannel(CScnSocket& sock, const CHostAddress& address) {
    if (!sock.Create(0, SOCK_STREAM, nullptr, FALSE)) return false;
    sock.SetKeepAlive();
    sock.SetNoDelay();
    // Set before connect too: a silent host then costs the time-out and not minutes.
    sock.SetTimeOut(address.nTimeOutMs);
    return sock._Connect(address.strHost, address.nPort) != FALSE;
}

void WriteGuid(CByteWriter& writer, const _GUID& guid) { writer.WriteBytes(&guid, sizeof guid); }

// Puts the code byte and the scrambled body into szSend (kHelloBytes). Returns the message's
// length.
int BuildHello(char nCode, const BYTE* pBody, size_t nBody, BYTE* szSend) {
    szSend[0] = static_cast<BYTE>(nCode);
    return 1 + EncryptPacket(static_cast<UINT>(nBody), pBody, kHelloBytes - 1, szSend + 1);
}

// "IPv4:port" of a redirect: the reply holds the address at 4 and the port at 8, big-endian.
CString RedirectHost(const BYTE* pReply) {
    CByteReader reader(pReply, kMinRedirectReply);
    reader.Take(4);
    in_addr addr;
    addr.s_addr = htonl(reader.ReadU32Big());
    char sz[INET_ADDRSTRLEN + sizeof ":65535"];
    std::snprintf(sz, sizeof sz, "%s:%d", inet_ntoa(addr), reader.ReadU16Big());
    return CString(sz);
}

// The next zero-terminated text, or what is left when its terminator is missing.
CString NextText(CByteReader& reader) {
    const char* p = static_cast<const char*>(static_cast<const void*>(reader.Data()));
    const size_t nLen = reader.Left() ? strnlen(p, reader.Left()) : 0;
    reader.Take(nLen < reader.Left() ? nLen + 1 : nLen);
    return nLen ? CString(std::string(p, nLen)) : CString();
}

// A host text as the name of one folder: ':', '/' and bytes beyond ASCII become '_', and so do the
// dots of a text that would name the folder itself or the one above.
CString FolderOfHost(LPCTSTR szHost) {
    CString strHost(szHost);
    const bool bDots = strHost == CString(".") || strHost == CString("..");
    for (char& c : strHost) {
        if (c == ':' || c == '/' || static_cast<BYTE>(c) > 0x7F || bDots) c = '_';
    }
    return strHost;
}

// Whether a project's name can be the name of one folder. strUtf8 gets its UTF-8 form.
bool IsFolderName(const CString& strPrjName, CString& strUtf8) {
    if (strPrjName == CString(".") || strPrjName == CString("..")) return false;
    if (strPrjName.Find('/') >= 0) return false;
    ToUtf8(strPrjName, strUtf8, 0);
    CString strBack;
    strBack.FromUtf8(strUtf8, strUtf8.size());
    return strBack == strPrjName;  // a name that is no GB2312 text comes back shorter
}

// False, with strErr saying so, when another ordinary user owns the folder or one on the way to it.
bool MakeFolder(const CString& strPath, bool bForceMode, CString& strErr) {
    const CCacheFolder folder(strPath, true);
    if (bForceMode) folder.ForceOwnerOnly();
    if (folder.Refusal().empty()) return true;
    strErr = CString(folder.Refusal());
    std::fprintf(stderr, "%s\n", strErr.c_str());
    return false;
}

}  // namespace

void CoCreateGuid(_GUID* guid) {
    timeval tv;
    gettimeofday(&tv, nullptr);
    guid->Data1 = static_cast<DWORD>(time(nullptr));
    guid->Data2 = static_cast<WORD>(ScramblerRandom());
    guid->Data3 = static_cast<WORD>(ScramblerRandom());
    CByteWriter writer(guid->Data4, sizeof guid->Data4);
    writer.WriteU32(static_cast<DWORD>(tv.tv_sec));
    writer.WriteU32(static_cast<DWORD>(tv.tv_usec));
}

HRESULT ParseHostText(LPCTSTR szHost, CHostAddress& address) {
    CString strHost(szHost);
    address.bRelay = strncasecmp(szHost, "p2p", 3) == 0;
    if (!address.bRelay) {
        address.nCenterIp = 0;
        address.nPort = kDefaultPort;
        address.nTimeOutMs = kDirectTimeOutMs;
        const int nPos = strHost.ReverseFind(':');
        if (nPos > 0) {
            const WORD nPort = static_cast<WORD>(TextToI32(strHost.Mid(nPos + 1), 10));
            if (nPort) address.nPort = nPort;
            strHost.Truncate(static_cast<size_t>(nPos));
        }
        address.strHost = strHost;
        return kLoggedIn;
    }

    const int nPos = strHost.Find(':');
    if (nPos < 0) return kBadHostText;
    const CString strPlant = strHost.Mid(nPos + 1);
    if (strPlant.size() > kMaxPlantName) return kLoginFailure;
    CString strCenter = strHost.Left(nPos);
    const int nParen = strCenter.Find('(');
    if (nParen < 0) {
        strCenter = CString(VZ_DEFAULT_CENTER);
    } else {
        strCenter = strCenter.Mid(nParen + 1);
        strCenter.TrimRight(')');
    }
    address.strHost = strPlant;
    address.nCenterIp = inet_addr(strCenter);
    address.nPort = kCenterPort;
    address.nTimeOutMs = kRelayTimeOutMs;
    return kLoggedIn;
}

bool CClientSock::_IsLocalDB(const char* /*szHost*/) { return false; }

void CClientSock::GetGatewayMac(ULONG /*nP2PServ*/, BYTE* mac) { std::memset(mac, 0, 6); }

HRESULT CClientSock::ConnectDB(LPCTSTR szHost, CString& strPrjName, CString& strTitle,
                               SNAckRegReq& ackRegReq, bool bAccessDB) {
    return ConnectDB(szHost, strPrjName, strTitle, ackRegReq, bAccessDB, 0);
}

HRESULT CClientSock::ConnectDB(LPCTSTR szHost, CString& strPrjName, CString& strTitle,
                               SNAckRegReq& ackRegReq, bool bAccessDB, int nRedirects) {
    m_reqSock.Close();
    m_rcvSock.Close();
    CHostAddress address;
    const HRESULT hrHost = ParseHostText(szHost, address);
    m_bLocalDB = address.bRelay ? false : _IsLocalDB(address.strHost);
    if (hrHost != kLoggedIn) return hrHost;
    // A host that was looked up before is connected to as a center server is: by its address.
    const ULONG nIp = address.bRelay || nRedirects ? address.nCenterIp : m_nHostIp;
    m_reqSock.SetP2PCenterIp(nIp);
    m_rcvSock.SetP2PCenterIp(nIp);

    _GUID guid;
    CoCreateGuid(&guid);
    CString strRedirect;
    const HRESULT hrHello = SayHello(address, guid, strRedirect);
    if (hrHello != kLoggedIn) return hrHello;
    if (!strRedirect.IsEmpty()) {
        m_bLan = true;
        if (m_bTellLan) {
            std::puts("Is same lan ...");
            std::fflush(stdout);
        }
        m_reqSock.Close();
        m_rcvSock.SetP2PCenterIp(0);
        if (nRedirects == kMaxRedirects) return kTransportFailure;
        return ConnectDB(strRedirect, strPrjName, strTitle, ackRegReq, bAccessDB, nRedirects + 1);
    }
    return OpenNotify(address, guid, bAccessDB, strPrjName, strTitle, ackRegReq);
}

// Login hello: '7', then scrambled: GUID (16) and, to a center server, gateway MAC (6), plant name
// and its zero byte. The reply is plain: '7' accepted, '0' refused; from a center server '7',
// "lan", IPv4 address (4, big-endian) and port (2, big-endian) send the client to a server of its
// own network, whose host text strRedirect then gets.
HRESULT CClientSock::SayHello(const CHostAddress& address, const _GUID& guid,
                              CString& strRedirect) {
    if (!OpenChannel(m_reqSock, address)) return kTransportFailure;

    // What a center server needs goes by the port and not by the host text's form: a text that ends
    // in its port speaks to a center server too.
    const bool bCenter = address.nPort == kCenterPort;
    BYTE body[kHelloBytes];
    CByteWriter writer(body, sizeof body);
    WriteGuid(writer, guid);
    if (bCenter) {
        BYTE mac[6];
        GetGatewayMac(address.nCenterIp, mac);
        writer.WriteBytes(mac, sizeof mac);
        writer.WriteText(address.strHost, address.strHost.size());
    }
    if (writer.Failed()) return kTransportFailure;

    BYTE szSend[kHelloBytes];
    const int nSend = BuildHello(kReqHello, body, writer.Size(), szSend);
    if (nSend <= 1 || m_reqSock._Send(szSend, nSend, 0) <= 0) return kTransportFailure;

    BYTE szReply[kHelloBytes] = {};
    const int nReply = m_reqSock._Recv(szReply, sizeof szReply, 0);
    if (nReply < 1) return kTransportFailure;
    if (szReply[0] == kRefused) return kLoginFailure;
    if (szReply[0] != kReqHello) return kTransportFailure;

    const char* szLan = static_cast<const char*>(static_cast<const void*>(szReply + 1));
    if (bCenter && static_cast<size_t>(nReply) >= kMinRedirectReply &&
        strncasecmp(szLan, "lan", 3) == 0) {
        strRedirect = RedirectHost(szReply);
    }
    return kLoggedIn;
}

// Receive hello: '8', then scrambled: the same GUID (16), this machine's name and its zero byte,
// bAccessDB (1), the constant 1. The whole reply is scrambled: '8', login record (58 bytes and the
// name's first), project name and title, each zero-terminated; or the single byte '0'.
HRESULT CClientSock::OpenNotify(const CHostAddress& address, const _GUID& guid, bool bAccessDB,
                                CString& strPrjName, CString& strTitle, SNAckRegReq& ackRegReq) {
    usleep(0);
    if (!OpenChannel(m_rcvSock, address)) return kTransportFailure;

    char szName[kMaxLocalName] = "";
    gethostname(szName, sizeof szName - 1);
    BYTE body[kHelloBytes];
    CByteWriter writer(body, sizeof body);
    WriteGuid(writer, guid);
    writer.WriteText(szName, std::strlen(szName));
    writer.WriteU8(bAccessDB ? 1 : 0);
    writer.WriteU8(1);

    BYTE szSend[kHelloBytes];
    const int nSend = BuildHello(kReqOpenNotify, body, writer.Size(), szSend);
    if (nSend <= 1 || m_rcvSock._Send(szSend, nSend, 0) <= 0) return kTransportFailure;

    BYTE szRecv[kHelloBytes];
    const int nRecv = m_rcvSock._Recv(szRecv, sizeof szRecv, 0);
    BYTE szReply[kHelloBytes];
    // A failed receive is a huge length to the scrambler, which then gives 0.
    const int nReply = DecryptPacket(static_cast<UINT>(nRecv), szRecv, sizeof szReply, szReply);
    if (nReply < static_cast<int>(kMinNotifyReply)) {
        return nReply == 1 && szReply[0] == kRefused ? kLoginRefused : kTransportFailure;
    }
    if (szReply[0] != kReqOpenNotify) return kTransportFailure;

    m_rcvSock.SetTimeOut(kForeverMs);
    usleep(0);
    CByteReader reader(szReply, static_cast<size_t>(nReply));
    reader.Take(1);
    std::memcpy(&ackRegReq, reader.Data(), sizeof ackRegReq);
    reader.Take(offsetof(SNAckRegReq, prjName));
    strPrjName = NextText(reader);
    strTitle = NextText(reader);
    return kLoggedIn;
}

bool CClientSock::AfterConnect(LPCTSTR szHost, const CString& strPrjName, CString& strErr) {
    if (!m_bLocalDB) return PrepareCache(szHost, strPrjName, strErr);
    if (GetPrjPath(m_strPrjPath, m_strEventPath, m_strAlarmPath, m_strHistPath)) return true;
    strErr = CString(kNoPaths);
    return false;
}

// Folders are made under the project's UTF-8 name; m_strPrjPath keeps the GB2312 name, which the
// file functions turn into UTF-8 again. That a folder cannot be made is deliberately ignored: it
// shows when a file is written. Only one that another ordinary user owns is a failure, which a line
// on standard error tells too: what lies in it would be that user's choice.
bool CClientSock::PrepareCache(LPCTSTR szHost, const CString& strPrjName, CString& strErr) {
    struct SFolder {
        const char* szName;
        bool bForceMode;
    };
    static constexpr SFolder kFolders[] = {
        {"Window/", false},  {"3DWnd/", false},        {"Report/", false},
        {"CtmGph/", false},  {"ScnDrv/", false},       {"DBDrv/", false},
        {"Media/", false},   {"SysCfg/", false},       {"RecData/", false},
        {"ExtData/", false}, {"RecData/Event/", true}, {"RecData/Alarm2/", true},
    };
    CString strPrjNameUtf8;
    if (!IsFolderName(strPrjName, strPrjNameUtf8)) {
        strErr = CString(kBadProjectName);
        return false;
    }
    CString strPath = CString(kCacheRoot);
    if (!MakeFolder(strPath, false, strErr)) return false;
    strPath += FolderOfHost(szHost);
    if (!MakeFolder(strPath, true, strErr)) return false;
    strPath += '/';
    CString strPathUtf8 = strPath;
    strPathUtf8 += strPrjNameUtf8;
    if (!MakeFolder(strPathUtf8, true, strErr)) return false;
    strPathUtf8 += '/';
    for (const SFolder& folder : kFolders) {
        CString strDir = strPathUtf8;
        strDir += folder.szName;
        if (!MakeFolder(strDir, folder.bForceMode, strErr)) return false;
    }
    m_strPrjPath = strPath;
    m_strPrjPath += strPrjName;
    m_strPrjPath += '/';
    return true;
}

// Request '3', alone. Reply: '3', then four zero-terminated texts: project, event, alarm and
// history path. A reply that ends early gives what it holds; texts that are missing are empty.
bool CClientSock::GetPrjPath(CString& strPrjPath, CString& strEventPath, CString& strAlarmPath,
                             CString& strHistPath) {
    if (m_reqSock._Send(&kReqPaths, 1, 0) < 1) return false;
    BYTE szReply[kPathsReplyBytes];
    const int nReply = m_reqSock._Recv(szReply, sizeof szReply, 0);
    if (nReply < 1 || szReply[0] != kReqPaths) return false;
    CByteReader reader(szReply + 1, static_cast<size_t>(nReply) - 1);
    strPrjPath = NextText(reader);
    strEventPath = NextText(reader);
    strAlarmPath = NextText(reader);
    strHistPath = NextText(reader);
    return true;
}

// Deliberate: every attempt sends the whole request again. The socket blocks, so a send is partial
// only when its time-out cut it, and the server reads requests from their first byte.
int CClientSock::ReqSend(const void* lpBuf, int nBufLen) {
    if (nBufLen < 1) return nBufLen;
    for (int nTotal = 0; nTotal < nBufLen;) {
        const int nSent = m_reqSock._Send(lpBuf, nBufLen, 0);
        if (nSent <= 0) return nSent;
        nTotal += nSent;
    }
    return nBufLen;
}
