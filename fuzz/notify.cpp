// Chunks of the notification channel. Input: 1 when the script has subscribed to alarms and
// changes, 3 when its calls are really made; then one chunk. The chunk goes through OnDBNotify
// frame by frame, held against a model of the frames, and once more through the receive thread's
// loop, which must come to the same values and calls.

#include "FrameModel.h"
#include "Input.h"
#include "LiveSession.h"
#include "Peer.h"

namespace {

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
