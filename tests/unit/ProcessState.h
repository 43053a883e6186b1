// What a process holds: descriptors and threads, time-outs of sockets; and folders to clear away.
#pragma once

#include <dirent.h>
#include <ftw.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
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

// Waits until fnCount gives nWanted; false after twenty seconds.
inline bool Becomes(int (*fnCount)(), int nWanted) {
    for (int i = 0; i < 20000; ++i) {
        if (fnCount() == nWanted) return true;
        usleep(1000);
    }
    return false;
}

// Waits until fnCount gives nMost or less. For counts that may start one too high: a thread that
// was joined is still listed for a moment.
inline bool FallsTo(int (*fnCount)(), int nMost) {
    for (int i = 0; i < 20000; ++i) {
        if (fnCount() <= nMost) return true;
        usleep(1000);
    }
    return false;
}

// Descriptors of this process on a file.
inline int OpenedTimes(const std::string& strPath) {
    int nCount = 0;
    for (int h = 0; h < 256; ++h) {
        char szTo[512];
        const ssize_t n = readlink(("/proc/self/fd/" + std::to_string(h)).c_str(), szTo, 512);
        if (n > 0 && std::string(szTo, static_cast<size_t>(n)) == strPath) ++nCount;
    }
    return nCount;
}

// Waits until this process has a file open nTimes; false after twenty seconds.
inline bool IsOpenedTimes(const std::string& strPath, int nTimes) {
    for (int i = 0; i < 20000; ++i) {
        if (OpenedTimes(strPath) == nTimes) return true;
        usleep(1000);
    }
    return false;
}

// The time-out of a socket, SO_RCVTIMEO or SO_SNDTIMEO, in microseconds; -1 on failure. The system
// is asked past the C library for two longs, which it gives however wide the seconds of a timeval
// are.
inline int64_t TimeOptionUs(int hSocket, int nOption) {
    constexpr int kReceive = 20;
    constexpr int kSend = 21;
    long tv[2] = {-1, -1};
    socklen_t nLen = sizeof tv;
    if (syscall(SYS_getsockopt, hSocket, SOL_SOCKET, nOption == SO_RCVTIMEO ? kReceive : kSend, tv,
                &nLen) != 0)
        return -1;
    return int64_t{tv[0]} * 1000000 + tv[1];
}

inline void RemoveTree(const std::string& strPath) {
    nftw(
        strPath.c_str(),
        [](const char* szPath, const struct stat*, int, struct FTW*) { return remove(szPath); }, 8,
        FTW_DEPTH | FTW_PHYS);
}
