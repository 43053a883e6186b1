// Servers that break off behind each single byte: of every reply, of every request, and in the
// notification stream. Each time the result is the one promised, and the next connect works.

#include "PythonEnvironment.h"

// The interpreter's header comes first, as it asks for.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BreakingServer.h"
#include "ProcessState.h"
#include "VzDBAccess/DBCore.h"
#include "VzDBAccess/DBDriver.h"
#include "VzDBAccess/Registry.h"

namespace {

constexpr int kWorkers = 40;
constexpr int kWaiters = 80;            // of cases that wait for seconds
constexpr long kShortTimeOutMs = 5000;  // instead of the session's eight seconds, after the login

std::string CacheFolder(std::string strHost) {
    std::replace(strHost.begin(), strHost.end(), ':', '_');
    return "/tmp/vzbrowser/" + strHost;
}

// A client and the server that breaks off for it; what came of its operations is told as text.
class CClient {
  public:
    explicit CClient(CBreakingServer& breaking) : server(breaking), core(new CDBCore) {
        RegisterCore(core);
        RemoveTree(CacheFolder(server.Host()));
    }
    ~CClient() {
        core->_Disconnect();
        UnregisterCore(core);
        core->LetGo();
        RemoveTree(CacheFolder(server.Host()));
    }

    // "0 " and the project's name, or the failure.
    std::string Connect() {
        const int nResult = core->_Connect(server.Host().c_str(), "u", "p");
        drv = core->_GetDriver("Boiler", &session);
        if (nResult != kConnected) return std::to_string(nResult);
        const std::string& str = core->m_strPrjPath;
        const size_t nAt = str.rfind('/', str.size() - 2) + 1;
        return "0 " + str.substr(nAt, str.size() - 1 - nAt);
    }
    // Whether it worked, and the ids, -1 for a name without one.
    std::string LookUp(const char* szTags) {
        std::lock_guard<std::mutex> op(core->m_opLock);
        std::vector<CDBDriver::STag*> tags;
        std::string str = drv->CheckTagId(szTags, tags) ? "true" : "false";
        for (const CDBDriver::STag* pTag : tags) str += " " + std::to_string(pTag ? pTag->id : -1);
        return str;
    }
    std::string LookUpOne() {
        WORD nId = 99;
        const bool bFound = core->GetTagId(0, "T2", &nId);
        return (bFound ? "true " : "false ") + std::to_string(nId);
    }
    // Whether it worked, and the values of the first nTags tags.
    std::string Read(const char* szTags, size_t nTags) {
        std::vector<CDBDriver::STag*> tags;
        std::lock_guard<std::mutex> op(core->m_opLock);
        const bool bRead = drv->_GetTagValue(szTags, tags);
        return (bRead ? "true" : "false") + Values(nTags);
    }
    std::string Subscribe(const char* szTags, size_t nTags) {
        std::string str = drv->_ConnectTag(szTags) ? "true" : "false";
        for (size_t i = 0; i < nTags; ++i) str += drv->m_tags[i].bSubscribe ? " on" : " off";
        return str + Values(nTags);
    }
    std::string Unadvise() { return core->UnadviseTag(5) ? "true" : "false"; }
    // The result, the alarm texts and the alarm tags. Existing alarms are not wanted, so that no
    // script object is touched.
    std::string SubscribeAlarms() {
        const int nResult = core->_SetRtAlarmNotify(Py_None, false);
        std::string str = std::to_string(nResult) + ":";
        for (const CString& strText : core->m_textList) str += strText + ";";
        str += ":";
        for (const CString& strTag : core->m_tagList) str += strTag + ";";
        return str;
    }
    std::string Values(size_t nTags) {
        std::lock_guard<std::mutex> data(core->m_dataLock);
        std::string str;
        for (size_t i = 0; i < nTags; ++i) {
            const XVariant& value = drv->m_tags[i].value;
            str += " " + (value.vt == VT_I4 ? std::to_string(value.lVal) : "-");
        }
        return str;
    }
    // Nothing is left of a connect that failed.
    bool IsClosed() const {
        return !core->m_reqSock.IsSocket() && !core->m_rcvSock.IsSocket() && !core->m_bConnect;
    }
    // The receive thread has taken everything that was sent to it.
    bool HasTakenAll() const {
        int nLeft = 0;
        return ioctl(core->m_rcvSock.GetSocket(), FIONREAD, &nLeft) == 0 && nLeft == 0;
    }

