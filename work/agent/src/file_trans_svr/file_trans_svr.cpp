#include "file_trans_svr/file_trans_svr.h"

#include <errno.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "common/agent_counters.h"
#include "common/agent_clock.h"
#include "common/agent_globals.h"
#include "ethnet.h"
#include "ini_file.h"
#include "process.h"
#include "util.h"

using namespace brel_lib;

const char* const g_strFileTransSvrInfo = "../log/file_svr_info";

namespace {

// Receive buffer of a new connection: requests are a few hundred bytes.
const unsigned int CLIENT_RECEIVE_BUF_SIZE = 4096;
const unsigned short DEFAULT_BIND_PORT = 65010;
// Blocks taken from each queue in one pass; the timers run in between.
const int TAKE_MAX = 499;
// Works are checked for expiry after more than this many seconds.
const time_t AUTO_DELETE_SECOND = 9;
// The sums of files are looked over after more than this many seconds, and
// an entry goes when it is this old.
const time_t MD5_CLEAN_SECOND = 99;
const time_t MD5_KEEP_SECOND = 3600;
const int DEFAULT_SEND_SPEED = 0xC80000;

} // namespace

void FileTransSvrNetCallback(unsigned int nConnectId, BREL_NET_CALLBACK_TYPE type, void* pAppend, int nSockFd)
{
    static_cast<CFileTransSvrManager*>(pAppend)->NetCallback(nConnectId, type, nSockFd);
}

CFileTransSvrManager::CFileTransSvrManager(CDataBufferSTLDeque& sendDataBufferMain)
    : m_revDataBuffer(false, 0),
      m_reqQueue(false, 0),
      m_sendDataBuffer(false, 0),
      m_sendDataBufferMain(sendDataBufferMain),
      m_networkServer(m_revDataBuffer, m_sendDataBuffer, CLIENT_RECEIVE_BUF_SIZE),
      m_packetBuf("CFileTransSvrManager", 0)
{
    m_networkServer.SetNetClientCallback(FileTransSvrNetCallback, this);
    m_networkServer.SetPacketCompleteFun(FileSvrPacketComplete);
}

CFileTransSvrManager::~CFileTransSvrManager()
{
    CThread::Stop();
    m_networkServer.Stop();
    unsigned int nSize = 0;
    void* pData = nullptr;
    while ((pData = m_reqQueue.GetFrontAndPop(nSize, 0)) != nullptr) {
        delete *static_cast<CFileSvrReqBase**>(pData);
        CDataBufferSTLDeque::FreePopData(pData);
    }
}

void CFileTransSvrManager::AddReq(CFileSvrReqBase* pReq)
{
    if (m_reqQueue.Push(&pReq, sizeof(pReq), BREL_DATA_NORMAL_PRI) != 0) {
        Log(LOG_LEVEL_ERROR, "CFileTransSvrManager::AddReq(push request is error, we exit)");
        ExitProcess(1);
    }
}

void CFileTransSvrManager::NetCallback(unsigned int nConnectId, BREL_NET_CALLBACK_TYPE type, int nSockFd)
{
    auto* pReq = new CFileSvrReqNetCallback(this);
    pReq->m_nConnectId = nConnectId;
    pReq->m_nSockFd = nSockFd;
    pReq->m_nType = type;
    if (type == BREL_CONNECT_NEW_CLIENT) GetPeerName(pReq->m_strClientIp, pReq->m_nClientPort, nSockFd);
    AddReq(pReq);
}

// ---- configuration -----------------------------------------------------------------

