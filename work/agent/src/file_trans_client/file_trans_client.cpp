#include "file_trans_client/file_trans_client.h"

#include <errno.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/stat.h>

#include "common/agent_globals.h"
#include "common/work_codes.h"
#include "file_trans_cache/file_trans_cache.h"
#include "file_trans_client/client_settings.h"
#include "ini_file.h"
#include "log.h"
#include "util.h"

using namespace brel_lib;

std::atomic<int> g_nClientConnectSvrTimeoutSecond{5};
std::atomic<unsigned int> g_nMaxFileWriteThread{4};
std::atomic<unsigned int> g_nClientMaxConcurrent{100};
std::atomic<int> g_nClientThreadKeepTimeoutSecond{600};
std::atomic<int> g_nClientReGetTimeoutSecond{30};
std::atomic<int> g_nClientReGetFailedTimeoutSecond{95};
std::atomic<int> g_nClientRetryConnectSecond{21};
std::atomic<unsigned int> g_nGetSizePerReq{0x80000};
std::atomic<unsigned int> g_nGetNumPerReq{4};
std::atomic<int> g_nClientFinishKeepSecondBeforeAutoDelete{86400};
std::atomic<int> g_nClientNotBeginKeepSecondBeforeAutoDelete{600};
std::atomic<int> g_nMaxRecvSpeed{13107200};
std::atomic<bool> g_bEnableAutoAdjustSpeed{true};
std::atomic<bool> g_bEnablePreGet{true};
std::atomic<bool> g_bEnableMd5Check{true};
std::atomic<unsigned int> g_nPreGetPacketNum{3};
std::atomic<int> g_nFinishSendResultDisSecondBeforeAutoDelete{300};
std::atomic<bool> g_bDstNoFollow{false};
std::atomic<bool> g_bCheckFileMd5{false};

namespace {

const unsigned int MANAGER_STACK_SIZE = 0x100000;
const unsigned int RECEIVE_BUF_DEFAULT_SIZE = 0x20000;
// The longest wait while works run.
const unsigned int WORKS_WAIT_MILLISECOND = 1000;
const int REV_PACKETS_PER_PASS = 499;
const int NO_TIMEOUT_SECOND = 0x7fffffff;

const char* const g_szNetCallbackType[] = {"", "new client", "connect close", "connect ok", "connect failed"};

const char* NetCallbackTypeName(int nType)
{
    return nType >= 0 && nType < 5 ? g_szNetCallbackType[nType] : "";
}

std::string AddressText(unsigned int nIp)
{
    std::string strIp;
    if (nIp == 0 || IpIntToString(strIp, nIp) != 0) return std::string();
    return strIp;
}

std::string OctsText(const AsnOcts& octs) { return std::string(octs.octs == nullptr ? "" : octs.octs, octs.octetLen); }

int TimeoutOf(const AsnInt& timeout)
{
    int n = static_cast<int>(timeout.value);
    return n == 0 ? NO_TIMEOUT_SECOND : n;
}

template <class T>
void FillRoute(FileWriteReqRoute& route, const T& packet, int nAppend)
{
    route.m_nWorkId = static_cast<unsigned int>(packet.workId.value);
    route.m_nAppend = nAppend;
    route.m_nRouteSrcServerIp = static_cast<unsigned int>(packet.routeSrcServerIp.value);
    route.m_nRouteSrcServerId = static_cast<unsigned int>(packet.routeSrcServerId.value);
}

} // namespace

void FileTransClientNetCallback(unsigned int nConnectId, BREL_NET_CALLBACK_TYPE nType, void* pAppend, int fd)
{
    if (pAppend != nullptr) static_cast<CFileTransClientManager*>(pAppend)->NetCallback(nConnectId, nType, fd);
}

CFileTransClientManager::CFileTransClientManager(CDataBufferSTLDeque& sendDataBufferMain)
    : CThread(MANAGER_STACK_SIZE),
      m_sendDataBufferMain(sendDataBufferMain),
      m_revDataBuffer(true, 0),
      m_sendDataBuffer(false, 0),
      m_networkMultiClient(m_revDataBuffer, m_sendDataBuffer, RECEIVE_BUF_DEFAULT_SIZE)
{
    m_networkMultiClient.SetNetClientCallback(FileTransClientNetCallback, this);
}

