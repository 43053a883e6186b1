// The bounded queue of events, and the routes by which events find their queues.
#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ProcessState.h"
#include "vzclient/Feed.h"

namespace {

using EOverflow = CFeed::EOverflow;
using EKind = SEvent::EKind;

// What an event says, as a short text: "3=7" for tag 3's value 7, "alarm 5" by its time, the news.
std::string Said(const SEvent& event, const std::vector<std::unique_ptr<CWatchedTag>>& tags) {
    if (event.eKind == EKind::kAlarm) return "alarm " + std::to_string(event.pMore->alarm.almtm);
    if (event.eKind != EKind::kChange) return event.pMore->strText;
    size_t nTag = 0;
    while (nTag < tags.size() && tags[nTag].get() != event.pTag) ++nTag;
    const std::string strValue = event.value.vt == VT_STR
                                     ? std::string(event.value.pStrVal->c_str())
                                     : std::to_string(event.value.lVal);
    return std::to_string(nTag) + "=" + strValue;
}

class Feed : public ::testing::Test {
  protected:
    Feed() {
        for (int i = 0; i < 10; ++i) {
            tags.push_back(std::make_unique<CWatchedTag>(nullptr, nullptr));
        }
    }
    void Change(CFeed& feed, size_t nTag, const XVariant& value, uint32_t nToken = 0) {
        SEvent event;
        event.pTag = tags[nTag].get();
        event.value = value;
        event.nToken = nToken;
        feed.Push(std::move(event));
    }
    static void Alarm(CFeed& feed, unsigned nTime, uint32_t nToken = 0) {
        SEvent event;
        event.eKind = EKind::kAlarm;
        event.nToken = nToken;
        event.pMore = std::make_unique<SEvent::SMore>();
        event.pMore->alarm.almtm = nTime;
        feed.Push(std::move(event));
    }
    // All that is in a feed, taken out of it.
    std::vector<std::string> Taken(CFeed& feed, size_t nMax = 1000) {
        std::vector<SEvent> events;
        feed.Take(events, nMax);
        std::vector<std::string> said;
        for (const SEvent& event : events) said.push_back(Said(event, tags));
        return said;
    }
    static bool IsReadable(const CFeed& feed) {
        pollfd fd{feed.Descriptor(), POLLIN, 0};
        return poll(&fd, 1, 0) == 1;
    }
    using Texts = std::vector<std::string>;

    std::vector<std::unique_ptr<CWatchedTag>> tags;
};

// ---- In and out ---------------------------------------------------------------------------------

TEST_F(Feed, EventsComeOutInTheirOrder) {
    CFeed feed(10, EOverflow::kLatest);
    Change(feed, 0, 1);
    Alarm(feed, 5);
    feed.PushNews("slow");
    Change(feed, 0, 2);
    EXPECT_EQ(feed.Size(), 4u);
    EXPECT_EQ(Taken(feed), (Texts{"0=1", "alarm 5", "slow", "0=2"}));
    EXPECT_EQ(feed.Size(), 0u);
    EXPECT_EQ(feed.Dropped(), 0u);
}

TEST_F(Feed, TakeGivesAtMostWhatIsAskedForAndTheRestNextTime) {
    CFeed feed(10, EOverflow::kOldest);
    for (int i = 0; i < 5; ++i) Change(feed, 0, i);
    EXPECT_EQ(Taken(feed, 2), (Texts{"0=0", "0=1"}));
    EXPECT_EQ(Taken(feed, 3), (Texts{"0=2", "0=3", "0=4"}));
    EXPECT_EQ(Taken(feed, 3), Texts{});
}

TEST_F(Feed, TakeEmptiesWhatItIsGiven) {
    CFeed feed(10, EOverflow::kOldest);
    std::vector<SEvent> events(3);
    EXPECT_TRUE(feed.Take(events, 5));
    EXPECT_TRUE(events.empty());
}

TEST_F(Feed, EventKeepsAllItsFields) {
    CFeed feed(10, EOverflow::kLatest);
    SEvent event;
    event.eKind = EKind::kBytes;
    event.bResynced = event.bSent = event.bNotify = true;
    event.nToken = 7;
    event.nTimeUs = 1234567890123456;
    event.pMore = std::make_unique<SEvent::SMore>();
    event.pMore->strText = "bytes";
    feed.Push(std::move(event));
    std::vector<SEvent> events;
    ASSERT_TRUE(feed.Take(events, 1));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].eKind, EKind::kBytes);
    EXPECT_TRUE(events[0].bResynced && events[0].bSent && events[0].bNotify);
    EXPECT_EQ(events[0].nToken, 7u);
    EXPECT_EQ(events[0].nTimeUs, 1234567890123456);
    EXPECT_EQ(events[0].pMore->strText, "bytes");
}

