// What a process holds: descriptors and threads; and folders to clear away.
#pragma once

#include <dirent.h>
#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <string>

inline int CountEntries(const char* szFolder) {
    DIR* pFolder = opendir(szFolder);
    int nEntries = 0;
    while (pFolder && readdir(pFolder)) ++nEntries;
    if (pFolder) closedir(pFolder);
    return nEntries;
}

inline int CountDescriptors() { return CountEntries("/proc/self/fd"); }
inline int CountThreads() { return CountEntries("/proc/self/task"); }

// Waits until fnCount gives nWanted; false after two seconds.
inline bool Becomes(int (*fnCount)(), int nWanted) {
    for (int i = 0; i < 2000; ++i) {
        if (fnCount() == nWanted) return true;
        usleep(1000);
    }
    return false;
}

inline void RemoveTree(const std::string& strPath) {
    nftw(
        strPath.c_str(),
        [](const char* szPath, const struct stat*, int, struct FTW*) { return remove(szPath); }, 8,
        FTW_DEPTH | FTW_PHYS);
}
