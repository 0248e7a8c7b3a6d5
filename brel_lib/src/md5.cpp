#include "md5.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace brel_lib {

namespace {

const unsigned char g_padding[64] = {0x80};

inline uint32_t RotateLeft(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

inline uint32_t LoadLe32(const unsigned char* p)
{
    uint32_t n;
    memcpy(&n, p, 4);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    n = __builtin_bswap32(n);
#endif
    return n;
}

inline void StoreLe32(unsigned char* p, uint32_t n)
{
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    n = __builtin_bswap32(n);
#endif
    memcpy(p, &n, 4);
}

// The four rounds of RFC 1321; G is written in its cheaper equivalent form.
#define MD5_F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define MD5_G(x, y, z) ((y) ^ ((z) & ((x) ^ (y))))
#define MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))
#define MD5_STEP(f, a, b, c, d, x, s, ac)      \
    do {                                       \
        (a) += f((b), (c), (d)) + (x) + (ac);  \
        (a) = RotateLeft((a), (s)) + (b);      \
    } while (0)

} // namespace

MD5::MD5() : finalized(false), buffer{}, count{0, 0}, state{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, digest{}
{
}

MD5::MD5(const std::string& strText) : MD5()
{
    update(strText.data(), static_cast<unsigned int>(strText.size()));
    finalize();
}

void MD5::transform(const unsigned char* pBlock, size_t nBlocks)
{
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (; nBlocks > 0; --nBlocks, pBlock += blocksize) {
        uint32_t x[16];
        for (int i = 0; i < 16; ++i) x[i] = LoadLe32(pBlock + 4 * i);
        uint32_t aa = a, bb = b, cc = c, dd = d;

        MD5_STEP(MD5_F, a, b, c, d, x[0], 7, 0xd76aa478);
        MD5_STEP(MD5_F, d, a, b, c, x[1], 12, 0xe8c7b756);
        MD5_STEP(MD5_F, c, d, a, b, x[2], 17, 0x242070db);
        MD5_STEP(MD5_F, b, c, d, a, x[3], 22, 0xc1bdceee);
        MD5_STEP(MD5_F, a, b, c, d, x[4], 7, 0xf57c0faf);
        MD5_STEP(MD5_F, d, a, b, c, x[5], 12, 0x4787c62a);
        MD5_STEP(MD5_F, c, d, a, b, x[6], 17, 0xa8304613);
        MD5_STEP(MD5_F, b, c, d, a, x[7], 22, 0xfd469501);
        MD5_STEP(MD5_F, a, b, c, d, x[8], 7, 0x698098d8);
        MD5_STEP(MD5_F, d, a, b, c, x[9], 12, 0x8b44f7af);
        MD5_STEP(MD5_F, c, d, a, b, x[10], 17, 0xffff5bb1);
        MD5_STEP(MD5_F, b, c, d, a, x[11], 22, 0x895cd7be);
        MD5_STEP(MD5_F, a, b, c, d, x[12], 7, 0x6b901122);
        MD5_STEP(MD5_F, d, a, b, c, x[13], 12, 0xfd987193);
        MD5_STEP(MD5_F, c, d, a, b, x[14], 17, 0xa679438e);
        MD5_STEP(MD5_F, b, c, d, a, x[15], 22, 0x49b40821);

        MD5_STEP(MD5_G, a, b, c, d, x[1], 5, 0xf61e2562);
        MD5_STEP(MD5_G, d, a, b, c, x[6], 9, 0xc040b340);
        MD5_STEP(MD5_G, c, d, a, b, x[11], 14, 0x265e5a51);
        MD5_STEP(MD5_G, b, c, d, a, x[0], 20, 0xe9b6c7aa);
        MD5_STEP(MD5_G, a, b, c, d, x[5], 5, 0xd62f105d);
        MD5_STEP(MD5_G, d, a, b, c, x[10], 9, 0x02441453);
        MD5_STEP(MD5_G, c, d, a, b, x[15], 14, 0xd8a1e681);
        MD5_STEP(MD5_G, b, c, d, a, x[4], 20, 0xe7d3fbc8);
        MD5_STEP(MD5_G, a, b, c, d, x[9], 5, 0x21e1cde6);
        MD5_STEP(MD5_G, d, a, b, c, x[14], 9, 0xc33707d6);
        MD5_STEP(MD5_G, c, d, a, b, x[3], 14, 0xf4d50d87);
        MD5_STEP(MD5_G, b, c, d, a, x[8], 20, 0x455a14ed);
        MD5_STEP(MD5_G, a, b, c, d, x[13], 5, 0xa9e3e905);
        MD5_STEP(MD5_G, d, a, b, c, x[2], 9, 0xfcefa3f8);
        MD5_STEP(MD5_G, c, d, a, b, x[7], 14, 0x676f02d9);
        MD5_STEP(MD5_G, b, c, d, a, x[12], 20, 0x8d2a4c8a);

        MD5_STEP(MD5_H, a, b, c, d, x[5], 4, 0xfffa3942);
        MD5_STEP(MD5_H, d, a, b, c, x[8], 11, 0x8771f681);
        MD5_STEP(MD5_H, c, d, a, b, x[11], 16, 0x6d9d6122);
        MD5_STEP(MD5_H, b, c, d, a, x[14], 23, 0xfde5380c);
        MD5_STEP(MD5_H, a, b, c, d, x[1], 4, 0xa4beea44);
        MD5_STEP(MD5_H, d, a, b, c, x[4], 11, 0x4bdecfa9);
        MD5_STEP(MD5_H, c, d, a, b, x[7], 16, 0xf6bb4b60);
        MD5_STEP(MD5_H, b, c, d, a, x[10], 23, 0xbebfbc70);
        MD5_STEP(MD5_H, a, b, c, d, x[13], 4, 0x289b7ec6);
        MD5_STEP(MD5_H, d, a, b, c, x[0], 11, 0xeaa127fa);
        MD5_STEP(MD5_H, c, d, a, b, x[3], 16, 0xd4ef3085);
        MD5_STEP(MD5_H, b, c, d, a, x[6], 23, 0x04881d05);
        MD5_STEP(MD5_H, a, b, c, d, x[9], 4, 0xd9d4d039);
        MD5_STEP(MD5_H, d, a, b, c, x[12], 11, 0xe6db99e5);
        MD5_STEP(MD5_H, c, d, a, b, x[15], 16, 0x1fa27cf8);
        MD5_STEP(MD5_H, b, c, d, a, x[2], 23, 0xc4ac5665);

        MD5_STEP(MD5_I, a, b, c, d, x[0], 6, 0xf4292244);
        MD5_STEP(MD5_I, d, a, b, c, x[7], 10, 0x432aff97);
        MD5_STEP(MD5_I, c, d, a, b, x[14], 15, 0xab9423a7);
        MD5_STEP(MD5_I, b, c, d, a, x[5], 21, 0xfc93a039);
        MD5_STEP(MD5_I, a, b, c, d, x[12], 6, 0x655b59c3);
        MD5_STEP(MD5_I, d, a, b, c, x[3], 10, 0x8f0ccc92);
        MD5_STEP(MD5_I, c, d, a, b, x[10], 15, 0xffeff47d);
        MD5_STEP(MD5_I, b, c, d, a, x[1], 21, 0x85845dd1);
        MD5_STEP(MD5_I, a, b, c, d, x[8], 6, 0x6fa87e4f);
        MD5_STEP(MD5_I, d, a, b, c, x[15], 10, 0xfe2ce6e0);
        MD5_STEP(MD5_I, c, d, a, b, x[6], 15, 0xa3014314);
        MD5_STEP(MD5_I, b, c, d, a, x[13], 21, 0x4e0811a1);
        MD5_STEP(MD5_I, a, b, c, d, x[4], 6, 0xf7537e82);
        MD5_STEP(MD5_I, d, a, b, c, x[11], 10, 0xbd3af235);
        MD5_STEP(MD5_I, c, d, a, b, x[2], 15, 0x2ad7d2bb);
        MD5_STEP(MD5_I, b, c, d, a, x[9], 21, 0xeb86d391);

        a += aa;
        b += bb;
        c += cc;
        d += dd;
    }
    state[0] = a;
    state[1] = b;
    state[2] = c;
    state[3] = d;
}

void MD5::update(const unsigned char* pData, unsigned int nLength)
{
    unsigned int nIndex = (count[0] >> 3) & 0x3f;
    uint32_t nBits = nLength << 3;
    count[0] += nBits;
    if (count[0] < nBits) ++count[1];
    count[1] += nLength >> 29;

    unsigned int nFirstPart = blocksize - nIndex;
    unsigned int i = 0;
    if (nLength >= nFirstPart) {
        memcpy(&buffer[nIndex], pData, nFirstPart);
        transform(buffer, 1);
        // Whole blocks straight from the caller's memory, without a copy.
        unsigned int nBlocks = (nLength - nFirstPart) / blocksize;
        transform(pData + nFirstPart, nBlocks);
        i = nFirstPart + nBlocks * blocksize;
        nIndex = 0;
    }
    memcpy(&buffer[nIndex], pData + i, nLength - i);
}

void MD5::update(const char* pData, unsigned int nLength)
{
    update(reinterpret_cast<const unsigned char*>(pData), nLength);
}

MD5& MD5::finalize()
{
    if (finalized) return *this;
    unsigned char bits[8];
    StoreLe32(bits, count[0]);
    StoreLe32(bits + 4, count[1]);
    unsigned int nIndex = (count[0] >> 3) & 0x3f;
    unsigned int nPadLen = nIndex < 56 ? 56 - nIndex : 120 - nIndex;
    update(g_padding, nPadLen);
    update(bits, 8);
    for (int i = 0; i < 4; ++i) StoreLe32(digest + 4 * i, state[i]);
    memset(buffer, 0, sizeof(buffer));
    count[0] = count[1] = 0;
    finalized = true;
    return *this;
}

std::string MD5::hexdigest() const
{
    if (!finalized) return std::string();
    static const char g_hex[] = "0123456789abcdef";
    std::string strHex(32, '0');
    for (int i = 0; i < 16; ++i) {
        strHex[2 * i] = g_hex[digest[i] >> 4];
        strHex[2 * i + 1] = g_hex[digest[i] & 0xf];
    }
    return strHex;
}

std::ostream& operator<<(std::ostream& os, const MD5& md5) { return os << md5.hexdigest(); }

std::string md5(const std::string& strText) { return MD5(strText).hexdigest(); }

int Md5OfFd(int fd, std::string& strHex)
{
    const size_t READ_SIZE = 1048576;
    char* pBuf = static_cast<char*>(malloc(READ_SIZE));
    if (pBuf == nullptr) return ENOMEM;
    MD5 digest;
    ssize_t r = 0;
    while ((r = read(fd, pBuf, READ_SIZE)) != 0) {
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) break;
        digest.update(pBuf, static_cast<unsigned int>(r));
    }
    int nErr = r < 0 ? errno : 0;
    free(pBuf);
    if (nErr == 0) strHex = digest.finalize().hexdigest();
    return nErr;
}

} // namespace brel_lib
