// The driver information file. Input: the file.

#include "DrvInfo.h"

#include <sys/stat.h>

#include "Input.h"
#include "ScratchFolder.h"

namespace {

using CDrvMap = std::map<CString, SNDrvInfo>;

bool Same(const CDrvMap& a, const CDrvMap& b) {
    if (a.size() != b.size()) return false;
    for (auto i = a.begin(), k = b.begin(); i != a.end(); ++i, ++k) {
        if (i->first.compare(k->first) != 0) return false;
        if (i->second.id != k->second.id || i->second.tagNum != k->second.tagNum) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    static const CScratchFolder folder;
    static const bool bMade = mkdir(folder.Path("RecData").c_str(), 0700) == 0;
    CDrvMap drivers;
    ParseDrvInfo(pData, nSize, drivers);
    Require(bMade && drivers.size() <= nSize / 5, "more records than bytes");

    // Written out again it is read as the same.
    std::string strFile;
    for (const auto& entry : drivers) {
        strFile += entry.first + '\0';
        for (const unsigned n : {unsigned{entry.second.id}, unsigned{entry.second.tagNum}}) {
            strFile += static_cast<char>(n & 0xFF);
            strFile += static_cast<char>(n >> 8);
        }
    }
    CDrvMap again;
    ParseDrvInfo(static_cast<const BYTE*>(static_cast<const void*>(strFile.data())), strFile.size(),
                 again);
    Require(Same(again, drivers), "written out again");

    folder.Put(kDrvInfoFile, pData, nSize);
    CDrvMap loaded;
    Require(LoadPrjDrvInfo(CString(folder.Path()), loaded), "a whole file");
    Require(Same(loaded, drivers), "loaded from the file");
    chmod(folder.Path(kDrvInfoFile).c_str(), 01600);
    CDrvMap half;
    Require(!LoadPrjDrvInfo(CString(folder.Path()), half) && half.empty(), "half a file");
    return 0;
}
