#include "SyncSocket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <limits>
#include <utility>

namespace {

constexpr long kMsPerSecond = 1000;
constexpr long kUsPerMs = 1000;

constexpr int kKeepIdleSeconds = 60;
constexpr int kKeepIntervalSeconds = 20;
constexpr int kKeepProbes = 3;

sockaddr* AsSockAddr(SOCKADDR_IN* p) { return static_cast<sockaddr*>(static_cast<void*>(p)); }

// A negative int would reach the system as a huge length and have it read past the buffer.
bool RefuseLength(int nBufLen) {
    if (nBufLen >= 0) return false;
    errno = EINVAL;
    return true;
}

// Waits until one of nEvents (POLLIN or POLLOUT) is there; false on time-out and failure.
// poll and not select: select cannot take descriptors from FD_SETSIZE (1024) on, and a script may
// well have that many open. The results are those of select, so a descriptor that is not open is a
// failed wait, and a broken connection is ready: the next call on it tells what is wrong.
bool WaitFor(SOCKET hSocket, short nEvents, long nTimeOut) {
    if (hSocket < 0 || nTimeOut < 0) return false;
    pollfd fd{hSocket, nEvents, 0};
    const int nMs = static_cast<int>(std::min<long>(nTimeOut, INT_MAX));
    return poll(&fd, 1, nMs) == 1 && !(fd.revents & POLLNVAL);
}

// Whether the call that just failed did so only for want of time.
bool NothingYet() { return errno == EAGAIN || errno == EINTR; }

timeval MakeTimeval(long nTimeOut) {
    timeval tv;
    tv.tv_sec = static_cast<decltype(tv.tv_sec)>(nTimeOut / kMsPerSecond);
    tv.tv_usec = static_cast<decltype(tv.tv_usec)>(nTimeOut % kMsPerSecond * kUsPerMs);
    return tv;
}

// A timeval is 8 or 16 bytes, by how wide the C library's seconds are; it knows by the length.
BOOL SetTimeOption(SOCKET hSocket, int nOption, long nTimeOut) {
    const timeval tv = MakeTimeval(nTimeOut);
    return setsockopt(hSocket, SOL_SOCKET, nOption, &tv, sizeof tv) != -1;
}

bool SetIntOption(SOCKET hSocket, int nLevel, int nOption, int nValue) {
    return setsockopt(hSocket, nLevel, nOption, &nValue, sizeof nValue) == 0;
}

// The first IPv4 address of a host name; false when there is none.
bool LookUpHost(const char* szName, in_addr* pAddr) {
    const hostent* pHost = gethostbyname(szName);
    if (!pHost || pHost->h_addrtype != AF_INET || !pHost->h_addr_list[0]) return false;
    std::memcpy(pAddr, pHost->h_addr_list[0], sizeof *pAddr);
    return true;
}

}  // namespace

CSyncSocket::~CSyncSocket() {
    if (m_hSocket != -1) close(m_hSocket);
}

bool CSyncSocket::IsSocket() const { return m_hSocket != 0 && m_hSocket != -1; }

int CSyncSocket::_Send(const void* lpBuf, int nBufLen, int nFlags) {
    if (RefuseLength(nBufLen)) return -1;
    return static_cast<int>(Transmit(lpBuf, static_cast<size_t>(nBufLen), nFlags));
}

int CSyncSocket::_Recv(void* lpBuf, int nBufLen, int nFlags) {
    if (RefuseLength(nBufLen)) return -1;
    return RecvOnce(lpBuf, static_cast<size_t>(nBufLen), nFlags);
}

// Deliberate: descriptor 0 is forgotten but not closed here, while the destructor closes it. It is
// given up before: a child forked in between must not take it for its own.
void CSyncSocket::Close() {
    const bool bClose = IsSocket();
    const SOCKET hSocket = std::exchange(m_hSocket, -1);
    if (bClose) close(hSocket);
    m_nAhead = 0;
}

BOOL CSyncSocket::ShutDown(int nHow) { return shutdown(m_hSocket, nHow) == 0; }

