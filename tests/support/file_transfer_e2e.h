// Two real agents in two install trees, each with its own test work server:
// one offers files as a source, the other pulls them as a destination. The
// helpers speak the work server's side of a transfer.
#pragma once

#include <arpa/inet.h>

#include <memory>
#include <string>

#include "agent_e2e.h"
#include "file_peer.h"

namespace agent_test {

// Asks the agent behind the server for a source work for the path; the port it
// offers the file on, 0 on failure.
unsigned short OfferFile(TestWorkServer& server, unsigned int nWorkId, const std::string& strPath, int nFlag = 0);

// Accepts the final reports (status 2) of one work.
inline auto ResultOf(unsigned int nWorkId)
{
    return [nWorkId](const RspWorkFileDstQuery& m) { return OfWork(nWorkId)(m) && m.status.value == 2; };
}

// A destination agent driven as the work server would, towards any source:
// the requests of a destination work and the waits for their replies.
class AgentFileDst : public AgentEndToEnd {
protected:
    std::map<std::string, std::string>& DstConfig() { return Tree().Config(); }

    static unsigned int Loopback();
    void SendCreate(unsigned int nWorkId, const std::string& strSrcFile, const std::string& strDstPath,
                    unsigned short nPort, unsigned int nSrcWorkId, int nFlag = 0, int nAppend = 5,
                    unsigned int nSrcIp = Loopback(), int nTimeout = 0);
    void SendCreate2(unsigned int nWorkId, const std::string& strSrcFile, const std::string& strDstPath,
                     unsigned short nPort, unsigned int nSrcWorkId, int nFlag, unsigned long long lSize,
                     const std::vector<unsigned int>& vecIp, int nTimeout = 0);
    template <class T>
    void SendFor(T& req, unsigned int nWorkId, int nAppend)
    {
        req.workId = static_cast<int>(nWorkId);
        EXPECT_TRUE(Server().Send(req, nAppend));
    }
    void SendSetAction(unsigned int nWorkId, int nAppend = 6);
    void SendQuery(unsigned int nWorkId, int nAppend = 7);
    void SendDelete(unsigned int nWorkId, int nAppend = 8);

    // The ret of the first reply of the kind for the work after packet nFrom; -1 if none came in time.
    template <class T>
    int WaitReply(unsigned int nWorkId, size_t nFrom, int nTimeoutMs, T* pOut = nullptr)
    {
        T rsp;
        if (!Server().WaitMessage(rsp, OfWork(nWorkId), nTimeoutMs, nFrom)) return -1;
        if (pOut != nullptr) *pOut = rsp;
        return static_cast<int>(rsp.ret.value);
    }
    // The first report of the work at status 2 after packet nFrom.
    bool WaitResult(unsigned int nWorkId, size_t nFrom, int nTimeoutMs, RspWorkFileDstQuery& out)
    {
        return Server().WaitMessage(out, ResultOf(nWorkId), nTimeoutMs, nFrom);
    }
    // The rets of all reports of the work at status 2 after packet nFrom, once nothing new has come for nQuietMs.
    std::vector<int> Results(unsigned int nWorkId, size_t nFrom, int nTimeoutMs, int nQuietMs = 1000);
    size_t Mark() { return Server().Packets().size(); }
};

// A real source agent beside the destination, in an install tree of its own
// with its own test work server.
class AgentFileTransfer : public AgentFileDst {
protected:
    void SetUp() override;
    void TearDown() override;

    // Settings of the source agent, before StartAgents.
    std::map<std::string, std::string>& SrcConfig() { return m_pSrcTree->Config(); }
    void StartAgents();

    InstallTree& SrcTree() { return *m_pSrcTree; }
    TestWorkServer& SrcServer() { return *m_pSrcServer; }

    // A source work for the path on the source agent; its port, 0 on failure.
    unsigned short Offer(unsigned int nWorkId, const std::string& strPath) { return OfferFile(SrcServer(), nWorkId, strPath); }
    // Offer, create, set-action and the final report: the work's ret, or -1.
    int Transfer(unsigned int nWorkId, const std::string& strSrcPath, const std::string& strDstPath,
                 int nTimeoutMs = 30000);

    std::unique_ptr<InstallTree> m_pSrcTree;
    std::unique_ptr<TestWorkServer> m_pSrcServer;
    pid_t m_nDstPid = -1;
    pid_t m_nSrcPid = -1;
};

// n bytes of a pattern that no block repeats at a block's distance.
std::string Pattern(size_t n, unsigned int nSeed);

// True if the two files hold the same bytes; compared in chunks.
bool SameFile(const std::string& strA, const std::string& strB);

} // namespace agent_test