    CBreakingServer& server;
    CDBCore* core;
    CDBDriver* drv = nullptr;
    std::shared_ptr<CDBSession> session;  // keeps the driver
};

template <class TCondition>
bool Wait(TCondition fn) {
    for (int i = 0; i < 30000; ++i) {
        if (fn()) return true;
        usleep(1000);
    }
    return fn();
}

// A reply and what becomes of the operation that waits for it.
struct SExchange {
    const char* szName;
    std::string strAt;     // how its request begins
    size_t nRequest;       // bytes of the request
    std::string strReply;  // whole
    bool bLogin;           // part of a connect, not of a session
    std::function<std::string(CClient&)> fnBefore;
    std::function<std::string(CClient&)> fnDo;
    // The outcome when nBytes of the reply came and nothing more ever comes.
    std::function<std::string(size_t nBytes)> fnCut;
    // Whether it may come in two receives, nBytes in the first.
    std::function<bool(size_t nBytes)> fnMayBeSplit;
};

// Bytes that nBytes of a scrambled message give.
size_t PlainBytes(size_t nBytes) {
    const size_t nTail = nBytes % 4;
    return nTail == 1 ? 0 : nBytes / 4 * 3 + (nTail ? nTail - 1 : 0);
}

// The lines of a list whose file has the first nBytes of strFile.
std::string Lines(const std::string& strFile, size_t nBytes) {
    std::string strLines;
    std::string strLine;
    for (const char c : strFile.substr(0, nBytes) + "\n") {
        if (c != '\n') {
            if (c != '\r') strLine += c;
        } else if (!strLine.empty()) {
            strLines += strLine + ";";
            strLine.clear();
        }
    }
    return strLines;
}

std::string Nothing(CClient&) { return ""; }
bool Never(size_t) { return false; }
bool Always(size_t) { return true; }

std::vector<SExchange> LoginExchanges() {
    const auto fnConnect = [](CClient& client) { return client.Connect(); };
    const std::string strNotify = Scramble(CBreakingServer::NotifyReply());
    const std::string strFile = CBreakingServer::File("4RecData/drvinfo.dat");
    const size_t nHeader = strFile.size() - CBreakingServer::DrvInfo().size();
    return {
        // What comes behind goes over the same connection, which is gone.
        {"hello", "7", 23, "7", true, Nothing, fnConnect, [](size_t) { return "-2"; }, Never},
        {"notification hello", "8", 60, strNotify, true, Nothing, fnConnect,
         [](size_t n) -> std::string {
             if (PlainBytes(n) < 60) return "-2";
             return "0 " + std::string("Unit").substr(0, PlainBytes(n) - 59);
         },
         Never},
        {"user", "9", 5, CBreakingServer::LoginReply(), true, Nothing, fnConnect,
         [](size_t) { return "-2"; }, Never},
        // A header is read as far as it goes: cut in its first line, it tells of an empty file.
        {"driver file", "4RecData/drvinfo", 36, strFile, true, Nothing, fnConnect,
         [=](size_t n) {
             const bool bEmpty = n > 0 && n <= strFile.find('\n');
             return bEmpty || n == strFile.size() ? "0 Unit" : "-2";
         },
         [=](size_t n) { return n >= nHeader; }},
    };
}

std::vector<SExchange> SessionExchanges() {
    const std::string strTexts = CBreakingServer::kTexts;
    const std::string strTags = CBreakingServer::kTags;
    const size_t nTextsHeader = CBreakingServer::FileHeader(strTexts).size();
    const size_t nTagsHeader = CBreakingServer::FileHeader(strTags).size();
    const auto fnLookUp = [](CClient& client) { return client.LookUp("T0,T1"); };
    const auto fnAlarms = [](CClient& client) { return client.SubscribeAlarms(); };
    return {
        {"lookup", "L", 11, std::string(9, 'L'), false, Nothing, fnLookUp,
         [](size_t n) { return n < 9 ? "false" : "true 0 1"; }, Always},
        {"single lookup", "L", 6, std::string(5, 'L'), false, Nothing,
         [](CClient& client) { return client.LookUpOne(); },
         [](size_t n) { return n < 3 ? "false 99" : "true 2"; }, [](size_t n) { return n >= 3; }},
        {"read", "H", 11, std::string(20, 'H'), false, fnLookUp,
         [](CClient& client) { return client.Read("T0,T1", 2); },
         [](size_t n) { return n < 10   ? "false - -"
                               : n < 20 ? "false 7 -"
                                        : "true 7 17"; },
         [](size_t n) { return n % 10 == 0 || n % 10 >= 4; }},
        {"subscribe", "b", 13, std::string(18, 'b'), false, fnLookUp,
         [](CClient& client) { return client.Subscribe("T0,T1", 2); },
         [](size_t n) {
             return n < 9 ? "false off off - -" : n < 18 ? "false on off 7 -" : "true on on 7 17";
         },
         [](size_t n) { return n % 9 != 2; }},
        {"unadvise", "d", 5, "d", false, Nothing, [](CClient& client) { return client.Unadvise(); },
         [](size_t n) { return n ? "true" : "false"; }, Never},
        {"alarms", "n", 1, CBreakingServer::Alarms(), false, Nothing, fnAlarms,
         [](size_t n) { return n < 67 ? "-2::" : "0::"; },
         [](size_t n) { return n == 0 || n >= 3; }},
        // A list is loaded from whatever the cache holds. The list behind the one that broke off
        // is asked for in vain.
        {"alarm texts", "4RecData/textlist", 33, CBreakingServer::FileHeader(strTexts) + strTexts,
         false, Nothing, fnAlarms,
         [=](size_t n) {
             return "0:" + Lines(strTexts, std::max(n, nTextsHeader) - nTextsHeader) + ":";
         },
         [=](size_t n) { return n >= nTextsHeader; }},
        {"alarm tags", "4RecData/taglist", 32, CBreakingServer::FileHeader(strTags) + strTags,
         false, Nothing, fnAlarms,
         [=](size_t n) {
             return "0:" + Lines(strTexts, 99) + ":" +
                    Lines(strTags, std::max(n, nTagsHeader) - nTagsHeader);
         },
         [=](size_t n) { return n >= nTagsHeader; }},
    };
}

class EveryByte : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(LoadDateTime());  // all that needs Python
        std::thread([] {}).join();    // a sanitizer's own thread comes with the first
    }
    EveryByte() : m_nDescriptors(CountDescriptors()), m_nThreads(CountThreads()) {}
    ~EveryByte() override {
        EXPECT_TRUE(FallsTo(CountDescriptors, m_nDescriptors)) << "descriptors were left open";
        EXPECT_TRUE(FallsTo(CountThreads, m_nThreads)) << "threads were left behind";
    }

    void Add(const std::string& strName, std::function<void()> fn) {
        m_cases.emplace_back(strName, std::move(fn));
    }
    // Many at a time: most of their time is spent waiting.
    void RunAll(int nWorkers = kWorkers) {
        std::atomic<size_t> nNext{0};
        const auto fnWork = [&] {
            for (size_t i; (i = nNext++) < m_cases.size();) {
                SCOPED_TRACE(m_cases[i].first);
                m_cases[i].second();
            }
        };
        std::vector<std::thread> workers;
        Unlocked([&] {
            for (int i = 0; i < nWorkers; ++i) workers.emplace_back(fnWork);
            for (std::thread& worker : workers) worker.join();
        });
        EXPECT_GT(m_cases.size(), 0u);
    }

    static std::string Name(const std::string& strWhat, size_t nAfter, EBreak eHow) {
        static const char* const kNames[] = {"none", "close", "reset", "stall", "split", "drip"};
        return strWhat + " " + kNames[static_cast<int>(eHow)] + " after " + std::to_string(nAfter);
    }
    // What every case ends with.
    static void ConnectAgain(CClient& client) {
        EXPECT_EQ(client.Connect(), "0 Unit");
        if (!client.drv) return ADD_FAILURE() << "the driver is not there";
        EXPECT_EQ(client.Read("T0,T1", 2), "true 7 17");
    }
    // The operation's outcome, with the server told to break off at it.
    static std::string Outcome(const SExchange& exchange, CClient& client, EBreak eHow) {
        if (exchange.bLogin) return exchange.fnDo(client);
        EXPECT_EQ(client.Connect(), "0 Unit");
        if (!client.drv) return "no driver";
        exchange.fnBefore(client);
        if (eHow == EBreak::kStall) client.core->m_reqSock.SetTimeOut(kShortTimeOutMs);
        return exchange.fnDo(client);
    }
    void AddCuts(const std::vector<SExchange>& exchanges, EBreak eHow) {
        for (const SExchange& exchange : exchanges) {
            for (size_t n = 0; n <= exchange.strReply.size(); ++n) {
                Add(Name(exchange.szName, n, eHow), [=] {
                    CBreakingServer server({eHow, exchange.strAt, n, false});
                    CClient client(server);
                    const auto start = std::chrono::steady_clock::now();
                    const std::string strOutcome = Outcome(exchange, client, eHow);
                    EXPECT_EQ(strOutcome, exchange.fnCut(n));
                    EXPECT_TRUE(!exchange.bLogin || strOutcome[0] != '-' || client.IsClosed());
                    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
                    ConnectAgain(client);
                });
            }
        }
    }
    // Where a reply may come in pieces the outcome is that of the whole. Elsewhere it is that of
    // the whole or of the first piece, by how the network delivered it.
    void AddSplits(const std::vector<SExchange>& exchanges, EBreak eHow) {
        for (const SExchange& exchange : exchanges) {
            const size_t nWhole = exchange.strReply.size();
            for (size_t n = 1; n < nWhole; ++n) {
                bool bWhole = exchange.fnMayBeSplit(n);
                for (size_t i = n; bWhole && eHow == EBreak::kDrip && i < nWhole; ++i) {
                    bWhole = exchange.fnMayBeSplit(i);
                }
                if (!bWhole && eHow == EBreak::kDrip) continue;
                // The rest of a list's header would be read as the reply to the next request.
                if (!bWhole && exchange.strAt.find("list") != std::string::npos) continue;
                Add(Name(exchange.szName, n, eHow), [=] {
                    CBreakingServer server({eHow, exchange.strAt, n, false});
                    CClient client(server);
                    const std::string strOutcome = Outcome(exchange, client, eHow);
                    const std::string strWhole = WholeOutcome(exchange);
                    if (bWhole || strOutcome != exchange.fnCut(n)) {
                        EXPECT_EQ(strOutcome, strWhole);
                    }
                    ConnectAgain(client);
                });
            }
        }
    }
    static std::string WholeOutcome(const SExchange& exchange) {
        CBreakingServer server({});
        CClient client(server);
        return Outcome(exchange, client, EBreak::kNone);
    }

    std::vector<std::pair<std::string, std::function<void()>>> m_cases;
    const int m_nDescriptors;
    const int m_nThreads;
};

