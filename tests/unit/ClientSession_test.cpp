// Operations of a session of vzclient, byte for byte, and how each of them ends.
#include "ClientFixture.h"

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>

#include "BreakingServer.h"

namespace {

const std::string k42 = Hex("03 00 2A 00 00 00");

class ClientConnect : public CClientFixture {};
class ClientSession : public CClientFixture {
  protected:
    void SetUp() override { LogIn(); }
    // Tag 0 is watched for the feed, and changes from 42 to 7.
    void WatchAndChange(const SRoute& route) {
        OnRequest(WatchRequest(0, 1), WatchChunk(k42));
        EXPECT_EQ(Watch({0}, &route), EResult::kDone);
        server.Send(1, Change(0, U32(7)));
        EXPECT_EQ(Told(*pFeed, 2), (Texts{"T0=42", "T0=7"}));
    }
};

// Driver 0 has 1100 tags: a request cannot take them all.
class ClientLimits : public CClientFixture {
  protected:
    void SetUp() override {
        plant.strDrvInfo = Z("Boiler") + U16(0) + U16(1100);
        LogIn();
    }
    static std::vector<WORD> FirstTags(WORD nTags) {
        std::vector<WORD> tags;
        for (WORD i = 0; i < nTags; ++i) tags.push_back(i);
        return tags;
    }
};

// ---- Connect ------------------------------------------------------------------------------------

TEST_F(ClientConnect, LoginTellsProjectRightsAndDrivers) {
    plant.strProject = "\xCB\xAE";
    plant.strDrvInfo = Z("Boiler") + U16(0) + U16(8) + Z("Mill") + U16(5) + U16(3);
    const int64_t nBefore = NowUs();
    LogIn();
    EXPECT_EQ(eEnd, EEnd::kNone);
    EXPECT_EQ(session->HelloResult(), kLoggedIn);
    EXPECT_EQ(session->m_strProject, CString("\xCB\xAE"));
    EXPECT_EQ(session->m_nRights, 8u);
    EXPECT_GE(session->m_nHeardUs, nBefore);
    ASSERT_NE(session->Driver(0), nullptr);
    EXPECT_EQ(session->Driver(0)->nTagCount, 8);
    ASSERT_NE(session->Driver(5), nullptr);
    EXPECT_EQ(session->Driver(5)->nId, 5);
    EXPECT_EQ(session->Driver(5)->nTagCount, 3);
    EXPECT_EQ(session->Driver(1), nullptr);
    EXPECT_EQ(session->Driver(6), nullptr);
    EXPECT_EQ(session->Driver(0xFFFF), nullptr);
    ExpectLive();
}

TEST_F(ClientConnect, RefusedUserGetsNoSession) {
    plant.strLoginReply = "0";
    OrderHellos();
    OrderUser();
    EXPECT_EQ(Connect(), kConnectRefused);
    EXPECT_EQ(session->HelloResult(), kLoggedIn);
    EXPECT_EQ(session->Driver(0), nullptr);
}

TEST_F(ClientConnect, RefusedHelloIsToldFromARefusedUser) {
    server.Accept();
    server.Take(0, &strHello);
    server.Send(0, "0");
    EXPECT_EQ(Connect(), kConnectFailed);
    EXPECT_NE(session->HelloResult(), kLoggedIn);
}

TEST_F(ClientConnect, ServerWithoutAProjectGivesAProtocolError) {
    plant.strProject = "";
    OrderHellos();
    EXPECT_EQ(Connect(), kConnectProtocol);
}

TEST_F(ClientConnect, ServerThatIsNotThereFailsAtOnce) {
    std::string strHost;
    {
        CScriptedServer gone;
        strHost = gone.Host();
    }
    EXPECT_EQ(ConnectTo(strHost), kConnectFailed);
    EXPECT_EQ(eEnd, EEnd::kNone);
}

TEST_F(ClientConnect, SilentServerIsGivenUpAtTheDeadline) {
    server.Accept();
    EXPECT_EQ(Connect(0.3), kConnectFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
}

TEST_F(ClientConnect, ServerThatGoesSilentLaterIsGivenUpAtTheDeadline) {
    OrderHellos();
    server.Expect(0, plant.LoginRequest());
    EXPECT_EQ(Connect(0.5), kConnectFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
}

TEST_F(ClientConnect, ServerThatIsSilentOnTheOtherChannelIsGivenUpAtTheDeadline) {
    server.Accept();
    server.Take(0, &strHello);
    server.Send(0, "7");
    server.Accept();
    server.Take(1, &strNotifyHello);
    EXPECT_EQ(Connect(0.5), kConnectFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
}

TEST_F(ClientConnect, FileThatDripsIsGivenUpAtTheDeadline) {
    OrderHellos();
    OrderUser();
    server.Expect(0, kFirstDrvInfoRequest);
    server.Send(0, "Size:100000\r\n\r\n");
    server.DripAnyway(0, std::string(100000, 'x'));
    EXPECT_EQ(Connect(0.5), kConnectFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
}

TEST_F(ClientConnect, FileThatNeverEndsIsGivenUpAtTheDeadline) {
    OrderHellos();
    OrderUser();
    server.Expect(0, kFirstDrvInfoRequest);
    server.Send(0, "Size:FFFFFFFF\r\n\r\n");
    server.Flood(0, std::string(2048, 'x'));
    EXPECT_EQ(Connect(0.5), kConnectFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
}

TEST_F(ClientConnect, DriverFileMayComeByteByByte) {
    OrderHellos();
    OrderUser();
    server.Expect(0, kFirstDrvInfoRequest);
    server.Drip(0, plant.DrvInfoReply());
    EXPECT_EQ(Connect(), kConnected);
    EXPECT_EQ(session->m_mapDrvInfos.size(), 2u);
    ExpectLive();
}

TEST_F(ClientConnect, DriverFileWithoutAWholeHeaderFailsIt) {
    OrderHellos();
    OrderUser();
    server.Expect(0, kFirstDrvInfoRequest);
    server.Send(0, plant.DrvInfoReply().substr(0, 3));
    server.Close(0);
    EXPECT_EQ(Connect(), kConnectFailed);
    EXPECT_EQ(eEnd, EEnd::kNone);
}

TEST_F(ClientConnect, SessionThatIsEndedMeanwhileGetsNoFurther) {
    server.Accept();
    server.Take(0, &strHello);
    std::thread ender([this] {
        server.Done();
        session->End("closed");
    });
    EXPECT_EQ(Connect(), kConnectFailed);
    EXPECT_EQ(eEnd, EEnd::kSessionOver);
    ender.join();
    ExpectOver("closed");
}

TEST_F(ClientConnect, SessionThatIsEndedInTheLastMomentIsNotConnected) {
    OrderHellos();
    OrderUser();
    server.Expect(0, kFirstDrvInfoRequest);
    std::thread ender([this] {
        server.Done();
        session->End("closed");
        server.SendAnyway(0, plant.DrvInfoReply());
    });
    EXPECT_EQ(Connect(), kConnectFailed);
    ender.join();
    ExpectOver("closed");
}

TEST_F(ClientConnect, CacheThatCannotTakeTheDriverFileFailsIt) {
    const std::string strFolder = CacheFolder() + "/" + plant.strProject;
    mkdir("/tmp/vzbrowser", 0700);
    for (const char* sz : {"", "/RecData", "/RecData/drvinfo.dat"}) {
        if (!*sz) mkdir(CacheFolder().c_str(), 0700);
        ASSERT_EQ(mkdir((strFolder + sz).c_str(), 0700), 0) << sz;
    }
    OrderLogin();
    EXPECT_EQ(Connect(), kConnectFailed);
}

TEST_F(ClientConnect, EndOfTheSessionClosesBothConnections) {
    LogIn();
    Unlocked([this] { session.reset(); });
    server.ExpectEnd(0);
    server.ExpectEnd(1);
    EXPECT_TRUE(server.Done());
    EXPECT_EQ(Told(*pNews, 1), Texts{"closed"});
}

TEST_F(ClientConnect, TraceGetsAllBytesByTheirChannels) {
    auto pTrace = std::make_shared<CFeed>(1000, CFeed::EOverflow::kOldest);
    MakeSession(pTrace);
    LogIn();
    server.Send(1, Hex("FF FF FF"));
    EXPECT_TRUE(WaitFor([&] { return session->m_nBytes == 3; }));
    std::string all[2][2];  // notification channel or not, sent or not
    EXPECT_TRUE(WaitFor([&] {
        std::vector<SEvent> events;
        pTrace->Take(events, 1000);
        for (const SEvent& event : events) {
            EXPECT_EQ(event.eKind, SEvent::EKind::kBytes);
            all[event.bNotify][event.bSent] += event.pMore->strText;
        }
        return all[1][0].size() == Scramble(plant.NotifyReply()).size() + 3;
    }));
    EXPECT_EQ(all[0][1], strHello + plant.LoginRequest() + kFirstDrvInfoRequest);
    EXPECT_EQ(all[0][0], "7" + plant.strLoginReply + plant.DrvInfoReply());
    EXPECT_EQ(all[1][1], strNotifyHello);
    EXPECT_EQ(all[1][0], Scramble(plant.NotifyReply()) + Hex("FF FF FF"));
}

// ---- Look up ------------------------------------------------------------------------------------

TEST_F(ClientSession, LookUpAsksForEachNameAndTakesItsId) {
    OnRequest(Hex("4C 00 00 54 31 00 00 00 54 32 00"), Hex("4C 01 00 00 00 FF FF 00 00"));
    EXPECT_EQ(LookUp({"T1", "T2"}), EResult::kDone);
    EXPECT_EQ(ids, (std::vector<WORD>{1, kNoTag}));
    EXPECT_EQ(session->m_nRequests, 1u);
    ExpectLive();
}

TEST_F(ClientSession, LookUpNamesTheDriver) {
    OnRequest(Hex("4C 01 00 54 00"), LookupReply({2}));
    EXPECT_EQ(Do([&](CPatience& p) { return session->LookUp(*session->Driver(1), {"T"}, ids, p); }),
              EResult::kDone);
    EXPECT_EQ(ids, std::vector<WORD>{2});
}

TEST_F(ClientSession, LastIdOfTheDriverResolvesAndTheNextDoesNot) {
    OnRequest(LookupRequest({"a", "b", "c"}), LookupReply({7, 8, 0xFFFE}));
    EXPECT_EQ(LookUp({"a", "b", "c"}), EResult::kDone);
    EXPECT_EQ(ids, (std::vector<WORD>{7, kNoTag, kNoTag}));
}

TEST_F(ClientSession, NamesThatNoTagCanHaveAreNotAskedFor) {
    const std::string strLongest(764, 'x');
    OnRequest(LookupRequest({"a"}), LookupReply({1}));
    OnRequest(LookupRequest({strLongest}), LookupReply({2}));
    OnRequest(LookupRequest({"b"}), LookupReply({3}));
    EXPECT_EQ(LookUp({"a", "", strLongest, strLongest + "x", "b"}), EResult::kDone);
    EXPECT_EQ(ids, (std::vector<WORD>{1, kNoTag, 2, kNoTag, 3}));
    ExpectLive();
}

TEST_F(ClientSession, NothingIsAskedWhenNoNameCanBeATags) {
    EXPECT_EQ(LookUp({"", std::string(765, 'x')}), EResult::kDone);
    EXPECT_EQ(ids, (std::vector<WORD>{kNoTag, kNoTag}));
    EXPECT_EQ(LookUp({}), EResult::kDone);
    EXPECT_EQ(ids, std::vector<WORD>{});
    ExpectLive();
}

TEST_F(ClientSession, NamesFillARequestToTheLastByte) {
    // 59 names of 10 bytes and their 3 more fill 768 bytes with the code.
    Texts names(59, "tag0123456");
    std::vector<unsigned> tagIds(59, 4);
    ASSERT_EQ(LookupRequest(names).size(), 768u);
    OnRequest(LookupRequest(names), LookupReply(tagIds));
    EXPECT_EQ(LookUp(names), EResult::kDone);
    EXPECT_EQ(ids, std::vector<WORD>(59, 4));
    ExpectLive();
}

TEST_F(ClientSession, NameThatDoesNotFitBeginsTheNextRequest) {
    Texts names(59, "tag0123456");
    names.back() += "7";
    const Texts first(58, "tag0123456");
    OnRequest(LookupRequest(first), LookupReply(std::vector<unsigned>(58, 4)));
    OnRequest(LookupRequest({"tag01234567"}), LookupReply({5}));
    EXPECT_EQ(LookUp(names), EResult::kDone);
    std::vector<WORD> wanted(59, 4);
    wanted.back() = 5;
    EXPECT_EQ(ids, wanted);
    ExpectLive();
}

TEST_F(ClientSession, ShortestNamesFillARequestToo) {
    Texts names(192, "x");
    OnRequest(LookupRequest(Texts(191, "x")), LookupReply(std::vector<unsigned>(191, 1)));
    OnRequest(LookupRequest({"x"}), LookupReply({1}));
    EXPECT_EQ(LookUp(names), EResult::kDone);
    EXPECT_EQ(ids, std::vector<WORD>(192, 1));
}

TEST_F(ClientSession, LookupReplyMayComeByteByByte) {
    server.Expect(0, LookupRequest({"a", "b"}));
    server.Drip(0, LookupReply({1, 2}));
    EXPECT_EQ(LookUp({"a", "b"}), EResult::kDone);
    EXPECT_EQ(ids, (std::vector<WORD>{1, 2}));
}

TEST_F(ClientSession, LookupReplyOfAnotherCodeEndsTheSession) {
    OnRequest(LookupRequest({"a"}), "l" + LookupReply({1}).substr(1));
    EXPECT_EQ(LookUp({"a"}), EResult::kFailed);
    EXPECT_EQ(eEnd, EEnd::kNone);
    ExpectOver("the request channel broke");
}

TEST_F(ClientSession, EachShorterLookupReplyEndsTheSession) {
    server.Expect(0, LookupRequest({"a"}));
    server.Send(0, LookupReply({1}).substr(0, 4));
    server.Close(0);
    EXPECT_EQ(LookUp({"a"}), EResult::kFailed);
    EXPECT_EQ(Told(*pNews, 1).size(), 1u);
    EXPECT_TRUE(session->Over());
}

// ---- Read ---------------------------------------------------------------------------------------

TEST_F(ClientSession, ReadGivesTheValuesAsTheyCame) {
    const std::string strBytes = k42 + Hex("08 00 41 42 00") + Hex("00 00") + Hex("0B 00 01");
    OnRequest(Hex("48 04 00 00 00 02 00 00 00 00 00 00 00 07 00 00 00 01 00"),
              ReadChunk(false, strBytes));
    EXPECT_EQ(Read({2, 0, 7, 1}), EResult::kDone);
    EXPECT_EQ(strValues, strBytes);
    ExpectLive();
}

TEST_F(ClientSession, ReadLearnsTheTypes) {
    OnRequest(ReadRequest(3, 2), ReadChunk(false, k42 + Hex("08 00 00")));
    EXPECT_EQ(Read({3, 4}), EResult::kDone);
    EXPECT_EQ(session->Driver(0)->types[3], VT_I4);
    EXPECT_EQ(session->Driver(0)->types[4], VT_STR);
    EXPECT_EQ(session->Driver(0)->types[5], VT_EMPTY);
}

TEST_F(ClientSession, ReadOfNothingAsksNothing) {
    EXPECT_EQ(Read({}), EResult::kDone);
    EXPECT_EQ(strValues, "");
    ExpectLive();
}

TEST_F(ClientSession, ValuesMayComeInChunks) {
    OnRequest(ReadRequest(0, 3), ReadChunk(true, k42) + ReadChunk(true, "") + ReadChunk(true, k42) +
                                     ReadChunk(false, k42));
    EXPECT_EQ(Read({0, 1, 2}), EResult::kDone);
    EXPECT_EQ(strValues, k42 + k42 + k42);
}

TEST_F(ClientSession, ReadReplyMayBeCutAnywhere) {
    const std::string strReply = ReadChunk(true, k42) + ReadChunk(false, k42);
    for (size_t n = 1; n < strReply.size(); ++n) {
        server.Expect(0, ReadRequest(0, 2));
        server.Send(0, strReply.substr(0, n));
        server.UntilTaken(0, session->m_reqSock);
        server.Send(0, strReply.substr(n));
        ASSERT_EQ(Read({0, 1}), EResult::kDone) << n;
        EXPECT_EQ(strValues, k42 + k42) << n;
    }
    ExpectLive();
}

TEST_F(ClientSession, ArrayIsItsTypeCodeAndEndsItsChunk) {
    const std::string strArray = Hex("00 20 02 00") + k42 + Hex("08 00 41 42 00");
    OnRequest(ReadRequest(0, 3), ReadChunk(true, k42 + strArray) + ReadChunk(false, k42));
    EXPECT_EQ(Read({0, 1, 2}), EResult::kDone);
    EXPECT_EQ(strValues, k42 + Hex("00 20") + k42);
    EXPECT_EQ(session->Driver(0)->types[1], 8192);
}

TEST_F(ClientSession, LastChunkWithoutAllValuesIsShort) {
    OnRequest(ReadRequest(0, 2), ReadChunk(false, k42));
    EXPECT_EQ(Read({0, 1}), EResult::kShort);
    EXPECT_EQ(eEnd, EEnd::kNone);
    EXPECT_EQ(strValues, k42);
    ExpectLive();
    OnRequest(ReadRequest(1, 1), ReadChunk(false, k42));
    EXPECT_EQ(Read({1}), EResult::kDone);
}

struct SBadReply {
    const char* szWhat;
    std::string strReply;
};
void PrintTo(const SBadReply& bad, std::ostream* pStream) { *pStream << bad.szWhat; }

// Of a read or subscription of one tag.
class ClientBadReply : public ClientSession, public ::testing::WithParamInterface<SBadReply> {};

TEST_P(ClientBadReply, EndsTheSession) {
    if (GetParam().strReply[0] == 'b' || GetParam().strReply[0] == 'B') {
        const SRoute route{pFeed, 0};
        OnRequest(WatchRequest(0, 1), GetParam().strReply);
        EXPECT_EQ(Watch({0}, &route), EResult::kFailed);
        EXPECT_EQ(Told(*pFeed, 0), Texts{});
        EXPECT_TRUE(Tag(0)->routes.empty());
    } else {
        OnRequest(ReadRequest(0, 1), GetParam().strReply);
        EXPECT_EQ(Read({0}), EResult::kFailed);
    }
    EXPECT_EQ(eEnd, EEnd::kNone);
    ExpectOver("the request channel broke");
}

std::string Chunk(const std::string& strBytes) {
    return U16(static_cast<unsigned>(strBytes.size())) + strBytes;
}

INSTANTIATE_TEST_SUITE_P(
    Read, ClientBadReply,
    ::testing::Values(
        SBadReply{"another code", "h" + U8(0) + Chunk(k42)},
        SBadReply{"a cut value", "H" + U8(0) + Chunk(k42.substr(0, 5))},
        SBadReply{"a cut type code", "H" + U8(0) + Chunk(Hex("03"))},
        SBadReply{"a text without its end", "H" + U8(0) + Chunk(Hex("08 00 41"))},
        SBadReply{"one value more", "H" + U8(0) + Chunk(k42 + k42)},
        SBadReply{"an array that lacks an element", "H" + U8(0) + Chunk(Hex("00 20 02 00") + k42)},
        SBadReply{"a chunk of 4097 bytes", "H" + U8(0) + U16(4097) + std::string(4097, '\0')},
        SBadReply{"16 empty chunks", Repeat("H" + U8(1) + Chunk(""), 16)}));

INSTANTIATE_TEST_SUITE_P(
    Watch, ClientBadReply,
    ::testing::Values(SBadReply{"another code", "B" + Chunk(k42)},
                      SBadReply{"a cut value", "b" + Chunk(k42.substr(0, 5))},
                      SBadReply{"a cut type code", "b" + Chunk(Hex("03"))},
                      SBadReply{"a text without its end", "b" + Chunk(Hex("08 00 41"))},
                      SBadReply{"one value more", "b" + Chunk(k42 + k42)},
                      SBadReply{"an array that lacks an element",
                                "b" + Chunk(Hex("00 20 02 00") + k42)},
                      SBadReply{"a chunk of 4097 bytes", "b" + U16(4097) + std::string(4097, '\0')},
                      SBadReply{"16 empty chunks", Repeat("b" + Chunk(""), 16)}));

TEST_F(ClientSession, FifteenEmptyChunksAreStepped) {
    OnRequest(ReadRequest(0, 1), Repeat(ReadChunk(true, ""), 15) + ReadChunk(false, k42));
    EXPECT_EQ(Read({0}), EResult::kDone);
    EXPECT_EQ(strValues, k42);
}

TEST_F(ClientSession, LongestChunkIsTaken) {
    const std::string strText = Hex("08 00") + Z(std::string(4093, 'x'));
    ASSERT_EQ(strText.size(), 4096u);
    OnRequest(ReadRequest(0, 1), ReadChunk(false, strText));
    EXPECT_EQ(Read({0}), EResult::kDone);
    EXPECT_EQ(strValues, strText);
}

TEST_F(ClientLimits, RequestReads1023Tags) {
    OnRequest(ReadRequest(0, 1023), ReadChunk(false, Repeat(Hex("0B 00 01"), 1023)));
    EXPECT_EQ(Read(FirstTags(1023)), EResult::kDone);
    EXPECT_EQ(strValues.size(), 3069u);
    ExpectLive();
}

TEST_F(ClientLimits, Tag1024IsReadByTheNextRequest) {
    OnRequest(ReadRequest(0, 1023), ReadChunk(false, Repeat(Hex("0B 00 01"), 1023)));
    OnRequest(ReadRequest(1023, 1), ReadChunk(false, k42));
    EXPECT_EQ(Read(FirstTags(1024)), EResult::kDone);
    EXPECT_EQ(strValues, Repeat(Hex("0B 00 01"), 1023) + k42);
    EXPECT_EQ(session->Driver(0)->types[1023], VT_I4);
    ExpectLive();
}

TEST_F(ClientLimits, NothingIsReadBehindAShortReply) {
    OnRequest(ReadRequest(0, 1023), ReadChunk(false, Repeat(Hex("0B 00 01"), 1022)));
    EXPECT_EQ(Read(FirstTags(1024)), EResult::kShort);
    ExpectLive();
}

// ---- Write --------------------------------------------------------------------------------------

TEST_F(ClientSession, WriteSendsIdsAndValuesAndWaitsForNothing) {
    server.Expect(0, Hex("67 02 00 00 00 01 00 03 00 05 00 00 00 00 00 07 00 08 00 41 00"));
    EXPECT_EQ(Write({{1, Hex("03 00 05 00 00 00")}, {7, Hex("08 00 41 00")}}), EResult::kDone);
    ExpectLive();
}

TEST_F(ClientSession, WriteOfNothingSendsNothing) {
    EXPECT_EQ(Write({}), EResult::kDone);
    ExpectLive();
}

TEST_F(ClientSession, ValuesFillAWriteToTheLastByte) {
    const std::string strLongest = Hex("08 00") + Z(std::string(2038, 'x'));
    server.Expect(0, "g" + U16(1) + U16(0) + U16(1) + strLongest);
    EXPECT_EQ(Write({{1, strLongest}}), EResult::kDone);
    // 203 times 10 bytes and 15 with the code's 3 are 2048.
    std::vector<CSession::SWrite> writes(203, {2, k42});
    writes.push_back({3, Hex("08 00") + Z(std::string(8, 'x'))});
    server.Expect(0, "g" + U16(204) + Repeat(U16(0) + U16(2) + k42, 203) + U16(0) + U16(3) +
                         Hex("08 00") + Z(std::string(8, 'x')));
    EXPECT_EQ(Write(writes), EResult::kDone);
    ExpectLive();
}

TEST_F(ClientSession, ValueThatDoesNotFitBeginsTheNextWrite) {
    std::vector<CSession::SWrite> writes(203, {2, k42});
    writes.push_back({3, Hex("08 00") + Z(std::string(9, 'x'))});
    server.Expect(0, "g" + U16(203) + Repeat(U16(0) + U16(2) + k42, 203));
    server.Expect(0, "g" + U16(1) + U16(0) + U16(3) + Hex("08 00") + Z(std::string(9, 'x')));
    EXPECT_EQ(Write(writes), EResult::kDone);
    ExpectLive();
}

TEST_F(ClientSession, ValueThatFitsNoWriteEndsTheSession) {
    EXPECT_EQ(Write({{1, Hex("08 00") + Z(std::string(2039, 'x'))}}), EResult::kFailed);
    ExpectOver("the request channel broke");
}

TEST_F(ClientSession, WriteThatWasHeldUpIsToldToGoOn) {
    constexpr size_t kWrites = 15000;  // 30 MB: more than the connection holds
    server.Until(pNews->Descriptor());
    server.Skip(0, kWrites * 2048);
    const std::string strLongest = Hex("08 00") + Z(std::string(2038, 'x'));
    EXPECT_EQ(Write(std::vector<CSession::SWrite>(kWrites, {1, strLongest})), EResult::kDone);
    EXPECT_EQ(Told(*pNews, 2), (Texts{"slow", "answered"}));
    ExpectLive();
}

TEST_F(ClientSession, WriteThatNobodyTakesIsGivenUpAtTheDeadline) {
    const std::string strLongest = Hex("08 00") + Z(std::string(2038, 'x'));
    EXPECT_EQ(Write(std::vector<CSession::SWrite>(15000, {1, strLongest}), 0.5), EResult::kFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
    ExpectOver("a request timed out");
}

// ---- Watch --------------------------------------------------------------------------------------

TEST_F(ClientSession, WatchTellsPresentValuesAndThenChanges) {
    const SRoute route{pFeed, 0};
    OnRequest(Hex("62 02 00 00 00 00 00 00 00 00 01 00 00"),
              WatchChunk(k42 + Hex("08 00 41 42 00")));
    EXPECT_EQ(Watch({0, 1}, &route), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 2), (Texts{"T0=42", "T1=AB"}));
    server.Send(1, Change(1, Z("x")) + Change(0, U32(7)));
    EXPECT_EQ(Told(*pFeed, 2), (Texts{"T1=x", "T0=7"}));
    EXPECT_EQ(session->Frames().m_nChanges, 2u);
    EXPECT_EQ(session->m_nBytes, 14u);
    ExpectLive();
}

TEST_F(ClientLimits, SubscriptionReplyMayBeCutAnywhere) {
    const SRoute route{pFeed, 0};
    const std::string strReply = WatchChunk(k42) + WatchChunk(k42);
    for (WORD n = 1; n < strReply.size(); ++n) {
        const WORD nTag = static_cast<WORD>(2 * n);
        server.Expect(0, WatchRequest(nTag, 2));
        server.Send(0, strReply.substr(0, n));
        server.UntilTaken(0, session->m_reqSock);
        server.Send(0, strReply.substr(n));
        ASSERT_EQ(Watch({nTag, static_cast<WORD>(nTag + 1)}, &route), EResult::kDone) << n;
        EXPECT_EQ(Told(*pFeed, 2).size(), 2u);
    }
    ExpectLive();
}

TEST_F(ClientSession, ChangesThatComeBeforeTheReplyAreToldBehindIt) {
    const SRoute route{pFeed, 0};
    server.Expect(0, WatchRequest(0, 1));
    server.Send(1, Change(0, U32(7)));
    server.UntilTaken(1, session->m_rcvSock);
    server.Send(1, Change(0, U32(8)) + Change(0, U32(9)).substr(0, 5));
    server.UntilTaken(1, session->m_rcvSock);
    server.Send(0, WatchChunk(k42));
    EXPECT_EQ(Watch({0}, &route), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 3), (Texts{"T0=42", "T0=7", "T0=8"}));
    server.Send(1, Change(0, U32(9)).substr(5));
    EXPECT_EQ(Told(*pFeed, 1), Texts{"T0=9"});
    EXPECT_EQ(session->Frames().m_nUnusable, 0u);
}

TEST_F(ClientSession, ServerThatSendsMuchBeforeItsReplyIsNotMadeToWait) {
    const SRoute route{pFeed, 0};
    std::string strMany;
    for (uint32_t i = 1; i <= 9000; ++i) strMany += Change(0, U32(i));
    server.Expect(0, WatchRequest(0, 1));
    for (int i = 0; i < 10; ++i) server.Send(1, strMany);
    server.UntilTaken(1, session->m_rcvSock);
    server.Send(0, WatchChunk(k42));
    EXPECT_EQ(Watch({0}, &route), EResult::kDone);
    EXPECT_TRUE(WaitFor([&] { return session->Frames().m_nChanges == 90000; }));
    EXPECT_EQ(Told(*pFeed, 10000).back(), "T0=9000");
}

TEST_F(ClientSession, ServerThatSendsFarTooMuchBeforeItsReplyWaits) {
    const SRoute route{pFeed, 0};
    const std::string strMany = Repeat(Change(0, U32(7)), 131072);  // a megabyte
    server.Expect(0, WatchRequest(0, 1));
    for (int i = 0; i < 5; ++i) server.Send(1, strMany);
    std::thread replier([&] {
        server.Done();
        EXPECT_LE(session->m_nBytes, (4u << 20) + 16384);
        server.Send(0, WatchChunk(k42));
    });
    EXPECT_EQ(Watch({0}, &route), EResult::kDone);
    replier.join();
    EXPECT_TRUE(WaitFor([&] { return session->Frames().m_nChanges == 5 * 131072; }));
}

TEST_F(ClientSession, TagThatIsWatchedAlreadyIsNotAskedForAgain) {
    const SRoute route{pFeed, 1};
    WatchAndChange(route);
    const SRoute other{std::make_shared<CFeed>(10, CFeed::EOverflow::kLatest), 2};
    OnRequest(WatchRequest(1, 1), WatchChunk(Hex("0B 00 01")));
    EXPECT_EQ(Watch({0, 1}, &other), EResult::kDone);
    EXPECT_EQ(Told(*other.pFeed, 2), (Texts{"T0=7", "T1=1"}));
    server.Send(1, Change(0, U32(8)) + Change(1, Hex("00")));
    EXPECT_EQ(Told(*other.pFeed, 2), (Texts{"T0=8", "T1=0"}));
    EXPECT_EQ(Told(*pFeed, 1), Texts{"T0=8"});
    ExpectLive();
}

TEST_F(ClientSession, TagThatIsWatchedAlreadyIsReadWhenAllIsToldAnew) {
    const SRoute route{pFeed, 1};
    WatchAndChange(route);
    OnRequest(ReadRequest(0, 1), ReadChunk(false, Hex("05 00 00 00 00 00 00 00 04 40")));
    EXPECT_EQ(Watch({0}, nullptr), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 1), Texts{"again T0=2.5"});
    server.Send(1, Change(0, Hex("00 00 00 00 00 00 E0 3F")));  // by the type that was read
    EXPECT_EQ(Told(*pFeed, 1), Texts{"T0=0.5"});
    OnRequest(ReadRequest(0, 1), ReadChunk(false, ""));
    EXPECT_EQ(Watch({0}, nullptr), EResult::kDone);  // nothing came: it keeps what it has
    EXPECT_EQ(Told(*pFeed, 1), Texts{"again T0=0.5"});
    ExpectLive();
}

TEST_F(ClientSession, NamesOfOneTagAreSubscribedOnceAndEachIsTold) {
    const SRoute route{pFeed, 0};
    OnRequest(WatchRequest(0, 2), WatchChunk(k42 + Hex("0B 00 01")));
    EXPECT_EQ(WatchTags({Tag(0), Tag(10), Tag(1), Tag(11)}, {0, 0, 1, 0}, &route), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 4), (Texts{"T0=42", "T10=42", "T1=1", "T11=42"}));
    server.Send(1, Change(0, U32(7)) + Change(1, Hex("00")));
    Texts said = Told(*pFeed, 4);
    std::sort(said.begin(), said.begin() + 3);
    EXPECT_EQ(said, (Texts{"T0=7", "T10=7", "T11=7", "T1=0"}));
    EXPECT_EQ(session->Frames().m_nChanges, 2u);
    ExpectLive();
}

TEST_F(ClientSession, SecondNameOfATagBeginsWithTheLastValueOfTheFirst) {
    const SRoute route{pFeed, 1};
    WatchAndChange(route);
    const SRoute other{std::make_shared<CFeed>(10, CFeed::EOverflow::kLatest), 2};
    EXPECT_EQ(WatchTags({Tag(10)}, {0}, &other), EResult::kDone);
    EXPECT_EQ(WatchTags({Tag(10), Tag(0)}, {0, 0}, &other), EResult::kDone);
    EXPECT_EQ(Told(*other.pFeed, 3), (Texts{"T10=7", "T10=7", "T0=7"}));
    pRoutes->Drop(other.pFeed.get(), 2);
    server.Send(1, Change(0, U32(8)));
    EXPECT_EQ(Told(*pFeed, 1), Texts{"T0=8"});
    Tag(10)->routes = {other};
    server.Send(1, Change(0, U32(9)));
    EXPECT_EQ(Told(*other.pFeed, 1), Texts{"T10=9"});
    EXPECT_EQ(Told(*pFeed, 1), Texts{"T0=9"});
    ExpectLive();
}

TEST_F(ClientSession, TagsOfAnEarlierSessionAreToldAnew) {
    Tag(0)->routes = {{pFeed, 1}};
    Tag(0)->value = 5;
    OnRequest(WatchRequest(0, 2), WatchChunk(k42) + WatchChunk(Hex("0B 00 01")));
    EXPECT_EQ(Watch({0, 1}, nullptr), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 1), Texts{"again T0=42"});
    EXPECT_EQ(Tag(0)->routes.size(), 1u);
    server.Send(1, Change(0, U32(8)));
    EXPECT_EQ(Told(*pFeed, 1), Texts{"T0=8"});
}

TEST_F(ClientSession, WatchedArrayEndsItsChunkAndHasNoValue) {
    const SRoute route{pFeed, 0};
    OnRequest(WatchRequest(0, 2), WatchChunk(Hex("00 20 01 00") + k42) + WatchChunk(k42));
    EXPECT_EQ(Watch({0, 1}, &route), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 2), (Texts{"T0=", "T1=42"}));
}

TEST_F(ClientLimits, RequestSubscribes519Tags) {
    const SRoute route{pFeed, 0};
    OnRequest(WatchRequest(0, 519), WatchChunk(Repeat(Hex("0B 00 01"), 519)));
    EXPECT_EQ(Watch(FirstTags(519), &route), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 519).size(), 519u);
    ExpectLive();
}