TEST_F(Feed, NewsBearTheirTokenAndTime) {
    CFeed feed(10, EOverflow::kLatest);
    const int64_t nBefore = NowUs();
    feed.PushNews("state", 9);
    std::vector<SEvent> events;
    feed.Take(events, 1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].eKind, EKind::kNews);
    EXPECT_EQ(events[0].nToken, 9u);
    EXPECT_GE(events[0].nTimeUs, nBefore);
    EXPECT_LE(events[0].nTimeUs, NowUs());
}

// ---- Oldest -------------------------------------------------------------------------------------

TEST_F(Feed, OldestKeepsAllUpToItsCapacity) {
    CFeed feed(3, EOverflow::kOldest);
    for (int i = 0; i < 3; ++i) Change(feed, 0, i);
    EXPECT_EQ(feed.Dropped(), 0u);
    EXPECT_EQ(Taken(feed), (Texts{"0=0", "0=1", "0=2"}));
}

TEST_F(Feed, OldestDropsTheOldestForOneMoreWhateverItIs) {
    CFeed feed(3, EOverflow::kOldest);
    Alarm(feed, 1);
    for (int i = 0; i < 3; ++i) Change(feed, 0, i);
    EXPECT_EQ(feed.Dropped(), 1u);
    Alarm(feed, 2);
    EXPECT_EQ(feed.Dropped(), 2u);
    EXPECT_EQ(Taken(feed), (Texts{"0=1", "0=2", "alarm 2"}));
}

TEST_F(Feed, OldestDropsNewsOnlyWhenThereIsNothingElse) {
    CFeed feed(3, EOverflow::kOldest);
    feed.PushNews("lost");
    for (int i = 0; i < 5; ++i) Change(feed, 0, i);
    feed.PushNews("live");
    EXPECT_EQ(Taken(feed), (Texts{"lost", "0=4", "live"}));
    for (const char* sz : {"a", "b", "c", "d"}) feed.PushNews(sz);
    EXPECT_EQ(Taken(feed), (Texts{"b", "c", "d"}));
}

TEST_F(Feed, CapacityOfNoneIsOne) {
    CFeed feed(0, EOverflow::kOldest);
    Change(feed, 0, 1);
    Change(feed, 1, 2);
    EXPECT_EQ(Taken(feed), Texts{"1=2"});
}

// ---- Latest -------------------------------------------------------------------------------------

TEST_F(Feed, LatestKeepsAllUpToItsCapacity) {
    CFeed feed(4, EOverflow::kLatest);
    for (int i = 0; i < 4; ++i) Change(feed, 0, i);
    EXPECT_EQ(feed.Dropped(), 0u);
    EXPECT_EQ(Taken(feed), (Texts{"0=0", "0=1", "0=2", "0=3"}));
}

TEST_F(Feed, LatestKeepsOfEachTagTheNewestValueForOneMore) {
    CFeed feed(4, EOverflow::kLatest);
    Change(feed, 0, 1);
    Change(feed, 1, "first");
    Change(feed, 0, 2);
    Change(feed, 1, "a text that is longer than any that fits inside");
    Change(feed, 2, 3);
    EXPECT_EQ(feed.Dropped(), 2u);
    EXPECT_EQ(Taken(feed),
              (Texts{"0=2", "1=a text that is longer than any that fits inside", "2=3"}));
}

