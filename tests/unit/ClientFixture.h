// A session of the package vzclient with a scripted server: the fixture under its tests.
#pragma once

#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ScriptedSession.h"
#include "vzclient/Session.h"

// A plant whose server does what a test orders, and a session that is not connected yet.
class CClientFixture : public ::testing::Test {
  protected:
    using EResult = CSession::EResult;
    using EEnd = CPatience::EEnd;
    using Texts = std::vector<std::string>;

    CClientFixture() {
        RemoveTree(CacheFolder());
        m_nThreads = CountThreads();
        MakeSession(nullptr);
    }
    ~CClientFixture() override {
        Unlocked([this] { session.reset(); });
        EXPECT_TRUE(FallsTo(CountThreads, m_nThreads)) << "a thread outlived its session";
        RemoveTree(CacheFolder());
        EXPECT_EQ(TakeError(), "");
    }
    void MakeSession(const std::shared_ptr<CFeed>& pTrace) {
        Unlocked([this] { session.reset(); });
        session = std::make_unique<CSession>(pRoutes, pNews, pTrace);
    }
    std::string CacheFolder() const {
        return "/tmp/vzbrowser/127.0.0.1_" + std::to_string(server.Port());
    }

    // Runs body(patience) as a method of the package does: without the interpreter lock. eSaid gets
    // what its patience says.
    template <typename TBody>
    EResult DoAs(EEnd& eSaid, double fSeconds, TBody body) {
        PyThreadState* state = PyEval_SaveThread();
        CPatience patience(DeadlineNs(fSeconds), state, session->Over(), session->Trace());
        const EResult eResult = body(patience);
        PyEval_RestoreThread(state);
        eSaid = patience.End();
        return eResult;
    }
    template <typename TBody>
    EResult Do(TBody body, double fSeconds = 60) {
        return DoAs(eEnd, fSeconds, body);
    }
    // A thread that runs fn with the interpreter lock, as one of a script does.
    template <typename TFunction>
    static std::thread ScriptThread(TFunction fn) {
        return std::thread([fn] {
            const PyGILState_STATE state = PyGILState_Ensure();
            fn();
            PyGILState_Release(state);
        });
    }

    // The orders of the login's steps.
    void OrderHellos() {
        server.Accept();
        server.Take(0, &strHello);
        server.Send(0, "7");
        server.Accept();
        server.Take(1, &strNotifyHello);
        server.Send(1, Scramble(plant.NotifyReply()));
    }
    void OrderUser() {
        server.Expect(0, plant.LoginRequest());
        server.Send(0, plant.strLoginReply);
    }
    void OrderLogin() {
        OrderHellos();
        OrderUser();
        server.Expect(0, kFirstDrvInfoRequest);
        server.Send(0, plant.DrvInfoReply());
    }
    int ConnectTo(const std::string& strHost, double fSeconds = 60) {
        int nResult = 1;
        (void)Do(
            [&](CPatience& patience) {
                nResult =
                    session->Connect(strHost.c_str(), inet_addr("127.0.0.1"), plant.strUser.c_str(),
                                     plant.strPassword.c_str(), patience);
                return EResult::kDone;
            },
            fSeconds);
        return nResult;
    }
    int Connect(double fSeconds = 60) { return ConnectTo(server.Host(), fSeconds); }
    void LogIn() {
        OrderLogin();
        ASSERT_EQ(Connect(), kConnected);
        ASSERT_TRUE(server.Done());
    }
    void OnRequest(const std::string& strRequest, const std::string& strReply) {
        server.Expect(0, strRequest);
        server.Send(0, strReply);
    }

    // ---- Operations on driver 0 ----

