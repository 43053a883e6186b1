#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "nonwin/XVariant.h"

namespace {

using Bytes = std::vector<BYTE>;
constexpr VARTYPE kCodesWithoutPayload[] = {0,  1,  6,  9,  10,  12,   13,
                                            14, 15, 21, 24, 100, 8204, 65535};
constexpr VARTYPE kVariantArray = 8204;

XVariant Raw(VARTYPE vt, int64_t nPayload) {
    XVariant value;
    value.llVal = nPayload;
    value.vt = vt;
    return value;
}

XVariant Text(const std::string& str) {
    XVariant value("");
    value.pStrVal->assign(str);
    return value;
}

Bytes Encoded(const XVariant& value, bool bIncludeVT) {
    Bytes bytes(value.BufferSize(bIncludeVT) + 4, 0xEE);
    const size_t nSize = value.ToBuffer(bytes.data(), 0, bIncludeVT);
    EXPECT_EQ(nSize, value.BufferSize(bIncludeVT));
    EXPECT_EQ(Bytes(bytes.begin() + static_cast<ptrdiff_t>(nSize), bytes.end()), Bytes(4, 0xEE));
    bytes.resize(nSize);
    return bytes;
}

// Exactly these bytes on the heap, at an odd address, so that a sanitizer sees a read beyond them.
class CExact {
  public:
    explicit CExact(const Bytes& bytes) : m_bytes(new BYTE[bytes.size() + 1]) {
        for (size_t i = 0; i < bytes.size(); ++i) m_bytes[i + 1] = bytes[i];
    }
    const BYTE* Data() const { return m_bytes.get() + 1; }