void CFileTransSvrManager::LoadCfg(bool bFirst)
{
    CIniFile ini;
    if (ini.Load(m_strCfgFile) != 0) {
        m_networkServer.SetNetflowSendSpeed(static_cast<unsigned int>(m_nMaxSendSpeed));
        return;
    }
    LoadBindEth(ini.GetIni("file_trans_svr_bind_eth", "eth1|eth0"));
    std::string strBindIp = Trim(ini.GetIni("file_trans_svr_bind_ip", ""), " \t");
    if (!strBindIp.empty()) {
        std::string strIp;
        if (EthnetGetIpAddress(strIp, strBindIp) == 0 && !strIp.empty()) strBindIp = strIp;
        EthnetInfoDestroy();
    }
    m_strBindIp = strBindIp;
    unsigned int nPort = StringToUInt(ini.GetIni("file_trans_svr_begin_bind_port", ""));
    m_nBindPort = (nPort == 0 || nPort > 65535) ? DEFAULT_BIND_PORT : static_cast<unsigned short>(nPort);
    if (bFirst) {
        unsigned int nThreads = StringToUInt(ini.GetIni("file_trans_svr_max_file_read_thread", ""));
        m_nMaxFileReadThread = nThreads == 0 ? 4 : nThreads;
    }
    m_nCheckMd5MaxSize = StringToUInt(ini.GetIni("file_trans_svr_check_md5_max_size", ""));
    unsigned int nConcurrent = StringToUInt(ini.GetIni("file_trans_svr_max_concurrent", ""));
    m_nWorkMaxConcurrent = nConcurrent == 0 ? 100 : nConcurrent;
    int nKeep = StringToInt(ini.GetIni("file_trans_svr_thread_keep_timeout_second", ""));
    m_nSvrThreadKeepTimeoutSecond = nKeep < 1 ? 600 : nKeep;
    int nNotGet = StringToInt(ini.GetIni("file_trans_svr_not_get_keep_second_before_auto_delete", ""));
    m_nNotGetKeepSecondBeforeAutoDelete = nNotGet < 1 ? 600 : nNotGet;
    if (StringToInt(ini.GetIni("file_trans_enable_speed", "0")) != 0) {
        int nSpeed = StringToInt(ini.GetIni("file_trans_svr_max_send_speed", ""));
        m_nMaxSendSpeed = nSpeed < 0 ? DEFAULT_SEND_SPEED : nSpeed;
    } else {
        m_nMaxSendSpeed = 0;
    }
    g_bEnableMd5Calc = ini.GetIni("file_trans_svr_enable_md5_calc", "1") != "0";
    m_bPrintAgentInfo = StringToInt(ini.GetIni("print_agent_info", "")) != 0;
    // Off by default: a get is served only for its work's path, to its work's destination.
    m_bCheckClient = StringToInt(ini.GetIni("file_trans_svr_check_client", "0")) != 0;
    m_networkServer.SetNetflowSendSpeed(static_cast<unsigned int>(m_nMaxSendSpeed));
}

void CFileTransSvrManager::LoadBindEth(const std::string& strBindEth)
{
    std::vector<std::string> vecPiece;
    SplitDataToVector(vecPiece, strBindEth, "|");
    std::vector<unsigned int> vecBindEth;
    for (const std::string& strRaw : vecPiece) {
        std::string strPiece = Trim(strRaw, " \t");
        std::string strIp;
        unsigned int nIp = 0;
        if (EthnetGetIpAddress(strIp, strPiece) == 0 && !strIp.empty() && IpStringToInt(nIp, strIp) == 0) {
            vecBindEth.push_back(nIp);
        } else if (IpStringToInt(nIp, strPiece) == 0) {
            vecBindEth.push_back(nIp);
        }
    }
    if (vecBindEth.empty()) {
        Log(LOG_LEVEL_ERROR, "CFileTransSvrManager::LoadCfg(file_trans_svr_bind_eth in cfg file is error: %s)",
            strBindEth.c_str());
        ExitProcess(1);
    }
    EthnetInfoDestroy();
    m_vecBindEth = vecBindEth;
}

// ---- the loop ----------------------------------------------------------------------

