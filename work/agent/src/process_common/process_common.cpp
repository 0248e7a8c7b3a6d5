#include "process_common/process_common.h"

#include <malloc.h>
#include <stdlib.h>

#include "common/agent_clock.h"
#include "common/agent_counters.h"
#include "common/agent_globals.h"
#include "common/work_codes.h"
#include "file_trans_cache/file_trans_cache.h"
#include "ini_file.h"
#include "log.h"
#include "process.h"
#include "util.h"

using namespace brel_lib;

namespace {

const unsigned int PACKET_BUF_SIZE = 524288;
// Consumers of the receive buffer wait this long, so the timers run between packets.
// The wait after a pass that found a timer still due: never a busy loop.
const unsigned int DUE_WAIT_MILLISECOND = 100;
// The history is swept after more than this many seconds.
const time_t HISTORY_SWEEP_SECOND = 179;
// A history map beyond this size loses its lowest work ids first.
const size_t HISTORY_MAX_ENTRIES = 1000;
// Requests for a new server go out with the first heartbeats only.
const int GET_NEW_WS_TIMES = 2;

} // namespace

void GNetConnected(unsigned int, BREL_NET_CALLBACK_TYPE type, void* pAppend, int)
{
    if (type == BREL_CONNECT_OK) static_cast<CProcessCommon*>(pAppend)->NetConnected(type);
}

// The dispatch table: choice id to handler. Requests whose part of the agent
// is not built yet are logged as such.
#define ROUTE(Type, Fn) {ZikChoiceOf<Type>::value, &CProcessCommon::Dispatch<Type, &CProcessCommon::Fn>}
#define NOT_SERVED(Type) {ZikChoiceOf<Type>::value, &CProcessCommon::NotServedYet}
const CProcessCommon::Route CProcessCommon::s_routes[] = {
    ROUTE(ReqWorkCmdCreate, ReqCmdCreate),
    ROUTE(ReqWorkCmdSetAction, ReqCmdSetAction),
    ROUTE(ReqWorkCmdQuery, ReqCmdQuery),
    ROUTE(ReqWorkCmdDelete, ReqCmdDelete),
    ROUTE(ReqWorkFileSrcCreate, ReqFileSrcCreate),
    ROUTE(ReqWorkFileDstCreate, ReqFileDstCreate),
    ROUTE(ReqWorkFileDstSetAction, ReqFileDstSetAction),
    ROUTE(ReqWorkFileDstQuery, ReqFileDstQuery),
    ROUTE(ReqWorkFileSrcDelete, ReqFileSrcDelete),
    ROUTE(ReqWorkFileDstDelete, ReqFileDstDelete),
    ROUTE(RspWorkAgentHeartbeat, RspHeartbeat),
    ROUTE(ReqWorkAgentConnectNewServer, ReqConnectNewServer),
    ROUTE(ReqWorkAgentInfo, ReqInfo),
    ROUTE(RspWorkAgentGetNewWs, RspGetNewWs),
    ROUTE(ReqWorkFileDstCreate2, ReqFileDstCreate2),
    ROUTE(RspSessionKey, DealRspSessionKey),
    ROUTE(ReqWorkCmdCreateEnc, ReqCmdCreateEnc),
    ROUTE(ReqWorkCmdSetActionEnc, ReqCmdSetActionEnc),
    ROUTE(ReqWorkFileSrcCreateEnc, ReqFileSrcCreateEnc),
    ROUTE(ReqWorkFileDstCreateEnc, ReqFileDstCreateEnc),
    ROUTE(ReqWorkFileDstSetActionEnc, ReqFileDstSetActionEnc),
    ROUTE(ReqWorkFileDstCreate2Enc, ReqFileDstCreate2Enc),
};
#undef ROUTE
#undef NOT_SERVED

CProcessCommon::CProcessCommon(CDataBufferSTLDeque& revDataBuffer, CDataBufferSTLDeque& sendDataBuffer)
    : m_revDataBuffer(revDataBuffer),
      m_sendDataBuffer(sendDataBuffer),
      m_fileTransSvrManager(sendDataBuffer),
      m_fileTransClientManager(sendDataBuffer),
      m_packetBuf("CProcessCommon", 0)
{
}

