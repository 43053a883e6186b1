#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include "VzDBAccess/DBSession.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "VzDBAccess/DBCore.h"
#include "VzDBAccess/DBDriver.h"

namespace {

bool IsOpen(int h) { return fcntl(h, F_GETFD) != -1; }

// A session that reads a duplicate of the standard error's descriptor, whose number h gets.
std::shared_ptr<CDBSession> Reading(int& h) {
    auto pSession = std::make_shared<CDBSession>();
    EXPECT_TRUE(pSession->Duplicate(2));
    h = pSession->ReceiveSocket();
    return pSession;
}

TEST(Session, ReadsADescriptorOfItsOwn) {
    int h = -1;
    const auto pSession = Reading(h);
    EXPECT_NE(h, 2);
    EXPECT_TRUE(IsOpen(h));
    EXPECT_EQ(fcntl(h, F_GETFD), FD_CLOEXEC);
}

TEST(Session, HasNothingToReadWithoutAConnection) {
    CDBSession session;
    EXPECT_FALSE(session.Duplicate(-1));
    EXPECT_EQ(session.ReceiveSocket(), -1);
}

TEST(Session, BeginsAliveAndNotParked) {
    const CDBSession session;
    EXPECT_FALSE(session.Ended());
    EXPECT_FALSE(session.Parked());
}

TEST(Session, EndsForOneCallerOnly) {
    CDBSession session;
    EXPECT_TRUE(session.End());
    EXPECT_FALSE(session.End());
    EXPECT_TRUE(session.Ended());
}

TEST(Session, ThreadThatParksFirstIsSeenByTheEnding) {
    CDBSession session;
    EXPECT_TRUE(session.Park());
    EXPECT_TRUE(session.End());
    EXPECT_TRUE(session.Parked());
    session.Unpark();
    EXPECT_FALSE(session.Parked());
}

TEST(Session, EndingThatComesFirstKeepsTheThreadFromParking) {
    CDBSession session;
    EXPECT_TRUE(session.End());
    EXPECT_FALSE(session.Park());
    EXPECT_FALSE(session.Parked());
}

TEST(Session, ClosesItsDescriptorWithItsLastHolder) {
    int h = -1;
    auto pOne = Reading(h);
    auto pTwo = pOne;
    pOne.reset();
    EXPECT_TRUE(IsOpen(h));
    pTwo.reset();
    EXPECT_FALSE(IsOpen(h));
}

TEST(Session, EndingLeavesTheDescriptorOpen) {
    int h = -1;
    const auto pSession = Reading(h);
    pSession->End();
    EXPECT_TRUE(IsOpen(h));
    EXPECT_EQ(pSession->ReceiveSocket(), h);
}

TEST(Session, InAForkedChildIsEndedAndClosed) {
    int h = -1;
    const auto pSession = Reading(h);
    pSession->Park();
    pSession->ForkedChild();
    EXPECT_TRUE(pSession->Ended());
    EXPECT_FALSE(pSession->Parked());
    EXPECT_FALSE(IsOpen(h));
    EXPECT_EQ(pSession->ReceiveSocket(), -1);
}

TEST(Session, KeepsRetiredDriversInMemory) {
    CDBCore* pCore = new CDBCore;
    {
        CDBSession session;
        std::map<CString, SNDrvInfoEx> drivers;
        CDBDriver* pDriver = new CDBDriver(pCore, &session, 0, CString("D"));
        drivers[CString("D")].pDriver = pDriver;
        session.Retire(drivers);
        EXPECT_TRUE(drivers.empty());
        EXPECT_EQ(pDriver->m_strDriver, "D");
    }
    pCore->LetGo();
}

// A mutex stands for the interpreter lock: the ending holds it, and must not wait for a thread that
// waits for it. Whichever comes second sees the first, so the ending is never left waiting and a
// thread that got the lock after the end never calls.
TEST(Session, ParkAndEndNeverMissEachOther) {
    int nParkedSeen = 0;
    int nGoneSeen = 0;
    for (int i = 0; i < 100; ++i) {
        CDBSession session;
        std::mutex interpreter;
        std::atomic<bool> bGone{false};
        std::atomic<bool> bEnded{false};
        bool bLateCall = false;
        std::thread receiver([&] {
            while (!session.Ended()) {
                if (!session.Park()) break;
                {
                    std::lock_guard<std::mutex> lock(interpreter);
                    if (session.Ended()) {
                        // nothing of the session is touched
                    } else if (bEnded) {
                        bLateCall = true;
                    }
                }
                session.Unpark();
                std::this_thread::yield();
            }
            bGone = true;
        });
        {
            for (int n = 0; n < i % 50; ++n) std::this_thread::yield();
            std::lock_guard<std::mutex> lock(interpreter);
            session.End();
            bEnded = true;
            if (session.Parked()) {
                ++nParkedSeen;
            } else {
                // Bounded: a thread that is not parked never waits for the lock we hold.
                for (int n = 0; !bGone && n < 20000; ++n) usleep(1000);
                EXPECT_TRUE(bGone);
                ++nGoneSeen;
            }
        }
        receiver.join();
        EXPECT_FALSE(bLateCall);
    }
    EXPECT_EQ(nParkedSeen + nGoneSeen, 100);
}

// Both at the same moment, over and over: the thread may not get leave to wait for the lock while
// the ending takes it for one that is on its way out.
TEST(Session, ParkAndEndAtTheSameMomentSeeEachOther) {
    constexpr int kRounds = 20000;
    std::vector<std::unique_ptr<CDBSession>> sessions;
    for (int i = 0; i < kRounds; ++i) sessions.push_back(std::make_unique<CDBSession>());
    std::atomic<int> nReceiver{-1};
    std::atomic<int> nEnding{-1};
    // Comes to a round together with the other side.
    const auto Meet = [](std::atomic<int>& nMine, const std::atomic<int>& nOther, int i) {
        nMine = i;
        for (int nSpins = 0; nOther < i; ++nSpins) {
            if (nSpins > 1000) std::this_thread::yield();
        }
    };
    std::vector<char> mayWait(kRounds);
    std::thread receiver([&] {
        for (int i = 0; i < kRounds; ++i) {
            Meet(nReceiver, nEnding, i);
            for (volatile int n = 0; n < i % 17; n = n + 1) {
            }
            mayWait[static_cast<size_t>(i)] = sessions[static_cast<size_t>(i)]->Park();
        }
    });
    std::vector<char> seen(kRounds);
    for (int i = 0; i < kRounds; ++i) {
        Meet(nEnding, nReceiver, i);
        for (volatile int n = 0; n < i % 13; n = n + 1) {
        }
        sessions[static_cast<size_t>(i)]->End();
        seen[static_cast<size_t>(i)] = sessions[static_cast<size_t>(i)]->Parked();
    }
    receiver.join();
    int nMissed = 0;
    for (size_t i = 0; i < kRounds; ++i) nMissed += mayWait[i] && !seen[i];
    EXPECT_EQ(nMissed, 0);
}

}  // namespace
