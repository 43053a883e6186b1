// XTEvent: the hand-over point between a thread that ends and the one that waits for it.
#pragma once

#include <semaphore.h>

#include <algorithm>
#include <ctime>
#include <limits>

#include "VzDefine.h"

// An event on an unnamed semaphore: each Signal lets one Wait pass, in either order.
//
// Ownership: owns its semaphore from Create to Close (or destruction).
// Threads:   Signal and Wait are thread-safe while the event stays created. Create and Close are
//            for one thread at a time, when no other thread is in Signal or Wait.
// Python:    none; Wait blocks with whatever locks its caller holds.
class XTEvent {
  public:
    XTEvent() = default;
    ~XTEvent() { Close(); }
    XTEvent(const XTEvent&) = delete;
    XTEvent& operator=(const XTEvent&) = delete;

    // Makes the event, with no signal pending. Nothing, also to pending signals, when it is there.
    // False when the system refuses.
    bool Create() {
        if (!m_bCreate) m_bCreate = sem_init(&m_sem, 0, 0) == 0;
        return m_bCreate;
    }

    // Lets one Wait pass, now or later. Nothing when the event is not created.
    void Signal() {
        if (m_bCreate) sem_post(&m_sem);
    }

    // Unmakes the event and forgets pending signals. Nothing when it is not created.
    void Close() {
        if (!m_bCreate) return;
        m_bCreate = false;
        sem_destroy(&m_sem);
    }

    // Waits up to dwMilliseconds for a signal; lengths over 0x7FFFFFFF (24.8 days) are cut to it.
    // True when a signal was taken; false on time-out and when a Unix signal ended the wait.
    // Only for a created event.
    bool Wait(DWORD dwMilliseconds) {
        constexpr DWORD kMaxWaitMs = 0x7FFFFFFF;  // more does not fit a 32-bit long
        return sem_timedwait_millsecs(&m_sem,
                                      static_cast<long>(std::min(dwMilliseconds, kMaxWaitMs))) == 0;
    }

    // Waits up to msecs milliseconds for the semaphore; a negative time does not wait. The deadline
    // is on the wall clock: setting the clock lengthens or shortens a wait.
    // Returns 0 when the semaphore was taken; -1, reason in errno, on time-out and failure.
    static int sem_timedwait_millsecs(sem_t* sem, long msecs) {
        constexpr int64_t kMsPerSecond = 1000;
        constexpr int64_t kNsPerMs = 1000000;
        constexpr int64_t kNsPerSecond = 1000000000;
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        // Whole seconds apart, so that no length of time overflows.
        const int64_t nNs = msecs % kMsPerSecond * kNsPerMs + ts.tv_nsec;
        const int64_t nSeconds = ts.tv_sec + msecs / kMsPerSecond + nNs / kNsPerSecond;
        ts.tv_sec =
            static_cast<time_t>(std::min<int64_t>(nSeconds, std::numeric_limits<time_t>::max()));
        ts.tv_nsec = static_cast<long>(nNs % kNsPerSecond);
        return sem_timedwait(sem, &ts);
    }

  private:
    sem_t m_sem;
    bool m_bCreate = false;
};
