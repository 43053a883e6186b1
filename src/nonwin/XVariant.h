// The tagged value that holds every tag value, its conversions, and its encoding on the wire.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

#include "ByteCursor.h"
#include "VzDefine.h"
#include "nonwin/cstring.h"

// A 16-bit type code and an 8-byte payload.
//
// The codes it understands, each with its payload member:
//   2 VT_I2 iVal     3 VT_I4 lVal     4 VT_R4 fltVal   5 VT_R8 dblVal   7 VT_DATE date
//   8 VT_STR pStrVal 11 VT_BOOL boolVal                16 VT_I1 cVal    17 VT_UI1 bVal
//   18 VT_UI2 uiVal  19 VT_UI4 ulVal  20 VT_I8 llVal   22 VT_INT intVal 23 VT_UINT uintVal
// and 0 VT_EMPTY and 1 VT_NULL without a payload. Every other code is carried and answered in a
// fixed way, stated at each operation; nothing here fails on it.
// Deliberate: VT_I1 is read as unsigned (0 to 255) by every conversion.
// A VT_STR without a text (pStrVal null) counts as the empty text everywhere.
//
// Ownership: a value; a VT_STR owns the CString that pStrVal points to. Both members are open to
//            callers, who keep that rule when they store a pointer.
// Threads:   one thread at a time. Python: none.
// std::bad_alloc leaves the value as it was before the call.
class XVariant {
  public:
    // Result of the bounded FromBuffer for bytes that hold no whole value.
    static constexpr size_t kUndecodable = std::numeric_limits<size_t>::max();
    static constexpr size_t kCodeBytes = 2;  // of a type code on the wire

    VARTYPE vt = VT_EMPTY;
    // The compilers that this library is built with define what reading another member than the
    // last one stored gives: the same bytes.
    union {
        CString* pStrVal;
        bool boolVal;
        char cVal;
        BYTE bVal;
        int16_t iVal;
        USHORT uiVal;
        int32_t intVal;
        int32_t lVal;
        UINT uintVal;
        UINT ulVal;
        float fltVal;
        double dblVal;
        DATE date;
        alignas(8) int64_t llVal = 0;
    };

    XVariant() {}  // not defaulted: clang would then refuse `const XVariant value;`
    ~XVariant() {
        if (vt == VT_STR) Clear();
    }

    // Carries all 8 payload bytes of codes it does not know, unlike the assignment.
    XVariant(const XVariant& other) {
        if (other.vt == VT_STR) {
            CopyText(other);
        } else {
            CopyPayload(other);
        }
        vt = other.vt;
    }
    // Leaves other empty.
    XVariant(XVariant&& other) noexcept { Swap(other); }
    // Deliberate: of codes it does not know (VT_CY and VT_UI8 among them) only the code is taken,
    // the payload becomes zero. Assigning a value to itself changes nothing.
    XVariant& operator=(const XVariant& other);

    // VT_STR; a null pointer gives the empty text.
    XVariant(LPCSTR szValue) : vt(VT_STR) { pStrVal = new CString(szValue ? szValue : ""); }
    XVariant(bool bValue) : vt(VT_BOOL) { bVal = bValue ? 1 : 0; }
    XVariant(char chValue) : vt(VT_I1) { cVal = chValue; }
    XVariant(BYTE nValue) : vt(VT_UI1) { bVal = nValue; }
    XVariant(short nValue) : vt(VT_I2) { iVal = nValue; }
    XVariant(USHORT nValue) : vt(VT_UI2) { uiVal = nValue; }
    XVariant(int nValue) : vt(VT_I4) { lVal = nValue; }
    // VT_I4 and VT_UI4: the low 32 bits where long is wider. A 64-bit value must come as long long,
    // whatever int64_t is on the host.
    XVariant(long nValue) : vt(VT_I4) { lVal = static_cast<int32_t>(nValue); }
    XVariant(UINT nValue) : vt(VT_UI4) { ulVal = nValue; }
    XVariant(ULONG nValue) : vt(VT_UI4) { ulVal = static_cast<UINT>(nValue); }
    XVariant(float fValue) : vt(VT_R4) { fltVal = fValue; }
    // vtValue is VT_R8 or VT_DATE. Another code gets the 8 bytes of the double as its payload, but
    // VT_STR, whose payload is a pointer, is taken as VT_R8.
    XVariant(double dValue, VARTYPE vtValue = VT_R8)
        : vt(vtValue == VT_STR ? VARTYPE{VT_R8} : vtValue) {
        dblVal = dValue;
    }
    XVariant(long long nValue) : vt(VT_I8) { llVal = nValue; }

