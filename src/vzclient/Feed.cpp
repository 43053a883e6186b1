#include "vzclient/Feed.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <new>
#include <unordered_set>
#include <utility>

int64_t NowUs() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t{ts.tv_sec} * 1000000 + ts.tv_nsec / 1000;
}

SEvent& SEvent::operator=(SEvent&& other) noexcept {
    std::swap(eKind, other.eKind);
    std::swap(bResynced, other.bResynced);
    std::swap(bSent, other.bSent);
    std::swap(bNotify, other.bNotify);
    std::swap(nToken, other.nToken);
    std::swap(nTimeUs, other.nTimeUs);
    std::swap(pTag, other.pTag);
    value.Swap(other.value);
    pMore.swap(other.pMore);
    return *this;
}

// ---- Feed ---------------------------------------------------------------------------------------

CFeed::CFeed(size_t nCapacity, EOverflow eOverflow)
    : m_nCapacity(std::max<size_t>(nCapacity, 1)), m_eOverflow(eOverflow), m_nFull(m_nCapacity) {
    m_hReady = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);  // last: from here on nothing throws
    if (m_hReady < 0) throw std::bad_alloc();
}

CFeed::~CFeed() { close(m_hReady); }

void CFeed::Push(SEvent&& event) noexcept try {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_bClosed) return;
    if (m_events.size() >= m_nFull) MakeRoom();
    m_events.push_back(std::move(event));
    SetReady(true);
} catch (const std::bad_alloc&) {
    ++m_nDropped;
}

void CFeed::PushNews(const char* szNews, uint32_t nToken) noexcept try {
    SEvent event;
    event.eKind = SEvent::EKind::kNews;
    event.nToken = nToken;
    event.nTimeUs = NowUs();
    event.pMore = std::make_unique<SEvent::SMore>();
    event.pMore->strText = szNews;
    Push(std::move(event));
} catch (const std::bad_alloc&) {
    ++m_nDropped;
}

bool CFeed::Take(std::vector<SEvent>& events, size_t nMax) {
    events.clear();
    std::lock_guard<std::mutex> guard(m_lock);
    const size_t nTaken = std::min(nMax, m_events.size());
    events.reserve(nTaken);
    for (size_t i = 0; i < nTaken; ++i) {
        events.push_back(std::move(m_events.front()));
        m_events.pop_front();
    }
    Settle();
    return nTaken > 0 || !m_bClosed;
}

void CFeed::Close() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_bClosed = true;
    SetReady(true);
}

void CFeed::Forget(uint32_t nToken) noexcept {
    std::lock_guard<std::mutex> guard(m_lock);
    m_events.erase(std::remove_if(m_events.begin(), m_events.end(),
                                  [&](const SEvent& event) { return event.nToken == nToken; }),
                   m_events.end());
    Settle();
}

size_t CFeed::Size() const {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_events.size();
}

void CFeed::MakeRoom() {
    if (m_eOverflow == EOverflow::kLatest) return KeepNewest();
    const auto it = std::find_if(m_events.begin(), m_events.end(), [](const SEvent& event) {
        return event.eKind != SEvent::EKind::kNews;
    });
    m_events.erase(it == m_events.end() ? m_events.begin() : it);
    ++m_nDropped;
}

// Of each tag and token the newest value stays; of what is no value the oldest go, if need be. The
// feed has room for twice as many events as it has such values, so one of more tags than its
// capacity still has a place for each; and at least a sixteenth of it is free afterwards, so the
// walks cost some sixteen steps for each event that is pushed. Nothing has changed when memory is
// short.
void CFeed::KeepNewest() {
    struct SHash {
        size_t operator()(const std::pair<const CWatchedTag*, uint32_t>& key) const {
            return std::hash<const CWatchedTag*>()(key.first) ^ (key.second * size_t{0x9E3779B1});
        }
    };
    std::unordered_set<std::pair<const CWatchedTag*, uint32_t>, SHash> newest;
    std::vector<bool> goes(m_events.size());
    size_t nKept = 0;
    for (size_t i = m_events.size(); i-- > 0;) {
        const SEvent& event = m_events[i];
        goes[i] = event.eKind == SEvent::EKind::kChange &&
                  !newest.insert({event.pTag, event.nToken}).second;
        if (!goes[i]) ++nKept;
    }
    m_nFull = std::max(m_nCapacity, 2 * newest.size());
    const size_t nFree = std::max<size_t>(m_nFull / 16, 1);
    for (size_t i = 0; nKept + nFree > m_nFull; ++i) {
        if (m_events[i].eKind == SEvent::EKind::kChange) continue;
        goes[i] = true;
        --nKept;
    }
    size_t nTo = 0;
    for (size_t i = 0; i < m_events.size(); ++i) {
        if (!goes[i]) m_events[nTo++] = std::move(m_events[i]);
    }
    m_nDropped += m_events.size() - nKept;
    m_events.erase(m_events.begin() + static_cast<std::ptrdiff_t>(nKept), m_events.end());
}