TEST_F(ClientLimits, Tag520IsSubscribedByTheNextRequest) {
    const SRoute route{pFeed, 0};
    OnRequest(WatchRequest(0, 519), WatchChunk(Repeat(Hex("0B 00 01"), 519)));
    OnRequest(WatchRequest(519, 1), WatchChunk(k42));
    EXPECT_EQ(Watch(FirstTags(520), &route), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 520).back(), "T519=42");
    ExpectLive();
}

TEST_F(ClientLimits, HalfOfASubscriptionIsNone) {
    const SRoute route{pFeed, 0};
    OnRequest(WatchRequest(0, 519), WatchChunk(Repeat(Hex("0B 00 01"), 519)));
    server.Expect(0, WatchRequest(519, 1));
    server.Close(0);
    EXPECT_EQ(Watch(FirstTags(520), &route), EResult::kFailed);
    EXPECT_TRUE(session->Over());
    EXPECT_EQ(Told(*pFeed, 0), Texts{});
    EXPECT_TRUE(Tag(0)->routes.empty());
}

// ---- Alarms -------------------------------------------------------------------------------------

constexpr char kTextsRequest[] = "4RecData/textlist\r\nHello:Yes\r\n\r\n";
constexpr char kTagsRequest[] = "4RecData/taglist\r\nHello:Yes\r\n\r\n";
constexpr char kTextsReply[] = "Size:9\r\nFileTime:5F5E1000\r\n\r\nhigh\nlow\n";
constexpr char kTagsReply[] = "Size:6\r\nFileTime:5F5E1000\r\n\r\nLevel\n";

