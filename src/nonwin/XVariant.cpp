#include "nonwin/XVariant.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "ByteCursor.h"
#include "nonwin/VariantPub.h"

namespace {

constexpr VARTYPE kVariantArray = VT_ARRAY | VT_VARIANT;

// The colour word 0x00BBGGRR of the hexadecimal digits RRGGBB.
UINT ColourOfDigits(LPCSTR szDigits) {
    const DWORD nRgb = TextToU32(szDigits, 16);
    return (nRgb & 0xFF) << 16 | (nRgb & 0xFF00) | (nRgb >> 16 & 0xFF);
}

// Reads the payload of an element that is not kept. An array is its type code alone.
void SkipElement(CByteReader& reader) {
    const VARTYPE vtElement = reader.ReadU16();
    size_t nLen;
    if (vtElement == VT_STR)
        reader.TakeText(nLen);
    else
        reader.Take(XVariant::GetVTSize(vtElement));
}

// Reads the count and the elements of an array. Every element takes bytes, so the time is bounded
// by the bytes at hand.
void SkipElements(CByteReader& reader) {
    const WORD nCount = reader.ReadU16();
    for (WORD i = 0; i < nCount && !reader.Failed(); ++i) SkipElement(reader);
}

}  // namespace

void XVariant::CopyText(const XVariant& other) {
    if (other.pStrVal) pStrVal = new CString(*other.pStrVal);
}

XVariant& XVariant::operator=(const XVariant& other) {
    if (this == &other) return *this;
    XVariant copy(other);
    if (copy.vt != VT_STR && GetVTSize(copy.vt) == 0) copy.llVal = 0;
    return Become(std::move(copy));
}

void XVariant::Clear() {
    if (vt == VT_EMPTY) return;
    if (vt == VT_STR) delete pStrVal;
    vt = VT_EMPTY;
    llVal = 0;
}

int64_t XVariant::IntegerValue() const {
    switch (vt) {
        case VT_I2:
            return iVal;
        case VT_UI2:
            return uiVal;
        case VT_I4:
        case VT_INT:
            return lVal;
        case VT_UI4:
        case VT_UINT:
            return ulVal;
        case VT_BOOL:
            return bVal != 0;
        case VT_I1:
        case VT_UI1:
            return bVal;
        case VT_I8:
            return llVal;
        default:
            return 0;
    }
}

float XVariant::ToFloat() const {
    switch (vt) {
        case VT_R4:
            return fltVal;
        case VT_R8:
        case VT_DATE:
            return static_cast<float>(dblVal);
        case VT_STR:
            return static_cast<float>(std::strtod(Text(), nullptr));
        default:
            return static_cast<float>(IntegerValue());
    }
}

double XVariant::ToDouble() const {
    switch (vt) {
        case VT_R4:
            return fltVal;
        case VT_R8:
        case VT_DATE:
            return dblVal;
        case VT_STR:
            return std::strtod(Text(), nullptr);
        default:
            return static_cast<double>(IntegerValue());
    }
}

UINT XVariant::ToInt() const {
    switch (vt) {
        case VT_R4:
        case VT_R8:
        case VT_DATE:
            return static_cast<UINT>(RealToI32(ToDouble()));
        case VT_STR:
            return *Text() == '#' ? ColourOfDigits(Text() + 1) : TextToU32(Text(), 10);
        default:
            return static_cast<UINT>(IntegerValue());
    }
}

uint64_t XVariant::ToInt64() const {
    switch (vt) {
        case VT_R4:
        case VT_R8:
        case VT_DATE:
            return static_cast<uint64_t>(RealToI64(ToDouble()));
        case VT_STR:
            return *Text() == '#' ? ColourOfDigits(Text() + 1) : std::strtoull(Text(), nullptr, 10);
        default:
            return static_cast<uint64_t>(IntegerValue());
    }
}

DATE XVariant::ToDate() const { return vt == VT_STR ? TextToDate(Text()) : ToDouble(); }

HRESULT XVariant::ChangeType(VARTYPE vtNew, const XVariant* pSrc) {
    if (vt == vtNew) return 0;
    const XVariant& source = pSrc ? *pSrc : *this;
    XVariant changed;
    changed.vt = vtNew;
    HRESULT nResult = 0;
    switch (vtNew) {
        case VT_I2:
        case VT_UI2:
            changed.uiVal = static_cast<USHORT>(source.ToInt());
            break;
        case VT_I4:
        case VT_UI4:
        case VT_INT:
        case VT_UINT:
            changed.ulVal = source.ToInt();
            break;
        case VT_R4:
            changed.fltVal = source.ToFloat();
            break;
        case VT_R8:
            changed.dblVal = source.ToDouble();
            break;
        case VT_DATE:
            changed.date = source.ToDate();
            break;
        case VT_STR:
            changed.pStrVal = new CString();
            source.ToStringA(*changed.pStrVal, -1);
            break;
        case VT_BOOL:
            changed.bVal = source.ToBool() ? 1 : 0;
            break;
        case VT_I1:
        case VT_UI1:
            changed.bVal = static_cast<BYTE>(source.ToInt());
            break;
        case VT_I8:
            changed.llVal = static_cast<int64_t>(source.ToInt64());
            break;
        default:
            nResult = 1;
    }
    Swap(changed);
    return nResult;
}

