// Creates and deletes of source works: the checks on the session thread
// (the file, the user daemon, the expected MD5), then the work itself and the
// listener on the manager's thread.
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/agent_globals.h"
#include "common/work_codes.h"
#include "file_trans_cache/file_trans_cache.h"
#include "file_trans_svr/file_trans_svr.h"
#include "md5.h"
#include "process.h"
#include "util.h"

using namespace brel_lib;

namespace {

// Ports below the search's end belong to the system.
const unsigned short LOWEST_PORT = 1025;

} // namespace

void CFileSvrReqCreate::DoReq() { m_pSvrManager->Create(this); }
void CFileSvrReqDelete::DoReq() { m_pSvrManager->Delete(this); }
void CFileSvrReqNetCallback::DoReq() { m_pSvrManager->NetCallback(this); }

int CFileTransSvrManager::CreateTransSvr(ReqWorkFileSrcCreate* pPacket, const std::string& strMd5, int nAppend)
{
    ++m_lWorkAllCount;
    unsigned int nWorkId = static_cast<unsigned int>(pPacket->workId.value);
    unsigned int nDstIp = static_cast<unsigned int>(pPacket->dstIp.value);
    unsigned int nFlag = static_cast<unsigned int>(pPacket->flag.value);
    std::string strSrcFile(pPacket->srcFile.octs == nullptr ? "" : pPacket->srcFile.octs, pPacket->srcFile.octetLen);
    std::string strDstIp;
    if (nDstIp != 0 && IpIntToString(strDstIp, nDstIp) != 0) return RET_BAD_ADDRESS;
    struct stat st;
    if (stat(strSrcFile.c_str(), &st) != 0) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransSvrManager::CreateTransSvr(open src file is error, work id: %u, src file: %s, dst ip: %s)",
            nWorkId, strSrcFile.c_str(), strDstIp.c_str());
        return RET_SRC_STAT_FAILED;
    }
    if ((nFlag & FILE_SVR_FLAG_CHECK_DAEMON) && !(nFlag & FILE_SVR_FLAG_CACHE_FILE)) {
        int ret = CheckDaemonMayRead(st, nWorkId);
        if (ret != 0) {
            Log(LOG_LEVEL_WARNING,
                "CFileTransSvrManager::CreateTransSvr(denied to open src file, work id: %u, src file: %s)", nWorkId,
                strSrcFile.c_str());
            return ret;
        }
    }
    unsigned long long lFileSize = static_cast<unsigned long long>(st.st_size);
    unsigned int nCheckMax = m_nCheckMd5MaxSize;
    if (!strMd5.empty() && (nCheckMax == 0 || lFileSize <= nCheckMax)) {
        int ret = CheckFileMd5(strSrcFile, st.st_mtime, strMd5, nWorkId);
        if (ret != 0) return ret;
    }
    auto* pReq = new CFileSvrReqCreate(this);
    pReq->m_nWorkId = nWorkId;
    pReq->m_nFlag = nFlag;
    pReq->m_strSrcFile = strSrcFile;
    pReq->m_strDstIp = strDstIp;
    pReq->m_nAppend = nAppend;
    pReq->m_nRouteSrcServerIp = static_cast<unsigned int>(pPacket->routeSrcServerIp.value);
    pReq->m_nRouteSrcServerId = static_cast<unsigned int>(pPacket->routeSrcServerId.value);
    pReq->m_tFileModify = st.st_mtime;
    pReq->m_lFileSize = lFileSize;
    AddReq(pReq);
    return 0;
}

// The user daemon may read the file by its owner, group or other bits (its
// primary group only).
int CFileTransSvrManager::CheckDaemonMayRead(const struct stat& st, unsigned int nWorkId)
{
    struct passwd pwd;
    struct passwd* pResult = nullptr;
    char szBuf[4096];
    if (getpwnam_r("daemon", &pwd, szBuf, sizeof(szBuf), &pResult) != 0 || pResult == nullptr ||
        pwd.pw_uid == static_cast<uid_t>(-1) || pwd.pw_gid == static_cast<gid_t>(-1)) {
        Log(LOG_LEVEL_WARNING, "CFileTransSvrManager::CreateTransSvr(can not find message of user %s, work id: %u)",
            "daemon", nWorkId);
        return RET_DAEMON_MAY_NOT_READ;
    }
    unsigned int uAccessBit = st.st_mode & 0777;
    Log(LOG_LEVEL_DEBUG,
        "CFileTransSvrManager::CreateTransSvr(work id: %u, uid: %d, gid: %d, normal uid: %d, normal gid: %d, "
        "uAccessBit = %o",
        nWorkId, static_cast<int>(st.st_uid), static_cast<int>(st.st_gid), static_cast<int>(pwd.pw_uid),
        static_cast<int>(pwd.pw_gid), uAccessBit);
    bool bMayRead = (pwd.pw_uid == st.st_uid && (uAccessBit & 0400)) ||
                    (pwd.pw_gid == st.st_gid && (uAccessBit & 040)) || (uAccessBit & 04);
    return bMayRead ? 0 : RET_DAEMON_MAY_NOT_READ;
}

