// The list files of alarm texts and tags. Input: 0xF0 or more for a file that holds the rest eight
// times, else once; then the rest.

#include "AlarmList.h"
#include "Input.h"
#include "ScratchFolder.h"

namespace {

// Lines that are there: all but those of no byte, or of a CR alone.
size_t ModelCount(const std::string& strFile) {
    size_t nLines = 0;
    for (size_t nAt = 0; nAt < strFile.size();) {
        const size_t nEnd = std::min(strFile.find('\n', nAt), strFile.size());
        const bool bEmpty = nEnd == nAt || (nEnd == nAt + 1 && strFile[nAt] == '\r');
        if (!bEmpty) ++nLines;
        nAt = nEnd + 1;
    }
    return nLines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    static const CScratchFolder folder;
    CInput input(pData, nSize);
    const unsigned nTimes = input.Byte() < 0xF0 ? 1 : 8;
    const std::string strOnce = input.Rest();
    std::string strFile;
    for (unsigned i = 0; i < nTimes; ++i) strFile += strOnce;
    folder.Put("list", strFile.data(), strFile.size());

    std::vector<CString> list;
    InitStringList(folder.Path("list").c_str(), list);
    Require(list.size() == std::min(ModelCount(strFile), kMaxListLines), "number of lines");
    for (const CString& str : list) {
        Require(str.size() <= kMaxListLine * 3 / 2, "length of a line");
        Require(IsUtf8(str), "a line is UTF-8");
    }
    const size_t nLines = list.size();
    if (nLines) InitStringList("/dev/null", list);
    Require(list.size() == nLines, "a list that is there stays");
    return 0;
}