CProcessCommon::~CProcessCommon() { CThread::Stop(); }

// ---- start, stop, configuration -------------------------------------------------

int CProcessCommon::Start()
{
    Log(LOG_LEVEL_INFO, "CProcessCommon::Start");
    {
        CAutoLock lock(m_lock);
        if (!m_packetBuf.Allocate(PACKET_BUF_SIZE)) {
            Log(LOG_LEVEL_ERROR, "CProcessCommon::Start(malloc asn buf is error, malloc size: %u)", PACKET_BUF_SIZE);
            ExitProcess(1);
        }
    }
    LoadCfg();
    g_fileTransCache.SetCfgFile(m_strCfgFile);
    if (m_pNetwork != nullptr) m_pNetwork->SetNetCallback(GNetConnected, this);
    m_taskManager.SetProcessCommon(this);
    m_taskManager.SetCfgFile(m_strCfgFile);
    int ret = m_taskManager.Start();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::Start(m_taskManager Start is error, ret: %d)", ret);
        ExitProcess(1);
    }
    m_fileTransClientManager.SetCfgFile(m_strCfgFile);
    ret = m_fileTransClientManager.Start();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::Start(m_fileTransClientManager Start is error, ret: %d)", ret);
        ExitProcess(1);
    }
    m_fileTransSvrManager.SetCfgFile(m_strCfgFile);
    ret = m_fileTransSvrManager.CThread::Start();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::Start(m_fileTransSvrManager Start is error, ret: %d)", ret);
        ExitProcess(1);
    }
    return CThread::Start();
}

int CProcessCommon::Stop()
{
    Log(LOG_LEVEL_INFO, "CProcessCommon::Stop");
    int ret = CThread::Stop();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::Stop(is error, ret: %d)", ret);
        ExitProcess(1);
    }
    ret = m_taskManager.Stop();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::Stop(m_taskManager Stop is error, ret: %d)", ret);
        ExitProcess(1);
    }
    ret = m_fileTransSvrManager.Stop();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::Stop(m_fileTransSvrManager Stop is error, ret: %d)", ret);
        ExitProcess(1);
    }
    ret = m_fileTransClientManager.Stop();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::Stop(m_fileTransClientManager Stop is error, ret: %d)", ret);
        ExitProcess(1);
    }
    CAutoLock lock(m_lock);
    m_packetBuf.Allocate(0);
    m_nRespondHeartbeatFailedNowCount = 0;
    return 0;
}

void CProcessCommon::ReloadCfg()
{
    Log(LOG_LEVEL_INFO, "CProcessCommon::ReloadCfg");
    LoadCfg();
    WakeUp();  // the periods may have changed
    m_taskManager.ReloadCfg();
    m_fileTransSvrManager.ReloadCfg();
    m_fileTransClientManager.ReloadCfg();
    g_fileTransCache.ReloadCfg();
}

void CProcessCommon::LoadCfg()
{
    CIniFile ini;
    if (ini.Load(m_strCfgFile) != 0) return;
    int nHeartbeat = StringToInt(ini.GetIni("heartbeat_second", ""));
    if (nHeartbeat < 1) nHeartbeat = 50;
    m_nHeartbeatSecond = nHeartbeat;
    int nRespond = StringToInt(ini.GetIni("server_heartbeat_respond_second", ""));
    if (nRespond < 1) nRespond = 300;
    m_nServerHeartbeatRespondSecond = nRespond + 2 * nHeartbeat;
    unsigned int nFailed = static_cast<unsigned int>(StringToInt(ini.GetIni("server_heartbeat_failed_times_to_exit", "")));
    m_nRespondHeartbeatFailedCount = nFailed == 0 ? 5 : nFailed;
    int nAdjust = StringToInt(ini.GetIni("asn_buffer_auto_adjust_second", ""));
    m_nAsnBufferAutoAdjustSecond = nAdjust < 1 ? 7200 : nAdjust;
    unsigned int nKeep = static_cast<unsigned int>(StringToInt(ini.GetIni("work_history_keep_second", "")));
    m_nWorkHistoryKeepSecond = nKeep == 0 ? 600 : nKeep;
    std::string strRestart = ini.GetIni("restart_shell", "");
    {
        CAutoLock lock(m_lockCfg);
        m_strRestartShell = strRestart.empty() ? "../tools/op/restart.sh" : strRestart;
    }
    m_sessionKeys.LoadCfg(ini);
    m_metrics.Configure(ini.GetIni("prometheus_textfile_path", ""),
                        StringToInt(ini.GetIni("prometheus_textfile_interval_second", "")));
}

