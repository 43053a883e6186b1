#include "ScriptedSession.h"

// The fixture comes first: it brings the interpreter's header.
#include <cstring>
#include <ctime>
#include <fstream>

#include "VzDBAccess/NotifyCall.h"

namespace {

std::string F64(double d) {
    uint64_t n;
    std::memcpy(&n, &d, sizeof n);
    return U32(static_cast<uint32_t>(n)) + U32(static_cast<uint32_t>(n >> 32));
}

struct SAlarm {
    uint32_t nTime = 1600000000;
    uint32_t nEvent = 0;
    unsigned nTag = 0;
    unsigned nKind = 0;
    unsigned nGroup = 0;
    unsigned nLevel = 1;
    unsigned nStatus = 2;
    double dValue = 1.5;
    double dLimit = -2.0;

    std::string Bytes() const {
        return U32(nTime) + U32(nEvent) + U16(nTag) + U16(nKind) + U16(nGroup) + U8(nLevel) +
               U8(nStatus) + F64(dValue) + F64(dLimit);
    }
};

S2RtAlarm2 Decoded(const std::string& strBytes) {
    CByteReader reader(strBytes.data(), strBytes.size());
    S2RtAlarm2 alarm{};
    EXPECT_TRUE(DecodeAlarm(reader, alarm));
    EXPECT_EQ(reader.Left(), 0u);
    return alarm;
}

const char kLiteralAlarm[] =
    "01 02 03 84  05 06 07 88  09 0A  0B 0C  0D 0E  0F  F0"
    "00 00 00 00 00 00 F8 3F  00 00 00 00 00 00 00 C0";

TEST(AlarmRecord, IsTakenApartByteByByte) {
    const S2RtAlarm2 alarm = Decoded(Hex(kLiteralAlarm));
    EXPECT_EQ(alarm.almtm, 0x84030201u);
    EXPECT_EQ(alarm.evttm, 0x88070605u);
    EXPECT_EQ(alarm.tid, 0x0A09);
    EXPECT_EQ(alarm.type, 0x0C0B);
    EXPECT_EQ(alarm.grp, 0x0E0D);
    EXPECT_EQ(alarm.level, 0x0F);
    EXPECT_EQ(alarm.status, 0xF0);
    EXPECT_EQ(alarm.value, 1.5);
    EXPECT_EQ(alarm.limit, -2.0);
}

TEST(AlarmRecord, EveryShorterOneIsCut) {
    const std::string strBytes = Hex(kLiteralAlarm);
    ASSERT_EQ(strBytes.size(), 32u);
    for (size_t n = 0; n < 32; ++n) {
        CByteReader reader(strBytes.data(), n);
        S2RtAlarm2 alarm{};
        EXPECT_FALSE(DecodeAlarm(reader, alarm)) << n;
    }
}

// ---- The call -----------------------------------------------------------------------------------

class AlarmCall : public ::testing::Test {
  protected:
    AlarmCall() {
        if (const char* sz = getenv("TZ")) strZone = sz;
        SetZone("UTC");
        EXPECT_TRUE(LoadDateTime());
    }
    ~AlarmCall() override {
        strZone.empty() ? unsetenv("TZ") : setenv("TZ", strZone.c_str(), 1);
        tzset();
    }
    static void SetZone(const char* sz) {
        setenv("TZ", sz, 1);
        tzset();
    }
    // What the script sees of an alarm.
    std::string Told(const SAlarm& alarm) {
        const S2RtAlarm2 record = Decoded(alarm.Bytes());
        FireRtAlarm(NotingFunction(), &record, texts, tags);
        EXPECT_EQ(TakeError(), "");
        return Repr("calls[0]");
    }
    std::string ToldAt(const SAlarm& alarm, int n) {
        Told(alarm);
        return Repr("calls[0][" + std::to_string(n) + "]");
    }

    std::vector<CString> texts = {CString("high"), CString("group")};
    std::vector<CString> tags = {CString("Temp"), CString("\xE4\xB8\xAD")};