void CFileTransSvrManager::Run()
{
    LoadCfg(true);
    m_bPrintAgentInfo = false;
    for (unsigned int i = 0; i < m_nMaxFileReadThread; ++i) {
        auto* pThread = new CFileReadThread(m_sendDataBuffer, &m_networkServer);
        int ret = pThread->Start();
        if (ret != 0) {
            Log(LOG_LEVEL_ERROR, "CFileTransSvrManager::Run(start read thread is error, ret: %d)", ret);
            ExitProcess(1);
        }
        m_vecFileReadThread.push_back(pThread);
    }
    // One wait for both queues, so that a request is never taken for data.
    int epfd = epoll_create1(EPOLL_CLOEXEC);
    if (epfd < 0) {
        Log(LOG_LEVEL_ERROR, "CFileTransSvrManager::Run(epoll_create is error, errno: %d)", errno);
        ExitProcess(errno);
    }
    for (CDataBufferSTLDeque* pQueue : {&m_reqQueue, &m_revDataBuffer}) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = pQueue->GetReadableFd();
        if (epoll_ctl(epfd, EPOLL_CTL_ADD, ev.data.fd, &ev) != 0) {
            Log(LOG_LEVEL_ERROR, "CFileTransSvrManager::Run(epoll_ctl add queue fd is error, errno: %d)", errno);
            ExitProcess(errno);
        }
    }
    // A stop or a reload wakes the wait as well.
    if (WakeFd() >= 0) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = WakeFd();
        if (epoll_ctl(epfd, EPOLL_CTL_ADD, ev.data.fd, &ev) != 0) {
            Log(LOG_LEVEL_ERROR, "CFileTransSvrManager::Run(epoll_ctl add queue fd is error, errno: %d)", errno);
            ExitProcess(errno);
        }
    }
    time_t timePreTestAutoDelete = g_timeNow;
    m_timeLastCleanMd5Map = g_timeNow;
    WatchAgentClock(this);
    while (m_nContinueRun != 0) {
        epoll_event events[3];
        if (epoll_wait(epfd, events, 3, MilliSecondsUntilAgentTime(NextDeadline(timePreTestAutoDelete))) > 0) {
            TakeWakeUp();  // whatever woke the wait, the pass looks at everything
        }
        DealRequests();
        for (int i = 0; i < TAKE_MAX && m_nContinueRun != 0; ++i) {
            unsigned int nSize = 0;
            int nAppend = 0;
            char* pData = static_cast<char*>(m_revDataBuffer.GetFrontAndPop2(nSize, nAppend, 0));
            if (pData == nullptr) break;
            DealFileClientReq(pData, nSize, static_cast<unsigned int>(nAppend));
            CDataBufferSTLDeque::FreePopData(pData);
        }
        if (m_bLoadCfg.exchange(false)) {
            LoadCfg(false);
            Log(LOG_LEVEL_INFO, "CFileTransSvrManager::Run(ReloadCfg)");
        }
        if (m_bPrintAgentInfo) {
            m_bPrintAgentInfo = false;
            PrintAgentInfo();
        }
        time_t tNow = g_timeNow;
        PullBack(timePreTestAutoDelete, tNow);
        if (tNow - timePreTestAutoDelete > AUTO_DELETE_SECOND) {
            timePreTestAutoDelete = tNow;
            DealAutoDelete();
        }
        PullBack(m_timeLastCleanMd5Map, tNow);
        if (tNow - m_timeLastCleanMd5Map > MD5_CLEAN_SECOND) {
            m_timeLastCleanMd5Map = tNow;
            CleanMd5Map();
        }
        DealIdleListener();
        m_nWorkCount.store(static_cast<unsigned int>(m_mapWork.size()), std::memory_order_relaxed);
    }
    UnwatchAgentClock(this);
    close(epfd);
    m_tServerLastRunning = 0;
    m_networkServer.Stop();
    for (CFileReadThread* pThread : m_vecFileReadThread) {
        pThread->Stop();
        delete pThread;
    }
    m_vecFileReadThread.clear();
    m_mapWork.clear();
    m_mapConnectIdThreadId.clear();
    m_mapClient.clear();
}

