#include "VzDBAccess/KnownLists.h"

#include <algorithm>
#include <functional>

#include "TagReplies.h"

namespace {

// Of a text's start and of its end: to look at all of it costs more than to compare it.
constexpr size_t kHashedBytes = 32;

}  // namespace

std::unique_ptr<CDBDriver::CKnownLists::SList>& CDBDriver::CKnownLists::PlaceOf(
    std::string_view text) {
    const std::hash<std::string_view> hash;
    size_t nHash = hash(text.substr(0, kHashedBytes));
    if (text.size() > kHashedBytes) {
        nHash = nHash * 31 + hash(text.substr(text.size() - kHashedBytes)) + text.size();
    }
    return m_places[nHash % kPlaces];
}

CDBDriver::STagList* CDBDriver::CKnownLists::Find(std::string_view text) {
    SList* pList = PlaceOf(text).get();
    if (!pList || pList->strText != text) return nullptr;
    pList->bFound = true;
    return pList;
}

void CDBDriver::CKnownLists::Add(std::string_view text, const std::vector<STag*>& tags) {
    std::unique_ptr<SList>& pPlace = PlaceOf(text);
    if (pPlace && pPlace->bFound) {
        pPlace->bFound = false;
        return;
    }
    auto pList = std::make_unique<SList>();
    pList->strText = text;
    pList->tags = tags;
    pList->asked.reserve(std::min(tags.size(), kMaxRead));
    pList->strRequest.reserve(ReadBytes(tags.size()));
    const size_t nBytes = pList->Bytes();
    if (nBytes > m_nMaxBytes) return;
    if (pPlace) m_nBytes -= pPlace->Bytes();
    pPlace.reset();
    if (m_nBytes + nBytes > m_nMaxBytes) {
        for (std::unique_ptr<SList>& pOther : m_places) pOther.reset();
        m_nBytes = 0;
    }
    m_nBytes += nBytes;
    pPlace = std::move(pList);
}
