#include "md5.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

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

// The 64 steps of one 64-byte block over the words x[0..15]; a, b, c, d and
// the words may be scalars or vectors of lanes, ROTL rotates them.
#define MD5_ROUNDS(ROTL)                                                  \
    do {                                                                  \
        MD5_LSTEP(MD5_F, a, b, c, d, x[0], 7, 0xd76aa478, ROTL);          \
        MD5_LSTEP(MD5_F, d, a, b, c, x[1], 12, 0xe8c7b756, ROTL);         \
        MD5_LSTEP(MD5_F, c, d, a, b, x[2], 17, 0x242070db, ROTL);         \
        MD5_LSTEP(MD5_F, b, c, d, a, x[3], 22, 0xc1bdceee, ROTL);         \
        MD5_LSTEP(MD5_F, a, b, c, d, x[4], 7, 0xf57c0faf, ROTL);          \
        MD5_LSTEP(MD5_F, d, a, b, c, x[5], 12, 0x4787c62a, ROTL);         \
        MD5_LSTEP(MD5_F, c, d, a, b, x[6], 17, 0xa8304613, ROTL);         \
        MD5_LSTEP(MD5_F, b, c, d, a, x[7], 22, 0xfd469501, ROTL);         \
        MD5_LSTEP(MD5_F, a, b, c, d, x[8], 7, 0x698098d8, ROTL);          \
        MD5_LSTEP(MD5_F, d, a, b, c, x[9], 12, 0x8b44f7af, ROTL);         \
        MD5_LSTEP(MD5_F, c, d, a, b, x[10], 17, 0xffff5bb1, ROTL);        \
        MD5_LSTEP(MD5_F, b, c, d, a, x[11], 22, 0x895cd7be, ROTL);        \
        MD5_LSTEP(MD5_F, a, b, c, d, x[12], 7, 0x6b901122, ROTL);         \
        MD5_LSTEP(MD5_F, d, a, b, c, x[13], 12, 0xfd987193, ROTL);        \
        MD5_LSTEP(MD5_F, c, d, a, b, x[14], 17, 0xa679438e, ROTL);        \
        MD5_LSTEP(MD5_F, b, c, d, a, x[15], 22, 0x49b40821, ROTL);        \
        MD5_LSTEP(MD5_G, a, b, c, d, x[1], 5, 0xf61e2562, ROTL);          \
        MD5_LSTEP(MD5_G, d, a, b, c, x[6], 9, 0xc040b340, ROTL);          \
        MD5_LSTEP(MD5_G, c, d, a, b, x[11], 14, 0x265e5a51, ROTL);        \
        MD5_LSTEP(MD5_G, b, c, d, a, x[0], 20, 0xe9b6c7aa, ROTL);         \
        MD5_LSTEP(MD5_G, a, b, c, d, x[5], 5, 0xd62f105d, ROTL);          \
        MD5_LSTEP(MD5_G, d, a, b, c, x[10], 9, 0x02441453, ROTL);         \
        MD5_LSTEP(MD5_G, c, d, a, b, x[15], 14, 0xd8a1e681, ROTL);        \
        MD5_LSTEP(MD5_G, b, c, d, a, x[4], 20, 0xe7d3fbc8, ROTL);         \
        MD5_LSTEP(MD5_G, a, b, c, d, x[9], 5, 0x21e1cde6, ROTL);          \
        MD5_LSTEP(MD5_G, d, a, b, c, x[14], 9, 0xc33707d6, ROTL);         \
        MD5_LSTEP(MD5_G, c, d, a, b, x[3], 14, 0xf4d50d87, ROTL);         \
        MD5_LSTEP(MD5_G, b, c, d, a, x[8], 20, 0x455a14ed, ROTL);         \
        MD5_LSTEP(MD5_G, a, b, c, d, x[13], 5, 0xa9e3e905, ROTL);         \
        MD5_LSTEP(MD5_G, d, a, b, c, x[2], 9, 0xfcefa3f8, ROTL);          \
        MD5_LSTEP(MD5_G, c, d, a, b, x[7], 14, 0x676f02d9, ROTL);         \
        MD5_LSTEP(MD5_G, b, c, d, a, x[12], 20, 0x8d2a4c8a, ROTL);        \
        MD5_LSTEP(MD5_H, a, b, c, d, x[5], 4, 0xfffa3942, ROTL);          \
        MD5_LSTEP(MD5_H, d, a, b, c, x[8], 11, 0x8771f681, ROTL);         \
        MD5_LSTEP(MD5_H, c, d, a, b, x[11], 16, 0x6d9d6122, ROTL);        \
        MD5_LSTEP(MD5_H, b, c, d, a, x[14], 23, 0xfde5380c, ROTL);        \
        MD5_LSTEP(MD5_H, a, b, c, d, x[1], 4, 0xa4beea44, ROTL);          \
        MD5_LSTEP(MD5_H, d, a, b, c, x[4], 11, 0x4bdecfa9, ROTL);         \
        MD5_LSTEP(MD5_H, c, d, a, b, x[7], 16, 0xf6bb4b60, ROTL);         \
        MD5_LSTEP(MD5_H, b, c, d, a, x[10], 23, 0xbebfbc70, ROTL);        \
        MD5_LSTEP(MD5_H, a, b, c, d, x[13], 4, 0x289b7ec6, ROTL);         \
        MD5_LSTEP(MD5_H, d, a, b, c, x[0], 11, 0xeaa127fa, ROTL);         \
        MD5_LSTEP(MD5_H, c, d, a, b, x[3], 16, 0xd4ef3085, ROTL);         \
        MD5_LSTEP(MD5_H, b, c, d, a, x[6], 23, 0x04881d05, ROTL);         \
        MD5_LSTEP(MD5_H, a, b, c, d, x[9], 4, 0xd9d4d039, ROTL);          \
        MD5_LSTEP(MD5_H, d, a, b, c, x[12], 11, 0xe6db99e5, ROTL);        \
        MD5_LSTEP(MD5_H, c, d, a, b, x[15], 16, 0x1fa27cf8, ROTL);        \
        MD5_LSTEP(MD5_H, b, c, d, a, x[2], 23, 0xc4ac5665, ROTL);         \
        MD5_LSTEP(MD5_I, a, b, c, d, x[0], 6, 0xf4292244, ROTL);          \
        MD5_LSTEP(MD5_I, d, a, b, c, x[7], 10, 0x432aff97, ROTL);         \
        MD5_LSTEP(MD5_I, c, d, a, b, x[14], 15, 0xab9423a7, ROTL);        \
        MD5_LSTEP(MD5_I, b, c, d, a, x[5], 21, 0xfc93a039, ROTL);         \
        MD5_LSTEP(MD5_I, a, b, c, d, x[12], 6, 0x655b59c3, ROTL);         \
        MD5_LSTEP(MD5_I, d, a, b, c, x[3], 10, 0x8f0ccc92, ROTL);         \
        MD5_LSTEP(MD5_I, c, d, a, b, x[10], 15, 0xffeff47d, ROTL);        \
        MD5_LSTEP(MD5_I, b, c, d, a, x[1], 21, 0x85845dd1, ROTL);         \
        MD5_LSTEP(MD5_I, a, b, c, d, x[8], 6, 0x6fa87e4f, ROTL);          \
        MD5_LSTEP(MD5_I, d, a, b, c, x[15], 10, 0xfe2ce6e0, ROTL);        \
        MD5_LSTEP(MD5_I, c, d, a, b, x[6], 15, 0xa3014314, ROTL);         \
        MD5_LSTEP(MD5_I, b, c, d, a, x[13], 21, 0x4e0811a1, ROTL);        \
        MD5_LSTEP(MD5_I, a, b, c, d, x[4], 6, 0xf7537e82, ROTL);          \
        MD5_LSTEP(MD5_I, d, a, b, c, x[11], 10, 0xbd3af235, ROTL);        \
        MD5_LSTEP(MD5_I, c, d, a, b, x[2], 15, 0x2ad7d2bb, ROTL);         \
        MD5_LSTEP(MD5_I, b, c, d, a, x[9], 21, 0xeb86d391, ROTL);         \
    } while (0)