std::string AlarmRecord(unsigned nTag) {
    return std::string(8, '\0') + U16(nTag) + std::string(22, '\0');
}

class ClientAlarms : public ClientSession {
  protected:
    void OrderAlarms(const std::string& strReply) {
        OnRequest("n", strReply);
        OnRequest(kTextsRequest, kTextsReply);
        OnRequest(kTagsRequest, kTagsReply);
    }
};

TEST_F(ClientAlarms, ActiveOnesAreToldFirstAndNewOnesThen) {
    const SRoute route{pFeed, 0};
    OrderAlarms("n" + U16(2) + AlarmRecord(3) + AlarmRecord(4));
    EXPECT_EQ(WatchAlarms(&route, true), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 2), (Texts{"alarm 3", "alarm 4"}));
    server.Send(1, Hex("FF FF 01") + AlarmRecord(5) + Hex("FF FF 03") + AlarmRecord(6));
    EXPECT_EQ(Told(*pFeed, 2), (Texts{"alarm 5", "alarm 6"}));
    std::vector<CString> texts;
    std::vector<CString> tags;
    session->AlarmTexts(texts, tags);
    EXPECT_EQ(texts, (std::vector<CString>{CString("high"), CString("low")}));
    EXPECT_EQ(tags, std::vector<CString>{CString("Level")});
    ExpectLive();
}

