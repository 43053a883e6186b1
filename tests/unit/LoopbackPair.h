// Two connected TCP sockets on loopback, and small things around sockets, for tests.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>

#include "SyncSocket.h"

// 127.0.0.1 in network byte order.
inline ULONG LoopbackIp() { return htonl(INADDR_LOOPBACK); }

// A bare container may lack the one host name that every machine knows.
#define SKIP_WITHOUT_LOCALHOST() \
    if (!gethostbyname("localhost")) GTEST_SKIP() << "this machine does not know localhost"

// A listening socket on a free port of 127.0.0.1.
class CLoopbackListener {
  public:
    CLoopbackListener() {
        EXPECT_TRUE(m_sock.Create(0, SOCK_STREAM, "127.0.0.1", FALSE));
        EXPECT_TRUE(m_sock.Listen());
    }
    UINT Port() const {
        SOCKADDR_IN addr{};
        EXPECT_TRUE(m_sock.GetSockName(&addr));
        return ntohs(addr.sin_port);
    }
    void Accept(CSyncSocket& sock) { EXPECT_TRUE(m_sock.Accept(sock, nullptr, nullptr)); }

    CSyncSocket m_sock;
};

// m_peer is the far end of `near`, which may be of any class of socket.
class CLoopbackPeer {
  public:
    explicit CLoopbackPeer(CSyncSocket& near) {
        CLoopbackListener listener;
        EXPECT_TRUE(near.Create(0, SOCK_STREAM, nullptr, FALSE));
        EXPECT_TRUE(near.CSyncSocket::_Connect(LoopbackIp(), listener.Port()));
        listener.Accept(m_peer);
    }
    void Say(const std::string& strBytes) {
        EXPECT_TRUE(m_peer.SendAll(strBytes.data(), static_cast<int>(strBytes.size()), 0));
    }
    // Exactly nSize bytes of what the near end sent.
    std::string Hear(size_t nSize) {
        std::string strBytes(nSize, 0);
        EXPECT_TRUE(m_peer.RecvAll(&strBytes[0], static_cast<int>(nSize), 0));
        return strBytes;
    }
    // Ends the connection with a reset instead of an orderly end.
    void Reset() {
        const linger hard{1, 0};
        setsockopt(m_peer, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        m_peer.Close();
    }

    CSyncSocket m_peer;
};

inline bool IsOpenFd(int fd) { return fcntl(fd, F_GETFD) != -1; }
inline bool IsCloseOnExec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

// Bytes that have arrived at a socket and were not received yet.
inline int BytesWaiting(int fd) {
    int n = 0;
    ioctl(fd, FIONREAD, &n);
    return n;
}
