#include "ScriptedSession.h"

#include "VzDBAccess/NotifyCall.h"

namespace {

constexpr int kUnusable = 0xFFFF;

// A core without a connection, with two drivers in its table: Boiler, id 0, 8 tags, and Mill, id 2,
// 3 tags. Entry 1 is null.
class Frames : public ::testing::Test {
  protected:
    Frames()
        : core(new CDBCore),
          boiler(core, &session, 0, CString("Boiler")),
          mill(core, &session, 2, CString("Mill")) {
        boiler.SetTagCount(8);
        mill.SetTagCount(3);
        core->m_pDrivers = {&boiler, nullptr, &mill};
        call.KeepThreadState();
    }
    ~Frames() override {
        call.LeaveInterpreter();
        core->LetGo();
    }

    // The length that the bytes are taken for. They lie in memory of just their size.
    int Length(const std::string& strBytes) {
        const std::vector<BYTE> bytes(strBytes.begin(), strBytes.end());
        return core->OnDBNotify(session, bytes.data(), bytes.size(), call);
    }
    static std::string System(unsigned nType, const std::string& strRest = "") {
        return Hex("FF FF") + U8(nType) + strRest;
    }
    // A driver frame for a tag of Boiler.
    static std::string Change(unsigned nTag, const std::string& strValue) {
        return U16(0) + U16(nTag) + strValue;
    }
    void SetType(unsigned nTag, VARTYPE vt) {
        XVariant value;
        value.vt = vt;
        if (vt == VT_STR) value = "";
        boiler.m_tags[nTag].value = value;
    }
    std::string Value(unsigned nTag) {
        return ReprOf(CDBDriver::ValueToObj(&boiler.m_tags[nTag].value));
    }

