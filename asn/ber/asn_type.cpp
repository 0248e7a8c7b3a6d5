#include "asn_type.h"

#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "asn_steps.h"

namespace {

const char numToHexCharTblG[] = "0123456789abcdef";

// Nested constructed strings recurse; a hostile input must not exhaust the stack.
const int MAX_CONS_STRING_DEPTH = 32;

void PrintHex(std::ostream& os, const char* p, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(p[i]);
        os << numToHexCharTblG[c >> 4] << numToHexCharTblG[c & 0xf];
    }
}

} // namespace

unsigned short& IndentG()
{
    thread_local unsigned short indentG = 0;
    return indentG;
}

void Indent(std::ostream& os, unsigned short n)
{
    for (unsigned short i = 0; i < n; ++i) os << ' ';
}

// ---- AsnType ---------------------------------------------------------------------

void AsnType::BDec(AsnBuf&, AsnLen&)
{
    AsnDecodeFail("ERROR - Attempt to decode an improperly formed ANY type (programming error).", -80);
}

AsnLen AsnType::BEnc(AsnBuf&)
{
    fprintf(stderr, "ERROR - Attempt to encode an improperly formed ANY type (programming error).\n");
    return 0;
}

void AsnType::BDecContent(AsnBuf& b, AsnTag, AsnLen, AsnLen& bytesDecoded) { AsnType::BDec(b, bytesDecoded); }

AsnLen AsnType::BEncContent(AsnBuf& b) { return AsnType::BEnc(b); }

bool AsnType::MatchesTag(AsnTag) const { return false; }

void AsnType::Print(std::ostream& os) const
{
    os << "ERROR - Attempt to print an improperly formed ANY type (programming error)." << std::endl;
}

bool AsnType::BEncPdu(AsnBuf& b, AsnLen& bytesEncoded)
{
    bytesEncoded = BEnc(b);
    return !b.WriteError();
}

bool AsnType::BDecPdu(AsnBuf& b, AsnLen& bytesDecoded)
{
    bytesDecoded = 0;
    AsnAllocBudget budget(b.Remaining());
    bool bOk = true;
    try {
        BDec(b, bytesDecoded);
    } catch (const AsnDecodeError&) {
        // The object keeps what was decoded so far and stays valid for its destructor.
        bOk = false;
    }
    // The segment stacks live as long as the thread; a large constructed
    // string must not keep its memory there.
    StrStkG().ShrinkIfLarge();
    StrStkUnusedBitsG().ShrinkIfLarge();
    return bOk && !b.ReadError();
}

std::ostream& operator<<(std::ostream& os, const AsnType& v)
{
    v.Print(os);
    return os;
}

// ---- AsnInt ----------------------------------------------------------------------

AsnLen AsnInt::BEncContent(AsnBuf& b)
{
    // Minimal two's complement: drop leading octets that only repeat the sign.
    uint32_t u = static_cast<uint32_t>(value);
    AsnLen len;
    if (value >= 0) {
        len = (u & 0x7F800000u) ? 4 : (u & 0x007F8000u) ? 3 : (u & 0x00007F80u) ? 2 : 1;
    } else {
        len = ((u & 0x7F800000u) != 0x7F800000u)   ? 4
              : ((u & 0x007F8000u) != 0x007F8000u) ? 3
              : ((u & 0x00007F80u) != 0x00007F80u) ? 2
                                                   : 1;
    }
    for (AsnLen i = 0; i < len; ++i, u >>= 8) b.PutByteRvs(static_cast<unsigned char>(u));
    return len;
}

AsnLen AsnInt::BEnc(AsnBuf& b) { return BEncHeader(b, BEncContent(b), INTEGER_TAG_CODE); }

void AsnInt::BDecContent(AsnBuf& b, AsnTag, AsnLen elmtLen, AsnLen& bytesDecoded)
{
    if (elmtLen > 4) AsnDecodeFail("AsnInt::BDecContent: ERROR - integer is too big to decode.", -7);
    // One octet is read in any case, so a zero-length INTEGER takes the next
    // octet of the stream without counting it; the enclosing SEQUENCE then
    // fails on its own tests. Kept as the protocol has always decoded it.
    uint32_t u = static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(b.GetByte())));
    for (AsnLen i = 1; i < elmtLen; ++i) u = (u << 8) | b.GetByte();
    value = static_cast<AsnIntType>(u);
    bytesDecoded += elmtLen;
    if (b.ReadError()) AsnDecodeFail("AsnInt::BDecContent: ERROR - decoded past end of data.", -8);
}

