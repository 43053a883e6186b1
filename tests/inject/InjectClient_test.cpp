// The same along what a program does with a session of vzclient: each time it either goes well or
// the session has ended, and nothing is left behind.
#include "Faulty.h"

// The interpreter's header comes first, as it asks for.
#include <arpa/inet.h>

#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "vzclient/Objects.h"
#include "vzclient/Values.h"

namespace {

using EResult = CSession::EResult;

// A program with a session, in this process. All calls of the library meet faults.
class CClient {
  public:
    ~CClient() { Drop(); }
    void Make() {
        const CCalling calling;
        pRoutes = std::make_shared<CRoutes>();
        pFeed = std::make_shared<CFeed>(1000, CFeed::EOverflow::kLatest);
        pSession = std::make_unique<CSession>(
            pRoutes, std::make_shared<CFeed>(10, CFeed::EOverflow::kOldest), nullptr);
    }
    void Drop() {
        const CCalling calling;
        Unlocked([this] { pSession.reset(); });
        pFeed.reset();
        pRoutes.reset();
    }
    // Runs an operation; "done", or what came of it.
    template <typename TBody>
    std::string Do(TBody body) {
        const CCalling calling;
        CPatience::EEnd eEnd;
        std::string str = "MemoryError";
        try {
            const EResult eResult = Operate(*pSession, DeadlineNs(20), eEnd, body);
            if (eResult == EResult::kDone) return "done";
            str = eResult == EResult::kFailed ? "failed" : "short";
        } catch (const std::bad_alloc&) {
        }
        return pSession->Over() ? str : str + ", and lives";
    }
    std::string Connect(const std::string& strHost) {
        int nResult = 1;
        const std::string str = Do([&](CPatience& patience) {
            nResult = pSession->Connect(strHost.c_str(), inet_addr("127.0.0.1"), "user", "password",
                                        patience);
            return EResult::kDone;
        });
        return str == "done" ? std::to_string(nResult) : str;
    }
    // Resolves the three tags of the plant and one that it has not.
    std::string LookUp() {
        return Do([&](CPatience& patience) {
            return pSession->LookUp(*pSession->Driver(0),
                                    {"a", "none", "the_flow_of_a_pump", "\xCB\xAE"}, ids, patience);
        });
    }
    std::string Read() {
        std::string strValues;
        std::string str = LookUp();
        if (str != "done") return str;
        const std::vector<WORD> tags = {ids[0], ids[2], ids[3]};
        str = Do([&](CPatience& patience) {
            return pSession->Read(*pSession->Driver(0), tags.data(), 3, strValues, patience);
        });
        if (str != "done") return str;
        Disarm();
        CByteReader reader(static_cast<const void*>(strValues.data()), strValues.size());
        str = ReprOf(TakeValue(reader));
        for (int i = 1; i < 3; ++i) str += " " + ReprOf(TakeValue(reader));
        return str;
    }
    std::string Watch() {
        const std::vector<WORD> tagIds = {0, 1, 2};
        std::vector<CWatchedTag*> tags;
        for (const WORD nId : tagIds) {
            CPyRef name(PyUnicode_FromFormat("T%d", nId));
            tags.push_back(pRoutes->Tag(name, name));
        }
        const SRoute route{pFeed, 0};
        return Do([&](CPatience& patience) {
            return pSession->Watch(*pSession->Driver(0), tags, tagIds, &route, patience);
        });
    }
    std::string WatchAlarms() {
        const SRoute route{pFeed, 0};
        const std::string str =
            Do([&](CPatience& patience) { return pSession->WatchAlarms(&route, true, patience); });
        if (str != "done") return str;
        Disarm();
        std::vector<CString> texts;
        std::vector<CString> names;
        pSession->AlarmTexts(texts, names);
        return str + ", " + std::to_string(pFeed->Size()) + " alarm, " +
               std::to_string(texts.size()) + " texts, " + std::to_string(names.size()) + " names";
    }
    // Pushes changes until one is told or the session is over. What was told must have been sent.
    std::string Told(CPlantServer& server) {
        std::string strEnd;
        int i = 0;
        WaitFor([&] {
            if (i++ % 50 == 3) server.Push(U16(0) + U16(0) + U32(8) + U16(0) + U16(0) + U32(99));
            if (pSession->Over()) strEnd = "lost";
            std::vector<SEvent> events;
            pFeed->Take(events, 1000);
            for (const SEvent& event : events) {
                if (event.value.vt == VT_I4 && event.value.lVal == 99) {
                    strEnd = "told";
                } else if (event.value.vt == VT_I4 && event.value.lVal != 8 &&
                           event.value.lVal != 7) {
                    strEnd = "wrong";
                }
            }
            return !strEnd.empty();
        });
        return strEnd;
    }