TEST_F(ClientAlarms, ActiveOnesAreNotToldUnasked) {
    const SRoute route{pFeed, 0};
    OrderAlarms("n" + U16(1) + AlarmRecord(3));
    EXPECT_EQ(WatchAlarms(&route, false), EResult::kDone);
    server.Send(1, Hex("FF FF 01") + AlarmRecord(5));
    EXPECT_EQ(Told(*pFeed, 1), Texts{"alarm 5"});
}

TEST_F(ClientAlarms, SecondWatcherGetsThemTooAndTheListsAreNotFetchedAgain) {
    const SRoute route{pFeed, 0};
    const SRoute other{std::make_shared<CFeed>(10, CFeed::EOverflow::kLatest), 2};
    OrderAlarms("n" + U16(0));
    EXPECT_EQ(WatchAlarms(&route, true), EResult::kDone);
    OnRequest("n", "n" + U16(1) + AlarmRecord(3));
    EXPECT_EQ(WatchAlarms(&other, true), EResult::kDone);
    EXPECT_EQ(Told(*other.pFeed, 1), Texts{"alarm 3"});
    server.Send(1, Hex("FF FF 01") + AlarmRecord(5));
    EXPECT_EQ(Told(*pFeed, 1), Texts{"alarm 5"});
    EXPECT_EQ(Told(*other.pFeed, 1), Texts{"alarm 5"});
    ExpectLive();
}