void AsnInt::BDec(AsnBuf& b, AsnLen& bytesDecoded)
{
    if (BDecTag(b, bytesDecoded) != TAG_INTEGER) AsnDecodeFail("AsnInt::BDec: ERROR tag on INTEGER is wrong.", -53);
    AsnLen elmtLen = BDecLen(b, bytesDecoded);
    BDecContent(b, TAG_INTEGER, elmtLen, bytesDecoded);
}

void AsnInt::Print(std::ostream& os) const { os << value; }

// ---- AsnOcts ---------------------------------------------------------------------

// Set releases what was held too (through ReSet), so that no use of it can leak.
void AsnOcts::Set(const char* pData, size_t nLen) { ReSet(pData, nLen); }

void AsnOcts::Assign(const char* pData, size_t nLen)
{
    octetLen = nLen;
    octs = new char[nLen == 0 ? 1 : nLen];
    if (nLen != 0) memcpy(octs, pData, nLen);
}

void AsnOcts::Set(const AsnOcts& o)
{
    if (&o != this) Set(o.octs, o.octetLen);
}

void AsnOcts::Set(const char* szText) { Set(szText, strlen(szText)); }

void AsnOcts::ReSet(const char* pData, size_t nLen)
{
    if (pData == octs && pData != nullptr) return;
    char* pOld = octs;
    Assign(pData, nLen);
    delete[] pOld;
}

void AsnOcts::ReSet(const AsnOcts& o)
{
    if (&o == this) return;
    ReSet(o.octs, o.octetLen);
}

void AsnOcts::ReSet(const char* szText) { ReSet(szText, strlen(szText)); }

bool AsnOcts::OctsEquiv(const AsnOcts& o) const
{
    return octetLen == o.octetLen && (octetLen == 0 || memcmp(octs, o.octs, octetLen) == 0);
}

AsnLen AsnOcts::BEncContent(AsnBuf& b)
{
    b.PutSegRvs(octs, octetLen);
    return octetLen;
}

AsnLen AsnOcts::BEnc(AsnBuf& b) { return BEncHeader(b, BEncContent(b), OCTETSTRING_TAG_CODE); }

void AsnOcts::BDecContent(AsnBuf& b, AsnTag tag, AsnLen elmtLen, AsnLen& bytesDecoded)
{
    if (tag & TAG_CONSTRUCTED_BIT) {
        BDecConsOcts(b, elmtLen, bytesDecoded);
        return;
    }
    // The announced length is compared with the data before anything is
    // allocated, so a few hostile bytes can't ask for gigabytes. An indefinite
    // length on a primitive string fails here too.
    if (elmtLen > b.Remaining()) AsnDecodeFail("BDecOctetString: ERROR - decoded past end of data", -14);
    AsnAllocBudget::Charge(elmtLen + 1);
    delete[] octs;
    octetLen = elmtLen;
    octs = new char[elmtLen + 1];
    b.CopyOut(octs, elmtLen);
    octs[elmtLen] = 0;  // lets handlers read a decoded string as C text
    bytesDecoded += elmtLen;
}

namespace {

void FillOctetStringStk(AsnBuf& b, AsnLen elmtLen, AsnLen& bytesDecoded, int nDepth)
{
    if (nDepth > MAX_CONS_STRING_DEPTH) {
        AsnDecodeFail("BDecConsOctetString: ERROR - constructed OCTET STRING nested too deep", -17);
    }
    bytesDecoded += BDecElmts(b, elmtLen, [&](AsnTag tag, AsnLen& totalElmtsLen) {
        AsnLen innerLen = BDecLen(b, totalElmtsLen);
        if (tag == TAG_OCTETSTRING) {
            if (innerLen > b.Remaining()) {
                AsnDecodeFail("BDecConsOctetString: ERROR - attempt to decode past end of data", -15);
            }
            size_t nLen = innerLen;
            StrStkG().Push(b.GetSeg(&nLen), nLen);
            totalElmtsLen += innerLen;
        } else if (tag == TAG_OCTETSTRING_CONS) {
            FillOctetStringStk(b, innerLen, totalElmtsLen, nDepth + 1);
        } else {
            AsnDecodeFail(
                "BDecConsOctetString: ERROR - decoded non-OCTET STRING tag inside a constructed OCTET STRING", -16);
        }
    });
}

} // namespace