CFileTransClientManager::~CFileTransClientManager()
{
    Stop();
    // Threads built by a Start whose own thread never ran.
    for (CFileWriteThread* pThread : m_vecFileWriteThread) {
        pThread->Stop();
        delete pThread;
    }
    m_vecFileWriteThread.clear();
}

void CFileTransClientManager::ReloadCfg()
{
    Log(LOG_LEVEL_INFO, "CFileTransClientManager::ReloadCfg");
    LoadCfg(false);
    WakeUp();  // a dump may be asked for
}

void CFileTransClientManager::LoadCfg(bool bFirst)
{
    static bool bFirstPreGet = true;
    CIniFile cfgFile;
    if (cfgFile.Load(m_strCfgFile) == 0) {
        g_nClientConnectSvrTimeoutSecond = StringToInt(cfgFile.GetIni("connect_timeout_second", "10"));
        if (bFirst) {
            unsigned int nThreads = static_cast<unsigned int>(
                StringToInt(cfgFile.GetIni("file_trans_client_max_file_write_thread", "")));
            g_nMaxFileWriteThread = nThreads == 0 ? 4 : nThreads;
        }
        unsigned int nMax = static_cast<unsigned int>(StringToInt(cfgFile.GetIni("file_trans_client_max_concurrent", "")));
        g_nClientMaxConcurrent = nMax == 0 ? 100 : nMax;
        auto secondsOr = [&cfgFile](const char* szKey, int nFallback) {
            int n = StringToInt(cfgFile.GetIni(szKey, ""));
            return n < 1 ? nFallback : n;
        };
        g_nClientThreadKeepTimeoutSecond = secondsOr("file_trans_client_thread_keep_timeout_second", 600);
        g_nClientReGetTimeoutSecond = secondsOr("file_trans_client_reget_timeout_second", 30);
        g_nClientReGetFailedTimeoutSecond = secondsOr("file_trans_client_reget_failed_timeout_second", 95);
        g_nClientRetryConnectSecond = secondsOr("file_trans_client_retry_connect_second", 21);
        unsigned int nSize = static_cast<unsigned int>(StringToInt(cfgFile.GetIni("file_trans_client_get_size_per_req", "")));
        g_nGetSizePerReq = nSize == 0 ? 0x80000 : nSize;
        unsigned int nNum = static_cast<unsigned int>(StringToInt(cfgFile.GetIni("file_trans_client_get_num_per_req", "")));
        g_nGetNumPerReq = nNum == 0 ? 4 : nNum;
        g_nClientFinishKeepSecondBeforeAutoDelete =
            secondsOr("file_trans_client_finish_keep_second_before_auto_delete", 86400);
        g_nClientNotBeginKeepSecondBeforeAutoDelete =
            secondsOr("file_trans_client_not_begin_keep_second_before_auto_delete", 600);
        bool bEnableSpeed = StringToInt(cfgFile.GetIni("file_trans_enable_speed", "0")) != 0;
        if (bEnableSpeed) {
            int nSpeed = StringToInt(cfgFile.GetIni("file_trans_client_max_recv_speed", ""));
            g_nMaxRecvSpeed = nSpeed < 0 ? 0xc80000 : nSpeed;
        } else {
            g_nMaxRecvSpeed = 0;
        }
        g_bEnableAutoAdjustSpeed = cfgFile.GetIni("file_trans_client_enable_auto_adjust_speed", "1") != "0";
        g_bEnablePreGet = cfgFile.GetIni("file_trans_client_enable_pre_get", "1") != "0";
        g_bEnableMd5Check = cfgFile.GetIni("file_trans_client_enable_md5_check", "1") != "0";
        if (bFirstPreGet) {
            bFirstPreGet = false;
            int nPreGet = StringToInt(cfgFile.GetIni("file_trans_client_pre_get_packet_num", ""));
            g_nPreGetPacketNum = nPreGet < 1 ? 3 : static_cast<unsigned int>(nPreGet);
        }
        m_bPrintAgentInfo = StringToInt(cfgFile.GetIni("print_agent_info", "")) != 0;
        g_nFinishSendResultDisSecondBeforeAutoDelete =
            secondsOr("task_finish_send_result_dis_second_before_auto_delete", 300);
        g_bDstNoFollow = StringToInt(cfgFile.GetIni("file_trans_client_dst_no_follow", "")) != 0;
        g_bCheckFileMd5 = StringToInt(cfgFile.GetIni("file_trans_client_check_file_md5", "")) != 0;
    }
    m_networkMultiClient.SetNetflowRecvSpeed(static_cast<unsigned int>(g_nMaxRecvSpeed.load()));
}

