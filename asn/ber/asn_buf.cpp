#include "asn_buf.h"

#include <stdio.h>
#include <string.h>

#include "log.h"

// ---- AsnBuf -------------------------------------------------------------------

void AsnBuf::Init(char* pData, size_t nLen)
{
    writeError = readError = true;
    blkStart = pData;
    blkEnd = pData + nLen;
    dataStart = dataEnd = readLoc = blkEnd;
}

void AsnBuf::ResetInWriteRvsMode()
{
    dataStart = dataEnd = blkEnd;
    writeError = false;
    readError = true;
}

void AsnBuf::ResetInReadMode()
{
    readLoc = dataStart;
    readError = false;
    writeError = true;
}

void AsnBuf::InstallData(char* pData, size_t nLen)
{
    Init(pData, nLen);
    dataStart = blkStart;
    ResetInReadMode();
}

unsigned char AsnBuf::GetByte()
{
    if (Eod()) {
        readError = true;
        return 0;
    }
    return static_cast<unsigned char>(*readLoc++);
}

void AsnBuf::PutByteRvs(unsigned char c)
{
    if (dataStart > blkStart) {
        *--dataStart = static_cast<char>(c);
    } else {
        writeError = true;
    }
}

void AsnBuf::PutSegRvs(const char* pSeg, size_t n)
{
    if (static_cast<size_t>(dataStart - blkStart) >= n) {
        dataStart -= n;
        if (n != 0) memcpy(dataStart, pSeg, n);
    } else {
        writeError = true;
    }
}

char* AsnBuf::GetSeg(size_t* pLen)
{
    char* p = readLoc;
    if (Remaining() < *pLen) {
        *pLen = Remaining();
        readLoc = dataEnd;
    } else {
        readLoc += *pLen;
    }
    return p;
}

void AsnBuf::CopyOut(char* pDst, size_t n)
{
    size_t nHave = Remaining();
    if (nHave < n) {
        if (nHave != 0) memcpy(pDst, readLoc, nHave);
        readLoc = dataEnd;
        readError = true;
        return;
    }
    if (n != 0) memcpy(pDst, readLoc, n);
    readLoc += n;
}

// ---- failure, tags and lengths ------------------------------------------------------

void AsnDecodeFail(const char* szText, int nCode)
{
    fprintf(stderr, "%s\n", szText);
    throw AsnDecodeError{nCode};
}

AsnTag BDecTag(AsnBuf& b, AsnLen& bytesDecoded)
{
    // Counted before the test: a decoding of nothing has tried one octet.
    AsnTag tag = static_cast<AsnTag>(b.GetByte()) << 24;
    ++bytesDecoded;
    if (b.ReadError()) AsnDecodeFail("BDecTag: ERROR - decoded past the end of data", -22);
    if (((tag >> 24) & 0x1f) != 0x1f) return tag;
    // At most three further octets; a tag number beyond 21 bits is not told apart.
    for (int nShift = 16; nShift >= 0; nShift -= 8) {
        unsigned char c = b.GetByte();
        ++bytesDecoded;
        if (b.ReadError()) AsnDecodeFail("BDecTag: ERROR - decoded past the end of data", -22);
        tag |= static_cast<AsnTag>(c) << nShift;
        if (c < 0x80) break;
    }
    return tag;
}

AsnLen BDecLen(AsnBuf& b, AsnLen& bytesDecoded)
{
    unsigned char c = b.GetByte();
    ++bytesDecoded;
    if (b.ReadError()) AsnDecodeFail("BDecLen: decoded past end of data", -9);
    if (c < 0x80) return c;
    if (c == 0x80) return INDEFINITE_LEN;
    unsigned int nOctets = c & 0x7f;
    if (nOctets > sizeof(AsnLen)) AsnDecodeFail("BDecLen: ERROR - length overflow", -10);
    AsnLen len = 0;
    for (unsigned int i = 0; i < nOctets; ++i) {
        c = b.GetByte();
        if (b.ReadError()) AsnDecodeFail("BDecLen: decoded past end of data", -11);
        len = (len << 8) | c;
        ++bytesDecoded;
    }
    return len;
}

AsnLen BEncDefLen(AsnBuf& b, AsnLen len)
{
    // The four-octet form starts at 16,777,126, not at 2^24: the protocol has
    // always sent it so, and every decoder accepts both forms.
    AsnLen nOctets;
    if (len < 128) {
        b.PutByteRvs(static_cast<unsigned char>(len));
        return 1;
    }
    if (len < 256) {
        nOctets = 1;
    } else if (len < 65536) {
        nOctets = 2;
    } else if (len < 16777126) {
        nOctets = 3;
    } else {
        nOctets = 4;
    }
    for (AsnLen i = 0; i < nOctets; ++i) b.PutByteRvs(static_cast<unsigned char>(len >> (8 * i)));
    b.PutByteRvs(static_cast<unsigned char>(0x80 | nOctets));
    return nOctets + 1;
}

void BDecEoc(AsnBuf& b, AsnLen& bytesDecoded)
{
    unsigned char c1 = b.GetByte();
    unsigned char c2 = b.GetByte();
    if (c1 != 0 || c2 != 0 || b.ReadError()) {
        AsnDecodeFail("BDecEoc: ERROR - non zero byte in EOC or end of data reached", -12);
    }
    bytesDecoded += 2;
}