// ---- Replies ------------------------------------------------------------------------------------

TEST_F(EveryByte, OfALoginMayBeTheLastBeforeAnEnd) {
    AddCuts(LoginExchanges(), EBreak::kClose);
    AddCuts(LoginExchanges(), EBreak::kReset);
    RunAll();
}

TEST_F(EveryByte, OfALoginMayBeTheLastBeforeASilence) {
    AddCuts(LoginExchanges(), EBreak::kStall);
    RunAll(kWaiters);
}

TEST_F(EveryByte, OfALoginMayComeApartFromTheNext) {
    std::vector<SExchange> exchanges = LoginExchanges();
    exchanges.erase(exchanges.begin() + 2);  // the rest of the user's reply is no reply of its own
    AddSplits(exchanges, EBreak::kSplit);
    AddSplits(exchanges, EBreak::kDrip);
    RunAll();
}

TEST_F(EveryByte, OfASessionMayBeTheLastBeforeAnEnd) {
    AddCuts(SessionExchanges(), EBreak::kClose);
    AddCuts(SessionExchanges(), EBreak::kReset);
    RunAll();
}

TEST_F(EveryByte, OfASessionMayBeTheLastBeforeASilence) {
    AddCuts(SessionExchanges(), EBreak::kStall);
    RunAll(kWaiters);
}