TEST_F(Feed, TokensOfOneTagAreKeptApart) {
    CFeed feed(2, EOverflow::kLatest);
    Change(feed, 0, 1, 1);
    Change(feed, 0, 1, 2);
    Change(feed, 0, 2, 1);
    Change(feed, 0, 2, 2);
    Change(feed, 0, 3, 1);
    std::vector<SEvent> events;
    feed.Take(events, 10);
    std::vector<std::pair<uint32_t, int>> told;
    for (const SEvent& event : events) told.emplace_back(event.nToken, event.value.lVal);
    EXPECT_EQ(told, (std::vector<std::pair<uint32_t, int>>{{1, 2}, {2, 2}, {1, 3}}));
}

TEST_F(Feed, LatestHasAPlaceForEachOfMoreTagsThanItsCapacity) {
    CFeed feed(3, EOverflow::kLatest);
    for (int nValue = 0; nValue < 20; ++nValue) {
        for (size_t i = 0; i < 8; ++i) Change(feed, i, nValue);
    }
    EXPECT_LE(feed.Size(), 16u);
    const size_t nIn = feed.Size();
    EXPECT_EQ(nIn + feed.Dropped(), 160u);
    Texts said = Taken(feed);
    ASSERT_GE(said.size(), 8u);
    said.erase(said.begin(), said.end() - 8);
    EXPECT_EQ(said, (Texts{"0=19", "1=19", "2=19", "3=19", "4=19", "5=19", "6=19", "7=19"}));
}

TEST_F(Feed, LatestHoldsTwiceAsManyEventsAsTagsAndNotOneMore) {
    CFeed feed(1, EOverflow::kLatest);
    for (size_t i = 0; i < 5; ++i) Change(feed, i, 0);
    size_t nMost = 0;
    for (int i = 0; i < 100; ++i) {
        Change(feed, static_cast<size_t>(i % 5), i);
        nMost = std::max(nMost, feed.Size());
    }
    EXPECT_EQ(nMost, 10u);
}

TEST_F(Feed, AlarmsAndNewsStayWhileValuesMakeRoom) {
    CFeed feed(5, EOverflow::kLatest);
    Change(feed, 0, 1);
    Alarm(feed, 1);
    feed.PushNews("slow");
    Change(feed, 0, 2);
    Alarm(feed, 2);
    Change(feed, 0, 3);
    EXPECT_EQ(feed.Dropped(), 1u);
    EXPECT_EQ(Taken(feed), (Texts{"alarm 1", "slow", "0=2", "alarm 2", "0=3"}));
}

TEST_F(Feed, NewestValueStaysWhenAlarmsFillTheFeed) {
    CFeed feed(4, EOverflow::kLatest);
    Change(feed, 0, 7);
    for (unsigned i = 0; i < 9; ++i) Alarm(feed, i);
    EXPECT_EQ(feed.Dropped(), 6u);
    EXPECT_EQ(Taken(feed), (Texts{"0=7", "alarm 6", "alarm 7", "alarm 8"}));
}

TEST_F(Feed, AlarmsAloneDropTheOldest) {
    CFeed feed(2, EOverflow::kLatest);
    for (unsigned i = 0; i < 5; ++i) Alarm(feed, i);
    EXPECT_EQ(feed.Dropped(), 3u);
    EXPECT_EQ(Taken(feed), (Texts{"alarm 3", "alarm 4"}));
}

// A walk over a full feed costs as much as the feed is long, so there must not be one for each
// push.
TEST_F(Feed, FeedFullOfAlarmsMakesRoomForASixteenthAtATime) {
    CFeed feed(1600, EOverflow::kLatest);
    for (size_t i = 0; i < 10; ++i) Change(feed, i, 5);
    for (unsigned i = 0; i < 1590; ++i) Alarm(feed, i);
    EXPECT_EQ(feed.Dropped(), 0u);
    int nWalks = 0;
    for (unsigned i = 1590; i < 11590; ++i) {
        const uint64_t nBefore = feed.Dropped();
        Alarm(feed, i);
        if (feed.Dropped() == nBefore) continue;
        ++nWalks;
        EXPECT_EQ(feed.Dropped() - nBefore, 100u);
        EXPECT_EQ(feed.Size(), 1501u);
    }
    EXPECT_EQ(nWalks, 100);
    EXPECT_EQ(feed.Size(), 1600u);
    const Texts said = Taken(feed, 2000);
    ASSERT_EQ(said.size(), 1600u);
    EXPECT_EQ(said[0], "0=5");
    EXPECT_EQ(said[9], "9=5");
    EXPECT_EQ(said[10], "alarm 10000");
    EXPECT_EQ(said.back(), "alarm 11589");
}

