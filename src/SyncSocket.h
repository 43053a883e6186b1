// Blocking IPv4 sockets: the thin layer under everything that talks to the server.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>

#include "VzDefine.h"

using SOCKADDR = sockaddr;
using SOCKADDR_IN = sockaddr_in;

// RecvTimeOut: nothing came within the time given.
constexpr int kRecvTimedOut = -3;

// Decides how long the calls of a socket wait, and sees the bytes that pass.
//
// Ownership: none; outlives its use by a socket. Threads: called on the thread that uses the
// socket. Python: what a guard does is its own affair; sockets know nothing of it.
class CSocketGuard {
  public:
    // The longest that a call of a guarded socket waits in the system before it asks.
    static constexpr long kSliceMs = 200;

    // Whether a call may wait for that long without asking.
    virtual bool MayWait() = 0;
    // Waits until hSocket is ready for nEvents (POLLIN or POLLOUT), or broken, or there is nothing
    // to wait for any longer: then false, and the call fails.
    virtual bool Await(SOCKET hSocket, short nEvents) = 0;
    // After a moment of waiting for something that is no socket: whether to wait on.
    virtual bool WaitOn() = 0;
    // nLen bytes have been sent or received.
    virtual void Passed(bool bSent, const void* pData, size_t nLen) = 0;

  protected:
    ~CSocketGuard() = default;
};

// One blocking IPv4 socket. Moves bytes; knows nothing of messages.
//
// A call that a signal interrupts is not repeated: it counts as failed, so that a user's Ctrl-C
// ends a wait at once. Sending to a peer that is gone is a failed result, never a SIGPIPE.
// Descriptors made here are not inherited by programs the process starts.
//
// Ownership: owns its descriptor (-1 = none) and closes it when destroyed. Never copied.
// Threads:   one thread at a time for opening and closing. While the socket stays open, one thread
//            may send and another receive, and ShutDown() may be called from any thread.
// Python:    none.
class CSyncSocket {
  public:
    CSyncSocket() = default;
    // Takes over hSocket; -1 is an empty socket.
    explicit CSyncSocket(SOCKET hSocket) : m_hSocket(hSocket) {}

    // The virtual functions are exactly these four, in this order.

    // Closes the descriptor, also when it is 0 (which Close() leaves open).
    virtual ~CSyncSocket();
    // True when a usable descriptor is held: neither -1 nor 0.
    virtual bool IsSocket() const;
    // One send of nBufLen bytes with nFlags (and MSG_NOSIGNAL). Returns the bytes taken by the
    // system, which may be fewer; -1 on error, with the reason in errno (EINVAL for a negative
    // length).
    virtual int _Send(const void* lpBuf, int nBufLen, int nFlags);
    // One receive of at most nBufLen bytes. Returns the byte count, 0 at the peer's orderly end, -1
    // on error or when the receive time-out passed (EINVAL for a negative length).
    virtual int _Recv(void* lpBuf, int nBufLen, int nFlags);

    CSyncSocket(const CSyncSocket&) = delete;
    CSyncSocket& operator=(const CSyncSocket&) = delete;

    // The descriptor, still owned by this object; -1 when there is none.
    SOCKET GetSocket() const { return m_hSocket; }
    operator SOCKET() const { return m_hSocket; }

    // Closes the descriptor if IsSocket() says there is one; empty afterwards in every case.
    void Close();
    // Ends the connection (SHUT_RD, SHUT_WR or SHUT_RDWR) and keeps the descriptor: a thread that
    // waits in a receive wakes up. FALSE when the socket is not connected or not open.
    BOOL ShutDown(int nHow = SHUT_RDWR);

    // Opens a socket of nSocketType (SOCK_STREAM, SOCK_DGRAM). With a local port or a local address
    // it is bound to them (lpszSocketAddress null: any address; see CreateAddrIn); bReuse, when not
    // 0, is the value given to SO_REUSEADDR before. TRUE at once, with nothing changed, when a
    // descriptor is held already. FALSE when the system refuses; empty then.
    BOOL Create(UINT nSocketPort, int nSocketType, const char* lpszSocketAddress, BOOL bReuse);

    // Fills *in with uIp, which is in network byte order already, and the low 16 bits of nPort.
    static void CreateAddrIn(ULONG uIp, UINT nPort, SOCKADDR_IN* in);
    // Fills *in from a dotted quad or a host name, which is looked up; null stands for any address
    // (0). A name that has no address leaves 255.255.255.255, to which no connect succeeds. The
    // lookup may take as long as the resolver likes and is not thread-safe.
    static void CreateAddrIn(const char* szAddr, UINT nPort, SOCKADDR_IN* in);

    // Connects to an address in network byte order. FALSE on failure; the descriptor then stays
    // open and is good for nothing but closing.
    BOOL _Connect(ULONG uIp, UINT nHostPort);
    // The same to a dotted quad or a host name, by the rules of CreateAddrIn.
    BOOL _Connect(const char* lpszHostAddress, UINT nHostPort);