#define MD5_LSTEP(f, a, b, c, d, x, s, ac, ROTL)        \
    do {                                                \
        (a) += f((b), (c), (d)) + (x) + (uint32_t)(ac); \
        (a) = ROTL((a), (s)) + (b);                     \
    } while (0)

// Lanes of 32-bit words in vector registers, through the compiler's vector
// extension: the same source gives SSE2, AVX2 or NEON code.
typedef uint32_t Lanes4 __attribute__((vector_size(16)));
typedef uint32_t Lanes8 __attribute__((vector_size(32)));
#define MD5_VROTL(v, n) (((v) << (n)) | ((v) >> (32 - (n))))

// Loads N words of each lane as one vector each, and transposes the square
// so that vector i holds word i of every lane: each pass swaps the
// off-diagonal halves of the blocks of 2d rows, with shuffles of two vectors.
// Words whole vectors at a time, since putting words into lanes one by one
// goes through memory and stalls on the wide load that follows.
template <class V, int N>
inline __attribute__((always_inline)) void LoadWords(const unsigned char* const* ppData, size_t nOffset, V* x)
{
    for (int nFirst = 0; nFirst < 16; nFirst += N) {
        V* r = x + nFirst;
        for (int l = 0; l < N; ++l) {
            memcpy(&r[l], ppData[l] + nOffset + 4 * nFirst, sizeof(V));
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
            for (int i = 0; i < N; ++i) r[l][i] = __builtin_bswap32(r[l][i]);
#endif
        }
        if constexpr (N == 8) {
            for (int i = 0; i < 4; ++i) {
                V a = r[i], b = r[i + 4];
                r[i] = __builtin_shufflevector(a, b, 0, 1, 2, 3, 8, 9, 10, 11);
                r[i + 4] = __builtin_shufflevector(a, b, 4, 5, 6, 7, 12, 13, 14, 15);
            }
            for (int i : {0, 1, 4, 5}) {
                V a = r[i], b = r[i + 2];
                r[i] = __builtin_shufflevector(a, b, 0, 1, 8, 9, 4, 5, 12, 13);
                r[i + 2] = __builtin_shufflevector(a, b, 2, 3, 10, 11, 6, 7, 14, 15);
            }
            for (int i : {0, 2, 4, 6}) {
                V a = r[i], b = r[i + 1];
                r[i] = __builtin_shufflevector(a, b, 0, 8, 2, 10, 4, 12, 6, 14);
                r[i + 1] = __builtin_shufflevector(a, b, 1, 9, 3, 11, 5, 13, 7, 15);
            }
        } else {
            static_assert(N == 4, "4 or 8 lanes");
            for (int i : {0, 1}) {
                V a = r[i], b = r[i + 2];
                r[i] = __builtin_shufflevector(a, b, 0, 1, 4, 5);
                r[i + 2] = __builtin_shufflevector(a, b, 2, 3, 6, 7);
            }
            for (int i : {0, 2}) {
                V a = r[i], b = r[i + 1];
                r[i] = __builtin_shufflevector(a, b, 0, 4, 2, 6);
                r[i + 1] = __builtin_shufflevector(a, b, 1, 5, 3, 7);
            }
        }
    }
}

