#include "ThreadHelp.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <thread>
#include <type_traits>

namespace {

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point start) {
    const auto d = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    return static_cast<long>(d.count());
}

TEST(Event, WaitOfAnUnsignalledEventLastsItsTimeAndFails) {
    XTEvent event;
    event.Create();
    const auto start = Clock::now();
    EXPECT_FALSE(event.Wait(100));
    EXPECT_GE(MsSince(start), 90);
}

TEST(Event, WaitCountsSecondsAndTheirParts) {
    XTEvent event;
    event.Create();
    const auto start = Clock::now();
    EXPECT_FALSE(event.Wait(1999));  // the parts of a second nearly always carry over
    EXPECT_GE(MsSince(start), 1900);
}

TEST(Event, WaitReturnsAtOnceAfterASignal) {
    XTEvent event;
    event.Create();
    event.Signal();
    EXPECT_TRUE(event.Wait(16000));
    EXPECT_FALSE(event.Wait(0));  // the signal was used up
}

TEST(Event, TwoSignalsLetTwoWaitsPass) {
    XTEvent event;
    event.Create();
    event.Signal();
    event.Signal();
    EXPECT_TRUE(event.Wait(0));
    EXPECT_TRUE(event.Wait(0));
    EXPECT_FALSE(event.Wait(0));
}

TEST(Event, WakesAThreadThatWaits) {
    XTEvent event;
    event.Create();
    std::atomic<bool> bTaken{false};
    std::thread waiter([&] { bTaken = event.Wait(600000); });
    event.Signal();
    waiter.join();
    EXPECT_TRUE(bTaken);
}

TEST(Event, HandsOverWhatWasWrittenBefore) {
    XTEvent event;
    event.Create();
    int nPlain = 0;
    std::thread signaller([&] {
        nPlain = 42;
        event.Signal();
    });
    ASSERT_TRUE(event.Wait(600000));
    EXPECT_EQ(nPlain, 42);
    signaller.join();
}

TEST(Event, SignalAndCloseDoNothingBeforeCreate) {
    XTEvent event;
    event.Signal();
    event.Close();
    event.Signal();
    event.Create();
    EXPECT_FALSE(event.Wait(0));
}

TEST(Event, SecondCreateKeepsTheCount) {
    XTEvent event;
    event.Create();
    event.Signal();
    event.Create();
    EXPECT_TRUE(event.Wait(0));
}

TEST(Event, CloseForgetsSignals) {
    XTEvent event;
    event.Create();
    event.Signal();
    event.Close();
    event.Close();
    event.Signal();  // not created: lost
    event.Create();
    EXPECT_FALSE(event.Wait(0));
}

TEST(Event, LongestWaitIsNoError) {
    XTEvent event;
    event.Create();
    std::atomic<bool> bTaken{false};
    std::thread waiter([&] { bTaken = event.Wait(0xFFFFFFFF); });
    event.Signal();
    waiter.join();
    EXPECT_TRUE(bTaken);
}

TEST(Event, ASignalOfTheSystemEndsAWait) {
    struct sigaction act {};
    act.sa_handler = [](int) {};  // without SA_RESTART
    struct sigaction old;
    sigaction(SIGUSR1, &act, &old);
    XTEvent event;
    event.Create();
    std::atomic<bool> bDone{false}, bTaken{true};
    std::thread waiter([&] {
        bTaken = event.Wait(600000);
        bDone = true;
    });
    while (!bDone) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    waiter.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_FALSE(bTaken);
}

TEST(Event, IsNeverCopied) {
    EXPECT_FALSE(std::is_copy_constructible<XTEvent>::value);
    EXPECT_FALSE(std::is_copy_assignable<XTEvent>::value);
}

class SemaphoreWait : public ::testing::Test {
  protected:
    SemaphoreWait() { sem_init(&m_sem, 0, 0); }
    ~SemaphoreWait() override { sem_destroy(&m_sem); }
    sem_t m_sem;
};

TEST_F(SemaphoreWait, GivesZeroWhenTaken) {
    sem_post(&m_sem);
    EXPECT_EQ(XTEvent::sem_timedwait_millsecs(&m_sem, 16000), 0);
}

TEST_F(SemaphoreWait, TellsATimeOut) {
    // Every part of a second is tried, so that each carry is.
    for (long nMs = 0; nMs < 40; ++nMs) {
        errno = 0;
        EXPECT_EQ(XTEvent::sem_timedwait_millsecs(&m_sem, nMs), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
    }
}

TEST_F(SemaphoreWait, OfANegativeTimeDoesNotWait) {
    EXPECT_EQ(XTEvent::sem_timedwait_millsecs(&m_sem, -1), -1);
    EXPECT_EQ(XTEvent::sem_timedwait_millsecs(&m_sem, -100000), -1);
}

TEST_F(SemaphoreWait, TakesTheLongestTimes) {
    for (long nMs : {0x7FFFFFFFL, LONG_MAX}) {
        int nResult = -1;
        std::thread waiter([&] { nResult = XTEvent::sem_timedwait_millsecs(&m_sem, nMs); });
        sem_post(&m_sem);
        waiter.join();
        EXPECT_EQ(nResult, 0) << nMs;
    }
}

}  // namespace