    // As the constructors; a double becomes VT_R8.
    XVariant& operator=(LPCSTR szValue) { return Become(XVariant(szValue)); }
    XVariant& operator=(bool bValue) { return Become(XVariant(bValue)); }
    XVariant& operator=(char chValue) { return Become(XVariant(chValue)); }
    XVariant& operator=(BYTE nValue) { return Become(XVariant(nValue)); }
    XVariant& operator=(short nValue) { return Become(XVariant(nValue)); }
    XVariant& operator=(USHORT nValue) { return Become(XVariant(nValue)); }
    XVariant& operator=(int nValue) { return Become(XVariant(nValue)); }
    XVariant& operator=(long nValue) { return Become(XVariant(nValue)); }
    XVariant& operator=(UINT nValue) { return Become(XVariant(nValue)); }
    XVariant& operator=(ULONG nValue) { return Become(XVariant(nValue)); }
    XVariant& operator=(float fValue) { return Become(XVariant(fValue)); }
    XVariant& operator=(double dValue) { return Become(XVariant(dValue)); }
    XVariant& operator=(long long nValue) { return Become(XVariant(nValue)); }

    // Frees a text and makes the value VT_EMPTY with a zero payload. A value that is VT_EMPTY
    // already is not touched.
    void Clear();

    // Conversions. Codes without a meaning as a number give 0.
    // A text is read from its start with strtod, for integers with strtoul where unsigned long has
    // 32 bits (ToInt64: strtoull), base 10; no number gives 0. For integers a text "#RRGGBB" is a
    // colour and gives 0x00BBGGRR.
    float ToFloat() const;
    double ToDouble() const;
    // Reals are cut toward zero and clamped to the signed 32 bits, NaN gives 0; of VT_I8 the low 32
    // bits are taken; signed values are sign-extended.
    UINT ToInt() const;
    // Reals are cut toward zero and clamped to the signed 64 bits, NaN gives 0; signed values are
    // sign-extended.
    uint64_t ToInt64() const;
    // True when ToInt is not 0: 0.5 and the text "abc" are false.
    bool ToBool() const { return ToInt() != 0; }
    // A text is read as "year-month-day hour:minute:second" in local time (see TextToDate); every
    // other value is ToDouble.
    DATE ToDate() const;

    // Converts to vtNew: this value, or the one pSrc points to when it is not null.
    // Returns 0, also when the code is vtNew already: then nothing changes, whatever pSrc is.
    // Returns 1 for a code without conversion (0, 1, 6, 9, 10, 12 to 15, 21, 24 and above); the
    // value is then vtNew with a zero payload.
    HRESULT ChangeType(VARTYPE vtNew, const XVariant* pSrc = nullptr);

    // str becomes the text form. nPointBit from 1 to 10 asks for that many digits after the decimal
    // point: of reals, and as zeros behind integers (deliberate: not behind VT_I8). 0 rounds reals
    // half away from zero to a 32-bit integer; any other number prints them with "%g".
    // VT_BOOL is "1" or "0"; VT_DATE is "2024-03-05 07:08:09" in local time, empty when the date
    // has none. Deliberate: of VT_I8 only the low 32 bits are printed, as a signed number.
    // True; false with an empty str for a code without text form.
    bool ToStringA(CString& str, int nPointBit) const;
    bool ToString(CString& str, int nPointBit) const { return ToStringA(str, nPointBit); }

    // True when the codes are equal and so are the payloads, as numbers of their type (NaN equals
    // nothing) or as texts up to their first zero byte. VT_EMPTY and VT_NULL equal themselves; a
    // code that the class does not know equals nothing, not even itself.
    bool operator==(const XVariant& other) const;
    bool operator!=(const XVariant& other) const { return !(*this == other); }

    // Bytes of the payload on the wire: 1, 2, 4 or 8; 0 for VT_STR, whose length is its own, and
    // for codes without payload.
    static BYTE GetVTSize(VARTYPE vtValue) {
        static constexpr BYTE kWidths[] = {
            2, 4, 4, 8, 0, 8, 0, 0, 0, 1, 0,  // 2 to 12
            0, 0, 0, 1, 1, 2, 4, 8, 0, 4, 4,  // 13 to 23
        };
        return vtValue < VT_I2 || vtValue > VT_UINT ? BYTE{0} : kWidths[vtValue - VT_I2];
    }
    // Bytes of nCount packed elements, booleans as bits, modulo 2^32.
    // Deliberate: 0 for VT_DATE, as for every code without elements.
    static UINT GetVTSize(VARTYPE vtValue, UINT nCount);
    // Width in 16-bit words. Deliberate: 1 for VT_DATE, as for every code not 4 or 8 bytes wide.
    static BYTE GetVTSizeW(VARTYPE vtValue);

    // Bytes that ToBuffer writes: 2 for the type code with bIncludeVT, and the payload: as
    // GetVTSize says, the length and a zero byte for VT_STR.
    size_t BufferSize(bool bIncludeVT) const;
    // Writes the value, little-endian without padding:
    //   type code u16 (with bIncludeVT), then the payload of GetVTSize bytes, or for VT_STR the
    //   bytes of the text up to its first zero byte, zero up to BufferSize.
    // pBuffer has room for BufferSize(bIncludeVT) bytes: nBufLen is not looked at.
    // Returns BufferSize(bIncludeVT).
    size_t ToBuffer(BYTE* pBuffer, size_t nBufLen, bool bIncludeVT) const;