int CFileTransClientManager::Start()
{
    if (m_vecFileWriteThread.empty()) {
        LoadCfg(true);
        // A print_agent_info left in the file gives no dump at start.
        m_bPrintAgentInfo = false;
        unsigned int nThreads = g_nMaxFileWriteThread;
        for (unsigned int i = 0; i < nThreads; ++i) {
            CFileWriteThread* pThread = new CFileWriteThread(static_cast<int>(i), m_revDataBuffer, m_sendDataBuffer,
                                                             m_sendDataBufferMain, m_networkMultiClient, this);
            pThread->Start();
            m_vecFileWriteThread.push_back(pThread);
        }
    }
    return CThread::Start();
}

// ---- the create checks ----------------------------------------------------------

// Whether the user daemon, not the agent's own user, could write the
// destination: the file if it exists, else its directory. Only write bits count.
int CFileTransClientManager::CheckDaemonMayWrite(const char* szFunction, unsigned int nWorkId,
                                                 const std::string& strDstPath, const std::string& strSrcName)
{
    long dNormalUid = -1;
    long dNormalGid = -1;
    struct passwd pwd;
    struct passwd* pResult = nullptr;
    char szBuf[4096];
    if (getpwnam_r("daemon", &pwd, szBuf, sizeof(szBuf), &pResult) == 0 && pResult != nullptr) {
        dNormalUid = static_cast<long>(pwd.pw_uid);
        dNormalGid = static_cast<long>(pwd.pw_gid);
    }
    if (dNormalUid == -1 || dNormalGid == -1) {
        Log(LOG_LEVEL_WARNING, "CFileTransClientManager::%s(can not find message of user %s, work id: %u)", szFunction,
            "daemon", nWorkId);
        return RET_DAEMON_UNKNOWN;
    }
    std::string strFile;
    std::string strDir;
    if (IsDir(strDstPath)) {
        strDir = strDstPath;
        strFile = strDstPath + "/" + PathFile(strSrcName);
    } else {
        strFile = strDstPath;
        strDir = PathFolder(strDstPath);
        if (strDir.empty()) strDir = ".";
    }
    struct stat st;
    bool bFileExist = stat(strFile.c_str(), &st) == 0;
    if (!bFileExist && stat(strDir.c_str(), &st) != 0) {
        Log(LOG_LEVEL_WARNING, "CFileTransClientManager::%s(dst path not exist, work id: %u, dst path: %s)", szFunction,
            nWorkId, strDstPath.c_str());
        return RET_DAEMON_DIR_DENIED;
    }
    long dUid = static_cast<long>(st.st_uid);
    long dGid = static_cast<long>(st.st_gid);
    unsigned int uAccessBit = st.st_mode & 0x1ff;
    Log(LOG_LEVEL_DEBUG,
        "CFileTransClientManager::%s(%s, work id: %u, uid: %d, gid: %d, normal uid: %d, normal gid: %d, uAccessBit = %o",
        szFunction, bFileExist ? "dst file exist" : "dst path exist", nWorkId, static_cast<int>(dUid),
        static_cast<int>(dGid), static_cast<int>(dNormalUid), static_cast<int>(dNormalGid), uAccessBit);
    if ((dNormalUid == dUid && (uAccessBit & 0x80)) || (dNormalGid == dGid && (uAccessBit & 0x10)) ||
        (uAccessBit & 0x2))
        return 0;
    if (bFileExist) {
        Log(LOG_LEVEL_WARNING, "CFileTransClientManager::%s(denied to modify dst file, work id: %u, dst file: %s)",
            szFunction, nWorkId, strFile.c_str());
        return RET_DAEMON_MAY_NOT_MODIFY;
    }
    Log(LOG_LEVEL_WARNING, "CFileTransClientManager::%s(denied to create dst file, work id: %u, dst path: %s)",
        szFunction, nWorkId, strDstPath.c_str());
    return RET_DAEMON_DIR_DENIED;
}