    CDBCore* core;
    CDBSession session;
    CDBDriver boiler;
    CDBDriver mill;
    CNotifyCall call;
};

// ---- System frames ------------------------------------------------------------------------------

// What each type is long when it names a driver and a tag that exist and carries the text "abc".
int WantedLength(int nType) {
    static constexpr int kLengths[23] = {kUnusable, 35, 7, 35, 43, 7,  20, 7,  5,  8,  15, 15,
                                         15,        15, 8, 8,  11, 11, 11, 11, 11, 11, 8};
    return nType < 23 ? kLengths[nType] : nType == 255 ? 3 : kUnusable;
}

TEST_F(Frames, EachOfTheSystemTypesHasItsLength) {
    for (int nType = 0; nType < 256; ++nType) {
        const std::string strFrame =
            System(static_cast<unsigned>(nType), U16(2) + U16(2) + Z("abc") + std::string(60, 'x'));
        EXPECT_EQ(Length(strFrame), WantedLength(nType)) << nType;
        EXPECT_FALSE(call.Wanted());
    }
}

TEST_F(Frames, EachShorterSystemFrameEndsTheWalk) {
    for (int nType = 0; nType < 256; ++nType) {
        const std::string strFrame =
            System(static_cast<unsigned>(nType), U16(2) + U16(2) + Z("abc") + std::string(60, 'x'));
        const size_t nWhole =
            std::min<size_t>(strFrame.size(), static_cast<size_t>(WantedLength(nType)));
        for (size_t n = 1; n < nWhole; ++n) {
            EXPECT_GT(Length(strFrame.substr(0, n)), static_cast<int>(n)) << nType << " " << n;
        }
    }
}

TEST_F(Frames, TypesThatNameATagNeedItsDriver) {
    for (unsigned nType = 9; nType <= 22; ++nType) {
        const std::string strRest = std::string(20, '\0');
        EXPECT_EQ(Length(System(nType, U16(1) + U16(0) + strRest)), kUnusable) << nType;  // null
        EXPECT_EQ(Length(System(nType, U16(3) + U16(0) + strRest)), kUnusable) << nType;
        EXPECT_EQ(Length(System(nType, U16(0xFFFF) + U16(0) + strRest)), kUnusable) << nType;
        EXPECT_LT(Length(System(nType, U16(2) + U16(0) + strRest)), kUnusable) << nType;
    }
}

TEST_F(Frames, TypesThatNameATagNeedTheTag) {
    for (unsigned nType = 9; nType <= 22; ++nType) {
        const std::string strRest = std::string(20, '\0');
        EXPECT_EQ(Length(System(nType, U16(2) + U16(3) + strRest)), kUnusable) << nType;
        EXPECT_LT(Length(System(nType, U16(2) + U16(2) + strRest)), kUnusable) << nType;
    }
}

TEST_F(Frames, TypesWithATextEndBehindItsZeroByte) {
    for (unsigned nType = 16; nType <= 21; ++nType) {
        EXPECT_EQ(Length(System(nType, U16(0) + U16(0) + Z(""))), 8) << nType;
        EXPECT_EQ(Length(System(nType, U16(0) + U16(0) + Z(std::string(900, 'x')))), 908) << nType;
        EXPECT_EQ(Length(System(nType, U16(0) + U16(0) + "no end")), kUnusable) << nType;
    }
}

TEST_F(Frames, FrameOfOneByteIsUnusable) {
    EXPECT_EQ(Length(Hex("FF")), kUnusable);
    EXPECT_EQ(Length(Hex("00")), kUnusable);
}

// ---- Driver frames ------------------------------------------------------------------------------

TEST_F(Frames, ChangeOfAnIntIsStored) {
    SetType(7, VT_I4);
    EXPECT_EQ(Length(Change(7, Hex("2A 00 00 00"))), 8);
    EXPECT_EQ(Value(7), "42");
    EXPECT_FALSE(call.Wanted());
}

TEST_F(Frames, ChangeOfATextEndsBehindItsZeroByte) {
    SetType(1, VT_STR);
    EXPECT_EQ(Length(Change(1, Z("ab") + "more")), 4 + 3);
    EXPECT_EQ(Value(1), "'ab'");
}

TEST_F(Frames, ChangeOfEachTypeHasItsWidth) {
    const std::string strValue = Hex("01 00 00 00 00 00 00 40") + "tail";
    for (unsigned nType = 0; nType < 260; ++nType) {
        static constexpr int kWidths[24] = {0, 0, 2, 4, 4, 8, 0, 8, 2, 0, 0, 1,
                                            0, 0, 0, 0, 1, 1, 2, 4, 8, 0, 4, 4};
        const int nWidth = nType < 24 ? kWidths[nType] : 0;
        SetType(0, static_cast<VARTYPE>(nType));
        const int nLength = Length(Change(0, strValue));
        if (nWidth)
            EXPECT_EQ(nLength, 4 + nWidth) << nType;
        else
            EXPECT_GE(nLength, kUnusable) << nType;
        EXPECT_EQ(boiler.m_tags[0].value.vt, nType);
    }
}

TEST_F(Frames, CutValueIsUnusableAndNotStored) {
    for (const VARTYPE vt : {VT_I2, VT_I4, VT_R4, VT_R8, VT_DATE, VT_STR, VT_BOOL, VT_I1, VT_UI1,
                             VT_UI2, VT_UI4, VT_I8, VT_INT, VT_UINT}) {
        const std::string strValue = vt == VT_STR ? Z("ab") : Hex("01 01 01 01 01 01 01 01");
        SetType(0, vt);
        const int nWhole = Length(Change(0, strValue)) - 4;
        const std::string strBefore = Value(0);
        for (int n = 0; n < nWhole; ++n) {
            const std::string strOther = vt == VT_STR ? "xyz" : Hex("02 02 02 02 02 02 02 02");
            EXPECT_GE(Length(Change(0, strOther.substr(0, static_cast<size_t>(n)))), kUnusable)
                << vt << " " << n;
            EXPECT_EQ(Value(0), strBefore) << vt << " " << n;
        }
    }
}

TEST_F(Frames, EveryShorterHeaderIsUnusable) {
    SetType(0, VT_UI1);
    for (size_t n = 1; n < 5; ++n)
        EXPECT_GE(Length(Hex("00 00 00 00 05").substr(0, n)), kUnusable) << n;
    EXPECT_EQ(Length(Hex("00 00 00 00 05")), 5);
}

TEST_F(Frames, TagNeverReadIsUnusable) {
    EXPECT_GE(Length(Change(0, Hex("2A 00 00 00"))), kUnusable);
}

TEST_F(Frames, TagIdAtTheTagCountIsUnusable) {
    EXPECT_GE(Length(Change(8, Hex("2A 00 00 00"))), kUnusable);
}

TEST_F(Frames, DriverBeyondTheTableOrNullIsExactly65535) {
    EXPECT_EQ(Length(U16(3) + U16(0) + U32(1)), 65535);
    EXPECT_EQ(Length(U16(1) + U16(0) + U32(1)), 65535);
    EXPECT_EQ(Length(U16(0xFFFE) + U16(0) + U32(1)), 65535);
}

TEST_F(Frames, EndedSessionTakesNothingIn) {
    SetType(7, VT_I4);
    session.End();
    EXPECT_EQ(Length(Change(7, Hex("2A 00 00 00"))), kUnusable);
    EXPECT_EQ(Value(7), "0");
}

// ---- Callbacks ----------------------------------------------------------------------------------

TEST_F(Frames, CallbackGetsDriverTagAndValue) {
    SetType(7, VT_I4);
    boiler.m_tags[7].strTag = CString("Temp");
    boiler.SetCBFunc(NotingFunction());
    Length(Change(7, Hex("2A 00 00 00")));
    ASSERT_TRUE(call.Wanted());
    call.MakeCall(session);
    EXPECT_EQ(Repr("calls"), "[('Boiler', 'Temp', 42)]");
}

TEST_F(Frames, CallbackGetsEachTagsNameAlsoWhenTheyAlternate) {
    for (const unsigned nTag : {5u, 7u}) SetType(nTag, VT_I4);
    boiler.m_tags[5].strTag = CString("Five");
    boiler.m_tags[7].strTag = CString("Seven");
    boiler.SetCBFunc(NotingFunction());
    for (const unsigned nTag : {5u, 7u, 7u, 5u}) {
        Length(Change(nTag, U32(nTag)));
        call.MakeCall(session);
    }
    EXPECT_EQ(Repr("[(tag, value) for _, tag, value in calls]"),
              "[('Five', 5), ('Seven', 7), ('Seven', 7), ('Five', 5)]");
    EXPECT_EQ(Repr("{driver for driver, _, _ in calls}"), "{'Boiler'}");
}

TEST_F(Frames, NamesKeptForTheNextCallAreGivenBack) {
    SetType(7, VT_I4);
    boiler.m_tags[7].strTag = CString("A name of this test alone");
    boiler.SetCBFunc(NotingFunction());
    for (int i = 0; i < 3; ++i) {
        Length(Change(7, U32(1)));
        call.MakeCall(session);
    }
    RunScript(
        "import sys\nnames = [c[1] for c in calls]\ncalls.clear()\nname = names.pop()\n"
        "names.clear()\n");
    const std::string strKept = Repr("sys.getrefcount(name)");
    call.LeaveInterpreter();
    EXPECT_EQ(std::stoi(Repr("sys.getrefcount(name)")), std::stoi(strKept) - 1);
    call.KeepThreadState();  // for the fixture
}

TEST_F(Frames, CallbackGetsNamesAsUtf8) {
    CDBDriver driver(core, &session, 0, CString("\xD6\xD0"));
    driver.SetTagCount(1);
    driver.m_tags[0].value = 1;
    driver.m_tags[0].strTag = CString("\xCE\xC4");
    core->m_pDrivers[0] = &driver;
    driver.SetCBFunc(NotingFunction());
    Length(Change(0, U32(2)));
    call.MakeCall(session);
    EXPECT_EQ(Repr("calls"), "[('\xE4\xB8\xAD', '\xE6\x96\x87', 2)]");
}

TEST_F(Frames, CallbackIsCalledWithWhatTheFrameHeld) {
    SetType(0, VT_STR);
    boiler.SetCBFunc(NotingFunction());
    Length(Change(0, Z("new")));
    boiler.m_tags[0].value = "newer";
    call.MakeCall(session);
    EXPECT_EQ(Repr("calls"), "[('Boiler', '', 'new')]");
}

TEST_F(Frames, FirstCallbackStays) {
    CPyRef first(Eval("len"));
    CPyRef second(Eval("abs"));
    boiler.SetCBFunc(first);
    boiler.SetCBFunc(second);
    EXPECT_EQ(boiler.m_tagNotifyFn.load(), first.Get());
}

TEST_F(Frames, CallbackIsABorrowedReference) {
    CPyRef fn(Eval("lambda *a: None"));
    const Py_ssize_t nBefore = Py_REFCNT(fn.Get());
    boiler.SetCBFunc(fn);
    SetType(0, VT_UI1);
    Length(Change(0, U8(1)));
    call.MakeCall(session);
    EXPECT_EQ(Py_REFCNT(fn.Get()), nBefore);
}

TEST_F(Frames, ResultOfACallbackIsReleased) {
    RunScript("keep = object()\ndef give(*args): return keep\n");
    CPyRef fn(Eval("give"));
    boiler.SetCBFunc(fn);
    SetType(0, VT_UI1);
    const std::string strBefore = Repr("sys.getrefcount(keep)");
    for (int i = 0; i < 10; ++i) {
        Length(Change(0, U8(1)));
        call.MakeCall(session);
    }
    EXPECT_EQ(Repr("sys.getrefcount(keep)"), strBefore);
}

TEST_F(Frames, ErrorOfACallbackIsReportedAndCleared) {
    RunScript(
        "caught = []\n"
        "def hook(u): caught.append((type(u.exc_value).__name__, u.object))\n"
        "old, sys.unraisablehook = sys.unraisablehook, hook\n"
        "def fail(*args): raise SystemExit(3)\n");
    CPyRef fn(Eval("fail"));
    boiler.SetCBFunc(fn);
    SetType(0, VT_UI1);
    Length(Change(0, U8(1)));
    call.MakeCall(session);
    EXPECT_EQ(TakeError(), "");
    EXPECT_EQ(Repr("[(c[0], c[1] is fail) for c in caught]"), "[('SystemExit', True)]");
    RunScript("sys.unraisablehook = old\n");
}

TEST_F(Frames, TypeWithoutAnObjectIsStoredButNotTold) {
    boiler.SetCBFunc(NotingFunction());
    SetType(0, VT_I8);
    EXPECT_EQ(Length(Change(0, Hex("05 00 00 00 00 00 00 00"))), 12);
    if (call.Wanted()) call.MakeCall(session);
    EXPECT_EQ(Repr("calls"), "[]");
    EXPECT_EQ(boiler.m_tags[0].value.llVal, 5);
    EXPECT_EQ(TakeError(), "");
}

TEST_F(Frames, TextThatIsNoUtf8IsToldWithReplacementCharacters) {
    boiler.SetCBFunc(NotingFunction());
    SetType(0, VT_STR);
    Length(Change(0, Z("\xD6\xD0")));
    call.MakeCall(session);
    EXPECT_EQ(Repr("calls[0][2]"), "'\xEF\xBF\xBD\xEF\xBF\xBD'");
}

TEST_F(Frames, UnusableFrameAsksForNoCall) {
    boiler.SetCBFunc(NotingFunction());
    SetType(0, VT_I4);
    Length(Change(0, U32(1)));
    EXPECT_TRUE(call.Wanted());
    Length(Change(0, "x"));
    EXPECT_FALSE(call.Wanted());
}

TEST_F(Frames, AlarmWithoutASubscriptionIsSteppedOver) {
    EXPECT_EQ(Length(System(1, std::string(32, '\1'))), 35);
    EXPECT_FALSE(call.Wanted());
}

TEST_F(Frames, AlarmsOfTypes1And3AskForACall) {
    core->m_rtAlarmNotifyFn = NotingFunction();
    for (unsigned nType = 1; nType <= 8; ++nType) {
        Length(System(nType, std::string(60, '\1')));
        EXPECT_EQ(call.Wanted(), nType == 1 || nType == 3) << nType;
    }
}

TEST_F(Frames, CutAlarmAsksForNoCall) {
    core->m_rtAlarmNotifyFn = NotingFunction();
    for (size_t n = 0; n < 32; ++n) {
        EXPECT_EQ(Length(System(1, std::string(n, '\1'))), 35);
        EXPECT_FALSE(call.Wanted()) << n;
    }
    Length(System(1, std::string(32, '\1')));
    EXPECT_TRUE(call.Wanted());
}

// ---- Chunks -------------------------------------------------------------------------------------

std::string Change0(uint32_t n) { return U16(0) + U16(0) + U32(n); }

std::string AlarmFrame() {
    return Hex("FF FF 01") + U32(1600000000) + U32(0) + U16(0) + U16(0) + U16(0) + Hex("01 02") +
           std::string(16, '\0');
}

class Chunks : public CDriverTest {
  protected:
    void SetUp() override {
        CDriverTest::SetUp();
        Resolve(2);
        Subscribe("T0,T1", 2, Hex("03 00") + U32(0) + Hex("08 00") + Z(""));
        drv->SetCBFunc(NotingFunction());
    }
    // Waits until the script saw this many calls and gives the values they told.
    std::string Told(int nCalls) {
        EXPECT_TRUE(WaitFor([=] { return Repr("len(calls)") == std::to_string(nCalls); }))
            << Repr("calls");
        return Repr("[c[2] for c in calls]");
    }
};

TEST_F(Chunks, FramesOfAChunkComeInOrder) {
    ASSERT_TRUE(LoadDateTime());
    core->m_rtAlarmNotifyFn = PyDict_GetItemString(ScriptGlobals(), "note");
    Push(Change0(1) + AlarmFrame() + Hex("FF FF FF") + Change0(2));
    EXPECT_TRUE(WaitFor([] { return Repr("len(calls)") == "3"; }));
    EXPECT_EQ(Repr("[len(c) for c in calls]"), "[3, 10, 3]");
    EXPECT_EQ(Repr("calls[0][2], calls[2][2]"), "(1, 2)");
    core->_Disconnect();
}

TEST_F(Chunks, UnusableFrameDropsTheRestOfItsChunkOnly) {
    for (const std::string& strBad :
         {Hex("FF FF 00"), Hex("FF FF 64"), U16(9) + U16(0) + U32(1), U16(1) + U16(0) + U32(1),
          U16(0) + U16(7) + U32(1), Hex("FF FF 09 00 00 08 00 00")}) {
        RunScript("calls.clear()\n");
        Push(Change0(1) + strBad + Change0(2));
        EXPECT_EQ(Told(1), "[1]");
        Push(Change0(3));
        EXPECT_EQ(Told(2), "[1, 3]");
    }
}

TEST_F(Chunks, CutFrameIsDroppedAndTheNextChunkStartsAnew) {
    Push(Change0(1) + Change0(2).substr(0, 7));
    EXPECT_EQ(Told(1), "[1]");
    Push(Change0(3));
    EXPECT_EQ(Told(2), "[1, 3]");
}

TEST_F(Chunks, BytesOfAnEarlierChunkAreNoFramesRest) {
    Push(Change0(0x01020304));
    EXPECT_EQ(Told(1), "[16909060]");
    Push(Change0(5).substr(0, 6));
    server.UntilTaken(nNotify, core->m_rcvSock);
    Push(Change0(7));
    EXPECT_EQ(Told(2), "[16909060, 7]");
}

TEST_F(Chunks, ValueIsStoredWithoutACallback) {
    drv->m_tagNotifyFn = nullptr;
    Push(Change0(42));
    EXPECT_TRUE(WaitFor([&] { return ReprOf(drv->GetTagValue("T0")) == "42"; }));
    EXPECT_EQ(server.Unread(0), "");
    EXPECT_EQ(Repr("calls"), "[]");
}

TEST_F(Chunks, ManyChangesAreAllTold) {
    // 256 frames fill one receive of 2048 bytes exactly.
    std::string str;
    for (uint32_t i = 0; i < 256; ++i) str += Change0(i);
    Push(str);
    EXPECT_EQ(Told(256), Repr("list(range(256))"));
}

TEST_F(Chunks, CallbackThatRaisesDoesNotStopTheNext) {
    RunScript(
        "caught = []\n"
        "old, sys.unraisablehook = sys.unraisablehook, lambda u: "
        "caught.append(u.exc_type.__name__)\n"
        "def fail(*args):\n    calls.append(args)\n    raise ValueError\n");
    CPyRef fn(Eval("fail"));
    drv->m_tagNotifyFn = fn.Get();
    Push(Change0(1) + Change0(2));
    EXPECT_EQ(Told(2), "[1, 2]");
    EXPECT_TRUE(WaitFor([] { return Repr("caught") == "['ValueError', 'ValueError']"; }));
    RunScript("sys.unraisablehook = old\n");
    core->_Disconnect();
    EXPECT_TRUE(WaitFor([] { return ReceiveThreads() == 0; }));
}

TEST_F(Chunks, TextChangesAreTold) {
    Push(U16(0) + U16(1) + Z("on") + U16(0) + U16(1) + Z(""));
    EXPECT_EQ(Told(2), "['on', '']");
}

}  // namespace
