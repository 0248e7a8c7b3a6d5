// The speed adaption on a real slow link: the session in-process, in a
// network namespace of the test's own whose loopback a token bucket limits,
// and a test peer that answers the gets as a source would. The size that the
// destination asks for comes down from the configured one.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>

#include <atomic>
#include <thread>

#include "md5.h"
#include "session_harness.h"

using namespace agent_test;

namespace {

const unsigned int PRE_GET_MARK = 0x80000000U;

class FileDstSpeed : public ::testing::Test {
protected:
    // Before any thread: the namespace and its limit stay with this process.
    void SetUp() override
    {
        if (getuid() != 0 || unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "no network namespace here";
        // A small MTU, so that the bucket's burst holds a whole packet.
        if (system("ip link set lo mtu 1500 up && tc qdisc add dev lo root tbf rate 2mbit burst 16kb latency 2s") != 0)
            GTEST_SKIP() << "no tbf on the namespace's loopback";
        m_pSource = std::make_unique<TestWorkServer>();
        m_pSession = std::make_unique<SessionHarness>("");
        m_pSession->Start();
        m_responder = std::thread([this] { Respond(); });
    }
    void TearDown() override
    {
        m_bStop = true;
        if (m_responder.joinable()) m_responder.join();
        m_pSession.reset();
        m_pSource.reset();
    }

    // Answers every get and look-ahead with its blocks, as a source does.
    void Respond()
    {
        size_t nSeen = 0;
        while (!m_bStop) {
            std::vector<TestWorkServer::Received> packets = m_pSource->Packets();
            for (; nSeen < packets.size() && !m_bStop; ++nSeen) {
                ReqWorkFileAgentGet get;
                if (!DecodeBody(packets[nSeen], get)) continue;
                unsigned long long lPos =
                    (static_cast<unsigned long long>(static_cast<unsigned int>(get.beginPosHigh.value) & ~PRE_GET_MARK)
                     << 32) |
                    static_cast<unsigned int>(get.beginPosLow.value);
                for (int i = 0; i < get.getNum.value && lPos < m_lTotal && !m_bStop; ++i) {
                    unsigned long long lLen = std::min<unsigned long long>(get.getSize.value, m_lTotal - lPos);
                    std::string strBlock(static_cast<size_t>(lLen), static_cast<char>('a' + (lPos / 4096) % 26));
                    RspWorkFileAgentGet rsp;
                    rsp.dstWorkId = get.dstWorkId;
                    rsp.srcWorkId = get.srcWorkId;
                    rsp.content.Set(strBlock.data(), strBlock.size());
                    std::string strMd5 = brel_lib::md5(strBlock);
                    rsp.md5.Set(strMd5.data(), strMd5.size());
                    rsp.beginPosHigh = static_cast<int>(lPos >> 32);
                    rsp.beginPosLow = static_cast<int>(lPos & 0xFFFFFFFFU);
                    rsp.totalSizeHigh = static_cast<int>(m_lTotal >> 32);
                    rsp.totalSizeLow = static_cast<int>(m_lTotal & 0xFFFFFFFFU);
                    m_pSource->Send(rsp, 0);
                    lPos += lLen;
                }
            }
            usleep(5000);
        }
    }

    const unsigned long long m_lTotal = 64ULL << 20;
    std::unique_ptr<TestWorkServer> m_pSource;
    std::unique_ptr<SessionHarness> m_pSession;
    std::thread m_responder;
    std::atomic<bool> m_bStop{false};
};

TEST_F(FileDstSpeed, UnderARateLimitTheRequestSizeComesDown)
{
    unsigned int nIp = 0;
    inet_pton(AF_INET, "127.0.0.1", &nIp);
    ReqWorkFileDstCreate req;
    req.workId = 1;
    req.srcFile = "/src/file";
    std::string strDst = m_pSession->Path("slow");
    req.dstPath.Set(strDst.data(), strDst.size());
    req.srcServerIp = static_cast<int>(nIp);
    req.srcServerPort = m_pSource->Port();
    m_pSession->Send(req);
    RspWorkFileDstCreate created;
    ASSERT_TRUE(m_pSession->Next(created));
    ASSERT_EQ(created.ret.value, 0);
    ReqWorkFileDstSetAction action;
    action.workId = 1;
    m_pSession->Send(action);
    RspWorkFileDstSetAction started;
    ASSERT_TRUE(m_pSession->Next(started));

    // At 2 Mbit/s the link gives some 250 KB/s, under the lowest floor of
    // 256 KiB/s: once a period is ripe, the network's tier is 16 KiB.
    bool bDown = WaitUntil(
        [&] {
            for (const TestWorkServer::Received& r : m_pSource->Packets()) {
                ReqWorkFileAgentGet get;
                if (DecodeBody(r, get) && static_cast<unsigned int>(get.getSize.value) == 0x4000) return true;
            }
            return false;
        },
        60000);
    EXPECT_TRUE(bDown);
    std::vector<TestWorkServer::Received> packets = m_pSource->Packets();
    ReqWorkFileAgentGet first;
    ASSERT_TRUE(DecodeBody(packets.at(0), first));
    EXPECT_EQ(static_cast<unsigned int>(first.getSize.value), 0x80000u) << "the pull starts at the configured size";
}

} // namespace