TEST_F(Feed, RoomThatIsMadeIsOneEventAtLeast) {
    for (const size_t nCapacity : {1u, 16u, 31u, 32u, 47u, 48u}) {
        CFeed feed(nCapacity, EOverflow::kLatest);
        for (unsigned i = 0; i <= nCapacity; ++i) Alarm(feed, i);
        EXPECT_EQ(feed.Dropped(), std::max<size_t>(nCapacity / 16, 1)) << nCapacity;
    }
}

// What a feed must hold, whatever came in which order and was taken when: of each tag and token the
// newest value, and of all else the newest without a gap.
TEST_F(Feed, LatestHoldsTheNewestInAnyOrderOfEvents) {
    std::mt19937 random(7);
    const auto below = [&](size_t n) { return random() % n; };
    for (int nRound = 0; nRound < 200; ++nRound) {
        const size_t nCapacity = 1 + below(80);
        const size_t nTags = 1 + below(10);
        const size_t nAlarmsIn10 = below(11);
        CFeed feed(nCapacity, EOverflow::kLatest);
        std::deque<std::string> alarms;                     // not taken, oldest first
        std::map<std::pair<size_t, uint32_t>, int> newest;  // not taken
        uint64_t nPushed = 0;
        uint64_t nTaken = 0;
        const auto take = [&](size_t nMax) {
            std::vector<SEvent> events;
            feed.Take(events, nMax);
            nTaken += events.size();
            bool bFirst = true;
            for (const SEvent& event : events) {
                const std::string str = Said(event, tags);
                if (event.eKind == EKind::kAlarm) {
                    // Those before the first one have been displaced.
                    while (bFirst && !alarms.empty() && alarms.front() != str) alarms.pop_front();
                    bFirst = false;
                    ASSERT_FALSE(alarms.empty());
                    ASSERT_EQ(alarms.front(), str);
                    alarms.pop_front();
                    continue;
                }
                const auto it = newest.find({std::stoul(str), event.nToken});
                if (it != newest.end() && it->second == event.value.lVal) newest.erase(it);
            }
        };
        for (int i = 0; i < 1000; ++i, ++nPushed) {
            const bool bFits = feed.Size() < nCapacity;
            const uint64_t nDropped = feed.Dropped();
            if (below(10) < nAlarmsIn10) {
                Alarm(feed, static_cast<unsigned>(i));
                alarms.push_back("alarm " + std::to_string(i));
            } else {
                const size_t nTag = below(nTags);
                const uint32_t nToken = static_cast<uint32_t>(below(2));
                Change(feed, nTag, i, nToken);
                newest[{nTag, nToken}] = i;
            }
            if (bFits) {
                ASSERT_EQ(feed.Dropped(), nDropped);
            }
            const size_t nMost = std::max(nCapacity, 4 * nTags);
            ASSERT_LE(feed.Size(), nMost);
            if (below(50) == 0) take(below(nCapacity));
            ASSERT_EQ(feed.Size() + feed.Dropped() + nTaken, nPushed + 1);
            if (::testing::Test::HasFatalFailure()) return;
        }
        take(10000);
        if (::testing::Test::HasFatalFailure()) return;
        EXPECT_TRUE(newest.empty());
        EXPECT_TRUE(alarms.empty());
    }
}

TEST_F(Feed, FeedThatWasEmptiedHasItsCapacityAgain) {
    CFeed feed(2, EOverflow::kLatest);
    for (size_t i = 0; i < 8; ++i) Change(feed, i, 0);
    EXPECT_EQ(Taken(feed).size(), 8u);
    for (int i = 0; i < 4; ++i) Change(feed, 0, i);
    EXPECT_EQ(Taken(feed), (Texts{"0=2", "0=3"}));
}

