// What keeps a call waiting and what ends it.
#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "LoopbackPair.h"
#include "vzclient/Patience.h"

namespace {

using EEnd = CPatience::EEnd;

constexpr double kLong = 60;

class Patience : public ::testing::Test {
  protected:
    void TearDown() override {
        RunScript("import signal\nsignal.signal(signal.SIGUSR1, signal.SIG_DFL)\n");
        EXPECT_EQ(TakeError(), "");
    }
    // Runs body(patience) as a method of the package does: without the interpreter lock.
    template <typename TBody>
    EEnd With(double fSeconds, TBody body) {
        PyThreadState* state = PyEval_SaveThread();
        CPatience patience(DeadlineNs(fSeconds), state, bOver, pTrace);
        body(patience);
        PyEval_RestoreThread(state);
        return patience.End();
    }
    // Has SIGUSR1 call this, a function of the signal's number and frame.
    static void OnSignal(const std::string& strFunction) {
        RunScript(("import signal\nseen = []\nsignal.signal(signal.SIGUSR1, " + strFunction + ")\n")
                      .c_str());
    }

    std::atomic<bool> bOver{false};
    CFeed* pTrace = nullptr;
    CSyncSocket near;
    CLoopbackPeer peer{near};
};

// A function, as expectations within expectations shadow each other's variables.
void ExpectEnd(EEnd eFound, EEnd eExpected) { EXPECT_EQ(eFound, eExpected); }

// ---- Deadlines ----------------------------------------------------------------------------------

TEST_F(Patience, SilenceEndsAtTheDeadline) {
    ExpectEnd(With(0.05,
                   [&](CPatience& patience) {
                       EXPECT_FALSE(patience.Await(near, POLLIN));
                       EXPECT_EQ(patience.LeftNs(), 0);
                   }),
              EEnd::kTimedOut);
}

TEST_F(Patience, DeadlineBeyondASliceEndsTheWaitToo) {
    ExpectEnd(With(0.25, [&](CPatience& patience) { EXPECT_FALSE(patience.Await(near, POLLIN)); }),
              EEnd::kTimedOut);
}

TEST_F(Patience, WhatIsThereIsNotWaitedFor) {
    peer.Say("x");
    ExpectEnd(With(kLong,
                   [&](CPatience& patience) {
                       EXPECT_TRUE(patience.Await(near, POLLIN));
                       EXPECT_TRUE(patience.Await(near, POLLOUT));
                   }),
              EEnd::kNone);
}

TEST_F(Patience, BrokenConnectionIsReady) {
    peer.Reset();
    ExpectEnd(With(kLong, [&](CPatience& patience) { EXPECT_TRUE(patience.Await(near, POLLIN)); }),
              EEnd::kNone);
}

TEST_F(Patience, SocketThatIsNotOpenIsNothingToWaitFor) {
    const int hSocket = near.GetSocket();
    near.Close();
    ExpectEnd(
        With(kLong, [&](CPatience& patience) { EXPECT_FALSE(patience.Await(hSocket, POLLIN)); }),
        EEnd::kNone);
}

TEST_F(Patience, WhatHasEndedStaysEnded) {
    ExpectEnd(With(0.01,
                   [&](CPatience& patience) {
                       EXPECT_FALSE(patience.Await(near, POLLIN));
                       peer.Say("x");
                       EXPECT_FALSE(patience.Await(near, POLLIN));
                       EXPECT_FALSE(patience.WaitOn());
                   }),
              EEnd::kTimedOut);
}

TEST_F(Patience, WhatIsThereIsNotTakenBehindTheDeadline) {
    peer.Say("x");
    bool bTaken = true;
    ExpectEnd(With(0, [&](CPatience& patience) { bTaken = patience.Await(near, POLLIN); }),
              EEnd::kTimedOut);
    EXPECT_FALSE(bTaken);
}

TEST_F(Patience, CallMayWaitUnaskedWhileASliceIsLeft) {
    With(kLong, [](CPatience& patience) { EXPECT_TRUE(patience.MayWait()); });
    With(0.19, [](CPatience& patience) { EXPECT_FALSE(patience.MayWait()); });
    With(0, [](CPatience& patience) { EXPECT_FALSE(patience.MayWait()); });
}

TEST_F(Patience, DeadlinesOfAnySecondsAreUsable) {
    const int64_t nNow = MonotonicNs();
    for (const double fSeconds : {-1.0, 0.0, -std::numeric_limits<double>::infinity(),
                                  std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_GE(DeadlineNs(fSeconds), nNow);
        const int64_t nDeadline = DeadlineNs(fSeconds);
        EXPECT_LE(nDeadline, MonotonicNs());
    }
    for (const double fSeconds : {1e9, 1e10, std::numeric_limits<double>::infinity()}) {
        EXPECT_GE(DeadlineNs(fSeconds), nNow + int64_t{1000000000} * 1000000000);
        const int64_t nDeadline = DeadlineNs(fSeconds);
        EXPECT_LE(nDeadline, MonotonicNs() + int64_t{1000000000} * 1000000000);
    }
    EXPECT_GE(DeadlineNs(1.5), nNow + 1500000000);
}

// ---- The end of the session ---------------------------------------------------------------------

TEST_F(Patience, SessionThatIsOverEndsTheWait) {
    bOver = true;
    peer.Say("x");
    ExpectEnd(With(kLong, [&](CPatience& patience) { EXPECT_FALSE(patience.Await(near, POLLIN)); }),
              EEnd::kSessionOver);
    ExpectEnd(With(kLong, [](CPatience& patience) { EXPECT_FALSE(patience.WaitOn()); }),
              EEnd::kSessionOver);
}

TEST_F(Patience, SessionThatEndsMeanwhileEndsTheWait) {
    std::thread ender([&] { bOver = true; });
    ExpectEnd(With(kLong, [&](CPatience& patience) { EXPECT_FALSE(patience.Await(near, POLLIN)); }),
              EEnd::kSessionOver);
    ender.join();
}

TEST_F(Patience, WaitGoesOnWhileNothingSpeaksAgainstIt) {
    ExpectEnd(With(kLong, [](CPatience& patience) { EXPECT_TRUE(patience.WaitOn()); }),
              EEnd::kNone);
    ExpectEnd(With(0, [](CPatience& patience) { EXPECT_FALSE(patience.WaitOn()); }),
              EEnd::kTimedOut);
}

// ---- Signals ------------------------------------------------------------------------------------

TEST_F(Patience, HandlerThatRaisesEndsTheWait) {
    OnSignal("lambda n, f: seen.append(n) or 1 / 0");
    raise(SIGUSR1);
    ExpectEnd(With(kLong, [&](CPatience& patience) { EXPECT_FALSE(patience.Await(near, POLLIN)); }),
              EEnd::kInterrupted);
    EXPECT_EQ(TakeError(), "ZeroDivisionError");
    EXPECT_EQ(Repr("len(seen)"), "1");
}

TEST_F(Patience, HandlerThatRaisesEndsAWaitForATurn) {
    OnSignal("lambda n, f: 1 / 0");
    raise(SIGUSR1);
    ExpectEnd(With(kLong, [](CPatience& patience) { EXPECT_FALSE(patience.WaitOn()); }),
              EEnd::kInterrupted);
    EXPECT_EQ(TakeError(), "ZeroDivisionError");
}

TEST_F(Patience, HandlerThatReturnsDoesNotEndTheWait) {
    OnSignal("lambda n, f: seen.append(n)");
    std::atomic<bool> bDone{false};
    const pthread_t self = pthread_self();
    std::thread disturber([&] {
        for (int i = 0; i < 20; ++i) {
            pthread_kill(self, SIGUSR1);
            usleep(2000);
        }
        peer.Say("x");
        while (!bDone) usleep(1000);
    });
    ExpectEnd(With(kLong, [&](CPatience& patience) { EXPECT_TRUE(patience.Await(near, POLLIN)); }),
              EEnd::kNone);
    bDone = true;
    disturber.join();
    RunScript("pass\n");  // what came last is handled now
    EXPECT_NE(Repr("len(seen)"), "0");
}

// ---- News and traces ----------------------------------------------------------------------------

TEST_F(Patience, OverdueReplyIsNewsOnce) {
    CFeed news(10, CFeed::EOverflow::kOldest);
    ExpectEnd(With(kLong,
                   [&](CPatience& patience) {
                       patience.TellSlow(&news);
                       EXPECT_FALSE(patience.WasSlow());
                       std::thread speaker([&] {
                           pollfd fd{news.Descriptor(), POLLIN, 0};
                           poll(&fd, 1, 20000);
                           usleep(1000);
                           peer.Say("x");
                       });
                       EXPECT_TRUE(patience.Await(near, POLLIN));
                       EXPECT_TRUE(patience.WasSlow());
                       speaker.join();
                   }),
              EEnd::kNone);
    std::vector<SEvent> events;
    news.Take(events, 10);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].pMore->strText, "slow");
}

TEST_F(Patience, BytesThatPassAreTraced) {
    CFeed trace(10, CFeed::EOverflow::kOldest);
    pTrace = &trace;
    With(kLong, [](CPatience& patience) {
        patience.Passed(true, "ask\0", 4);
        patience.SetNotify(true);
        patience.Passed(false, "told", 4);
    });
    std::vector<SEvent> events;
    trace.Take(events, 10);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].eKind, SEvent::EKind::kBytes);
    EXPECT_TRUE(events[0].bSent && !events[0].bNotify);
    EXPECT_EQ(events[0].pMore->strText, std::string("ask\0", 4));
    EXPECT_TRUE(!events[1].bSent && events[1].bNotify);
    EXPECT_EQ(events[1].pMore->strText, "told");
}

TEST_F(Patience, BytesPassUnseenWithoutATrace) {
    ExpectEnd(With(kLong, [](CPatience& patience) { patience.Passed(true, "ask", 3); }),
              EEnd::kNone);
}

}  // namespace