TEST_F(ClientAlarms, WatchersOfAnEarlierSessionAreToldAnew) {
    pRoutes->m_alarmRoutes = {{pFeed, 1}};
    OrderAlarms("n" + U16(1) + AlarmRecord(3));
    EXPECT_EQ(WatchAlarms(nullptr, true), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 1), Texts{"again alarm 3"});
    EXPECT_EQ(pRoutes->m_alarmRoutes.size(), 1u);
}

TEST_F(ClientAlarms, ListsThatAreNotThereAreEmpty) {
    const SRoute route{pFeed, 0};
    OnRequest("n", "n" + U16(0));
    OnRequest(kTextsRequest, "Exist:No\r\n\r\n");
    OnRequest(kTagsRequest, "Exist:No\r\n\r\n");
    EXPECT_EQ(WatchAlarms(&route, true), EResult::kDone);
    std::vector<CString> texts(1);
    std::vector<CString> tags(1);
    session->AlarmTexts(texts, tags);
    EXPECT_TRUE(texts.empty() && tags.empty());
    ExpectLive();
}

TEST_F(ClientAlarms, AlarmThatComesBeforeTheReplyIsToldBehindIt) {
    const SRoute route{pFeed, 0};
    server.Expect(0, "n");
    server.Send(1, Hex("FF FF 01") + AlarmRecord(5));
    server.UntilTaken(1, session->m_rcvSock);
    server.Send(0, "n" + U16(1) + AlarmRecord(3));
    OnRequest(kTextsRequest, kTextsReply);
    OnRequest(kTagsRequest, kTagsReply);
    EXPECT_EQ(WatchAlarms(&route, true), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 2), (Texts{"alarm 3", "alarm 5"}));
}

