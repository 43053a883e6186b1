#include "ScriptedSession.h"

namespace {

// The bytes of a value as it would be written, "(none)" when it cannot be encoded.
std::string Encoded(const std::string& strExpression) {
    BYTE buf[kMaxWriteBytes];
    UINT nLen = 3;
    CPyRef value(Eval(strExpression));
    if (!CDBDriver::ObjToBuf(value, buf, nLen)) {
        EXPECT_EQ(nLen, 3u);
        EXPECT_EQ(TakeError(), "");
        return "(none)";
    }
    return std::string(buf + 3, buf + nLen);
}

class Encoding : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(TakeError(), ""); }
};

TEST_F(Encoding, IntIsCode3AndFourBytes) {
    EXPECT_EQ(Encoded("5"), Hex("03 00 05 00 00 00"));
    EXPECT_EQ(Encoded("-2"), Hex("03 00 FE FF FF FF"));
}

TEST_F(Encoding, IntAtTheEdgesOf32Bits) {
    EXPECT_EQ(Encoded("2**31 - 1"), Hex("03 00 FF FF FF 7F"));
    EXPECT_EQ(Encoded("-2**31"), Hex("03 00 00 00 00 80"));
}

TEST_F(Encoding, IntBeyond32BitsIsMinus1AndAnOverflowError) {
    for (const char* sz : {"2**31", "-2**31 - 1", "2**63 - 1", "2**63", "-2**64", "10**30"}) {
        EXPECT_EQ(Encoded(sz), Hex("03 00 FF FF FF FF")) << sz;
        EXPECT_EQ(TakeError(), "OverflowError") << sz;
    }
}

TEST_F(Encoding, BoolIsCode11AndOneByte) {
    EXPECT_EQ(Encoded("True"), Hex("0B 00 01"));
    EXPECT_EQ(Encoded("False"), Hex("0B 00 00"));
}

TEST_F(Encoding, FloatIsCode5AndEightBytes) {
    EXPECT_EQ(Encoded("0.1"), Hex("05 00 9A 99 99 99 99 99 B9 3F"));
    EXPECT_EQ(Encoded("float('-inf')"), Hex("05 00 00 00 00 00 00 00 F0 FF"));
}

TEST_F(Encoding, StrIsCode8AndUtf8WithItsZeroByte) {
    EXPECT_EQ(Encoded("'x'"), Hex("08 00 78 00"));
    EXPECT_EQ(Encoded("''"), Hex("08 00 00"));
    EXPECT_EQ(Encoded("'\\u4e2d'"), Hex("08 00 E4 B8 AD 00"));
}

TEST_F(Encoding, StrWithAZeroCharacterCannotBeEncoded) {
    EXPECT_EQ(Encoded("'a\\0b'"), "(none)");
    EXPECT_EQ(Encoded("'\\0'"), "(none)");
}

TEST_F(Encoding, LoneSurrogateCannotBeEncoded) { EXPECT_EQ(Encoded("'\\ud800'"), "(none)"); }

TEST_F(Encoding, SubclassesCount) {
    RunScript("class I(int): pass\nclass F(float): pass\nclass S(str): pass\n");
    EXPECT_EQ(Encoded("I(5)"), Hex("03 00 05 00 00 00"));
    EXPECT_EQ(Encoded("F(1.0)"), Hex("05 00 00 00 00 00 00 00 F0 3F"));
    EXPECT_EQ(Encoded("S('x')"), Hex("08 00 78 00"));
}

TEST_F(Encoding, EverythingElseCannotBeEncoded) {
    for (const char* sz : {"None", "b'x'", "[1]", "(1,)", "{}", "1j", "object()"}) {
        EXPECT_EQ(Encoded(sz), "(none)") << sz;
    }
}

TEST_F(Encoding, ValueThatFillsTheRoomFits) {
    EXPECT_EQ(Encoded("'x' * 2042").size(), 2045u);  // 3 + 2 + 2042 + 1 = 2048
}

TEST_F(Encoding, ValueOneByteLongerDoesNot) { EXPECT_EQ(Encoded("'x' * 2043"), "(none)"); }

// ---- Writing ------------------------------------------------------------------------------------

