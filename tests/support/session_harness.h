// The server session run in-process, with its managers, on a clock the test
// moves: packets go in through its receive buffer and are taken from its send
// buffer. The working directory is the bin/ of a temporary install tree, so
// that the session finds ../etc beside it; one harness at a time.
#pragma once

#include <arpa/inet.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <string>

#include "common/agent_clock.h"
#include "common/agent_globals.h"
#include "install_tree.h"
#include "log.h"
#include "process_common/process_common.h"
#include "session_key_server.h"
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

    // The ret of the next reply of type TRsp for the work, a copy of it in pOut
    // when given; -1 when none came in time.
    template <class TRsp>
    int RetFor(unsigned int nWorkId, int nTimeoutMs = 3000, TRsp* pOut = nullptr)
    {
        TRsp rsp;
        auto forWork = [&](const TRsp& m) { return static_cast<unsigned int>(m.workId.value) == nWorkId; };
        if (!NextWhere(rsp, forWork, nTimeoutMs)) return -1;
        if (pOut != nullptr) *pOut = rsp;
        return rsp.ret.value;
    }
    // The request about the work, and the ret of its reply as RetFor gives it.
    template <class TRsp, class TReq>
    int Ask(TReq& req, unsigned int nWorkId, int nTimeoutMs = 3000, TRsp* pOut = nullptr, int nAppend = 1)
    {
        req.workId = static_cast<int>(nWorkId);
        Send(req, nAppend);
        return RetFor<TRsp>(nWorkId, nTimeoutMs, pOut);
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
        return Ask<RspWorkCmdQuery>(req, nWorkId, 3000, &rsp) != -1;
    }

    // The unasked result of the work: a report with status 2 or 3.
    bool Result(RspWorkCmdQuery& rsp, unsigned int nWorkId, int nTimeoutMs = 5000)
    {
        return NextWhere(
            rsp, [&](const RspWorkCmdQuery& m) { return m.workId == static_cast<int>(nWorkId) && m.status >= 2; },
            nTimeoutMs);
    }

    // Waits, bounded, for the text in the log.
    bool Logged(const std::string& strText, int nTimeoutMs = 3000) const
    {
        return agent_test::WaitUntil([&] { return ReadLog().find(strText) != std::string::npos; }, nTimeoutMs);
    }
    size_t LogCount(const std::string& strText) const
    {
        std::string strLog = ReadLog();
        size_t n = 0;
        for (size_t i = strLog.find(strText); i != std::string::npos; i = strLog.find(strText, i + 1)) ++n;
        return n;
    }

    // Session keys, with the server's side played here: the key pair must be
    // made before Start, since the first pass asks for a key.
    bool MakeKeys() { return agent_test::MakeRsaKeyPair(Path("private.pem"), Path("etc/publickey.pem")); }
    // The next key request: its serial number and secret; false on timeout or when it does not open.
    bool KeyRequest(unsigned int& nKeySn, std::string& strSecret, int nTimeoutMs = 3000)
    {
        ReqSessionKey req;
        ReqSessionKeyEncData data;
        if (!Next(req, nTimeoutMs) || !agent_test::OpenKeyRequest(Path("private.pem"), req, data)) return false;
        nKeySn = static_cast<unsigned int>(data.keySn.value);
        strSecret.assign(data.oldKeyData.octs, data.oldKeyData.octetLen);
        return true;
    }
    void KeyAnswer(const std::string& strSecret, const std::string& strKey, unsigned int nKeySn, int nRet = 0,
                   unsigned int nKeyId = 77)
    {
        RspSessionKey rsp;
        rsp.ret = nRet;
        agent_test::SealKeyAnswer(rsp, strSecret, strKey, static_cast<int>(nKeySn), static_cast<int>(nKeyId));
        Send(rsp);
    }
    bool KeyAccepted(int nTimeoutMs = 1500)
    {
        RspSessionKeyUsed used;
        return Next(used, nTimeoutMs);
    }
    // The next request answered with the key; its serial number, 0 when a step failed.
    unsigned int EstablishKey(const std::string& strKey, int nTimeoutMs = 5000)
    {
        unsigned int nKeySn = 0;
        std::string strSecret;
        if (!KeyRequest(nKeySn, strSecret, nTimeoutMs)) return 0;
        KeyAnswer(strSecret, strKey, nKeySn);
        return KeyAccepted(3000) ? nKeySn : 0;
    }
    // An encrypted request of type TEnc carrying the bytes; fill sets what else it needs (its route).
    template <class TEnc>
    void SendSealed(const std::string& strEnc, unsigned int nKeySn, unsigned int nWorkId, int nAppend = 1,
                    const std::function<void(TEnc&)>& fill = nullptr)
    {
        TEnc req;
        req.encData.ReSet(strEnc.data(), strEnc.size());
        req.keySn = static_cast<int>(nKeySn);
        req.workId = static_cast<int>(nWorkId);
        if (fill) fill(req);
        Send(req, nAppend);
    }

    static unsigned int Loopback()
    {
        unsigned int nIp = 0;
        inet_pton(AF_INET, "127.0.0.1", &nIp);
        return nIp;
    }

    // Moves the agent's clock and lets the session run a pass on it.
    void AdvanceClock(time_t tSeconds)
    {
        m_tOffset += tSeconds;
        SetAgentTimeOffset(m_tOffset);
        usleep(300000);
    }

private:
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
