// Bounded reading and writing of packed bytes: the only way that wire and file data is taken apart
// or put together. Integers are little-endian; the functions that are big-endian say so.
#pragma once

#include <endian.h>

#include <cstring>

#include "VzDefine.h"

// Between the host's byte order and little-endian, both ways alike. By fixed size: then a field is
// one load or store, at any address, wherever the processor can.
inline BYTE Little(BYTE n) { return n; }
inline WORD Little(WORD n) { return htole16(n); }
inline DWORD Little(DWORD n) { return htole32(n); }
inline uint64_t Little(uint64_t n) { return htole64(n); }

// A little-endian field at any address, whose bytes are known to be there.
template <typename T>
T LoadLittle(const BYTE* p) {
    T n;
    std::memcpy(&n, p, sizeof n);
    return Little(n);
}

// Reads fields one after the other from bytes that someone else owns.
//
// The first field that does not fit marks the reader failed; from then on every read gives zero (or
// null) and nothing moves. A decoder reads its fields in order and asks Failed() once.
// Threads: one thread at a time. Python: none.
class CByteReader {
  public:
    CByteReader(const void* pData, size_t nSize)
        : m_pBegin(static_cast<const BYTE*>(pData)), m_pData(m_pBegin), m_nLeft(nSize) {}

    bool Failed() const { return m_bFailed; }
    size_t Left() const { return m_nLeft; }
    size_t Consumed() const { return static_cast<size_t>(m_pData - m_pBegin); }
    // The next byte to be read; valid for Left() bytes.
    const BYTE* Data() const { return m_pData; }

    // The next nSize bytes, or null when fewer are left.
    const BYTE* Take(size_t nSize) {
        if (nSize > m_nLeft)
            m_bFailed = true;  // lengths are compared; no pointer goes past the end
        if (m_bFailed) return nullptr;
        const BYTE* p = m_pData;
        m_pData += nSize;
        m_nLeft -= nSize;
        return p;
    }

    // The next zero-terminated text, its terminator consumed; nLen gets its length without it.
    // Null, and failed, when no zero byte is left.
    const char* TakeText(size_t& nLen) {
        nLen = 0;
        if (m_bFailed) return nullptr;
        const void* pEnd = m_nLeft ? std::memchr(m_pData, 0, m_nLeft) : nullptr;
        if (!pEnd) {
            m_bFailed = true;
            return nullptr;
        }
        nLen = static_cast<size_t>(static_cast<const BYTE*>(pEnd) - m_pData);
        return static_cast<const char*>(static_cast<const void*>(Take(nLen + 1)));
    }

    BYTE ReadU8() { return Little(Read<BYTE>()); }
    WORD ReadU16() { return Little(Read<WORD>()); }
    DWORD ReadU32() { return Little(Read<DWORD>()); }
    uint64_t ReadU64() { return Little(Read<uint64_t>()); }
    WORD ReadU16Big() { return be16toh(Read<WORD>()); }
    DWORD ReadU32Big() { return be32toh(Read<DWORD>()); }

    float ReadF32() {
        const DWORD nBits = ReadU32();
        float f;
        std::memcpy(&f, &nBits, sizeof f);
        return f;
    }
    double ReadF64() {
        const uint64_t nBits = ReadU64();
        double d;
        std::memcpy(&d, &nBits, sizeof d);
        return d;
    }

  private:
    template <typename T>
    T Read() {
        const BYTE* p = Take(sizeof(T));
        T n = 0;
        if (p) std::memcpy(&n, p, sizeof n);
        return n;
    }

    const BYTE* m_pBegin;
    const BYTE* m_pData;
    size_t m_nLeft;
    bool m_bFailed = false;
};

// Writes fields one after the other into a buffer that someone else owns.
//
// The first field that does not fit marks the writer failed and is not written at all; from then on
// nothing is written. Threads: one thread at a time. Python: none.
class CByteWriter {
  public:
    CByteWriter(void* pData, size_t nRoom) : m_pData(static_cast<BYTE*>(pData)), m_nRoom(nRoom) {}

    bool Failed() const { return m_bFailed; }
    // Bytes written so far.
    size_t Size() const { return m_nSize; }
    size_t Room() const { return m_nRoom - m_nSize; }

    void WriteU8(BYTE n) { Write(Little(n)); }
    void WriteU16(WORD n) { Write(Little(n)); }
    void WriteU32(DWORD n) { Write(Little(n)); }
    void WriteU64(uint64_t n) { Write(Little(n)); }
    void WriteF32(float f) {
        DWORD nBits;
        std::memcpy(&nBits, &f, sizeof f);
        WriteU32(nBits);
    }
    void WriteF64(double d) {
        uint64_t nBits;
        std::memcpy(&nBits, &d, sizeof d);
        WriteU64(nBits);
    }
    void WriteBytes(const void* p, size_t nSize) {
        BYTE* pTo = Reserve(nSize);
        if (pTo && nSize) std::memcpy(pTo, p, nSize);
    }
    // The nLen bytes of a text and a terminating zero byte.
    void WriteText(const char* sz, size_t nLen) {
        if (nLen >= Room()) {
            m_bFailed = true;
            return;
        }
        WriteBytes(sz, nLen);
        WriteU8(0);
    }
    // Overwrites two bytes that were written before, at offset nAt.
    void PatchU16(size_t nAt, WORD n) {
        if (nAt + 2 > m_nSize) {
            m_bFailed = true;
            return;
        }
        m_pData[nAt] = static_cast<BYTE>(n);
        m_pData[nAt + 1] = static_cast<BYTE>(n >> 8);
    }

  private:
    BYTE* Reserve(size_t nSize) {
        if (nSize > Room()) m_bFailed = true;
        if (m_bFailed) return nullptr;
        BYTE* p = m_pData + m_nSize;
        m_nSize += nSize;
        return p;
    }
    template <typename T>
    void Write(T n) {
        BYTE* p = Reserve(sizeof n);
        if (p) std::memcpy(p, &n, sizeof n);
    }

    BYTE* m_pData;
    size_t m_nRoom;
    size_t m_nSize = 0;
    bool m_bFailed = false;
};