std::string CProcessCommon::RestartShell()
{
    CAutoLock lock(m_lockCfg);
    return m_strRestartShell;
}

void CProcessCommon::NetConnected(BREL_NET_CALLBACK_TYPE type)
{
    if (type != BREL_CONNECT_OK) return;
    g_agentCounters.lLinkConnects.fetch_add(1, std::memory_order_relaxed);
    m_timePreSendHeartbeat = AgentTime() - m_nHeartbeatSecond + 2;
    WakeUp();  // the session thread waits for the old schedule
}

// ---- the loop ----------------------------------------------------------------------

void CProcessCommon::Run()
{
    int nGetNewWsLeft = GET_NEW_WS_TIMES;
    time_t tNow = AgentTime();
    m_timePreAdjustBuf = m_timePreSweepHistory = m_timePreRespondHeartbeat = tNow;
    WatchAgentClock(this);
    while (m_nContinueRun != 0) {
        DealTimers(nGetNewWsLeft);
        // A packet, a stop, a new schedule or a moved clock wakes the wait; otherwise
        // it lasts until the next timer comes due.
        int nWait = MilliSecondsUntilAgentTime(NextTimer());
        unsigned int nLength = 0;
        char* pData = static_cast<char*>(
            m_revDataBuffer.GetFrontAndPop(nLength, nWait > 0 ? static_cast<unsigned int>(nWait) : DUE_WAIT_MILLISECOND));
        if (pData != nullptr) {
            DealReq(pData, nLength);
            CDataBufferSTLDeque::FreePopData(pData);
        }
    }
    UnwatchAgentClock(this);
    SendExitNotice();
}

void CProcessCommon::WakeUp() { m_revDataBuffer.WakeTaker(); }

time_t CProcessCommon::NextTimer()
{
    time_t tNext = m_timePreSendHeartbeat + m_nHeartbeatSecond;
    auto earlier = [&tNext](time_t t) {
        if (t < tNext) tNext = t;
    };
    earlier(m_timePreRespondHeartbeat + m_nServerHeartbeatRespondSecond);
    earlier(m_timePreAdjustBuf + m_nAsnBufferAutoAdjustSecond);
    earlier(m_timePreSweepHistory + HISTORY_SWEEP_SECOND + 1);
    earlier(m_sessionKeys.NextUpdateTime(m_bHeartbeat));
    earlier(g_fileTransCache.NextAutoDelete());
    time_t tMetrics = m_metrics.NextDueAt(AgentTime());
    if (tMetrics != 0) earlier(tMetrics);  // 0: no metrics file
    return tNext;
}

