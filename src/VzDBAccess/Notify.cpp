// The receive thread of a session: chunks, frames, and both ways it ends.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "ByteCursor.h"
#include "NotifyFrames.h"
#include "VzDBAccess/DBCore.h"
#include "VzDBAccess/DBDriver.h"

namespace {

constexpr useconds_t kExitPauseUs = 60000;  // before a receive thread signals its end
constexpr size_t kFrameHeader = 4;          // driver id, tag id

}  // namespace

void CDBCore::DoRecv(const std::shared_ptr<CDBSession>& pSession, CNotifyCall& call) {
    BYTE chunk[kMaxChunkBytes];
    while (!pSession->Ended()) {
        const ssize_t nReceived = ::recv(pSession->ReceiveSocket(), chunk, sizeof chunk, 0);
        if (nReceived > 0) {
            WalkChunk(*pSession, chunk, static_cast<size_t>(nReceived), call);
            continue;
        }
        // No bytes yet: never a lost connection.
        if (nReceived < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (!pSession->End()) break;  // an ending came first and shut the connection
        std::lock_guard<std::mutex> op(m_opLock);
        TearDown(pSession);
        return;
    }
    usleep(kExitPauseUs);
    SignalExit(pSession.get());
}

// The interpreter lock is taken at the first frame that needs a call and kept to the chunk's end.
// The interpreter may end this thread while it waits for the lock or runs a call, by unwinding its
// stack: so this function owns nothing, and the lock is given back by hand.
void CDBCore::WalkChunk(CDBSession& session, const BYTE* pChunk, size_t nChunk, CNotifyCall& call) {
    bool bLocked = false;
    PyGILState_STATE gil = PyGILState_UNLOCKED;
    for (size_t nPos = 0; nPos < nChunk && !session.Ended();) {
        nPos += static_cast<size_t>(OnDBNotify(session, pChunk + nPos, nChunk - nPos, call));
        if (!call.Wanted()) continue;
        if (!bLocked) {
            if (!session.Park()) break;
            gil = PyGILState_Ensure();
            bLocked = true;
            call.KeepThreadState();
            if (session.Ended()) break;
        }
        call.MakeCall(session);
    }
    if (bLocked) {
        PyGILState_Release(gil);
        session.Unpark();
    }
}

// Driver frame: driver id (2), tag id (2), the value without its type code.
// System frame: 0xFFFF (2), type (1), and what the type says.
int CDBCore::OnDBNotify(const CDBSession& session, const BYTE* pBuf, size_t nLen,
                        CNotifyCall& call) try {
    call.Clear();
    CByteReader reader(pBuf, nLen);
    const WORD nId = reader.ReadU16();
    if (reader.Failed()) return kUnusableFrame;
    std::lock_guard<std::mutex> data(m_dataLock);
    // Asked under the lock: the table of a later session is never this thread's.
    if (session.Ended()) return kUnusableFrame;
    if (nId == kSystemFrame) return OnSystemFrame(pBuf, nLen, call);
    const WORD nTag = reader.ReadU16();
    if (reader.Failed() || nId >= m_pDrivers.size() || !m_pDrivers[nId]) return kUnusableFrame;
    return static_cast<int>(kFrameHeader) +
           m_pDrivers[nId]->OnDBNotify(nTag, reader.Data(), reader.Left(), call);
} catch (const std::bad_alloc&) {
    call.Clear();
    return kUnusableFrame;
}

// A frame that names a tag is usable when that tag exists. Everything but alarms is stepped over.
int CDBCore::OnSystemFrame(const BYTE* pBuf, size_t nLen, CNotifyCall& call) {
    const SSystemFrame frame = LookAtSystemFrame(pBuf, nLen);
    if (frame.eLength != SSystemFrame::ELength::kKnown) return kUnusableFrame;
    if (frame.bNamesTag && (frame.nDriver >= m_pDrivers.size() || !m_pDrivers[frame.nDriver] ||
                            frame.nTag >= m_pDrivers[frame.nDriver]->TagCount())) {
        return kUnusableFrame;
    }
    PyObject* fn = m_rtAlarmNotifyFn;
    if (fn && frame.IsAlarm()) {
        CByteReader reader(pBuf, nLen);
        reader.Take(3);
        S2RtAlarm2 alarm;
        if (DecodeAlarm(reader, alarm)) call.SetAlarm(fn, alarm, m_textList, m_tagList);
    }
    return static_cast<int>(frame.nBytes);
}