BOOL CSyncSocket::Create(UINT nSocketPort, int nSocketType, const char* lpszSocketAddress,
                         BOOL bReuse) {
    if (m_hSocket != -1) return TRUE;
    m_hSocket = socket(AF_INET, nSocketType | SOCK_CLOEXEC, 0);
    if (m_hSocket == -1) return FALSE;
    if (nSocketPort == 0 && !lpszSocketAddress) return TRUE;

    if (bReuse) SetIntOption(m_hSocket, SOL_SOCKET, SO_REUSEADDR, bReuse);
    SOCKADDR_IN addr;
    CreateAddrIn(lpszSocketAddress, nSocketPort, &addr);
    if (bind(m_hSocket, AsSockAddr(&addr), sizeof addr) == 0) return TRUE;
    close(m_hSocket);
    m_hSocket = -1;
    return FALSE;
}

void CSyncSocket::CreateAddrIn(ULONG uIp, UINT nPort, SOCKADDR_IN* in) {
    std::memset(in, 0, sizeof *in);
    in->sin_family = AF_INET;
    in->sin_port = htons(static_cast<uint16_t>(nPort));
    in->sin_addr.s_addr = static_cast<in_addr_t>(uIp);
}

void CSyncSocket::CreateAddrIn(const char* szAddr, UINT nPort, SOCKADDR_IN* in) {
    CreateAddrIn(static_cast<ULONG>(INADDR_ANY), nPort, in);
    if (!szAddr) return;
    in->sin_addr.s_addr = inet_addr(szAddr);
    // Deliberate: "0.0.0.0" and "255.255.255.255" are looked up like names; both come back as is.
    if (in->sin_addr.s_addr != 0 && in->sin_addr.s_addr != INADDR_NONE) return;
    LookUpHost(szAddr, &in->sin_addr);
}

BOOL CSyncSocket::_Connect(ULONG uIp, UINT nHostPort) {
    SOCKADDR_IN addr;
    CreateAddrIn(uIp, nHostPort, &addr);
    return ConnectTo(addr);
}

BOOL CSyncSocket::_Connect(const char* lpszHostAddress, UINT nHostPort) {
    SOCKADDR_IN addr;
    CreateAddrIn(lpszHostAddress, nHostPort, &addr);
    return ConnectTo(addr);
}

bool CSyncSocket::ConnectTo(const SOCKADDR_IN& addr) {
    SOCKADDR_IN to = addr;
    if (connect(m_hSocket, AsSockAddr(&to), sizeof to) == 0) return true;
    // An interrupted attempt, and one whose time-out passed, goes on behind our back.
    if (!m_pGuard || (errno != EINPROGRESS && errno != EINTR)) return false;
    if (!m_pGuard->Await(m_hSocket, POLLOUT)) return false;
    int nError = 0;
    socklen_t nLen = sizeof nError;
    return getsockopt(m_hSocket, SOL_SOCKET, SO_ERROR, &nError, &nLen) == 0 && nError == 0;
}

BOOL CSyncSocket::Listen(int nBacklog) { return listen(m_hSocket, nBacklog) == 0; }

BOOL CSyncSocket::Accept(CSyncSocket& rConnectedSocket, SOCKADDR* lpSockAddr,
                         socklen_t* lpSockAddrLen) {
    const SOCKET hNew = accept4(m_hSocket, lpSockAddr, lpSockAddrLen, SOCK_CLOEXEC);
    rConnectedSocket.m_hSocket = hNew;
    return hNew >= 0;
}

BOOL CSyncSocket::GetSockName(SOCKADDR_IN* pAddr) const {
    socklen_t nLen = sizeof *pAddr;
    return getsockname(m_hSocket, AsSockAddr(pAddr), &nLen) == 0;
}

BOOL CSyncSocket::GetPeerName(SOCKADDR_IN* pAddr) const {
    socklen_t nLen = sizeof *pAddr;
    return getpeername(m_hSocket, AsSockAddr(pAddr), &nLen) == 0;
}

// One receive from the system.
inline ssize_t CSyncSocket::Receive(void* pBuf, size_t nLen, int nFlags) {
    return m_pGuard ? ReceiveGuarded(pBuf, nLen, nFlags) : recv(m_hSocket, pBuf, nLen, nFlags);
}

// One send to the system.
inline ssize_t CSyncSocket::Transmit(const void* pBuf, size_t nLen, int nFlags) {
    return m_pGuard ? TransmitGuarded(pBuf, nLen, nFlags)
                    : send(m_hSocket, pBuf, nLen, nFlags | MSG_NOSIGNAL);
}

