#include "network/stream_framing.h"

#include <stdint.h>
#include <stdio.h>

#include <atomic>

namespace brel_lib {

namespace {
// Shared by all connections; written at start and reload by the main thread.
std::atomic<unsigned int> g_nBrelRecvPacketMaxSize{0};
} // namespace

void SetBrelRecvPacketMaxSize(unsigned int nSize) { g_nBrelRecvPacketMaxSize = nSize; }
unsigned int GetBrelRecvPacketMaxSize() { return g_nBrelRecvPacketMaxSize; }

int asn_packet_complete(const void* pData, unsigned int nDataLen)
{
    const unsigned char* p = static_cast<const unsigned char*>(pData);
    if (nDataLen == 0) return 0;
    if (p[0] != 0x30) return -1;  // one byte condemns a stream
    if (nDataLen < 4) return 0;

    // 0x80 is a plain length of 128 here: the indefinite form does not exist on the link.
    uint64_t lHeadLen = 2, lContLen = p[1];
    if (p[1] > 0x80) {
        unsigned int nLenLen = p[1] & 0x7f;
        if (nLenLen > 4) return -1;  // the length field is 32 bits wide
        lHeadLen = 2 + nLenLen;
        // Length bytes that have not arrived count as 0: the high ones alone may
        // already pass the maximum, and never are bytes beyond the data read.
        lContLen = 0;
        for (unsigned int i = 0; i < nLenLen; ++i) {
            unsigned int nPos = 2 + i;
            lContLen = (lContLen << 8) | (nPos < nDataLen ? p[nPos] : 0);
        }
    }
    uint64_t lPktLen = lHeadLen + lContLen;
    if (lPktLen > MAX_LEN) {
        printf("pkt_len > MAX_LEN\n");
        fflush(stdout);
        return -1;
    }
    if (lHeadLen > nDataLen) return 0;
    if (nDataLen > lPktLen) return p[lPktLen] == 0x30 ? static_cast<int>(lPktLen) : -1;
    if (nDataLen == lPktLen) return static_cast<int>(lPktLen);
    return 0;
}

int asn_packet_length(const void* pData, unsigned int nDataLen)
{
    const unsigned char* p = static_cast<const unsigned char*>(pData);
    if (nDataLen == 0) return 0;
    if (p[0] != 0x30) return -1;
    if (nDataLen < 2) return 0;
    uint64_t lHeadLen = 2, lContLen = p[1];
    if (p[1] > 0x80) {
        unsigned int nLenLen = p[1] & 0x7f;
        if (nLenLen > 4) return -1;
        lHeadLen = 2 + nLenLen;
        if (nDataLen < lHeadLen) return 0;
        lContLen = 0;
        for (unsigned int i = 0; i < nLenLen; ++i) lContLen = (lContLen << 8) | p[2 + i];
    }
    uint64_t lPktLen = lHeadLen + lContLen;
    return lPktLen > MAX_LEN ? -1 : static_cast<int>(lPktLen);
}

} // namespace brel_lib