    EResult LookUp(const Texts& names, double fSeconds = 60) {
        return Do([&](CPatience& p) { return session->LookUp(*session->Driver(0), names, ids, p); },
                  fSeconds);
    }
    EResult Read(const std::vector<WORD>& tags, double fSeconds = 60) {
        strValues.clear();
        return Do(
            [&](CPatience& p) {
                return session->Read(*session->Driver(0), tags.data(), tags.size(), strValues, p);
            },
            fSeconds);
    }
    EResult Write(const std::vector<CSession::SWrite>& writes, double fSeconds = 60) {
        return Do([&](CPatience& p) { return session->Write(*session->Driver(0), writes, p); },
                  fSeconds);
    }
    // The watched tag of an id of driver 0.
    CWatchedTag* Tag(WORD nId) {
        CPyRef driver(PyUnicode_FromString(("driver" + std::to_string(server.Port())).c_str()));
        CPyRef name(PyUnicode_FromFormat("T%d", nId));
        return pRoutes->Tag(driver, name);
    }
    EResult Watch(const std::vector<WORD>& tagIds, const SRoute* pRoute, double fSeconds = 60) {
        std::vector<CWatchedTag*> tags;
        for (const WORD nId : tagIds) tags.push_back(Tag(nId));
        return WatchTags(tags, tagIds, pRoute, fSeconds);
    }
    EResult WatchTags(const std::vector<CWatchedTag*>& tags, const std::vector<WORD>& tagIds,
                      const SRoute* pRoute, double fSeconds = 60) {
        return Do(
            [&](CPatience& p) {
                return session->Watch(*session->Driver(0), tags, tagIds, pRoute, p);
            },
            fSeconds);
    }
    EResult WatchAlarms(const SRoute* pRoute, bool bExisting, double fSeconds = 60) {
        return Do([&](CPatience& p) { return session->WatchAlarms(pRoute, bExisting, p); },
                  fSeconds);
    }
    EResult Probe(double fSeconds = 60) {
        return Do([&](CPatience& p) { return session->Probe(p); }, fSeconds);
    }

    // ---- Bytes of the wire, for driver 0 ----

    static std::string LookupRequest(const Texts& names) {
        std::string str = "L";
        for (const std::string& strName : names) str += U16(0) + Z(strName);
        return str;
    }
    static std::string LookupReply(const std::vector<unsigned>& tagIds) {
        std::string str = "L";
        for (const unsigned nId : tagIds) str += U16(nId) + Hex("EE EE");
        return str;
    }
    // Of tags nFirst to nFirst + nTags - 1.
    static std::string ReadRequest(unsigned nFirst, unsigned nTags) {
        std::string str = "H" + U16(nTags);
        for (unsigned i = 0; i < nTags; ++i) str += U16(0) + U16(nFirst + i);
        return str;
    }
    static std::string WatchRequest(unsigned nFirst, unsigned nTags) {
        std::string str = "b" + U16(nTags);
        for (unsigned i = 0; i < nTags; ++i) str += U16(0) + U16(nFirst + i) + U8(0);
        return str;
    }
    static std::string ReadChunk(bool bMore, const std::string& strBytes) {
        return "H" + U8(bMore) + U16(static_cast<unsigned>(strBytes.size())) + strBytes;
    }
    static std::string WatchChunk(const std::string& strBytes) {
        return "b" + U16(static_cast<unsigned>(strBytes.size())) + strBytes;
    }
    static std::string Change(unsigned nTag, const std::string& strValue) {
        return U16(0) + U16(nTag) + strValue;
    }

    // ---- What is told ----

    // Waits until this many events are in a feed, and tells them: "name=value", with "again " when
    // resynced; "alarm tag"; the news.
    Texts Told(CFeed& from, size_t nEvents) {
        EXPECT_TRUE(WaitFor([&] { return from.Size() >= nEvents; })) << from.Size();
        std::vector<SEvent> events;
        from.Take(events, 10000);
        Texts told;
        for (const SEvent& event : events) {
            std::string str = event.bResynced ? "again " : "";
            if (event.eKind == SEvent::EKind::kAlarm) {
                str += "alarm " + std::to_string(event.pMore->alarm.tid);
            } else if (event.eKind == SEvent::EKind::kChange) {
                CString strValue;
                event.value.ToStringA(strValue, -1);
                str += PyUnicode_AsUTF8(event.pTag->tag) + ("=" + strValue);
            } else {
                str += event.pMore->strText;
            }
            told.push_back(str);
        }
        return told;
    }
    // The session is over and said this of it.
    void ExpectOver(const std::string& strNews) {
        EXPECT_EQ(Told(*pNews, 1), Texts{strNews});
        EXPECT_TRUE(session->Over());
    }
    void ExpectLive() {
        EXPECT_FALSE(session->Over());
        EXPECT_EQ(Told(*pNews, 0), Texts{});
        EXPECT_TRUE(server.Done());
        EXPECT_EQ(server.Unread(0), "");
    }

    SPlant plant;
    std::string strHello;
    std::string strNotifyHello;
    CScriptedServer server;
    std::shared_ptr<CRoutes> pRoutes = std::make_shared<CRoutes>();
    std::shared_ptr<CFeed> pNews = std::make_shared<CFeed>(100, CFeed::EOverflow::kOldest);
    std::shared_ptr<CFeed> pFeed = std::make_shared<CFeed>(10000, CFeed::EOverflow::kOldest);
    std::unique_ptr<CSession> session;
    EEnd eEnd = EEnd::kNone;
    std::vector<WORD> ids;
    std::string strValues;

  private:
    int m_nThreads;  // of this process, before any session
};
