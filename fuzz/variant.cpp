// The variant decoder. Input: 0, then a value with type code; or the type code that is known (a
// byte; 0xFF stands for an array's) and a value without one.

#include <cstring>
#include <vector>

#include "Input.h"
#include "nonwin/XVariant.h"

namespace {

// Equal as bytes of the wire: NaN is equal to itself then.
std::vector<BYTE> Encoded(const XVariant& value, bool bIncludeVT) {
    std::vector<BYTE> bytes(value.BufferSize(bIncludeVT) + 1, BYTE{0xA5});
    const size_t nSize = value.ToBuffer(bytes.data(), bytes.size(), bIncludeVT);
    Require(nSize + 1 == bytes.size() && bytes.back() == 0xA5, "encoded size");
    bytes.pop_back();
    return bytes;
}

void CheckConversions(const XVariant& value) {
    value.ToFloat();
    value.ToDouble();
    value.ToInt64();
    Require(value.ToBool() == (value.ToInt() != 0), "as truth");
    CString str;
    for (int nPointBit = -1; nPointBit <= 11; ++nPointBit) value.ToStringA(str, nPointBit);
    for (unsigned vt = 0; vt <= 24; ++vt) {
        if (vt == VT_DATE && value.vt == VT_STR)
            continue;  // dates of texts are a target of their own
        XVariant changed(value);
        const HRESULT nResult = changed.ChangeType(static_cast<VARTYPE>(vt));
        Require(changed.vt == vt && (nResult == 0 || nResult == 1), "changed type");
        if (nResult == 1) Require(changed.llVal == 0, "no payload");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    CInput input(pData, nSize);
    const unsigned nKnown = input.Byte();
    const bool bIncludeVT = nKnown == 0;
    XVariant value;
    if (!bIncludeVT) value.vt = nKnown == 0xFF ? VARTYPE{VT_ARRAY} : static_cast<VARTYPE>(nKnown);
    const VARTYPE vtBefore = value.vt;

    const size_t nUsed = value.FromBuffer(input.Data(), input.Left(), bIncludeVT);
    if (nUsed == XVariant::kUndecodable) {
        Require(value.vt == vtBefore && value.llVal == 0,
                "a value that does not fit changes nothing");
        return 0;
    }
    Require(nUsed <= input.Left(), "used more than there was");

    // The form for trusted bytes agrees, and so does one that is given just the bytes used; but
    // that one needs the elements of an array, which are not counted.
    XVariant trusted;
    if (!bIncludeVT) trusted.vt = vtBefore;
    const size_t nTrusted = trusted.FromBuffer(input.Data(), bIncludeVT);
    Require(nTrusted == nUsed && trusted.vt == value.vt, "trusted form");
    const bool bArray = value.vt == (VT_ARRAY | VT_VARIANT) && (vtBefore == VT_ARRAY || bIncludeVT);
    if (!bArray && nUsed > 0) {
        XVariant exact;
        if (!bIncludeVT) exact.vt = vtBefore;
        Require(exact.FromBuffer(input.Data(), nUsed, bIncludeVT) == nUsed, "exact bytes");
        XVariant cut;
        if (!bIncludeVT) cut.vt = vtBefore;
        Require(cut.FromBuffer(input.Data(), nUsed - 1, bIncludeVT) == XVariant::kUndecodable,
                "one byte less");
    }

    // Encoded it is the bytes that were used; but that every true boolean becomes 1, and an array
    // is another code.
    const std::vector<BYTE> bytes = Encoded(value, bIncludeVT);
    if (!bArray && value.vt != VT_BOOL) {
        Require(bytes.size() == nUsed, "encoded again: size");
        Require(nUsed == 0 || std::memcmp(bytes.data(), input.Data(), nUsed) == 0, "encoded again");
    }
    if (value.vt == VT_BOOL)
        Require(bytes.back() == (input.Data()[nUsed - 1] != 0 ? 1 : 0), "any other byte is true");
    XVariant again;
    if (!bIncludeVT) again.vt = value.vt;
    Require(again.FromBuffer(bytes.data(), bytes.size(), bIncludeVT) == bytes.size(),
            "decoded again");
    Require(Encoded(again, bIncludeVT) == bytes, "encoded a second time");

    const XVariant copy(value);
    XVariant assigned;
    assigned = value;
    Require(Encoded(copy, true) == Encoded(value, true), "copy");
    Require(Encoded(assigned, true) == Encoded(value, true), "assigned");
    CheckConversions(value);
    return 0;
}