int CFileTransClientManager::CheckNewWork(const char* szFunction, unsigned int nWorkId, const std::string& strSrcFile,
                                          const std::string& strIp, unsigned short nPort, bool bLast)
{
    const char* szLast = bLast ? "last, " : "";
    if (m_mapWorkIdThreadId.size() >= g_nClientMaxConcurrent) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransClientManager::%s(we receive a new work, %sbut it need wait for concurrent, now concurrent size: "
            "%u, work id: %u, src file: %s, src ip: %s, src port: %hu)",
            szFunction, szLast, g_nClientMaxConcurrent.load(), nWorkId, strSrcFile.c_str(), strIp.c_str(), nPort);
        return RET_CONCURRENT_LIMIT;
    }
    if (m_mapWorkIdThreadId.count(nWorkId) != 0) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransClientManager::%s(work id is exist, %swork id: %u, src file: %s, src ip: %s, src port: %hu)",
            szFunction, szLast, nWorkId, strSrcFile.c_str(), strIp.c_str(), nPort);
        return RET_WORK_ID_EXISTS;
    }
    return 0;
}

void CFileTransClientManager::CountWorks(unsigned int nByStage[3], unsigned int& nQueued)
{
    nQueued = 0;
    for (CFileWriteThread* pThread : m_vecFileWriteThread) {
        pThread->CountWorks(nByStage);
        nQueued += pThread->QueuedRequests();
    }
}

CFileWriteThread* CFileTransClientManager::TakeNextThread(unsigned int nWorkId)
{
    unsigned int nThread = m_nNowFileWriteThread;
    if (nThread >= m_vecFileWriteThread.size()) nThread = 0;
    m_mapWorkIdThreadId[nWorkId] = nThread;
    m_nNowFileWriteThread = nThread + 1;
    if (m_nNowFileWriteThread >= m_vecFileWriteThread.size()) m_nNowFileWriteThread = 0;
    if (m_tServerLastRunning == 0) {
        m_networkMultiClient.Start();
        m_tServerLastRunning = g_timeNow;
    }
    WakeUp();  // the manager's wait turns to the one of running works
    return m_vecFileWriteThread[nThread];
}

int CFileTransClientManager::CreateTransClient(ReqWorkFileDstCreate* pPacket, int nAppend,
                                               const std::string& strFileMd5)
{
    unsigned int nWorkId = static_cast<unsigned int>(pPacket->workId.value);
    std::string strSrcFile = OctsText(pPacket->srcFile);
    std::string strDstPath = OctsText(pPacket->dstPath);
    unsigned int nSrcIp = static_cast<unsigned int>(pPacket->srcServerIp.value);
    unsigned short nPort = static_cast<unsigned short>(pPacket->srcServerPort.value);
    unsigned int nFlag = static_cast<unsigned int>(pPacket->flag.value);
    std::string strIp = AddressText(nSrcIp);
    if (strIp.empty()) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransClientManager::CreateTransClient(error src server ip, work id: %u, src file: %s, src ip: %u, "
            "src port: %hu)",
            nWorkId, strSrcFile.c_str(), nSrcIp, nPort);
        return RET_BAD_ADDRESS;
    }
    if (nFlag & FILE_DST_FLAG_FOR_DAEMON) {
        int ret = CheckDaemonMayWrite("CreateTransClient", nWorkId, strDstPath, strSrcFile);
        if (ret != 0) return ret;
    }
    if (m_vecFileWriteThread.empty()) return RET_CONCURRENT_LIMIT;
    CFileWriteThread* pThread = nullptr;
    {
        CAutoLock lock(m_lock);
        int ret = CheckNewWork("CreateTransClient", nWorkId, strSrcFile, strIp, nPort, false);
        if (ret != 0) return ret;
        pThread = TakeNextThread(nWorkId);
    }
    CFileWriteReqCreate* pReq = new CFileWriteReqCreate(pThread);
    FillRoute(*pReq, *pPacket, nAppend);
    pReq->m_strSrcFile = strSrcFile;
    pReq->m_strDstPath = strDstPath;
    pReq->m_vecSrcServerIp.push_back(strIp);
    pReq->m_nSrcServerPort = nPort;
    pReq->m_nSrcWorkId = static_cast<unsigned int>(pPacket->srcWorkId.value);
    pReq->m_nFlag = nFlag;
    pReq->m_nTimeoutSecond = TimeoutOf(pPacket->timeout);
    pReq->m_strFileMd5 = strFileMd5;
    pThread->AddReq(pReq);
    if (!(nFlag & FILE_DST_FLAG_QUIET))
        Log(LOG_LEVEL_INFO,
            "CFileTransClientManager::CreateTransClient(work id: %u, server ip: %s, port: %hu, src file: %s, dst path: "
            "%s)",
            nWorkId, strIp.c_str(), nPort, strSrcFile.c_str(), strDstPath.c_str());
    return 0;
}

