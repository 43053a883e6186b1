#include "Peer.h"

#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr size_t kCutBytes = sizeof kCut - 1;

thread_local CPeer* t_pPeer = nullptr;

int BytesWaiting(int fd) {
    int n = 0;
    ioctl(fd, FIONREAD, &n);
    return n;
}

}  // namespace

CPeer::CPeer(std::vector<SScript> scripts) : m_scripts(std::move(scripts)) {
    m_connections.reserve(m_scripts.size());
    t_pPeer = this;
}

CPeer::~CPeer() {
    t_pPeer = nullptr;
    for (const SConnection& connection : m_connections)
        if (connection.nFar >= 0) close(connection.nFar);
}

bool CPeer::Attach(int fd) {
    int ends[2];
    if (m_connections.size() == m_scripts.size()) return false;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
    dup2(ends[0], fd);
    close(ends[0]);
    m_connections.push_back({fd, ends[1], 0});
    return true;
}

std::string CPeer::Sent(size_t nConnection) {
    std::string str;
    char buf[4096];
    for (ssize_t n; (n = recv(m_connections[nConnection].nFar, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
        str.append(buf, static_cast<size_t>(n));
    return str;
}

int CPeer::Keep(size_t nConnection) {
    const int fd = m_connections[nConnection].nFar;
    m_connections[nConnection].nFar = -1;
    return fd;
}

// The latest connection with that number: it may have been closed and opened again.
const CPeer::SConnection* CPeer::Find(int fd) const {
    for (size_t i = m_connections.size(); i > 0; --i)
        if (m_connections[i - 1].nNear == fd) return &m_connections[i - 1];
    return nullptr;
}

void CPeer::BeforeReceive(int fd) {
    const SConnection* pFound = Find(fd);
    if (!pFound || pFound->nFar < 0 || BytesWaiting(fd) > 0) return;
    const size_t nIndex = static_cast<size_t>(pFound - m_connections.data());
    SConnection& connection = m_connections[nIndex];
    const SScript& script = m_scripts[nIndex];
    const std::string& str = script.strBytes;
    size_t nEnd = str.size();
    if (script.bCuts) {
        while (str.compare(connection.nSaid, kCutBytes, kCut) == 0) connection.nSaid += kCutBytes;
        nEnd = std::min(nEnd, str.find(kCut, connection.nSaid));
    }
    size_t nSize = nEnd - connection.nSaid;
    if (script.nSegment) nSize = std::min(nSize, script.nSegment);
    if (nSize > 0) {
        const ssize_t nSent = send(connection.nFar, str.data() + connection.nSaid, nSize,
                                   MSG_DONTWAIT | MSG_NOSIGNAL);
        if (nSent > 0) connection.nSaid += static_cast<size_t>(nSent);
    } else if (!script.bSilent) {
        shutdown(connection.nFar, SHUT_WR);
    }
}

bool CPeer::IsSilent(int fd) const {
    const SConnection* pFound = Find(fd);
    return pFound && pFound->nFar >= 0 && BytesWaiting(fd) == 0 &&
           m_scripts[static_cast<size_t>(pFound - m_connections.data())].bSilent;
}

extern "C" {

ssize_t __real_recv(int fd, void* pBuf, size_t nSize, int nFlags);

ssize_t __wrap_recv(int fd, void* pBuf, size_t nSize, int nFlags) {
    if (t_pPeer && !(nFlags & MSG_DONTWAIT)) {
        t_pPeer->BeforeReceive(fd);
        if (t_pPeer->IsSilent(fd)) {
            errno = EAGAIN;
            return -1;
        }
    }
    return __real_recv(fd, pBuf, nSize, nFlags);
}

int __real_poll(pollfd* pFds, nfds_t nFds, int nMs);

int __wrap_poll(pollfd* pFds, nfds_t nFds, int nMs) {
    if (t_pPeer && nFds == 1 && (pFds->events & POLLIN)) t_pPeer->BeforeReceive(pFds->fd);
    return __real_poll(pFds, nFds, nMs);
}

int __wrap_connect(int fd, const sockaddr*, socklen_t) {
    if (t_pPeer && t_pPeer->Attach(fd)) return 0;
    errno = ECONNREFUSED;
    return -1;
}

int __real_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttr, void* (*pStart)(void*),
                          void* pParam);

int __wrap_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttr, void* (*pStart)(void*),
                          void* pParam) {
    if (t_pPeer && !t_pPeer->m_bThreads) return EAGAIN;
    return __real_pthread_create(pThread, pAttr, pStart, pParam);
}

int __wrap_usleep(useconds_t) { return 0; }

void __wrap_perror(const char*) {}
}
