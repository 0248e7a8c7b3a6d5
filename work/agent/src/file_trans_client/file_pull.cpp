// The pull of a destination work: gets and look-ahead gets, and the handling
// of each received block (position, digest, the write). All on the work's
// write thread.
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/agent_counters.h"
#include "common/agent_globals.h"
#include "common/work_codes.h"
#include "file_trans_cache/file_trans_cache.h"
#include "file_trans_client/client_settings.h"
#include "file_trans_client/file_write_thread.h"
#include "file_trans_client/speed_adapt.h"
#include "log.h"
#include "md5.h"
#include "util.h"

using namespace brel_lib;

namespace {

// The top bit of the high word marks a look-ahead.
const unsigned int PRE_GET_MARK = 0x80000000U;

int OpenFlags(bool bFirstBlock)
{
    int nFlags = bFirstBlock ? (O_WRONLY | O_CREAT | O_TRUNC | O_SYNC) : (O_WRONLY | O_APPEND | O_SYNC);
    if (g_bDstNoFollow) nFlags |= O_NOFOLLOW;
    return nFlags | O_CLOEXEC;
}

int OpenDst(const std::string& strFile, int nOpenFlag, unsigned int nMode)
{
    int fd;
    do {
        fd = open(strFile.c_str(), nOpenFlag, nMode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

bool WholeFileCheckWanted(const FileTransClient& task) { return g_bCheckFileMd5 && !task.strFileMd5.empty(); }

// Blocks are taken strictly in order, so a work that wrote the file from its
// start digests it on the way and needs no second read at the end.
void DigestWritten(FileTransClient& task, unsigned long long lBeginPos, const char* pContent, unsigned int nLength)
{
    if (lBeginPos == 0) {
        task.md5Written = MD5();
        task.bMd5Written = WholeFileCheckWanted(task);
    }
    if (task.bMd5Written) task.md5Written.update(pContent, nLength);
}

// The result of a work whose last block is written: 0, or 335 when the file
// isn't the one its create expected. A work that didn't see every block
// (it took over a pull, or the check was turned on midway) reads the file.
int WholeFileResult(FileTransClient& task)
{
    if (!WholeFileCheckWanted(task)) return 0;
    std::string strOurMd5;
    if (task.bMd5Written) {
        strOurMd5 = task.md5Written.finalize().hexdigest();
    } else {
        int fd = OpenDst(task.strDstFile, O_RDONLY | O_CLOEXEC | (g_bDstNoFollow ? O_NOFOLLOW : 0), 0);
        int nErr = fd < 0 ? errno : Md5OfFd(fd, strOurMd5);
        if (fd >= 0) close(fd);
        if (nErr != 0) strOurMd5.clear();
    }
    std::string strExpected = task.strFileMd5;
    for (char& c : strExpected) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (strOurMd5 == strExpected) return 0;
    Log(LOG_LEVEL_WARNING,
        "CFileWriteThread::RspFileAgentGet(file md5 is not equal, work id: %u, total size: %llu, expected md5: %s, "
        "our calc md5: %s)",
        task.nWorkId, task.nTotalSize, task.strFileMd5.c_str(), strOurMd5.c_str());
    return RET_DST_FILE_MD5_MISMATCH;
}

} // namespace

void CFileWriteThread::FixReqSizeAndNum(FileTransClient& task)
{
    if (g_bEnableAutoAdjustSpeed) {
        if (task.nStatBeginTime == 0) task.nStatBeginTime = g_timeNow;
        AutoAdjustNewReqSizeAndNum(task, g_timeNow);
        return;
    }
    task.nNowAllGetNum = g_nGetNumPerReq;
    task.nNowGetSize = g_nGetSizePerReq;
    task.lStatSpeedSum = 0;
    task.nStatDataSize = task.nStatPacketNum = task.nStatDealMSecond = task.nStatDealDataSize = 0;
    task.nStatBeginTime = 0;
}

void CFileWriteThread::SendGet(FileTransClient& task, unsigned long long lBeginPos, bool bPreGet)
{
    ReqWorkFileAgentGet req;
    req.dstWorkId = static_cast<int>(task.nWorkId);
    req.srcWorkId = static_cast<int>(task.nSrcWorkId);
    req.srcFile = task.strSrcFile.c_str();
    unsigned int nHigh = static_cast<unsigned int>(lBeginPos >> 32);
    if (bPreGet) nHigh |= PRE_GET_MARK;
    req.beginPosHigh = static_cast<int>(nHigh);
    req.beginPosLow = static_cast<int>(lBeginPos & 0xFFFFFFFFU);
    req.getSize = static_cast<int>(task.nNowGetSize);
    req.getNum = static_cast<int>(task.nNowAllGetNum);
    m_nNowConnectId = task.nConnectId;
    Log(LOG_LEVEL_DEBUG, "CFileWriteThread::%s(work id: %u, get from pos: %llu, get size: %u, get num: %d, get file: %s)",
        bPreGet ? "ReqFileAgentPreGet" : "ReqFileAgentGet", task.nWorkId, lBeginPos, task.nNowGetSize,
        static_cast<int>(task.nNowAllGetNum), task.strSrcFile.c_str());
    // A get while there is no connection is lost; the sweep mends that.
    SendToServerFile(req);
}

void CFileWriteThread::ReqFileAgentGet(FileTransClient& task)
{
    FixReqSizeAndNum(task);
    task.lInGetSize = task.nNowPos + static_cast<unsigned int>(task.nNowAllGetNum * task.nNowGetSize);
    task.nLastReqTime = g_timeNow;
    task.nNowGetNum = 0;
    task.nNowInGetNum = task.nNowAllGetNum;
    SendGet(task, task.nNowPos, false);
}

void CFileWriteThread::ReqFileAgentPreGet(FileTransClient& task)
{
    if (task.lInGetSize >= task.nTotalSize) return;  // all of the file has been asked for
    FixReqSizeAndNum(task);
    unsigned long long lBeginPos = task.lInGetSize;
    task.lInGetSize += static_cast<unsigned int>(task.nNowAllGetNum * task.nNowGetSize);
    task.nLastReqTime = g_timeNow;
    task.nNowGetNum = 0;
    task.nNowInGetNum = task.nNowAllGetNum + g_nPreGetPacketNum;
    SendGet(task, lBeginPos, true);
}

void CFileWriteThread::ContinuePipeline(FileTransClient& task)
{
    ++task.nNowGetNum;
    if (g_bEnablePreGet && task.nNowGetNum == task.nNowInGetNum - g_nPreGetPacketNum) {
        ReqFileAgentPreGet(task);
        return;
    }
    if (task.nNowGetNum == task.nNowInGetNum) ReqFileAgentGet(task);
}

// The first block settles the name of the file and opens it afresh.
void CFileWriteThread::SettleDstFile(FileTransClient& task, int& nOpenFlag, bool& bFileExist)
{
    if (IsDir(task.strDstPath)) {
        if (task.nFlag & FILE_DST_FLAG_FIRST_SRC_NAME) {
            task.strDstFile = task.strDstPath + "/" + PathFile(task.strFirstSrcFile);
        } else if (!(task.nFlag & FILE_DST_FLAG_CACHE)) {
            task.strDstFile = task.strDstPath + "/" + PathFile(task.strSrcFile);
        }
    } else {
        task.strDstFile = task.strDstPath;
    }
    nOpenFlag = OpenFlags(true);
    if (access(task.strDstFile.c_str(), F_OK) != 0) bFileExist = false;
}

// Opens, checks the size on disk, writes and closes; false when the work ended.
bool CFileWriteThread::WriteBlock(FileTransClient& task, const char* pContent, unsigned int nLength,
                                  unsigned long long lBeginPos, unsigned int nAccessBit, int nOpenFlag,
                                  bool bGiveToDaemon)
{
    int fd = task.strDstFile.empty() ? -1 : OpenDst(task.strDstFile, nOpenFlag, nAccessBit);
    if (fd < 0 && errno == ENOENT && !task.strDstFile.empty()) {
        std::string strFolder = PathFolder(task.strDstFile);
        if (task.nFlag & FILE_DST_FLAG_CACHE) {
            if (access(strFolder.c_str(), F_OK) != 0) mkdir(strFolder.c_str(), 0777);
            fd = OpenDst(task.strDstFile, nOpenFlag, nAccessBit);
        } else if (task.nFlag & FILE_DST_FLAG_CREATE_DIRS) {
            if (access(strFolder.c_str(), F_OK) != 0) CreateDirs(strFolder);
            fd = OpenDst(task.strDstFile, nOpenFlag, nAccessBit);
        }
    }
    if (fd < 0) {
        int nErrno = errno;
        if (!task.strDstFile.empty()) unlink(task.strDstFile.c_str());
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::RspFileAgentGet(create or open dst file is error, work id: %u, errno: %d, dst file: %s)",
            task.nWorkId, nErrno, task.strDstFile.c_str());
        FinishWork(task, RET_DST_CREATE_FAILED);
        return false;
    }
    lseek(fd, 0, SEEK_SET);
    off_t nDiskSize = lseek(fd, 0, SEEK_END);
    ssize_t nWritten = -1;
    int nErrno = 0;
    if (nDiskSize < 0 || static_cast<unsigned long long>(nDiskSize) != lBeginPos) {
        // The file was changed behind the work's back. Ended twice on purpose:
        // once here and once as a failed write, as the server expects.
        close(fd);
        fd = -1;
        unlink(task.strDstFile.c_str());
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::RspFileAgentGet(the dst file is exception, someone modify it? work id: %u, it in the "
            "disk now size: %llu, our record now size: %llu)",
            task.nWorkId, static_cast<unsigned long long>(nDiskSize), lBeginPos);
        FinishWork(task, RET_DST_WRITE_FAILED);
        nErrno = EBADF;
    } else {
        Log(LOG_LEVEL_LOWEST, "CFileWriteThread::RspFileAgentGet(begin write, work id: %u, thread id: %d, need size: %d)",
            task.nWorkId, m_nThreadId, static_cast<int>(nLength));
        do {
            nWritten = write(fd, pContent, nLength);
        } while (nWritten < 0 && errno == EINTR);
        nErrno = nWritten < 0 ? errno : 0;  // a short write is no ENOSPC
        Log(LOG_LEVEL_LOWEST, "CFileWriteThread::RspFileAgentGet(end write, work id: %u, thread id: %d, real size: %d)",
            task.nWorkId, m_nThreadId, static_cast<int>(nWritten));
    }
    if (nWritten != static_cast<ssize_t>(nLength)) {
        // The descriptor of the wrong-size path is closed already, and is never
        // closed twice: it may belong to another thread by now.
        if (fd >= 0) close(fd);
        unlink(task.strDstFile.c_str());
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::RspFileAgentGet(write file is error, no space or read only or exception? work id: %u, "
            "errno: %d)",
            task.nWorkId, nErrno);
        FinishWork(task, nErrno == ENOSPC ? RET_DST_NO_SPACE : RET_DST_WRITE_FAILED);
        return false;
    }
    bool bDaemonKnown = !bGiveToDaemon || GiveToDaemon(task, fd);
    close(fd);
    if (!bDaemonKnown) {
        // Nothing goes on after 341.
        FinishWork(task, RET_DAEMON_UNKNOWN);
        return false;
    }
    return true;
}

// A file that the work itself made on behalf of daemon is given to daemon,
// through the descriptor it was written by, so that no link planted at its
// name is followed. False when daemon is unknown.
bool CFileWriteThread::GiveToDaemon(FileTransClient& task, int fd)
{
    struct passwd pwd;
    struct passwd* pResult = nullptr;
    char szBuf[4096];
    if (getpwnam_r("daemon", &pwd, szBuf, sizeof(szBuf), &pResult) != 0 || pResult == nullptr) {
        Log(LOG_LEVEL_WARNING, "CFileWriteThread::RspFileAgentGet(can not find message of user %s, work id: %u)",
            "daemon", task.nWorkId);
        return false;
    }
    if (fchown(fd, pwd.pw_uid, pwd.pw_gid) != 0) {
        // The result isn't looked at: the file stays the agent's.
    }
    return true;
}

void CFileWriteThread::RspFileAgentGet(RspWorkFileAgentGet* pPacket, unsigned int nSpeed,
                                       const std::string& strOurMd5Ahead)
{
    uint64_t lBegin = GetNowMilliSecond();
    int ret = static_cast<int>(pPacket->ret.value);
    unsigned int nWorkId = static_cast<unsigned int>(pPacket->dstWorkId.value);
    unsigned int nAccessBit = static_cast<unsigned int>(pPacket->srcFileAccessBit.value);
    const char* pContent = pPacket->content.octs;
    unsigned int nLength = static_cast<unsigned int>(pPacket->content.octetLen);
    std::string strMd5(pPacket->md5.octs == nullptr ? "" : pPacket->md5.octs, pPacket->md5.octetLen);
    unsigned long long lBeginPos =
        (static_cast<unsigned long long>(static_cast<unsigned int>(pPacket->beginPosHigh.value) & ~PRE_GET_MARK) << 32) |
        static_cast<unsigned int>(pPacket->beginPosLow.value);
    unsigned long long lTotalSize =
        (static_cast<unsigned long long>(static_cast<unsigned int>(pPacket->totalSizeHigh.value)) << 32) |
        static_cast<unsigned int>(pPacket->totalSizeLow.value);
    m_lAllGetSize += nLength;
    g_agentCounters.lFileBytesReceived.fetch_add(nLength, std::memory_order_relaxed);

    auto it = m_mapWork.find(nWorkId);
    if (it == m_mapWork.end()) {
        Log(LOG_LEVEL_WARNING, "CFileWriteThread::RspFileAgentGet(can not find work id, work id: %u)", nWorkId);
        return;
    }
    FileTransClient& task = it->second;
    task.nRetryConnectCount = 0;  // any response proves the link
    if (task.nStatus != WORK_RUNNING) {
        Log(LOG_LEVEL_WARNING, "CFileWriteThread::RspFileAgentGet(work is not running now, work id: %u, now status: %u)",
            nWorkId, task.nStatus);
        return;
    }
    SetNowFrom(task);
    if (ret != 0) {
        if (!task.strDstFile.empty()) unlink(task.strDstFile.c_str());
        Log(LOG_LEVEL_WARNING, "CFileWriteThread::RspFileAgentGet(src svr ret error, work id: %u, ret: %d)", nWorkId, ret);
        FinishWork(task, ret);
        return;
    }
    if (lBeginPos != task.nNowPos) {
        Log(LOG_LEVEL_WARNING,
            "CFileWriteThread::RspFileAgentGet(ret data begin pos not equal now pos, work id: %u, ret pos: %llu, now "
            "pos: %llu)",
            nWorkId, lBeginPos, task.nNowPos);
        return;
    }
    task.nLastReqTime = task.nLastRspTime = g_timeNow;
    task.nTotalSize = lTotalSize;
    task.lStatSpeedSum += nSpeed;
    task.nStatDataSize += nLength;
    ++task.nStatPacketNum;
    if (task.nTransType == FTC_TRANS_MASTER) g_fileTransCache.UpdateCacheAccessTime(task.strCacheId);

    if (g_bEnableMd5Check && !strMd5.empty()) {
        std::string strOurMd5 = strOurMd5Ahead;
        if (strOurMd5.empty()) {
            MD5 md5;
            md5.update(pContent, nLength);
            md5.finalize();
            strOurMd5 = md5.hexdigest();
        }
        if (strOurMd5 != strMd5) {
            Log(LOG_LEVEL_WARNING,
                "CFileWriteThread::RspFileAgentGet(md5 is not equal, work id: %u, begin pos: %llu, get size: %u, svr "
                "calc md5: %s, our calc md5: %s)",
                nWorkId, lBeginPos, nLength, strMd5.c_str(), strOurMd5.c_str());
            FinishWork(task, RET_BLOCK_MD5_MISMATCH);
            return;
        }
    }
    int nOpenFlag = OpenFlags(false);
    bool bFileExist = true;
    if (lBeginPos == 0) SettleDstFile(task, nOpenFlag, bFileExist);
    bool bGiveToDaemon =
        !bFileExist && (task.nFlag & FILE_DST_FLAG_FOR_DAEMON) && !(task.nFlag & FILE_DST_FLAG_CACHE);
    if (!WriteBlock(task, pContent, nLength, lBeginPos, nAccessBit, nOpenFlag, bGiveToDaemon)) return;
    DigestWritten(task, lBeginPos, pContent, nLength);
    uint64_t lEnd = GetNowMilliSecond();
    if (lEnd > lBegin) {
        task.nStatDealMSecond += static_cast<unsigned int>(lEnd - lBegin);
        task.nStatDealDataSize += nLength;
    }
    Log(LOG_LEVEL_DEBUG,
        "CFileWriteThread::RspFileAgentGet(work id: %u, begin pos: %llu, write size: %u, total size: %llu, now get num: "
        "%u, deal time: %u)",
        nWorkId, lBeginPos, nLength, lTotalSize, task.nNowGetNum + 1, static_cast<unsigned int>(lEnd - lBegin));
    task.nNowPos += nLength;
    if (task.nNowPos >= task.nTotalSize) {
        if (!(task.nFlag & FILE_DST_FLAG_QUIET))
            Log(LOG_LEVEL_INFO, "CFileWriteThread::RspFileAgentGet(the file is transport finish, work id: %u, total size: %llu)",
                nWorkId, task.nTotalSize);
        FinishWork(task, WholeFileResult(task));
        return;
    }
    ContinuePipeline(task);
}