// A sum stored for this path is believed while the file keeps its
// modification time; a changed file fails until its entry is cleaned away.
int CFileTransSvrManager::CheckFileMd5(const std::string& strSrcFile, time_t tFileModify, const std::string& strMd5,
                                       unsigned int nWorkId)
{
    std::string strRealMd5;
    bool bKnown = false;
    {
        CAutoLock lock(m_lockMd5);
        auto it = m_mapFileMd5.find(strSrcFile);
        if (it != m_mapFileMd5.end()) {
            bKnown = true;
            if (it->second.timeModify == tFileModify) strRealMd5 = it->second.strMd5;
        }
    }
    if (!bKnown) {
        // Never blocks: a FIFO or a device opens at once and is refused by its type.
        int fd = open(strSrcFile.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        struct stat st;
        if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
            close(fd);
            fd = -1;
            errno = EINVAL;
        }
        if (fd < 0) {
            Log(LOG_LEVEL_WARNING,
                "CFileTransSvrManager::CreateTransSvr(open src file is error, work id: %u, errno: %d)", nWorkId, errno);
            return RET_SRC_FILE_UNREADABLE;
        }
        int nErr = Md5OfFd(fd, strRealMd5);
        close(fd);
        if (nErr == ENOMEM) {
            Log(LOG_LEVEL_WARNING, "CFileTransSvrManager::CreateTransSvr(malloc failed, we exit, size: 1M)");
            ExitProcess(1);
        }
        if (nErr != 0) {
            Log(LOG_LEVEL_WARNING,
                "CFileTransSvrManager::CreateTransSvr(read src file is error, work id: %u, errno: %d)", nWorkId, nErr);
            return RET_SRC_FILE_UNREADABLE;
        }
        FileMd5 entry;
        entry.timeModify = tFileModify;
        entry.timeLastUsed = g_timeNow;
        entry.strMd5 = strRealMd5;
        CAutoLock lock(m_lockMd5);
        m_mapFileMd5[strSrcFile] = entry;
    }
    if (strRealMd5 != strMd5) {
        Log(LOG_LEVEL_WARNING, "CFileTransSvrManager::CreateTransSvr(file md5 not match, real md5:%s, allowned md5:%s)",
            strRealMd5.c_str(), strMd5.c_str());
        return RET_SRC_MD5_MISMATCH;
    }
    Log(LOG_LEVEL_DEBUG, "CFileTransSvrManager::CreateTransSvr(file md5 is equal:%s)", strRealMd5.c_str());
    return 0;
}

int CFileTransSvrManager::DeleteTransSvr(ReqWorkFileSrcDelete* pPacket, int nAppend)
{
    auto* pReq = new CFileSvrReqDelete(this);
    pReq->m_nWorkId = static_cast<unsigned int>(pPacket->workId.value);
    pReq->m_nAppend = nAppend;
    pReq->m_nRouteSrcServerIp = static_cast<unsigned int>(pPacket->routeSrcServerIp.value);
    pReq->m_nRouteSrcServerId = static_cast<unsigned int>(pPacket->routeSrcServerId.value);
    AddReq(pReq);
    return 0;
}

// The search goes down from the configured port. An empty bind address binds
// all addresses on the searched port, so that the port told is the one used.
int CFileTransSvrManager::OpenListener(unsigned short& nPort)
{
    std::string strBindIp = m_strBindIp.empty() ? "0.0.0.0" : m_strBindIp;
    int ret = -1;
    for (nPort = m_nBindPort; nPort >= LOWEST_PORT; --nPort) {
        ret = m_networkServer.CreateServer(strBindIp, nPort);
        if (ret == 0) break;
    }
    if (ret != 0) return ret;
    ret = m_networkServer.Start();
    if (ret != 0) Log(LOG_LEVEL_ERROR, "CFileTransSvrManager::Create(start server is error, ret: %d)", ret);
    return ret;
}

