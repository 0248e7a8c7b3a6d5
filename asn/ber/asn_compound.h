// The compound classes of the codec: SEQUENCE records, SEQUENCE OF lists and
// CHOICEs. Their coding, printing and copying are written once here; a
// catalogue class only names its fields, element type or alternatives.
#pragma once

#include "asn_type.h"

// ---- owned pointer members ------------------------------------------------------

// A member that is itself a record or a CHOICE: owned, null after construction.
class AsnPtrBase {
public:
    virtual ~AsnPtrBase() = default;
    virtual AsnType* GetValue() const = 0;
    // Replaces the held object by a new default-constructed one.
    virtual AsnType* MakeNew() = 0;
    virtual bool TypeMatchesTag(AsnTag tag) const = 0;
};

template <class T>
class AsnPtr : public AsnPtrBase {
public:
    AsnPtr() = default;
    ~AsnPtr() override { delete m_p; }
    AsnPtr(const AsnPtr&) = delete;
    // Deep copy; a null source leaves this null.
    AsnPtr& operator=(const AsnPtr& o)
    {
        if (this == &o) return *this;
        if (o.m_p == nullptr) {
            Reset(nullptr);
        } else {
            if (m_p == nullptr) m_p = new T;
            *m_p = *o.m_p;
        }
        return *this;
    }
    // Takes ownership.
    AsnPtr& operator=(T* p)
    {
        Reset(p);
        return *this;
    }
    void Reset(T* p)
    {
        if (p == m_p) return;
        delete m_p;
        m_p = p;
    }
    T* Release()
    {
        T* p = m_p;
        m_p = nullptr;
        return p;
    }
    T* get() const { return m_p; }
    T* operator->() const { return m_p; }
    T& operator*() const { return *m_p; }
    operator T*() const { return m_p; }

    AsnType* GetValue() const override { return m_p; }
    AsnType* MakeNew() override
    {
        AsnAllocBudget::Charge(sizeof(T));
        Reset(new T);
        return m_p;
    }
    bool TypeMatchesTag(AsnTag tag) const override { return T::TagMatches(tag); }

private:
    T* m_p = nullptr;
};

// ---- SEQUENCE --------------------------------------------------------------------

// One field of a record: a member held by value, or an owned pointer member.
struct AsnField {
    const char* szName;
    AsnType* pValue;
    AsnPtrBase* pPtr;

    static AsnField Of(const char* szName, AsnType& value) { return AsnField{szName, &value, nullptr}; }
    static AsnField Of(const char* szName, AsnPtrBase& ptr) { return AsnField{szName, nullptr, &ptr}; }
};

class AsnSeq : public AsnType {
public:
    enum { MAX_FIELDS = 32 };

    void BDec(AsnBuf& b, AsnLen& bytesDecoded) override;
    AsnLen BEnc(AsnBuf& b) override;
    void BDecContent(AsnBuf& b, AsnTag tag, AsnLen elmtLen, AsnLen& bytesDecoded) override;
    AsnLen BEncContent(AsnBuf& b) override;
    bool MatchesTag(AsnTag tag) const override { return TagMatches(tag); }
    void Print(std::ostream& os) const override;
    static bool TagMatches(AsnTag tag) { return tag == TAG_SEQUENCE; }

    virtual const char* TypeName() const = 0;
    // Fills the fields in declared order; returns their number.
    virtual int GetFields(AsnField* pFields) = 0;

protected:
    AsnSeq() = default;
    AsnSeq(const AsnSeq&) = default;
    AsnSeq& operator=(const AsnSeq&) = default;
};

// ---- SEQUENCE OF -----------------------------------------------------------------

// A doubly linked list with a current element, as the list operations of the
// protocol's classes have always worked. Elements are owned.
class AsnListBase : public AsnType {
public:
    struct AsnListElmt {
        AsnListElmt* next;
        AsnListElmt* prev;
        AsnType* elmt;
    };

    ~AsnListBase() override { Clear(); }

    unsigned long Count() const { return count; }
    void SetCurrToFirst() { curr = first; }
    void SetCurrToLast() { curr = last; }
    // The i-th element counted from 0, clamped to the last; null on an empty list.
    void SetCurrElmt(unsigned long i);
    unsigned long GetCurrElmtIndex() const;
    // Unlinks and releases the current element. After a middle element the
    // current position is undefined and must be set again.
    void RemoveCurrFromList();
    void Clear();
    // Appends a default element whatever the element type (for generic code).
    AsnType* AppendElmt() { return AppendBase(); }
    // The current element whatever the element type (for generic code).
    AsnType* CurrElmt() const { return ValueOf(curr); }

    void BDec(AsnBuf& b, AsnLen& bytesDecoded) override;
    AsnLen BEnc(AsnBuf& b) override;
    void BDecContent(AsnBuf& b, AsnTag tag, AsnLen elmtLen, AsnLen& bytesDecoded) override;
    AsnLen BEncContent(AsnBuf& b) override;
    bool MatchesTag(AsnTag tag) const override { return tag == TAG_SEQUENCE; }
    void Print(std::ostream& os) const override;
    static bool TagMatches(AsnTag tag) { return tag == TAG_SEQUENCE; }

    virtual const char* TypeName() const = 0;

protected:
    AsnListBase() = default;
    AsnListBase(const AsnListBase&) = delete;
    AsnListBase& operator=(const AsnListBase&) = delete;

