// Incremental MD5 digest (RFC 1321) for the checks of transferred data.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace brel_lib {

class MD5 {
public:
    enum { blocksize = 64 };

    MD5();
    explicit MD5(const std::string& strText);

    void update(const unsigned char* pData, unsigned int nLength);
    void update(const char* pData, unsigned int nLength);
    // Pads and ends the digest; a second call changes nothing.
    MD5& finalize();
    // 32 lower-case hex digits; empty before finalize.
    std::string hexdigest() const;
    // The 16 raw bytes; valid once finalized.
    const unsigned char* rawdigest() const { return digest; }

    // The hex digests of nCount separate buffers, as hexdigest() gives them.
    // Buffers of a batch go through the rounds side by side, one in each lane
    // of the vector registers, which costs a fraction of digesting them one
    // after the other; the digest of one buffer is a serial chain that no
    // processor can speed up much by itself.
    // nLanesMax below 8 holds it to the narrow form of 4 lanes (for tests).
    static void HexDigests(const unsigned char* const* ppData, const unsigned int* pLength, size_t nCount,
                           std::string* pHex, int nLanesMax = 8);

private:
    void transform(const unsigned char* pBlock, size_t nBlocks);

    bool finalized;
    unsigned char buffer[blocksize];  // input not yet transformed
    uint32_t count[2];                // number of input bits, low word first
    uint32_t state[4];
    unsigned char digest[16];
};

std::ostream& operator<<(std::ostream& os, const MD5& md5);
std::string md5(const std::string& strText);
// The digest of what is left to read on the descriptor, read in 1 MiB
// pieces: 0, or the errno of the read that failed (ENOMEM without a buffer).
int Md5OfFd(int fd, std::string& strHex);

} // namespace brel_lib