bool XVariant::ToStringA(CString& str, int nPointBit) const {
    switch (vt) {
        case VT_STR:
            str = pStrVal ? *pStrVal : CString();
            return true;
        case VT_I2:
        case VT_I4:
        case VT_INT:
        case VT_I1:
        case VT_UI1:
        case VT_UI2:
        case VT_UI4:
        case VT_UINT:
            FormatInteger(IntegerValue(), nPointBit, str);
            return true;
        case VT_I8:
            FormatInteger(static_cast<int32_t>(ToInt()), 0, str);
            return true;
        case VT_R4:
            FormatReal(fltVal, nPointBit, str);
            return true;
        case VT_R8:
            FormatReal(dblVal, nPointBit, str);
            return true;
        case VT_DATE:
            FormatDate(date, str);
            return true;
        case VT_BOOL:
            str.assign(bVal ? "1" : "0");
            return true;
        default:
            str.Empty();
            return false;
    }
}

bool XVariant::operator==(const XVariant& other) const {
    if (vt != other.vt) return false;
    switch (vt) {
        case VT_EMPTY:
        case VT_NULL:
            return true;
        case VT_R4:
            return fltVal == other.fltVal;
        case VT_R8:
        case VT_DATE:
            return dblVal == other.dblVal;
        case VT_STR:
            return std::strcmp(Text(), other.Text()) == 0;
        case VT_BOOL:
            return bVal == other.bVal;
        default:
            return GetVTSize(vt) != 0 && IntegerValue() == other.IntegerValue();
    }
}

UINT XVariant::GetVTSize(VARTYPE vtValue, UINT nCount) {
    switch (vtValue) {
        case VT_BOOL:
            return (nCount + 7) / 8;
        case VT_DATE:
            return 0;
        default:
            return GetVTSize(vtValue) * nCount;
    }
}

BYTE XVariant::GetVTSizeW(VARTYPE vtValue) {
    const BYTE nBytes = GetVTSize(vtValue);
    return vtValue != VT_DATE && nBytes > 2 ? static_cast<BYTE>(nBytes / 2) : BYTE{1};
}

size_t XVariant::BufferSize(bool bIncludeVT) const {
    const size_t nCode = bIncludeVT ? kCodeBytes : 0;
    if (vt != VT_STR) return nCode + GetVTSize(vt);
    return nCode + (pStrVal ? pStrVal->GetLength() : 0) + 1;
}

size_t XVariant::ToBuffer(BYTE* pBuffer, size_t /*nBufLen*/, bool bIncludeVT) const {
    CByteWriter writer(pBuffer, BufferSize(bIncludeVT));
    if (bIncludeVT) writer.WriteU16(vt);
    if (vt == VT_STR) {
        writer.WriteBytes(Text(), std::strlen(Text()));
        while (writer.Room() > 0) writer.WriteU8(0);
        return writer.Size();
    }
    switch (GetVTSize(vt)) {
        case 1:
            writer.WriteU8(bVal);
            break;
        case 2:
            writer.WriteU16(uiVal);
            break;
        case 4:
            writer.WriteU32(ulVal);
            break;
        case 8:
            writer.WriteU64(static_cast<uint64_t>(llVal));
            break;
        default:
            break;
    }
    return writer.Size();
}

size_t XVariant::NoNumberFromBuffer(const BYTE* pBuffer, size_t nBufLen, bool bIncludeVT) {
    CByteReader reader(pBuffer, nBufLen);
    const VARTYPE vtNew = bIncludeVT ? reader.ReadU16() : vt;
    XVariant decoded;
    decoded.vt = vtNew;
    size_t nConsumed = reader.Consumed();
    if (vtNew == VT_ARRAY) {
        SkipElements(reader);  // not consumed
        decoded.vt = kVariantArray;
    } else if (vtNew == VT_STR) {
        size_t nLen;
        const char* szText = reader.TakeText(nLen);
        if (szText) decoded.pStrVal = new CString(std::string(szText, nLen));
        nConsumed = reader.Consumed();
    }
    if (reader.Failed()) return kUndecodable;
    Swap(decoded);
    return nConsumed;
}

size_t XVariant::FromBuffer(const BYTE* pBuffer, bool bIncludeVT) {
    CByteReader reader(pBuffer, bIncludeVT ? kCodeBytes : 0);
    const VARTYPE vtWire = bIncludeVT ? reader.ReadU16() : vt;
    if (vtWire == VT_ARRAY) {
        XVariant array;
        array.vt = kVariantArray;
        Swap(array);
        return reader.Consumed();
    }
    size_t nPayload = GetVTSize(vtWire);
    if (vtWire == VT_STR)
        nPayload =
            std::strlen(static_cast<const char*>(static_cast<const void*>(reader.Data()))) + 1;
    return FromBuffer(pBuffer, reader.Consumed() + nPayload, bIncludeVT);
}
