// The file transfer: header and body. Input: how the reply arrives (see SScript), what is in the
// cache (1: the file, 2: its compressed form, 4: half of the file, 8: the server's facts are those
// of the cached file, 16: through a relay), how often the reply's last part comes again, then the
// reply.

#include <sys/stat.h>

#include "DownFile.h"
#include "Input.h"
#include "Peer.h"
#include "ScratchFolder.h"

namespace {

constexpr char kHeld[] = "held before";
constexpr size_t kReceive = 2048;  // bytes of one receive

struct SProgress : IGetFileCB {
    unsigned nCalls = 0;
    bool bFinished = false;

    void OnProgress(int nBytes, bool bFinish) override {
        Require(!bFinished && nBytes >= 0, "progress");
        ++nCalls;
        bFinished = bFinish;
    }
};

void CheckHeader(const uint8_t* pData, size_t nSize) {
    char szName[64];
    char szValue[256];
    int nPos = 0;
    const int nLen = static_cast<int>(nSize);
    const char* sz = static_cast<const char*>(static_cast<const void*>(pData));
    for (int nBefore = 0; ReadHttpCont(sz, nPos, nLen, szName, 63, szValue, 255); nBefore = nPos)
        Require(nPos > nBefore && nPos <= nLen, "header line");
    Require(nPos >= 0 && nPos <= nLen, "header position");
    SCFileInfo fi;
    Require(GetFileInfoByBuf(sz, nLen, fi) == nPos, "header end");
}

// The last part of a reply, again and again: long bodies from short inputs.
std::string Repeated(std::string str, unsigned nTimes, size_t nLongest) {
    const size_t nCut = str.rfind(kCut);
    if (nCut == std::string::npos) return str;
    const std::string strLast = str.substr(nCut);
    while (nTimes-- && str.size() < nLongest) str += strLast;
    return str;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    static const CScratchFolder folder;
    CInput input(pData, nSize);
    const unsigned nHow = input.Byte();
    const unsigned nCache = input.Byte();
    const unsigned nTimes = input.Byte();
    CheckHeader(input.Data(), input.Left());

    unlink(folder.Path("f").c_str());
    unlink(folder.Path("f.gz").c_str());
    if (nCache & 1) folder.Put("f", kHeld, sizeof kHeld);
    if (nCache & 2) folder.Put("f.gz", kHeld, sizeof kHeld);
    if (nCache & 4) chmod(folder.Path("f").c_str(), 01600);
    // Longer than a span between acknowledgements, but not in tiny segments.
    const size_t nLongest = nHow & 0x7F ? 2000 : 150000;
    const SScript reply(Repeated(input.Rest(), nTimes, nLongest), nHow);
    CPeer peer({reply});
    CSyncSocket sock;
    if (!sock.Create(0, SOCK_STREAM, nullptr, FALSE) || !peer.Attach(sock)) return 0;

    SProgress progress;
    struct stat st = {};
    stat(folder.Path("f").c_str(), &st);
    const bool bKnown = (nCache & 8) != 0;
    const EGetFile eHow = TransferFile(
        "f", sock, '4', folder.Path().c_str(), bKnown ? static_cast<unsigned long>(st.st_mtime) : 0,
        bKnown ? static_cast<unsigned long>(st.st_size) : 0, &progress,
        nCache & 16 ? "p2p" : nullptr, (nCache & 32) != 0);
    Require(progress.bFinished == (eHow == EGetFile::kWritten), "told of the end");
    Require(eHow != EGetFile::kNotWritten, "the folder can be written");
    if (eHow == EGetFile::kRemoved) Require(folder.Size("f") < 0, "removed");
    if (eHow == EGetFile::kCurrent) Require((nCache & 13) == 9, "current");
    if (eHow != EGetFile::kWritten && eHow != EGetFile::kFailed)
        Require(progress.nCalls == 0, "no progress without a body");

    // What was written shows in the file, when all of the header came with the first receive.
    const std::string strFirst =
        reply.strBytes.substr(0, std::min(reply.strBytes.find(kCut), kReceive));
    if (eHow != EGetFile::kWritten || nHow & 0x7F || strFirst.find("\r\n\r\n") == std::string::npos)
        return 0;
    SCFileInfo fi;
    GetFileInfoByBuf(strFirst.data(), static_cast<int>(strFirst.size()), fi);
    const char* szFile = fi.bGZ ? "f.gz" : "f";
    Require(stat(folder.Path(szFile).c_str(), &st) == 0 && !(st.st_mode & S_ISVTX), "mark");
    const std::string strFile = folder.Get(szFile);
    const size_t nKept = fi.bAppend && (nCache & (fi.bGZ ? 2 : 1)) ? sizeof kHeld : 0;
    // More than announced is dropped behind the header, and kept from the last receive.
    const size_t nSurplus = strFirst.size() == reply.strBytes.size() ? 0 : kReceive;
    const size_t nAnnounced = nKept + fi.dwSize;
    Require(strFile.size() >= nAnnounced && strFile.size() <= nAnnounced + nSurplus,
            "size announced");
    Require(strFile.compare(0, nKept, kHeld, nKept) == 0, "kept");
    return 0;
}
