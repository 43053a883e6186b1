// The replies to reads and subscriptions: chunks of values, cut between values only.
#pragma once

#include <algorithm>
#include <cstddef>

#include "ByteCursor.h"
#include "SyncSocket.h"
#include "VzDefine.h"
#include "vznetdef.h"

constexpr size_t kMaxRead = 1023;       // tags in one read request
constexpr size_t kMaxSubscribed = 519;  // tags in one subscription request
constexpr size_t kMaxChunk = 4096;      // bytes of values in one chunk
constexpr int kMaxEmptyChunks = 16;     // in a row; more are a failure
constexpr size_t kReadHeader = 4;

// Bytes of the request that reads so many tags.
constexpr size_t ReadBytes(size_t nTags) { return 3 + 4 * std::min(nTags, kMaxRead); }

// Takes the chunks of one reply. TValues is what becomes of their values:
//   bool Complete() const;                       whether every value that was asked for has come
//   bool Store(const BYTE* pChunk, size_t n);    the values of one chunk; false when they cannot be
//                                                used, which ends the reply
// The chunk's bytes are valid during Store.
// bJoin: a header that comes in pieces is put together; else it must come as its reply says.
//
// Ownership: borrows socket and values. Threads: one thread at a time. Python: none.
template <typename TValues, bool bJoin = false>
class CReplyChunks {
  public:
    CReplyChunks(CSyncSocket& sock, TValues& values) : m_sock(sock), m_values(values) {}

    // Reply: chunks of 'H', 1 when another chunk follows, length (2) and that many bytes of values
    // with type code. The header must come in one receive. A last chunk ends the reply also when
    // values are missing. False when the exchange failed.
    bool ReceiveRead() {
        for (bool bMore = true; bMore && !m_values.Complete();) {
            const BYTE* pHeader = TakeHeader(kReadHeader);
            if (!pHeader) return false;
            CByteReader reader(pHeader, kReadHeader);
            if (reader.ReadU8() != kReqRead) return false;
            bMore = reader.ReadU8() == 1;
            if (!Take(reader.ReadU16())) return false;
        }
        return true;
    }

    // Reply: chunks of 'b', length (2) and that many bytes of values with type code, one per tag in
    // the order asked. Code and length must each come in one receive. False when the exchange
    // failed.
    bool ReceiveSubscribed() {
        while (!m_values.Complete()) {
            const BYTE* pCode = TakeHeader(1);
            if (!pCode || *pCode != kReqSubscribe) return false;
            const BYTE* pLength = TakeHeader(2);
            if (!pLength || !Take(CByteReader(pLength, 2).ReadU16())) return false;
        }
        return true;
    }

  private:
    const BYTE* TakeHeader(size_t nLen) {
        return bJoin ? m_sock.TakeAll(nLen) : m_sock.TakeOnce(nLen);
    }

    // Receives the nChunk bytes of a chunk and hands them over. False when they do not come, are
    // too many, or are the last of too many empty chunks in a row.
    bool Take(WORD nChunk) {
        if (nChunk > kMaxChunk) return false;
        const BYTE* pChunk = m_sock.TakeAll(nChunk);
        if (!pChunk) return false;
        m_nEmptyChunks = nChunk ? 0 : m_nEmptyChunks + 1;
        return m_nEmptyChunks < kMaxEmptyChunks && m_values.Store(pChunk, nChunk);
    }

    CSyncSocket& m_sock;
    TValues& m_values;
    int m_nEmptyChunks = 0;  // in a row
};
