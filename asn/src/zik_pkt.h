// The packet envelope ZikPacket, the CHOICE Zik of all 104 messages and every
// record of the catalogue, produced from the table in zik_catalogue.def.
#pragma once

#include "asn_compound.h"
#include "asn_parse.h"
#include "zik_catalogue.def"

// Forward declarations of every class of the catalogue.
#define ZIK_FWD_SEQ(Name) class Name;
#define ZIK_FWD_LIST(Name, Elem) class Name;
#define ZIK_FWD_CHOICE(Name) class Name;
ZIK_CATALOGUE(ZIK_FWD_SEQ, ZIK_FWD_LIST, ZIK_FWD_CHOICE)

// A record: its fields as members, everything else from AsnSeq. The copy
// constructor is not available; assignment is a deep copy.
#define ZIK_MEMBER(Type, name) Type name;
#define ZIK_DECLARE_SEQ(Name)                                                   \
    class Name : public AsnSeq {                                                \
    public:                                                                     \
        ZIK_FIELDS_##Name(ZIK_MEMBER)                                           \
        Name() = default;                                                       \
        Name(const Name&) = delete;                                             \
        Name& operator=(const Name&) = default;                                 \
        AsnType* Clone() const override { return new Name; }                    \
        const char* TypeName() const override { return #Name; }                 \
        int GetFields(AsnField* pFields) override;                              \
    };

// A list: the element type, everything else from AsnList.
#define ZIK_DECLARE_LIST(Name, Elem)                                            \
    class Name : public AsnList<Elem> {                                         \
    public:                                                                     \
        Name() = default;                                                       \
        Name(const Name&) = delete;                                             \
        Name& operator=(const Name&) = default;                                 \
        AsnType* Clone() const override { return new Name; }                    \
        const char* TypeName() const override { return #Name; }                 \
    };

// A CHOICE: choiceId, a union of pointers to the alternatives, the coding
// from AsnChoice. The object owns its alternative.
#define ZIK_ALT_CID(alt, Class, tag) alt##Cid,
#define ZIK_ALT_PTR(alt, Class, tag) Class* alt;
#define ZIK_DECLARE_CHOICE(Name)                                                \
    class Name : public AsnChoice {                                             \
    public:                                                                     \
        enum ChoiceIdEnum { ZIK_ALTS_##Name(ZIK_ALT_CID) };                     \
        ChoiceIdEnum choiceId;                                                  \
        union {                                                                 \
            ZIK_ALTS_##Name(ZIK_ALT_PTR)                                        \
        };                                                                      \
        Name();                                                                 \
        ~Name() override;                                                       \
        Name(const Name&) = delete;                                             \
        Name& operator=(const Name& o);                                         \
        AsnType* Clone() const override { return new Name; }                    \
        static bool TagMatches(AsnTag tag);                                     \
        static const AsnChoiceTable& TableOf();                                 \
        /* Points the CHOICE at an alternative it does not own (a loan for */   \
        /* encoding); Unlend gives it back before the CHOICE is destroyed. */   \
        void Lend(ChoiceIdEnum cid, AsnType* pAlt);                             \
        void Unlend();                                                          \
                                                                                \
    protected:                                                                  \
        const AsnChoiceTable& Table() const override { return TableOf(); }      \
        int ChoiceIndex() const override { return choiceId; }                   \
        AsnType* GetAlt() const override;                                       \
        AsnType* NewAlt(int i) override;                                        \
                                                                                \
    private:                                                                    \
        void SetPtr(int i, AsnType* p);                                         \
        void DeleteAlt();                                                       \
    };

ZIK_CATALOGUE(ZIK_DECLARE_SEQ, ZIK_DECLARE_LIST, ZIK_DECLARE_CHOICE)

// The choice id of each alternative class of Zik: ZikChoiceOf<ReqWorkCmdCreate>::value.
template <class T>
struct ZikChoiceOf;
#define ZIK_CHOICE_OF(alt, Class, tag)                                          \
    template <>                                                                 \
    struct ZikChoiceOf<Class> {                                                 \
        static const Zik::ChoiceIdEnum value = Zik::alt##Cid;                   \
    };
ZIK_ALTS_Zik(ZIK_CHOICE_OF)

// Number of alternatives of Zik.
#define ZIK_COUNT_ALT(alt, Class, tag) +1
const int ZIK_CHOICE_COUNT = 0 ZIK_ALTS_Zik(ZIK_COUNT_ALT);

// The version every packet the agent builds carries.
const int ZIK_PACKET_VERSION = 4;

// Encodes a message as the body of a packet (version 4, the given append)
// without copying it: the packet borrows the message for the encoding only.
// Returns the bytes inside the block of pktBuf, or null.
template <class T>
char* EncodePacket(brel_lib::CPacketBuffer& pktBuf, T& msg, int nAppend, unsigned int& nOutSize)
{
    ZikPacket packet;
    packet.version = ZIK_PACKET_VERSION;
    packet.append = nAppend;
    packet.body = new Zik;
    packet.body->Lend(ZikChoiceOf<T>::value, &msg);
    char* pOut = pktBuf.PacketObjToBuffer(nOutSize, packet);
    packet.body->Unlend();
    return pOut;
}