int CFileTransClientManager::CreateTransClient2(ReqWorkFileDstCreate2* pPacket, int nAppend,
                                                const std::string& strFileMd5)
{
    unsigned int nWorkId = static_cast<unsigned int>(pPacket->workId.value);
    std::string strSrcFile = OctsText(pPacket->srcFile);
    std::string strDstPath = OctsText(pPacket->dstPath);
    unsigned short nPort = static_cast<unsigned short>(pPacket->srcServerPort.value);
    unsigned int nFlag = static_cast<unsigned int>(pPacket->flag.value);
    std::string strFirstSrcFile = OctsText(pPacket->firstSrcFile);
    std::string strFirstSrcIp = IpIntToString(static_cast<unsigned int>(pPacket->firstSrcAgentId.value));
    time_t tFileModify = static_cast<time_t>(static_cast<unsigned int>(pPacket->modifyTime.value));
    unsigned long long lFileSize = (static_cast<unsigned long long>(static_cast<unsigned int>(pPacket->totalSizeHigh.value)) << 32) |
                                   static_cast<unsigned int>(pPacket->totalSizeLow.value);

    std::vector<std::string> vecIp;
    pPacket->srcServerIp.SetCurrToFirst();
    for (AsnInt* pIp = pPacket->srcServerIp.Curr(); pIp != nullptr; pIp = pPacket->srcServerIp.GoNext()) {
        unsigned int nIp = static_cast<unsigned int>(pIp->value);
        std::string strIp = AddressText(nIp);
        if (strIp.empty()) {
            Log(LOG_LEVEL_WARNING,
                "CFileTransClientManager::CreateTransClient2(error src server ip, work id: %u, src file: %s, src ip: %u, "
                "src port: %hu, first src ip: %s, first src file: %s)",
                nWorkId, strSrcFile.c_str(), nIp, nPort, strFirstSrcIp.c_str(), strFirstSrcFile.c_str());
            return RET_BAD_ADDRESS;
        }
        vecIp.push_back(strIp);
    }
    if (vecIp.empty()) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransClientManager::CreateTransClient2(src server ip is empty, work id: %u, src file: %s, src port: "
            "%hu, first src ip: %s, first src file: %s)",
            nWorkId, strSrcFile.c_str(), nPort, strFirstSrcIp.c_str(), strFirstSrcFile.c_str());
        return RET_BAD_ADDRESS;
    }
    bool bCache = (nFlag & FILE_DST_FLAG_CACHE) != 0;
    if ((nFlag & FILE_DST_FLAG_FOR_DAEMON) && !bCache) {
        int ret = CheckDaemonMayWrite("CreateTransClient2", nWorkId, strDstPath, strFirstSrcFile);
        if (ret != 0) return ret;
    }
    if (m_vecFileWriteThread.empty()) return RET_CONCURRENT_LIMIT;
    std::string strList = JoinDataToStr(vecIp, ",");
    std::string strModify = ConvertUnixTimeToStr(static_cast<long>(tFileModify));
    CFileWriteThread* pThread = nullptr;
    std::string strCacheId;
    bool bInCache = false;
    if (!bCache) {
        CAutoLock lock(m_lock);
        int ret = CheckNewWork("CreateTransClient2", nWorkId, strSrcFile, vecIp.back(), nPort, true);
        if (ret != 0) return ret;
        pThread = TakeNextThread(nWorkId);
    } else {
        bool bComplete = false;
        unsigned int nCacheThread = 0;
        bool bFound = g_fileTransCache.GetFromCache(strCacheId, bComplete, nCacheThread, strDstPath);
        if (bFound && bComplete) {
            Log(LOG_LEVEL_DEBUG,
                "CFileTransClientManager::CreateTransClient2(file in cache and completed, work id: %u, server ip list: "
                "%s, port: %hu, src file: %s, modify time: %s, file size: %llu, dst path: %s, first src ip: %s, first "
                "src file: %s)",
                nWorkId, strList.c_str(), nPort, strSrcFile.c_str(), strModify.c_str(), lFileSize, strDstPath.c_str(),
                strFirstSrcIp.c_str(), strFirstSrcFile.c_str());
            return RET_IN_CACHE_COMPLETE;
        }
        CAutoLock lock(m_lock);
        int ret = CheckNewWork("CreateTransClient2", nWorkId, strSrcFile, vecIp.front(), nPort, false);
        if (ret != 0) return ret;
        if (!bFound) {
            unsigned int nThread = m_nNowFileWriteThread >= m_vecFileWriteThread.size() ? 0 : m_nNowFileWriteThread;
            strCacheId = g_fileTransCache.AddToCache(strDstPath, lFileSize, nThread);
            if (strCacheId.empty()) {
                Log(LOG_LEVEL_WARNING,
                    "CFileTransClientManager::CreateTransClient2(file cache is max, work id: %u, src file: %s, src ip: "
                    "%s, src port: %hu, file size: %llu)",
                    nWorkId, strSrcFile.c_str(), vecIp.front().c_str(), nPort, lFileSize);
                return RET_CACHE_FULL;
            }
            pThread = TakeNextThread(nWorkId);
        } else {
            // Another work pulls this file: join it on its thread, where the
            // list of the works sharing the pull lives.
            if (nCacheThread >= m_vecFileWriteThread.size()) nCacheThread = 0;
            m_mapWorkIdThreadId[nWorkId] = nCacheThread;
            pThread = m_vecFileWriteThread[nCacheThread];
            bInCache = true;
        }
    }
    // The plain path makes a common work with a list of addresses.
    CFileWriteReqCreate2* pReq2 = bCache ? new CFileWriteReqCreate2(pThread) : nullptr;
    CFileWriteReqCreate* pReq = bCache ? pReq2 : new CFileWriteReqCreate(pThread);
    FillRoute(*pReq, *pPacket, nAppend);
    pReq->m_strSrcFile = strSrcFile;
    pReq->m_strDstPath = strDstPath;
    pReq->m_vecSrcServerIp = vecIp;
    pReq->m_nSrcServerPort = nPort;
    pReq->m_nSrcWorkId = static_cast<unsigned int>(pPacket->srcWorkId.value);
    pReq->m_nFlag = bCache ? nFlag : (nFlag | FILE_DST_FLAG_FIRST_SRC_NAME);
    pReq->m_strFirstSrcFile = strFirstSrcFile;
    pReq->m_nTimeoutSecond = TimeoutOf(pPacket->timeout);
    pReq->m_strFileMd5 = strFileMd5;
    if (pReq2 != nullptr) {
        pReq2->m_nFirstSrcAgentId = static_cast<unsigned int>(pPacket->firstSrcAgentId.value);
        pReq2->m_tFileModify = tFileModify;
        pReq2->m_lFileSize = lFileSize;
        pReq2->m_strCacheId = strCacheId;
    }
    pThread->AddReq(pReq);
    if (!(nFlag & FILE_DST_FLAG_QUIET)) {
        if (bCache) {
            Log(LOG_LEVEL_INFO,
                "CFileTransClientManager::CreateTransClient2(work id: %u, svr ip list: %s, port: %hu, src file: %s, "
                "modify time: %s, file size: %llu, dst path: %s, first src ip: %s, first src file: %s, in cache: %s)",
                nWorkId, strList.c_str(), nPort, strSrcFile.c_str(), strModify.c_str(), lFileSize, strDstPath.c_str(),
                strFirstSrcIp.c_str(), strFirstSrcFile.c_str(), bInCache ? "true" : "false");
        } else {
            Log(LOG_LEVEL_INFO,
                "CFileTransClientManager::CreateTransClient2(work id: %u, svr ip list: %s, port: %hu, src file: %s, "
                "modify time: %s, file size: %llu, dst path: %s, first src ip: %s, first src file: %s)",
                nWorkId, strList.c_str(), nPort, strSrcFile.c_str(), strModify.c_str(), lFileSize, strDstPath.c_str(),
                strFirstSrcIp.c_str(), strFirstSrcFile.c_str());
        }
    }
    return 0;
}