// ---- The descriptor -----------------------------------------------------------------------------

TEST_F(Feed, DescriptorIsReadableExactlyWhileThereIsSomething) {
    CFeed feed(2, EOverflow::kOldest);
    EXPECT_FALSE(IsReadable(feed));
    for (int i = 0; i < 3; ++i) {
        Change(feed, 0, i);
        EXPECT_TRUE(IsReadable(feed));
    }
    Taken(feed, 1);
    EXPECT_TRUE(IsReadable(feed));
    Taken(feed, 1);
    EXPECT_FALSE(IsReadable(feed));
    Taken(feed, 1);
    EXPECT_FALSE(IsReadable(feed));
    feed.PushNews("x");
    EXPECT_TRUE(IsReadable(feed));
}

TEST_F(Feed, DescriptorIsReadableForGoodOnceClosed) {
    CFeed feed(2, EOverflow::kOldest);
    feed.Close();
    EXPECT_TRUE(IsReadable(feed));
    Taken(feed);
    EXPECT_TRUE(IsReadable(feed));
}

TEST_F(Feed, DescriptorIsNotReadableWhenAllWasForgotten) {
    CFeed feed(4, EOverflow::kLatest);
    Change(feed, 0, 1, 5);
    feed.Forget(5);
    EXPECT_FALSE(IsReadable(feed));
    Change(feed, 0, 2);
    EXPECT_TRUE(IsReadable(feed));
}