TEST_F(EveryByte, OfASessionMayComeApartFromTheNext) {
    AddSplits(SessionExchanges(), EBreak::kSplit);
    AddSplits(SessionExchanges(), EBreak::kDrip);
    RunAll();
}

// A center server that sends the client on: '7', "lan", address, port.
TEST_F(EveryByte, OfARedirectMayBeTheLast) {
    CBreakingServer plant({});
    const std::string strReply =
        "7lan" + Hex("7F 00 00 01") + U8(plant.Port() >> 8) + U8(plant.Port() & 0xFF);
    unsigned nAddress = 0;
    for (const EBreak eHow : {EBreak::kClose, EBreak::kReset, EBreak::kStall}) {
        for (size_t n = 0; n <= strReply.size(); ++n) {
            const std::string strIp = "127." + std::to_string(getpid() % 250 + 3) + "." +
                                      std::to_string(getpid() / 250 % 250) + "." +
                                      std::to_string(++nAddress);
            Add(Name("redirect", n, eHow), [=] {
                CBreakingServer server({eHow, "7", n, false}, strIp, 3968, strReply);
                CClient client(server);
                EXPECT_EQ(client.Connect(), n < strReply.size() ? "-2" : "0 Unit");
                ConnectAgain(client);
            });
        }
    }
    RunAll();
    RemoveTree(CacheFolder(plant.Host()));
}

