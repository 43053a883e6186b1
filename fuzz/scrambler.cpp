// The packet scrambler. Input: a packet as it came, 512 bytes of which a login receives at most.

#include <algorithm>
#include <cstring>

#include "Input.h"
#include "mtool3.h"

namespace {

constexpr size_t kRoom = 512;

// What a packet says, byte by byte: the first of each four is the key of the others.
size_t Model(const uint8_t* pWire, size_t nWire, uint8_t* pPlain) {
    size_t nPlain = 0;
    for (size_t i = 0; i < nWire; ++i) {
        const unsigned k = pWire[i - i % 4];
        if (i % 4 == 1) pPlain[nPlain++] = static_cast<uint8_t>(pWire[i] - k);
        if (i % 4 == 2) pPlain[nPlain++] = static_cast<uint8_t>(pWire[i] + k);
        if (i % 4 == 3) pPlain[nPlain++] = static_cast<uint8_t>(pWire[i] ^ k);
    }
    return nWire % 4 == 1 ? 0 : nPlain;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    const UINT nWire = static_cast<UINT>(std::min(nSize, kRoom));
    uint8_t wanted[kRoom];
    BYTE plain[kRoom + 1];
    const size_t nWanted = Model(pData, nWire, wanted);
    const int nPlain = DecryptPacket(nWire, pData, kRoom, plain);
    Require(nPlain >= 0 && static_cast<size_t>(nPlain) == nWanted, "plain length");
    Require(std::memcmp(plain, wanted, nWanted) == 0, "plain bytes");

    // Room for one byte less is refused, and that byte stays untouched.
    if (nWanted > 0) {
        std::memset(plain, 0xA5, sizeof plain);
        const UINT nRoom = static_cast<UINT>(nWanted - 1);
        Require(DecryptPacket(nWire, pData, nRoom, plain) == 0, "no room");
        Require(plain[nRoom] == 0xA5, "written beyond the room");
    }

    // What is scrambled again comes back.
    BYTE wire[4 * (kRoom / 3 + 1)];
    const int nAgain = EncryptPacket(static_cast<UINT>(nWanted), wanted, sizeof wire, wire);
    Require(nAgain >= 0 && static_cast<size_t>(nAgain) == nWanted + (nWanted + 2) / 3, "length");
    Require(DecryptPacket(static_cast<UINT>(nAgain), wire, kRoom, plain) == nPlain, "back");
    Require(std::memcmp(plain, wanted, nWanted) == 0, "comes back");
    return 0;
}