// ---- requests by work id ----------------------------------------------------

template <class T>
int CFileTransClientManager::RouteRequest(const char* szFunction, T* pPacket, CFileWriteReqBase* pReq,
                                          FileWriteReqRoute& route, int nAppend)
{
    FillRoute(route, *pPacket, nAppend);
    Log(LOG_LEVEL_DEBUG, "CFileTransClientManager::%s(work id: %u, append: %d)", szFunction, route.m_nWorkId, nAppend);
    CFileWriteThread* pThread = nullptr;
    {
        CAutoLock lock(m_lock);
        auto it = m_mapWorkIdThreadId.find(route.m_nWorkId);
        if (it != m_mapWorkIdThreadId.end() && it->second < m_vecFileWriteThread.size())
            pThread = m_vecFileWriteThread[it->second];
    }
    if (pThread == nullptr) {
        Log(LOG_LEVEL_WARNING, "CFileTransClientManager::%s(work id is not exist, work id: %u, append: %d)", szFunction,
            route.m_nWorkId, nAppend);
        delete pReq;
        return RET_NO_SUCH_WORK;
    }
    pReq->m_pWriteThread = pThread;
    pThread->AddReq(pReq);
    return 0;
}

// Any set-action starts the work: its action is not read.
int CFileTransClientManager::SetActionWork(ReqWorkFileDstSetAction* pPacket, int nAppend)
{
    CFileWriteReqSetAction* pReq = new CFileWriteReqSetAction(nullptr);
    return RouteRequest("SetActionWork", pPacket, pReq, *pReq, nAppend);
}