time_t CFileTransSvrManager::NextDeadline(time_t timePreTestAutoDelete) const
{
    time_t tNext = m_timeLastCleanMd5Map + MD5_CLEAN_SECOND + 1;
    auto earlier = [&tNext](time_t t) {
        if (t < tNext) tNext = t;
    };
    // Without works there is nothing to expire, and the listener's idle time runs.
    if (!m_mapWork.empty()) {
        earlier(timePreTestAutoDelete + AUTO_DELETE_SECOND + 1);
    } else if (m_tServerLastRunning != 0) {
        earlier(m_tServerLastRunning + m_nSvrThreadKeepTimeoutSecond);
    }
    return tNext;
}

void CFileTransSvrManager::DealRequests()
{
    for (int i = 0; i < TAKE_MAX && m_nContinueRun != 0; ++i) {
        unsigned int nSize = 0;
        void* pData = m_reqQueue.GetFrontAndPop(nSize, 0);
        if (pData == nullptr) return;
        CFileSvrReqBase* pReq = *static_cast<CFileSvrReqBase**>(pData);
        CDataBufferSTLDeque::FreePopData(pData);
        pReq->DoReq();
        delete pReq;
    }
}

void CFileTransSvrManager::CleanMd5Map()
{
    time_t tNow = g_timeNow;
    CAutoLock lock(m_lockMd5);
    for (auto it = m_mapFileMd5.begin(); it != m_mapFileMd5.end();) {
        if (it->second.timeLastUsed > tNow || tNow - it->second.timeLastUsed >= MD5_KEEP_SECOND) {
            it = m_mapFileMd5.erase(it);
        } else {
            ++it;
        }
    }
}

void CFileTransSvrManager::DealIdleListener()
{
    time_t tNow = g_timeNow;
    if (!m_mapWork.empty()) {
        m_tServerLastRunning = tNow;
        return;
    }
    time_t tLast = m_tServerLastRunning;
    if (tLast == 0) return;
    if (tLast > tNow) m_tServerLastRunning = tLast = tNow;
    if (tNow - tLast < m_nSvrThreadKeepTimeoutSecond) return;
    m_tServerLastRunning = 0;
    m_networkServer.Stop();
    // The loop closed its connections without telling: forget them here.
    for (const auto& pair : m_mapClient) {
        m_vecFileReadThread[pair.second.nThreadId]->AddReq(new CFileReadThreadReqForget(pair.first));
    }
    m_mapConnectIdThreadId.clear();
    m_mapClient.clear();
    Log(LOG_LEVEL_INFO,
        "CFileTransSvrManager::Run(no any client, and keep second timeout now, we close the server listen, timeout: "
        "%ds)",
        m_nSvrThreadKeepTimeoutSecond);
}

// ---- the dump ----------------------------------------------------------------------

