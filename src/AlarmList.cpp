#include "AlarmList.h"

#include <fcntl.h>

#include <string>

#include "CacheFile.h"
#include "VzDefine.h"

namespace {

constexpr size_t kReadBytes = 4096;

// The longest start of a GB2312 text that has at most nMax bytes and ends with a whole character.
size_t WholeCharacters(const std::string& str, size_t nMax) {
    if (str.size() <= nMax) return str.size();
    size_t nEnd = 0;
    while (nEnd < nMax) {
        const size_t nNext = nEnd + (static_cast<BYTE>(str[nEnd]) > 0x7F ? 2 : 1);
        if (nNext > nMax) break;
        nEnd = nNext;
    }
    return nEnd;
}

// Appends a line, which may be one byte longer than a line can be: its CR.
void AppendLine(std::string& strLine, std::vector<CString>& strList) {
    if (!strLine.empty() && strLine.back() == '\r') strLine.pop_back();
    strLine.resize(WholeCharacters(strLine, kMaxListLine));
    if (!strLine.empty()) strList.push_back(CT2UTF8(strLine));
    strLine.clear();
}

}  // namespace

void InitStringList(const char* szStrListPath, std::vector<CString>& strList) {
    if (!strList.empty()) return;
    std::vector<CString> lines;  // all or none: a list that is not empty is never filled again
    XFile file;
    if (!CCacheFile(szStrListPath).Open(file, O_RDONLY)) return;
    std::string strLine;
    char buf[kReadBytes];
    for (int nRead; (nRead = file.Read(buf, sizeof buf)) > 0;) {
        for (int i = 0; i < nRead; ++i) {
            if (lines.size() == kMaxListLines) return strList.swap(lines);
            if (buf[i] == '\n') {
                AppendLine(strLine, lines);
            } else if (strLine.size() <= kMaxListLine) {
                strLine += buf[i];
            }
        }
    }
    AppendLine(strLine, lines);
    strList.swap(lines);
}
