// The server session run in-process, with its managers, on a clock the test
// moves: packets go in through its receive buffer and are taken from its send
// buffer. The working directory is the bin/ of a temporary install tree, so
// that the session finds ../etc beside it; one harness at a time.
#pragma once

#include <unistd.h>

#include <deque>
#include <string>

#include "common/agent_clock.h"
#include "common/agent_globals.h"
#include "install_tree.h"
#include "log.h"
#include "process_common/process_common.h"
#include "test_work_server.h"

class SessionHarness {
public:
    explicit SessionHarness(const std::string& strConfig)
        : m_rev(true, 0), m_send(false, 0), m_link(m_rev, m_send, false), m_session(m_rev, m_send)
    {
        // Never the default cache directory: the session wipes it at start.
        m_tree.WriteRawConfig("public_key_version = 1\ncache_dir = " + Path("cache/") +
                              "\nfile_trans_svr_bind_eth = 127.0.0.1\n" + strConfig);
        char szCwd[4096];
        m_strOldCwd = getcwd(szCwd, sizeof(szCwd)) != nullptr ? szCwd : "/";
        if (chdir(Path("bin").c_str()) != 0) abort();
        brel_lib::LogFile(Path("log/agent"));
        brel_lib::LogLevel(brel_lib::LOG_LEVEL_DEBUG);
        g_nAgentId = 77;
        SetAgentTimeOffset(0);
    }

    ~SessionHarness()
    {
        if (m_bStarted) m_session.Stop();
        SetAgentTimeOffset(0);
        brel_lib::LogFile("");
        if (chdir(m_strOldCwd.c_str()) != 0) ADD_FAILURE();
    }

    void Start()
    {
        m_session.SetCfgFile(Path("etc/config"));
        m_session.SetNetwork(&m_link);
        m_session.SetAgentVersion("7.0.39");
        EXPECT_EQ(m_session.Start(), 0);
        m_bStarted = true;
    }

    // What the link reports after each connect, on the caller's thread.
    void LinkConnected() { m_session.NetConnected(brel_lib::BREL_CONNECT_OK); }

    std::string Path(const std::string& strRelative) const { return m_tree.Path(strRelative); }
    std::string ReadLog() const { return m_tree.ReadLog(); }

    template <class T>
    void Send(T& req, int nAppend = 1)
    {
        std::vector<unsigned char> bytes = agent_test::EncodeMessage(req, nAppend);
        m_rev.Push(bytes.data(), static_cast<unsigned int>(bytes.size()), brel_lib::BREL_DATA_NORMAL_PRI);
    }

    // The next packet of the message type T (others are kept for later), and
    // its envelope's append where pAppend is given; false on timeout.
    template <class T>
    bool Next(T& out, int nTimeoutMs = 3000, int* pAppend = nullptr)
    {
        return NextWhere(out, [](const T&) { return true; }, nTimeoutMs, pAppend);
    }

    // The same for the next packet of type T that the predicate accepts.
    template <class T, class F>
    bool NextWhere(T& out, F accept, int nTimeoutMs, int* pAppend = nullptr)
    {
        int64_t lDeadline = agent_test::SteadyMs() + nTimeoutMs;
        while (true) {
            for (auto it = m_deqPending.begin(); it != m_deqPending.end(); ++it) {
                if (agent_test::DecodeBody(*it, out) && accept(out)) {
                    if (pAppend != nullptr) *pAppend = it->nAppend;
                    m_deqPending.erase(it);
                    return true;
                }
            }
            unsigned int nSize = 0;
            char* p = static_cast<char*>(m_send.GetFrontAndPop(nSize, 0));
            if (p != nullptr) {
                agent_test::TestWorkServer::Received received;
                received.bytes.assign(p, p + nSize);
                ZikPacket packet;
                unsigned int nUsed = 0;
                if (brel_lib::ParseFromBuffer(packet, nUsed, p, nSize) == 0) received.nAppend = packet.append;
                brel_lib::CDataBufferSTLDeque::FreePopData(p);
                m_deqPending.push_back(received);
                continue;
            }
            if (agent_test::SteadyMs() >= lDeadline) return false;
            usleep(2000);
        }
    }

    template <class T>
    int NextRet(int nTimeoutMs = 3000)
    {
        T rsp;
        return Next(rsp, nTimeoutMs) ? rsp.ret.value : -1;
    }

    // Command requests: the ret of the reply for the work, or -1 when none came in time.
    int Create(unsigned int nWorkId, const std::string& strCmd = "true", int nFlag = 0, int nTimeout = 0,
               int nBufSize = 0)
    {
        ReqWorkCmdCreate req;
        req.flag = nFlag;
        req.timeout = nTimeout;
        req.bufSize = nBufSize;
        req.cmd = strCmd.c_str();
        return Ask<RspWorkCmdCreate>(req, nWorkId);
    }

    int Start(unsigned int nWorkId, int nAction = 1)
    {
        ReqWorkCmdSetAction req;
        req.action = nAction;
        return Ask<RspWorkCmdSetAction>(req, nWorkId);
    }

    int Delete(unsigned int nWorkId, int nTimeoutMs = 3000)
    {
        ReqWorkCmdDelete req;
        return Ask<RspWorkCmdDelete>(req, nWorkId, nTimeoutMs);
    }

    bool Query(RspWorkCmdQuery& rsp, unsigned int nWorkId)
    {
        ReqWorkCmdQuery req;
        req.workId = static_cast<int>(nWorkId);
        Send(req);
        return NextFor(rsp, nWorkId, 3000);
    }

    // The unasked result of the work: a report with status 2 or 3.
    bool Result(RspWorkCmdQuery& rsp, unsigned int nWorkId, int nTimeoutMs = 5000)
    {
        return NextWhere(
            rsp, [&](const RspWorkCmdQuery& m) { return WorkOf(m) == nWorkId && m.status >= 2; }, nTimeoutMs);
    }

    // Moves the agent's clock and lets the session run a pass on it.
    void AdvanceClock(time_t tSeconds)
    {
        m_tOffset += tSeconds;
        SetAgentTimeOffset(m_tOffset);
        usleep(300000);
    }

private:
    template <class T>
    static unsigned int WorkOf(const T& msg)
    {
        return static_cast<unsigned int>(msg.workId.value);
    }

    template <class T>
    bool NextFor(T& out, unsigned int nWorkId, int nTimeoutMs)
    {
        return NextWhere(out, [&](const T& m) { return WorkOf(m) == nWorkId; }, nTimeoutMs);
    }

    template <class TRsp, class TReq>
    int Ask(TReq& req, unsigned int nWorkId, int nTimeoutMs = 3000)
    {
        req.workId = static_cast<int>(nWorkId);
        Send(req);
        TRsp rsp;
        return NextFor(rsp, nWorkId, nTimeoutMs) ? rsp.ret.value : -1;
    }

    agent_test::InstallTree m_tree;  // first in, last out: the session ends before the tree goes
    std::string m_strOldCwd;
    brel_lib::CDataBufferSTLDeque m_rev;
    brel_lib::CDataBufferSTLDeque m_send;
    brel_lib::CNetworkClientBrel m_link;
    CProcessCommon m_session;
    std::deque<agent_test::TestWorkServer::Received> m_deqPending;
    time_t m_tOffset = 0;
    bool m_bStarted = false;
};