// nChunks 64-byte chunks of each of the N buffers, from the states in
// pState[lane][4], which it moves on.
template <class V, int N>
inline __attribute__((always_inline)) void TransformLanes(const unsigned char* const* ppData, size_t nChunks,
                                                          uint32_t (*pState)[4])
{
    V a, b, c, d;
    for (int l = 0; l < N; ++l) {
        a[l] = pState[l][0];
        b[l] = pState[l][1];
        c[l] = pState[l][2];
        d[l] = pState[l][3];
    }
    for (size_t k = 0; k < nChunks; ++k) {
        V x[16];
        LoadWords<V, N>(ppData, k * 64, x);
        V aa = a, bb = b, cc = c, dd = d;
        MD5_ROUNDS(MD5_VROTL);
        a += aa;
        b += bb;
        c += cc;
        d += dd;
    }
    for (int l = 0; l < N; ++l) {
        pState[l][0] = a[l];
        pState[l][1] = b[l];
        pState[l][2] = c[l];
        pState[l][3] = d[l];
    }
}

void TransformLanes4(const unsigned char* const* ppData, size_t nChunks, uint32_t (*pState)[4])
{
    TransformLanes<Lanes4, 4>(ppData, nChunks, pState);
}

#if defined(__x86_64__) || defined(__i386__)
__attribute__((target("avx2"))) void TransformLanes8Avx2(const unsigned char* const* ppData, size_t nChunks,
                                                         uint32_t (*pState)[4])
{
    TransformLanes<Lanes8, 8>(ppData, nChunks, pState);
}
// AVX-512's rotate takes one instruction where AVX2 needs three.
__attribute__((target("avx2,avx512f,avx512vl"))) void TransformLanes8Avx512(const unsigned char* const* ppData,
                                                                            size_t nChunks, uint32_t (*pState)[4])
{
    TransformLanes<Lanes8, 8>(ppData, nChunks, pState);
}
__attribute__((target("avx2,avx512f,avx512vl"))) void TransformLanes4Avx512(const unsigned char* const* ppData,
                                                                            size_t nChunks, uint32_t (*pState)[4])
{
    TransformLanes<Lanes4, 4>(ppData, nChunks, pState);
}
#endif