    std::unique_ptr<CSession> pSession;
    std::vector<WORD> ids;
    std::shared_ptr<CRoutes> pRoutes;
    std::shared_ptr<CFeed> pFeed;
};

class FaultyClient : public Faulty {
  protected:
    void Connected() {
        client.Make();
        ASSERT_EQ(client.Connect(Host()), "0");
    }
    // The outcome of a step, once the session is gone.
    std::string Dropped(const std::string& strOutcome) {
        client.Drop();
        return strOutcome;
    }

    CClient client;
};

// ---- Feeds --------------------------------------------------------------------------------------

// Pushes events into a feed that overflows. How many came out whole or were counted as dropped must
// be as many as went in, in their order.
std::string Overflowed() {
    std::optional<CFeed> feed;
    CWatchedTag tags[] = {{nullptr, nullptr}, {nullptr, nullptr}};
    size_t nPushed = 0;
    try {
        const CCalling calling;
        feed.emplace(3, CFeed::EOverflow::kLatest);
        for (int i = 0; i < 20; ++i) {
            SEvent event;
            event.nTimeUs = i;
            if (i % 5 == 2) {
                event.eKind = SEvent::EKind::kNews;
                event.pMore = std::make_unique<SEvent::SMore>();
                event.pMore->strText = kText;
            } else {
                event.pTag = &tags[i % 2];
                event.value = kText.c_str();
            }
            ++nPushed;
            feed->Push(std::move(event));
        }
    } catch (const std::bad_alloc&) {  // of the feed itself, or of an event that never was
    }
    Disarm();
    if (!feed) return "whole";
    std::vector<SEvent> events;
    feed->Take(events, 1000);
    int64_t nBefore = -1;
    for (const SEvent& event : events) {
        const bool bNews = event.eKind == SEvent::EKind::kNews;
        if (bNews ? !event.pMore || event.pMore->strText != kText : event.value.vt != VT_STR)
            return "an empty event";
        if (event.nTimeUs <= nBefore) return "another order";
        nBefore = event.nTimeUs;
    }
    return events.size() + feed->Dropped() == nPushed ? "whole" : "not all";
}

TEST_F(FaultyClient, FeedThatOverflows) {
    Torture(
        "client: feed",
        {EWho::kCaller, [] {}, [] { return Overflowed(); }, "whole", {}, false, {EFault::kNew}});
}

// ---- Sessions -----------------------------------------------------------------------------------

TEST_F(FaultyClient, Connect) {
    Torture("client: connect", {EWho::kCaller,
                                [&] {
                                    RemoveTree(Cache());
                                    client.Make();
                                },
                                [&] { return Dropped(client.Connect(Host())); },
                                "0",
                                {"-2", "MemoryError"}});
}

TEST_F(FaultyClient, Read) {
    Torture("client: read", {EWho::kCaller,
                             [&] { Connected(); },
                             [&] { return Dropped(client.Read()); },
                             "7 2.5 '" + kText + "'",
                             {"failed", "MemoryError"}});
}

TEST_F(FaultyClient, Write) {
    Torture("client: write", {EWho::kCaller,
                              [&] { Connected(); },
                              [&] {
                                  return Dropped(client.Do([&](CPatience& patience) {
                                      return client.pSession->Write(
                                          *client.pSession->Driver(0),
                                          {{0, Hex("03 00 05 00 00 00")}, {2, Hex("08 00 41 00")}},
                                          patience);
                                  }));
                              },
                              "done",
                              {"failed", "MemoryError"}});
}

TEST_F(FaultyClient, Watch) {
    Torture("client: watch", {EWho::kCaller,
                              [&] { Connected(); },
                              [&] {
                                  const std::string str = client.Watch();
                                  Disarm();
                                  return Dropped(str == "done" ? client.Told(*s_pServer) : str);
                              },
                              "told",
                              {"failed", "MemoryError"}});
}

TEST_F(FaultyClient, Alarms) {
    // Lists that cannot be read are empty. So are both when the first one's header is cut: what is
    // left of it is taken for the second one's.
    Torture("client: alarms",
            {EWho::kCaller,
             [&] { Connected(); },
             [&] { return Dropped(client.WatchAlarms()); },
             "done, 1 alarm, 2 texts, 2 names",
             {"failed", "MemoryError", "done, 1 alarm, 0 texts, 2 names",
              "done, 1 alarm, 2 texts, 0 names", "done, 1 alarm, 0 texts, 0 names"}});
}

TEST_F(FaultyClient, Notifications) {
    Torture("client: notifications", {EWho::kReceiver,
                                      [&] { client.Make(); },
                                      [&] {
                                          std::string str = client.Connect(Host());
                                          if (str == "0") str = client.Watch();
                                          if (str == "done") str = client.Told(*s_pServer);
                                          return Dropped(str);
                                      },
                                      "told",
                                      {"lost", "failed"}});
}

TEST_F(FaultyClient, End) {
    Torture("client: end",
            {EWho::kCaller, [&] { Connected(); }, [&] { return Dropped("ended"); }, "ended", {}});
}

}  // namespace
