// A whole connect, and its end. Input: the host text's form, with 0x80 when the receive thread can
// be started (which costs far more than all the rest), how the request channel's bytes arrive (see
// SScript), how the notification channel's do and whether they are given as they are (0x40) or
// still have to be scrambled, the notification channel's bytes as a text, then those of the request
// channel. After a redirect the request channel's bytes come again.

#include "Input.h"
#include "LiveSession.h"
#include "Peer.h"
#include "ScratchFolder.h"
#include "WireBytes.h"

namespace {

// The login record without its zero bytes, so that it can be part of a text: in it "\xFF" is one.
std::string WithZeros(std::string str) {
    for (char& c : str)
        if (c == '\xFF') c = 0;
    return str;
}

// The host text in three forms; the second and third speak to a center server.
std::string Host(unsigned nForm) {
    if (nForm == 1) return "p2p(192.0.2.1):" + FuzzHost();
    if (nForm == 2) return FuzzHost() + ":3968";
    return FuzzHost();
}

// The folders of the project that most inputs name are kept: making them anew costs too much.
void EmptyCache(CString& strPrjPath) {
    struct SAtExit {
        ~SAtExit() {
            for (unsigned nForm = 0; nForm < 3; ++nForm) RemoveTree(FuzzCacheFolder(Host(nForm)));
        }
    };
    static const SAtExit atExit;
    if (strPrjPath.IsEmpty()) return;
    const CString strEnd("/Fuzz/");
    if (strPrjPath.Right(6) == strEnd) {
        unlink((strPrjPath + "RecData/drvinfo.dat").c_str());
        unlink((strPrjPath + "RecData/drvinfo.dat.gz").c_str());
    } else {
        RemoveTree(strPrjPath.substr(0, strPrjPath.find('/', sizeof "/tmp/vzbrowser/" - 1)));
    }
    strPrjPath.Empty();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    StartInterpreter();
    static CDBCore* const core = new CDBCore;
    CInput input(pData, nSize);
    const unsigned nFirst = input.Byte();
    const unsigned nForm = nFirst % 3;
    const unsigned nRequestHow = input.Byte();
    const unsigned nNotifyHow = input.Byte();
    std::string strNotify = WithZeros(input.Text());
    if (!(nNotifyHow & 0x40)) strNotify = Scramble(strNotify);
    const SScript request(input.Rest(), nRequestHow);
    const SScript notify(strNotify, nNotifyHow & 0xBF);

    const std::string strHost = Host(nForm);
    const bool bRedirect = request.strBytes.compare(0, 4, "7lan") == 0;
    CPeer peer(bRedirect && nForm ? std::vector<SScript>{request, request, notify}
                                  : std::vector<SScript>{request, notify});
    peer.m_bThreads = (nFirst & 0x80) != 0;
    const int nResult = core->_Connect(strHost.c_str(), "user", "password");
    Require(nResult <= 0 && nResult >= -3, "result");
    Require(nResult != 0 || peer.m_bThreads, "connected without a thread");
    Require((nResult == 0) == core->m_bConnect, "connected");
    Require((nResult == 0) == core->m_reqSock.IsSocket(), "request channel");
    Require((nResult == 0) == core->m_rcvSock.IsSocket(), "notification channel");
    for (const auto& entry : core->m_mapDrvInfos) {
        Require(entry.second.id < core->m_pDrivers.size(), "driver table");
        core->_GetDriver(entry.first);
        break;
    }
    core->_Disconnect();
    Require(!core->m_bConnect && core->m_mapDrvInfos.empty(), "ended");
    EmptyCache(core->m_strPrjPath);
    return 0;
}