ssize_t CSyncSocket::ReceiveGuarded(void* pBuf, size_t nLen, int nFlags) {
    const bool bWait = !(nFlags & MSG_DONTWAIT);
    if (bWait && !m_pGuard->MayWait() && !m_pGuard->Await(m_hSocket, POLLIN)) return -1;
    ssize_t n = recv(m_hSocket, pBuf, nLen, nFlags);
    while (n < 0 && bWait && NothingYet() && m_pGuard->Await(m_hSocket, POLLIN)) {
        n = recv(m_hSocket, pBuf, nLen, nFlags);
    }
    if (n > 0) m_pGuard->Passed(false, pBuf, static_cast<size_t>(n));
    return n;
}

ssize_t CSyncSocket::TransmitGuarded(const void* pBuf, size_t nLen, int nFlags) {
    if (!m_pGuard->MayWait() && !m_pGuard->Await(m_hSocket, POLLOUT)) return -1;
    ssize_t n = send(m_hSocket, pBuf, nLen, nFlags | MSG_NOSIGNAL);
    while (n < 0 && NothingYet() && m_pGuard->Await(m_hSocket, POLLOUT)) {
        n = send(m_hSocket, pBuf, nLen, nFlags | MSG_NOSIGNAL);
    }
    if (n > 0) m_pGuard->Passed(true, pBuf, static_cast<size_t>(n));
    return n;
}

bool CSyncSocket::SendAll(const void* lpBuf, int nBufLen, int nFlags) {
    if (nBufLen < 1) return nBufLen == 0;
    const BYTE* p = static_cast<const BYTE*>(lpBuf);
    size_t nLeft = static_cast<size_t>(nBufLen);
    while (nLeft) {
        const ssize_t n = Transmit(p, nLeft, nFlags);
        if (n <= 0) return false;
        p += n;
        nLeft -= static_cast<size_t>(n);
    }
    return true;
}

bool CSyncSocket::RecvAll(void* lpBuf, int nBufLen, int nFlags) {
    if (nBufLen < 1) return nBufLen == 0;
    BYTE* p = static_cast<BYTE*>(lpBuf);
    size_t nLeft = static_cast<size_t>(nBufLen);
    while (nLeft) {
        const int n = RecvOnce(p, nLeft, nFlags);
        if (n <= 0) return false;
        p += n;
        nLeft -= static_cast<size_t>(n);
    }
    return true;
}

const BYTE* CSyncSocket::TakeOnce(size_t nLen) {
    if (m_nAhead < nLen) FillAhead(m_nAhead ? MSG_DONTWAIT : 0);
    return TakeAhead(nLen);
}

const BYTE* CSyncSocket::TakeAll(size_t nLen) {
    while (m_nAhead < nLen && FillAhead(0)) {
    }
    return TakeAhead(nLen);
}

// One receive behind the bytes that were not taken. False when it gave nothing.
bool CSyncSocket::FillAhead(int nFlags) {
    if (!m_pAhead) m_pAhead = std::make_unique<BYTE[]>(kAheadBytes);
    if (m_nAhead) std::memmove(m_pAhead.get(), m_pAhead.get() + m_nAheadAt, m_nAhead);
    m_nAheadAt = 0;
    const ssize_t n = Receive(m_pAhead.get() + m_nAhead, kAheadBytes - m_nAhead, nFlags);
    if (n <= 0) return false;
    m_nAhead += static_cast<size_t>(n);
    return true;
}

const BYTE* CSyncSocket::TakeAhead(size_t nLen) {
    if (m_nAhead < nLen) {
        m_nAhead = 0;
        return nullptr;
    }
    const BYTE* p = m_pAhead.get() + m_nAheadAt;
    m_nAheadAt += nLen;
    m_nAhead -= nLen;
    return p;
}

// One receive, as if the bytes that were not taken were still with the system.
int CSyncSocket::RecvOnce(void* pBuf, size_t nLen, int nFlags) {
    if (m_nAhead == 0) return static_cast<int>(Receive(pBuf, nLen, nFlags));
    const size_t nOld = std::min(nLen, m_nAhead);
    std::memcpy(pBuf, TakeAhead(nOld), nOld);
    if (nOld == nLen) return static_cast<int>(nLen);
    const ssize_t nNew =
        Receive(static_cast<BYTE*>(pBuf) + nOld, nLen - nOld, nFlags | MSG_DONTWAIT);
    return static_cast<int>(nOld) + static_cast<int>(std::max<ssize_t>(nNew, 0));
}

