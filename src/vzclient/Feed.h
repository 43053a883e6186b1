// What a plant has to tell, on its way from the receive thread to those who want to know.
#pragma once

#include <Python.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "VzDefine.h"
#include "nonwin/XVariant.h"
#include "vznetdef.h"

class CFeed;

// Microseconds since 1970 UTC.
int64_t NowUs();

// Who wants to hear of something: a feed, and the token by which its reader knows what for.
struct SRoute {
    std::shared_ptr<CFeed> pFeed;
    uint32_t nToken;
};

// A tag that is or was watched. Lives as long as its routes.
struct CWatchedTag {
    CWatchedTag(PyObject* objDriver, PyObject* objTag) : driver(objDriver), tag(objTag) {}

    PyObject* const driver;  // str, owned by the routes
    PyObject* const tag;
    XVariant value;  // the last one heard; guarded by the routes' lock
    std::vector<SRoute> routes;
    // The next of the names that are one tag in the session that watched this one last: a server
    // may resolve several names to one id. Guarded by the routes' lock.
    CWatchedTag* pAlias = nullptr;
};

// One thing told. Which of its fields count, its kind says.
struct SEvent {
    enum class EKind : BYTE {
        kChange,  // pTag, value, bResynced
        kAlarm,   // pMore->alarm, bResynced
        kNews,    // pMore->strText: what became of the session
        kBytes    // pMore->strText: bytes of the wire; bSent, bNotify
    };
    struct SMore {
        S2RtAlarm2 alarm = {};
        std::string strText;
    };

    SEvent() = default;
    SEvent(SEvent&&) = default;
    // Exchanges the two: so events can change places without memory for their texts.
    SEvent& operator=(SEvent&& other) noexcept;

    EKind eKind = EKind::kChange;
    bool bResynced = false;
    bool bSent = false;
    bool bNotify = false;
    uint32_t nToken = 0;
    int64_t nTimeUs = 0;
    const CWatchedTag* pTag = nullptr;
    XVariant value;
    std::unique_ptr<SMore> pMore;
};

// A bounded queue of events. What comes to a full one displaces something, which is counted; it
// never makes the sender wait.
//
// Ownership: shared by its reader and the routes that lead here.
// Threads:   thread-safe.
// Python:    none; waiting is the reader's affair, by the descriptor.
class CFeed {
  public:
    enum class EOverflow {
        // A full feed keeps of each tag the newest value; of all else the oldest go, until a
        // sixteenth of the feed is free.
        kLatest,
        kOldest  // the oldest event goes, news only when there is nothing else
    };

    // nCapacity: events, at least 1. Throws std::bad_alloc when there is no descriptor to be had.
    CFeed(size_t nCapacity, EOverflow eOverflow);
    ~CFeed();
    CFeed(const CFeed&) = delete;
    CFeed& operator=(const CFeed&) = delete;

    // Puts an event in. A closed feed takes none. What does not fit for lack of memory is counted
    // as dropped.
    void Push(SEvent&& event) noexcept;
    // Puts news of the session in.
    void PushNews(const char* szNews, uint32_t nToken = 0) noexcept;
    // Moves up to nMax events, oldest first, into events, which is emptied before. False when there
    // are none and none will come: the feed is closed.
    bool Take(std::vector<SEvent>& events, size_t nMax);
    // Takes no more events; those that are in can still be taken.
    void Close();
    // Forgets the events of a token.
    void Forget(uint32_t nToken) noexcept;

    // Readable while there is something to take or the feed is closed.
    int Descriptor() const { return m_hReady; }
    uint64_t Dropped() const { return m_nDropped; }
    size_t Size() const;

  private:
    void MakeRoom();
    void KeepNewest();
    void Settle();
    void SetReady(bool bReady);

    const size_t m_nCapacity;
    const EOverflow m_eOverflow;
    int m_hReady;  // an eventfd
    mutable std::mutex m_lock;
    std::deque<SEvent> m_events;
    size_t m_nFull;  // size at which room has to be made
    bool m_bReady = false;
    bool m_bClosed = false;
    std::atomic<uint64_t> m_nDropped{0};
};

// Which feeds want to hear of which tags and of alarms, from session to session of one plant.
//
// Ownership: owns the watched tags, which stay for good: what was watched once is likely to be
//            watched again.
// Threads:   a function without a note expects m_lock held. The receive thread holds it while it
//            tells; it is never held while the interpreter lock is taken.
// Python:    Tag, Watched and the destructor need the interpreter lock.
class CRoutes {
  public:
    CRoutes() = default;
    ~CRoutes();
    CRoutes(const CRoutes&) = delete;
    CRoutes& operator=(const CRoutes&) = delete;

    // The tag of these names (str), made on first use. Null with an error set when a name has no
    // UTF-8 form. Takes m_lock.
    CWatchedTag* Tag(PyObject* driver, PyObject* tag);
    // Driver name to list of tag names that some feed wants. New reference, or null with an error
    // set. Takes m_lock.
    PyObject* Watched();
    // Whether some feed wants alarms. Takes m_lock.
    bool AlarmsWatched();
    // Ends all routes of a feed's token. Takes m_lock.
    void Drop(const CFeed* pFeed, uint32_t nToken);

    // Tells a changed value. bHere: to this route alone, else to all of the tag.
    void TellChange(CWatchedTag& tag, int64_t nTimeUs, bool bResynced, const SRoute* pOnly);
    void TellAlarm(const S2RtAlarm2& alarm, int64_t nTimeUs, bool bResynced, const SRoute* pOnly);

    std::vector<SRoute> m_alarmRoutes;
    std::mutex m_lock;

  private:
    std::unordered_map<std::string, std::unique_ptr<CWatchedTag>> m_tags;  // by both names
};
