// Notifications that are put together from pieces. Input: how they are cut (2 bytes), then the
// bytes. They are walked whole, held against a model of the frames, and once more in pieces, which
// must tell the same; behind a frame that cannot be used, pieces may tell more.

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "FrameModel.h"
#include "Input.h"
#include "vzclient/Session.h"

namespace {

constexpr size_t kMostBytes = 8192;
constexpr size_t kLongestFrame = 2048;

// Driver 0 with 40 tags and driver 3 with 6, all watched, of the types that the model knows.
struct SPlant {
    SPlant() {
        drivers.resize(4);
        for (const WORD nDriver : {WORD{0}, WORD{3}}) {
            const WORD nTags = static_cast<WORD>(TagsOf(nDriver));
            drivers[nDriver] = std::make_unique<SDriver>(nDriver, nTags);
            for (WORD i = 0; i < nTags; ++i) {
                drivers[nDriver]->types[i] = static_cast<VARTYPE>(TypeOf(nDriver, i));
                tags.push_back(std::make_unique<CWatchedTag>(nullptr, nullptr));
                tags.back()->routes.push_back({pFeed, nDriver * 100u + i});
                drivers[nDriver]->watched[i] = tags.back().get();
            }
        }
        routes.m_alarmRoutes.push_back({pFeed, 999});
    }
    // What was told, in a form that can be compared: token, type and payload of each event.
    std::vector<std::string> Told() {
        std::vector<SEvent> events;
        pFeed->Take(events, kMostBytes);
        std::vector<std::string> told;
        for (const SEvent& event : events) {
            std::string str = std::to_string(event.nToken) + ":";
            if (event.eKind == SEvent::EKind::kAlarm) {
                const S2RtAlarm2& alarm = event.pMore->alarm;
                str += std::to_string(alarm.almtm) + "," + std::to_string(alarm.tid) + "," +
                       std::to_string(alarm.status);
            } else {
                std::vector<BYTE> bytes(event.value.BufferSize(true));
                event.value.ToBuffer(bytes.data(), bytes.size(), true);
                str.append(bytes.begin(), bytes.end());
            }
            told.push_back(str);
        }
        return told;
    }

    std::shared_ptr<CFeed> pFeed = std::make_shared<CFeed>(kMostBytes, CFeed::EOverflow::kOldest);
    CRoutes routes;
    std::vector<std::unique_ptr<SDriver>> drivers;
    std::vector<std::unique_ptr<CWatchedTag>> tags;
    CFrames frames{drivers, routes};
};

unsigned At16(const uint8_t* p) { return p[0] + 256u * p[1]; }

// What one frame tells; empty for one that tells nothing.
std::string ModelTold(const uint8_t* p, size_t nBytes) {
    if (At16(p) == 0xFFFF) {
        if (p[2] != 1 && p[2] != 3) return "";
        return "999:" + std::to_string(At16(p + 3) + 65536u * At16(p + 5)) + "," +
               std::to_string(At16(p + 11)) + "," + std::to_string(p[18]);
    }
    const unsigned vt = TypeOf(At16(p), At16(p + 2));
    std::string str = std::to_string(At16(p) * 100 + At16(p + 2)) + ":";
    str += static_cast<char>(vt);
    str += static_cast<char>(vt >> 8);
    if (vt == 11) return str + static_cast<char>(p[4] ? 1 : 0);
    return str.append(p + 4, p + nBytes);
}

struct SWalked {
    std::vector<std::string> told;
    size_t nLeft = 0;  // bytes of the start of a frame
    uint64_t nLost = 0;
};

// Walks the bytes in pieces whose lengths follow from nCut; 0: in one.
SWalked Walk(const uint8_t* pData, size_t nSize, unsigned nCut) {
    SPlant plant;
    std::vector<BYTE> kept;
    unsigned nState = nCut;
    for (size_t nAt = 0; nAt < nSize;) {
        nState = nState * 1103515245 + 12345;
        const size_t nMost = nCut & 1 ? 7 : 300;
        const size_t nPiece = nCut ? std::min(nSize - nAt, (nState >> 16) % nMost + 1) : nSize;
        kept.insert(kept.end(), pData + nAt, pData + nAt + nPiece);
        kept.shrink_to_fit();  // what is read behind the end is seen
        const size_t nDone = plant.frames.Walk(kept.data(), kept.size(), 0);
        Require(nDone <= kept.size(), "bytes done with");
        kept.erase(kept.begin(), kept.begin() + static_cast<std::ptrdiff_t>(nDone));
        Require(kept.size() < kLongestFrame, "start of a frame");
        nAt += nPiece;
    }
    SWalked walked{plant.Told(), kept.size(), plant.frames.m_nUnusable};
    Require(plant.pFeed->Dropped() == 0, "nothing dropped");
    Require(walked.told.size() == plant.frames.m_nChanges + plant.frames.m_nAlarms, "counts");
    return walked;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    CInput input(pData, nSize);
    const unsigned nCut = input.Byte() + 256 * input.Byte();
    const uint8_t* p = input.Data();
    const size_t nBytes = std::min(input.Left(), kMostBytes);

    std::vector<std::string> told;
    size_t nPos = 0;
    while (nPos < nBytes) {
        const SFrame frame = ModelFrame(p + nPos, nBytes - nPos);
        if (frame.nBytes > nBytes - nPos || frame.nBytes > kLongestFrame) break;
        const std::string str = ModelTold(p + nPos, frame.nBytes);
        if (!str.empty()) told.push_back(str);
        nPos += frame.nBytes;
    }
    const SWalked whole = Walk(p, nBytes, 0);
    Require(whole.told == told, "events of the whole");
    Require(whole.nLost == 0 ? whole.nLeft == nBytes - nPos : whole.nLeft == 0, "bytes left");

    const SWalked pieces = Walk(p, nBytes, nCut + 1);
    Require((pieces.nLost == 0) == (whole.nLost == 0), "bytes lost");
    if (whole.nLost == 0) {
        Require(pieces.told == told && pieces.nLeft == whole.nLeft, "events of the pieces");
    } else {
        Require(pieces.told.size() >= told.size() &&
                    std::equal(told.begin(), told.end(), pieces.told.begin()),
                "events up to the lost bytes");
    }
    return 0;
}
