// The byte buffer of the BER codec, tags, lengths and the decoding failure.
//
// Encoding writes backwards from the end of a caller's block, so every length
// is known when it is written; an encoding that does not fit goes on counting
// so that the caller learns the exact size. Decoding reads forwards; a
// failure writes its text to standard error and unwinds to BDecPdu.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

typedef size_t AsnLen;
typedef uint32_t AsnTag;
typedef int32_t AsnIntType;

// The all-ones length stands for an indefinite length.
const AsnLen INDEFINITE_LEN = ~static_cast<AsnLen>(0);

enum BER_CLASS { ANY_CLASS = -2, NULL_CLASS = -1, UNIV = 0, APPL = 64, CNTX = 128, PRIV = 192 };
enum BER_FORM { ANY_FORM = -2, NULL_FORM = -1, PRIM = 0, CONS = 32 };
enum BER_UNIV_CODE {
    NO_TAG_CODE = 0, BOOLEAN_TAG_CODE = 1, INTEGER_TAG_CODE = 2, BITSTRING_TAG_CODE = 3,
    OCTETSTRING_TAG_CODE = 4, NULLTYPE_TAG_CODE = 5, OID_TAG_CODE = 6, OD_TAG_CODE = 7,
    EXTERNAL_TAG_CODE = 8, REAL_TAG_CODE = 9, ENUM_TAG_CODE = 10, SEQ_TAG_CODE = 16, SET_TAG_CODE = 17,
    NUMERICSTRING_TAG_CODE = 18, PRINTABLESTRING_TAG_CODE = 19, TELETEXSTRING_TAG_CODE = 20,
    VIDEOTEXSTRING_TAG_CODE = 21, IA5STRING_TAG_CODE = 22, UTCTIME_TAG_CODE = 23,
    GENERALIZEDTIME_TAG_CODE = 24, GRAPHICSTRING_TAG_CODE = 25, VISIBLESTRING_TAG_CODE = 26,
    GENERALSTRING_TAG_CODE = 27
};

// Packed tags: the first tag octet in the top byte, further octets below it.
const AsnTag TAG_INTEGER = 0x02000000;
const AsnTag TAG_BITSTRING = 0x03000000;
const AsnTag TAG_BITSTRING_CONS = 0x23000000;
const AsnTag TAG_OCTETSTRING = 0x04000000;
const AsnTag TAG_OCTETSTRING_CONS = 0x24000000;
const AsnTag TAG_SEQUENCE = 0x30000000;
const AsnTag TAG_CONSTRUCTED_BIT = 0x20000000;

// A view on a block the buffer does not own. Write mode fills [dataStart,
// dataEnd) at the end of the block downwards; read mode walks readLoc up.
// Each mode sets the other mode's error flag, so misuse shows at the end.
class AsnBuf {
public:
    void Init(char* pData, size_t nLen);
    void ResetInWriteRvsMode();
    void ResetInReadMode();
    void InstallData(char* pData, size_t nLen);

    char* DataPtr() const { return dataStart; }
    size_t DataLen() const { return static_cast<size_t>(dataEnd - dataStart); }
    char* BlkPtr() const { return blkStart; }
    size_t BlkLen() const { return static_cast<size_t>(blkEnd - blkStart); }
    bool Eod() const { return readLoc >= dataEnd; }
    bool ReadError() const { return readError; }
    bool WriteError() const { return writeError; }
    size_t Remaining() const { return readLoc < dataEnd ? static_cast<size_t>(dataEnd - readLoc) : 0; }

    unsigned char GetByte();
    void PutByteRvs(unsigned char c);
    void PutSegRvs(const char* pSeg, size_t n);
    char* GetSeg(size_t* pLen);
    void CopyOut(char* pDst, size_t n);

private:
    char* dataStart = nullptr;
    char* dataEnd = nullptr;
    char* blkStart = nullptr;
    char* blkEnd = nullptr;
    char* readLoc = nullptr;
    bool writeError = true;
    bool readError = true;
};

// Thrown by AsnDecodeFail and caught only by BDecPdu.
struct AsnDecodeError {
    int nCode;
};

