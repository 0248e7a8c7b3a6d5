#include "file_transfer_e2e.h"

#include <fcntl.h>
#include <unistd.h>

namespace agent_test {

void AgentFileTransfer::SetUp()
{
    AgentEndToEnd::SetUp();
    if (IsSkipped()) return;
    m_pSrcTree = std::make_unique<InstallTree>();
    m_pSrcServer = std::make_unique<TestWorkServer>();
    m_pSrcServer->SetAnswerHeartbeats(true);
    Server().SetAnswerHeartbeats(true);
    unsigned short nBeginPort = FreePortPair();
    ASSERT_NE(nBeginPort, 0);
    SrcConfig()["server_port"] = std::to_string(m_pSrcServer->Port());
    SrcConfig()["heartbeat_second"] = "5";
    SrcConfig()["file_trans_svr_begin_bind_port"] = std::to_string(nBeginPort);
    DstConfig()["heartbeat_second"] = "5";
}

void AgentFileTransfer::StartAgents()
{
    m_pSrcTree->WriteConfig();
    m_nSrcPid = m_pSrcTree->StartForeground();
    EXPECT_TRUE(m_pSrcServer->WaitFor(Zik::reqWorkAgentHeartbeatCid, 5000));
    m_nDstPid = StartAgent();
}

void AgentFileTransfer::TearDown()
{
    if (IsSkipped()) return;
    if (m_nDstPid > 0) Stop(m_nDstPid);
    if (m_nSrcPid > 0) {
        kill(m_nSrcPid, SIGINT);
        EXPECT_EQ(m_pSrcTree->WaitExit(m_nSrcPid, 5000), 0);
    }
}

unsigned int AgentFileDst::Loopback()
{
    unsigned int nIp = 0;
    inet_pton(AF_INET, "127.0.0.1", &nIp);
    return nIp;
}

unsigned short OfferFile(TestWorkServer& server, unsigned int nWorkId, const std::string& strPath, int nFlag)
{
    size_t nBefore = server.Packets().size();
    ReqWorkFileSrcCreate req;
    req.workId = static_cast<int>(nWorkId);
    req.srcFile.Set(strPath.data(), strPath.size());
    req.flag = nFlag;
    EXPECT_TRUE(server.Send(req, 3));
    RspWorkFileSrcCreate rsp;
    if (!server.WaitMessage(rsp, OfWork(nWorkId), 5000, nBefore)) {
        ADD_FAILURE() << "no answer to the source work " << nWorkId;
        return 0;
    }
    EXPECT_EQ(rsp.ret.value, 0);
    return static_cast<unsigned short>(rsp.srcServerPort.value);
}

// The fields both kinds of create share.
template <class T>
void FillCreate(T& req, const std::string& strSrcFile, const std::string& strDstPath, unsigned short nPort,
                unsigned int nSrcWorkId, int nFlag, int nTimeout)
{
    req.srcFile.Set(strSrcFile.data(), strSrcFile.size());
    req.dstPath.Set(strDstPath.data(), strDstPath.size());
    req.srcServerPort = nPort;
    req.srcWorkId = static_cast<int>(nSrcWorkId);
    req.flag = nFlag;
    req.timeout = nTimeout;
}

void AgentFileDst::SendCreate(unsigned int nWorkId, const std::string& strSrcFile, const std::string& strDstPath,
                              unsigned short nPort, unsigned int nSrcWorkId, int nFlag, int nAppend, unsigned int nSrcIp,
                              int nTimeout)
{
    ReqWorkFileDstCreate req;
    FillCreate(req, strSrcFile, strDstPath, nPort, nSrcWorkId, nFlag, nTimeout);
    req.srcServerIp = static_cast<int>(nSrcIp);
    req.routeSrcServerIp = 11;
    req.routeSrcServerId = 12;
    SendFor(req, nWorkId, nAppend);
}

void AgentFileDst::SendCreate2(unsigned int nWorkId, const std::string& strSrcFile, const std::string& strDstPath,
                               unsigned short nPort, unsigned int nSrcWorkId, int nFlag, unsigned long long lSize,
                               const std::vector<unsigned int>& vecIp, int nTimeout)
{
    ReqWorkFileDstCreate2 req;
    FillCreate(req, strSrcFile, strDstPath, nPort, nSrcWorkId, nFlag, nTimeout);
    for (unsigned int nIp : vecIp) *req.srcServerIp.Append() = static_cast<int>(nIp);
    req.firstSrcAgentId = static_cast<int>(Loopback());
    req.firstSrcFile.Set(strSrcFile.data(), strSrcFile.size());
    req.modifyTime = 0;
    req.totalSizeHigh = static_cast<int>(lSize >> 32);
    req.totalSizeLow = static_cast<int>(lSize & 0xFFFFFFFFU);
    SendFor(req, nWorkId, static_cast<int>(nWorkId));
}

void AgentFileDst::SendSetAction(unsigned int nWorkId, int nAppend)
{
    ReqWorkFileDstSetAction req;
    req.action = 1;
    SendFor(req, nWorkId, nAppend);
}

void AgentFileDst::SendQuery(unsigned int nWorkId, int nAppend)
{
    ReqWorkFileDstQuery req;
    SendFor(req, nWorkId, nAppend);
}

void AgentFileDst::SendDelete(unsigned int nWorkId, int nAppend)
{
    ReqWorkFileDstDelete req;
    SendFor(req, nWorkId, nAppend);
}

std::vector<int> AgentFileDst::Results(unsigned int nWorkId, size_t nFrom, int nTimeoutMs, int nQuietMs)
{
    RspWorkFileDstQuery first;
    if (!Server().WaitMessage(first, ResultOf(nWorkId), nTimeoutMs, nFrom)) return {};
    SleepMs(nQuietMs);
    std::vector<int> vecRet;
    for (const auto& m : Server().Messages<RspWorkFileDstQuery>(ResultOf(nWorkId), nFrom)) vecRet.push_back(m.msg.ret.value);
    return vecRet;
}

int AgentFileTransfer::Transfer(unsigned int nWorkId, const std::string& strSrcPath, const std::string& strDstPath,
                                int nTimeoutMs)
{
    unsigned short nPort = Offer(nWorkId, strSrcPath);
    if (nPort == 0) return -1;
    size_t nMark = Mark();
    SendCreate(nWorkId, strSrcPath, strDstPath, nPort, nWorkId);
    int ret = WaitReply<RspWorkFileDstCreate>(nWorkId, nMark, 5000);
    if (ret != 0) return ret;
    SendSetAction(nWorkId);
    RspWorkFileDstQuery result;
    return WaitResult(nWorkId, nMark, nTimeoutMs, result) ? static_cast<int>(result.ret.value) : -1;
}

std::string Pattern(size_t n, unsigned int nSeed)
{
    std::string str(n, '\0');
    for (size_t i = 0; i < n; ++i) str[i] = static_cast<char>((i * 131 + nSeed + i / 4093) & 0xFF);
    return str;
}

bool SameFile(const std::string& strA, const std::string& strB)
{
    int fdA = open(strA.c_str(), O_RDONLY);
    int fdB = open(strB.c_str(), O_RDONLY);
    bool bSame = fdA >= 0 && fdB >= 0;
    std::vector<char> bufA(1 << 20), bufB(1 << 20);
    while (bSame) {
        ssize_t nA = read(fdA, bufA.data(), bufA.size());
        ssize_t nB = 0;
        while (nB < nA) {
            ssize_t n = read(fdB, bufB.data() + nB, static_cast<size_t>(nA - nB));
            if (n <= 0) break;
            nB += n;
        }
        if (nA < 0 || nB != nA || memcmp(bufA.data(), bufB.data(), static_cast<size_t>(nA)) != 0) bSame = false;
        if (nA == 0) {
            if (bSame) bSame = read(fdB, bufB.data(), 1) == 0;
            break;
        }
    }
    if (fdA >= 0) close(fdA);
    if (fdB >= 0) close(fdB);
    return bSame;
}

} // namespace agent_test