TEST_F(Feed, DescriptorIsClosedWithTheFeed) {
    const int nBefore = CountDescriptors();
    {
        CFeed feed(1, EOverflow::kOldest);
        EXPECT_EQ(CountDescriptors(), nBefore + 1);
        EXPECT_EQ(fcntl(feed.Descriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    EXPECT_EQ(CountDescriptors(), nBefore);
}

// ---- Close and Forget ---------------------------------------------------------------------------

TEST_F(Feed, ClosedFeedTakesNothingMoreAndGivesWhatIsIn) {
    CFeed feed(4, EOverflow::kLatest);
    Change(feed, 0, 1);
    Change(feed, 0, 2);
    feed.Close();
    Change(feed, 0, 3);
    feed.PushNews("late");
    EXPECT_EQ(feed.Dropped(), 0u);
    std::vector<SEvent> events;
    EXPECT_TRUE(feed.Take(events, 1));
    EXPECT_TRUE(feed.Take(events, 1));
    EXPECT_EQ(events[0].value.lVal, 2);
    EXPECT_FALSE(feed.Take(events, 1));
    EXPECT_TRUE(events.empty());
    EXPECT_FALSE(feed.Take(events, 1));
}

TEST_F(Feed, ForgetRemovesThatTokensEventsAlone) {
    CFeed feed(10, EOverflow::kLatest);
    Change(feed, 0, "one of token 1", 1);
    Change(feed, 1, "one of token 2", 2);
    Alarm(feed, 3, 1);
    feed.PushNews("news", 3);
    Change(feed, 2, 4, 2);
    feed.Forget(1);
    EXPECT_EQ(feed.Size(), 3u);
    EXPECT_EQ(feed.Dropped(), 0u);
    EXPECT_EQ(Taken(feed), (Texts{"1=one of token 2", "news", "2=4"}));
}

TEST_F(Feed, ForgottenEventsLeaveTheirPlaceToOthers) {
    CFeed feed(2, EOverflow::kOldest);
    Change(feed, 0, 1, 1);
    Change(feed, 0, 2, 1);
    feed.Forget(1);
    Change(feed, 0, 3);
    Change(feed, 0, 4);
    EXPECT_EQ(feed.Dropped(), 0u);
    EXPECT_EQ(Taken(feed), (Texts{"0=3", "0=4"}));
}

// ---- Threads ------------------------------------------------------------------------------------

TEST_F(Feed, EventsOfSeveralThreadsGoToSeveralReadersOnce) {
    constexpr int kSenders = 4;
    constexpr int kReaders = 3;
    constexpr int kEach = 2000;
    CFeed feed(kSenders * kEach, EOverflow::kOldest);
    std::vector<std::thread> threads;
    std::atomic<int> nTaken{0};
    std::atomic<int> nSum{0};
    for (int i = 0; i < kReaders; ++i) {
        threads.emplace_back([&] {
            std::vector<SEvent> events;
            for (bool bOpen = true; bOpen;) {
                pollfd fd{feed.Descriptor(), POLLIN, 0};
                poll(&fd, 1, -1);
                bOpen = feed.Take(events, 7);
                nTaken += static_cast<int>(events.size());
                for (const SEvent& event : events) nSum += event.value.lVal;
            }
        });
    }
    std::vector<std::thread> senders;
    for (int i = 0; i < kSenders; ++i) {
        senders.emplace_back([&, i] {
            for (int n = 1; n <= kEach; ++n) Change(feed, static_cast<size_t>(i), n);
        });
    }
    for (std::thread& sender : senders) sender.join();
    feed.Close();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(nTaken, kSenders * kEach);
    EXPECT_EQ(nSum, kSenders * kEach * (kEach + 1) / 2);
}

TEST_F(Feed, LastValueOfEachSenderArrivesHoweverFullTheFeed) {
    constexpr size_t kSenders = 4;
    constexpr int kEach = 3000;
    CFeed feed(3, EOverflow::kLatest);
    std::vector<std::thread> senders;
    for (size_t i = 0; i < kSenders; ++i) {
        senders.emplace_back([&, i] {
            for (int n = 1; n <= kEach; ++n) {
                Change(feed, i, n);
                if (n % 100 == 0) feed.Forget(77);
            }
        });
    }
    std::vector<int> last(kSenders, 0);
    uint64_t nSeen = 0;
    const auto see = [&] {
        std::vector<SEvent> events;
        const bool bOpen = feed.Take(events, 2);
        for (const SEvent& event : events) {
            for (size_t i = 0; i < kSenders; ++i) {
                if (event.pTag != tags[i].get()) continue;
                EXPECT_GT(event.value.lVal, last[i]);
                last[i] = event.value.lVal;
            }
            ++nSeen;
        }
        return bOpen;
    };
    for (int i = 0; i < 500; ++i) see();
    for (std::thread& sender : senders) sender.join();
    feed.Close();
    while (see()) {
    }
    EXPECT_EQ(last, std::vector<int>(kSenders, kEach));
    EXPECT_EQ(nSeen + feed.Dropped(), kSenders * kEach);
}

// ---- Routes -------------------------------------------------------------------------------------

class Routes : public ::testing::Test {
  protected:
    CWatchedTag* Tag(const char* szDriver, const char* szTag) {
        CPyRef driver(PyUnicode_FromString(szDriver));
        CPyRef tag(PyUnicode_FromString(szTag));
        return routes.Tag(driver, tag);
    }
    static SRoute Route(const std::shared_ptr<CFeed>& pTo, uint32_t nToken) {
        return {pTo, nToken};
    }

    CRoutes routes;
    std::shared_ptr<CFeed> pFeed = std::make_shared<CFeed>(10, EOverflow::kLatest);
    std::shared_ptr<CFeed> pOther = std::make_shared<CFeed>(10, EOverflow::kLatest);
};

TEST_F(Routes, TagOfTheSameNamesIsTheSame) {
    CWatchedTag* pTag = Tag("Boiler", "Temp");
    EXPECT_EQ(Tag("Boiler", "Temp"), pTag);
    EXPECT_NE(Tag("Boiler", "Tem"), pTag);
    EXPECT_NE(Tag("BoilerT", "emp"), Tag("Boiler", "Temp"));
    EXPECT_EQ(ReprOf(PyUnicode_FromFormat("%U %U", pTag->driver, pTag->tag)), "'Boiler Temp'");
}

TEST_F(Routes, NameWithoutAUtf8FormIsAnError) {
    CPyRef lone(Eval("'\\ud800'"));
    CPyRef good(Eval("'x'"));
    EXPECT_EQ(routes.Tag(lone, good), nullptr);
    EXPECT_EQ(TakeError(), "UnicodeEncodeError");
    EXPECT_EQ(routes.Tag(good, lone), nullptr);
    EXPECT_EQ(TakeError(), "UnicodeEncodeError");
}

TEST_F(Routes, NamesAreHeldAsLongAsTheRoutes) {
    RunScript("name = 'a name of this test alone ' * 2\n");
    CPyRef name(Eval("name"));
    const Py_ssize_t nBefore = Py_REFCNT(name.Get());
    {
        CRoutes mine;
        EXPECT_NE(mine.Tag(name, name), nullptr);
        EXPECT_NE(mine.Tag(name, name), nullptr);
        EXPECT_EQ(Py_REFCNT(name.Get()), nBefore + 2);
    }
    EXPECT_EQ(Py_REFCNT(name.Get()), nBefore);
}

TEST_F(Routes, WatchedListsTheTagsThatSomeFeedWants) {
    EXPECT_EQ(ReprOf(routes.Watched()), "{}");
    Tag("Boiler", "unwanted");
    Tag("Boiler", "Temp")->routes.push_back(Route(pFeed, 0));
    Tag("Mill", "Speed")->routes.push_back(Route(pFeed, 0));
    Tag("Boiler", "Level")->routes.push_back(Route(pOther, 0));
    CPyRef watched(routes.Watched());
    PyDict_SetItemString(ScriptGlobals(), "watched", watched);
    EXPECT_EQ(Repr("{d: sorted(t) for d, t in sorted(watched.items())}"),
              "{'Boiler': ['Level', 'Temp'], 'Mill': ['Speed']}");
}

TEST_F(Routes, ChangeIsToldToEachRouteOfItsTag) {
    CWatchedTag* pTag = Tag("Boiler", "Temp");
    pTag->value = 42;
    pTag->routes = {Route(pFeed, 1), Route(pFeed, 2), Route(pOther, 3)};
    routes.TellChange(*pTag, 77, true, nullptr);
    std::vector<SEvent> events;
    pFeed->Take(events, 10);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].nToken, 1u);
    EXPECT_EQ(events[1].nToken, 2u);
    EXPECT_EQ(events[1].pTag, pTag);
    EXPECT_EQ(events[1].value.lVal, 42);
    EXPECT_EQ(events[1].nTimeUs, 77);
    EXPECT_TRUE(events[1].bResynced);
    EXPECT_EQ(pOther->Size(), 1u);
}

TEST_F(Routes, ChangeIsToldToOneRouteAlone) {
    CWatchedTag* pTag = Tag("Boiler", "Temp");
    pTag->routes = {Route(pFeed, 1)};
    const SRoute only = Route(pOther, 4);
    routes.TellChange(*pTag, 77, false, &only);
    EXPECT_EQ(pFeed->Size(), 0u);
    EXPECT_EQ(pOther->Size(), 1u);
}

TEST_F(Routes, AlarmIsToldToAllOrToOne) {
    routes.m_alarmRoutes = {Route(pFeed, 1), Route(pOther, 2)};
    S2RtAlarm2 alarm = {};
    alarm.tid = 12;
    routes.TellAlarm(alarm, 5, false, nullptr);
    const SRoute only = Route(pOther, 4);
    routes.TellAlarm(alarm, 6, true, &only);
    std::vector<SEvent> events;
    pOther->Take(events, 10);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].pMore->alarm.tid, 12);
    EXPECT_FALSE(events[0].bResynced);
    EXPECT_EQ(events[1].nToken, 4u);
    EXPECT_TRUE(events[1].bResynced);
    EXPECT_EQ(pFeed->Size(), 1u);
}

TEST_F(Routes, DropEndsTheRoutesOfThatFeedsToken) {
    CWatchedTag* pTag = Tag("Boiler", "Temp");
    pTag->routes = {Route(pFeed, 1), Route(pFeed, 2), Route(pOther, 1)};
    routes.m_alarmRoutes = pTag->routes;
    routes.Drop(pFeed.get(), 1);
    for (const std::vector<SRoute>& left : {pTag->routes, routes.m_alarmRoutes}) {
        ASSERT_EQ(left.size(), 2u);
        EXPECT_EQ(left[0].nToken, 2u);
        EXPECT_EQ(left[1].pFeed, pOther);
    }
}

}  // namespace
