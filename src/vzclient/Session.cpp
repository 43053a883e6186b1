#include "vzclient/Session.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <system_error>
#include <utility>

#include "ByteCursor.h"
#include "NotifyFrames.h"
#include "TagReplies.h"

namespace {

constexpr size_t kLookupBytes = 768;
constexpr size_t kLookupOverhead = 3;  // of each name: driver id and zero byte
constexpr size_t kMaxName = kLookupBytes - 1 - kLookupOverhead;
constexpr size_t kRequestBytes = 4096;
constexpr size_t kCodeBytes = 2;
constexpr size_t kFrameHeader = 4;  // driver id, tag id
constexpr size_t kMaxFrame = 2048;
constexpr size_t kReceiveBytes = 16384;
constexpr size_t kMaxHeld = 4u << 20;  // bytes received while frames wait; then the server waits
constexpr int kHoldPollMs = 2;
constexpr long kForeverMs = 0x7fffffff;
constexpr int64_t kTurnSliceNs = int64_t{CSocketGuard::kSliceMs} * 1000000;

// Size of the payload of type vt at the start of nLen bytes; kNoSize when it goes on behind them.
constexpr size_t kNoSize = static_cast<size_t>(-1);
size_t PayloadSize(VARTYPE vt, const BYTE* p, size_t nLen) {
    switch (XVariant::GetVTSize(vt)) {
        case 1:
            return nLen < 1 ? kNoSize : 1;
        case 2:
            return nLen < 2 ? kNoSize : 2;
        case 4:
            return nLen < 4 ? kNoSize : 4;
        case 8:
            return nLen < 8 ? kNoSize : 8;
        default:
            break;
    }
    if (vt != VT_STR) return 0;
    const void* pEnd = nLen ? std::memchr(p, 0, nLen) : nullptr;
    return pEnd ? static_cast<size_t>(static_cast<const BYTE*>(pEnd) - p) + 1 : kNoSize;
}

// The values of a read, as they came, and what they tell of their tags' types.
class CReadValues {
  public:
    CReadValues(SDriver& driver, const WORD* pIds, size_t nCount, std::string& strValues)
        : m_driver(driver), m_pNext(pIds), m_pEnd(pIds + nCount), m_strValues(strValues) {}

    bool Complete() const { return m_pNext == m_pEnd; }

    // Not inlined: among its caller's variables those of this loop would not stay in registers.
    [[gnu::noinline]] bool Store(const BYTE* pChunk, size_t nChunk) {
        std::atomic<VARTYPE>* const pTypes = m_driver.types.data();
        const WORD* pId = m_pNext;
        size_t nPos = 0;
        for (; nPos < nChunk; ++pId) {
            if (pId == m_pEnd || nChunk - nPos < kCodeBytes) return false;
            const BYTE* pPayload = pChunk + nPos + kCodeBytes;
            const VARTYPE vt = LoadLittle<VARTYPE>(pChunk + nPos);
            std::atomic<VARTYPE>& type = pTypes[*pId];
            if (type.load(std::memory_order_relaxed) != vt) {
                type.store(vt, std::memory_order_relaxed);
            }
            nPos += kCodeBytes;
            if (vt == VT_ARRAY) {  // ends its chunk
                XVariant array;
                if (array.FromBuffer(pPayload - kCodeBytes, nChunk - nPos + kCodeBytes, true) ==
                    XVariant::kUndecodable)
                    return false;
                ++pId;
                break;
            }
            const size_t nSize = PayloadSize(vt, pPayload, nChunk - nPos);
            if (nSize == kNoSize) return false;
            nPos += nSize;
        }
        m_pNext = pId;
        m_strValues.append(pChunk, pChunk + nPos);
        return true;
    }

  private:
    SDriver& m_driver;
    const WORD* m_pNext;
    const WORD* const m_pEnd;
    std::string& m_strValues;
};

// The values of a subscription, each in its tag's place.
class CWatchValues {
  public:
    CWatchValues(std::vector<XVariant>& values, size_t nCount)
        : m_values(values), m_nEnd(values.size() + nCount) {}

    bool Complete() const { return m_values.size() == m_nEnd; }

