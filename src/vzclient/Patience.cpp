#include "vzclient/Patience.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <new>
#include <utility>

namespace {

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerSecond = 1000000000;
constexpr double kLongestSeconds = 1e9;        // some 30 years
constexpr int64_t kSlowNs = 1 * kNsPerSecond;  // a reply that takes longer is overdue

}  // namespace

int64_t MonotonicNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t{ts.tv_sec} * kNsPerSecond + ts.tv_nsec;
}

int64_t DeadlineNs(double fSeconds) {
    if (std::isnan(fSeconds) || fSeconds < 0) fSeconds = 0;
    return MonotonicNs() + static_cast<int64_t>(std::min(fSeconds, kLongestSeconds) * kNsPerSecond);
}

CPatience::CPatience(int64_t nDeadlineNs, PyThreadState*& state, const std::atomic<bool>& bOver,
                     CFeed* pTrace)
    : m_nDeadlineNs(nDeadlineNs), m_state(state), m_bOver(bOver), m_pTrace(pTrace) {}

int64_t CPatience::LeftNs() const { return std::max<int64_t>(m_nDeadlineNs - MonotonicNs(), 0); }

// A call that starts far from its deadline need not look at the clock again before its first wait.
bool CPatience::MayWait() { return LeftNs() >= kSliceMs * kNsPerMs; }

bool CPatience::Await(SOCKET hSocket, short nEvents) {
    if (m_eEnd != EEnd::kNone) return false;
    const int64_t nStartNs = MonotonicNs();
    for (;;) {
        if (m_bOver) return Stop(EEnd::kSessionOver);
        const int64_t nLeft = LeftNs();
        if (nLeft == 0) return Stop(EEnd::kTimedOut);  // also for a peer who never stops sending
        const int64_t nSliceNs = std::min<int64_t>(nLeft, kSliceMs * kNsPerMs);
        pollfd fd{hSocket, nEvents, 0};
        const int nReady = poll(&fd, 1, static_cast<int>((nSliceNs + kNsPerMs - 1) / kNsPerMs));
        if (nReady > 0) return !(fd.revents & POLLNVAL);
        // A call that a signal interrupted comes here with its handlers still to run.
        if (!SignalsPass()) return false;
        if (m_pNews && !m_bSlow && MonotonicNs() - nStartNs > kSlowNs) {
            m_bSlow = true;
            m_pNews->PushNews("slow");
        }
    }
}

bool CPatience::WaitOn() {
    if (m_eEnd != EEnd::kNone) return false;
    if (m_bOver) return Stop(EEnd::kSessionOver);
    if (!SignalsPass()) return false;
    return LeftNs() > 0 || Stop(EEnd::kTimedOut);
}

void CPatience::Passed(bool bSent, const void* pData, size_t nLen) {
    if (!m_pTrace) return;
    SEvent event;
    event.eKind = SEvent::EKind::kBytes;
    event.bSent = bSent;
    event.bNotify = m_bNotify;
    event.nTimeUs = NowUs();
    event.pMore = std::make_unique<SEvent::SMore>();
    event.pMore->strText.assign(static_cast<const char*>(pData), nLen);
    m_pTrace->Push(std::move(event));
}

bool CPatience::Stop(EEnd eEnd) {
    m_eEnd = eEnd;
    return false;
}

bool CPatience::SignalsPass() {
    PyEval_RestoreThread(m_state);
    const bool bPass = PyErr_CheckSignals() == 0;
    m_state = PyEval_SaveThread();
    return bPass || Stop(EEnd::kInterrupted);
}