void CProcessCommon::DealTimers(int& nGetNewWsLeft)
{
    time_t tNow = AgentTime();
    time_t tPreSend = m_timePreSendHeartbeat;
    if (tPreSend > tNow) m_timePreSendHeartbeat.compare_exchange_strong(tPreSend, tNow);
    PullBack(m_timePreRespondHeartbeat, tNow);
    PullBack(m_timePreAdjustBuf, tNow);
    m_sessionKeys.PullBackClock(tNow);

    // The link thread may reschedule the heartbeat at a connect: claim this one with a
    // compare-and-swap so that such a schedule set between the read and the write is not lost.
    time_t tLastSend = m_timePreSendHeartbeat;
    if (tNow - tLastSend >= m_nHeartbeatSecond && m_timePreSendHeartbeat.compare_exchange_strong(tLastSend, tNow)) {
        Log(LOG_LEVEL_LOWEST, "CProcessCommon::Run(it is time to send heartbeat)");
        ReqHeartbeat();
        if (nGetNewWsLeft > 0 && g_bNeedGetNewWs) {
            --nGetNewWsLeft;
            ReqGetNewWs();
        }
    }
    if (m_sessionKeys.NeedUpdate(m_bHeartbeat)) ReqUpdateSessionKey();
    if (tNow - m_timePreRespondHeartbeat >= m_nServerHeartbeatRespondSecond) {
        Log(LOG_LEVEL_LOWEST, "CProcessCommon::Run(it is time to check the server respond heartbeat)");
        m_timePreRespondHeartbeat = tNow;
        DealHeartbeatTimeout();
    }
    if (tNow - m_timePreAdjustBuf >= m_nAsnBufferAutoAdjustSecond) {
        Log(LOG_LEVEL_DEBUG, "CProcessCommon::Run(it is time to auto adjust the asn buffer size)");
        m_timePreAdjustBuf = tNow;
        DealAutoAdjustAsnBufSize();
    }
    PullBack(m_timePreSweepHistory, tNow);
    if (tNow - m_timePreSweepHistory > HISTORY_SWEEP_SECOND) {
        m_timePreSweepHistory = tNow;
        size_t nDropped = m_mapCreatedWorkId.Sweep(tNow, m_nWorkHistoryKeepSecond, HISTORY_MAX_ENTRIES);
        nDropped += m_mapDeletedWorkId.Sweep(tNow, m_nWorkHistoryKeepSecond, HISTORY_MAX_ENTRIES);
        // The maps hold every id of a sweep period: give the pages of a burst back.
        if (nDropped > 0) malloc_trim(0);
    }
    g_fileTransCache.DealAutoDelete(tNow);
    if (m_metrics.Due(tNow)) WriteMetrics(tNow);
}

void CProcessCommon::WriteMetrics(time_t tNow)
{
    MetricsSnapshot s;
    m_taskManager.CountWorks(s.nCmdWorks);
    s.nFileSrcWorks = m_fileTransSvrManager.WorkCount();
    m_fileTransClientManager.CountWorks(s.nFileDstWorks, s.nFileWriteQueue);
    s.lFileBytesSent = g_lWorkTransmitSize.load(std::memory_order_relaxed);
    s.lFileBytesReceived = g_agentCounters.lFileBytesReceived.load(std::memory_order_relaxed);
    s.lLinkConnects = g_agentCounters.lLinkConnects.load(std::memory_order_relaxed);
    s.lRefusedRequests = g_agentCounters.lRefusedRequests.load(std::memory_order_relaxed);
    s.nServerRecvQueue = m_revDataBuffer.GetDataNum();
    s.nServerSendQueue = m_sendDataBuffer.GetDataNum();
    m_metrics.Write(FormatMetrics(s), tNow);
}

void CProcessCommon::DealReq(char* pData, unsigned int nLength)
{
    ZikPacket packet;
    unsigned int nUsed = 0;
    if (ParseFromBuffer(packet, nUsed, pData, nLength) != 0 || packet.body.get() == nullptr) {
        Log(LOG_LEVEL_WARNING, "CProcessCommon::DealReq(parse from buffer is error)");
        return;
    }
    Zik& body = *packet.body;
    for (const Route& route : s_routes) {
        if (route.nChoiceId == body.choiceId) {
            (this->*route.handler)(body, packet.append);
            return;
        }
    }
    Log(LOG_LEVEL_WARNING, "CProcessCommon::Run(we recevie a data, but we don't know it, the choiceid: %d)",
        static_cast<int>(body.choiceId));
    LogAsnObj(LOG_LEVEL_OBJDBG, packet);
}

void CProcessCommon::NotServedYet(Zik& body, int)
{
    Log(LOG_LEVEL_WARNING, "CProcessCommon::DealReq(the request is not served yet, the choiceid: %d)",
        static_cast<int>(body.choiceId));
}