bool CSyncSocket::SendTimeOut(const void* pBuffer, DWORD dwSize, long nTimeOut) {
    if (dwSize > static_cast<DWORD>(INT_MAX)) return false;
    if (!WaitFor(m_hSocket, POLLOUT, nTimeOut)) return false;
    const int nSize = static_cast<int>(dwSize);
    return _Send(pBuffer, nSize, 0) == nSize;
}

int CSyncSocket::RecvTimeOut(void* lpBuf, int nBufLen, long nTimeOut) {
    if (m_nAhead == 0 && !WaitFor(m_hSocket, POLLIN, nTimeOut)) return kRecvTimedOut;
    return _Recv(lpBuf, nBufLen, 0);
}

int CSyncSocket::_SendTo(const void* lpBuf, int nBufLen, UINT nHostPort,
                         const char* lpszHostAddress, int nFlags) {
    SOCKADDR_IN to;
    CreateAddrIn(lpszHostAddress, nHostPort, &to);
    return _SendTo(lpBuf, nBufLen, &to, nFlags);
}

int CSyncSocket::_SendTo(const void* lpBuf, int nBufLen, SOCKADDR_IN* to, int nFlags) {
    if (RefuseLength(nBufLen)) return -1;
    const ssize_t n = sendto(m_hSocket, lpBuf, static_cast<size_t>(nBufLen), nFlags | MSG_NOSIGNAL,
                             AsSockAddr(to), sizeof *to);
    return static_cast<int>(n);
}

int CSyncSocket::_RecvFrom(void* lpBuf, int nBufLen, SOCKADDR_IN* from, int nFlags) {
    std::memset(from, 0, sizeof *from);
    if (RefuseLength(nBufLen)) return -1;
    socklen_t nFromLen = sizeof *from;
    const ssize_t n = recvfrom(m_hSocket, lpBuf, static_cast<size_t>(nBufLen), nFlags,
                               AsSockAddr(from), &nFromLen);
    return static_cast<int>(n);
}

BOOL CSyncSocket::SetRecvTimeOut(long nTimeOut) {
    return SetTimeOption(m_hSocket, SO_RCVTIMEO, nTimeOut);
}

BOOL CSyncSocket::SetSendTimeOut(long nTimeOut) {
    return SetTimeOption(m_hSocket, SO_SNDTIMEO, nTimeOut);
}

BOOL CSyncSocket::SetTimeOut(long nTimeOut) {
    if (nTimeOut == 0) return TRUE;
    if (m_pGuard) nTimeOut = std::min(nTimeOut, CSocketGuard::kSliceMs);
    return SetRecvTimeOut(nTimeOut) && SetSendTimeOut(nTimeOut);
}

BOOL CSyncSocket::GetRecvTimeOut(long& nTimeOut) const {
    timeval tv{};
    socklen_t nLen = sizeof tv;
    if (getsockopt(m_hSocket, SOL_SOCKET, SO_RCVTIMEO, &tv, &nLen) == -1) return FALSE;
    const int64_t nMs = int64_t{tv.tv_sec} * kMsPerSecond + tv.tv_usec / kUsPerMs;
    nTimeOut = static_cast<long>(std::min<int64_t>(nMs, std::numeric_limits<long>::max()));
    return TRUE;
}

bool CSyncSocket::SetKeepAlive() {
    return SetIntOption(m_hSocket, SOL_SOCKET, SO_KEEPALIVE, 1) &&
           SetIntOption(m_hSocket, IPPROTO_TCP, TCP_KEEPIDLE, kKeepIdleSeconds) &&
           SetIntOption(m_hSocket, IPPROTO_TCP, TCP_KEEPINTVL, kKeepIntervalSeconds) &&
           SetIntOption(m_hSocket, IPPROTO_TCP, TCP_KEEPCNT, kKeepProbes);
}

bool CSyncSocket::SetNoDelay() { return SetIntOption(m_hSocket, IPPROTO_TCP, TCP_NODELAY, 1); }
