#include "vzclient/Values.h"

#include <Python.h>
#include <datetime.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <ctime>

namespace {

constexpr int64_t kUsPerSecond = 1000000;
constexpr int kSecondsPerDay = 86400;
constexpr double kMsPerDay = 86400e3;
constexpr int64_t kDateEpochDays = 25569;  // 1970-01-01 as a date
constexpr double kMaxDate = 2958466;       // 10000-01-01
constexpr double kMinDate = -657434;       // 0100-01-01
constexpr int kLastYear = 9999;            // that a datetime holds

// A datetime of broken-down local time, whose tm_gmtoff tells the zone.
PyObject* LocalToPy(const tm& local, int nUs) {
    PyObject* delta = PyDelta_FromDSU(0, static_cast<int>(local.tm_gmtoff), 0);
    PyObject* zone = delta ? PyTimeZone_FromOffset(delta) : nullptr;
    PyObject* result = nullptr;
    if (zone) {
        result = PyDateTimeAPI->DateTime_FromDateAndTime(
            local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
            local.tm_sec, nUs, zone, PyDateTimeAPI->DateTimeType);
    }
    Py_XDECREF(delta);
    Py_XDECREF(zone);
    return result;
}

// The real number of these bits, which are the low ones.
template <typename T>
T FromBits(uint64_t nBits) {
    T f;
    std::memcpy(&f, &nBits, sizeof f);
    return f;
}

// A date is wall-clock time in whole days and their fraction, here to the millisecond.
PyObject* DateToPy(double fDays) {
    if (!(fDays >= kMinDate && fDays < kMaxDate)) return PyFloat_FromDouble(fDays);
    const int64_t nMs = std::llround((fDays - kDateEpochDays) * kMsPerDay);
    const int64_t nSeconds = nMs >= 0 ? nMs / 1000 : -((999 - nMs) / 1000);
    const time_t nWall = static_cast<time_t>(nSeconds);
    tm wall;
    if (nWall != nSeconds || !gmtime_r(&nWall, &wall) || wall.tm_year > kLastYear - 1900) {
        return PyFloat_FromDouble(fDays);  // rounding may lead beyond the last year too
    }
    tm local = wall;
    local.tm_isdst = -1;
    mktime(&local);  // for the zone alone: an hour that the clock skipped stays as it is
    wall.tm_gmtoff = local.tm_gmtoff;
    return LocalToPy(wall, static_cast<int>(nMs - nSeconds * 1000) * 1000);
}

// The object of a type that is no text. Payloads of one width have the same bytes, whatever they
// mean: nBits are those of a number's, in its low bytes.
PyObject* NumberToPy(VARTYPE vt, uint64_t nBits) {
    switch (vt) {
        case VT_I2:
            return PyLong_FromLong(static_cast<int16_t>(nBits));
        case VT_I4:
        case VT_INT:
            return PyLong_FromLong(static_cast<int32_t>(nBits));
        case VT_UI4:
        case VT_UINT:
            return PyLong_FromUnsignedLong(static_cast<uint32_t>(nBits));
        case VT_R4:
            return PyFloat_FromDouble(static_cast<double>(FromBits<float>(nBits)));
        case VT_R8:
            return PyFloat_FromDouble(FromBits<double>(nBits));
        case VT_DATE:
            return DateToPy(FromBits<double>(nBits));
        case VT_BOOL:
            return PyBool_FromLong(static_cast<uint8_t>(nBits));
        case VT_I1:
            return PyLong_FromLong(static_cast<int8_t>(nBits));
        case VT_UI1:
            return PyLong_FromLong(static_cast<uint8_t>(nBits));
        case VT_UI2:
            return PyLong_FromLong(static_cast<uint16_t>(nBits));
        case VT_I8:
            return PyLong_FromLongLong(static_cast<int64_t>(nBits));
        default:
            Py_RETURN_NONE;
    }
}

PyObject* TextToPy(const char* sz, size_t nLen) {
    const Py_ssize_t nSize = static_cast<Py_ssize_t>(nLen);
    PyObject* text = PyUnicode_DecodeUTF8(sz, nSize, nullptr);
    if (text || !PyErr_ExceptionMatches(PyExc_UnicodeDecodeError)) return text;
    PyErr_Clear();
    text = PyUnicode_Decode(sz, nSize, "gb2312", nullptr);
    if (text || !PyErr_ExceptionMatches(PyExc_UnicodeDecodeError)) return text;
    PyErr_Clear();
    return PyUnicode_DecodeUTF8(sz, nSize, "replace");
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
int64_t DaysFromCivil(int nYear, int nMonth, int nDay) {
    const int64_t y = nMonth <= 2 ? nYear - 1 : nYear;
    const int64_t nEra = (y >= 0 ? y : y - 399) / 400;
    const int64_t nYearOfEra = y - nEra * 400;
    const int64_t nDayOfYear = (153 * (nMonth + (nMonth > 2 ? -3 : 9)) + 2) / 5 + nDay - 1;
    return nEra * 146097 + nYearOfEra * 365 + nYearOfEra / 4 - nYearOfEra / 100 + nDayOfYear -
           719468;
}

// The days of a datetime as local wall-clock time. Without the interpreter's own conversion, which
// on a 32-bit host ends in 2038. False when there is no local time of that moment, or with an error
// set.
bool DateOf(PyObject* obj, double& fDays) {
    const int nClock = PyDateTime_DATE_GET_HOUR(obj) * 3600 + PyDateTime_DATE_GET_MINUTE(obj) * 60 +
                       PyDateTime_DATE_GET_SECOND(obj);
    int64_t nSeconds = nClock + DaysFromCivil(PyDateTime_GET_YEAR(obj), PyDateTime_GET_MONTH(obj),
                                              PyDateTime_GET_DAY(obj)) *
                                    kSecondsPerDay;
    int64_t nUs = PyDateTime_DATE_GET_MICROSECOND(obj);
    PyObject* offset = PyObject_CallMethod(obj, "utcoffset", nullptr);
    if (!offset) return false;
    const bool bAware = PyDelta_Check(offset);  // else it is local time already
    if (bAware) {
        nUs -= PyDateTime_DELTA_GET_MICROSECONDS(offset);
        nSeconds -= int64_t{PyDateTime_DELTA_GET_DAYS(offset)} * kSecondsPerDay +
                    PyDateTime_DELTA_GET_SECONDS(offset);
        if (nUs < 0) {
            nUs += kUsPerSecond;
            --nSeconds;
        }
    }
    Py_DECREF(offset);
    if (bAware) {
        const time_t nUtc = static_cast<time_t>(nSeconds);
        tm local;
        if (nUtc != nSeconds || !localtime_r(&nUtc, &local)) return false;
        if (local.tm_year < 1 - 1900 || local.tm_year > kLastYear - 1900) return false;
        nSeconds += local.tm_gmtoff;
    }
    const int64_t nOfDay = (nSeconds % kSecondsPerDay + kSecondsPerDay) % kSecondsPerDay;
    const int64_t nDays = (nSeconds - nOfDay) / kSecondsPerDay + kDateEpochDays;
    const double fSeconds = static_cast<double>(nOfDay) + static_cast<double>(nUs) / 1e6;
    fDays = static_cast<double>(nDays) + fSeconds / kSecondsPerDay;
    return true;
}

void Append(std::string& strBytes, const void* p, size_t nSize) {
    strBytes.append(static_cast<const char*>(p), nSize);
}

void PutReal(std::string& strBytes, double f) {
    BYTE bytes[10];
    CByteWriter writer(bytes, sizeof bytes);
    writer.WriteU16(VT_R8);
    writer.WriteF64(f);
    Append(strBytes, bytes, sizeof bytes);
}

void PutInt(std::string& strBytes, int32_t n) {
    BYTE bytes[6];
    CByteWriter writer(bytes, sizeof bytes);
    writer.WriteU16(VT_I4);
    writer.WriteU32(static_cast<DWORD>(n));
    Append(strBytes, bytes, sizeof bytes);
}

void PutBool(std::string& strBytes, bool b) {
    BYTE bytes[3];
    CByteWriter writer(bytes, sizeof bytes);
    writer.WriteU16(VT_BOOL);
    writer.WriteU8(b ? 1 : 0);
    Append(strBytes, bytes, sizeof bytes);
}

// Why a value is not taken; null when it is, or when an error is set.
const char* PutText(PyObject* obj, std::string& strBytes) {
    if (!PyUnicode_Check(obj)) return "the tag holds text";
    Py_ssize_t nLen = 0;
    const char* sz = PyUnicode_AsUTF8AndSize(obj, &nLen);
    if (!sz) {
        if (!PyErr_ExceptionMatches(PyExc_UnicodeError)) return nullptr;
        PyErr_Clear();
        return "the text has no UTF-8 form";
    }
    if (std::memchr(sz, 0, static_cast<size_t>(nLen))) return "a text ends at its first zero";
    constexpr Py_ssize_t kLongestText = 2048 - 3 - 4 - 2 - 1;  // what else a request holds
    if (nLen > kLongestText) return "the text is longer than a request";
    BYTE code[2];
    CByteWriter(code, sizeof code).WriteU16(VT_STR);
    Append(strBytes, code, sizeof code);
    Append(strBytes, sz, static_cast<size_t>(nLen) + 1);
    return nullptr;
}

// What whole numbers a type holds.
struct SRange {
    int64_t nMin;
    int64_t nMax;
};

bool IsWhole(VARTYPE vt, SRange& range) {
    switch (vt) {
        case VT_I1:
            range = {INT8_MIN, INT8_MAX};
            return true;
        case VT_UI1:
            range = {0, UINT8_MAX};
            return true;
        case VT_I2:
            range = {INT16_MIN, INT16_MAX};
            return true;
        case VT_UI2:
            range = {0, UINT16_MAX};
            return true;
        case VT_I4:
        case VT_INT:
            range = {INT32_MIN, INT32_MAX};
            return true;
        case VT_UI4:
        case VT_UINT:
            range = {0, UINT32_MAX};
            return true;
        case VT_I8:
            range = {INT64_MIN, INT64_MAX};
            return true;
        case VT_BOOL:
            range = {0, 1};
            return true;
        default:
            return false;
    }
}

// Takes a number that is whole out of obj: an int, a float without a fraction, or what has an
// index. Returns why not, or null; also null with an error set.
const char* WholeOf(PyObject* obj, int64_t& n) {
    if (PyFloat_Check(obj)) {
        const double f = PyFloat_AS_DOUBLE(obj);
        if (!(f >= -0x1p63 && f < 0x1p63)) return "out of the tag's range";
        if (f != std::floor(f)) return "the tag holds whole numbers";
        n = static_cast<int64_t>(f);
        return nullptr;
    }
    if (!PyIndex_Check(obj)) return "the tag holds whole numbers";
    PyObject* index = PyNumber_Index(obj);
    if (!index) return nullptr;
    int nOverflow = 0;
    n = PyLong_AsLongLongAndOverflow(index, &nOverflow);
    Py_DECREF(index);
    return nOverflow ? "out of the tag's range" : nullptr;
}

// Whether a double holds a whole number exactly.
bool IsExactReal(int64_t n) {
    const double f = static_cast<double>(n);
    return f < 0x1p63 && static_cast<int64_t>(f) == n;
}

// Takes a whole number that a double holds exactly out of obj, as WholeOf.
const char* WholeRealOf(PyObject* obj, double& f) {
    PyObject* index = PyNumber_Index(obj);
    if (!index) return nullptr;
    f = PyLong_AsDouble(index);
    const char* szWhy = nullptr;
    if (f == -1.0 && PyErr_Occurred()) {
        if (PyErr_ExceptionMatches(PyExc_OverflowError)) {
            PyErr_Clear();
            szWhy = "out of the tag's range";
        }
    } else {
        // Compared as ints, whatever class of them it is.
        PyObject* back = PyLong_FromDouble(f);
        PyObject* same = back ? PyLong_Type.tp_richcompare(index, back, Py_EQ) : nullptr;
        if (same == Py_False) szWhy = "too large to be sent exactly";
        Py_XDECREF(same);
        Py_XDECREF(back);
    }
    Py_DECREF(index);
    return szWhy;
}

// Takes a real number for a tag of type vt out of obj, as WholeOf. Deliberate: what the tag holds
// of a float is the nearest that it can, but of a whole number it is all or nothing.
const char* RealOf(VARTYPE vt, PyObject* obj, double& f) {
    const bool bFloat = PyFloat_Check(obj);
    if (bFloat) {
        f = PyFloat_AS_DOUBLE(obj);
    } else {
        if (!PyIndex_Check(obj)) return "the tag holds numbers";
        const char* szWhy = WholeRealOf(obj, f);
        if (szWhy || PyErr_Occurred()) return szWhy;
    }
    if (vt != VT_R4 || !std::isfinite(f)) return nullptr;
    if (std::fabs(f) > double{FLT_MAX}) return "out of the tag's range";
    const bool bHeld = bFloat || double{static_cast<float>(f)} == f;
    return bHeld ? nullptr : "too large for the tag to hold exactly";
}

const char* PutWhole(VARTYPE vt, const SRange& range, PyObject* obj, std::string& strBytes) {
    int64_t n = 0;
    const char* szWhy = WholeOf(obj, n);
    if (szWhy || PyErr_Occurred()) return szWhy;
    if (n < range.nMin || n > range.nMax) return "out of the tag's range";
    if (vt == VT_BOOL) {
        PutBool(strBytes, n != 0);
    } else if (n >= INT32_MIN && n <= INT32_MAX) {
        PutInt(strBytes, static_cast<int32_t>(n));
    } else if (!IsExactReal(n)) {
        return "too large to be sent exactly";
    } else {
        PutReal(strBytes, static_cast<double>(n));
    }
    return nullptr;
}

const char* PutFor(VARTYPE vt, PyObject* obj, std::string& strBytes) {
    SRange range;
    if (IsWhole(vt, range)) return PutWhole(vt, range, obj, strBytes);
    double f = 0;
    const char* szWhy = nullptr;
    switch (vt) {
        case VT_R4:
        case VT_R8:
            szWhy = RealOf(vt, obj, f);
            if (!szWhy && !PyErr_Occurred()) PutReal(strBytes, f);
            return szWhy;
        case VT_STR:
            return PutText(obj, strBytes);
        case VT_DATE:
            if (!PyDateTime_Check(obj)) return "the tag holds a datetime";
            if (!DateOf(obj, f)) {
                return PyErr_Occurred() ? nullptr : "no local time of that moment can be told";
            }
            PutReal(strBytes, f);
            return nullptr;
        case VT_EMPTY:
        case VT_NULL:
            break;
        default:
            return "tags of this type cannot be written";
    }
    // The tag tells nothing of its type.
    if (PyBool_Check(obj)) return PutFor(VT_BOOL, obj, strBytes);
    if (PyUnicode_Check(obj)) return PutText(obj, strBytes);
    if (PyFloat_Check(obj)) return PutFor(VT_R8, obj, strBytes);
    if (PyDateTime_Check(obj)) return PutFor(VT_DATE, obj, strBytes);
    if (PyIndex_Check(obj)) return PutFor(VT_I8, obj, strBytes);
    return "values are numbers, texts, bools and datetimes";
}

}  // namespace

bool LoadDateTimes() {
    if (!PyDateTimeAPI) PyDateTime_IMPORT;
    return PyDateTimeAPI != nullptr;
}

PyObject* TimeToPy(int64_t nTimeUs) {
    const time_t nSeconds = static_cast<time_t>(nTimeUs / kUsPerSecond);
    tm local;
    if (!localtime_r(&nSeconds, &local)) return PyErr_SetFromErrno(PyExc_OSError);
    return LocalToPy(local, static_cast<int>(nTimeUs % kUsPerSecond));
}

PyObject* ValueToPy(const XVariant& value) {
    if (value.vt != VT_STR) return NumberToPy(value.vt, static_cast<uint64_t>(value.llVal));
    return value.pStrVal ? TextToPy(value.pStrVal->data(), value.pStrVal->size())
                         : PyUnicode_FromString("");
}

PyObject* TakeValue(CByteReader& reader) {
    const VARTYPE vt = reader.ReadU16();
    switch (XVariant::GetVTSize(vt)) {
        case 1:
            return NumberToPy(vt, reader.ReadU8());
        case 2:
            return NumberToPy(vt, reader.ReadU16());
        case 4:
            return NumberToPy(vt, reader.ReadU32());
        case 8:
            return NumberToPy(vt, reader.ReadU64());
        default:
            break;
    }
    if (vt != VT_STR) Py_RETURN_NONE;
    size_t nLen = 0;
    const char* sz = reader.TakeText(nLen);
    return TextToPy(sz ? sz : "", nLen);
}

bool EncodeFor(VARTYPE vt, PyObject* obj, std::string& strBytes, const char*& szWhy) {
    szWhy = PutFor(vt, obj, strBytes);
    return !szWhy && !PyErr_Occurred();
}
