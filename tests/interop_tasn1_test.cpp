// Interoperability with an independent BER implementation (Debian's
// libtasn1) over an ASN.1 module written for the envelope and a sample of the
// catalogue: what it encodes decodes with our codec to the same values, and
// what ours encodes decodes with it, field by field.
#include <gtest/gtest.h>
#include <libtasn1.h>

#include <string>
#include <vector>

#include "asn_parse.h"
#include "zik_pkt.h"
#include "zik_sample.h"

using agent_test::Encoded;
using agent_test::Printed;

namespace {

// The alternatives that the module declares.
const char* const g_szSampleAlts[] = {
    "reqWorkCmdCreate",      "rspWorkCmdQuery",  "reqWorkCmdCreateEnc",     "rspWorkFileAgentGet",
    "reqWorkAgentHeartbeat", "rspWorkAgentInfo", "reqJobCreateList",        "reqJobQueryZIKAgentList",
    "rspJobQueryZIKAgent",   "reqJobAuthority",  "reqSerialJobCreateList",
};

std::string Join(const std::string& strPath, const std::string& strName)
{
    return strPath.empty() ? strName : strPath + "." + strName;
}

int CidOf(const std::string& strAlt)
{
    Zik zik;
    for (int i = 0; i < zik.AltCount(); ++i) {
        if (strAlt == zik.AltName(i)) return i;
    }
    return -1;
}

class TasnInterop : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        char szErr[ASN1_MAX_ERROR_DESCRIPTION_SIZE] = "";
        int ret = asn1_parser2tree(INTEROP_MODULE, &s_definitions, szErr);
        ASSERT_EQ(ret, ASN1_SUCCESS) << szErr;
    }
    static void TearDownTestSuite() { asn1_delete_structure(&s_definitions); }

    void SetUp() override
    {
        ASSERT_NE(s_definitions, nullptr);
        ASSERT_EQ(asn1_create_element(s_definitions, "ZikInterop.ZikPacket", &m_node), ASN1_SUCCESS);
    }
    void TearDown() override { asn1_delete_structure(&m_node); }

    // Walks our value along the library's tree: puts each field at its path (bWrite), or
    // compares the decoded tree's field there with ours.
    void Walk(const std::string& strPath, AsnType& value, bool bWrite)
    {
        SCOPED_TRACE(strPath);
        if (auto* pInt = dynamic_cast<AsnInt*>(&value)) {
            uint32_t u = static_cast<uint32_t>(pInt->value);
            unsigned char be[4] = {static_cast<unsigned char>(u >> 24), static_cast<unsigned char>(u >> 16),
                                   static_cast<unsigned char>(u >> 8), static_cast<unsigned char>(u)};
            if (bWrite) {
                ASSERT_EQ(asn1_write_value(m_node, strPath.c_str(), be, 4), ASN1_SUCCESS);
                return;
            }
            std::vector<unsigned char> v = Read(strPath);
            ASSERT_TRUE(!v.empty() && v.size() <= 5u) << v.size();
            u = (v[0] & 0x80) ? 0xFFFFFFFFu : 0;
            for (unsigned char c : v) u = (u << 8) | c;
            EXPECT_EQ(static_cast<int32_t>(u), pInt->value);
        } else if (auto* pOcts = dynamic_cast<AsnOcts*>(&value)) {
            // A length of 0 would make the library take strlen of the value.
            const void* pData = pOcts->octetLen == 0 ? "" : pOcts->octs;
            if (bWrite) {
                ASSERT_EQ(asn1_write_value(m_node, strPath.c_str(), pData, static_cast<int>(pOcts->octetLen)),
                          ASN1_SUCCESS);
                return;
            }
            std::vector<unsigned char> v = Read(strPath);
            EXPECT_EQ(std::string(v.begin(), v.end()), std::string(pOcts->octs, pOcts->octetLen));
        } else if (auto* pSeq = dynamic_cast<AsnSeq*>(&value)) {
            AsnField fields[AsnSeq::MAX_FIELDS];
            int n = pSeq->GetFields(fields);
            for (int i = 0; i < n; ++i) {
                AsnType* pField = fields[i].pValue != nullptr ? fields[i].pValue : fields[i].pPtr->GetValue();
                ASSERT_NE(pField, nullptr);
                Walk(Join(strPath, fields[i].szName), *pField, bWrite);
            }
        } else if (auto* pList = dynamic_cast<AsnListBase*>(&value)) {
            // Through the typed list of any element: walk the generic elements.
            int nCount = -1;
            if (!bWrite) {
                ASSERT_EQ(asn1_number_of_elements(m_node, strPath.c_str(), &nCount), ASN1_SUCCESS);
                ASSERT_EQ(static_cast<unsigned long>(nCount), pList->Count());
            }
            for (unsigned long i = 0; i < pList->Count(); ++i) {
                if (bWrite) {
                    ASSERT_EQ(asn1_write_value(m_node, strPath.c_str(), "NEW", 1), ASN1_SUCCESS);
                }
                pList->SetCurrElmt(i);
                Walk(Join(strPath, bWrite ? "?LAST" : "?" + std::to_string(i + 1)), *pList->CurrElmt(), bWrite);
            }
        } else if (auto* pChoice = dynamic_cast<AsnChoice*>(&value)) {
            // The library names a CHOICE's alternative.
            std::string strAlt = pChoice->AltName(pChoice->AltIndex());
            if (bWrite) {
                ASSERT_EQ(asn1_write_value(m_node, strPath.c_str(), strAlt.c_str(), 1), ASN1_SUCCESS);
            } else {
                std::vector<unsigned char> name = Read(strPath);
                while (!name.empty() && name.back() == 0) name.pop_back();
                ASSERT_EQ(std::string(name.begin(), name.end()), strAlt);
            }
            Walk(Join(strPath, strAlt), *pChoice->Alternative(), bWrite);
        } else {
            FAIL() << "unknown value type";
        }
    }

    // The library's tree made afresh from our bytes.
    void TheyDecode(const std::vector<unsigned char>& wire)
    {
        asn1_delete_structure(&m_node);
        ASSERT_EQ(asn1_create_element(s_definitions, "ZikInterop.ZikPacket", &m_node), ASN1_SUCCESS);
        char szErr[ASN1_MAX_ERROR_DESCRIPTION_SIZE] = "";
        ASSERT_EQ(asn1_der_decoding(&m_node, wire.data(), static_cast<int>(wire.size()), szErr), ASN1_SUCCESS)
            << szErr;
    }

    // The library's bytes for our packet, written into a fresh tree.
    std::vector<unsigned char> TheyEncode(ZikPacket& packet, size_t nCapacity)
    {
        asn1_delete_structure(&m_node);
        EXPECT_EQ(asn1_create_element(s_definitions, "ZikInterop.ZikPacket", &m_node), ASN1_SUCCESS);
        Walk("", packet, true);
        std::vector<unsigned char> theirs(nCapacity);
        int nLen = static_cast<int>(theirs.size());
        char szErr[ASN1_MAX_ERROR_DESCRIPTION_SIZE] = "";
        EXPECT_EQ(asn1_der_coding(m_node, "", theirs.data(), &nLen, szErr), ASN1_SUCCESS) << szErr;
        theirs.resize(static_cast<size_t>(std::max(nLen, 0)));
        return theirs;
    }

    // Our decode of the bytes, which must use them all; 0 or -1.
    static int WeDecode(ZikPacket& back, std::vector<unsigned char> bytes)
    {
        unsigned int nUsed = 0;
        int ret = brel_lib::ParseFromBuffer(back, nUsed, reinterpret_cast<char*>(bytes.data()),
                                            static_cast<unsigned int>(bytes.size()));
        EXPECT_EQ(nUsed, bytes.size());
        return ret;
    }

    std::vector<unsigned char> Read(const std::string& strPath)
    {
        int nLen = 0;
        int ret = asn1_read_value(m_node, strPath.c_str(), nullptr, &nLen);
        EXPECT_TRUE(ret == ASN1_MEM_ERROR || ret == ASN1_SUCCESS) << strPath << ": " << asn1_strerror(ret);
        std::vector<unsigned char> v(static_cast<size_t>(nLen) + 1);
        nLen = static_cast<int>(v.size());
        ret = asn1_read_value(m_node, strPath.c_str(), v.data(), &nLen);
        EXPECT_EQ(ret, ASN1_SUCCESS) << strPath << ": " << asn1_strerror(ret);
        v.resize(ret == ASN1_SUCCESS ? static_cast<size_t>(nLen) : 0);
        return v;
    }

    static asn1_node s_definitions;
    asn1_node m_node = nullptr;
};