void CFileTransSvrManager::Create(CFileSvrReqCreate* pReq)
{
    m_nNowWorkId = pReq->m_nWorkId;
    m_nNowAppend = pReq->m_nAppend;
    m_nNowRouteSrcServerIp = pReq->m_nRouteSrcServerIp;
    m_nNowRouteSrcServerId = pReq->m_nRouteSrcServerId;
    bool bCreate2 = (pReq->m_nFlag & FILE_SVR_FLAG_CREATE2_REPLY) != 0;
    auto fail = [&](int ret) {
        if (bCreate2) {
            SendFileSrcToServerCreate2Failed(ret);
        } else {
            SendFileSrcToServerCreateFailed(ret);
        }
    };
    if (m_mapWork.size() >= m_nWorkMaxConcurrent) {
        Log(LOG_LEVEL_WARNING,
            "CFileTransSvrManager::Create(we receive a new work, but it need wait for concurrent, now concurrent size: "
            "%u, work id: %u, src file: %s, dst ip: %s)",
            static_cast<unsigned int>(m_mapWork.size()), pReq->m_nWorkId, pReq->m_strSrcFile.c_str(),
            pReq->m_strDstIp.c_str());
        fail(RET_CONCURRENT_LIMIT);
        return;
    }
    if (m_mapWork.count(pReq->m_nWorkId) != 0) {
        Log(LOG_LEVEL_WARNING, "CFileTransSvrManager::Create(work id is exist, work id: %u, src file: %s, dst ip: %s)",
            pReq->m_nWorkId, pReq->m_strSrcFile.c_str(), pReq->m_strDstIp.c_str());
        fail(RET_WORK_ID_EXISTS);
        return;
    }
    FileTransSvr& work = m_mapWork[pReq->m_nWorkId];
    work.strSrcFile = pReq->m_strSrcFile;
    work.strDstIp = pReq->m_strDstIp;
    work.nFlag = pReq->m_nFlag;
    work.nWorkId = pReq->m_nWorkId;
    work.nLastGetTime = work.nBeginTime = g_timeNow;
    if (work.nFlag & FILE_SVR_FLAG_CACHE_FILE) {
        bool bComplete = false;
        unsigned int nThreadId = 0;
        g_fileTransCache.GetFromCache(work.strCacheId, bComplete, nThreadId, work.strSrcFile);
        g_fileTransCache.UpdateCacheAccessTime(work.strCacheId);
    }
    unsigned short nPort = 0;
    if (m_tServerLastRunning == 0) {
        int ret = OpenListener(nPort);
        if (ret != 0) {
            // The work stays, and expires like any other.
            Log(LOG_LEVEL_ERROR,
                "CFileTransSvrManager::Create(create server is error, ret: %d, work id: %u, bind ip: %s, src file: %s, "
                "dst ip: %s)",
                ret, pReq->m_nWorkId, m_strBindIp.c_str(), pReq->m_strSrcFile.c_str(), pReq->m_strDstIp.c_str());
            fail(RET_NO_LISTEN_PORT);
            return;
        }
    } else {
        std::string strIp;
        m_networkServer.GetServerBindIpPort(strIp, nPort);
    }
    m_tServerLastRunning = g_timeNow.load();
    if (!(work.nFlag & FILE_SVR_FLAG_QUIET)) {
        Log(LOG_LEVEL_INFO, "CFileTransSvrManager::Create(work id: %u, src file: %s, dst ip: %s)", pReq->m_nWorkId,
            pReq->m_strSrcFile.c_str(), pReq->m_strDstIp.c_str());
    }
    if (bCreate2) {
        SendFileSrcToServerCreate2Ok(m_vecBindEth, nPort, pReq->m_tFileModify, pReq->m_lFileSize);
    } else {
        SendFileSrcToServerCreateOk(m_vecBindEth.empty() ? 0 : m_vecBindEth.front(), nPort);
    }
}

void CFileTransSvrManager::Delete(CFileSvrReqDelete* pReq)
{
    m_nNowWorkId = pReq->m_nWorkId;
    m_nNowAppend = pReq->m_nAppend;
    m_nNowRouteSrcServerIp = pReq->m_nRouteSrcServerIp;
    m_nNowRouteSrcServerId = pReq->m_nRouteSrcServerId;
    auto it = m_mapWork.find(pReq->m_nWorkId);
    if (it == m_mapWork.end()) {
        Log(LOG_LEVEL_WARNING, "CFileTransSvrManager::Delete(work id is not exist, work id: %u)", pReq->m_nWorkId);
        SendFileSrcToServerDeleteFailed(RET_NO_SUCH_WORK);
        return;
    }
    unsigned int nFlag = it->second.nFlag;
    if (it->second.nConnectId != 0) CloseClientOf(it->second.nConnectId);
    m_mapWork.erase(it);
    Log(LOG_LEVEL_DEBUG, "CFileTransSvrManager::Delete(work id: %u)", pReq->m_nWorkId);
    m_timeLastTaskEnd = g_timeNow;
    if (!(nFlag & FILE_SVR_FLAG_NO_DELETE_REPLY)) SendFileSrcToServerDeleteOk();
}
