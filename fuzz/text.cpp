// The code page conversions. Input: bytes, taken for GB2312, for UTF-8 and for UTF-16.

#include <cstring>
#include <memory>
#include <vector>

#include "Input.h"
#include "XFile.h"
#include "nonwin/cstring.h"

namespace {

bool StartsWith(const std::string& str, const std::string& strPrefix) {
    return str.compare(0, strPrefix.size(), strPrefix) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    CInput input(pData, nSize);
    const CString str(input.Rest());

    // As GB2312: what comes out is UTF-8 of a start of it.
    CString strUtf8;
    str.ToUtf8(strUtf8);
    Require(IsUtf8(strUtf8), "UTF-8");
    CString strBack;
    strBack.FromUtf8(strUtf8, strUtf8.size());
    Require(StartsWith(str, strBack), "GB2312 and back");

    // As UTF-8: what comes out is GB2312 of a start of it.
    CString strGb;
    strGb.FromUtf8(str, str.size());
    strGb.ToUtf8(strBack);
    Require(StartsWith(str, strBack), "UTF-8 and back");

    // As UTF-16, both ways.
    std::vector<unsigned short> units(str.size() / 2 + 1);
    std::memcpy(units.data(), str.data(), str.size() / 2 * 2);
    CString strOfUnits;
    strOfUnits.FromUtf16(units.data(), str.size() / 2);
    size_t nUnits = 0;
    const std::unique_ptr<unsigned short[]> pUnits(ToUtf16(strOfUnits, nUnits, strOfUnits.size()));
    Require(pUnits != nullptr, "made by FromUtf16");
    const bool bZeros = strOfUnits.empty() || strOfUnits.find('\0') != CString::npos;
    if (!bZeros) {
        Require(nUnits <= str.size() / 2, "units");
        Require(std::memcmp(pUnits.get(), units.data(), 2 * nUnits) == 0, "UTF-16 and back");
    }
    size_t nOther = 0;
    delete[] str.ToUtf16(nOther);

    // The zero-terminated forms see what stands before the first zero byte.
    const CString strText(str.c_str());
    CString strWhole;
    strText.ToUtf8(strWhole);
    Require(CT2UTF8(str.c_str()).compare(strWhole) == 0, "CT2UTF8");
    CString strShort;
    strShort.FromUtf8(strText, strText.size());
    Require(CUTF82T(str.c_str()).compare(strShort) == 0, "CUTF82T");
    const CString strPath = FileSystemPath(strText);
    Require(strPath.empty() || strPath.compare(strWhole) == 0, "path");
    return 0;
}