class TagWrite : public CDriverTest {
  protected:
    void SetUp() override {
        CDriverTest::SetUp();
        Resolve(4);
    }
    void TearDown() override { EXPECT_EQ(TakeError(), ""); }
    int Write(const std::string& strTags, const std::string& strExpression) {
        CPyRef values(Eval(strExpression));
        return drv->SetTagValue(strTags.c_str(), values);
    }
    void ExpectSent(const std::string& strBytes) {
        server.Expect(0, strBytes);
        EXPECT_TRUE(server.Done());
        EXPECT_EQ(server.Unread(0), "");
    }
    void ExpectNothingSent() { EXPECT_EQ(server.Unread(0), ""); }
};

TEST_F(TagWrite, OneIntIs13Bytes) {
    EXPECT_EQ(Write("T2", "5"), 0);
    ExpectSent(Hex("67 01 00 00 00 02 00 03 00 05 00 00 00"));
}

TEST_F(TagWrite, RequestNamesTheDriver) {
    drv->m_drvId = 0x1234;
    EXPECT_EQ(Write("T2", "True"), 0);
    ExpectSent(Hex("67 01 00 34 12 02 00 0B 00 01"));
}

TEST_F(TagWrite, SeveralNamesTakeAList) {
    EXPECT_EQ(Write("T0,T1,T2", "[True, 'x', 1.0]"), 0);
    ExpectSent(
        Hex("67 03 00 00 00 00 00 0B 00 01 00 00 01 00 08 00 78 00 00 00 02 00 05 00 "
            "00 00 00 00 00 00 F0 3F"));
}

TEST_F(TagWrite, ListMayBeASubclass) {
    RunScript("class L(list): pass\n");
    EXPECT_EQ(Write("T0,T1", "L([True, False])"), 0);
    ExpectSent(Hex("67 02 00 00 00 00 00 0B 00 01 00 00 01 00 0B 00 00"));
}

TEST_F(TagWrite, ListMayBeLonger) {
    EXPECT_EQ(Write("T0,T1", "[True, False, None, 7]"), 0);
    ExpectSent(Hex("67 02 00 00 00 00 00 0B 00 01 00 00 01 00 0B 00 00"));
}

TEST_F(TagWrite, UnknownNameConsumesItsItem) {
    OnLookup({"X"}, {0xFFFF});
    Ids("X");
    EXPECT_EQ(Write("T0,X,T1", "[True, object(), False]"), 0);
    ExpectSent(Hex("67 02 00 00 00 00 00 0B 00 01 00 00 01 00 0B 00 00"));
}

TEST_F(TagWrite, UnknownNamesOnlyAreARequestWithoutValues) {
    OnLookup({"X", "Y"}, {0xFFFF, 0xFFFF});
    EXPECT_EQ(Write("X,Y", "[1, 2]"), 0);
    ExpectSent(Hex("67 00 00"));
}

TEST_F(TagWrite, MixedListTakesItsItemsInTheOrderOfResolving) {
    OnLookup({"C"}, {6});
    EXPECT_EQ(Write("C,T0", "[True, False]"), 0);
    ExpectSent(Hex("67 02 00 00 00 00 00 0B 00 01 00 00 06 00 0B 00 00"));
}

TEST_F(TagWrite, NoNameIsDoneWithoutARequest) {
    EXPECT_EQ(Write("", "5"), 0);
    EXPECT_EQ(Write(",", "None"), 0);
    ExpectNothingSent();
}

TEST_F(TagWrite, WithoutTheRightIsMinus1EvenForUnknownNames) {
    core->m_nRights = ~8u;
    EXPECT_EQ(Write("T0", "5"), -1);
    EXPECT_EQ(Write("X", "None"), -1);
    EXPECT_EQ(Write("", "5"), -1);
    ExpectNothingSent();
}

TEST_F(TagWrite, RightIsBitValue8) {
    core->m_nRights = 8;
    EXPECT_EQ(Write("T0", "True"), 0);
    ExpectSent(Hex("67 01 00 00 00 00 00 0B 00 01"));
}

TEST_F(TagWrite, NamesNotResolvedAreMinus2) {
    OnRequest(Lookup({"X"}), Hex("30 00 00 00 00"));
    EXPECT_EQ(Write("X", "5"), -2);
}

TEST_F(TagWrite, OneUnknownNameIsMinus3) {
    OnLookup({"X"}, {0xFFFF});
    EXPECT_EQ(Write("X", "5"), -3);
    EXPECT_EQ(Write(" ", "5"), -3);
    ExpectNothingSent();
}