    // Reads one value from nBufLen bytes as they came from the wire. Without bIncludeVT the present
    // type code says what the payload is, else it is read first. Any non-zero byte is a true
    // VT_BOOL. VT_STR ends at its zero byte.
    // VT_ARRAY (8192) becomes 8204 (array of variants) with an empty payload. Its u16 count and
    // that many elements, each with its type code, must lie inside the bytes but are not kept and,
    // deliberately, not counted in the result, so nothing can follow an array. An array among the
    // elements is its type code alone.
    // Returns the bytes consumed: 0 for a value without payload and type code. kUndecodable when
    // the value does not fit in the bytes; the variant is then as it was.
    size_t FromBuffer(const BYTE* pBuffer, size_t nBufLen, bool bIncludeVT) {
        const size_t nCode = bIncludeVT ? kCodeBytes : 0;
        if (nBufLen < nCode) return kUndecodable;
        const VARTYPE vtNew = bIncludeVT ? LoadLittle<VARTYPE>(pBuffer) : vt;
        const BYTE* pPayload = pBuffer + nCode;
        const size_t nLeft = nBufLen - nCode;
        // By the width, not with it: so the processor knows early where the next value begins.
        switch (GetVTSize(vtNew)) {
            case 1:
                return TakeNumber<1>(vtNew, pPayload, nLeft) ? nCode + 1 : kUndecodable;
            case 2:
                return TakeNumber<2>(vtNew, pPayload, nLeft) ? nCode + 2 : kUndecodable;
            case 4:
                return TakeNumber<4>(vtNew, pPayload, nLeft) ? nCode + 4 : kUndecodable;
            case 8:
                return TakeNumber<8>(vtNew, pPayload, nLeft) ? nCode + 8 : kUndecodable;
            default:
                return NoNumberFromBuffer(pBuffer, nBufLen, bIncludeVT);
        }
    }
    // The same for a buffer that is known to hold a whole value, with the result that the bounded
    // form would give; the elements of an array are not looked at.
    size_t FromBuffer(const BYTE* pBuffer, bool bIncludeVT);
    // Keeps a length from being taken for bIncludeVT.
    size_t FromBuffer(const BYTE* pBuffer, size_t nBufLen) = delete;

    // An empty value becomes a copy, of numbers too with all 8 payload bytes.
    void CopyWhole(const XVariant& other) {
        if (other.vt == VT_STR) {
            CopyText(other);
        } else {
            llVal = other.llVal;
        }
        vt = other.vt;
    }
    // Takes over the content of other, which ends with the former one.
    void Swap(XVariant& other) noexcept {
        std::swap(vt, other.vt);
        std::swap(llVal, other.llVal);
    }

  private:
    XVariant& Become(XVariant&& other) noexcept {
        Swap(other);
        return *this;
    }
    // FromBuffer of a value without a width: a text, an array, or nothing but its type code.
    size_t NoNumberFromBuffer(const BYTE* pBuffer, size_t nBufLen, bool bIncludeVT);
    // Becomes a number of that width, of nLeft bytes; the payload above it is zero. False, and
    // nothing has changed, when the bytes are too few.
    template <size_t nWidth>
    bool TakeNumber(VARTYPE vtNew, const BYTE* p, size_t nLeft) {
        if (nLeft < nWidth) return false;
        if (vt == VT_STR) Clear();
        vt = vtNew;
        if (nWidth == 1) llVal = vtNew == VT_BOOL && *p != 0 ? 1 : *p;
        if (nWidth == 2) llVal = LoadLittle<USHORT>(p);
        if (nWidth == 4) llVal = LoadLittle<UINT>(p);
        if (nWidth == 8) llVal = static_cast<int64_t>(LoadLittle<uint64_t>(p));
        return true;
    }
    void CopyText(const XVariant& other);
    // The bytes of other's payload by its width, which are the low ones; all 8 of codes that are
    // not known.
    void CopyPayload(const XVariant& other) {
        static constexpr uint64_t kMasks[] = {~0ull, 0xFF, 0xFFFF, 0, 0xFFFFFFFF, 0, 0, 0, ~0ull};
        llVal =
            static_cast<int64_t>(static_cast<uint64_t>(other.llVal) & kMasks[GetVTSize(other.vt)]);
    }
    // The text of a VT_STR up to its first zero byte, "" when there is none.
    LPCSTR Text() const { return pStrVal ? pStrVal->c_str() : ""; }
    // The value of an integer or boolean code, 0 for every other.
    int64_t IntegerValue() const;
};

static_assert(offsetof(XVariant, vt) == 0, "type code first");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "payloads start with their low byte");
static_assert(offsetof(XVariant, pStrVal) == 8 && offsetof(XVariant, llVal) == 8, "then payload");
static_assert(sizeof(XVariant) == 16, "8 bytes of payload on every host");