    virtual AsnType* NewElmt() const = 0;
    // Bytes of one element object, for the decoding's allocation budget.
    virtual size_t ElmtSize() const = 0;
    virtual bool ElmtMatchesTag(AsnTag tag) const = 0;

    AsnType* AppendBase();
    AsnType* PrependBase();
    AsnType* InsertBeforeBase();
    AsnType* InsertAfterBase();
    AsnType* ValueOf(const AsnListElmt* p) const { return p == nullptr ? nullptr : p->elmt; }

    unsigned long count = 0;
    AsnListElmt* first = nullptr;
    AsnListElmt* curr = nullptr;
    AsnListElmt* last = nullptr;

private:
    AsnListElmt* NewNode();
};

template <class T>
class AsnList : public AsnListBase {
public:
    AsnList() = default;
    AsnList& operator=(const AsnList& o)
    {
        if (this == &o) return *this;
        Clear();
        for (const AsnListElmt* p = o.first; p != nullptr; p = p->next) AppendCopy(*static_cast<T*>(p->elmt));
        return *this;
    }

    T* Append() { return static_cast<T*>(AppendBase()); }
    T* Prepend() { return static_cast<T*>(PrependBase()); }
    T* InsertBefore() { return static_cast<T*>(InsertBeforeBase()); }
    T* InsertAfter() { return static_cast<T*>(InsertAfterBase()); }
    // The copy forms leave the current element where it was.
    AsnList& AppendCopy(const T& v) { return CopyAt(&AsnList::AppendBase, v); }
    AsnList& PrependCopy(const T& v) { return CopyAt(&AsnList::PrependBase, v); }
    AsnList& InsertBeforeAndCopy(const T& v) { return CopyAt(&AsnList::InsertBeforeBase, v); }
    AsnList& InsertAfterAndCopy(const T& v) { return CopyAt(&AsnList::InsertAfterBase, v); }

    T* First() const { return static_cast<T*>(ValueOf(first)); }
    T* Last() const { return static_cast<T*>(ValueOf(last)); }
    T* Curr() const { return static_cast<T*>(ValueOf(curr)); }
    T* Next() const { return curr == nullptr ? nullptr : static_cast<T*>(ValueOf(curr->next)); }
    T* Prev() const { return curr == nullptr ? nullptr : static_cast<T*>(ValueOf(curr->prev)); }
    T* GoNext()
    {
        if (curr != nullptr) curr = curr->next;
        return Curr();
    }
    T* GoPrev()
    {
        if (curr != nullptr) curr = curr->prev;
        return Curr();
    }

protected:
    AsnType* NewElmt() const override { return new T; }
    size_t ElmtSize() const override { return sizeof(T); }
    bool ElmtMatchesTag(AsnTag tag) const override { return T::TagMatches(tag); }

private:
    AsnList& CopyAt(AsnType* (AsnListBase::*pInsert)(), const T& v)
    {
        AsnListElmt* pKeep = curr;
        *static_cast<T*>((this->*pInsert)()) = v;
        curr = pKeep;
        return *this;
    }
};

// ---- CHOICE ----------------------------------------------------------------------

// One alternative: its name and the constructed context tag that wraps it.
struct AsnChoiceAlt {
    const char* szName;
    unsigned int nTagNumber;
};

// Precomputed wire and packed forms of a CHOICE's tags, with a sorted index.
class AsnChoiceTable {
public:
    AsnChoiceTable(const AsnChoiceAlt* pAlts, int nAlts);
    int Count() const { return m_nAlts; }
    const char* Name(int i) const { return m_pAlts[i].szName; }
    // Index of the alternative with this packed tag, or -1.
    int Find(AsnTag tag) const;
    AsnLen EncodeTag(AsnBuf& b, int i) const;

private:
    const AsnChoiceAlt* m_pAlts;
    int m_nAlts;
    std::vector<std::vector<unsigned char>> m_vecOctets;
    std::vector<std::pair<AsnTag, int>> m_vecSorted;
};

class AsnChoice : public AsnType {
public:
    // Number of alternatives, and a new default alternative of index i made
    // the active one (for generic code).
    int AltCount() const { return Table().Count(); }
    AsnType* Select(int i) { return i >= 0 && i < AltCount() ? NewAlt(i) : nullptr; }
    AsnType* Alternative() const { return GetAlt(); }
    int AltIndex() const { return ChoiceIndex(); }
    const char* AltName(int i) const { return Table().Name(i); }

    void BDec(AsnBuf& b, AsnLen& bytesDecoded) override;
    AsnLen BEnc(AsnBuf& b) override { return BEncContent(b); }
    void BDecContent(AsnBuf& b, AsnTag tag, AsnLen elmtLen, AsnLen& bytesDecoded) override;
    AsnLen BEncContent(AsnBuf& b) override;
    bool MatchesTag(AsnTag tag) const override { return Table().Find(tag) >= 0; }
    void Print(std::ostream& os) const override;

protected:
    virtual const AsnChoiceTable& Table() const = 0;
    virtual int ChoiceIndex() const = 0;
    // The active alternative, or null.
    virtual AsnType* GetAlt() const = 0;
    // Releases the active alternative and makes a new one of index i.
    virtual AsnType* NewAlt(int i) = 0;
};
