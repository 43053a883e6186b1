// Operations of a session of vzclient. Input: how the replies arrive (see SScript), which
// operations are made (one bit each), how many times eight bytes come as notifications, before the
// operations and again behind them, these, then the replies' bytes.

#include <Python.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Input.h"
#include "LiveSession.h"
#include "Peer.h"
#include "ProcessState.h"
#include "WireBytes.h"
#include "vzclient/Session.h"

namespace {

using EResult = CSession::EResult;
using EEnd = CPatience::EEnd;

constexpr WORD kTags = 40;  // of driver 0
constexpr double kLong = 20;
constexpr double kShort = 0.01;  // for a server that goes silent
constexpr int64_t kNsPerSecond = 1000000000;

std::string Host() { return "192.0.2.2:" + std::to_string(getpid() % 60000 + 1); }

// The cache stays from run to run but for the driver file: making it anew costs too much.
void ForgetDriverFile() {
    struct SAtExit {
        ~SAtExit() { RemoveTree(FuzzCacheFolder(Host())); }
    };
    static const SAtExit atExit;
    unlink((FuzzCacheFolder(Host()) + "/Fuzz/RecData/drvinfo.dat").c_str());
}

std::string LoginReplies() {
    const std::string strDrvInfo = Z("Boiler") + U16(0) + U16(kTags) + Z("Mill") + U16(2) + U16(3);
    return std::string("7") + kCut + "9" + U32(0) + U32(8) + kCut +
           "Size:" + Upper(static_cast<unsigned>(strDrvInfo.size())) + "\r\n\r\n" + strDrvInfo;
}
std::string NotifyReply() {
    return Scramble("8" + std::string(50, 'x') + U32Big(1600000000) + U32Big(0) + Z("Fuzz") +
                    Z("Plant"));
}

// How many values with type codes stand in what a read gave: an array is its code alone.
size_t CountValues(const std::string& strValues) {
    size_t nCount = 0;
    for (size_t nAt = 0; nAt < strValues.size(); ++nCount) {
        Require(strValues.size() - nAt >= 2, "type code");
        const unsigned vt = static_cast<unsigned char>(strValues[nAt]) +
                            256u * static_cast<unsigned char>(strValues[nAt + 1]);
        nAt += 2;
        if (vt == 8) {
            nAt = strValues.find('\0', nAt);
            Require(nAt != std::string::npos, "end of a text");
            ++nAt;
        } else {
            nAt += XVariant::GetVTSize(static_cast<VARTYPE>(vt));
        }
        Require(nAt <= strValues.size(), "payload");
    }
    return nCount;
}

class CRun {
  public:
    CRun(CPeer& peer, bool bSilent)
        : m_peer(peer), m_fSeconds(bSilent ? kShort : kLong), m_asked(kTags) {}