// ---- command requests and replies ------------------------------------------------

// A create or delete the server repeats (after a lost reply, say) is answered
// as done, and does no harm.
bool CProcessCommon::AnsweredFromHistory(const CWorkIdHistory& history, unsigned int nWorkId,
                                         const ReplyRoute& route, SendOkFn fnOk)
{
    if (!history.Contains(nWorkId)) return false;
    (this->*fnOk)(nWorkId, route);
    return true;
}

// Answers the manager's result code.
void CProcessCommon::Answer(int nRet, unsigned int nWorkId, const ReplyRoute& route, SendOkFn fnOk,
                            SendFailedFn fnFailed)
{
    if (nRet != 0) {
        (this->*fnFailed)(nRet, nWorkId, route);
    } else {
        (this->*fnOk)(nWorkId, route);
    }
}

// Answers the manager's result; only a success goes into the history.
void CProcessCommon::AnswerAndRemember(int nRet, unsigned int nWorkId, const ReplyRoute& route,
                                       CWorkIdHistory& history, SendOkFn fnOk, SendFailedFn fnFailed)
{
    if (nRet == 0) history.Remember(nWorkId, static_cast<long>(g_timeNow));
    Answer(nRet, nWorkId, route, fnOk, fnFailed);
}

void CProcessCommon::ReqCmdCreate(ReqWorkCmdCreate* pReq, int nAppend)
{
    const ReplyRoute route = RouteOf(*pReq, nAppend);
    unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
    if (AnsweredFromHistory(m_mapCreatedWorkId, nWorkId, route, &CProcessCommon::SendCmdToServerCreateOk)) return;
    CommonWork work;
    work.nAppend = route.nAppend;
    work.nSrcServerIp = route.nSrcServerIp;
    work.nSrcServerId = route.nSrcServerId;
    work.nFlag = static_cast<unsigned int>(pReq->flag.value);
    work.nTimeoutSecond = pReq->timeout;
    work.nBufOutSize = work.nBufErrSize = static_cast<unsigned int>(pReq->bufSize.value);
    work.strExecUser.assign(pReq->execUser.octs, pReq->execUser.octetLen);
    work.strCmd.assign(pReq->cmd.octs, pReq->cmd.octetLen);
    AnswerAndRemember(m_taskManager.AddNewWork(nWorkId, work), nWorkId, route, m_mapCreatedWorkId,
                      &CProcessCommon::SendCmdToServerCreateOk, &CProcessCommon::SendCmdToServerCreateFailed);
}

void CProcessCommon::ReqCmdSetAction(ReqWorkCmdSetAction* pReq, int nAppend)
{
    const ReplyRoute route = RouteOf(*pReq, nAppend);
    unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
    int ret = m_taskManager.SetWorkAction(nWorkId, static_cast<unsigned int>(pReq->action.value), nAppend);
    Answer(ret, nWorkId, route, &CProcessCommon::SendCmdToServerSetActionOk,
           &CProcessCommon::SendCmdToServerSetActionFailed);
}

void CProcessCommon::ReqCmdQuery(ReqWorkCmdQuery* pReq, int nAppend)
{
    unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
    // A work that is found reports itself, on its own route, from inside the manager.
    int ret = m_taskManager.Query(nWorkId, nAppend);
    if (ret != 0) SendCmdToServerQueryFailed(ret, nWorkId, RouteOf(*pReq, nAppend));
}

void CProcessCommon::ReqCmdDelete(ReqWorkCmdDelete* pReq, int nAppend)
{
    const ReplyRoute route = RouteOf(*pReq, nAppend);
    unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
    if (AnsweredFromHistory(m_mapDeletedWorkId, nWorkId, route, &CProcessCommon::SendCmdToServerDeleteOk)) return;
    unsigned int nFlag = 0;
    int ret = m_taskManager.DeleteWork(nFlag, nWorkId);
    // A work that asked for it gets no answer to its delete, and is not remembered.
    if (nFlag & WORK_FLAG_NO_DELETE_REPLY) return;
    AnswerAndRemember(ret, nWorkId, route, m_mapDeletedWorkId, &CProcessCommon::SendCmdToServerDeleteOk,
                      &CProcessCommon::SendCmdToServerDeleteFailed);
}

