#include "asn_compound.h"

#include <algorithm>
#include <string>

#include "asn_steps.h"

// ---- SEQUENCE --------------------------------------------------------------------

namespace {

bool FieldMatchesTag(const AsnField& field, AsnTag tag)
{
    return field.pValue != nullptr ? field.pValue->MatchesTag(tag) : field.pPtr->TypeMatchesTag(tag);
}

// Reads the tag, which must be 30, and the length.
AsnLen DecodeSequenceHeader(AsnBuf& b, AsnLen& bytesDecoded, const char* szTypeName, int nCode)
{
    if (BDecTag(b, bytesDecoded) != TAG_SEQUENCE) {
        std::string strText = std::string(szTypeName) + "::BDec: ERROR - wrong tag";
        AsnDecodeFail(strText.c_str(), nCode);
    }
    return BDecLen(b, bytesDecoded);
}

} // namespace

AsnLen AsnSeq::BEncContent(AsnBuf& b)
{
    AsnField fields[MAX_FIELDS];
    int n = GetFields(fields);
    AsnLen len = 0;
    // Backwards: the last field is written first.
    for (int i = n - 1; i >= 0; --i) {
        AsnType* pValue = fields[i].pValue;
        // A pointer member that was never set is sent as a default value of
        // its type, so that the bytes still decode.
        if (pValue == nullptr) {
            pValue = fields[i].pPtr->GetValue();
            if (pValue == nullptr) pValue = fields[i].pPtr->MakeNew();
        }
        len += pValue->BEnc(b);
    }
    return len;
}

AsnLen AsnSeq::BEnc(AsnBuf& b) { return BEncHeader(b, BEncContent(b), TAG_SEQUENCE >> 24); }

void AsnSeq::BDec(AsnBuf& b, AsnLen& bytesDecoded)
{
    AsnLen elmtLen = DecodeSequenceHeader(b, bytesDecoded, TypeName(), -100);
    BDecContent(b, TAG_SEQUENCE, elmtLen, bytesDecoded);
}

void AsnSeq::BDecContent(AsnBuf& b, AsnTag, AsnLen elmtLen, AsnLen& bytesDecoded)
{
    AsnField fields[MAX_FIELDS];
    int n = GetFields(fields);
    AsnLen seqBytesDecoded = 0;
    for (int i = 0; i < n; ++i) {
        AsnTag tag = BDecTag(b, seqBytesDecoded);
        if (!FieldMatchesTag(fields[i], tag)) AsnDecodeFail("ERROR - SEQUENCE is missing non-optional elmt.", -101);
        AsnLen fieldLen = BDecLen(b, seqBytesDecoded);
        // A pointer member is stored before its content is decoded, so that a
        // failure leaves an object that its destructor can release.
        AsnType* pValue = fields[i].pValue != nullptr ? fields[i].pValue : fields[i].pPtr->MakeNew();
        pValue->BDecContent(b, tag, fieldLen, seqBytesDecoded);
    }
    bytesDecoded += seqBytesDecoded;
    if (elmtLen == INDEFINITE_LEN) {
        BDecEoc(b, bytesDecoded);
    } else if (seqBytesDecoded != elmtLen) {
        AsnDecodeFail("ERROR - Length discrepancy on sequence.", -102);
    }
}

void AsnSeq::Print(std::ostream& os) const
{
    AsnField fields[MAX_FIELDS];
    int n = const_cast<AsnSeq*>(this)->GetFields(fields);
    unsigned short& indent = IndentG();
    os << "{ -- SEQUENCE --" << std::endl;
    indent = static_cast<unsigned short>(indent + stdIndentG);
    for (int i = 0; i < n; ++i) {
        Indent(os, indent);
        os << fields[i].szName << ' ';
        const AsnType* pValue = fields[i].pValue != nullptr ? fields[i].pValue : fields[i].pPtr->GetValue();
        if (pValue == nullptr) {
            os << "-- void --";
        } else {
            pValue->Print(os);
        }
        if (i + 1 < n) os << ',';
        os << std::endl;
    }
    indent = static_cast<unsigned short>(indent - stdIndentG);
    Indent(os, indent);
    os << '}';
}