int CFileTransClientManager::QueryWork(ReqWorkFileDstQuery* pPacket, int nAppend)
{
    CFileWriteReqQuery* pReq = new CFileWriteReqQuery(nullptr);
    return RouteRequest("QueryWork", pPacket, pReq, *pReq, nAppend);
}

int CFileTransClientManager::DeleteWork(ReqWorkFileDstDelete* pPacket, int nAppend)
{
    CFileWriteReqDelete* pReq = new CFileWriteReqDelete(nullptr);
    return RouteRequest("DeleteWork", pPacket, pReq, *pReq, nAppend);
}

void CFileTransClientManager::DeleteWorkId(unsigned int nWorkId)
{
    CAutoLock lock(m_lock);
    m_mapWorkIdThreadId.erase(nWorkId);
}

void CFileTransClientManager::BuildMapConnectIdAndThreadId(unsigned int nWorkId, unsigned int nConnectId)
{
    auto it = m_mapWorkIdThreadId.find(nWorkId);
    if (it != m_mapWorkIdThreadId.end()) m_mapConnectIdThreadId[nConnectId] = it->second;
}

void CFileTransClientManager::NetCallback(unsigned int nConnectId, BREL_NET_CALLBACK_TYPE nType, int fd)
{
    CFileWriteThread* pThread = nullptr;
    {
        CAutoLock lock(m_lock);
        auto it = m_mapConnectIdThreadId.find(nConnectId);
        if (it != m_mapConnectIdThreadId.end()) {
            if (it->second < m_vecFileWriteThread.size()) pThread = m_vecFileWriteThread[it->second];
            if (nType == BREL_CONNECT_CLOSE || nType == BREL_CONNECT_FAILED) m_mapConnectIdThreadId.erase(it);
        }
    }
    if (pThread == nullptr) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransClientManager::NetCallback(connect id is not exist, call back type: %d(%s), connect id: %u)",
            static_cast<int>(nType), NetCallbackTypeName(static_cast<int>(nType)), nConnectId);
        return;
    }
    CFileWriteReqNetConnectCallback* pReq = new CFileWriteReqNetConnectCallback(pThread);
    pReq->m_nConnectId = nConnectId;
    pReq->m_nType = nType;
    pReq->m_sockFd = fd;
    pThread->AddReq(pReq);
}

// ---- the thread ------------------------------------------------------------------