void CFileTransSvrManager::PrintAgentInfo()
{
    FILE* pFile = fopen(g_strFileTransSvrInfo, "a");
    if (pFile == nullptr) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransSvrManager::PrintAgentInfo(need print agent info, but open file '%s' is error, errno: %d)",
            g_strFileTransSvrInfo, errno);
        return;
    }
    fprintf(pFile,
            "===============================[Start Print File Trans Svr Info][Now Time: %s] Read "
            "Thread=============================\n",
            ConvertUnixTimeToStr(g_timeNow).c_str());
    fprintf(pFile, "agent start time: %s\n", ConvertUnixTimeToStr(g_nStartTime).c_str());
    fprintf(pFile, "last file svr task end time: %s\n", ConvertUnixTimeToStr(m_timeLastTaskEnd).c_str());
    fprintf(pFile, "all work num: %llu\n", m_lWorkAllCount.load());
    fprintf(pFile, "all send file size: %llu\n", g_lWorkTransmitSize.load());
    fprintf(pFile, "m_mapWork.size: %u\n", static_cast<unsigned int>(m_mapWork.size()));
    int nIndex = 0;
    for (const auto& pair : m_mapWork) {
        const FileTransSvr& work = pair.second;
        auto itThread = m_mapConnectIdThreadId.find(work.nConnectId);
        fprintf(pFile, "+++++++++++++++++++++<A Work: %d>++++++++++++++++++++++\n", ++nIndex);
        fprintf(pFile, "strSrcFile: %s\n", work.strSrcFile.c_str());
        fprintf(pFile, "strDstIp: %s\n", work.strDstIp.c_str());
        fprintf(pFile, "nFlag: %u\n", work.nFlag);
        fprintf(pFile, "nWorkId: %u\n", work.nWorkId);
        fprintf(pFile, "nConnectId: %u\n", work.nConnectId);
        fprintf(pFile, "nThreadId: %u\n", itThread == m_mapConnectIdThreadId.end() ? 0 : itThread->second);
        fprintf(pFile, "nLastReqTime: %s\n", ConvertUnixTimeToStr(work.nLastGetTime).c_str());
        fprintf(pFile, "nBeginTime: %s\n", ConvertUnixTimeToStr(work.nBeginTime).c_str());
        fprintf(pFile, "strCacheId: %s\n", work.strCacheId.c_str());
    }
    fprintf(pFile, "===============================[End] Read Thread=============================\n");
    fprintf(pFile, "\n\n\n\n\n\n\n\n");
    fclose(pFile);
}

// ---- replies to the server ---------------------------------------------------------

void FillFileSrcCreate(RspWorkFileSrcCreate& rsp, unsigned int nWorkId, const ReplyRoute& route, int ret,
                       unsigned int nIp, unsigned short nPort)
{
    rsp.ret = ret;
    rsp.workId = static_cast<int>(nWorkId);
    rsp.srcServerIp = static_cast<int>(nIp);
    rsp.srcServerPort = nPort;
    rsp.routeDstServerIp = static_cast<int>(route.nSrcServerIp);
    rsp.routeDstServerId = static_cast<int>(route.nSrcServerId);
    rsp.routeSrcAgentId = static_cast<int>(g_nAgentId.load());
}

void FillFileSrcCreate2(RspWorkFileSrcCreate2& rsp, unsigned int nWorkId, const ReplyRoute& route, int ret,
                        const std::vector<unsigned int>& vecIp, unsigned short nPort, time_t tModify,
                        unsigned long long lFileSize)
{
    rsp.ret = ret;
    rsp.workId = static_cast<int>(nWorkId);
    for (unsigned int nIp : vecIp) *rsp.srcServerIp.Append() = static_cast<int>(nIp);
    rsp.srcServerPort = nPort;
    rsp.modifyTime = static_cast<int>(tModify);
    rsp.totalSizeHigh = static_cast<int>(lFileSize >> 32);
    rsp.totalSizeLow = static_cast<int>(lFileSize & 0xFFFFFFFFU);
    rsp.routeDstServerIp = static_cast<int>(route.nSrcServerIp);
    rsp.routeDstServerId = static_cast<int>(route.nSrcServerId);
    rsp.routeSrcAgentId = static_cast<int>(g_nAgentId.load());
}

void FillFileSrcDelete(RspWorkFileSrcDelete& rsp, unsigned int nWorkId, const ReplyRoute& route, int ret)
{
    rsp.ret = ret;
    rsp.workId = static_cast<int>(nWorkId);
    rsp.routeDstServerIp = static_cast<int>(route.nSrcServerIp);
    rsp.routeDstServerId = static_cast<int>(route.nSrcServerId);
    rsp.routeSrcAgentId = static_cast<int>(g_nAgentId.load());
}