void AsnOcts::BDecConsOcts(AsnBuf& b, AsnLen elmtLen, AsnLen& bytesDecoded)
{
    StrStk& stk = StrStkG();
    stk.Reset();
    FillOctetStringStk(b, elmtLen, bytesDecoded, 0);
    AsnAllocBudget::Charge(stk.TotalByteLen());
    delete[] octs;
    octetLen = stk.TotalByteLen();
    octs = new char[octetLen == 0 ? 1 : octetLen];
    stk.CopyOut(octs);
}

void AsnOcts::BDec(AsnBuf& b, AsnLen& bytesDecoded)
{
    AsnTag tag = BDecTag(b, bytesDecoded);
    if (!TagMatches(tag)) AsnDecodeFail("AsnOcts::BDec: ERROR tag on OCTET STRING is wrong.", -56);
    AsnLen elmtLen = BDecLen(b, bytesDecoded);
    BDecContent(b, tag, elmtLen, bytesDecoded);
}

void AsnOcts::Print(std::ostream& os) const
{
    os << '\'';
    PrintHex(os, octs, octetLen);
    os << "'H  -- \"";
    for (size_t i = 0; i < octetLen; ++i) {
        unsigned char c = static_cast<unsigned char>(octs[i]);
        os << (isspace(c) ? ' ' : isprint(c) ? static_cast<char>(c) : '.');
    }
    os << "\" --";
}

// ---- AsnBits ---------------------------------------------------------------------

namespace {
size_t BytesOf(size_t nBits) { return (nBits + 7) / 8; }
} // namespace

void AsnBits::Set(size_t nBits)
{
    delete[] bits;
    bitLen = nBits;
    size_t n = BytesOf(nBits);
    bits = new char[n == 0 ? 1 : n]();
}

void AsnBits::Set(const char* pBits, size_t nBits) { ReSet(pBits, nBits); }

void AsnBits::Assign(const char* pBits, size_t nBits)
{
    bitLen = nBits;
    size_t n = BytesOf(nBits);
    bits = new char[n == 0 ? 1 : n];
    if (n != 0) memcpy(bits, pBits, n);
}

void AsnBits::Set(const AsnBits& o)
{
    if (&o != this) Set(o.bits, o.bitLen);
}

void AsnBits::ReSet(const char* pBits, size_t nBits)
{
    if (pBits == bits && pBits != nullptr) return;
    char* pOld = bits;
    Assign(pBits, nBits);
    delete[] pOld;
}

void AsnBits::ReSet(const AsnBits& o)
{
    if (&o != this) ReSet(o.bits, o.bitLen);
}

void AsnBits::SetBit(size_t i)
{
    if (i < bitLen) bits[i / 8] = static_cast<char>(bits[i / 8] | (0x80 >> (i % 8)));
}

void AsnBits::ClrBit(size_t i)
{
    if (i < bitLen) bits[i / 8] = static_cast<char>(bits[i / 8] & ~(0x80 >> (i % 8)));
}

bool AsnBits::GetBit(size_t i) const { return i < bitLen && (bits[i / 8] & (0x80 >> (i % 8))) != 0; }

bool AsnBits::BitsEquiv(const AsnBits& o) const
{
    if (bitLen != o.bitLen) return false;
    if (bitLen == 0) return true;
    size_t nWhole = bitLen / 8;
    if (nWhole != 0 && memcmp(bits, o.bits, nWhole) != 0) return false;
    size_t nRest = bitLen % 8;
    if (nRest == 0) return true;
    unsigned char cMask = static_cast<unsigned char>(0xFF << (8 - nRest));
    return ((bits[nWhole] ^ o.bits[nWhole]) & cMask) == 0;
}