void CFileTransClientManager::DealReceivedPackets(unsigned int nWaitMilliSecond)
{
    for (int i = 0; i < REV_PACKETS_PER_PASS && m_nContinueRun; ++i) {
        unsigned int nSize = 0;
        unsigned int nSpeed = 0;
        int nConnectId = 0;
        char* pData = static_cast<char*>(
            m_revDataBuffer.GetFrontAndPop3(nSize, nSpeed, nConnectId, i == 0 ? nWaitMilliSecond : 0));
        if (pData == nullptr) return;
        CFileWriteThread* pThread = nullptr;
        {
            CAutoLock lock(m_lock);
            auto it = m_mapConnectIdThreadId.find(static_cast<unsigned int>(nConnectId));
            if (it != m_mapConnectIdThreadId.end() && it->second < m_vecFileWriteThread.size())
                pThread = m_vecFileWriteThread[it->second];
        }
        if (pThread == nullptr) {
            // A packet of a connection closed meanwhile: dropped without a word.
            CDataBufferSTLDeque::FreePopData(pData);
            continue;
        }
        CFileWriteReqReceiveData* pReq = new CFileWriteReqReceiveData(pThread);
        pReq->m_pData = pData;
        pReq->m_nSize = nSize;
        pReq->m_nSpeed = nSpeed;
        pThread->AddReq(pReq);
    }
}

void CFileTransClientManager::DealIdleClient()
{
    CAutoLock lock(m_lock);
    time_t tNow = g_timeNow;
    if (!m_mapWorkIdThreadId.empty()) {
        m_tServerLastRunning = tNow;
        return;
    }
    if (m_tServerLastRunning > tNow) m_tServerLastRunning = tNow;
    if (m_tServerLastRunning != 0 && tNow - m_tServerLastRunning >= g_nClientThreadKeepTimeoutSecond) {
        m_tServerLastRunning = 0;
        m_networkMultiClient.Stop();
        Log(LOG_LEVEL_DEBUG,
            "CFileTransClientManager::Run(no any connect server, and keep second timeout now, we exit the client "
            "thread)");
    }
}

unsigned int CFileTransClientManager::NextWait()
{
    time_t tDeadline = TIME_NEVER;
    {
        CAutoLock lock(m_lock);
        // While works run the time of the last one is kept a second fresh; after
        // that the wait lasts until the client loop's idle time is up.
        if (!m_mapWorkIdThreadId.empty()) return WORKS_WAIT_MILLISECOND;
        if (m_tServerLastRunning != 0) tDeadline = m_tServerLastRunning + g_nClientThreadKeepTimeoutSecond;
    }
    int nWait = MilliSecondsUntilAgentTime(tDeadline);
    return nWait > 0 ? static_cast<unsigned int>(nWait) : WORKS_WAIT_MILLISECOND;
}

void CFileTransClientManager::WakeUp() { m_revDataBuffer.WakeTaker(); }

void CFileTransClientManager::Run()
{
    WatchAgentClock(this);
    unsigned int nWait = 0;
    while (m_nContinueRun) {
        // Packets, a reload, a stop or a moved clock wake the wait.
        DealReceivedPackets(nWait);
        if (m_bPrintAgentInfo.exchange(false)) PrintAgentInfo();
        DealIdleClient();
        nWait = NextWait();
    }
    UnwatchAgentClock(this);
    {
        CAutoLock lock(m_lock);
        m_tServerLastRunning = 0;
    }
    m_networkMultiClient.Stop();
    for (CFileWriteThread* pThread : m_vecFileWriteThread) {
        pThread->Stop();
        delete pThread;
    }
    m_vecFileWriteThread.clear();
    CAutoLock lock(m_lock);
    m_mapWorkIdThreadId.clear();
    m_mapConnectIdThreadId.clear();
    // Packets that no write thread will take.
    unsigned int nSize = 0;
    void* pData = nullptr;
    while ((pData = m_revDataBuffer.GetFrontAndPop(nSize, 0)) != nullptr) CDataBufferSTLDeque::FreePopData(pData);
}

void CFileTransClientManager::PrintAgentInfo()
{
    FILE* fp = fopen(g_strFileTransClientInfo, "a");
    if (fp == nullptr) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransClientManager::PrintAgentInfo(need print agent info, but open file '%s' is error, errno: %d)",
            g_strFileTransClientInfo, errno);
        return;
    }
    fprintf(fp,
            "\n\n===========================[Start Print File Trans Client Info][Now Time: %s]"
            "===========================\n",
            ConvertUnixTimeToStr(static_cast<long>(g_timeNow)).c_str());
    fprintf(fp, "agent start time: %s\n\n\n\n", ConvertUnixTimeToStr(static_cast<long>(g_nStartTime)).c_str());
    fclose(fp);
    CAutoLock lock(m_lock);
    for (CFileWriteThread* pThread : m_vecFileWriteThread) pThread->AddReq(new CFileWriteReqPrintAgentInfo(pThread));
}