    // Lets up to nBacklog connections queue up. FALSE when the system refuses.
    BOOL Listen(int nBacklog = SOMAXCONN);
    // Waits for a connection and puts it into rConnectedSocket, whose earlier descriptor is
    // forgotten, not closed; -1 goes there on failure. lpSockAddr and lpSockAddrLen, when not null,
    // get the peer's address as accept() gives it. TRUE when there is a connection.
    BOOL Accept(CSyncSocket& rConnectedSocket, SOCKADDR* lpSockAddr, socklen_t* lpSockAddrLen);

    // The local and the peer's address. FALSE, with *pAddr unchanged, when there is none.
    BOOL GetSockName(SOCKADDR_IN* pAddr) const;
    BOOL GetPeerName(SOCKADDR_IN* pAddr) const;

    // Sends or receives exactly nBufLen bytes, as many calls as it takes, straight to the system:
    // overrides of _Send and _Recv do not see them. True when all bytes went through; 0 bytes
    // succeed without a call, a negative length fails. False on the first error, time-out or end of
    // the connection; what was received until then stays in the buffer.
    bool SendAll(const void* lpBuf, int nBufLen, int nFlags);
    bool RecvAll(void* lpBuf, int nBufLen, int nFlags);

    // The next nLen bytes, for replies whose first bytes tell what follows: the system is asked for
    // more than that, so that what has come together takes one receive. What came beyond stays
    // here, and every receive of this object gives it first, as if it were still with the system.
    // TakeOnce: bytes that must be had by one receive; RecvAll's rule holds for TakeAll.
    // nLen: kAheadBytes at most. Null when they do not come; those that did are lost. The bytes are
    // valid until the next receive.
    static constexpr size_t kAheadBytes = 8200;  // two chunks of values of the greatest length
    const BYTE* TakeOnce(size_t nLen);
    const BYTE* TakeAll(size_t nLen);

    // Waits up to nTimeOut milliseconds until bytes can be sent, then sends once. True only when
    // that one send took all dwSize bytes. A negative time-out fails at once.
    bool SendTimeOut(const void* pBuffer, DWORD dwSize, long nTimeOut);
    // Waits up to nTimeOut milliseconds for bytes, then receives once. Returns the byte count (may
    // be short), 0 at the peer's orderly end, -1 on error, kRecvTimedOut (-3) when nothing came or
    // the wait itself failed (also at once for a negative time-out).
    int RecvTimeOut(void* lpBuf, int nBufLen, long nTimeOut);

    // One datagram to a host (by the rules of CreateAddrIn) or a ready address. Returns the bytes
    // sent, -1 on error.
    int _SendTo(const void* lpBuf, int nBufLen, UINT nHostPort, const char* lpszHostAddress,
                int nFlags);
    int _SendTo(const void* lpBuf, int nBufLen, SOCKADDR_IN* to, int nFlags);
    // One datagram; *from is cleared and gets the sender. Returns its byte count, -1 on error.
    int _RecvFrom(void* lpBuf, int nBufLen, SOCKADDR_IN* from, int nFlags);

    // Bounds every single system receive (send, connect) to nTimeOut milliseconds; 0 is no bound.
    // The system refuses a negative part of a second and takes whole negative seconds as "do not
    // wait". FALSE when the system refuses.
    BOOL SetRecvTimeOut(long nTimeOut);
    BOOL SetSendTimeOut(long nTimeOut);
    // Both of them, the receive time-out first; if it is refused the other stays as it is. 0 does
    // not mean "no bound" here: it changes nothing and succeeds.
    BOOL SetTimeOut(long nTimeOut);
    // The receive time-out in milliseconds, as the system has rounded it. FALSE, with nTimeOut
    // unchanged, when the system refuses.
    BOOL GetRecvTimeOut(long& nTimeOut) const;

    // Puts the socket's calls under a guard, or under none (null). A guarded call that a signal
    // interrupts, or whose time-out passes, asks the guard. Time-outs that are set under a guard
    // are cut to its slice.
    void SetGuard(CSocketGuard* pGuard) { m_pGuard = pGuard; }
    CSocketGuard* Guard() const { return m_pGuard; }

    // Has the system probe an idle connection after 60 s and then every 20 s; after 3 lost probes
    // the connection is broken. So a cut cable shows within two minutes. False when the system
    // refuses.
    bool SetKeepAlive();
    // Has the system send what it is given at once. Without it a request that follows one without a
    // reply waits for the peer's delayed acknowledgement, some 40 ms. False when the system
    // refuses.
    bool SetNoDelay();

  protected:
    SOCKET m_hSocket = -1;

  private:
    ssize_t Receive(void* pBuf, size_t nLen, int nFlags);
    ssize_t Transmit(const void* pBuf, size_t nLen, int nFlags);
    ssize_t ReceiveGuarded(void* pBuf, size_t nLen, int nFlags);
    ssize_t TransmitGuarded(const void* pBuf, size_t nLen, int nFlags);
    bool ConnectTo(const SOCKADDR_IN& addr);
    int RecvOnce(void* pBuf, size_t nLen, int nFlags);
    bool FillAhead(int nFlags);
    const BYTE* TakeAhead(size_t nLen);

    CSocketGuard* m_pGuard = nullptr;
    std::unique_ptr<BYTE[]> m_pAhead;  // kAheadBytes, made for the first that are taken
    size_t m_nAheadAt = 0;             // of the first byte that was not taken
    size_t m_nAhead = 0;               // how many were not
};