TEST_F(ClientAlarms, ReplyOfAnotherCodeEndsTheSession) {
    const SRoute route{pFeed, 0};
    OnRequest("n", "m" + U16(0));
    EXPECT_EQ(WatchAlarms(&route, true), EResult::kFailed);
    ExpectOver("the request channel broke");
    EXPECT_TRUE(pRoutes->m_alarmRoutes.empty());
}

TEST_F(ClientAlarms, RepliesMayComeByteByByte) {
    const SRoute route{pFeed, 0};
    server.Expect(0, "n");
    server.Drip(0, "n" + U16(1) + AlarmRecord(3));
    server.Expect(0, kTextsRequest);
    server.Drip(0, kTextsReply);
    server.Expect(0, kTagsRequest);
    server.Drip(0, kTagsReply);
    EXPECT_EQ(WatchAlarms(&route, true), EResult::kDone);
    EXPECT_EQ(Told(*pFeed, 1), Texts{"alarm 3"});
    std::vector<CString> texts;
    std::vector<CString> tags;
    session->AlarmTexts(texts, tags);
    EXPECT_EQ(texts.size(), 2u);
    EXPECT_EQ(tags.size(), 1u);
    ExpectLive();
}

TEST_F(ClientAlarms, CutListEndsTheSession) {
    const SRoute route{pFeed, 0};
    OnRequest("n", "n" + U16(1) + AlarmRecord(3));
    server.Expect(0, kTextsRequest);
    server.Send(0, "Size:9\r\n\r\nhigh");
    server.Close(0);
    EXPECT_EQ(WatchAlarms(&route, true), EResult::kFailed);
    EXPECT_TRUE(session->Over());
    EXPECT_EQ(Told(*pFeed, 0), Texts{});
}

