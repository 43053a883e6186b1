// Platform-neutral names of the types used on the wire, in the files and in interfaces.
#pragma once

#include <cstddef>
#include <cstdint>

using BYTE = uint8_t;
using WORD = uint16_t;
using USHORT = uint16_t;
using DWORD = uint32_t;
using UINT = uint32_t;
using BOOL = int;
using __int64 = int64_t;
using VARTYPE = uint16_t;
using LPCSTR = const char*;
using LPCTSTR = const char*;
using SOCKET = int;
using DATE = double;  // days since 1899-12-30 00:00 local time

// A 32-bit result number: 0 is success.
using HRESULT = int32_t;

// Distinct from UINT in overloads, 4 bytes wherever it is stored: `unsigned long` on a 32-bit
// board.
using ULONG = unsigned long;

constexpr BOOL FALSE = 0;
constexpr BOOL TRUE = 1;

// Type codes of values. The codes that XVariant handles are listed there; the others are names
// only.
enum VARENUM : VARTYPE {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_CY = 6,
    VT_DATE = 7,
    VT_BSTR = 8,
    VT_STR = VT_BSTR,
    VT_DISPATCH = 9,
    VT_ERROR = 10,
    VT_BOOL = 11,
    VT_VARIANT = 12,
    VT_UNKNOWN = 13,
    VT_DECIMAL = 14,
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_INT = 22,
    VT_UINT = 23,
    VT_ARRAY = 8192,
};
