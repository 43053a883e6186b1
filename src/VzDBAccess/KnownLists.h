// The lists of names that a driver has resolved, by the text that a script gave.
#pragma once

#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "VzDBAccess/DBDriver.h"

// The tags of an operation: one for each name, null for one that did not resolve.
struct CDBDriver::STagList {
    static constexpr size_t kNotPlanned = std::numeric_limits<size_t>::max();

    std::vector<STag*> tags;
    // How they are read, as long as no more tags of the driver are subscribed than were then:
    size_t nSubscribed = kNotPlanned;
    std::vector<STag*> asked;  // those that the server is asked for
    std::string strRequest;
};

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

    // The list of a text; null when it is not kept.
    STagList* Find(std::string_view text);
    // Keeps the list of a text that was not found. Nothing when it is too long or its place is
    // held; when the bytes are used up, all others are dropped.
    void Add(std::string_view text, const std::vector<STag*>& tags);

  private:
    static constexpr size_t kPlaces = 256;
    static constexpr size_t kBaseBytes = 32768;
    static constexpr size_t kBytesPerTag = 24;

    struct SList : STagList {
        size_t Bytes() const {
            return sizeof *this + strText.capacity() + strRequest.capacity() +
                   (tags.capacity() + asked.capacity()) * sizeof(void*);
        }

        std::string strText;
        bool bFound = true;  // since another text last wanted the place
    };

    std::unique_ptr<SList>& PlaceOf(std::string_view text);

    const size_t m_nMaxBytes;
    size_t m_nBytes = 0;
    std::unique_ptr<SList> m_places[kPlaces];
};
