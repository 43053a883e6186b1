// The lengths of notification frames that are not tag changes.
#pragma once

#include "ByteCursor.h"
#include "VzDefine.h"

// Stands for a driver id in a frame of the system.
constexpr WORD kSystemFrame = 0xFFFF;

// What the first bytes of a system frame tell.
struct SSystemFrame {
    enum class ELength {
        kKnown,    // nBytes
        kCut,      // the frame goes on behind the bytes at hand
        kUnusable  // no such type
    };
    ELength eLength = ELength::kCut;
    size_t nBytes = 0;
    BYTE nType = 0;
    bool bNamesTag = false;  // then nDriver and nTag
    WORD nDriver = 0;
    WORD nTag = 0;

    bool IsAlarm() const { return nType == 1 || nType == 3; }
};

// Looks at the system frame at pBuf, of which nLen bytes are at hand: 0xFFFF (2), type (1), and
// what the type says. Types 9 to 22 name a driver (at 3) and a tag (at 5); 16 to 21 of them carry a
// zero-terminated text at 7. The length of a type is told as soon as its bytes decide it, also when
// the frame itself goes on behind the bytes at hand.
inline SSystemFrame LookAtSystemFrame(const BYTE* pBuf, size_t nLen) {
    constexpr BYTE kFixedBytes[9] = {0, 35, 7, 35, 43, 7, 20, 7, 5};  // types 0 to 8
    constexpr BYTE kLastFixedType = 8;
    constexpr BYTE kLastTagType = 22;
    constexpr BYTE kEmptyType = 255;
    using ELength = SSystemFrame::ELength;
    SSystemFrame frame;
    CByteReader reader(pBuf, nLen);
    reader.Take(2);
    frame.nType = reader.ReadU8();
    if (reader.Failed()) return frame;
    const auto known = [&](size_t nBytes) {
        frame.eLength = nBytes ? ELength::kKnown : ELength::kUnusable;
        frame.nBytes = nBytes;
        return frame;
    };
    if (frame.nType == kEmptyType) return known(3);
    if (frame.nType > kLastTagType) return known(0);
    if (frame.nType <= kLastFixedType) return known(kFixedBytes[frame.nType]);
    frame.nDriver = reader.ReadU16();
    frame.nTag = reader.ReadU16();
    if (reader.Failed()) return frame;
    frame.bNamesTag = true;
    if (frame.nType >= 10 && frame.nType <= 13) return known(15);
    if (frame.nType < 16 || frame.nType > 21) return known(8);
    size_t nText = 0;
    reader.TakeText(nText);
    return reader.Failed() ? frame : known(nText + 8);
}
