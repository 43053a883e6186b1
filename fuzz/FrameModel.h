// What the frames of the notification channel are, written from the wire tables: what decoders are
// held against.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "VzDefine.h"

constexpr unsigned kUnusable = 0xFFFF;

// The type of each tag of driver 0; behind them are tags without a value. Driver 3 has them again
// from the 8th on, driver 1 exists but nobody asked for it, driver 2 does not exist.
constexpr VARTYPE kTypes[] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,   12,     13,
                              14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 8204, 0x4003, 0xFFFF};
constexpr size_t kFirstOfBoiler = 8;

inline unsigned TypeOf(unsigned nDriver, unsigned nTag) {
    const size_t nAt = nTag + (nDriver == 3 ? kFirstOfBoiler : 0);
    return nAt < sizeof kTypes / sizeof *kTypes ? kTypes[nAt] : 0;
}
inline unsigned TagsOf(unsigned nDriver) { return nDriver == 0 ? 40 : nDriver == 3 ? 6 : 0; }

// Bytes of a payload, 0 for a type without any.
inline unsigned Width(unsigned vt) {
    switch (vt) {
        case 11:
        case 16:
        case 17:
            return 1;
        case 2:
        case 18:
            return 2;
        case 3:
        case 4:
        case 19:
        case 22:
        case 23:
            return 4;
        case 5:
        case 7:
        case 20:
            return 8;
        default:
            return 0;
    }
}
inline bool HasObject(unsigned vt) { return vt == 8 || (Width(vt) != 0 && vt != 7 && vt != 20); }

struct SFrame {
    unsigned nBytes;
    bool bCall;    // when there is a callback
    bool bObject;  // the call has its arguments
};

// A text at the front of n bytes with its zero byte; kUnusable when there is none.
inline unsigned TextBytes(const uint8_t* p, size_t n) {
    const uint8_t* pEnd = std::find(p, p + n, 0);
    return pEnd == p + n ? kUnusable : static_cast<unsigned>(pEnd - p) + 1;
}

inline SFrame ModelSystemFrame(const uint8_t* p, size_t n) {
    static constexpr unsigned kFixed[] = {kUnusable, 35, 7, 35, 43, 7, 20, 7, 5};
    if (n < 3) return {kUnusable, false, false};
    const unsigned nType = p[2];
    if (nType == 255) return {3, false, false};
    if (nType <= 8) return {kFixed[nType], (nType == 1 || nType == 3) && n >= 35, true};
    if (nType > 22 || n < 7) return {kUnusable, false, false};
    if (p[5] + 256u * p[6] >= TagsOf(p[3] + 256u * p[4])) return {kUnusable, false, false};
    if (nType >= 10 && nType <= 13) return {15, false, false};
    if (nType < 16 || nType == 22) return {8, false, false};
    const unsigned nText = TextBytes(p + 7, n - 7);
    return {nText == kUnusable ? kUnusable : 7 + nText, false, false};
}

inline SFrame ModelFrame(const uint8_t* p, size_t n) {
    if (n < 2) return {kUnusable, false, false};
    const unsigned nDriver = p[0] + 256u * p[1];
    if (nDriver == 0xFFFF) return ModelSystemFrame(p, n);
    if (n < 4) return {kUnusable, false, false};
    const unsigned nTag = p[2] + 256u * p[3];
    if (nTag >= TagsOf(nDriver)) return {kUnusable, false, false};
    const unsigned vt = TypeOf(nDriver, nTag);
    const unsigned nPayload = vt == 8 ? TextBytes(p + 4, n - 4) : Width(vt);
    if (nPayload == 0 || nPayload > n - 4) return {kUnusable, false, false};
    return {4 + nPayload, true, HasObject(vt)};
}
