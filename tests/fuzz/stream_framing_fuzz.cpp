// libFuzzer target: the stream framing on any bytes, whole and cut into the
// pieces a socket may deliver; packets must tile the stream exactly, each as
// long as its head says.
#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "network/stream_framing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    std::vector<unsigned char> input(pData, pData + nSize);  // exact size: any read beyond is caught
    size_t nPos = 0;
    while (nPos < input.size()) {
        unsigned int nLeft = static_cast<unsigned int>(input.size() - nPos);
        int n = brel_lib::asn_packet_complete(input.data() + nPos, nLeft);
        if (n <= 0) break;
        if (static_cast<unsigned int>(n) > nLeft || n < 2) __builtin_trap();
        // The length a reader stops at is the length the framing finds.
        if (brel_lib::asn_packet_length(input.data() + nPos, nLeft) != n) __builtin_trap();
        // A packet of four bytes or more is complete on its own too.
        if (n >= 4 && brel_lib::asn_packet_complete(input.data() + nPos, static_cast<unsigned int>(n)) != n) {
            __builtin_trap();
        }
        nPos += static_cast<size_t>(n);
    }
    return 0;
}