TEST_F(TagWrite, UnencodableValuesAreMinus3) {
    EXPECT_EQ(Write("T0", "None"), -3);
    EXPECT_EQ(Write("T0", "[5]"), -3);
    EXPECT_EQ(Write("T0", "'a\\0'"), -3);
    EXPECT_EQ(Write("T0", "'\\ud800'"), -3);
    EXPECT_EQ(Write("T0,T1", "[1, None]"), -3);
    ExpectNothingSent();
}

TEST_F(TagWrite, SeveralNamesWithoutAListAreMinus3) {
    EXPECT_EQ(Write("T0,T1", "(1, 2)"), -3);
    EXPECT_EQ(Write("T0,T1", "5"), -3);
    EXPECT_EQ(Write("T0,T1", "'ab'"), -3);
    ExpectNothingSent();
}

TEST_F(TagWrite, ShortListIsMinus3) {
    EXPECT_EQ(Write("T0,T1", "[1]"), -3);
    EXPECT_EQ(Write("T0,T1", "[]"), -3);
    ExpectNothingSent();
}

TEST_F(TagWrite, ShortListIsMinus3AlsoForUnknownNames) {
    OnLookup({"X"}, {0xFFFF});
    EXPECT_EQ(Write("T0,X", "[1]"), -3);
    ExpectNothingSent();
}

TEST_F(TagWrite, EmptySlotOfAReadListIsMinus3) {
    CPyRef list(PyList_New(2));
    PyList_SET_ITEM(list.Get(), 0, PyLong_FromLong(1));
    EXPECT_EQ(drv->SetTagValue("T0,T1", list), -3);
    ExpectNothingSent();
}

TEST_F(TagWrite, RequestOf2048BytesIsSent) {
    EXPECT_EQ(Write("T0", "'x' * 2038"), 0);  // 7 + 2 + 2038 + 1
    ExpectSent(Hex("67 01 00 00 00 00 00 08 00") + Z(std::string(2038, 'x')));
}

TEST_F(TagWrite, RequestOf2049BytesIsMinus3) {
    EXPECT_EQ(Write("T0", "'x' * 2039"), -3);
    ExpectNothingSent();
}

TEST_F(TagWrite, SeveralValuesTogetherBeyond2048BytesAreMinus3) {
    // 3 + (4 + 2 + 1000 + 1) + (4 + 2 + n + 1) = 2048 for n = 1031.
    EXPECT_EQ(Write("T0,T1", "['x' * 1000, 'x' * 1032]"), -3);
    ExpectNothingSent();
    EXPECT_EQ(Write("T0,T1", "['x' * 1000, 'x' * 1031]"), 0);
    EXPECT_EQ(server.Unread(0).size(), 2048u);
}

TEST_F(TagWrite, OverflowIsWrittenAsMinus1AndRaised) {
    EXPECT_EQ(Write("T0", "2**40"), 0);
    EXPECT_EQ(TakeError(), "OverflowError");
    ExpectSent(Hex("67 01 00 00 00 00 00 03 00 FF FF FF FF"));
}

TEST_F(TagWrite, OverflowInAListLeavesTheOthersAsTheyAre) {
    EXPECT_EQ(Write("T0,T1,T2", "[2**31, True, 'x']"), 0);
    EXPECT_EQ(TakeError(), "OverflowError");
    ExpectSent(
        Hex("67 03 00 00 00 00 00 03 00 FF FF FF FF 00 00 01 00 0B 00 01 00 00 02 00 08 00 "
            "78 00"));
}

TEST_F(TagWrite, OverflowOfAnUnknownNamesItemIsNone) {
    OnLookup({"X"}, {0xFFFF});
    Ids("X");
    EXPECT_EQ(Write("X,T0", "[2**40, True]"), 0);
    EXPECT_EQ(TakeError(), "");
    ExpectSent(Hex("67 01 00 00 00 00 00 0B 00 01"));
}

TEST_F(TagWrite, ToAServerThatIsGoneIsMinus2InTheEnd) {
    server.Close(0);
    ASSERT_TRUE(server.Done());
    int nResult = 0;
    EXPECT_TRUE(WaitFor([&] {
        nResult = Write("T0", "5");
        return nResult != 0;
    }));
    EXPECT_EQ(nResult, -2);
}

TEST_F(TagWrite, SubscribedTagsAreWrittenAndKeepTheirValue) {
    Subscribe("T0", 1, Hex("03 00") + U32(1));
    EXPECT_EQ(Write("T0", "5"), 0);
    EXPECT_EQ(Value(0), "1");  // until the server tells of the change
    ExpectSent(Hex("67 01 00 00 00 00 00 03 00 05 00 00 00"));
}

}  // namespace