asn1_node TasnInterop::s_definitions = nullptr;

// A packet of the alternative, filled from the seed.
void MakeSample(ZikPacket& packet, int cid, unsigned int nSeed, bool bEmpty)
{
    packet.version = ZIK_PACKET_VERSION;
    packet.append = static_cast<int>(nSeed * 7919u);
    packet.body = new Zik;
    ASSERT_TRUE(agent_test::FillSample(*packet.body->Select(cid), nSeed, bEmpty));
}

// Seeds 0 to 3 pick each alternative of the CHOICEs inside the messages once.
const unsigned int SEEDS = 4;

// Both ways for every sample: what we encode the library decodes to the same
// values; what it encodes from them we decode to the same values, and both
// sides send minimal definite lengths and integers, so the bytes are the same.
TEST_F(TasnInterop, EachSideDecodesTheOthersPacketsToTheSameValues)
{
    for (const char* szAlt : g_szSampleAlts) {
        int cid = CidOf(szAlt);
        ASSERT_GE(cid, 0) << szAlt;
        for (bool bEmpty : {false, true}) {
            for (unsigned int nSeed = 0; nSeed < SEEDS; ++nSeed) {
                SCOPED_TRACE(std::string(szAlt) + (bEmpty ? " empty" : "") + " seed " + std::to_string(nSeed));
                ZikPacket packet;
                MakeSample(packet, cid, nSeed, bEmpty);
                std::vector<unsigned char> wire = Encoded(packet);
                TheyDecode(wire);
                Walk("", packet, false);
                std::vector<unsigned char> theirs = TheyEncode(packet, 1 << 20);
                ZikPacket back;
                ASSERT_EQ(WeDecode(back, theirs), 0);
                EXPECT_EQ(Printed(back), Printed(packet));
                EXPECT_EQ(theirs, wire);
            }
        }
    }
}