  private:
    std::unique_ptr<BYTE[]> m_bytes;
};

size_t Decode(XVariant& value, const Bytes& bytes, bool bIncludeVT) {
    return value.FromBuffer(CExact(bytes).Data(), bytes.size(), bIncludeVT);
}

// A value, and the bytes of its payload on the wire.
struct SSample {
    XVariant value;
    Bytes payload;
};

const std::vector<SSample>& Samples() {
    static const auto* pSamples = new std::vector<SSample>{
        {XVariant(short{-2}), {0xFE, 0xFF}},
        {XVariant(short{0x0102}), {0x02, 0x01}},
        {XVariant(USHORT{0xFF01}), {0x01, 0xFF}},
        {XVariant(258), {0x02, 0x01, 0x00, 0x00}},
        {XVariant(-2), {0xFE, 0xFF, 0xFF, 0xFF}},
        {XVariant(-2.5f), {0x00, 0x00, 0x20, 0xC0}},
        {XVariant(UINT{0xFF020304}), {0x04, 0x03, 0x02, 0xFF}},
        {Raw(VT_INT, 0x01020304), {0x04, 0x03, 0x02, 0x01}},
        {Raw(VT_UINT, 0xFFFFFFFE), {0xFE, 0xFF, 0xFF, 0xFF}},
        {XVariant(1.5), {0, 0, 0, 0, 0, 0, 0xF8, 0x3F}},
        {XVariant(25569.0, VT_DATE), {0, 0, 0, 0, 0x40, 0xF8, 0xD8, 0x40}},
        {XVariant(0x0102030405060708LL), {8, 7, 6, 5, 4, 3, 2, 1}},
        {XVariant(-2LL), {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
        {XVariant(true), {1}},
        {XVariant(false), {0}},
        {XVariant('\xFE'), {0xFE}},
        {XVariant(BYTE{0x81}), {0x81}},
        {XVariant("AB"), {'A', 'B', 0}},
        {XVariant(""), {0}},
        {XVariant("\xD6\xD0"), {0xD6, 0xD0, 0}},
    };
    return *pSamples;
}

Bytes WithCode(VARTYPE vt, const Bytes& payload) {
    Bytes bytes = {static_cast<BYTE>(vt & 0xFF), static_cast<BYTE>(vt >> 8)};
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

// True when the value has this code and these payload bytes.
bool IsRaw(const XVariant& value, VARTYPE vt, int64_t nPayload) {
    return value.vt == vt && value.llVal == nPayload;
}

TEST(WireEncode, WritesTypeCodeAndPayload) {
    for (const SSample& sample : Samples())
        EXPECT_EQ(Encoded(sample.value, true), WithCode(sample.value.vt, sample.payload));
}

TEST(WireEncode, WritesThePayloadAlone) {
    for (const SSample& sample : Samples()) EXPECT_EQ(Encoded(sample.value, false), sample.payload);
}

TEST(WireEncode, WritesKnownLiteralBytes) {
    EXPECT_EQ(Encoded(XVariant(258), true), (Bytes{0x03, 0x00, 0x02, 0x01, 0x00, 0x00}));
    EXPECT_EQ(Encoded(XVariant(258), false), (Bytes{0x02, 0x01, 0x00, 0x00}));
    EXPECT_EQ(Encoded(XVariant("AB"), true), (Bytes{0x08, 0x00, 0x41, 0x42, 0x00}));
    EXPECT_EQ(Encoded(XVariant(true), true), (Bytes{0x0B, 0x00, 0x01}));
}

TEST(WireEncode, CodesWithoutPayloadAreTheirCodeAlone) {
    for (VARTYPE vt : kCodesWithoutPayload) {
        EXPECT_EQ(Encoded(Raw(vt, -1), true), WithCode(vt, {})) << vt;
        EXPECT_EQ(Encoded(Raw(vt, -1), false), Bytes{}) << vt;
    }
    EXPECT_EQ(Encoded(Raw(VT_ARRAY, -1), true), (Bytes{0x00, 0x20}));
}

TEST(WireEncode, NothingIsWrittenToANullBufferForNothing) {
    EXPECT_EQ(XVariant().ToBuffer(nullptr, 0, false), 0u);
}

TEST(WireEncode, ATextEndsAtItsZeroByteButCountsItsLength) {
    EXPECT_EQ(Encoded(Text(std::string("A\0B", 3)), true), (Bytes{8, 0, 'A', 0, 0, 0}));
    EXPECT_EQ(Encoded(Text(std::string("A\0B", 3)), false), (Bytes{'A', 0, 0, 0}));
}

TEST(WireEncode, ANullTextIsTheEmptyText) {
    EXPECT_EQ(Encoded(Raw(VT_STR, 0), true), (Bytes{8, 0, 0}));
}

TEST(WireEncode, TheBufferLengthIsNotLookedAt) {
    BYTE bytes[6] = {};
    EXPECT_EQ(XVariant(258).ToBuffer(bytes, 1, true), 6u);
    EXPECT_EQ(bytes[3], 0x01);
}

TEST(WireDecode, ReadsTypeCodeAndPayload) {
    for (const SSample& sample : Samples()) {
        const Bytes bytes = WithCode(sample.value.vt, sample.payload);
        XVariant value("former text");
        EXPECT_EQ(Decode(value, bytes, true), bytes.size());
        EXPECT_TRUE(value == sample.value) << sample.value.vt;
    }
}

TEST(WireDecode, ReadsThePayloadByTheCodeAtHand) {
    for (const SSample& sample : Samples()) {
        XVariant value(sample.value);
        if (value.vt == VT_STR)
            *value.pStrVal = "former text";
        else
            value.llVal = 0x55;
        EXPECT_EQ(Decode(value, sample.payload, false), sample.payload.size());
        EXPECT_TRUE(value == sample.value) << sample.value.vt;
    }
}

TEST(WireDecode, ReadsTheSameFromATrustedBuffer) {
    for (const SSample& sample : Samples()) {
        const CExact bytes(WithCode(sample.value.vt, sample.payload)), payload(sample.payload);
        XVariant value("former text");
        EXPECT_EQ(value.FromBuffer(bytes.Data(), true), 2 + sample.payload.size());
        EXPECT_TRUE(value == sample.value) << sample.value.vt;
        EXPECT_EQ(value.FromBuffer(payload.Data(), false), sample.payload.size());
        EXPECT_TRUE(value == sample.value) << sample.value.vt;
    }
}

TEST(WireDecode, LeavesTheRestOfThePayloadZero) {
    XVariant value = Raw(VT_I8, -1);
    Decode(value, {0x02, 0x00, 0xFE, 0xFF}, true);
    EXPECT_TRUE(IsRaw(value, VT_I2, 0xFFFE));
    value = Raw(VT_UI1, 0);
    value.llVal = -1;
    Decode(value, {0x81}, false);
    EXPECT_TRUE(IsRaw(value, VT_UI1, 0x81));
}

TEST(WireDecode, NoShorterPrefixIsAValueAndTheVariantStays) {
    for (const SSample& sample : Samples()) {
        const Bytes whole = WithCode(sample.value.vt, sample.payload);
        for (size_t n = 0; n < whole.size(); ++n) {
            XVariant value("former text");
            const Bytes prefix(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(n));
            EXPECT_EQ(Decode(value, prefix, true), XVariant::kUndecodable) << n;
            EXPECT_EQ(*value.pStrVal, "former text");
        }
    }
}

TEST(WireDecode, NoShorterPayloadIsAValueAndTheVariantStays) {
    for (const SSample& sample : Samples()) {
        for (size_t n = 0; n < sample.payload.size(); ++n) {
            XVariant value(sample.value);
            const auto end = sample.payload.begin() + static_cast<ptrdiff_t>(n);
            EXPECT_EQ(Decode(value, Bytes(sample.payload.begin(), end), false),
                      XVariant::kUndecodable);
            EXPECT_TRUE(value == sample.value) << sample.value.vt;
        }
    }
}

TEST(WireDecode, BytesBehindTheValueAreNotConsumed) {
    for (const SSample& sample : Samples()) {
        Bytes bytes = WithCode(sample.value.vt, sample.payload);
        const size_t nSize = bytes.size();
        bytes.insert(bytes.end(), {0x41, 0x00, 0x41});
        XVariant value;
        EXPECT_EQ(Decode(value, bytes, true), nSize);
        EXPECT_TRUE(value == sample.value) << sample.value.vt;
    }
}

TEST(WireDecode, AnyNonZeroByteIsTrue) {
    XVariant value;
    EXPECT_EQ(Decode(value, {0x0B, 0x00, 0x07}, true), 3u);
    EXPECT_TRUE(IsRaw(value, VT_BOOL, 1));
    EXPECT_EQ(Decode(value, {0x80}, false), 1u);
    EXPECT_TRUE(IsRaw(value, VT_BOOL, 1));
    EXPECT_EQ(Decode(value, {0x00}, false), 1u);
    EXPECT_TRUE(IsRaw(value, VT_BOOL, 0));
}

TEST(WireDecode, OtherBytesAreTakenAsTheyAre) {
    XVariant value;
    Decode(value, {0x10, 0x00, 0x07}, true);
    EXPECT_TRUE(IsRaw(value, VT_I1, 7));
    Decode(value, {0x11, 0x00, 0xFF}, true);
    EXPECT_TRUE(IsRaw(value, VT_UI1, 255));
}

TEST(WireDecode, EveryBitOfARealSurvives) {
    XVariant value;
    const Bytes signalling = {4, 0, 0x01, 0x00, 0x80, 0x7F};
    EXPECT_EQ(Decode(value, signalling, true), 6u);
    EXPECT_EQ(Encoded(value, true), signalling);
    EXPECT_EQ(Encoded(XVariant(value), true), signalling);
}

TEST(WireDecode, CodesWithoutPayloadConsumeTheirCode) {
    for (VARTYPE vt : kCodesWithoutPayload) {
        XVariant value("former text");
        Bytes bytes = WithCode(vt, {0x41, 0x42, 0x43});
        EXPECT_EQ(Decode(value, bytes, true), 2u) << vt;
        EXPECT_TRUE(IsRaw(value, vt, 0)) << vt;
        XVariant trusted("former text");
        EXPECT_EQ(trusted.FromBuffer(CExact(WithCode(vt, {})).Data(), true), 2u) << vt;
        EXPECT_TRUE(IsRaw(trusted, vt, 0)) << vt;
    }
}

TEST(WireDecode, CodesWithoutPayloadConsumeNothingWithoutTheirCode) {
    for (VARTYPE vt : kCodesWithoutPayload) {
        XVariant value = Raw(vt, -1);
        EXPECT_EQ(Decode(value, {0x41}, false), 0u) << vt;
        EXPECT_TRUE(IsRaw(value, vt, 0)) << vt;
        value.llVal = -1;
        EXPECT_EQ(value.FromBuffer(nullptr, 0, false), 0u) << vt;
        EXPECT_EQ(value.FromBuffer(nullptr, false), 0u) << vt;
        EXPECT_TRUE(IsRaw(value, vt, 0)) << vt;
    }
}

TEST(WireDecode, AValueIsReadIntoAnyOther) {
    XVariant value("text");
    EXPECT_EQ(Decode(value, {3, 0, 7, 0, 0, 0}, true), 6u);
    EXPECT_TRUE(value == XVariant(7));
    EXPECT_EQ(Decode(value, {8, 0, 'x', 0}, true), 4u);
    EXPECT_TRUE(value == XVariant("x"));
}

const Bytes kTwoInts = {0x00, 0x20, 0x02, 0x00, 0x03, 0x00, 0x01, 0x00,
                        0x00, 0x00, 0x03, 0x00, 0x02, 0x00, 0x00, 0x00};

TEST(WireArray, BecomesAnArrayCodeWithoutContent) {
    XVariant value("former text");
    EXPECT_EQ(Decode(value, kTwoInts, true), 2u);
    EXPECT_TRUE(IsRaw(value, kVariantArray, 0));
    XVariant trusted("former text");
    EXPECT_EQ(trusted.FromBuffer(CExact(kTwoInts).Data(), true), 2u);
    EXPECT_TRUE(IsRaw(trusted, kVariantArray, 0));
}

TEST(WireArray, WithoutTypeCodeConsumesNothing) {
    const Bytes body(kTwoInts.begin() + 2, kTwoInts.end());
    XVariant value = Raw(VT_ARRAY, -1);
    EXPECT_EQ(Decode(value, body, false), 0u);
    EXPECT_TRUE(IsRaw(value, kVariantArray, 0));
    XVariant trusted = Raw(VT_ARRAY, -1);
    EXPECT_EQ(trusted.FromBuffer(CExact(body).Data(), false), 0u);
    EXPECT_TRUE(IsRaw(trusted, kVariantArray, 0));
}

TEST(WireArray, NoShorterPrefixIsAValueAndTheVariantStays) {
    for (size_t n = 0; n < kTwoInts.size(); ++n) {
        XVariant value(7);
        const auto end = kTwoInts.begin() + static_cast<ptrdiff_t>(n);
        EXPECT_EQ(Decode(value, Bytes(kTwoInts.begin(), end), true), XVariant::kUndecodable) << n;
        EXPECT_TRUE(value == XVariant(7));
    }
}

TEST(WireArray, MayBeEmpty) {
    XVariant value;
    EXPECT_EQ(Decode(value, {0x00, 0x20, 0x00, 0x00}, true), 2u);
    EXPECT_TRUE(IsRaw(value, kVariantArray, 0));
}

TEST(WireArray, ElementsOfEveryTypeMustLieInside) {
    for (const SSample& sample : Samples()) {
        Bytes bytes = {0x00, 0x20, 0x01, 0x00};
        const Bytes element = WithCode(sample.value.vt, sample.payload);
        bytes.insert(bytes.end(), element.begin(), element.end());
        XVariant value;
        EXPECT_EQ(Decode(value, bytes, true), 2u) << sample.value.vt;
        bytes.pop_back();
        EXPECT_EQ(Decode(value, bytes, true), XVariant::kUndecodable) << sample.value.vt;
    }
}

TEST(WireArray, ElementsWithoutPayloadAreTheirCode) {
    XVariant value;
    EXPECT_EQ(Decode(value, {0x00, 0x20, 0x02, 0x00, 0x06, 0x00, 0x00, 0x00}, true), 2u);
    EXPECT_EQ(Decode(value, {0x00, 0x20, 0x02, 0x00, 0x06, 0x00, 0x00}, true),
              XVariant::kUndecodable);
}

TEST(WireArray, AnArrayAmongTheElementsIsItsCode) {
    XVariant value;
    // Two elements: an array, whose count would be 0xFFFF, and VT_UI1 0x41.
    EXPECT_EQ(Decode(value, {0x00, 0x20, 0x02, 0x00, 0x00, 0x20, 0x11, 0x00, 0x41}, true), 2u);
}

TEST(WireArray, TheLargestCountIsReadInLinearTime) {
    Bytes bytes = {0x00, 0x20, 0xFF, 0xFF};
    for (int i = 0; i < 65535; ++i) bytes.insert(bytes.end(), {0x00, 0x20});
    XVariant value;
    EXPECT_EQ(Decode(value, bytes, true), 2u);
    bytes.pop_back();
    EXPECT_EQ(Decode(value, bytes, true), XVariant::kUndecodable);
}

TEST(WireSize, OfAPayload) {
    const BYTE widths[] = {0, 0, 2, 4, 4, 8, 0, 8, 0, 0, 0, 1, 0,
                           0, 0, 0, 1, 1, 2, 4, 8, 0, 4, 4, 0};
    for (VARTYPE vt = 0; vt < sizeof widths; ++vt)
        EXPECT_EQ(XVariant::GetVTSize(vt), widths[vt]) << vt;
    EXPECT_EQ(XVariant::GetVTSize(VT_DATE), 8);
    for (VARTYPE vt : {VARTYPE{25}, VARTYPE{8192}, VARTYPE{65535}})
        EXPECT_EQ(XVariant::GetVTSize(vt), 0) << vt;
}

TEST(WireSize, OfPackedElements) {
    const UINT sizes[] = {0, 0, 10, 20, 20, 40, 0,  0,  0, 0,  0,  1, 0,
                          0, 0, 0,  5,  5,  10, 20, 40, 0, 20, 20, 0};
    for (VARTYPE vt = 0; vt < sizeof sizes / sizeof *sizes; ++vt)
        EXPECT_EQ(XVariant::GetVTSize(vt, 5), sizes[vt]) << vt;
    EXPECT_EQ(XVariant::GetVTSize(VT_DATE, 3), 0u);
    EXPECT_EQ(XVariant::GetVTSize(8192, 3), 0u);
}

TEST(WireSize, OfPackedBooleans) {
    EXPECT_EQ(XVariant::GetVTSize(VT_BOOL, 0), 0u);
    EXPECT_EQ(XVariant::GetVTSize(VT_BOOL, 1), 1u);
    EXPECT_EQ(XVariant::GetVTSize(VT_BOOL, 8), 1u);
    EXPECT_EQ(XVariant::GetVTSize(VT_BOOL, 9), 2u);
}

TEST(WireSize, OfPackedElementsWrapsAt32Bits) {
    EXPECT_EQ(XVariant::GetVTSize(VT_R8, 0x20000001u), 8u);
    EXPECT_EQ(XVariant::GetVTSize(VT_BOOL, 0xFFFFFFFFu), 0u);
}

TEST(WireSize, InWords) {
    const BYTE words[] = {1, 1, 1, 2, 2, 4, 1, 1, 1, 1, 1, 1, 1,
                          1, 1, 1, 1, 1, 1, 2, 4, 1, 2, 2, 1};
    for (VARTYPE vt = 0; vt < sizeof words; ++vt)
        EXPECT_EQ(XVariant::GetVTSizeW(vt), words[vt]) << vt;
    EXPECT_EQ(XVariant::GetVTSizeW(VT_DATE), 1);
    EXPECT_EQ(XVariant::GetVTSizeW(8192), 1);
}

TEST(WireSize, OfAValue) {
    EXPECT_EQ(XVariant(7).BufferSize(true), 6u);
    EXPECT_EQ(XVariant(7).BufferSize(false), 4u);
    EXPECT_EQ(Text("AB").BufferSize(true), 5u);
    EXPECT_EQ(Text("AB").BufferSize(false), 3u);
    EXPECT_EQ(XVariant().BufferSize(true), 2u);
    EXPECT_EQ(XVariant().BufferSize(false), 0u);
    EXPECT_EQ(Raw(VT_STR, 0).BufferSize(false), 1u);
}

}  // namespace