// ---- Requests -----------------------------------------------------------------------------------

// Also the one signal that a broken connection can send would end this program.
TEST_F(EveryByte, OfARequestMayBeTheLastThatIsRead) {
    std::vector<SExchange> exchanges = LoginExchanges();
    for (const SExchange& exchange : SessionExchanges()) exchanges.push_back(exchange);
    for (const SExchange& exchange : exchanges) {
        for (const EBreak eHow : {EBreak::kClose, EBreak::kReset}) {
            for (size_t n = 0; n <= exchange.nRequest; ++n) {
                Add(Name(std::string("request: ") + exchange.szName, n, eHow), [=] {
                    CBreakingServer server({eHow, exchange.strAt, n, true});
                    CClient client(server);
                    EXPECT_EQ(Outcome(exchange, client, eHow), exchange.fnCut(0));
                    ConnectAgain(client);
                });
            }
        }
    }
    RunAll();
}

// ---- The notification stream --------------------------------------------------------------------

std::string Change(unsigned nTag, uint32_t nValue) { return U16(0) + U16(nTag) + U32(nValue); }

const std::vector<std::string>& Frames() {
    static const std::vector<std::string> frames = {
        Change(0, 100),
        Hex("FF FF 02 00 00 00 00"),
        Change(1, 200),
        Hex("FF FF 01") + std::string(32, '\1'),
        Hex("FF FF 11 00 00 01 00") + Z("text"),
        Change(2, 300),
        Hex("FF FF FF"),
    };
    return frames;
}

