// The server session: the thread that takes whole packets from the link,
// decodes them and hands each request to the part that serves it, and that
// runs the session's timers (heartbeats, the watch on the server's answers,
// the buffer shrink, the expiry of the work-id history, the renewal of the
// session keys). It answers each request on that request's own route, passed
// as a value, with the result code that the manager returned. A work's state,
// which a manager reports by itself, comes in through CSessionReply, the one
// interface the managers see of the session. The session keys are a class of
// their own (session_keys.h); the moves between servers have a file of their
// own (server_move.cpp).
#pragma once

#include <atomic>
#include <string>

#include "asn_parse.h"
#include "cmd_execute/cmd_execute.h"
#include "common/agent_globals.h"
#include "common/reply_route.h"
#include "common/session_reply.h"
#include "data_buffer.h"
#include "file_trans_client/file_trans_client.h"
#include "file_trans_svr/file_trans_svr.h"
#include "network/network_client.h"
#include "process_common/metrics_textfile.h"
#include "process_common/session_keys.h"
#include "process_common/work_id_history.h"
#include "thread.h"
#include "zik_pkt.h"

class CProcessCommon : public brel_lib::CThread, public CSessionReply {
public:
    CProcessCommon(brel_lib::CDataBufferSTLDeque& revDataBuffer, brel_lib::CDataBufferSTLDeque& sendDataBuffer);
    ~CProcessCommon() override;

    // Set by main before Start.
    void SetNetwork(brel_lib::CNetworkClientBrel* pNetwork) { m_pNetwork = pNetwork; }
    void SetCfgFile(const std::string& strCfgFile) { m_strCfgFile = strCfgFile; }
    void SetAgentVersion(const std::string& strVersion) { m_strAgentVersion = strVersion; }

    // Main thread: start and stop the managers and the session thread, in order.
    int Start() override;
    int Stop() override;
    // Main thread, on SIGUSR1.
    void ReloadCfg();

    // Any thread: wraps a message in a packet and queues it for the server.
    template <class T>
    void SendToServer(T& message, int nAppend);

    // A command work's state under the work's own route; any thread.
    void SendCmdToServerQueryOk(const CommonWork& work) override;

    // Link thread, after each connect: the next heartbeat leaves in 2 seconds.
    void NetConnected(brel_lib::BREL_NET_CALLBACK_TYPE type);

    void Run() override;
    // Any thread: the session looks at its flag and its timers now.
    void WakeUp() override;

private:
    // Every handler gets the request and the append of its envelope.
    typedef void (CProcessCommon::*Handler)(Zik& body, int nAppend);
    struct Route {
        int nChoiceId;
        Handler handler;
    };
    static const Route s_routes[];

    template <class T, void (CProcessCommon::*Fn)(T*, int)>
    void Dispatch(Zik& body, int nAppend)
    {
        (this->*Fn)(static_cast<T*>(body.Alternative()), nAppend);
    }

    void LoadCfg();
    void DealReq(char* pData, unsigned int nLength);

    // Command requests; create and delete consult the history of ids first.
    // Each answers on the route of its own request, passed along as a value.
    typedef void (CProcessCommon::*SendOkFn)(unsigned int nWorkId, const ReplyRoute& route);
    typedef void (CProcessCommon::*SendFailedFn)(int nRet, unsigned int nWorkId, const ReplyRoute& route);
    bool AnsweredFromHistory(const CWorkIdHistory& history, unsigned int nWorkId,
                             const ReplyRoute& route, SendOkFn fnOk);
    void Answer(int nRet, unsigned int nWorkId, const ReplyRoute& route, SendOkFn fnOk, SendFailedFn fnFailed);
    void AnswerAndRemember(int nRet, unsigned int nWorkId, const ReplyRoute& route,
                           CWorkIdHistory& history, SendOkFn fnOk, SendFailedFn fnFailed);
    void ReqCmdCreate(ReqWorkCmdCreate* pReq, int nAppend);
    void ReqCmdSetAction(ReqWorkCmdSetAction* pReq, int nAppend);
    void ReqCmdQuery(ReqWorkCmdQuery* pReq, int nAppend);
    void ReqCmdDelete(ReqWorkCmdDelete* pReq, int nAppend);
    // The one shape of the command replies that answer a request.
    template <class T>
    void SendCmdReply(const char* szFunction, bool bOk, int nRet, unsigned int nWorkId, const ReplyRoute& route,
                      T& rsp);
    template <class T>
    void SendCmdReply(const char* szFunction, bool bOk, int nRet, unsigned int nWorkId, const ReplyRoute& route);
    void SendCmdToServerCreateOk(unsigned int nWorkId, const ReplyRoute& route);
    void SendCmdToServerCreateFailed(int nRet, unsigned int nWorkId, const ReplyRoute& route);
    void SendCmdToServerSetActionOk(unsigned int nWorkId, const ReplyRoute& route);
    void SendCmdToServerSetActionFailed(int nRet, unsigned int nWorkId, const ReplyRoute& route);
    void SendCmdToServerQueryFailed(int nRet, unsigned int nWorkId, const ReplyRoute& route);
    void SendCmdToServerDeleteOk(unsigned int nWorkId, const ReplyRoute& route);
    void SendCmdToServerDeleteFailed(int nRet, unsigned int nWorkId, const ReplyRoute& route);
    void NotServedYet(Zik& body, int nAppend);