// ---- SEQUENCE OF -----------------------------------------------------------------

namespace {

typedef AsnListBase::AsnListElmt ListElmt;

// Links p between pPrev and pNext, neighbours of each other; a null one is
// an end of the list, whose first or last p becomes.
ListElmt* LinkBetween(ListElmt* p, ListElmt* pPrev, ListElmt* pNext, ListElmt*& first, ListElmt*& last)
{
    p->prev = pPrev;
    p->next = pNext;
    (pPrev != nullptr ? pPrev->next : first) = p;
    (pNext != nullptr ? pNext->prev : last) = p;
    return p;
}

} // namespace

AsnListBase::AsnListElmt* AsnListBase::NewNode()
{
    AsnAllocBudget::Charge(sizeof(AsnListElmt));
    AsnAllocBudget::Charge(ElmtSize());
    AsnListElmt* p = new AsnListElmt{nullptr, nullptr, nullptr};
    p->elmt = NewElmt();
    ++count;
    return p;
}

// Each insertion makes the new element the current one.
AsnType* AsnListBase::AppendBase()
{
    curr = LinkBetween(NewNode(), last, nullptr, first, last);
    return curr->elmt;
}

AsnType* AsnListBase::PrependBase()
{
    curr = LinkBetween(NewNode(), nullptr, first, first, last);
    return curr->elmt;
}

AsnType* AsnListBase::InsertBeforeBase()
{
    if (curr == nullptr) return PrependBase();
    curr = LinkBetween(NewNode(), curr->prev, curr, first, last);
    return curr->elmt;
}

AsnType* AsnListBase::InsertAfterBase()
{
    if (curr == nullptr) return AppendBase();
    curr = LinkBetween(NewNode(), curr, curr->next, first, last);
    return curr->elmt;
}

void AsnListBase::SetCurrElmt(unsigned long i)
{
    curr = first;
    for (unsigned long n = 0; n < i && curr != nullptr && curr->next != nullptr; ++n) curr = curr->next;
}

unsigned long AsnListBase::GetCurrElmtIndex() const
{
    if (curr == nullptr) return count;
    unsigned long i = 0;
    for (const AsnListElmt* p = first; p != nullptr && p != curr; p = p->next) ++i;
    return i;
}

void AsnListBase::RemoveCurrFromList()
{
    if (curr == nullptr) return;
    AsnListElmt* p = curr;
    if (p->prev != nullptr) p->prev->next = p->next;
    if (p->next != nullptr) p->next->prev = p->prev;
    if (p == first) {
        first = p->next;
        curr = first;
    }
    if (p == last) {
        last = p->prev;
        curr = last;
    }
    if (first == nullptr) curr = nullptr;
    --count;
    delete p->elmt;
    delete p;
}

void AsnListBase::Clear()
{
    for (AsnListElmt* p = first; p != nullptr;) {
        AsnListElmt* pNext = p->next;
        delete p->elmt;
        delete p;
        p = pNext;
    }
    first = curr = last = nullptr;
    count = 0;
}

AsnLen AsnListBase::BEncContent(AsnBuf& b)
{
    AsnLen len = 0;
    // A CHOICE element writes only its wrapped alternative: its BEnc is its content.
    for (AsnListElmt* p = last; p != nullptr; p = p->prev) len += p->elmt->BEnc(b);
    return len;
}

AsnLen AsnListBase::BEnc(AsnBuf& b) { return BEncHeader(b, BEncContent(b), TAG_SEQUENCE >> 24); }

void AsnListBase::BDec(AsnBuf& b, AsnLen& bytesDecoded)
{
    AsnLen elmtLen = DecodeSequenceHeader(b, bytesDecoded, TypeName(), -103);
    BDecContent(b, TAG_SEQUENCE, elmtLen, bytesDecoded);
}