  private:
    std::string strZone;
};

TEST_F(AlarmCall, HasTenArguments) {
    SAlarm alarm;
    alarm.nEvent = 1600000001;
    alarm.nTag = 1;
    alarm.nGroup = 1;
    alarm.nLevel = 255;
    alarm.nStatus = 254;
    EXPECT_EQ(Told(alarm),
              "(datetime.datetime(2020, 9, 13, 12, 26, 40), datetime.datetime(2020, 9, 13, 12, 26, "
              "41), '\xE4\xB8\xAD', 1, 'high', 'group', 255, 1.5, -2.0, 254)");
}

TEST_F(AlarmCall, WithoutAnEventTimeHasTheAlarmTimeTwiceAndA0) {
    EXPECT_EQ(Told(SAlarm()),
              "(datetime.datetime(2020, 9, 13, 12, 26, 40), datetime.datetime(2020, 9, 13, 12, 26, "
              "40), 'Temp', 0, 'high', 'high', 1, 1.5, -2.0, 2)");
}

TEST_F(AlarmCall, TimesAreLocalAndNaive) {
    SetZone("XXX-5:30");
    EXPECT_EQ(ToldAt(SAlarm(), 0), "datetime.datetime(2020, 9, 13, 17, 56, 40)");
    EXPECT_EQ(Repr("calls[0][0].tzinfo"), "None");
}

TEST_F(AlarmCall, TimesBeyond31BitsAreUnsigned) {
    SAlarm alarm;
    alarm.nTime = 0x80000000u;
    EXPECT_EQ(ToldAt(alarm, 0), "datetime.datetime(2038, 1, 19, 3, 14, 8)");
    alarm.nTime = 0xFFFFFFFFu;
    EXPECT_EQ(ToldAt(alarm, 0), "datetime.datetime(2106, 2, 7, 6, 28, 15)");
}

TEST_F(AlarmCall, TimeZeroIsTheEpoch) {
    SAlarm alarm;
    alarm.nTime = 0;
    EXPECT_EQ(ToldAt(alarm, 0), "datetime.datetime(1970, 1, 1, 0, 0)");
}

TEST_F(AlarmCall, IndexAtAListsEndIsQuestionMarks) {
    SAlarm alarm;
    alarm.nTag = 2;
    EXPECT_EQ(ToldAt(alarm, 2), "'?\?\?'");
    alarm.nKind = 2;
    EXPECT_EQ(ToldAt(alarm, 4), "'?\?\?'");
    alarm.nGroup = 0xFFFF;
    EXPECT_EQ(ToldAt(alarm, 5), "'?\?\?'");
}

TEST_F(AlarmCall, EmptyListsGiveQuestionMarks) {
    texts.clear();
    tags.clear();
    Told(SAlarm());
    EXPECT_EQ(Repr("calls[0][2], calls[0][4], calls[0][5]"), "('?\?\?', '?\?\?', '?\?\?')");
}

TEST_F(AlarmCall, ResultIsReleasedAndErrorReported) {
    RunScript(
        "keep = object()\ncaught = []\n"
        "old, sys.unraisablehook = sys.unraisablehook, lambda u: "
        "caught.append(u.exc_type.__name__)\n"
        "def give(*args): return keep\ndef fail(*args): raise KeyError\n");
    const S2RtAlarm2 record = Decoded(SAlarm().Bytes());
    CPyRef give(Eval("give"));
    CPyRef fail(Eval("fail"));
    const std::string strBefore = Repr("sys.getrefcount(keep)");
    FireRtAlarm(give, &record, texts, tags);
    EXPECT_EQ(Repr("sys.getrefcount(keep)"), strBefore);
    FireRtAlarm(fail, &record, texts, tags);
    EXPECT_EQ(TakeError(), "");
    EXPECT_EQ(Repr("caught"), "['KeyError']");
    RunScript("sys.unraisablehook = old\n");
}

// ---- The subscription ---------------------------------------------------------------------------

class AlarmSubscription : public CScriptedSession {
  protected:
    void SetUp() override {
        LogIn();
        NotingFunction();
    }
    static PyObject* Note() { return PyDict_GetItemString(ScriptGlobals(), "note"); }
    static std::string List(const std::string& strBody) {
        return "Size:" + Upper(static_cast<unsigned>(strBody.size())) +
               "\r\nFileTime:5F5E1000\r\n\r\n" + strBody;
    }
    void OrderLists() {
        OnRequest("4RecData/textlist\r\nHello:Yes\r\n\r\n", List("low\nhigh\n"));
        OnRequest("4RecData/taglist\r\nHello:Yes\r\n\r\n", List("Temp\n"));
    }
    int Subscribe(bool bExisting) { return core->_SetRtAlarmNotify(Note(), bExisting); }
};

TEST_F(AlarmSubscription, AsksForAlarmsAndBothLists) {
    OnRequest("n", Hex("6E 00 00"));
    OrderLists();
    EXPECT_EQ(Subscribe(true), 0);
    EXPECT_TRUE(server.Done());
    EXPECT_EQ(server.Unread(0), "");
    EXPECT_EQ(core->m_textList, (std::vector<CString>{CString("low"), CString("high")}));
    EXPECT_EQ(core->m_tagList, std::vector<CString>{CString("Temp")});
    EXPECT_EQ(core->m_rtAlarmNotifyFn.load(), Note());
    EXPECT_EQ(Repr("calls"), "[]");
}

TEST_F(AlarmSubscription, TellsOfExistingAlarmsInTheirOrder) {
    SAlarm first;
    SAlarm second;
    first.nLevel = 11;
    first.nKind = 1;
    second.nLevel = 22;
    OnRequest("n", Hex("6E 02 00") + first.Bytes() + second.Bytes());
    OrderLists();
    EXPECT_EQ(Subscribe(true), 0);
    EXPECT_EQ(Repr("[(c[2], c[4], c[6]) for c in calls]"),
              "[('Temp', 'high', 11), ('Temp', 'low', 22)]");
}

TEST_F(AlarmSubscription, DropsExistingAlarmsThatAreNotWanted) {
    OnRequest("n", Hex("6E 03 00") + Repeat(SAlarm().Bytes(), 3));
    OrderLists();
    EXPECT_EQ(Subscribe(false), 0);
    EXPECT_EQ(Repr("calls"), "[]");
    EXPECT_TRUE(server.Done());
}

TEST_F(AlarmSubscription, CountsBeyond255) {
    OnRequest("n", Hex("6E 01 01") + Repeat(SAlarm().Bytes(), 257));
    OrderLists();
    EXPECT_EQ(Subscribe(true), 0);
    EXPECT_EQ(Repr("len(calls)"), "257");
}

TEST_F(AlarmSubscription, RecordsMayComeInPieces) {
    server.Expect(0, "n");
    server.Send(0, Hex("6E 01 00"));
    server.Drip(0, SAlarm().Bytes());
    OrderLists();
    EXPECT_EQ(Subscribe(true), 0);
    EXPECT_EQ(Repr("len(calls)"), "1");
}

TEST_F(AlarmSubscription, HeaderInTwoReceivesIsMinus2) {
    server.Expect(0, "n");
    server.Send(0, Hex("6E 00"));
    server.UntilTaken(0, core->m_reqSock);
    server.Send(0, Hex("00"));
    EXPECT_EQ(Subscribe(true), -2);
    EXPECT_EQ(core->m_rtAlarmNotifyFn.load(), nullptr);
    EXPECT_TRUE(server.Done());  // the session ends only then
}

TEST_F(AlarmSubscription, OtherCodeIsMinus2) {
    OnRequest("n", Hex("30 00 00"));
    EXPECT_EQ(Subscribe(true), -2);
    EXPECT_EQ(core->m_rtAlarmNotifyFn.load(), nullptr);
}

TEST_F(AlarmSubscription, EveryShorterReplyIsMinus2AndCallsNothing) {
    const std::string strReply = Hex("6E 02 00") + SAlarm().Bytes() + SAlarm().Bytes();
    for (const size_t nCut : {0u, 1u, 2u, 3u, 4u, 34u, 35u, 36u, 66u}) {
        OnRequest("n", strReply.substr(0, nCut));
        server.Close(nReq);
        EXPECT_EQ(Subscribe(true), -2) << nCut;
        EXPECT_EQ(Repr("calls"), "[]") << nCut;
        ASSERT_TRUE(server.Done());
        core->_Disconnect();
        nReq += 2;
        OrderHellos(nReq);
        OrderUser(nReq);
        ASSERT_EQ(Connect(), kConnected);
    }
    EXPECT_TRUE(core->m_textList.empty());
}

TEST_F(AlarmSubscription, SecondOneIsMinus1AndSendsNothing) {
    OnRequest("n", Hex("6E 00 00"));
    OrderLists();
    EXPECT_EQ(Subscribe(true), 0);
    CPyRef other(Eval("len"));
    EXPECT_EQ(core->_SetRtAlarmNotify(other, true), -1);
    EXPECT_EQ(core->m_rtAlarmNotifyFn.load(), Note());
    EXPECT_EQ(server.Unread(0), "");
}

TEST_F(AlarmSubscription, StaysThroughAReconnect) {
    OnRequest("n", Hex("6E 00 00"));
    OrderLists();
    EXPECT_EQ(Subscribe(true), 0);
    OrderHellos(2);
    OrderUser(2);
    ASSERT_EQ(Connect(), kConnected);
    EXPECT_EQ(Subscribe(true), -1);
    server.Send(3, Hex("FF FF 03") + SAlarm().Bytes());
    EXPECT_TRUE(WaitFor([] { return Repr("len(calls)") == "1"; }));
    EXPECT_EQ(Repr("calls[0][2]"), "'Temp'");
    core->_Disconnect();
}

TEST_F(AlarmSubscription, WithoutASessionIsMinus2) {
    core->_Disconnect();
    EXPECT_EQ(Subscribe(true), -2);
}

TEST_F(AlarmSubscription, ListsTheServerDoesNotHaveStayEmpty) {
    OnRequest("n", Hex("6E 01 00") + SAlarm().Bytes());
    OnRequest("4RecData/textlist\r\nHello:Yes\r\n\r\n", "Exist:No\r\n\r\n");
    OnRequest("4RecData/taglist\r\nHello:Yes\r\n\r\n", "Exist:No\r\n\r\n");
    EXPECT_EQ(Subscribe(true), 0);
    EXPECT_EQ(Repr("calls[0][2], calls[0][4]"), "('?\?\?', '?\?\?')");
}

TEST_F(AlarmSubscription, ListNotObtainedIsLoadedFromTheCache) {
    std::ofstream(ProjectFolder() + "RecData/textlist") << "cached\n";
    OnRequest("n", Hex("6E 01 00") + SAlarm().Bytes());
    server.Close(0);
    EXPECT_EQ(Subscribe(true), 0);
    EXPECT_EQ(Repr("calls[0][2], calls[0][4]"), "('?\?\?', 'cached')");
}

TEST_F(AlarmSubscription, FilledListIsNotAskedFor) {
    core->m_textList.push_back(CString("kept"));
    OnRequest("n", Hex("6E 00 00"));
    OnRequest("4RecData/taglist\r\nHello:Yes\r\n\r\n", List("Temp\n"));
    EXPECT_EQ(Subscribe(true), 0);
    EXPECT_TRUE(server.Done());
    EXPECT_EQ(core->m_textList, std::vector<CString>{CString("kept")});
}

TEST_F(AlarmSubscription, AlarmsBeforeItAreSteppedOver) {
    server.Send(1, Hex("FF FF 01") + SAlarm().Bytes());
    server.UntilTaken(1, core->m_rcvSock);
    server.Send(1, Hex("FF FF FF"));  // received only when the alarm has been dealt with
    server.UntilTaken(1, core->m_rcvSock);
    ASSERT_TRUE(server.Done());
    OnRequest("n", Hex("6E 00 00"));
    OrderLists();
    EXPECT_EQ(Subscribe(true), 0);
    SAlarm later;
    later.nLevel = 99;
    server.Send(1, Hex("FF FF 01") + later.Bytes());
    EXPECT_TRUE(WaitFor([] { return Repr("[c[6] for c in calls]") == "[99]"; })) << Repr("calls");
    core->_Disconnect();
}

TEST_F(AlarmSubscription, CallableIsBorrowed) {
    const Py_ssize_t nBefore = Py_REFCNT(Note());
    OnRequest("n", Hex("6E 01 00") + SAlarm().Bytes());
    OrderLists();
    EXPECT_EQ(Subscribe(true), 0);
    EXPECT_EQ(Py_REFCNT(Note()), nBefore);
}

}  // namespace
