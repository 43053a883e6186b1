// The driver information file of a project.
#pragma once

#include <fcntl.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "ByteCursor.h"
#include "CacheFile.h"
#include "nonwin/cstring.h"
#include "vzcommondef.h"

constexpr char kDrvInfoFile[] = "RecData/drvinfo.dat";
constexpr UINT kMinDrvInfoBytes = 5;
// No project's driver file comes near this; a larger one is not read into memory.
constexpr UINT kMaxDrvInfoBytes = 64u << 20;

// Adds the records of a driver information file to the map. Record: name (GB2312) and its zero
// byte, id (2), tag count (2), without alignment. A later record replaces an earlier one of the
// same name. A fragment at the end, also a name without its zero byte, is no record. T: SNDrvInfo
// or a record derived from it.
template <typename T>
void ParseDrvInfo(const BYTE* pData, size_t nSize, std::map<CString, T>& mapDrvInfos) {
    CByteReader reader(pData, nSize);
    for (;;) {
        size_t nName = 0;
        const char* szName = reader.TakeText(nName);
        T info;
        info.id = reader.ReadU16();
        info.tagNum = reader.ReadU16();
        if (reader.Failed()) return;
        mapDrvInfos[CString(std::string(szName, nName))] = info;
    }
}

// Adds the drivers of RecData/drvinfo.dat to the map. strPrjPath: project folder, GB2312, with its
// "/". A file that is missing or below kMinDrvInfoBytes changes nothing. False, with nothing
// loaded, for one whose transfer broke off, that another process does not let go, or that cannot be
// read whole. pGuard: decides how long another process is waited for; null: kFileLockMs.
template <typename T>
bool LoadPrjDrvInfo(const CString& strPrjPath, std::map<CString, T>& mapDrvInfos,
                    CSocketGuard* pGuard = nullptr) {
    CString strFilePath = strPrjPath;
    strFilePath += kDrvInfoFile;
    XFile file;
    if (!CCacheFile(strFilePath).Open(file, O_RDONLY)) return true;
    if (!file.Lock(false, kFileLockMs, pGuard) || file.IsUnfinished()) return false;
    const UINT dwSize = file.GetFileSize();
    if (dwSize < kMinDrvInfoBytes || dwSize > kMaxDrvInfoBytes) return true;
    std::vector<BYTE> data(dwSize);
    if (file.Read(data.data(), dwSize) != static_cast<int>(dwSize)) return false;
    ParseDrvInfo(data.data(), dwSize, mapDrvInfos);
    return true;
}
