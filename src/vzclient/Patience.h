// How long a call of a script waits for the network.
#pragma once

#include <Python.h>

#include <atomic>
#include <cstdint>

#include "SyncSocket.h"
#include "vzclient/Feed.h"

// Nanoseconds of a clock that nobody sets, now and so many seconds later.
int64_t MonotonicNs();
int64_t DeadlineNs(double fSeconds);

// What keeps a call waiting, and what ends it: its deadline, the end of its session, or a signal
// whose handler raised. One for the whole call, however many waits it takes.
//
// Ownership: borrows what it is given, which outlives it.
// Threads:   one thread at a time.
// Python:    made and used by a thread that has given the interpreter lock up; takes the lock for
//            as long as the signal handlers run, whatever other locks its caller holds. So no other
//            thread may take those locks while it has the interpreter lock.
class CPatience final : public CSocketGuard {
  public:
    enum class EEnd {
        kNone,         // it lasts
        kTimedOut,     // the deadline passed
        kSessionOver,  // the session ended meanwhile
        kInterrupted   // a signal's handler raised: the error is set
    };

    // nDeadlineNs: as DeadlineNs gave it. state: the thread's, as PyEval_SaveThread gave it. bOver:
    // set when the session ends. pTrace: gets the bytes that pass, unless null.
    CPatience(int64_t nDeadlineNs, PyThreadState*& state, const std::atomic<bool>& bOver,
              CFeed* pTrace);

    bool MayWait() override;
    bool Await(SOCKET hSocket, short nEvents) override;
    bool WaitOn() override;
    void Passed(bool bSent, const void* pData, size_t nLen) override;

    // Nanoseconds until the deadline, 0 when it has passed.
    int64_t LeftNs() const;

    EEnd End() const { return m_eEnd; }
    void SetNotify(bool bNotify) { m_bNotify = bNotify; }  // whose bytes pass now
    // Has this feed told, once, that a reply is overdue.
    void TellSlow(CFeed* pNews) { m_pNews = pNews; }
    bool WasSlow() const { return m_bSlow; }

  private:
    bool Stop(EEnd eEnd);
    bool SignalsPass();

    const int64_t m_nDeadlineNs;
    PyThreadState*& m_state;
    const std::atomic<bool>& m_bOver;
    CFeed* m_pTrace;
    CFeed* m_pNews = nullptr;
    bool m_bSlow = false;
    bool m_bNotify = false;
    EEnd m_eEnd = EEnd::kNone;
};