    bool Store(const BYTE* pChunk, size_t nChunk) {
        for (size_t nPos = 0; nPos < nChunk;) {
            if (Complete()) return false;
            XVariant value;
            const size_t nUsed = value.FromBuffer(pChunk + nPos, nChunk - nPos, true);
            if (nUsed == XVariant::kUndecodable) return false;
            const bool bArray = CByteReader(pChunk + nPos, kCodeBytes).ReadU16() == VT_ARRAY;
            m_values.push_back(std::move(value));
            if (bArray) break;  // ends its chunk
            nPos += nUsed;
        }
        return true;
    }

  private:
    std::vector<XVariant>& m_values;
    const size_t m_nEnd;
};

// Has a name told of the changes of a tag, beginning with the value that its other names have.
void AddName(SDriver& driver, WORD nId, CWatchedTag& name) {
    CWatchedTag*& pFirst = driver.watched[nId];
    for (const CWatchedTag* p = pFirst; p; p = p->pAlias) {
        if (p == &name) return;
    }
    if (pFirst) name.value = pFirst->value;
    name.pAlias = pFirst;
    pFirst = &name;
}

// Guards the notification channel while it is opened: the trace tells its bytes from the others.
class CNotifyGuard final : public CSocketGuard {
  public:
    explicit CNotifyGuard(CPatience& patience) : m_patience(patience) {}

    bool MayWait() override { return m_patience.MayWait(); }
    bool Await(SOCKET hSocket, short nEvents) override {
        return m_patience.Await(hSocket, nEvents);
    }
    bool WaitOn() override { return m_patience.WaitOn(); }
    void Passed(bool bSent, const void* pData, size_t nLen) override {
        m_patience.SetNotify(true);
        m_patience.Passed(bSent, pData, nLen);
        m_patience.SetNotify(false);
    }

  private:
    CPatience& m_patience;
};

}  // namespace

// ---- Frames -------------------------------------------------------------------------------------

size_t CFrames::Walk(const BYTE* pBytes, size_t nLen, int64_t nTimeUs) {
    for (size_t nPos = 0;;) {
        const size_t nAtHand = std::min(nLen - nPos, kMaxFrame);
        const size_t nFrame = Frame(pBytes + nPos, nAtHand, nTimeUs);
        if (nFrame == kUnusable || (nFrame == 0 && nAtHand == kMaxFrame)) {
            ++m_nUnusable;
            return nLen;
        }
        if (nFrame == 0) return nPos;
        nPos += nFrame;
    }
}

size_t CFrames::Frame(const BYTE* pFrame, size_t nLen, int64_t nTimeUs) {
    CByteReader reader(pFrame, nLen);
    const WORD nId = reader.ReadU16();
    if (reader.Failed()) return 0;
    if (nId == kSystemFrame) return SystemFrame(pFrame, nLen, nTimeUs);
    SDriver* pDriver = Driver(nId);
    return pDriver ? ChangeFrame(*pDriver, pFrame, nLen, nTimeUs) : kUnusable;
}

size_t CFrames::SystemFrame(const BYTE* pFrame, size_t nLen, int64_t nTimeUs) {
    const SSystemFrame frame = LookAtSystemFrame(pFrame, nLen);
    if (frame.eLength == SSystemFrame::ELength::kCut) return 0;
    if (frame.eLength == SSystemFrame::ELength::kUnusable) return kUnusable;
    if (frame.bNamesTag) {
        const SDriver* pDriver = Driver(frame.nDriver);
        if (!pDriver || frame.nTag >= pDriver->nTagCount) return kUnusable;
    }
    if (frame.nBytes > nLen) return 0;
    if (frame.IsAlarm()) {
        CByteReader reader(pFrame, nLen);
        reader.Take(3);
        S2RtAlarm2 alarm;
        DecodeAlarm(reader, alarm);
        ++m_nAlarms;
        m_routes.TellAlarm(alarm, nTimeUs, false, nullptr);
    }
    return frame.nBytes;
}