TEST_F(ClientAlarms, CacheThatCannotTakeAListEndsTheSession) {
    ASSERT_EQ(mkdir((CacheFolder() + "/Unit/RecData/textlist").c_str(), 0700), 0);
    const SRoute route{pFeed, 0};
    OnRequest("n", "n" + U16(0));
    OnRequest(kTextsRequest, "Size:9\r\n\r\n");
    OnRequest(kTagsRequest, kTagsReply);
    EXPECT_EQ(WatchAlarms(&route, true), EResult::kFailed);
    ExpectOver("the request channel broke");
}

// ---- Probe --------------------------------------------------------------------------------------

TEST_F(ClientSession, ProbeAsksForANameThatNoTagHas) {
    session->m_nHeardUs = 0;
    OnRequest(Hex("4C 00 00 3F 00"), LookupReply({0xFFFF}));
    EXPECT_EQ(Probe(), EResult::kDone);
    EXPECT_GT(session->m_nHeardUs, 0);
    ExpectLive();
}

TEST_F(ClientSession, ProbeWithoutAnAnswerEndsTheSession) {
    server.Expect(0, Hex("4C 00 00 3F 00"));
    EXPECT_EQ(Probe(0.3), EResult::kFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
    ExpectOver("a request timed out");
}

TEST_F(ClientConnect, PlantWithoutDriversIsNotProbed) {
    plant.strDrvInfo = "";
    OrderHellos();
    OrderUser();
    OnRequest(kFirstDrvInfoRequest, "Exist:No\r\n\r\n");
    ASSERT_EQ(Connect(), kConnected);
    EXPECT_EQ(Probe(), EResult::kDone);
    ExpectLive();
}

// ---- Deadlines, news, signals -------------------------------------------------------------------

TEST_F(ClientSession, SilenceEndsTheSessionAtTheDeadline) {
    server.Expect(0, ReadRequest(0, 1));
    EXPECT_EQ(Read({0}, 0.3), EResult::kFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
    ExpectOver("a request timed out");
}

TEST_F(ClientSession, DripEndsTheSessionAtTheDeadline) {
    server.Expect(0, ReadRequest(0, 1));
    server.Send(0, Hex("48 00 A3 0F"));  // a chunk of 4003 bytes
    server.DripAnyway(0, Hex("08 00") + Z(std::string(4000, 'x')));
    EXPECT_EQ(Read({0}, 0.5), EResult::kFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
    ExpectOver("a request timed out");
}

TEST_F(ClientSession, ListThatNeverEndsEndsTheSessionAtTheDeadline) {
    const SRoute route{pFeed, 0};
    OnRequest("n", "n" + U16(0));
    OnRequest(kTextsRequest, "Size:FFFFFFFF\r\n\r\n");
    server.Flood(0, std::string(2048, 'x'));
    EXPECT_EQ(WatchAlarms(&route, true, 0.5), EResult::kFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
    ExpectOver("a request timed out");
}

TEST_F(ClientSession, OverdueReplyIsNewsAndSoIsItsComing) {
    server.Expect(0, ReadRequest(0, 1));
    server.Until(pNews->Descriptor());
    server.Send(0, ReadChunk(false, k42));
    EXPECT_EQ(Read({0}), EResult::kDone);
    EXPECT_EQ(Told(*pNews, 2), (Texts{"slow", "answered"}));
    ExpectLive();
}

void OnSignal(const std::string& strFunction) {
    RunScript(("import signal\nsignal.signal(signal.SIGUSR1, " + strFunction + ")\n").c_str());
}

TEST_F(ClientSession, HandlerThatRaisesEndsTheSession) {
    OnSignal("lambda n, f: 1 / 0");
    server.Expect(0, ReadRequest(0, 1));
    raise(SIGUSR1);
    EXPECT_EQ(Read({0}), EResult::kFailed);
    EXPECT_EQ(eEnd, EEnd::kInterrupted);
    EXPECT_EQ(TakeError(), "ZeroDivisionError");
    ExpectOver("a request was interrupted");
    OnSignal("signal.SIG_DFL");
}

// What a signal's handler does with the session that it interrupts.
std::function<void()> g_fnHandle;

PyObject* Handle(PyObject*, PyObject*) {
    g_fnHandle();
    Py_RETURN_NONE;
}
PyMethodDef g_handle = {"handle", Handle, METH_VARARGS, nullptr};

TEST_F(ClientSession, HandlerCannotUseTheSessionThatItInterrupts) {
    CPyRef handle(PyCFunction_New(&g_handle, nullptr));
    PyDict_SetItemString(ScriptGlobals(), "handle", handle);
    OnSignal("handle");
    EResult eInner = EResult::kDone;
    EEnd eInnerEnd = EEnd::kTimedOut;
    g_fnHandle = [&] {
        std::vector<WORD> found;
        eInner = DoAs(eInnerEnd, 60, [&](CPatience& p) {
            return session->LookUp(*session->Driver(0), {"a"}, found, p);
        });
        server.Send(0, ReadChunk(false, k42));
    };
    server.Expect(0, ReadRequest(0, 1));
    raise(SIGUSR1);
    EXPECT_EQ(Read({0}), EResult::kDone);
    EXPECT_EQ(eInner, EResult::kReentered);
    EXPECT_EQ(eInnerEnd, EEnd::kNone);
    EXPECT_EQ(strValues, k42);
    ExpectLive();
    OnSignal("signal.SIG_DFL");
    g_fnHandle = nullptr;
}

// ---- Ends ---------------------------------------------------------------------------------------

TEST_F(ClientSession, EndStopsWhoWaitsForAReply) {
    server.Expect(0, ReadRequest(0, 1));
    std::thread ender([this] {
        server.Done();
        session->End("that is all");
    });
    EXPECT_EQ(Read({0}), EResult::kFailed);
    ender.join();
    ExpectOver("that is all");
    server.ExpectEnd(0);
    server.ExpectEnd(1);
}

TEST_F(ClientSession, OnlyTheFirstEndIsNews) {
    session->End("first");
    session->End("second");
    EXPECT_EQ(Told(*pNews, 1), Texts{"first"});
}

TEST_F(ClientSession, NothingIsSentOnceTheSessionIsOver) {
    session->End("over");
    const SRoute route{pFeed, 0};
    for (const auto& fnCall : std::vector<std::function<EResult()>>{
             [&] { return LookUp({"a"}); }, [&] { return Read({0}); },
             [&] {
                 return Write({{0, k42}});
             },
             [&] { return Watch({0}, &route); }, [&] { return WatchAlarms(&route, true); },
             [&] { return Probe(); }}) {
        EXPECT_EQ(fnCall(), EResult::kFailed);
        EXPECT_EQ(eEnd, EEnd::kSessionOver);
    }
    EXPECT_EQ(session->m_nRequests, 0u);
    EXPECT_EQ(Told(*pNews, 1), Texts{"over"});
}

TEST_F(ClientSession, ServersEndOfTheNotificationsEndsTheSession) {
    server.Close(1);
    ExpectOver("the server closed the connection");
}

TEST_F(ClientSession, FramesThatCameBeforeTheEndAreTold) {
    const SRoute route{pFeed, 0};
    OnRequest(WatchRequest(0, 1), WatchChunk(k42));
    EXPECT_EQ(Watch({0}, &route), EResult::kDone);
    server.Send(1, Change(0, U32(7)));
    server.Close(1);
    EXPECT_EQ(Told(*pFeed, 2), (Texts{"T0=42", "T0=7"}));
    ExpectOver("the server closed the connection");
}

TEST_F(ClientSession, JoinClosesBothConnections) {
    session->End("over");
    Unlocked([this] {
        session->Join();
        session->Join();
    });
    EXPECT_FALSE(session->m_reqSock.IsSocket());
    EXPECT_FALSE(session->m_rcvSock.IsSocket());
    server.ExpectEnd(0);
    server.ExpectEnd(1);
    EXPECT_TRUE(server.Done());
}

TEST_F(ClientConnect, ResetOfTheNotificationsEndsTheSession) {
    CBreakingServer breaking({});
    ASSERT_EQ(ConnectTo(breaking.Host()), kConnected);
    breaking.Push("", EBreak::kReset);
    ExpectOver("the notification channel broke");
}

// ---- Turns --------------------------------------------------------------------------------------

TEST_F(ClientSession, TurnThatNeverComesEndsThatCallAlone) {
    server.Expect(0, ReadRequest(0, 1));
    EResult eFirst = EResult::kFailed;
    EEnd eFirstEnd = EEnd::kTimedOut;
    std::string strFirst;
    std::thread first = ScriptThread([&] {
        eFirst = DoAs(eFirstEnd, 60, [&](CPatience& p) {
            const WORD nTag = 0;
            return session->Read(*session->Driver(0), &nTag, 1, strFirst, p);
        });
    });
    Unlocked([this] { server.Done(); });
    EXPECT_EQ(LookUp({"a"}, 0.3), EResult::kFailed);
    EXPECT_EQ(eEnd, EEnd::kTimedOut);
    EXPECT_FALSE(session->Over());
    server.Send(0, ReadChunk(false, k42));
    Unlocked([&] { first.join(); });
    EXPECT_EQ(eFirst, EResult::kDone);
    EXPECT_EQ(strFirst, k42);
    ExpectLive();
}

TEST_F(ClientSession, EndStopsWhoWaitsForATurn) {
    server.Expect(0, ReadRequest(0, 1));
    EResult eFirst = EResult::kDone;
    EEnd eFirstEnd = EEnd::kNone;
    std::string strFirst;
    std::thread first = ScriptThread([&] {
        eFirst = DoAs(eFirstEnd, 60, [&](CPatience& p) {
            const WORD nTag = 0;
            return session->Read(*session->Driver(0), &nTag, 1, strFirst, p);
        });
    });
    Unlocked([this] { server.Done(); });
    std::thread ender([this] { session->End("that is all"); });
    EXPECT_EQ(LookUp({"a"}), EResult::kFailed);
    EXPECT_EQ(eEnd, EEnd::kSessionOver);
    Unlocked([&] {
        first.join();
        ender.join();
    });
    EXPECT_EQ(eFirst, EResult::kFailed);
    ExpectOver("that is all");
}

TEST_F(ClientConnect, ThreadsTakeTurnsAndEachGetsItsOwnReplies) {
    constexpr int kThreads = 6;
    constexpr int kEach = 100;
    CBreakingServer breaking({});
    ASSERT_EQ(ConnectTo(breaking.Host()), kConnected);
    std::atomic<int> nRight{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.push_back(ScriptThread([&, i] {
            const WORD nTag = static_cast<WORD>(i);
            const std::string strWanted = Hex("03 00") + U32(10u * nTag + 7);
            for (int n = 0; n < kEach; ++n) {
                EEnd eSaid;
                std::vector<WORD> found;
                std::string strGot;
                const EResult eLooked = DoAs(eSaid, 60, [&](CPatience& p) {
                    return session->LookUp(*session->Driver(0), {"T" + std::to_string(i)}, found,
                                           p);
                });
                const EResult eRead = DoAs(eSaid, 60, [&](CPatience& p) {
                    return session->Read(*session->Driver(0), &nTag, 1, strGot, p);
                });
                if (eLooked == EResult::kDone && found == std::vector<WORD>{nTag} &&
                    eRead == EResult::kDone && strGot == strWanted)
                    ++nRight;
            }
        }));
    }
    Unlocked([&] {
        for (std::thread& thread : threads) thread.join();
    });
    EXPECT_EQ(nRight, kThreads * kEach);
    EXPECT_EQ(session->m_nRequests, 2u * kThreads * kEach);
    EXPECT_FALSE(session->Over());
    RemoveTree("/tmp/vzbrowser/127.0.0.1_" + std::to_string(breaking.Port()));
}

}  // namespace