template <class T>
void CProcessCommon::SendCmdReply(const char* szFunction, bool bOk, int nRet, unsigned int nWorkId,
                                  const ReplyRoute& route, T& rsp)
{
    if (bOk) {
        Log(LOG_LEVEL_DEBUG, "CProcessCommon::%s(work id: %u, append: %d)", szFunction, nWorkId, route.nAppend);
    } else {
        Log(LOG_LEVEL_WARNING, "CProcessCommon::%s(ret: %d, work id: %u, append: %d)", szFunction, nRet, nWorkId,
            route.nAppend);
        CountRefusal(nRet);
    }
    rsp.ret = nRet;
    rsp.workId = static_cast<int>(nWorkId);
    rsp.routeDstServerIp = static_cast<int>(route.nSrcServerIp);
    rsp.routeDstServerId = static_cast<int>(route.nSrcServerId);
    rsp.routeSrcAgentId = static_cast<int>(g_nAgentId.load());
    SendToServer(rsp, route.nAppend);
}

template <class T>
void CProcessCommon::SendCmdReply(const char* szFunction, bool bOk, int nRet, unsigned int nWorkId,
                                  const ReplyRoute& route)
{
    T rsp;
    SendCmdReply(szFunction, bOk, nRet, nWorkId, route, rsp);
}

void CProcessCommon::SendCmdToServerCreateOk(unsigned int nWorkId, const ReplyRoute& route)
{
    SendCmdReply<RspWorkCmdCreate>("SendCmdToServerCreateOk", true, 0, nWorkId, route);
}

void CProcessCommon::SendCmdToServerCreateFailed(int nRet, unsigned int nWorkId, const ReplyRoute& route)
{
    SendCmdReply<RspWorkCmdCreate>("SendCmdToServerCreateFailed", false, nRet, nWorkId, route);
}

void CProcessCommon::SendCmdToServerSetActionOk(unsigned int nWorkId, const ReplyRoute& route)
{
    SendCmdReply<RspWorkCmdSetAction>("SendCmdToServerSetActionOk", true, 0, nWorkId, route);
}

void CProcessCommon::SendCmdToServerSetActionFailed(int nRet, unsigned int nWorkId, const ReplyRoute& route)
{
    SendCmdReply<RspWorkCmdSetAction>("SendCmdToServerSetActionFailed", false, nRet, nWorkId, route);
}

void CProcessCommon::SendCmdToServerDeleteOk(unsigned int nWorkId, const ReplyRoute& route)
{
    SendCmdReply<RspWorkCmdDelete>("SendCmdToServerDeleteOk", true, 0, nWorkId, route);
}

void CProcessCommon::SendCmdToServerDeleteFailed(int nRet, unsigned int nWorkId, const ReplyRoute& route)
{
    SendCmdReply<RspWorkCmdDelete>("SendCmdToServerDeleteFailed", false, nRet, nWorkId, route);
}

void CProcessCommon::SendCmdToServerQueryFailed(int nRet, unsigned int nWorkId, const ReplyRoute& route)
{
    RspWorkCmdQuery rsp;
    rsp.status = WORK_UNKNOWN;
    SendCmdReply("SendCmdToServerQueryFailed", false, nRet, nWorkId, route, rsp);
}

namespace {
// The output of the last finished work that was reported, for inspection by hand.
void WriteLastResult(const char* szPath, const char* pData, unsigned int nSize)
{
    FILE* pFile = fopen(szPath, "w");
    if (pFile == nullptr) return;
    if (nSize != 0) fwrite(pData, 1, nSize, pFile);
    fclose(pFile);
}
} // namespace