// Driver id (2), tag id (2), the value without its type code: the tag's type is known from the
// reply that subscribed it.
size_t CFrames::ChangeFrame(SDriver& driver, const BYTE* pFrame, size_t nLen, int64_t nTimeUs) {
    CByteReader reader(pFrame, nLen);
    reader.Take(2);
    const WORD nTag = reader.ReadU16();
    if (reader.Failed()) return 0;
    if (nTag >= driver.nTagCount) return kUnusable;
    const VARTYPE vt = driver.types[nTag].load(std::memory_order_relaxed);
    const size_t nSize = PayloadSize(vt, reader.Data(), reader.Left());
    if (nSize == kNoSize) return 0;
    if (nSize == 0) return kUnusable;  // no type, or one without a payload
    ++m_nChanges;
    for (CWatchedTag* pTag = driver.watched[nTag]; pTag; pTag = pTag->pAlias) {
        if (pTag->value.vt != vt) {
            pTag->value.Clear();
            pTag->value.vt = vt;
        }
        pTag->value.FromBuffer(reader.Data(), reader.Left(), false);
        m_routes.TellChange(*pTag, nTimeUs, false, nullptr);
    }
    return kFrameHeader + nSize;
}

// ---- Turns and holds ----------------------------------------------------------------------------

bool CSession::TakeTurn(int64_t nWaitNs) {
    const auto isFree = [this] { return m_turnOf == std::thread::id(); };
    std::unique_lock<std::mutex> lock(m_turnLock);
    if (nWaitNs > 0) m_turnGiven.wait_for(lock, std::chrono::nanoseconds(nWaitNs), isFree);
    if (!isFree()) return false;
    m_turnOf = std::this_thread::get_id();
    return true;
}

void CSession::GiveTurn() {
    {
        std::lock_guard<std::mutex> guard(m_turnLock);
        m_turnOf = std::thread::id();
    }
    m_turnGiven.notify_one();
}

// One operation on the request channel, and the patience it waits with.
class CSession::CTurn {
  public:
    CTurn(CSession& session, CPatience& patience) : m_session(session) {
        if (session.m_turnOf == std::this_thread::get_id()) {
            m_eResult = EResult::kReentered;
            return;
        }
        while (!session.TakeTurn(0) &&
               !session.TakeTurn(std::min(kTurnSliceNs, patience.LeftNs()))) {
            if (!patience.WaitOn()) return;
        }
        m_bMine = true;
        // A call that has no time left must not begin: what fails half-way ends the session.
        if ((session.m_bOver || patience.LeftNs() == 0) && !patience.WaitOn()) return;
        patience.TellSlow(session.m_pNews.get());
        session.m_reqSock.SetGuard(&patience);
        m_eResult = EResult::kDone;
        ++session.m_nRequests;
    }
    ~CTurn() {
        if (!m_bMine) return;
        m_session.m_reqSock.SetGuard(nullptr);
        m_session.GiveTurn();
    }
    CTurn(const CTurn&) = delete;
    CTurn& operator=(const CTurn&) = delete;

    // kDone, or why there is no turn.
    EResult Result() const { return m_eResult; }

  private:
    CSession& m_session;
    bool m_bMine = false;
    EResult m_eResult = EResult::kFailed;
};

// Has frames wait while a subscription is made: a change that comes behind the reply must not be
// looked at before it.
class CSession::CHold {
  public:
    explicit CHold(CSession& session) : m_session(session) {
        std::lock_guard<std::mutex> guard(session.m_pRoutes->m_lock);
        session.m_bHold = true;
    }
    ~CHold() {
        std::lock_guard<std::mutex> guard(m_session.m_pRoutes->m_lock);
        m_session.m_bHold = false;
    }
    CHold(const CHold&) = delete;
    CHold& operator=(const CHold&) = delete;

  private:
    CSession& m_session;
};

// How an operation ended whose exchanges went well or not.
CSession::EResult CSession::Ended(CPatience& patience, bool bDone) {
    if (bDone) {
        m_nHeardUs = NowUs();
        if (patience.WasSlow()) m_pNews->PushNews("answered");
        return EResult::kDone;
    }
    if (patience.End() == CPatience::EEnd::kTimedOut) {
        End("a request timed out");
    } else if (patience.End() == CPatience::EEnd::kInterrupted) {
        End("a request was interrupted");
    } else {
        End("the request channel broke");
    }
    return EResult::kFailed;
}

// ---- Life ---------------------------------------------------------------------------------------

