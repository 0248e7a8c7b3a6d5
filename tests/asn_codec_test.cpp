// The BER codec and the catalogue: wire forms byte for byte, decoding rules
// and failures, and a round trip of every record of the catalogue.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "asn_parse.h"
#include "zik_pkt.h"
#include "zik_sample.h"

using namespace brel_lib;
using agent_test::Bytes;
using agent_test::ConstructedString;
using agent_test::PacketOf;
using agent_test::Repeat;
using agent_test::Tlv;

namespace {

std::string Hex(const std::vector<unsigned char>& v)
{
    std::string s;
    char sz[4];
    for (unsigned char c : v) {
        snprintf(sz, sizeof(sz), "%02X ", c);
        s += sz;
    }
    return s;
}

template <class T>
std::vector<unsigned char> Encode(T& value)
{
    std::vector<char> block(1 << 16);
    char* pOut = nullptr;
    unsigned int nSize = 0;
    EXPECT_EQ(SerializeToBuffer(pOut, nSize, block.data(), static_cast<unsigned int>(block.size()), value), 0);
    return std::vector<unsigned char>(pOut, pOut + nSize);
}

// The packet around the message, as a sender builds it.
template <class T>
std::vector<unsigned char> EncodePkt(T& value, int nAppend = 0)
{
    CPacketBuffer block("Test", 0);
    unsigned int nSize = 0;
    char* p = EncodePacket(block, value, nAppend, nSize);
    EXPECT_NE(p, nullptr);
    return p == nullptr ? std::vector<unsigned char>() : std::vector<unsigned char>(p, p + nSize);
}

// Decodes and returns 0 or -1, with the bytes used and what went to stderr.
template <class T>
int Decode(T& value, std::vector<unsigned char> bytes, unsigned int* pUsed = nullptr, std::string* pErr = nullptr)
{
    testing::internal::CaptureStderr();
    unsigned int nUsed = 0;
    int ret = ParseFromBuffer(value, nUsed, reinterpret_cast<char*>(bytes.data()),
                              static_cast<unsigned int>(bytes.size()));
    std::string strErr = testing::internal::GetCapturedStderr();
    if (pUsed != nullptr) *pUsed = nUsed;
    if (pErr != nullptr) *pErr = strErr;
    return ret;
}

std::vector<unsigned char> EncodeInt(int n)
{
    AsnInt v(n);
    return Encode(v);
}

std::string Printed(const AsnType& v)
{
    std::ostringstream os;
    v.Print(os);
    return os.str();
}

const std::vector<unsigned char> HEARTBEAT_1234 = Bytes(
    {0x30, 0x10, 0x02, 0x01, 0x04, 0x02, 0x01, 0x00, 0xBF, 0x82, 0x2C, 0x06, 0x30, 0x04, 0x02, 0x02, 0x04, 0xD2});

TEST(BerWireForms, HeartbeatPacketExample)
{
    ReqWorkAgentHeartbeat heartbeat;
    heartbeat.agentId = 1234;
    std::vector<unsigned char> bytes = EncodePkt(heartbeat);
    EXPECT_EQ(Hex(bytes), Hex(HEARTBEAT_1234));
    EXPECT_EQ(heartbeat.agentId, 1234);  // the loaned message is untouched and still ours

    ZikPacket packet;
    ASSERT_EQ(Decode(packet, bytes), 0);
    EXPECT_EQ(packet.version, 4);
    EXPECT_EQ(packet.append, 0);
    ASSERT_NE(packet.body.get(), nullptr);
    EXPECT_EQ(packet.body->choiceId, Zik::reqWorkAgentHeartbeatCid);
    EXPECT_EQ(packet.body->reqWorkAgentHeartbeat->agentId, 1234);
}

TEST(BerWireForms, QueryPacketExample)
{
    ReqWorkCmdQuery query;
    query.workId = 5;
    query.routeDstAgentId = 1000;
    unsigned char ip[4] = {0xC0, 0xA8, 0x00, 0x01};
    query.routeSrcServerIp = static_cast<int>((ip[0] << 24) | (ip[1] << 16) | (ip[2] << 8) | ip[3]);
    query.routeSrcServerId = 2;
    EXPECT_EQ(Hex(EncodePkt(query, 7)),
              Hex(Bytes({0x30, 0x1B, 0x02, 0x01, 0x04, 0x02, 0x01, 0x07, 0xBF, 0x68, 0x12, 0x30, 0x10, 0x02, 0x01,
                         0x05, 0x02, 0x02, 0x03, 0xE8, 0x02, 0x04, 0xC0, 0xA8, 0x00, 0x01, 0x02, 0x01, 0x02})));
}

TEST(BerWireForms, Integers)
{
    struct {
        int n;
        std::vector<unsigned char> wire;
    } cases[] = {
        {0, Bytes({2, 1, 0x00})},
        {127, Bytes({2, 1, 0x7F})},
        {128, Bytes({2, 2, 0x00, 0x80})},
        {-1, Bytes({2, 1, 0xFF})},
        {-128, Bytes({2, 1, 0x80})},
        {-129, Bytes({2, 2, 0xFF, 0x7F})},
        {0x7FFFFFFF, Bytes({2, 4, 0x7F, 0xFF, 0xFF, 0xFF})},
        {static_cast<int>(4294967295u), Bytes({2, 1, 0xFF})},
        {static_cast<int>(0x80000000u), Bytes({2, 4, 0x80, 0x00, 0x00, 0x00})},
        {0x00800000, Bytes({2, 4, 0x00, 0x80, 0x00, 0x00})},
        {-8388609, Bytes({2, 4, 0xFF, 0x7F, 0xFF, 0xFF})},
    };
    for (auto& c : cases) {
        EXPECT_EQ(Hex(EncodeInt(c.n)), Hex(c.wire)) << c.n;
        AsnInt back;
        EXPECT_EQ(Decode(back, c.wire), 0);
        EXPECT_EQ(back.value, c.n);
    }
}

TEST(BerWireForms, Lengths)
{
    struct {
        AsnLen len;
        std::vector<unsigned char> wire;
    } cases[] = {
        {127, Bytes({0x7F})},
        {128, Bytes({0x81, 0x80})},
        {255, Bytes({0x81, 0xFF})},
        {256, Bytes({0x82, 0x01, 0x00})},
        {65535, Bytes({0x82, 0xFF, 0xFF})},
        {65536, Bytes({0x83, 0x01, 0x00, 0x00})},
        {16777125, Bytes({0x83, 0xFF, 0xFF, 0xA5})},
        {16777126, Bytes({0x84, 0x00, 0xFF, 0xFF, 0xA6})},
        {16777216, Bytes({0x84, 0x01, 0x00, 0x00, 0x00})},
    };
    for (auto& c : cases) {
        char block[16];
        AsnBuf b;
        b.Init(block, sizeof(block));
        b.ResetInWriteRvsMode();
        EXPECT_EQ(BEncDefLen(b, c.len), c.wire.size());
        EXPECT_EQ(Hex(std::vector<unsigned char>(b.DataPtr(), b.DataPtr() + b.DataLen())), Hex(c.wire)) << c.len;

        std::vector<unsigned char> in = c.wire;
        AsnBuf r;
        r.InstallData(reinterpret_cast<char*>(in.data()), in.size());
        AsnLen nUsed = 0;
        EXPECT_EQ(BDecLen(r, nUsed), c.len);
        EXPECT_EQ(nUsed, c.wire.size());
    }
}

TEST(BerWireForms, EmptyOctetString)
{
    AsnOcts empty;
    EXPECT_EQ(Hex(Encode(empty)), Hex(Bytes({0x04, 0x00})));
    AsnOcts back;
    ASSERT_EQ(Decode(back, Bytes({0x04, 0x00})), 0);
    EXPECT_EQ(back.octetLen, 0u);
    ASSERT_NE(back.octs, nullptr);
    EXPECT_EQ(back.octs[0], 0);
    EXPECT_EQ(Printed(back), "''H  -- \"\" --");
}

TEST(BerDecoding, IntegerRules)
{
    AsnInt v;
    EXPECT_EQ(Decode(v, Bytes({2, 2, 0x00, 0x01})), 0);  // non-minimal is accepted
    EXPECT_EQ(v.value, 1);

    std::string strErr;
    EXPECT_EQ(Decode(v, Bytes({2, 5, 0, 0, 0, 0, 1}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "AsnInt::BDecContent: ERROR - integer is too big to decode.\n");
    EXPECT_EQ(Decode(v, Bytes({4, 1, 0}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "AsnInt::BDec: ERROR tag on INTEGER is wrong.\n");
    EXPECT_EQ(Decode(v, Bytes({2, 2, 1}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "AsnInt::BDecContent: ERROR - decoded past end of data.\n");

    // A zero-length INTEGER takes the next octet without counting it.
    unsigned int nUsed = 0;
    EXPECT_EQ(Decode(v, Bytes({2, 0, 0x05}), &nUsed), 0);
    EXPECT_EQ(v.value, 5);
    EXPECT_EQ(nUsed, 2u);
}

TEST(BerDecoding, EmptyBufferCountsOneOctet)
{
    ZikPacket packet;
    unsigned int nUsed = 9;
    std::string strErr;
    EXPECT_EQ(Decode(packet, {}, &nUsed, &strErr), -1);
    EXPECT_EQ(nUsed, 1u);
    EXPECT_EQ(strErr, "BDecTag: ERROR - decoded past the end of data\n");
}

TEST(BerDecoding, OctetStringLengthsAreCheckedBeforeAllocating)
{
    AsnOcts v;
    std::string strErr;
    // Four gigabytes announced by a few bytes.
    EXPECT_EQ(Decode(v, Bytes({0x04, 0x84, 0xFF, 0xFF, 0xFF, 0xF0, 'a'}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "BDecOctetString: ERROR - decoded past end of data\n");
    EXPECT_EQ(v.octs, nullptr);
    // A primitive string with an indefinite length is a clean failure.
    EXPECT_EQ(Decode(v, Bytes({0x04, 0x80, 'a', 'b', 0, 0}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "BDecOctetString: ERROR - decoded past end of data\n");
    EXPECT_EQ(Decode(v, Bytes({0x04, 0x89, 1, 1, 1, 1, 1, 1, 1, 1, 1}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "BDecLen: ERROR - length overflow\n");
    EXPECT_EQ(Decode(v, Bytes({0x04, 0x83, 1}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "BDecLen: decoded past end of data\n");
}

TEST(BerDecoding, ConstructedOctetStrings)
{
    AsnOcts v;
    // Definite outer length, two primitive pieces and a nested constructed one.
    ASSERT_EQ(Decode(v, Bytes({0x24, 0x0C, 0x04, 0x02, 'a', 'b', 0x04, 0x00, 0x24, 0x04, 0x04, 0x02, 'c', 'd'})), 0);
    EXPECT_EQ(std::string(v.octs, v.octetLen), "abcd");
    // Indefinite outer length closed by an end-of-contents mark.
    unsigned int nUsed = 0;
    ASSERT_EQ(Decode(v, Bytes({0x24, 0x80, 0x04, 0x01, 'x', 0x04, 0x01, 'y', 0x00, 0x00}), &nUsed), 0);
    EXPECT_EQ(std::string(v.octs, v.octetLen), "xy");
    EXPECT_EQ(nUsed, 10u);

    std::string strErr;
    EXPECT_EQ(Decode(v, Bytes({0x24, 0x04, 0x02, 0x01, 0x01, 0x00}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr,
              "BDecConsOctetString: ERROR - decoded non-OCTET STRING tag inside a constructed OCTET STRING\n");
    EXPECT_EQ(Decode(v, Bytes({0x24, 0x04, 0x04, 0x05, 'a', 'b'}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "BDecConsOctetString: ERROR - attempt to decode past end of data\n");

    // Deep nesting fails cleanly instead of exhausting the stack.
    std::vector<unsigned char> deep;
    for (int i = 0; i < 5000; ++i) {
        deep.push_back(0x24);
        deep.push_back(0x80);
    }
    EXPECT_EQ(Decode(v, deep, nullptr, &strErr), -1);
}

// ---- time and memory in proportion to the packet ---------------------------------

TEST(BerDecodingCost, SegmentStackGrowsGeometrically)
{
    // A fixed growth step made n segments cost n squared copies: 256 KiB of
    // empty segments took a second to decode.
    StrStk stk(128, 64);
    size_t nCapacity = stk.Capacity(), nGrowths = 0;
    char c = 0;
    for (size_t i = 0; i < 1000000; ++i) {
        stk.Push(&c, 0);
        if (stk.Capacity() == nCapacity) continue;
        ASSERT_GE(stk.Capacity(), 2 * nCapacity) << "after " << nGrowths << " growths";
        nCapacity = stk.Capacity();
        ++nGrowths;
    }
    EXPECT_EQ(stk.Count(), 1000000u);
    EXPECT_LE(nGrowths, 14u);
}

TEST(BerDecodingCost, LargeConstructedStringDecodesAndTheStackGivesItsMemoryBack)
{
    // 1 MiB of empty segments inside a command: decodes, and the thread's
    // stack is back at its initial size afterwards, on success and on failure.
    std::vector<unsigned char> packetBytes = agent_test::CmdCreateWithConstructedCmd(ConstructedString(512 * 1024));
    ASSERT_GT(packetBytes.size(), 1u << 20);
    ZikPacket packet;
    unsigned int nUsed = 0;
    ASSERT_EQ(Decode(packet, packetBytes, &nUsed), 0);
    EXPECT_EQ(nUsed, packetBytes.size());
    ASSERT_EQ(packet.body->choiceId, Zik::reqWorkCmdCreateCid);
    EXPECT_EQ(packet.body->reqWorkCmdCreate->cmd.octetLen, 0u);
    EXPECT_EQ(StrStkG().Capacity(), 128u);

    std::vector<unsigned char> broken = ConstructedString(100000);
    broken.resize(broken.size() - 2);  // no end-of-contents mark
    AsnOcts v;
    EXPECT_EQ(Decode(v, broken), -1);
    EXPECT_EQ(StrStkG().Capacity(), 128u);
}

TEST(BerDecodingCost, AllocationBudgetRefusesDenseListsOfTinyElements)
{
    // reqSerialJobCreateList (700) with one job whose id list holds 200,000
    // empty strings: 400 KB of input that asked for about 20 MB of objects, and
    // a 128 MiB packet of them for gigabytes.
    std::vector<unsigned char> job = Tlv({0x30}, Repeat({0x04, 0x00}, 200000));
    std::vector<unsigned char> interval = Bytes({0x02, 0x01, 0x05});
    job.insert(job.end(), interval.begin(), interval.end());
    std::vector<unsigned char> packetBytes = PacketOf(700, Tlv({0x30}, job));
    ZikPacket packet;
    std::string strErr;
    testing::internal::CaptureStdout();
    int ret = Decode(packet, packetBytes, nullptr, &strErr);
    std::string strLog = testing::internal::GetCapturedStdout();
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(strErr, "BDecPdu: ERROR - decoding needs more memory than the packet's size allows\n");
    EXPECT_NE(strLog.find("AsnAllocBudget::Charge(decoding needs more memory than the packet's size allows, "
                          "packet size: " +
                          std::to_string(packetBytes.size())),
              std::string::npos)
        << strLog;

    // The same number of small integers, the densest shape real messages
    // have (reqJobQueryZIKAgentList, 515), stays within the budget.
    std::vector<unsigned char> ids = PacketOf(515, Repeat({0x02, 0x01, 0x07}, 200000));
    ZikPacket list;
    ASSERT_EQ(Decode(list, ids), 0);
    EXPECT_EQ(list.body->reqJobQueryZIKAgentList->Count(), 200000u);

    // A large string costs about its own size.
    RspWorkFileAgentGet get;
    std::string content(4 << 20, 'z');
    get.content.ReSet(content.data(), content.size());
    ZikPacket back;
    ASSERT_EQ(Decode(back, EncodePkt(get)), 0);
    EXPECT_EQ(back.body->rspWorkFileAgentGet->content.octetLen, content.size());
}

TEST(BerDecoding, SequenceRules)
{
    ReqWorkAgentHeartbeat hb;
    std::string strErr;
    // One field too many under a definite length.
    EXPECT_EQ(Decode(hb, Bytes({0x30, 0x06, 0x02, 0x01, 0x07, 0x02, 0x01, 0x08}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "ERROR - Length discrepancy on sequence.\n");
    // ... and under an indefinite length the end-of-contents test fails.
    EXPECT_EQ(Decode(hb, Bytes({0x30, 0x80, 0x02, 0x01, 0x07, 0x02, 0x01, 0x08, 0, 0}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "BDecEoc: ERROR - non zero byte in EOC or end of data reached\n");
    // Indefinite and closed properly.
    ASSERT_EQ(Decode(hb, Bytes({0x30, 0x80, 0x02, 0x01, 0x07, 0, 0})), 0);
    EXPECT_EQ(hb.agentId, 7);
    EXPECT_EQ(Decode(hb, Bytes({0x31, 0x03, 0x02, 0x01, 0x07}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "ReqWorkAgentHeartbeat::BDec: ERROR - wrong tag\n");
    EXPECT_EQ(Decode(hb, Bytes({0x30, 0x03, 0x04, 0x01, 0x07}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "ERROR - SEQUENCE is missing non-optional elmt.\n");
}

TEST(BerDecoding, IndefiniteListsAndChoices)
{
    // ReqAllSessionKey with an indefinite list and a packet with an indefinite CHOICE wrapper.
    std::vector<unsigned char> bytes = Bytes({0x30, 0x80, 0x02, 0x01, 0x04, 0x02, 0x01, 0x00, 0xBF, 0x86, 0x24, 0x80,
                                              0x30, 0x80, 0x02, 0x01, 0x02,              // moduleType
                                              0x30, 0x80, 0x02, 0x01, 0x0A, 0x02, 0x01, 0x0B, 0x00, 0x00,  // ids
                                              0x02, 0x01, 0x01, 0x02, 0x01, 0x02,        // ip, port
                                              0x00, 0x00,                                // record
                                              0x00, 0x00,                                // wrapper
                                              0x00, 0x00});                              // packet
    ZikPacket packet;
    unsigned int nUsed = 0;
    ASSERT_EQ(Decode(packet, bytes, &nUsed), 0);
    EXPECT_EQ(nUsed, bytes.size());
    ASSERT_EQ(packet.body->choiceId, Zik::reqAllSessionKeyCid);
    ReqAllSessionKey& req = *packet.body->reqAllSessionKey;
    EXPECT_EQ(req.ids.Count(), 2u);
    EXPECT_EQ(req.ids.First()->value, 10);
    EXPECT_EQ(req.ids.Last()->value, 11);
    EXPECT_EQ(req.srcServerPort, 2);
}

TEST(BerDecoding, PacketEnvelopeQuirks)
{
    const std::vector<unsigned char>& hb = HEARTBEAT_1234;
    // Trailing bytes after a packet still decode; the size used tells the caller.
    std::vector<unsigned char> trailing = hb;
    trailing.push_back(0x99);
    trailing.push_back(0x98);
    ZikPacket packet;
    unsigned int nUsed = 0;
    EXPECT_EQ(Decode(packet, trailing, &nUsed), 0);
    EXPECT_EQ(nUsed, hb.size());

    // An unknown body tag gives the SEQUENCE text, not the CHOICE one.
    std::vector<unsigned char> unknown = hb;
    unknown[10] = 0x2B;  // tag 299
    ZikPacket other;
    std::string strErr;
    EXPECT_EQ(Decode(other, unknown, nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "ERROR - SEQUENCE is missing non-optional elmt.\n");

    // Any version is accepted.
    std::vector<unsigned char> v99 = hb;
    v99[4] = 99;
    ZikPacket p99;
    EXPECT_EQ(Decode(p99, v99), 0);
    EXPECT_EQ(p99.version, 99);

    // The CHOICE itself reports an unknown tag with its own text.
    Zik zik;
    EXPECT_EQ(Decode(zik, Bytes({0xBF, 0x82, 0x2B, 0x02, 0x30, 0x00}), nullptr, &strErr), -1);
    EXPECT_EQ(strErr, "ERROR - unexpected tag in CHOICE\n");
}

TEST(BerEncoding, TooSmallBlockCountsTheExactSize)
{
    ReqWorkCmdCreate create;
    create.workId = 77;
    create.cmd = "echo hello";
    create.execUser = "root";
    std::vector<unsigned char> whole = Encode(create);

    std::vector<char> block(whole.size() - 1);
    char* pOut = nullptr;
    unsigned int nSize = 0;
    EXPECT_EQ(SerializeToBuffer(pOut, nSize, block.data(), static_cast<unsigned int>(block.size()), create), -1);
    EXPECT_EQ(pOut, nullptr);
    EXPECT_EQ(nSize, whole.size());

    // The growing block of a sender: the retry gives the same bytes.
    CPacketBuffer pktBuf("Test", 0);
    char* p = pktBuf.PacketObjToBuffer(nSize, create);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::vector<unsigned char>(p, p + nSize), whole);
    EXPECT_EQ(pktBuf.Size(), whole.size());
    CPacketBuffer bigBuf("Test", 1024);
    bigBuf.PacketObjToBuffer(nSize, create);
    EXPECT_EQ(bigBuf.Size(), 1024u);
}

TEST(BerValues, CloneIsADefaultObjectAndAssignmentDeepCopies)
{
    RspWorkCmdQuery a;
    a.workId = 3;
    a.stdOut = "out";
    std::unique_ptr<AsnType> clone(a.Clone());
    RspWorkCmdQuery* pClone = dynamic_cast<RspWorkCmdQuery*>(clone.get());
    ASSERT_NE(pClone, nullptr);
    EXPECT_EQ(pClone->workId, 0);
    EXPECT_EQ(pClone->stdOut.octetLen, 0u);

    RspWorkCmdQuery b;
    b = a;
    a.stdOut = "changed";
    EXPECT_EQ(std::string(b.stdOut.octs, b.stdOut.octetLen), "out");
    b = b;
    EXPECT_EQ(b.workId, 3);

    RspWorkAgentInfo info;
    info.agentInfo = new WorkAgentInfo;
    info.agentInfo->agentId = 9;
    RspWorkAgentInfo copy;
    copy = info;
    EXPECT_NE(copy.agentInfo.get(), info.agentInfo.get());
    EXPECT_EQ(copy.agentInfo->agentId, 9);
    RspWorkAgentInfo none;
    copy = none;
    EXPECT_EQ(copy.agentInfo.get(), nullptr);
}

TEST(BerValues, Printing)
{
    WorkAgentInfo info;
    info.agentId = 1;
    info.version = 2;
    info.startTime = 3;
    info.region = -4;
    RspWorkAgentInfo rsp;
    EXPECT_EQ(Printed(rsp), "{ -- SEQUENCE --\n    agentInfo -- void --\n}");
    rsp.agentInfo = new WorkAgentInfo;
    *rsp.agentInfo = info;
    EXPECT_EQ(Printed(rsp),
              "{ -- SEQUENCE --\n    agentInfo { -- SEQUENCE --\n        agentId 1,\n        version 2,\n"
              "        startTime 3,\n        region -4\n    }\n}");

    EXPECT_EQ(Printed(AsnOcts("Az\x01", 3)), "'417a01'H  -- \"Az.\" --");
    EXPECT_EQ(Printed(AsnOcts("a b\n", 4)), "'6120620a'H  -- \"a b \" --");

    ReqAllSessionKeySeqOf ids;
    ids.Append()->value = 5;
    ids.Append()->value = 6;
    EXPECT_EQ(Printed(ids), "{ -- SEQUENCE/SET OF -- \n    5,\n    6\n}\n");
    Zik zik;
    EXPECT_EQ(Printed(zik), "-- void3 --\n");

    ZikPacket packet;
    packet.version = 4;
    packet.append = 0;
    EXPECT_EQ(Printed(packet), "{ -- SEQUENCE --\n    version 4,\n    append 0,\n    body -- void --\n}");
}

TEST(BerValues, ListOperations)
{
    ReqAllSessionKeySeqOf list;
    EXPECT_EQ(list.Curr(), nullptr);
    EXPECT_EQ(list.GetCurrElmtIndex(), 0u);
    list.Append()->value = 2;
    list.Prepend()->value = 1;
    list.SetCurrToLast();
    list.InsertAfter()->value = 4;
    list.InsertBefore()->value = 3;
    AsnInt five(5);
    list.SetCurrToFirst();
    list.AppendCopy(five);
    EXPECT_EQ(list.Curr()->value, 1);  // the copy forms leave curr
    std::vector<int> values;
    for (AsnInt* p = list.First(); p != nullptr; p = list.GoNext()) values.push_back(p->value);
    EXPECT_EQ(values, (std::vector<int>{1, 2, 3, 4, 5}));
    list.SetCurrElmt(99);
    EXPECT_EQ(list.Curr()->value, 5);
    EXPECT_EQ(list.GetCurrElmtIndex(), 4u);
    list.RemoveCurrFromList();
    EXPECT_EQ(list.Curr()->value, 4);  // the last was removed: curr is the new last
    list.SetCurrToFirst();
    list.RemoveCurrFromList();
    EXPECT_EQ(list.Curr()->value, 2);
    EXPECT_EQ(list.Count(), 3u);
    ReqAllSessionKeySeqOf copy;
    copy = list;
    EXPECT_EQ(copy.Count(), 3u);
    EXPECT_EQ(copy.Last()->value, 4);
}

TEST(BerValues, BitStrings)
{
    AsnBits bits(12);
    bits.SetBit(0);
    bits.SetBit(11);
    bits.SetBit(12);  // beyond the length: ignored
    EXPECT_TRUE(bits.GetBit(0));
    EXPECT_FALSE(bits.GetBit(1));
    EXPECT_FALSE(bits.GetBit(12));
    std::vector<unsigned char> wire = Encode(bits);
    EXPECT_EQ(Hex(wire), Hex(Bytes({0x03, 0x03, 0x04, 0x80, 0x10})));
    AsnBits back;
    ASSERT_EQ(Decode(back, wire), 0);
    EXPECT_TRUE(back.BitsEquiv(bits));
    EXPECT_EQ(Printed(back), "'8010'H  -- BIT STRING bitlen = 12 --");
    AsnBits cons;
    ASSERT_EQ(Decode(cons, Bytes({0x23, 0x08, 0x03, 0x02, 0x00, 0x80, 0x03, 0x02, 0x04, 0x10})), 0);
    EXPECT_EQ(cons.BitLen(), 12u);
    std::string strErr;
    EXPECT_EQ(Decode(cons, Bytes({0x23, 0x08, 0x03, 0x02, 0x04, 0x80, 0x03, 0x02, 0x04, 0x10}), nullptr, &strErr), -1);
    EXPECT_NE(strErr.find("that is not the last has non-zero unused bits"), std::string::npos);
    EXPECT_TRUE(AsnBits().BitsEquiv(AsnBits()));
}

// ---- every record of the catalogue round-trips ------------------------------------

void Fill(AsnType& value, unsigned int& nSeed, bool bEmpty)
{
    EXPECT_TRUE(agent_test::FillSample(value, nSeed, bEmpty)) << "unknown value type";
}

template <class T>
void ExpectRoundTrip(T& value, const char* szName)
{
    std::vector<unsigned char> wire = Encode(value);
    T back;
    unsigned int nUsed = 0;
    std::string strErr;
    ASSERT_EQ(Decode(back, wire, &nUsed, &strErr), 0) << szName << ": " << strErr;
    EXPECT_EQ(nUsed, wire.size()) << szName;
    EXPECT_EQ(Encode(back), wire) << szName;
    EXPECT_EQ(Printed(back), Printed(value)) << szName;
}

TEST(Catalogue, EveryAlternativeRoundTrips)
{
    EXPECT_EQ(ZIK_CHOICE_COUNT, 104);
    for (bool bEmpty : {false, true}) {
        for (int cid = 0; cid < ZIK_CHOICE_COUNT; ++cid) {
            unsigned int nSeed = static_cast<unsigned int>(cid * 31);
            ZikPacket packet;
            packet.version = 4;
            packet.append = cid * 1000 - 7;
            packet.body = new Zik;
            Fill(*packet.body->Select(cid), nSeed, bEmpty);
            SCOPED_TRACE(packet.body->AltName(cid));
            // The wire compared again after the decode holds the choice's tag and the append.
            ExpectRoundTrip(packet, packet.body->AltName(cid));
        }
    }
}

TEST(Catalogue, EveryRecordAndListRoundTripsAlone)
{
    int nCount = 0;
#define TEST_SEQ(Name)                                  \
    for (bool bEmpty : {false, true}) {                 \
        unsigned int nSeed = 17;                        \
        Name value;                                     \
        Fill(value, nSeed, bEmpty);                     \
        ExpectRoundTrip(value, #Name);                  \
    }                                                   \
    ++nCount;
#define TEST_LIST(Name, Elem) TEST_SEQ(Name)
#define TEST_CHOICE(Name)
    ZIK_CATALOGUE(TEST_SEQ, TEST_LIST, TEST_CHOICE)
    EXPECT_GT(nCount, 180);
}

TEST(Catalogue, ChoiceListElementsHaveNoExtraTag)
{
    // A list of a CHOICE: each element is just the alternative's wrapper.
    ReqJobCreateSeqOf steps;
    JobStepSingle* pStep = steps.Append();
    static_cast<JobStepShellCmd*>(pStep->Select(JobStepSingle::jobStepShellCmdCid))->agentId = 1;
    std::vector<unsigned char> wire = Encode(steps);
    ASSERT_GE(wire.size(), 4u);
    EXPECT_EQ(wire[0], 0x30);
    EXPECT_EQ(wire[2], 0xBF);
    EXPECT_EQ(wire[3], 0x64);

    // Context tags below 31 are one octet: A0, A1, A2.
    ReqJobAuthoritySeqOf auth;
    auth.Append()->Select(ReqStepAuthority::reqStepTemplateAuthorityCid);
    wire = Encode(auth);
    EXPECT_EQ(wire[2], 0xA2);
}

} // namespace