typedef void (*TransformLanesFun)(const unsigned char* const*, size_t, uint32_t (*)[4]);

// The forms of 8 lanes (null where the processor has none) and of 4 that
// this processor runs best.
struct LaneForms {
    TransformLanesFun pWide = nullptr;
    TransformLanesFun pNarrow = TransformLanes4;
    LaneForms()
    {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_cpu_init();
        if (__builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512f")) {
            pWide = TransformLanes8Avx512;
            pNarrow = TransformLanes4Avx512;
        } else if (__builtin_cpu_supports("avx2")) {
            pWide = TransformLanes8Avx2;
        }
#endif
    }
};

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

void MD5::HexDigests(const unsigned char* const* ppData, const unsigned int* pLength, size_t nCount, std::string* pHex,
                     int nLanesMax)
{
    static const LaneForms s_forms;
    // A batch that fills no more than the narrow form goes through it: the
    // lanes of the wide one would run empty.
    bool bNarrow = nLanesMax < 8 || s_forms.pWide == nullptr || nCount <= 4;
    const int nLanes = bNarrow ? 4 : 8;
    const TransformLanesFun pTransform = bNarrow ? s_forms.pNarrow : s_forms.pWide;
    for (size_t nFirst = 0; nFirst < nCount;) {
        size_t nGroup = std::min(nCount - nFirst, static_cast<size_t>(nLanes));
        // The chunks every buffer of the group has go through the lanes;
        // each buffer's rest, and the padding, one by one.
        size_t nChunks = 0;
        if (nGroup > 1) {
            nChunks = pLength[nFirst] / blocksize;
            for (size_t i = 1; i < nGroup; ++i) nChunks = std::min(nChunks, size_t(pLength[nFirst + i] / blocksize));
        }
        MD5 md5[8];
        if (nChunks > 0) {
            const unsigned char* apData[8];
            uint32_t aState[8][4];
            for (int l = 0; l < nLanes; ++l) {
                // Lanes without a buffer repeat the first one and are thrown away.
                size_t i = nFirst + (static_cast<size_t>(l) < nGroup ? static_cast<size_t>(l) : 0);
                apData[l] = ppData[i];
                memcpy(aState[l], md5[0].state, sizeof(aState[l]));
            }
            pTransform(apData, nChunks, aState);
            for (size_t l = 0; l < nGroup; ++l) {
                memcpy(md5[l].state, aState[l], sizeof(aState[l]));
                uint64_t lBits = static_cast<uint64_t>(nChunks) * blocksize * 8;
                md5[l].count[0] = static_cast<uint32_t>(lBits);
                md5[l].count[1] = static_cast<uint32_t>(lBits >> 32);
            }
        }
        for (size_t l = 0; l < nGroup; ++l) {
            size_t nDone = nChunks * blocksize;
            if (pLength[nFirst + l] > nDone)
                md5[l].update(ppData[nFirst + l] + nDone, static_cast<unsigned int>(pLength[nFirst + l] - nDone));
            pHex[nFirst + l] = md5[l].finalize().hexdigest();
        }
        nFirst += nGroup;
    }
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