// Writes the text and a newline to standard error and abandons the decoding.
[[noreturn]] void AsnDecodeFail(const char* szText, int nCode);

AsnTag BDecTag(AsnBuf& b, AsnLen& bytesDecoded);
AsnLen BDecLen(AsnBuf& b, AsnLen& bytesDecoded);
AsnLen BEncDefLen(AsnBuf& b, AsnLen len);
void BDecEoc(AsnBuf& b, AsnLen& bytesDecoded);
AsnLen BEncEoc(AsnBuf& b);

// Wire octets of a constructed context tag with the given number.
std::vector<unsigned char> ContextTagOctets(unsigned int nNumber);
// The same octets in packed form.
AsnTag ContextTagPacked(unsigned int nNumber);
// Writes tag octets backwards; returns their count.
AsnLen BEncTagOctets(AsnBuf& b, const unsigned char* pOctets, size_t n);

// The memory one decoding may take on this thread: a fixed multiple of the
// input's length, so that a hostile packet costs memory in proportion to its
// size. Every allocation a decoding makes is charged before it is made; past
// the budget the decoding fails (and the packet is refused) instead of
// asking the system for gigabytes that overcommit would grant and the kernel
// would then take back by ending the process.
class AsnAllocBudget {
public:
    // Bytes allowed per input byte. A record object per few bytes of input is
    // the densest shape the protocol has: a list of small integers costs 24
    // (a list node and an integer object, with the allocator's overhead, for
    // 3 bytes), records of integers about 6, strings about 1. A list of empty
    // strings (97 bytes of objects for 2 input bytes) is past it: no real
    // message looks like that, and millions of them are only an attack.
    static const size_t BYTES_PER_INPUT_BYTE = 32;
    // Every packet may take this much whatever its size: fixed costs of the
    // envelope and of the largest record dominate tiny packets.
    static const size_t MIN_BUDGET = 64 * 1024;
    // What each allocation is counted for beyond its size: the allocator's
    // header and rounding.
    static const size_t ALLOC_OVERHEAD = 16;

    // Opens the budget of a decoding of nInputLen bytes on this thread; the
    // destructor restores what was open before.
    explicit AsnAllocBudget(size_t nInputLen);
    ~AsnAllocBudget();
    AsnAllocBudget(const AsnAllocBudget&) = delete;
    AsnAllocBudget& operator=(const AsnAllocBudget&) = delete;

    // Counts an allocation of nBytes that a decoding is about to make; past
    // the budget it logs and fails the decoding. Without an open budget
    // (encoding, building messages) it does nothing.
    static void Charge(size_t nBytes);

private:
    bool m_bPrevActive;
    size_t m_nPrevAllowed;
    size_t m_nPrevUsed;
    size_t m_nPrevInputLen;
};

// Segments of a constructed string, pointing into the input; one per thread.
// The array doubles when full, so collecting n segments costs O(n).
class StrStk {
public:
    struct Elmt {
        char* str;
        size_t len;
    };
    StrStk(size_t nInitialSize, size_t nGrowSize);
    ~StrStk();
    StrStk(const StrStk&) = delete;
    StrStk& operator=(const StrStk&) = delete;

    void Reset() { nextFreeElmt = totalByteLen = 0; }
    void Push(char* pStr, size_t nLen);
    void CopyOut(char* pDst) const;
    size_t TotalByteLen() const { return totalByteLen; }
    size_t Count() const { return nextFreeElmt; }
    const Elmt& At(size_t i) const { return stk[i]; }
    size_t Capacity() const { return size; }
    // Back to the initial size when a large string made the array grow past
    // KEEP_ELEMENTS, so that one packet does not pin its memory to the thread.
    void ShrinkIfLarge();

    static const size_t KEEP_ELEMENTS = 4096;

private:
    Elmt* stk;
    size_t initialSize;
    size_t size;
    size_t growSize;
    size_t nextFreeElmt = 0;
    size_t totalByteLen = 0;
};

StrStk& StrStkG();
StrStk& StrStkUnusedBitsG();