ReplyRoute CFileTransSvrManager::NowRoute() const
{
    ReplyRoute route;
    route.nAppend = m_nNowAppend;
    route.nSrcServerIp = m_nNowRouteSrcServerIp;
    route.nSrcServerId = m_nNowRouteSrcServerId;
    return route;
}

template <class T>
void CFileTransSvrManager::SendToServerMain(T& message)
{
    unsigned int nSize = 0;
    char* pBytes = EncodePacket(m_packetBuf, message, m_nNowAppend, nSize);
    m_sendDataBufferMain.Push(pBytes, nSize, BREL_DATA_NORMAL_PRI);
}

void CFileTransSvrManager::SendFileSrcToServerCreateOk(unsigned int nIp, unsigned short nPort)
{
    Log(LOG_LEVEL_DEBUG, "CFileTransSvrManager::SendFileSrcToServerCreateOk(work id: %u, append: %d)", m_nNowWorkId,
        m_nNowAppend);
    RspWorkFileSrcCreate rsp;
    FillFileSrcCreate(rsp, m_nNowWorkId, NowRoute(), 0, nIp, nPort);
    SendToServerMain(rsp);
}

void CFileTransSvrManager::SendFileSrcToServerCreateFailed(int ret)
{
    Log(LOG_LEVEL_WARNING, "CFileTransSvrManager::SendFileSrcToServerCreateFailed(ret: %d, work id: %u, append: %d)",
        ret, m_nNowWorkId, m_nNowAppend);
    CountRefusal(ret);
    RspWorkFileSrcCreate rsp;
    FillFileSrcCreate(rsp, m_nNowWorkId, NowRoute(), ret, 0, 0);
    SendToServerMain(rsp);
}

void CFileTransSvrManager::SendFileSrcToServerCreate2Ok(const std::vector<unsigned int>& vecIp, unsigned short nPort,
                                                        time_t tModify, unsigned long long lFileSize)
{
    Log(LOG_LEVEL_DEBUG, "CFileTransSvrManager::SendFileSrcToServerCreate2Ok(work id: %u, append: %d)", m_nNowWorkId,
        m_nNowAppend);
    RspWorkFileSrcCreate2 rsp;
    FillFileSrcCreate2(rsp, m_nNowWorkId, NowRoute(), 0, vecIp, nPort, tModify, lFileSize);
    SendToServerMain(rsp);
}

void CFileTransSvrManager::SendFileSrcToServerCreate2Failed(int ret)
{
    Log(LOG_LEVEL_WARNING, "CFileTransSvrManager::SendFileSrcToServerCreate2Failed(ret: %d, work id: %u, append: %d)",
        ret, m_nNowWorkId, m_nNowAppend);
    CountRefusal(ret);
    RspWorkFileSrcCreate2 rsp;
    FillFileSrcCreate2(rsp, m_nNowWorkId, NowRoute(), ret, std::vector<unsigned int>(), 0, 0, 0);
    SendToServerMain(rsp);
}

void CFileTransSvrManager::SendFileSrcToServerDeleteOk()
{
    Log(LOG_LEVEL_DEBUG, "CFileTransSvrManager::SendFileSrcToServerDeleteOk(work id: %u, append: %d)", m_nNowWorkId,
        m_nNowAppend);
    RspWorkFileSrcDelete rsp;
    FillFileSrcDelete(rsp, m_nNowWorkId, NowRoute(), 0);
    SendToServerMain(rsp);
}

void CFileTransSvrManager::SendFileSrcToServerDeleteFailed(int ret)
{
    Log(LOG_LEVEL_WARNING, "CFileTransSvrManager::SendFileSrcToServerDeleteFailed(ret: %d, work id: %u, append: %d)",
        ret, m_nNowWorkId, m_nNowAppend);
    CountRefusal(ret);
    RspWorkFileSrcDelete rsp;
    FillFileSrcDelete(rsp, m_nNowWorkId, NowRoute(), ret);
    SendToServerMain(rsp);
}
