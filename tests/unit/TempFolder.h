// A folder that lives as long as a test, and small things around files.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>
#include <fstream>
#include <string>

class CTempFolder {
  public:
    CTempFolder() {
        const char* szRoot = getenv("TMPDIR");
        std::string str = std::string(szRoot && *szRoot ? szRoot : "/tmp") + "/vzunit-XXXXXX";
        EXPECT_NE(mkdtemp(&str[0]), nullptr);
        m_strPath = str + "/";
    }
    ~CTempFolder() { nftw(m_strPath.c_str(), RemoveEntry, 8, FTW_DEPTH | FTW_PHYS); }
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    // The folder with its "/" at the end.
    const char* Path() const { return m_strPath.c_str(); }
    std::string Path(const std::string& strName) const { return m_strPath + strName; }

    void Put(const std::string& strName, const std::string& strBytes) const {
        std::ofstream(Path(strName), std::ios::binary) << strBytes;
    }
    // The whole file, its access time untouched; "(none)" when there is none.
    std::string Get(const std::string& strName) const {
        const int fd = open(Path(strName).c_str(), O_RDONLY | O_NOATIME | O_CLOEXEC);
        if (fd == -1) return "(none)";
        std::string strBytes;
        char buf[4096];
        for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
            strBytes.append(buf, static_cast<size_t>(n));
        close(fd);
        return strBytes;
    }
    bool Has(const std::string& strName) const {
        struct stat st;
        return lstat(Path(strName).c_str(), &st) == 0;
    }
    struct stat Stat(const std::string& strName) const {
        struct stat st {};
        EXPECT_EQ(stat(Path(strName).c_str(), &st), 0) << strName;
        return st;
    }
    void SetTime(const std::string& strName, time_t tt) const {
        const utimbuf times{tt, tt};
        EXPECT_EQ(utime(Path(strName).c_str(), &times), 0);
    }

  private:
    static int RemoveEntry(const char* szPath, const struct stat*, int, struct FTW*) {
        return remove(szPath);
    }
    std::string m_strPath;
};