TEST_F(TasnInterop, LongStringsAndLengthForms)
{
    // Contents of 127, 128, 255, 256, 65,535, 65,536 and 512 KiB bytes walk
    // every length form up to three octets both ways.
    int cid = CidOf("rspWorkFileAgentGet");
    for (size_t nLen : {size_t(127), size_t(128), size_t(255), size_t(256), size_t(65535), size_t(65536),
                        size_t(512 * 1024)}) {
        SCOPED_TRACE(nLen);
        ZikPacket packet;
        MakeSample(packet, cid, 1, false);
        std::string strContent(nLen, '\0');
        for (size_t i = 0; i < nLen; ++i) strContent[i] = static_cast<char>(i * 131 + 7);
        packet.body->rspWorkFileAgentGet->content.ReSet(strContent.data(), strContent.size());
        std::vector<unsigned char> wire = Encoded(packet);
        TheyDecode(wire);
        Walk("", packet, false);
        std::vector<unsigned char> theirs = TheyEncode(packet, nLen + 4096);
        EXPECT_EQ(theirs, wire);
        ZikPacket back;
        ASSERT_EQ(WeDecode(back, theirs), 0);
        EXPECT_TRUE(back.body->rspWorkFileAgentGet->content.OctsEquiv(packet.body->rspWorkFileAgentGet->content));
    }
}

} // namespace
