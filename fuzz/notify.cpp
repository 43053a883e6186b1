// Chunks of the notification channel. Input: 1 when the script has subscribed to alarms and
// changes, 3 when its calls are really made; then one chunk. The chunk goes through OnDBNotify
// frame by frame, held against a model of the frames, and once more through the receive thread's
// loop, which must come to the same values and calls.

#include <algorithm>
#include <vector>

#include "Input.h"
#include "LiveSession.h"
#include "Peer.h"

namespace {

constexpr unsigned kUnusable = 0xFFFF;

// The type of each tag of driver 0; behind them are tags without a value. Driver 3 has them again
// from the 8th on, driver 1 exists but nobody asked for it, driver 2 does not exist.
constexpr VARTYPE kTypes[] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,   12,     13,
                              14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 8204, 0x4003, 0xFFFF};
constexpr size_t kFirstOfBoiler = 8;

unsigned TypeOf(unsigned nDriver, unsigned nTag) {
    const size_t nAt = nTag + (nDriver == 3 ? kFirstOfBoiler : 0);
    return nAt < sizeof kTypes / sizeof *kTypes ? kTypes[nAt] : 0;
}
unsigned TagsOf(unsigned nDriver) { return nDriver == 0 ? 40 : nDriver == 3 ? 6 : 0; }

// Bytes of a payload, 0 for a type without any.
unsigned Width(unsigned vt) {
    switch (vt) {
        case 11:
        case 16:
        case 17:
            return 1;
        case 2:
        case 18:
            return 2;
        case 3:
        case 4:
        case 19:
        case 22:
        case 23:
            return 4;
        case 5:
        case 7:
        case 20:
            return 8;
        default:
            return 0;
    }
}
bool HasObject(unsigned vt) { return vt == 8 || (Width(vt) != 0 && vt != 7 && vt != 20); }

struct SFrame {
    unsigned nBytes;
    bool bCall;    // when there is a callback
    bool bObject;  // the call has its arguments
};

// A text at the front of n bytes with its zero byte; kUnusable when there is none.
unsigned TextBytes(const uint8_t* p, size_t n) {
    const uint8_t* pEnd = std::find(p, p + n, 0);
    return pEnd == p + n ? kUnusable : static_cast<unsigned>(pEnd - p) + 1;
}

SFrame ModelSystemFrame(const uint8_t* p, size_t n) {
    static constexpr unsigned kFixed[] = {kUnusable, 35, 7, 35, 43, 7, 20, 7, 5};
    if (n < 3) return {kUnusable, false, false};
    const unsigned nType = p[2];
    if (nType == 255) return {3, false, false};
    if (nType <= 8) return {kFixed[nType], (nType == 1 || nType == 3) && n >= 35, true};
    if (nType > 22 || n < 7) return {kUnusable, false, false};
    if (p[5] + 256u * p[6] >= TagsOf(p[3] + 256u * p[4])) return {kUnusable, false, false};
    if (nType >= 10 && nType <= 13) return {15, false, false};
    if (nType < 16 || nType == 22) return {8, false, false};
    const unsigned nText = TextBytes(p + 7, n - 7);
    return {nText == kUnusable ? kUnusable : 7 + nText, false, false};
}

SFrame ModelFrame(const uint8_t* p, size_t n) {
    if (n < 2) return {kUnusable, false, false};
    const unsigned nDriver = p[0] + 256u * p[1];
    if (nDriver == 0xFFFF) return ModelSystemFrame(p, n);
    if (n < 4) return {kUnusable, false, false};
    const unsigned nTag = p[2] + 256u * p[3];
    if (nTag >= TagsOf(nDriver)) return {kUnusable, false, false};
    const unsigned vt = TypeOf(nDriver, nTag);
    const unsigned nPayload = vt == 8 ? TextBytes(p + 4, n - 4) : Width(vt);
    if (nPayload == 0 || nPayload > n - 4) return {kUnusable, false, false};
    return {4 + nPayload, true, HasObject(vt)};
}

// Gives every tag a name and the type it has here, as a subscription does.
void Subscribe(CDBDriver& driver, bool bCalls) {
    for (CDBDriver::STag& tag : driver.m_tags) {
        tag.value.Clear();
        tag.value.vt = static_cast<VARTYPE>(TypeOf(driver.m_drvId, tag.id));
        tag.bSubscribe = true;
        if (tag.strTag.empty()) tag.strTag = tag.id % 2 ? "Level" : "\xCB\xAE\xCE\xBB";
    }
    driver.m_tagNotifyFn = bCalls ? CountingFunction() : nullptr;
}

std::string Values(const CDBDriver& driver) {
    std::string str;
    BYTE buf[8192];
    for (const CDBDriver::STag& tag : driver.m_tags)
        str.append(buf, buf + tag.value.ToBuffer(buf, sizeof buf, true));
    return str;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    CLiveSession& live = CLiveSession::Get();
    CInput input(pData, std::min(nSize, kMaxChunkBytes + 1));
    const unsigned nHow = input.Byte();
    const bool bCalls = nHow & 1;
    live.core->m_textList.assign(2, CString("high"));
    live.core->m_rtAlarmNotifyFn = bCalls ? CountingFunction() : nullptr;
    const auto pSession = std::make_shared<CDBSession>();
    static CNotifyCall& call = *new CNotifyCall;

    Subscribe(*live.types, bCalls);
    Subscribe(*live.boiler, bCalls);
    TakeCalls();
    unsigned nCalls = 0;
    unsigned nObjects = 0;
    for (size_t nPos = 0; nPos < input.Left();) {
        const uint8_t* p = input.Data() + nPos;
        const SFrame wanted = ModelFrame(p, input.Left() - nPos);
        const int nBytes = live.core->OnDBNotify(*pSession, p, input.Left() - nPos, call);
        const unsigned nTaken = std::min(static_cast<unsigned>(nBytes), kUnusable);
        Require(nTaken == wanted.nBytes, "frame length");
        Require(call.Wanted() == (bCalls && wanted.bCall), "call");
        if (call.Wanted()) {
            ++nCalls;
            if (wanted.bObject) ++nObjects;
            if (nHow & 2) call.MakeCall(*pSession);
        }
        nPos += wanted.nBytes;
    }
    Require(TakeCalls() == (nHow & 2 ? nObjects : 0), "calls made");
    const std::string strValues = Values(*live.types) + Values(*live.boiler);

    // The same by the loop of the receive thread, which takes one chunk with one receive.
    if (input.Left() == 0 || !(nHow & 2)) return 0;
    Subscribe(*live.types, bCalls);
    Subscribe(*live.boiler, bCalls);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 0;
    const bool bSent = pSession->Duplicate(ends[0]) && write(ends[1], input.Data(), input.Left()) ==
                                                           static_cast<ssize_t>(input.Left());
    close(ends[0]);
    close(ends[1]);
    Require(bSent, "socket pair");
    live.core->DoRecv(pSession, call);
    Require(TakeCalls() == nObjects, "calls of the loop");
    Require(Values(*live.types) + Values(*live.boiler) == strValues, "values of the loop");
    Require(nCalls >= nObjects && !PyErr_Occurred(), "no error left");
    return 0;
}
