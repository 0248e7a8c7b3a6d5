// The value classes of the BER codec: the base AsnType, INTEGER, OCTET STRING
// and BIT STRING, and the indent state of printing.
#pragma once

#include <ostream>

#include "asn_buf.h"

// Print state: the current indent and its step. One per thread.
unsigned short& IndentG();
const unsigned short stdIndentG = 4;
void Indent(std::ostream& os, unsigned short n);

class AsnType {
public:
    virtual ~AsnType() = default;
    // A new default-constructed object of the same class: no copy of the value.
    virtual AsnType* Clone() const { return nullptr; }
    // Tag, length and content.
    virtual void BDec(AsnBuf& b, AsnLen& bytesDecoded);
    virtual AsnLen BEnc(AsnBuf& b);
    // The content alone, given the tag and the length already read.
    virtual void BDecContent(AsnBuf& b, AsnTag tag, AsnLen elmtLen, AsnLen& bytesDecoded);
    virtual AsnLen BEncContent(AsnBuf& b);
    // Whether a member of this type may start with the tag.
    virtual bool MatchesTag(AsnTag tag) const;
    virtual void Print(std::ostream& os) const;

    // Whole messages: true on success. bytesEncoded is the exact size a block
    // needs, also when it did not fit.
    bool BEncPdu(AsnBuf& b, AsnLen& bytesEncoded);
    bool BDecPdu(AsnBuf& b, AsnLen& bytesDecoded);
};

std::ostream& operator<<(std::ostream& os, const AsnType& v);

class AsnInt : public AsnType {
public:
    AsnInt() = default;
    AsnInt(int n) : value(n) {}
    operator int() const { return value; }
    AsnInt& operator=(int n)
    {
        value = n;
        return *this;
    }

    AsnType* Clone() const override { return new AsnInt; }
    void BDec(AsnBuf& b, AsnLen& bytesDecoded) override;
    AsnLen BEnc(AsnBuf& b) override;
    void BDecContent(AsnBuf& b, AsnTag tag, AsnLen elmtLen, AsnLen& bytesDecoded) override;
    AsnLen BEncContent(AsnBuf& b) override;
    bool MatchesTag(AsnTag tag) const override { return TagMatches(tag); }
    void Print(std::ostream& os) const override;
    static bool TagMatches(AsnTag tag) { return tag == TAG_INTEGER; }

    // Unsigned 32-bit quantities of the protocol travel as their bit pattern.
    AsnIntType value = 0;
};

class AsnOcts : public AsnType {
public:
    AsnOcts() = default;
    explicit AsnOcts(const char* szText) { Set(szText); }
    AsnOcts(const char* pData, size_t nLen) { Set(pData, nLen); }
    AsnOcts(const AsnOcts& o) : AsnType() { Set(o); }
    ~AsnOcts() override { delete[] octs; }

    // Set and ReSet copy the data into an array of exactly its length, without
    // a terminator; a no-op when the source is the held array.
    void Set(const char* pData, size_t nLen);
    void Set(const AsnOcts& o);
    void Set(const char* szText);
    void ReSet(const char* pData, size_t nLen);
    void ReSet(const AsnOcts& o);
    void ReSet(const char* szText);
    AsnOcts& operator=(const char* szText)
    {
        ReSet(szText);
        return *this;
    }
    AsnOcts& operator=(const AsnOcts& o)
    {
        ReSet(o);
        return *this;
    }
    size_t Len() const { return octetLen; }
    operator char*() const { return octs; }
    bool OctsEquiv(const AsnOcts& o) const;

    AsnType* Clone() const override { return new AsnOcts; }
    void BDec(AsnBuf& b, AsnLen& bytesDecoded) override;
    AsnLen BEnc(AsnBuf& b) override;
    void BDecContent(AsnBuf& b, AsnTag tag, AsnLen elmtLen, AsnLen& bytesDecoded) override;
    AsnLen BEncContent(AsnBuf& b) override;
    bool MatchesTag(AsnTag tag) const override { return TagMatches(tag); }
    void Print(std::ostream& os) const override;
    static bool TagMatches(AsnTag tag) { return tag == TAG_OCTETSTRING || tag == TAG_OCTETSTRING_CONS; }

    size_t octetLen = 0;
    char* octs = nullptr;  // owned; a decoded primitive string carries a 0 behind its data

private:
    void Assign(const char* pData, size_t nLen);
    void BDecConsOcts(AsnBuf& b, AsnLen elmtLen, AsnLen& bytesDecoded);
};

// Part of the runtime for completeness; no message uses it.
class AsnBits : public AsnType {
public:
    AsnBits() = default;
    explicit AsnBits(size_t nBits) { Set(nBits); }
    AsnBits(const AsnBits& o) : AsnType() { Set(o); }
    ~AsnBits() override { delete[] bits; }

    void Set(size_t nBits);  // a zeroed value of that many bits
    void Set(const char* pBits, size_t nBits);
    void Set(const AsnBits& o);
    void ReSet(const char* pBits, size_t nBits);
    void ReSet(const AsnBits& o);
    AsnBits& operator=(const AsnBits& o)
    {
        ReSet(o);
        return *this;
    }
    void SetBit(size_t i);
    void ClrBit(size_t i);
    bool GetBit(size_t i) const;
    bool BitsEquiv(const AsnBits& o) const;
    size_t BitLen() const { return bitLen; }

    AsnType* Clone() const override { return new AsnBits; }
    void BDec(AsnBuf& b, AsnLen& bytesDecoded) override;
    AsnLen BEnc(AsnBuf& b) override;
    void BDecContent(AsnBuf& b, AsnTag tag, AsnLen elmtLen, AsnLen& bytesDecoded) override;
    AsnLen BEncContent(AsnBuf& b) override;
    bool MatchesTag(AsnTag tag) const override { return tag == TAG_BITSTRING || tag == TAG_BITSTRING_CONS; }
    void Print(std::ostream& os) const override;

    size_t bitLen = 0;
    char* bits = nullptr;  // owned; bit 0 is the top bit of the first byte

private:
    void Assign(const char* pBits, size_t nBits);
    void BDecConsBits(AsnBuf& b, AsnLen elmtLen, AsnLen& bytesDecoded);
};
