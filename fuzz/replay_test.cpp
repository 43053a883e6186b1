// Runs every target over its inputs in the ordinary tests: the seeds, and what was once found.

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

namespace {

using CTarget = int (*)(const uint8_t*, size_t);

struct SInput {
    std::string strTarget;
    CTarget pTarget;
    std::string strFile;

    std::string Path() const { return VZ_CORPUS "/" + strTarget + "/" + strFile; }
};

// All of a target's inputs. Without any the name of a file that is not there, so its test fails.
std::vector<SInput> InputsOf(const std::string& strTarget, CTarget pTarget) {
    std::vector<SInput> inputs;
    DIR* pFolder = opendir((VZ_CORPUS "/" + strTarget).c_str());
    while (const dirent* pEntry = pFolder ? readdir(pFolder) : nullptr)
        if (pEntry->d_name[0] != '.') inputs.push_back({strTarget, pTarget, pEntry->d_name});
    if (pFolder) closedir(pFolder);
    if (inputs.empty()) inputs.push_back({strTarget, pTarget, "missing"});
    std::sort(inputs.begin(), inputs.end(),
              [](const SInput& a, const SInput& b) { return a.strFile < b.strFile; });
    return inputs;
}

void PrintTo(const SInput& input, std::ostream* pStream) { *pStream << input.Path(); }

class Corpus : public ::testing::TestWithParam<SInput> {};

std::string NameOf(const ::testing::TestParamInfo<SInput>& info) {
    std::string str = info.param.strFile;
    for (char& c : str)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    return str;
}

TEST_P(Corpus, BreaksNoRule) {
    std::ifstream file(GetParam().Path(), std::ios::binary);
    ASSERT_TRUE(file.is_open()) << GetParam().Path();
    const std::vector<char> chars{std::istreambuf_iterator<char>(file), {}};
    const std::vector<uint8_t> bytes(chars.begin(), chars.end());
    EXPECT_EQ(GetParam().pTarget(bytes.data(), bytes.size()), 0);
}

}  // namespace

// Each target was compiled with its function named after it.
#define TARGET(name)                                                                          \
    extern "C" int Fuzz_##name(const uint8_t*, size_t);                                       \
    INSTANTIATE_TEST_SUITE_P(name, Corpus, ::testing::ValuesIn(InputsOf(#name, Fuzz_##name)), \
                             NameOf);
TARGET(client)
TARGET(drvinfo)
TARGET(format)
TARGET(frames)
TARGET(lists)
TARGET(login)
TARGET(notify)
TARGET(replies)
TARGET(scrambler)
TARGET(text)
TARGET(transfer)
TARGET(variant)