std::string Stream() {
    std::string str;
    for (const std::string& strFrame : Frames()) str += strFrame;
    return str;
}

// The values of three tags when nBytes of the stream came in one receive.
std::string ValuesAfter(size_t nBytes) {
    std::string str;
    size_t nEnd = 0;
    unsigned nTag = 0;
    for (const std::string& strFrame : Frames()) {
        nEnd += strFrame.size();
        if (strFrame[0] != 0) continue;
        str += " " + std::to_string(nEnd <= nBytes ? 100 * (nTag + 1) : 10 * nTag + 7);
        ++nTag;
    }
    return str;
}

class EveryByteOfTheStream : public EveryByte {
  protected:
    static void Subscribe(CClient& client) {
        ASSERT_EQ(client.Connect(), "0 Unit");
        ASSERT_NE(client.drv, nullptr);
        ASSERT_EQ(client.LookUp("T0,T1,T2,T3"), "true 0 1 2 3");
        ASSERT_EQ(client.Subscribe("T0,T1,T2,T3", 4), "true on on on on 7 17 27 37");
    }
    // The next chunk starts anew, and the session works.
    static void ExpectAlive(CClient& client) {
        EXPECT_TRUE(Wait([&] { return client.HasTakenAll(); }));
        client.server.Push(Change(3, 4242));
        EXPECT_TRUE(Wait([&] {
            return client.drv->m_tags.size() > 3 &&
                   client.Values(4).find(" 4242") != std::string::npos;
        }));
        EXPECT_EQ(client.LookUp("T4"), "true 4");
    }
};

TEST_F(EveryByteOfTheStream, MayBeTheLastBeforeAnEnd) {
    for (const EBreak eHow : {EBreak::kClose, EBreak::kReset}) {
        for (size_t n = 0; n <= Stream().size(); ++n) {
            Add(Name("stream", n, eHow), [=] {
                CBreakingServer server({});
                CClient client(server);
                Subscribe(client);
                server.Push(Stream().substr(0, n), eHow);
                EXPECT_TRUE(Wait([&] { return !client.core->m_bConnect; }));
                EXPECT_EQ(client.Values(3), ValuesAfter(n));
                EXPECT_EQ(client.core->_GetDriver("Boiler"), nullptr);
                ConnectAgain(client);
            });
        }
    }
    RunAll();
}

TEST_F(EveryByteOfTheStream, MayBeTheLastBeforeASilence) {
    for (size_t n = 0; n <= Stream().size(); ++n) {
        Add(Name("stream", n, EBreak::kStall), [=] {
            CBreakingServer server({});
            CClient client(server);
            Subscribe(client);
            server.Push(Stream().substr(0, n));
            ExpectAlive(client);
            EXPECT_EQ(client.Values(3), ValuesAfter(n));
            ConnectAgain(client);
        });
    }
    RunAll();
}

// The rest of a cut frame is taken for a frame of its own, whatever that gives.
TEST_F(EveryByteOfTheStream, MayComeApartFromTheNext) {
    for (size_t n = 1; n < Stream().size(); ++n) {
        Add(Name("stream", n, EBreak::kSplit), [=] {
            CBreakingServer server({});
            CClient client(server);
            Subscribe(client);
            server.Push(Stream().substr(0, n));
            EXPECT_TRUE(Wait([&] { return client.HasTakenAll(); }));
            server.Push(Stream().substr(n));
            ExpectAlive(client);
            size_t nEnd = 0;
            for (const std::string& strFrame : Frames()) {
                nEnd += strFrame.size();
                if (nEnd != n) continue;
                EXPECT_EQ(client.Values(3), ValuesAfter(Stream().size()));
            }
            ConnectAgain(client);
        });
    }
    RunAll();
}

}  // namespace
