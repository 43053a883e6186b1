// The packet scrambler of the login handshake. It has no key: it hides, it does not protect.
//
// Three plain bytes a b c become four: k, a + k, b - k, c XOR k, where k is random and all sums are
// modulo 256. One byte over becomes k, a + k; two bytes over k, a + k, b - k.
// Threads: thread-safe. Python: none.
#pragma once

#include "VzDefine.h"

// Scrambles nInLen bytes into szOutPacket, which has room for nOutBufLen. The buffers must not
// overlap. Returns the scrambled length; 0, with nothing written, when there is not room for
// 4 x (nInLen / 3 + 1) bytes, or when the length would not fit the result.
int EncryptPacket(UINT nInLen, const BYTE* szInPacket, UINT nOutBufLen, BYTE* szOutPacket);

// The reverse. Returns the plain length; 0 when it does not fit into nOutBufLen, or when one single
// byte is over at the end, which no scrambled packet has. The full groups before that end may be
// written all the same. The (huge) nInLen that a failed receive's negative result becomes gives 0.
int DecryptPacket(UINT nInLen, const BYTE* szInPacket, UINT nOutBufLen, BYTE* szOutPacket);

// The largest plain length that EncryptPacket takes with nOutBufLen bytes of room; -1 when no
// length fits (below 4).
int MaxEncryptLen(UINT nOutBufLen);

// A number from 1 to 2147483646 from this library's own generator, one per thread, which seeds
// itself. The random state of the process (rand, srand) belongs to the script and is not touched.
// Fit for scrambling and identifiers, not for secrets.
DWORD ScramblerRandom();
