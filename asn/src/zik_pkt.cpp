// The generated parts of the catalogue's classes: field lists of the records,
// and the alternative tables and switches of the CHOICEs.
#include "zik_pkt.h"

#define ZIK_COUNT_FIELD(Type, name) +1
#define ZIK_FIELD_REF(Type, name) pFields[n++] = AsnField::Of(#name, name);
#define ZIK_DEFINE_SEQ(Name)                                                            \
    static_assert(0 ZIK_FIELDS_##Name(ZIK_COUNT_FIELD) <= AsnSeq::MAX_FIELDS,            \
                  #Name " has more fields than AsnSeq::MAX_FIELDS");                    \
    int Name::GetFields(AsnField* pFields)                                              \
    {                                                                                   \
        int n = 0;                                                                      \
        ZIK_FIELDS_##Name(ZIK_FIELD_REF) (void)pFields;                                 \
        return n;                                                                       \
    }

#define ZIK_ALT_ENTRY(alt, Class, tag) {#alt, tag},
#define ZIK_ALT_GET(alt, Class, tag) \
    case alt##Cid:                   \
        return alt;
#define ZIK_ALT_SET(alt, Class, tag)   \
    case alt##Cid:                     \
        alt = static_cast<Class*>(p); \
        return;
#define ZIK_ALT_NEW(alt, Class, tag)          \
    case alt##Cid:                            \
        AsnAllocBudget::Charge(sizeof(Class)); \
        alt = new Class;                      \
        return alt;
#define ZIK_ALT_COPY(alt, Class, tag)     \
    case alt##Cid:                        \
        alt = nullptr;                    \
        if (o.alt != nullptr) {           \
            alt = new Class;              \
            *alt = *o.alt;                \
        }                                 \
        return *this;

#define ZIK_DEFINE_CHOICE(Name)                                                         \
    const AsnChoiceTable& Name::TableOf()                                               \
    {                                                                                   \
        static const AsnChoiceAlt alts[] = {ZIK_ALTS_##Name(ZIK_ALT_ENTRY)};            \
        static const AsnChoiceTable table(alts, sizeof(alts) / sizeof(alts[0]));       \
        return table;                                                                   \
    }                                                                                   \
    bool Name::TagMatches(AsnTag tag) { return TableOf().Find(tag) >= 0; }              \
    Name::Name() : choiceId(static_cast<ChoiceIdEnum>(0)) { SetPtr(0, nullptr); }       \
    Name::~Name() { DeleteAlt(); }                                                      \
    AsnType* Name::GetAlt() const                                                       \
    {                                                                                   \
        switch (choiceId) { ZIK_ALTS_##Name(ZIK_ALT_GET) }                              \
        return nullptr;                                                                 \
    }                                                                                   \
    void Name::SetPtr(int i, AsnType* p)                                                \
    {                                                                                   \
        switch (i) { ZIK_ALTS_##Name(ZIK_ALT_SET) }                                     \
    }                                                                                   \
    void Name::DeleteAlt()                                                              \
    {                                                                                   \
        delete GetAlt();                                                                \
        SetPtr(choiceId, nullptr);                                                      \
    }                                                                                   \
    AsnType* Name::NewAlt(int i)                                                        \
    {                                                                                   \
        DeleteAlt();                                                                    \
        choiceId = static_cast<ChoiceIdEnum>(i);                                        \
        switch (choiceId) { ZIK_ALTS_##Name(ZIK_ALT_NEW) }                              \
        return nullptr;                                                                 \
    }                                                                                   \
    Name& Name::operator=(const Name& o)                                                \
    {                                                                                   \
        if (this == &o) return *this;                                                   \
        DeleteAlt();                                                                    \
        choiceId = o.choiceId;                                                          \
        switch (choiceId) { ZIK_ALTS_##Name(ZIK_ALT_COPY) }                             \
        return *this;                                                                   \
    }                                                                                   \
    void Name::Lend(ChoiceIdEnum cid, AsnType* pAlt)                                    \
    {                                                                                   \
        DeleteAlt();                                                                    \
        choiceId = cid;                                                                 \
        SetPtr(cid, pAlt);                                                              \
    }                                                                                   \
    void Name::Unlend() { SetPtr(choiceId, nullptr); }

#define ZIK_DEFINE_LIST(Name, Elem)

ZIK_CATALOGUE(ZIK_DEFINE_SEQ, ZIK_DEFINE_LIST, ZIK_DEFINE_CHOICE)