// All sessions of the process. Their lock is held for a moment at a time and while the process
// forks, so that a child finds it free.
struct CSession::SAll {
    std::mutex lock;
    std::set<CSession*> sessions;

    // Never destroyed: a process may fork while it ends.
    static SAll& Get() {
        static SAll& all = *new SAll;
        return all;
    }
    static void BeforeFork() { Get().lock.lock(); }
    static void InParent() { Get().lock.unlock(); }
    static void InChild() {
        for (CSession* pSession : Get().sessions) pSession->ForkedChild();
        Get().sessions.clear();
        Get().lock.unlock();
    }
};

CSession::CSession(std::shared_ptr<CRoutes> pRoutes, std::shared_ptr<CFeed> pNews,
                   std::shared_ptr<CFeed> pTrace)
    : m_pRoutes(std::move(pRoutes)),
      m_pNews(std::move(pNews)),
      m_pTrace(std::move(pTrace)),
      m_frames(m_drivers, *m_pRoutes) {
    static const int nHandlers = pthread_atfork(SAll::BeforeFork, SAll::InParent, SAll::InChild);
    (void)nHandlers;
    std::lock_guard<std::mutex> guard(SAll::Get().lock);
    SAll::Get().sessions.insert(this);
}

CSession::~CSession() {
    End("closed");
    Join();
    std::lock_guard<std::mutex> guard(SAll::Get().lock);
    SAll::Get().sessions.erase(this);
}

void CSession::Join() {
    std::lock_guard<std::mutex> guard(m_joinLock);
    if (!m_receiver.joinable()) return;
    m_receiver.join();
    // An operation ends soon, now that the session has; one that a signal's handler interrupts may
    // wait for us. Then the destructor closes.
    if (m_turnOf == std::this_thread::get_id()) return;
    if (!TakeTurn(5 * kTurnSliceNs)) return;
    CloseSockets();
    GiveTurn();
}

void CSession::CloseSockets() {
    std::lock_guard<std::mutex> guard(m_endLock);
    m_bOpen = false;
    m_rcvSock.Close();
    m_reqSock.Close();
}

int CSession::Connect(const char* szHost, ULONG nIp, const char* szUser, const char* szPassword,
                      CPatience& patience) {
    CNotifyGuard notify(patience);
    struct SGuarded {
        CSession& session;
        ~SGuarded() {
            session.m_reqSock.SetGuard(nullptr);
            session.m_rcvSock.SetGuard(nullptr);
            if (!session.m_receiver.joinable()) session.CloseSockets();
        }
    } guarded{*this};
    m_reqSock.SetGuard(&patience);
    m_rcvSock.SetGuard(&notify);
    m_bTellLan = false;
    m_bJoinHeaders = true;
    m_nHostIp = nIp;
    const int nResult = Login(szHost, szUser, szPassword, m_strProject);
    if (nResult != kConnected) return nResult;
    if (m_bUnreadBody) return kConnectFailed;
    m_rcvSock.SetGuard(nullptr);
    m_rcvSock.SetTimeOut(kForeverMs);
    for (const auto& entry : m_mapDrvInfos) {
        const SNDrvInfoEx& info = entry.second;
        if (info.id >= m_drivers.size()) m_drivers.resize(info.id + size_t{1});
        m_drivers[info.id] = std::make_unique<SDriver>(info.id, info.tagNum);
    }
    m_nHeardUs = NowUs();
    return StartReceiving() ? kConnected : kConnectFailed;
}