void AsnListBase::BDecContent(AsnBuf& b, AsnTag, AsnLen elmtLen, AsnLen& bytesDecoded)
{
    bytesDecoded += BDecElmts(b, elmtLen, [&](AsnTag tag, AsnLen& listBytesDecoded) {
        if (!ElmtMatchesTag(tag)) AsnDecodeFail("Unexpected Tag", -104);
        AsnLen itemLen = BDecLen(b, listBytesDecoded);
        // Linked before its content is decoded, so a failure leaves nothing unowned.
        AsnType* pElmt = AppendBase();
        pElmt->BDecContent(b, tag, itemLen, listBytesDecoded);
    });
}

void AsnListBase::Print(std::ostream& os) const
{
    unsigned short& indent = IndentG();
    os << "{ -- SEQUENCE/SET OF -- " << std::endl;
    indent = static_cast<unsigned short>(indent + stdIndentG);
    for (const AsnListElmt* p = first; p != nullptr; p = p->next) {
        Indent(os, indent);
        p->elmt->Print(os);
        if (p != last) os << ',';
        os << std::endl;
    }
    indent = static_cast<unsigned short>(indent - stdIndentG);
    Indent(os, indent);
    os << '}' << std::endl;
}

// ---- CHOICE ----------------------------------------------------------------------

AsnChoiceTable::AsnChoiceTable(const AsnChoiceAlt* pAlts, int nAlts) : m_pAlts(pAlts), m_nAlts(nAlts)
{
    for (int i = 0; i < nAlts; ++i) {
        m_vecOctets.push_back(ContextTagOctets(pAlts[i].nTagNumber));
        m_vecSorted.emplace_back(ContextTagPacked(pAlts[i].nTagNumber), i);
    }
    std::sort(m_vecSorted.begin(), m_vecSorted.end());
}

int AsnChoiceTable::Find(AsnTag tag) const
{
    auto it = std::lower_bound(m_vecSorted.begin(), m_vecSorted.end(), std::make_pair(tag, -1));
    return it != m_vecSorted.end() && it->first == tag ? it->second : -1;
}

AsnLen AsnChoiceTable::EncodeTag(AsnBuf& b, int i) const
{
    const std::vector<unsigned char>& octets = m_vecOctets[static_cast<size_t>(i)];
    return BEncTagOctets(b, octets.data(), octets.size());
}

AsnLen AsnChoice::BEncContent(AsnBuf& b)
{
    int i = ChoiceIndex();
    AsnType* pAlt = GetAlt();
    if (i < 0 || i >= Table().Count() || pAlt == nullptr) return 0;
    // The explicit wrapper: the alternative's own SEQUENCE inside its context tag.
    AsnLen len = pAlt->BEnc(b);
    len += BEncDefLen(b, len);
    len += Table().EncodeTag(b, i);
    return len;
}

void AsnChoice::BDec(AsnBuf& b, AsnLen& bytesDecoded)
{
    AsnTag tag = BDecTag(b, bytesDecoded);
    AsnLen elmtLen = BDecLen(b, bytesDecoded);
    BDecContent(b, tag, elmtLen, bytesDecoded);
}

void AsnChoice::BDecContent(AsnBuf& b, AsnTag tag, AsnLen elmtLen, AsnLen& bytesDecoded)
{
    int i = Table().Find(tag);
    if (i < 0) AsnDecodeFail("ERROR - unexpected tag in CHOICE", -105);
    AsnTag innerTag = BDecTag(b, bytesDecoded);
    if (innerTag != TAG_SEQUENCE) AsnDecodeFail("Unexpected Tag", -106);
    AsnLen innerLen = BDecLen(b, bytesDecoded);
    AsnType* pAlt = NewAlt(i);
    pAlt->BDecContent(b, innerTag, innerLen, bytesDecoded);
    // A definite wrapper length is not compared with what was consumed.
    if (elmtLen == INDEFINITE_LEN) BDecEoc(b, bytesDecoded);
}

void AsnChoice::Print(std::ostream& os) const
{
    const AsnType* pAlt = GetAlt();
    if (pAlt == nullptr) {
        os << "-- void3 --" << std::endl;
    } else {
        pAlt->Print(os);
    }
}