    // A create or delete of a file work: a known id is answered by silence;
    // fnServe is the manager's call, and only an accepted request is
    // remembered, so that a refused one may be tried again.
    template <class TReq, class FServe>
    void ServeOnce(CWorkIdHistory& history, TReq* pReq, int nAppend,
                   void (CProcessCommon::*fnFailed)(int, const TReq&, int), FServe fnServe)
    {
        unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
        if (history.Contains(nWorkId)) return;
        int ret = fnServe();
        if (ret != 0) {
            (this->*fnFailed)(ret, *pReq, nAppend);
            return;
        }
        history.Remember(nWorkId, static_cast<long>(g_timeNow));
    }

    // File source requests (file_src_requests.cpp): a repeated create or
    // delete is answered by silence; the manager answers the rest itself.
    void ReqFileSrcCreate(ReqWorkFileSrcCreate* pReq, int nAppend);
    void ReqFileSrcDelete(ReqWorkFileSrcDelete* pReq, int nAppend);
    void ReqFileSrcCreateEnc(ReqWorkFileSrcCreateEnc* pReq, int nAppend);
    void ServeFileSrcCreate(ReqWorkFileSrcCreate* pReq, const std::string& strMd5, int nAppend);
    void SendFileSrcToServerCreateFailed(int nRet, const ReqWorkFileSrcCreate& req, int nAppend);
    void SendFileSrcToServerCreate2Failed(int nRet, const ReqWorkFileSrcCreate& req, int nAppend);
    void SendFileSrcToServerDeleteFailed(int nRet, const ReqWorkFileSrcDelete& req, int nAppend);

    // File destination requests (file_dst_requests.cpp): a repeated create or
    // delete is answered by silence; the write threads answer the rest.
    void ReqFileDstCreate(ReqWorkFileDstCreate* pReq, int nAppend);
    void ReqFileDstCreate2(ReqWorkFileDstCreate2* pReq, int nAppend);
    void ReqFileDstSetAction(ReqWorkFileDstSetAction* pReq, int nAppend);
    void ReqFileDstQuery(ReqWorkFileDstQuery* pReq, int nAppend);
    void ReqFileDstDelete(ReqWorkFileDstDelete* pReq, int nAppend);
    void ReqFileDstCreateEnc(ReqWorkFileDstCreateEnc* pReq, int nAppend);
    void ReqFileDstCreate2Enc(ReqWorkFileDstCreate2Enc* pReq, int nAppend);
    void ReqFileDstSetActionEnc(ReqWorkFileDstSetActionEnc* pReq, int nAppend);
    template <class TRsp, class TReq>
    void SendFileDstFailed(const char* szFunction, int nRet, const TReq& req, int nAppend, bool bExpected);
    void SendFileDstToServerCreateFailed(int nRet, const ReqWorkFileDstCreate& req, int nAppend);
    void SendFileDstToServerCreate2Failed(int nRet, const ReqWorkFileDstCreate2& req, int nAppend);
    void SendFileDstToServerSetActionFailed(int nRet, const ReqWorkFileDstSetAction& req, int nAppend);
    void SendFileDstToServerQueryFailed(int nRet, const ReqWorkFileDstQuery& req, int nAppend);
    void SendFileDstToServerDeleteFailed(int nRet, const ReqWorkFileDstDelete& req, int nAppend);

    // Timers of one pass, and the history sweep.
    void DealTimers(int& nGetNewWsLeft);
    // The time the next timer of DealTimers comes due.
    time_t NextTimer();

    // Heartbeat, agent info, exit notice and buffer shrink.
    void ReqHeartbeat();
    void RspHeartbeat(RspWorkAgentHeartbeat* pRsp, int nAppend);
    void DealHeartbeatTimeout();
    void ReqInfo(ReqWorkAgentInfo* pReq, int nAppend);
    void ReqExit();
    void SendExitNotice();
    void DealAutoAdjustAsnBufSize();
    // The metrics textfile: one reading of the counters and the tables, written.
    void WriteMetrics(time_t tNow);