AsnLen BEncEoc(AsnBuf& b)
{
    b.PutByteRvs(0);
    b.PutByteRvs(0);
    return 2;
}

std::vector<unsigned char> ContextTagOctets(unsigned int nNumber)
{
    const unsigned char cFirst = CNTX | CONS;
    if (nNumber < 31) return {static_cast<unsigned char>(cFirst | nNumber)};
    std::vector<unsigned char> vecDigits;
    do {
        vecDigits.insert(vecDigits.begin(), static_cast<unsigned char>(nNumber & 0x7f));
        nNumber >>= 7;
    } while (nNumber != 0);
    for (size_t i = 0; i + 1 < vecDigits.size(); ++i) vecDigits[i] |= 0x80;
    vecDigits.insert(vecDigits.begin(), static_cast<unsigned char>(cFirst | 0x1f));
    return vecDigits;
}

AsnTag ContextTagPacked(unsigned int nNumber)
{
    std::vector<unsigned char> vecOctets = ContextTagOctets(nNumber);
    AsnTag tag = 0;
    for (size_t i = 0; i < vecOctets.size() && i < 4; ++i) tag |= static_cast<AsnTag>(vecOctets[i]) << (24 - 8 * i);
    return tag;
}

AsnLen BEncTagOctets(AsnBuf& b, const unsigned char* pOctets, size_t n)
{
    for (size_t i = n; i > 0; --i) b.PutByteRvs(pOctets[i - 1]);
    return n;
}

// ---- AsnAllocBudget ------------------------------------------------------------------

namespace {

// The open budget of this thread's decoding.
struct BudgetState {
    bool bActive = false;
    size_t nAllowed = 0;
    size_t nUsed = 0;
    size_t nInputLen = 0;
};

BudgetState& Budget()
{
    thread_local BudgetState state;
    return state;
}

} // namespace

AsnAllocBudget::AsnAllocBudget(size_t nInputLen)
{
    BudgetState& st = Budget();
    m_bPrevActive = st.bActive;
    m_nPrevAllowed = st.nAllowed;
    m_nPrevUsed = st.nUsed;
    m_nPrevInputLen = st.nInputLen;
    st.bActive = true;
    st.nUsed = 0;
    st.nInputLen = nInputLen;
    // Saturates rather than wraps for absurd lengths.
    st.nAllowed = nInputLen > (~static_cast<size_t>(0) - MIN_BUDGET) / BYTES_PER_INPUT_BYTE
                      ? ~static_cast<size_t>(0)
                      : MIN_BUDGET + nInputLen * BYTES_PER_INPUT_BYTE;
}

AsnAllocBudget::~AsnAllocBudget()
{
    BudgetState& st = Budget();
    st.bActive = m_bPrevActive;
    st.nAllowed = m_nPrevAllowed;
    st.nUsed = m_nPrevUsed;
    st.nInputLen = m_nPrevInputLen;
}

void AsnAllocBudget::Charge(size_t nBytes)
{
    BudgetState& st = Budget();
    if (!st.bActive) return;
    size_t nCost = nBytes + ALLOC_OVERHEAD;
    if (nCost < nBytes || st.nAllowed - st.nUsed < nCost) {
        brel_lib::Log(brel_lib::LOG_LEVEL_WARNING,
                      "AsnAllocBudget::Charge(decoding needs more memory than the packet's size allows, "
                      "packet size: %zu, allowed: %zu)",
                      st.nInputLen, st.nAllowed);
        AsnDecodeFail("BDecPdu: ERROR - decoding needs more memory than the packet's size allows", -18);
    }
    st.nUsed += nCost;
}

// ---- StrStk ---------------------------------------------------------------------------

StrStk::StrStk(size_t nInitialSize, size_t nGrowSize)
    : stk(new Elmt[nInitialSize]), initialSize(nInitialSize), size(nInitialSize), growSize(nGrowSize)
{
}

StrStk::~StrStk() { delete[] stk; }

void StrStk::Push(char* pStr, size_t nLen)
{
    if (nextFreeElmt >= size) {
        // Doubling (at least growSize more): a fixed step made a string of
        // n empty segments cost n squared copies.
        size_t nNewSize = size + (size > growSize ? size : growSize);
        AsnAllocBudget::Charge(nNewSize * sizeof(Elmt));
        Elmt* pNew = new Elmt[nNewSize];
        memcpy(pNew, stk, size * sizeof(Elmt));
        delete[] stk;
        stk = pNew;
        size = nNewSize;
    }
    stk[nextFreeElmt].str = pStr;
    stk[nextFreeElmt].len = nLen;
    ++nextFreeElmt;
    totalByteLen += nLen;
}

void StrStk::ShrinkIfLarge()
{
    Reset();
    if (size <= KEEP_ELEMENTS) return;
    delete[] stk;
    stk = new Elmt[initialSize];
    size = initialSize;
}

void StrStk::CopyOut(char* pDst) const
{
    for (size_t i = 0; i < nextFreeElmt; ++i) {
        if (stk[i].len != 0) memcpy(pDst, stk[i].str, stk[i].len);
        pDst += stk[i].len;
    }
}

// Several threads decode; each has its own stacks.
StrStk& StrStkG()
{
    thread_local StrStk strStkG(128, 64);
    return strStkG;
}

StrStk& StrStkUnusedBitsG()
{
    thread_local StrStk strStkUnusedBitsG(128, 64);
    return strStkUnusedBitsG;
}
