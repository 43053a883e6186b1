// One connected session: what a receive thread may still hold after its session ended.
#pragma once

#include <atomic>
#include <map>

#include "VzDefine.h"
#include "nonwin/cstring.h"
#include "vzcommondef.h"

// Made by each successful connect and shared by the core, its receive thread and, weakly, the
// script's driver objects. A thread of an earlier session sees only its own.
//
// The end of a session and the interpreter lock: an ending holds that lock and must not wait for a
// thread that waits for it. So before the thread asks for the lock it parks, and an ending waits
// only for a thread that is not parked. Each side first writes its own flag and then reads the
// other's, sequentially consistent: whichever comes second sees the first.
//
//   receive thread                          ending
//     Park():   parked = true                 End():   ended = true
//               ended? then do not ask        Parked()? then do not wait
//
// Ownership: owns the thread's descriptor, which is closed with the last holder and by nobody else,
//            and the drivers that were retired when the session ended.
// Threads:   End, Ended, Parked: thread-safe. Park, Unpark, ReceiveSocket: receive thread only.
//            Retire and ForkedChild: one thread at a time, under the core's locks.
// Python:    none.
class CDBSession {
  public:
    CDBSession() = default;
    CDBSession(const CDBSession&) = delete;
    CDBSession& operator=(const CDBSession&) = delete;
    ~CDBSession();

    // Ends the session. True for the one call that ended it.
    bool End() { return !m_bEnded.exchange(true); }
    bool Ended() const { return m_bEnded; }

    // The thread is about to ask for the interpreter lock. False when the session has ended: then
    // it must not ask. After true it may wait for as long as someone holds the lock, and stays
    // parked until it has given the lock back.
    bool Park() {
        m_bParked = true;
        if (!m_bEnded) return true;
        m_bParked = false;
        return false;
    }
    void Unpark() { m_bParked = false; }
    bool Parked() const { return m_bParked; }

    // Takes a duplicate of the notification connection for the thread to read. False when there is
    // no descriptor to be had. Once, before the thread starts.
    bool Duplicate(SOCKET hNotify);
    SOCKET ReceiveSocket() const { return m_hReceive; }

    // Takes over drivers that the thread may be using. They are freed with the session.
    void Retire(std::map<CString, SNDrvInfoEx>& drivers) noexcept { m_retired.swap(drivers); }

    // In a forked child, where the receive thread does not exist: ends the session and closes the
    // descriptor without shutting the parent's connection down.
    void ForkedChild();

  private:
    std::atomic<bool> m_bEnded{false};
    std::atomic<bool> m_bParked{false};
    SOCKET m_hReceive = -1;
    std::map<CString, SNDrvInfoEx> m_retired;
};