AsnLen AsnBits::BEncContent(AsnBuf& b)
{
    size_t n = BytesOf(bitLen);
    b.PutSegRvs(bits, n);
    b.PutByteRvs(static_cast<unsigned char>((8 - bitLen % 8) % 8));
    return n + 1;
}

AsnLen AsnBits::BEnc(AsnBuf& b) { return BEncHeader(b, BEncContent(b), BITSTRING_TAG_CODE); }

void AsnBits::BDecContent(AsnBuf& b, AsnTag tag, AsnLen elmtLen, AsnLen& bytesDecoded)
{
    if (tag & TAG_CONSTRUCTED_BIT) {
        BDecConsBits(b, elmtLen, bytesDecoded);
        return;
    }
    // As for OCTET STRING: the length is checked against the data before allocating.
    if (elmtLen == 0 || elmtLen > b.Remaining()) AsnDecodeFail("BDecBitString: ERROR - decoded past end of data", -1);
    unsigned char cUnused = b.GetByte();
    size_t n = elmtLen - 1;
    AsnAllocBudget::Charge(n);
    delete[] bits;
    bits = new char[n == 0 ? 1 : n];
    b.CopyOut(bits, n);
    bitLen = n * 8 >= cUnused ? n * 8 - cUnused : 0;
    bytesDecoded += elmtLen;
}

namespace {

void FillBitStringStk(AsnBuf& b, AsnLen elmtLen, AsnLen& bytesDecoded, unsigned char& cLastUnused, int nDepth)
{
    if (nDepth > MAX_CONS_STRING_DEPTH) {
        AsnDecodeFail("BDecConsBitString: ERROR - constructed BIT STRING nested too deep", -5);
    }
    bytesDecoded += BDecElmts(b, elmtLen, [&](AsnTag tag, AsnLen& totalElmtsLen) {
        AsnLen innerLen = BDecLen(b, totalElmtsLen);
        if (tag == TAG_BITSTRING) {
            if (cLastUnused != 0) {
                AsnDecodeFail("BDecConsBitString: ERROR - a component of a constructed BIT STRING that is not the "
                              "last has non-zero unused bits",
                              -2);
            }
            if (innerLen == 0 || innerLen > b.Remaining()) {
                AsnDecodeFail("BDecConsOctetString: ERROR - expecting more data", -3);
            }
            cLastUnused = b.GetByte();
            size_t nLen = innerLen - 1;
            StrStkUnusedBitsG().Push(b.GetSeg(&nLen), nLen);
            totalElmtsLen += innerLen;
        } else if (tag == TAG_BITSTRING_CONS) {
            FillBitStringStk(b, innerLen, totalElmtsLen, cLastUnused, nDepth + 1);
        } else {
            AsnDecodeFail("BDecConsBitString: ERROR - decoded non-BIT STRING tag inside a constructed BIT STRING", -4);
        }
    });
}

} // namespace

void AsnBits::BDecConsBits(AsnBuf& b, AsnLen elmtLen, AsnLen& bytesDecoded)
{
    StrStk& stk = StrStkUnusedBitsG();
    stk.Reset();
    unsigned char cLastUnused = 0;
    FillBitStringStk(b, elmtLen, bytesDecoded, cLastUnused, 0);
    AsnAllocBudget::Charge(stk.TotalByteLen());
    delete[] bits;
    size_t n = stk.TotalByteLen();
    bits = new char[n == 0 ? 1 : n];
    stk.CopyOut(bits);
    bitLen = n * 8 >= cLastUnused ? n * 8 - cLastUnused : 0;
}

void AsnBits::BDec(AsnBuf& b, AsnLen& bytesDecoded)
{
    AsnTag tag = BDecTag(b, bytesDecoded);
    if (!MatchesTag(tag)) AsnDecodeFail("AsnBits::BDec: ERROR tag on BIT STRING is wrong.", -50);
    AsnLen elmtLen = BDecLen(b, bytesDecoded);
    BDecContent(b, tag, elmtLen, bytesDecoded);
}

void AsnBits::Print(std::ostream& os) const
{
    os << '\'';
    PrintHex(os, bits, BytesOf(bitLen));
    os << "'H  -- BIT STRING bitlen = " << bitLen << " --";
}