    // Session keys and the encrypted requests.
    void ReqUpdateSessionKey();
    void DealRspSessionKey(RspSessionKey* pRsp, int nAppend);
    // The one line of the encrypted requests: the plain form is rebuilt from the
    // clear part (work id and route) and the decrypted EncData record TData, and
    // served as a plain request from there on. A request whose key is unknown
    // gets no answer.
    template <class TData, class TEnc, class TPlain>
    void ServeEnc(const char* szHandler, TEnc* pReq, int nAppend, void (CProcessCommon::*fnServe)(TPlain*, int))
    {
        TData data;
        unsigned int nKeySn = static_cast<unsigned int>(pReq->keySn.value);
        if (!m_sessionKeys.DecryptEncData(szHandler, nKeySn, pReq->encData, data)) return;
        TPlain plain;
        CopyClearPart(*pReq, plain);
        FillFromEncData(data, plain);
        (this->*fnServe)(&plain, nAppend);
    }
    // The clear part of an encrypted request, the same in every form.
    template <class TEnc, class TPlain>
    static void CopyClearPart(const TEnc& enc, TPlain& plain)
    {
        plain.workId = enc.workId;
        plain.routeDstAgentId = enc.routeDstAgentId;
        plain.routeSrcServerIp = enc.routeSrcServerIp;
        plain.routeSrcServerId = enc.routeSrcServerId;
    }
    // The secret fields of each encrypted request, into its plain record.
    static void FillFromEncData(const ReqWorkCmdCreateEncData& data, ReqWorkCmdCreate& plain);
    static void FillFromEncData(const ReqWorkCmdSetActionEncData& data, ReqWorkCmdSetAction& plain);
    static void FillFromEncData(const ReqWorkFileDstCreateEncData& data, ReqWorkFileDstCreate& plain);
    static void FillFromEncData(ReqWorkFileDstCreate2EncData& data, ReqWorkFileDstCreate2& plain);
    static void FillFromEncData(const ReqWorkFileDstSetActionEncData& data, ReqWorkFileDstSetAction& plain);
    void ReqCmdCreateEnc(ReqWorkCmdCreateEnc* pReq, int nAppend);
    void ReqCmdSetActionEnc(ReqWorkCmdSetActionEnc* pReq, int nAppend);

    // Moving to a new server (server_move.cpp).
    void ReqGetNewWs();
    void RspGetNewWs(RspWorkAgentGetNewWs* pRsp, int nAppend);
    void ReqConnectNewServer(ReqWorkAgentConnectNewServer* pReq, int nAppend);
    void DealConnectToNewServer(unsigned int nNewServerIp, unsigned short nNewServerPort,
                                unsigned int nNewServerSlaveIp, unsigned short nNewServerSlavePort, int nAppend);
    void SendConnectNewServerRefused(int nAppend);
    bool WaitLinkUp(int nTries);

    std::string RestartShell();

    // Set before Start, then read only.
    brel_lib::CDataBufferSTLDeque& m_revDataBuffer;
    brel_lib::CDataBufferSTLDeque& m_sendDataBuffer;
    brel_lib::CNetworkClientBrel* m_pNetwork = nullptr;
    std::string m_strCfgFile;
    std::string m_strAgentVersion;

    CCmdExecuteManager m_taskManager;
    CFileTransSvrManager m_fileTransSvrManager;
    CFileTransClientManager m_fileTransClientManager;

    // Guarded by m_lock: the encode block shared by every sender.
    brel_lib::CLock m_lock;
    brel_lib::CPacketBuffer m_packetBuf;

    // Settings: written by the main thread at start and reload, read by the
    // session thread. The restart command is guarded by m_lockCfg.
    std::atomic<int> m_nHeartbeatSecond{50};
    std::atomic<int> m_nServerHeartbeatRespondSecond{300};
    std::atomic<unsigned int> m_nRespondHeartbeatFailedCount{5};
    std::atomic<int> m_nAsnBufferAutoAdjustSecond{7200};
    std::atomic<unsigned int> m_nWorkHistoryKeepSecond{600};
    brel_lib::CLock m_lockCfg;
    std::string m_strRestartShell;

    // Written by the link thread too (NetConnected).
    std::atomic<time_t> m_timePreSendHeartbeat{0};

    // Session thread only.
    bool m_bRespondHeartbeatOk = false;
    unsigned int m_nRespondHeartbeatFailedNowCount = 0;
    time_t m_timePreRespondHeartbeat = 0;
    time_t m_timePreAdjustBuf = 0;
    time_t m_timePreSweepHistory = 0;
    bool m_bHeartbeat = false;
    CWorkIdHistory m_mapCreatedWorkId;
    CWorkIdHistory m_mapDeletedWorkId;
    CSessionKeys m_sessionKeys;  // its settings are written by the main thread
    CMetricsTextfile m_metrics;  // its settings are written by the main thread
};

// Registered with the link: passes a successful connect to the session.
void GNetConnected(unsigned int nConnectId, brel_lib::BREL_NET_CALLBACK_TYPE type, void* pAppend, int fd);

template <class T>
void CProcessCommon::SendToServer(T& message, int nAppend)
{
    brel_lib::CAutoLock lock(m_lock);
    unsigned int nSize = 0;
    char* pBytes = EncodePacket(m_packetBuf, message, nAppend, nSize);
    // A failed encoding has been logged; the queue refuses the null block.
    m_sendDataBuffer.Push(pBytes, nSize, brel_lib::BREL_DATA_NORMAL_PRI);
}
