#include "mtool3.h"

#include <unistd.h>

#include <climits>
#include <ctime>
#include <random>
#include <type_traits>

namespace {

BYTE NextKey() { return static_cast<BYTE>(ScramblerRandom()); }

BYTE Low8(int n) { return static_cast<BYTE>(n); }

// A seed that differs between threads, processes and starts within one second.
std::minstd_rand MakeGenerator(const void* pThreadMark) {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const auto nMark = reinterpret_cast<uintptr_t>(pThreadMark);
    std::seed_seq seeds{
        static_cast<DWORD>(time(nullptr)), static_cast<DWORD>(ts.tv_nsec),
        static_cast<DWORD>(ts.tv_sec),     static_cast<DWORD>(getpid()),
        static_cast<DWORD>(nMark),         static_cast<DWORD>(uint64_t{nMark} >> 32)};
    return std::minstd_rand(seeds);
}

}  // namespace

DWORD ScramblerRandom() {
    // Nothing may have to be destroyed when a thread ends: the library may be unloaded by then.
    static_assert(std::is_trivially_destructible<std::minstd_rand>::value, "no thread exit hook");
    thread_local char cThreadMark;
    thread_local std::minstd_rand generator = MakeGenerator(&cThreadMark);
    return static_cast<DWORD>(generator());
}

int EncryptPacket(UINT nInLen, const BYTE* szInPacket, UINT nOutBufLen, BYTE* szOutPacket) {
    const UINT q = nInLen / 3;
    const UINT r = nInLen % 3;
    // Room for one more group is asked for even when r is 0. 64 bits: 4 x (q + 1) may pass 2^32.
    const uint64_t nRoom = 4 * (uint64_t{q} + 1);
    if (nRoom > nOutBufLen || nRoom > INT_MAX) return 0;

    const BYTE* in = szInPacket;
    BYTE* out = szOutPacket;
    for (UINT i = 0; i < q; ++i, in += 3, out += 4) {
        const BYTE k = NextKey();
        out[0] = k;
        out[1] = Low8(in[0] + k);
        out[2] = Low8(in[1] - k);
        out[3] = Low8(in[2] ^ k);
    }
    if (r == 0) return static_cast<int>(4 * q);
    const BYTE k = NextKey();
    out[0] = k;
    out[1] = Low8(in[0] + k);
    if (r == 2) out[2] = Low8(in[1] - k);
    return static_cast<int>(4 * q + r + 1);
}

int DecryptPacket(UINT nInLen, const BYTE* szInPacket, UINT nOutBufLen, BYTE* szOutPacket) {
    const UINT q = nInLen / 4;
    const UINT r = nInLen % 4;
    if (3 * q > nOutBufLen || 3 * q > INT_MAX - 2) return 0;  // 3 x q fits 32 bits

    const BYTE* in = szInPacket;
    BYTE* out = szOutPacket;
    for (UINT i = 0; i < q; ++i, in += 4, out += 3) {
        const BYTE k = in[0];
        out[0] = Low8(in[1] - k);
        out[1] = Low8(in[2] + k);
        out[2] = Low8(in[3] ^ k);
    }
    if (r == 0) return static_cast<int>(3 * q);
    if (r == 1) return 0;  // a key without a byte
    const UINT n = 3 * q + r - 1;
    if (nOutBufLen < n) return 0;
    const BYTE k = in[0];
    out[0] = Low8(in[1] - k);
    if (r == 3) out[1] = Low8(in[2] + k);
    return static_cast<int>(n);
}

int MaxEncryptLen(UINT nOutBufLen) { return static_cast<int>(nOutBufLen / 4 * 3 - 1); }
