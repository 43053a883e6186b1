// The two sockets of a server connection: CScnSocket for notifications, CReqTimeSock for requests.
#pragma once

#include <ctime>

#include "SyncSocket.h"

// A socket that can be told to connect to a relay (center) server instead of the host it is given.
//
// Ownership, threads, Python: as CSyncSocket.
class CScnSocket : public CSyncSocket {
  public:
    // The IPv4 address of the center server in network byte order; 0 = none.
    void SetP2PCenterIp(ULONG nCenterIp) { m_nCenterIp = nCenterIp; }
    ULONG GetP2PCenterIp() const { return m_nCenterIp; }

    // Forgets the center server and closes the socket.
    void Close();

    // Connects to nHostPort of the center server when there is one, and then does not look at
    // lpszHostAddress; otherwise to nHostPort of lpszHostAddress. FALSE on failure.
    BOOL _Connect(const char* lpszHostAddress, UINT nHostPort);

  private:
    ULONG m_nCenterIp = 0;
};

// A socket that remembers when it sent last. Whole-buffer sends (SendAll) do not count.
//
// Ownership, threads, Python: as CSyncSocket.
class CReqTimeSock : public CScnSocket {
  public:
    CReqTimeSock() : m_lastReqTime(time(nullptr)) {}

    // Notes the time, then sends as the base does.
    int _Send(const void* lpBuf, int nBufLen, int nFlags) override;

    // Wall-clock seconds since 1970 of the last _Send, whether it succeeded or not; of the
    // construction before the first.
    time_t GetLastReqTime() const { return m_lastReqTime; }

  protected:
    time_t m_lastReqTime;
};