// After events have gone.
void CFeed::Settle() {
    if (!m_events.empty()) return;
    m_nFull = m_nCapacity;
    if (!m_bClosed) SetReady(false);
}

void CFeed::SetReady(bool bReady) {
    if (m_bReady == bReady) return;
    m_bReady = bReady;
    uint64_t n = 1;
    if (bReady) {
        (void)!write(m_hReady, &n, sizeof n);
    } else {
        (void)!read(m_hReady, &n, sizeof n);
    }
}

// ---- Routes -------------------------------------------------------------------------------------

CRoutes::~CRoutes() {
    for (auto& entry : m_tags) {
        Py_DECREF(entry.second->driver);
        Py_DECREF(entry.second->tag);
    }
}

CWatchedTag* CRoutes::Tag(PyObject* driver, PyObject* tag) {
    Py_ssize_t nDriver = 0;
    Py_ssize_t nTag = 0;
    const char* szDriver = PyUnicode_AsUTF8AndSize(driver, &nDriver);
    const char* szTag = szDriver ? PyUnicode_AsUTF8AndSize(tag, &nTag) : nullptr;
    if (!szTag) return nullptr;
    std::string strKey(szDriver, static_cast<size_t>(nDriver));
    strKey += '\0';
    strKey.append(szTag, static_cast<size_t>(nTag));
    std::lock_guard<std::mutex> guard(m_lock);
    const auto it = m_tags.find(strKey);
    if (it != m_tags.end()) return it->second.get();
    auto pTag = std::make_unique<CWatchedTag>(driver, tag);
    CWatchedTag* pMade = m_tags.emplace(strKey, std::move(pTag)).first->second.get();
    Py_INCREF(driver);
    Py_INCREF(tag);
    return pMade;
}

PyObject* CRoutes::Watched() {
    std::vector<const CWatchedTag*> wanted;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& entry : m_tags) {
            if (!entry.second->routes.empty()) wanted.push_back(entry.second.get());
        }
    }
    PyObject* dict = PyDict_New();
    for (size_t i = 0; dict && i < wanted.size(); ++i) {
        PyObject* list = PyDict_GetItemWithError(dict, wanted[i]->driver);
        bool bDone = list != nullptr;
        if (!list && !PyErr_Occurred()) {
            list = PyList_New(0);
            bDone = list && PyDict_SetItem(dict, wanted[i]->driver, list) == 0;
            Py_XDECREF(list);  // the dict's from here on
        }
        if (!bDone || PyList_Append(list, wanted[i]->tag) != 0) Py_CLEAR(dict);
    }
    return dict;
}

bool CRoutes::AlarmsWatched() {
    std::lock_guard<std::mutex> guard(m_lock);
    return !m_alarmRoutes.empty();
}

void CRoutes::Drop(const CFeed* pFeed, uint32_t nToken) {
    std::lock_guard<std::mutex> guard(m_lock);
    const auto drop = [&](std::vector<SRoute>& routes) {
        routes.erase(std::remove_if(routes.begin(), routes.end(),
                                    [&](const SRoute& route) {
                                        return route.pFeed.get() == pFeed && route.nToken == nToken;
                                    }),
                     routes.end());
    };
    for (auto& entry : m_tags) drop(entry.second->routes);
    drop(m_alarmRoutes);
}

void CRoutes::TellChange(CWatchedTag& tag, int64_t nTimeUs, bool bResynced, const SRoute* pOnly) {
    const auto tell = [&](const SRoute& route) {
        SEvent event;
        event.bResynced = bResynced;
        event.nToken = route.nToken;
        event.nTimeUs = nTimeUs;
        event.pTag = &tag;
        event.value = tag.value;
        route.pFeed->Push(std::move(event));
    };
    if (pOnly) return tell(*pOnly);
    for (const SRoute& route : tag.routes) tell(route);
}

void CRoutes::TellAlarm(const S2RtAlarm2& alarm, int64_t nTimeUs, bool bResynced,
                        const SRoute* pOnly) {
    const auto tell = [&](const SRoute& route) {
        SEvent event;
        event.eKind = SEvent::EKind::kAlarm;
        event.bResynced = bResynced;
        event.nToken = route.nToken;
        event.nTimeUs = nTimeUs;
        event.pMore = std::make_unique<SEvent::SMore>();
        event.pMore->alarm = alarm;
        route.pFeed->Push(std::move(event));
    };
    if (pOnly) return tell(*pOnly);
    for (const SRoute& route : m_alarmRoutes) tell(route);
}