bool CSession::StartReceiving() {
    {
        std::lock_guard<std::mutex> guard(m_endLock);
        if (m_bOver) return false;
        m_bOpen = true;
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);  // signals are the script's
    try {
        m_receiver = std::thread(&CSession::Receive, this);
    } catch (const std::system_error&) {
        End("no thread");
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return m_receiver.joinable();
}

void CSession::End(const char* szNews) {
    std::lock_guard<std::mutex> guard(m_endLock);
    if (m_bOver.exchange(true)) return;
    if (m_bOpen) {
        m_rcvSock.ShutDown();
        m_reqSock.ShutDown();
    }
    m_pNews->PushNews(szNews);
}

// Another thread may have been using the sockets: a socket gives its descriptor up before it closes
// it, so none is closed here that is someone else's.
void CSession::ForkedChild() {
    m_rcvSock.Close();
    m_reqSock.Close();
}

// The receive thread. Bytes that come while frames wait are kept; so a server that sends changes
// before its reply to a subscription is never made to wait for us.
void CSession::Receive() try {
    std::vector<BYTE> bytes;
    size_t nKept = 0;
    while (!m_bOver) {
        bool bHeld = false;
        if (nKept) {
            std::lock_guard<std::mutex> guard(m_pRoutes->m_lock);
            bHeld = m_bHold;
            if (!bHeld) {
                const uint64_t nUnusable = m_frames.m_nUnusable;
                const size_t nDone = m_frames.Walk(bytes.data(), nKept, m_nHeardUs);
                // Told once until all is asked for anew: nothing else is displaced by it.
                if (m_frames.m_nUnusable != nUnusable && !m_bLossTold.exchange(true)) {
                    m_pNews->PushNews("loss");
                }
                nKept -= nDone;
                std::memmove(bytes.data(), bytes.data() + nDone, nKept);
            }
        }
        if (bHeld) {
            pollfd fd{m_rcvSock.GetSocket(), static_cast<short>(nKept < kMaxHeld ? POLLIN : 0), 0};
            if (poll(&fd, 1, kHoldPollMs) < 1) continue;
        }
        if (bytes.size() < nKept + kReceiveBytes) bytes.resize(nKept + kReceiveBytes);
        const ssize_t nGot = recv(m_rcvSock.GetSocket(), bytes.data() + nKept, kReceiveBytes, 0);
        if (nGot > 0) {
            m_nHeardUs = NowUs();
            m_nBytes += static_cast<uint64_t>(nGot);
            TraceReceived(bytes.data() + nKept, static_cast<size_t>(nGot));
            nKept += static_cast<size_t>(nGot);
        } else if (nGot == 0 || (errno != EINTR && errno != EAGAIN)) {
            End(nGot == 0 ? "the server closed the connection" : "the notification channel broke");
        }
    }
} catch (const std::bad_alloc&) {
    End("no memory for what the server sends");
}

void CSession::TraceReceived(const BYTE* pBytes, size_t nLen) {
    if (!m_pTrace) return;
    SEvent event;
    event.eKind = SEvent::EKind::kBytes;
    event.bNotify = true;
    event.nTimeUs = m_nHeardUs;
    event.pMore = std::make_unique<SEvent::SMore>();
    event.pMore->strText.assign(pBytes, pBytes + nLen);
    m_pTrace->Push(std::move(event));
}

// ---- Operations ---------------------------------------------------------------------------------

// Request: 'L', then driver id (2), name and zero byte of each. Reply: 'L', then tag id (2) and two
// bytes that mean nothing here, for each name.
CSession::EResult CSession::LookUp(const SDriver& driver, const std::vector<std::string>& names,
                                   std::vector<WORD>& ids, CPatience& patience) {
    CTurn turn(*this, patience);
    if (turn.Result() != EResult::kDone) return turn.Result();
    ids.assign(names.size(), kNoTag);
    std::vector<size_t> asked;  // indices of the names of a request
    for (size_t i = 0; i < names.size();) {
        char request[kLookupBytes];
        CByteWriter writer(request, sizeof request);
        writer.WriteU8(kReqTagId);
        asked.clear();
        for (; i < names.size(); ++i) {
            const std::string& strName = names[i];
            if (strName.empty() || strName.size() > kMaxName) continue;
            if (strName.size() + kLookupOverhead > writer.Room()) break;
            writer.WriteU16(driver.nId);
            writer.WriteText(strName.data(), strName.size());
            asked.push_back(i);
        }
        if (asked.empty()) continue;
        char reply[1 + 4 * kLookupBytes / (kLookupOverhead + 1)];
        const size_t nReply = 1 + 4 * asked.size();
        CByteReader reader(static_cast<const BYTE*>(static_cast<void*>(reply)), nReply);
        if (!RequestAll(request, writer.Size(), nReply, reply) || reader.ReadU8() != kReqTagId) {
            return Ended(patience, false);
        }
        for (const size_t nIndex : asked) {
            const WORD nId = reader.ReadU16();
            reader.Take(2);
            if (nId < driver.nTagCount) ids[nIndex] = nId;
        }
    }
    return Ended(patience, true);
}

// Request: 'H', count (2), then for each tag driver id (2), tag id (2).
bool CSession::SendRead(const SDriver& driver, const WORD* pIds, size_t nCount) {
    BYTE request[kRequestBytes];
    CByteWriter writer(request, sizeof request);
    writer.WriteU8(kReqRead);
    writer.WriteU16(static_cast<WORD>(nCount));
    for (size_t i = 0; i < nCount; ++i) {
        writer.WriteU16(driver.nId);
        writer.WriteU16(pIds[i]);
    }
    return m_reqSock.SendAll(request, static_cast<int>(writer.Size()), 0);
}

CSession::EResult CSession::Read(SDriver& driver, const WORD* pIds, size_t nCount,
                                 std::string& strValues, CPatience& patience) {
    CTurn turn(*this, patience);
    if (turn.Result() != EResult::kDone) return turn.Result();
    bool bShort = false;
    for (size_t nFrom = 0; nFrom < nCount && !bShort; nFrom += kMaxRead) {
        const size_t nBatch = std::min(nCount - nFrom, kMaxRead);
        CReadValues values(driver, pIds + nFrom, nBatch, strValues);
        if (!SendRead(driver, pIds + nFrom, nBatch) ||
            !CReplyChunks<CReadValues, true>(m_reqSock, values).ReceiveRead()) {
            return Ended(patience, false);
        }
        bShort = !values.Complete();
    }
    const EResult eResult = Ended(patience, true);
    return bShort ? EResult::kShort : eResult;
}

// Requests: 'g', number of values (2), then for each driver id (2), tag id (2) and the value with
// its type code. There is no reply.
CSession::EResult CSession::Write(const SDriver& driver, const std::vector<SWrite>& writes,
                                  CPatience& patience) {
    constexpr size_t kWriteOverhead = 4;  // of each value: driver id and tag id
    CTurn turn(*this, patience);
    if (turn.Result() != EResult::kDone) return turn.Result();
    for (size_t i = 0; i < writes.size();) {
        BYTE request[kMaxWrite];
        CByteWriter writer(request, sizeof request);
        writer.WriteU8(kReqWrite);
        writer.WriteU16(0);
        WORD nValues = 0;
        for (; i < writes.size(); ++i, ++nValues) {
            const SWrite& write = writes[i];
            if (write.strValue.size() + kWriteOverhead > writer.Room()) break;
            writer.WriteU16(driver.nId);
            writer.WriteU16(write.nTag);
            writer.WriteBytes(write.strValue.data(), write.strValue.size());
        }
        writer.PatchU16(1, nValues);
        if (nValues == 0 || !m_reqSock.SendAll(request, static_cast<int>(writer.Size()), 0)) {
            return Ended(patience, false);
        }
    }
    if (patience.WasSlow()) m_pNews->PushNews("answered");
    return EResult::kDone;
}

// Request: 'b', count (2), then for each tag driver id (2), tag id (2), 0.
CSession::EResult CSession::Watch(SDriver& driver, const std::vector<CWatchedTag*>& tags,
                                  const std::vector<WORD>& ids, const SRoute* pRoute,
                                  CPatience& patience) {
    CTurn turn(*this, patience);
    if (turn.Result() != EResult::kDone) return turn.Result();
    if (!pRoute) m_bLossTold = false;
    CHold hold(*this);
    std::vector<size_t> asked;  // indices of the tags to subscribe
    std::vector<WORD> known;    // ids of those that are, to be read when all is to be told anew
    {
        std::lock_guard<std::mutex> guard(m_pRoutes->m_lock);
        std::vector<bool> seen(driver.nTagCount);
        for (size_t i = 0; i < tags.size(); ++i) {
            const WORD nId = ids[i];
            if (!driver.watched[nId] && !seen[nId]) asked.push_back(i);
            if (driver.watched[nId] && !seen[nId] && !pRoute) known.push_back(nId);
            seen[nId] = true;
        }
    }
    std::vector<XVariant> values;
    for (size_t nFrom = 0; nFrom < asked.size(); nFrom += kMaxSubscribed) {
        const size_t nBatch = std::min(asked.size() - nFrom, kMaxSubscribed);
        BYTE request[kRequestBytes];
        CByteWriter writer(request, sizeof request);
        writer.WriteU8(kReqSubscribe);
        writer.WriteU16(static_cast<WORD>(nBatch));
        for (size_t i = nFrom; i < nFrom + nBatch; ++i) {
            writer.WriteU16(driver.nId);
            writer.WriteU16(ids[asked[i]]);
            writer.WriteU8(0);
        }
        CWatchValues batch(values, nBatch);
        if (!m_reqSock.SendAll(request, static_cast<int>(writer.Size()), 0) ||
            !CReplyChunks<CWatchValues, true>(m_reqSock, batch).ReceiveSubscribed()) {
            return Ended(patience, false);
        }
    }
    std::vector<XVariant> present;
    bool bShort = false;
    for (size_t nFrom = 0; nFrom < known.size() && !bShort; nFrom += kMaxRead) {
        const size_t nBatch = std::min(known.size() - nFrom, kMaxRead);
        CWatchValues batch(present, nBatch);
        if (!SendRead(driver, known.data() + nFrom, nBatch) ||
            !CReplyChunks<CWatchValues, true>(m_reqSock, batch).ReceiveRead()) {
            return Ended(patience, false);
        }
        bShort = !batch.Complete();  // the others keep the values that they have
    }
    const int64_t nNowUs = NowUs();
    std::lock_guard<std::mutex> guard(m_pRoutes->m_lock);
    if (m_bOver) return Ended(patience, false);  // a next session may have looked at the routes
    for (size_t i = 0; i < present.size(); ++i) {
        driver.types[known[i]].store(present[i].vt, std::memory_order_relaxed);
        for (CWatchedTag* p = driver.watched[known[i]]; p; p = p->pAlias) p->value = present[i];
    }
    for (size_t i = 0; i < asked.size(); ++i) {
        CWatchedTag& tag = *tags[asked[i]];
        const WORD nId = ids[asked[i]];
        driver.types[nId].store(values[i].vt, std::memory_order_relaxed);
        AddName(driver, nId, tag);
        tag.value.Swap(values[i]);
    }
    for (size_t i = 0; i < tags.size(); ++i) {
        AddName(driver, ids[i], *tags[i]);
        if (pRoute) tags[i]->routes.push_back(*pRoute);
        m_pRoutes->TellChange(*tags[i], nNowUs, !pRoute, pRoute);
    }
    return Ended(patience, true);
}

CSession::EResult CSession::WatchAlarms(const SRoute* pRoute, bool bExisting, CPatience& patience) {
    CTurn turn(*this, patience);
    if (turn.Result() != EResult::kDone) return turn.Result();
    if (!pRoute) m_bLossTold = false;
    CHold hold(*this);
    std::vector<S2RtAlarm2> alarms;
    if (!FetchAlarms(bExisting, alarms)) return Ended(patience, false);
    if (!LoadAlarmLists() || m_bUnreadBody) return Ended(patience, false);
    const int64_t nNowUs = NowUs();
    std::lock_guard<std::mutex> guard(m_pRoutes->m_lock);
    if (m_bOver) return Ended(patience, false);  // as above
    m_alarmTexts = m_textList;
    m_alarmTags = m_tagList;
    for (const S2RtAlarm2& alarm : alarms) {
        m_pRoutes->TellAlarm(alarm, nNowUs, !pRoute, pRoute);
    }
    if (pRoute) m_pRoutes->m_alarmRoutes.push_back(*pRoute);
    return Ended(patience, true);
}

void CSession::AlarmTexts(std::vector<CString>& texts, std::vector<CString>& tags) const {
    std::lock_guard<std::mutex> guard(m_pRoutes->m_lock);
    texts = m_alarmTexts;
    tags = m_alarmTags;
}

// A look-up of a name that no tag has: the shortest exchange that there is.
CSession::EResult CSession::Probe(CPatience& patience) {
    const auto it = std::find_if(m_drivers.begin(), m_drivers.end(),
                                 [](const std::unique_ptr<SDriver>& p) { return p != nullptr; });
    if (it == m_drivers.end()) return EResult::kDone;
    std::vector<WORD> ids;
    return LookUp(**it, {"?"}, ids, patience);
}
