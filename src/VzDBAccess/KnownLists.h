// The lists of names that a driver has resolved, by the text that a script gave.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "VzDBAccess/DBDriver.h"

// A script asks for the same lists again and again: they need not be cut up and looked up each
// time. Each text has one place, by its length and its ends. Two texts that want the same place do
// not push each other out in turn: the one that is there stays if it was found since the last try.
//
// Bounded in number, since a script goes through some dozens of lists in turn, and in bytes, by the
// number of tags: the lists take a fraction of what the tags themselves take, and one list of all
// tags has room when its names are not long.
//
// Ownership: owned by its driver; a list is valid until the next Add.
// Threads:   one thread at a time, under the core's operation lock.
// Python:    none.
class CDBDriver::CKnownLists {
  public:
    explicit CKnownLists(size_t nTags) : m_nMaxBytes(kBaseBytes + kBytesPerTag * nTags) {}

    // The records of the names of a text; null when it is not kept.
    const std::vector<STag*>* Find(std::string_view text);
    // Keeps the list of a text that was not found. Nothing when it is too long or its place is
    // held; when the bytes are used up, all others are dropped.
    void Add(std::string_view text, const std::vector<STag*>& tags);

  private:
    static constexpr size_t kPlaces = 256;
    static constexpr size_t kBaseBytes = 32768;
    static constexpr size_t kBytesPerTag = 24;

    struct SList {
        size_t Bytes() const {
            return sizeof *this + strText.capacity() + tags.capacity() * sizeof(void*);
        }

        std::string strText;
        std::vector<STag*> tags;
        bool bFound;  // since another text last wanted the place
    };

    std::unique_ptr<SList>& PlaceOf(std::string_view text);

    const size_t m_nMaxBytes;
    size_t m_nBytes = 0;
    std::unique_ptr<SList> m_places[kPlaces];
};