void CProcessCommon::SendCmdToServerQueryOk(const CommonWork& work)
{
    Log(LOG_LEVEL_DEBUG, "CProcessCommon::SendCmdToServerQueryOk(work id: %u, append: %d)", work.nWorkId, work.nAppend);
    RspWorkCmdQuery rsp;
    rsp.ret = work.nErrno;
    rsp.workId = static_cast<int>(work.nWorkId);
    rsp.status = static_cast<int>(work.nStatus);
    rsp.beginTime = static_cast<int>(work.nCreateTime);  // the creation time, as the protocol has it
    rsp.stdOut.ReSet(work.pStdOut, work.pStdOut == nullptr ? 0 : work.nUsedOutSize);
    rsp.stdErr.ReSet(work.pStdErr, work.pStdErr == nullptr ? 0 : work.nUsedErrSize);
    rsp.routeDstServerIp = static_cast<int>(work.nSrcServerIp);
    rsp.routeDstServerId = static_cast<int>(work.nSrcServerId);
    rsp.routeSrcAgentId = static_cast<int>(g_nAgentId.load());
    if (work.nStatus == WORK_FINISHED) {
        rsp.endTime = static_cast<int>(work.nEndTime);
        rsp.exitCode = work.nExitCode;
        WriteLastResult("../log/last_out", work.pStdOut, work.pStdOut == nullptr ? 0 : work.nUsedOutSize);
        WriteLastResult("../log/last_err", work.pStdErr, work.pStdErr == nullptr ? 0 : work.nUsedErrSize);
    }
    SendToServer(rsp, work.nAppend);
}

// ---- session keys ----------------------------------------------------------------------

void CProcessCommon::ReqUpdateSessionKey()
{
    ReqSessionKey req;
    if (m_sessionKeys.MakeRequest(req)) SendToServer(req, 0);
}

void CProcessCommon::DealRspSessionKey(RspSessionKey* pRsp, int)
{
    RspSessionKeyUsed used;
    if (m_sessionKeys.DealResponse(*pRsp, used)) SendToServer(used, 0);
}

void CProcessCommon::FillFromEncData(const ReqWorkCmdCreateEncData& data, ReqWorkCmdCreate& plain)
{
    plain.flag = data.flag;
    plain.timeout = data.timeout;
    plain.bufSize = data.bufSize;
    plain.execUser = data.execUser;
    plain.cmd = data.cmd;
}

void CProcessCommon::FillFromEncData(const ReqWorkCmdSetActionEncData& data, ReqWorkCmdSetAction& plain)
{
    plain.action = data.action;
}

void CProcessCommon::ReqCmdCreateEnc(ReqWorkCmdCreateEnc* pReq, int nAppend)
{
    ServeEnc<ReqWorkCmdCreateEncData>("ReqCmdCreateEnc", pReq, nAppend, &CProcessCommon::ReqCmdCreate);
}

void CProcessCommon::ReqCmdSetActionEnc(ReqWorkCmdSetActionEnc* pReq, int nAppend)
{
    ServeEnc<ReqWorkCmdSetActionEncData>("ReqCmdSetActionEnc", pReq, nAppend, &CProcessCommon::ReqCmdSetAction);
}

// ---- heartbeat, agent info, exit notice ---------------------------------------------

void CProcessCommon::ReqHeartbeat()
{
    Log(LOG_LEVEL_LOWEST, "CProcessCommon::SendHeartbeat(send heartbeat to server, agent id: %u)",
        g_nAgentId.load());
    ReqWorkAgentHeartbeat heartbeat;
    heartbeat.agentId = static_cast<int>(g_nAgentId.load());
    SendToServer(heartbeat, 0);
    m_bHeartbeat = true;
}

void CProcessCommon::RspHeartbeat(RspWorkAgentHeartbeat*, int)
{
    // Any answer counts; its ret is not looked at.
    m_bRespondHeartbeatOk = true;
    m_nRespondHeartbeatFailedNowCount = 0;
    Log(LOG_LEVEL_LOWEST, "CProcessCommon::DealHeartbeatResult(server is respond)");
}

