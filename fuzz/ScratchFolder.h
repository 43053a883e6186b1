// A folder of the process's own for the files that targets have the library read and write.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

inline void RemoveTree(const std::string& strPath) {
    nftw(
        strPath.c_str(),
        [](const char* sz, const struct stat*, int, struct FTW*) { return remove(sz); }, 8,
        FTW_DEPTH | FTW_PHYS);
}

class CScratchFolder {
  public:
    CScratchFolder() {
        m_strPath = "/tmp/vzfuzz-XXXXXX";
        if (!mkdtemp(&m_strPath[0])) abort();
        m_strPath += "/";
    }
    ~CScratchFolder() { RemoveTree(m_strPath); }
    CScratchFolder(const CScratchFolder&) = delete;
    CScratchFolder& operator=(const CScratchFolder&) = delete;

    const std::string& Path() const { return m_strPath; }
    std::string Path(const char* szName) const { return m_strPath + szName; }

    void Put(const char* szName, const void* pBytes, size_t nSize) const {
        unlink(Path(szName).c_str());
        const int fd = open(Path(szName).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0 || write(fd, pBytes, nSize) != static_cast<ssize_t>(nSize)) abort();
        close(fd);
    }
    // The whole file; empty when there is none.
    std::string Get(const char* szName) const {
        std::string str;
        const int fd = open(Path(szName).c_str(), O_RDONLY | O_CLOEXEC);
        char buf[4096];
        for (ssize_t n; fd >= 0 && (n = read(fd, buf, sizeof buf)) > 0;)
            str.append(buf, static_cast<size_t>(n));
        if (fd >= 0) close(fd);
        return str;
    }
    // -1: there is no such file.
    long Size(const char* szName) const {
        struct stat st;
        return stat(Path(szName).c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
    }

  private:
    std::string m_strPath;
};