    bool Connect() {
        int nResult = kConnectFailed;
        (void)Do(kLong, [&](CPatience& patience) {
            nResult = m_session.Connect(Host().c_str(), 1, "u", "p", patience);
            return EResult::kDone;
        });
        return nResult == kConnected && m_peer.Attach(m_session.m_reqSock) &&
               m_session.m_reqSock.SetTimeOut(CSocketGuard::kSliceMs);
    }
    void Notify(const std::string& strBytes) {
        if (m_hNotify < 0) m_hNotify = m_peer.Keep(1);
        (void)!send(m_hNotify, strBytes.data(), strBytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    ~CRun() {
        PyThreadState* state = PyEval_SaveThread();
        m_session.End("closed");
        m_session.Join();
        PyEval_RestoreThread(state);
        if (m_hNotify >= 0) close(m_hNotify);
    }

    void LookUp() {
        std::vector<WORD> ids;
        const std::vector<std::string> names = {"a", "", "\xCB\xAE\xCE\xBB", std::string(764, 'x'),
                                                std::string(765, 'x')};
        if (Do([&](CPatience& p) { return m_session.LookUp(Boiler(), names, ids, p); }) !=
            EResult::kDone)
            return;
        Require(ids.size() == names.size(), "an id for each name");
        for (const WORD nId : ids) Require(nId < kTags || nId == kNoTag, "id of a tag");
        Require(ids[1] == kNoTag && ids[4] == kNoTag, "names that cannot be");
    }
    void Read(std::vector<WORD> ids) {
        for (const WORD nId : ids) m_asked[nId] = true;
        std::string strValues;
        const EResult eResult = Do([&](CPatience& p) {
            return m_session.Read(Boiler(), ids.data(), ids.size(), strValues, p);
        });
        const size_t nValues = CountValues(strValues);
        Require(eResult == EResult::kDone ? nValues == ids.size() : nValues <= ids.size(),
                "a value for each tag");
        Require(eResult != EResult::kShort || nValues < ids.size(), "short");
    }
    void Write() {
        const std::vector<CSession::SWrite> writes = {{1, Hex("03 00 05 00 00 00")},
                                                      {2, Hex("08 00 41 00")}};
        const bool bDone = Do([&](CPatience& p) { return m_session.Write(Boiler(), writes, p); }) ==
                           EResult::kDone;
        Require(bDone != m_bOver, "write");
    }
    void Watch(const std::vector<WORD>& ids, uint32_t nToken) {
        const SRoute route{m_pFeed, nToken};
        std::vector<CWatchedTag*> tags;
        for (const WORD nId : ids) {
            m_asked[nId] = true;
            tags.push_back(Tag(nId));
        }
        const bool bDone = Do([&](CPatience& p) {
                               return m_session.Watch(Boiler(), tags, ids, &route, p);
                           }) == EResult::kDone;
        if (bDone) m_watched.insert(m_watched.end(), tags.begin(), tags.end());
        for (const CWatchedTag* pTag : tags) {
            const bool bRouted = std::any_of(pTag->routes.begin(), pTag->routes.end(),
                                             [&](const SRoute& r) { return r.nToken == nToken; });
            Require(bRouted == bDone, "route");
        }
    }
    void WatchAlarms() {
        const SRoute route{m_pFeed, 99};
        const bool bDone = Do([&](CPatience& p) {
                               return m_session.WatchAlarms(&route, true, p);
                           }) == EResult::kDone;
        m_bAlarms = m_bAlarms || bDone;
    }
    void Probe() {
        (void)Do([&](CPatience& p) { return m_session.Probe(p); });
    }

    // What must hold behind all of it, once all notifications are taken.
    void Check() {
        PyThreadState* state = PyEval_SaveThread();
        shutdown(m_hNotify, SHUT_WR);
        m_session.Join();
        PyEval_RestoreThread(state);
        std::vector<SEvent> events;
        m_pFeed->Take(events, 1000000);
        for (const SEvent& event : events) {
            if (event.eKind == SEvent::EKind::kAlarm) {
                Require(m_bAlarms && event.nToken == 99, "alarm that nobody watches");
            } else {
                Require(std::count(m_watched.begin(), m_watched.end(), event.pTag) != 0,
                        "change of a tag that nobody watches");
            }
        }
        for (size_t i = 0; i < kTags; ++i) {
            Require(m_asked[i] || Boiler().types[i] == VT_EMPTY, "type of a tag not asked for");
            Require(m_asked[i] || !Boiler().watched[i], "watched tag not asked for");
        }
        std::vector<SEvent> news;
        m_pNews->Take(news, 1000);
        Require(m_session.Over() && !news.empty(), "news of the end");
        Require(!PyErr_Occurred(), "no error left");
    }

  private:
    SDriver& Boiler() { return *m_session.Driver(0); }
    CWatchedTag* Tag(WORD nId) {
        PyObject* driver = PyUnicode_FromString("Boiler");
        PyObject* name = PyUnicode_FromFormat("T%d", nId);
        CWatchedTag* pTag = m_pRoutes->Tag(driver, name);
        Py_DECREF(driver);
        Py_DECREF(name);
        return pTag;
    }
    template <typename TBody>
    EResult Do(TBody body) {
        const EResult eResult = Do(m_fSeconds, body);
        Require(eResult != EResult::kReentered, "turn");
        if (eResult == EResult::kFailed) m_bOver = true;
        Require(m_session.Over() == m_bOver, "over after a failure and no sooner");
        return eResult;
    }
    template <typename TBody>
    EResult Do(double fSeconds, TBody body) {
        const int64_t nDeadlineNs = DeadlineNs(fSeconds);
        PyThreadState* state = PyEval_SaveThread();
        CPatience patience(nDeadlineNs, state, m_session.Over(), nullptr);
        const EResult eResult = body(patience);
        PyEval_RestoreThread(state);
        Require(MonotonicNs() < nDeadlineNs + 5 * kNsPerSecond, "deadline");
        if (patience.End() == EEnd::kTimedOut) Require(MonotonicNs() >= nDeadlineNs, "too soon");
        return eResult;
    }

    CPeer& m_peer;
    const double m_fSeconds;
    int m_hNotify = -1;
    bool m_bOver = false;
    bool m_bAlarms = false;
    std::vector<bool> m_asked;
    std::vector<const CWatchedTag*> m_watched;
    std::shared_ptr<CRoutes> m_pRoutes = std::make_shared<CRoutes>();
    std::shared_ptr<CFeed> m_pNews = std::make_shared<CFeed>(1000, CFeed::EOverflow::kOldest);
    std::shared_ptr<CFeed> m_pFeed = std::make_shared<CFeed>(1000000, CFeed::EOverflow::kOldest);
    CSession m_session{m_pRoutes, m_pNews, nullptr};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    StartInterpreter();
    CInput input(pData, nSize);
    const unsigned nHow = input.Byte();
    const unsigned nOperations = input.Byte();
    const std::string strNotify = input.Chars(8 * size_t{input.Byte()});
    ForgetDriverFile();
    CPeer peer({SScript(LoginReplies()), SScript(NotifyReply()), SScript(input.Rest(), nHow)});
    CRun run(peer, (nHow & 0x80) != 0);
    if (!run.Connect()) abort();
    run.Notify(strNotify);
    if (nOperations & 1) run.LookUp();
    if (nOperations & 2) run.Read({1, 3, 3, 39});
    if (nOperations & 4) run.Watch({1, 2, 5}, 1);
    if (nOperations & 8) run.Write();
    if (nOperations & 16) run.WatchAlarms();
    if (nOperations & 32) run.Probe();
    if (nOperations & 64) run.Watch({2, 7}, 2);
    if (nOperations & 128) run.Read({0});
    run.Notify(strNotify);
    run.Check();
    return 0;
}