void CProcessCommon::DealHeartbeatTimeout()
{
    unsigned int nRespondSecond = static_cast<unsigned int>(m_nServerHeartbeatRespondSecond.load());
    if (m_nRespondHeartbeatFailedNowCount >= m_nRespondHeartbeatFailedCount) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::DealHeartbeatTimeout(server is not respond in %usec, we will restart)",
            nRespondSecond * (m_nRespondHeartbeatFailedCount + 1));
        // The supervisor outside restarts the agent; it exits whatever the command did.
        int ret = system(RestartShell().c_str());
        (void)ret;
        ExitProcess(1);
    }
    if (!m_bRespondHeartbeatOk) {
        if (m_pNetwork != nullptr) m_pNetwork->SetFlag(CNetworkClientBrel::NET_FLAG_CONNECT_NEXT_SERVER);
        ++m_nRespondHeartbeatFailedNowCount;
        Log(LOG_LEVEL_WARNING, "CProcessCommon::DealHeartbeatTimeout(server is not respond in %usec, we reconnect it)",
            nRespondSecond);
        return;
    }
    m_bRespondHeartbeatOk = false;
    Log(LOG_LEVEL_DEBUG, "CProcessCommon::DealHeartbeatTimeout(server is respond in we want sec)");
}

void CProcessCommon::ReqInfo(ReqWorkAgentInfo*, int)
{
    // The request's fill field is not read, and the answer carries append 0.
    Log(LOG_LEVEL_DEBUG, "CProcessCommon::ReqInfo(send agent info to server, version: %s, start time: %u, now time: %u)",
        m_strAgentVersion.c_str(), static_cast<unsigned int>(g_nStartTime), static_cast<unsigned int>(g_timeNow.load()));
    unsigned int nVersion = 0;
    VersionStringToInt(nVersion, m_strAgentVersion);
    RspWorkAgentInfo rsp;
    rsp.agentInfo = new WorkAgentInfo;
    rsp.agentInfo->agentId = static_cast<int>(g_nAgentId.load());
    rsp.agentInfo->version = static_cast<int>(nVersion);
    rsp.agentInfo->startTime = static_cast<int>(g_nStartTime);
    SendToServer(rsp, 0);
}

void CProcessCommon::ReqExit()
{
    Log(LOG_LEVEL_DEBUG, "CProcessCommon::ReqExit(send agent exit to server)");
    ReqWorkAgentExit notice;
    notice.agentId = static_cast<int>(g_nAgentId.load());
    SendToServer(notice, 0);
}

void CProcessCommon::SendExitNotice()
{
    if (m_pNetwork == nullptr || !m_pNetwork->IsConnected()) {
        Log(LOG_LEVEL_WARNING,
            "CProcessCommon::Run(send to server agent exit is failed because network was not connect now)");
        return;
    }
    ReqExit();
    // At most one second, until the link has taken the queue.
    int nCount = 100;
    while (m_sendDataBuffer.GetDataNum() != 0) {
        if (--nCount < 0) break;
        Sleep(10);
    }
    if (nCount > 0) {
        Log(LOG_LEVEL_DEBUG, "CProcessCommon::Run(send to server agent exit is ok)");
    } else {
        Log(LOG_LEVEL_WARNING, "CProcessCommon::Run(send to server agent exit is failed in 1s)");
    }
}

void CProcessCommon::DealAutoAdjustAsnBufSize()
{
    // Under the lock: the command manager's thread may be encoding a result.
    CAutoLock lock(m_lock);
    unsigned int nSize = m_packetBuf.Size();
    if (nSize <= PACKET_BUF_SIZE) {
        Log(LOG_LEVEL_DEBUG, "CProcessCommon::DealAutoAdjustAsnBufSize(not need to adjust asn buffer, now size: %u)",
            nSize);
        return;
    }
    Log(LOG_LEVEL_INFO, "CProcessCommon::DealAutoAdjustAsnBufSize(need adjust asn buffer to default, now size: %u)",
        nSize);
    if (!m_packetBuf.Allocate(PACKET_BUF_SIZE)) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::DealAutoAdjustAsnBufSize(malloc asn buf is error, malloc size: %u)",
            PACKET_BUF_SIZE);
        ExitProcess(1);
    }
}
