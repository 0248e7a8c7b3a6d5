#include "file_trans_svr/file_read_thread.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "common/agent_clock.h"
#include "common/agent_globals.h"
#include "common/work_codes.h"
#include "md5.h"
#include "process.h"
#include "zik_pkt.h"

using namespace brel_lib;

std::atomic<unsigned long long> g_lWorkTransmitSize{0};
std::atomic<bool> g_bEnableMd5Calc{true};

long long PeerTakenBytes(int fd);  // peer_taken.cpp

namespace {

// The stack of a read thread; its buffers are on the heap.
const unsigned int READ_THREAD_STACK_SIZE = 1048576;
// The packet block holds a block of 512 KiB with its envelope.
const unsigned int PACKET_BUF_MIN_SIZE = 525312;
// An idle thread gives its large buffers back after this many seconds.
const time_t IDLE_RELEASE_SECOND = 29;
// Waits of the loop: idle, and while a connection waits for its peer.
// What an idle thread keeps of its packet buffer.
const unsigned int IDLE_PACKET_BUF_SIZE = 10;
const unsigned int PEER_WAIT_MILLISECOND = 5;
// Requests taken from the queue in one pass.
const int TAKE_MAX = 500;
// The top bit of the high word marks a look-ahead.
const unsigned int PRE_GET_MARK = 0x80000000U;

std::atomic<CFileReadThread::PeerTakenFun> g_pPeerTakenFun{PeerTakenBytes};

// Lends a block to an octet string for one encoding, without a copy.
class COctsLoan {
public:
    COctsLoan(AsnOcts& octs, char* pData, unsigned int nSize) : m_octs(octs)
    {
        m_octs.octs = pData;
        m_octs.octetLen = nSize;
    }
    ~COctsLoan()
    {
        m_octs.octs = nullptr;
        m_octs.octetLen = 0;
    }
    COctsLoan(const COctsLoan&) = delete;
    COctsLoan& operator=(const COctsLoan&) = delete;

private:
    AsnOcts& m_octs;
};

// Reads up to nSize bytes at lOffset; fewer only at the end of the file.
ssize_t ReadBlock(int fd, char* pBuf, unsigned int nSize, unsigned long long lOffset)
{
    size_t nDone = 0;
    while (nDone < nSize) {
        ssize_t r = pread(fd, pBuf + nDone, nSize - nDone, static_cast<off_t>(lOffset + nDone));
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) break;
        nDone += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(nDone);
}

} // namespace

bool CFileReadThreadReqRead::DoReq(CFileReadThread* pThread) { return pThread->ReqFileAgentGet(this); }

bool CFileReadThreadReqForget::DoReq(CFileReadThread* pThread)
{
    pThread->ForgetConnect(m_nConnectId);
    return true;
}

void CFileReadThread::SetPeerTakenFun(PeerTakenFun pFun) { g_pPeerTakenFun = pFun == nullptr ? PeerTakenBytes : pFun; }

CFileReadThread::CFileReadThread(CDataBufferSTLDeque& sendDataBuffer, CNetworkMultiBase* pNetwork)
    : CThread(READ_THREAD_STACK_SIZE),
      m_sendDataBuffer(sendDataBuffer),
      m_pNetwork(pNetwork),
      m_deqReq(true, 0),
      m_packetBuf("CFileReadThread", PACKET_BUF_MIN_SIZE)
{
}

CFileReadThread::~CFileReadThread()
{
    CThread::Stop();
    unsigned int nSize = 0;
    void* pData = nullptr;
    while ((pData = m_deqReq.GetFrontAndPop(nSize, 0)) != nullptr) {
        delete *static_cast<CFileReadThreadReqBase**>(pData);
        CDataBufferSTLDeque::FreePopData(pData);
    }
    for (auto& pair : m_mapConnect) {
        for (CFileReadThreadReqRead* pReq : pair.second.deqReq) delete pReq;
    }
    free(m_pReadFileBuf);
}

void CFileReadThread::AddReq(CFileReadThreadReqBase* pReq)
{
    if (m_deqReq.Push(&pReq, sizeof(pReq), BREL_DATA_NORMAL_PRI) != 0) {
        Log(LOG_LEVEL_ERROR, "CFileReadThread::AddReq(push request is error, we exit)");
        ExitProcess(1);
    }
}

size_t CFileReadThread::HeldRequests() { return m_nHeld; }

void CFileReadThread::Run()
{
    m_tLastWork = g_timeNow;
    unsigned int nWait = 0;
    WatchAgentClock(this);
    while (m_nContinueRun != 0) {
        TakeRequests(nWait);
        if (ServeConnects()) {
            m_tLastWork = g_timeNow;
            nWait = 0;
        } else if (!m_deqTurn.empty()) {
            nWait = PEER_WAIT_MILLISECOND;
        } else {
            ReleaseIdleBuffers();
            nWait = IdleWait();
        }
    }
    UnwatchAgentClock(this);
}

void CFileReadThread::WakeUp() { m_deqReq.WakeTaker(); }

unsigned int CFileReadThread::IdleWait() const
{
    // A request or a stop wakes the wait; the only deadline is the release of the buffers.
    bool bHolding = m_packetBuf.Size() != IDLE_PACKET_BUF_SIZE || m_nReadFileBufSize != 0;
    int nWait = bHolding ? MilliSecondsUntilAgentTime(m_tLastWork + IDLE_RELEASE_SECOND + 1)
                         : DEADLINE_WAIT_MAX_MILLISECOND;
    return nWait > 0 ? static_cast<unsigned int>(nWait) : PEER_WAIT_MILLISECOND;
}

void CFileReadThread::TakeRequests(unsigned int nWaitMilliSecond)
{
    for (int i = 0; i < TAKE_MAX && m_nContinueRun != 0; ++i) {
        unsigned int nSize = 0;
        void* pData = m_deqReq.GetFrontAndPop(nSize, i == 0 ? nWaitMilliSecond : 0);
        if (pData == nullptr) return;
        CFileReadThreadReqBase* pReq = *static_cast<CFileReadThreadReqBase**>(pData);
        CDataBufferSTLDeque::FreePopData(pData);
        if (pReq->DoReq(this)) delete pReq;
        m_tLastWork = g_timeNow;
    }
}

void CFileReadThread::ReleaseIdleBuffers()
{
    time_t tNow = g_timeNow;
    PullBack(m_tLastWork, tNow);
    if (tNow - m_tLastWork <= IDLE_RELEASE_SECOND) return;
    m_tLastWork = tNow;
    if (m_packetBuf.Size() != IDLE_PACKET_BUF_SIZE && !m_packetBuf.Allocate(IDLE_PACKET_BUF_SIZE)) {
        Log(LOG_LEVEL_ERROR, "CFileReadThread::Run(malloc packet buf is error, we exit)");
        ExitProcess(1);
    }
    if (m_nReadFileBufSize != 0) {
        free(m_pReadFileBuf);
        m_pReadFileBuf = nullptr;
        m_nReadFileBufSize = 0;
    }
}

bool CFileReadThread::ReqFileAgentGet(CFileReadThreadReqRead* pReq)
{
    unsigned int nConnectId = pReq->m_nNowConnectId;
    ConnectQueue& conn = m_mapConnect[nConnectId];
    if (conn.deqReq.size() >= CONNECT_HELD_MAX) {
        Log(LOG_LEVEL_WARNING,
            "CFileReadThread::ReqFileAgentGet(too many requests wait for the client, we close it, wait num: %u, work "
            "id: %u, connect id: %u)",
            static_cast<unsigned int>(conn.deqReq.size()), pReq->m_nSrcWorkId, nConnectId);
        ForgetConnect(nConnectId);
        if (m_pNetwork != nullptr) m_pNetwork->CloseClient(nConnectId);
        return true;
    }
    if (pReq->m_nSockFd >= 0) conn.nSockFd = pReq->m_nSockFd;
    if (conn.deqReq.empty()) m_deqTurn.push_back(nConnectId);
    conn.deqReq.push_back(pReq);
    ++m_nHeld;
    return false;
}

void CFileReadThread::ForgetConnect(unsigned int nConnectId)
{
    auto it = m_mapConnect.find(nConnectId);
    if (it == m_mapConnect.end()) return;
    for (CFileReadThreadReqRead* pReq : it->second.deqReq) delete pReq;
    m_nHeld -= it->second.deqReq.size();
    m_mapConnect.erase(it);
    for (auto itTurn = m_deqTurn.begin(); itTurn != m_deqTurn.end(); ++itTurn) {
        if (*itTurn == nConnectId) {
            m_deqTurn.erase(itTurn);
            break;
        }
    }
}

unsigned long long CFileReadThread::QueueRoom(const ConnectQueue& conn, unsigned int nGetSize) const
{
    const unsigned long long lUnbounded = ~0ULL;
    if (conn.nSockFd < 0) return lUnbounded;
    long long lTaken = g_pPeerTakenFun.load()(conn.nSockFd);
    if (lTaken < 0 || static_cast<unsigned long long>(lTaken) >= conn.lPushed) return lUnbounded;
    unsigned long long lQueued = conn.lPushed - static_cast<unsigned long long>(lTaken);
    unsigned long long lMax = std::min(std::max(CONNECT_QUEUE_MAX, CONNECT_QUEUE_BLOCKS * nGetSize), CONNECT_QUEUE_CEILING);
    return lQueued >= lMax ? 0 : lMax - lQueued;
}

bool CFileReadThread::ServeConnects()
{
    bool bMoved = false;
    for (size_t n = m_deqTurn.size(); n > 0 && m_nContinueRun != 0; --n) {
        unsigned int nConnectId = m_deqTurn.front();
        m_deqTurn.pop_front();
        ConnectQueue& conn = m_mapConnect[nConnectId];
        if (conn.deqReq.empty()) continue;
        CFileReadThreadReqRead* pReq = conn.deqReq.front();
        unsigned long long lPushedBefore = conn.lPushed;
        int nTurn = ServeTurn(conn, pReq);
        if (conn.lPushed != lPushedBefore || nTurn == TURN_DONE) bMoved = true;
        if (nTurn == TURN_DONE) {
            conn.deqReq.pop_front();
            --m_nHeld;
            delete pReq;
        }
        if (!conn.deqReq.empty()) m_deqTurn.push_back(nConnectId);
    }
    return bMoved;
}

int CFileReadThread::ServeTurn(ConnectQueue& conn, CFileReadThreadReqRead* pReq)
{
    m_nNowAppend = pReq->m_nNowAppend;
    m_nNowConnectId = pReq->m_nNowConnectId;
    if (!pReq->m_bStarted && QueueRoom(conn, static_cast<unsigned int>(std::max(0, pReq->m_nGetSize))) == 0)
        return TURN_WAIT_PEER;
    if (pReq->m_nGetSize == 0) {
        // A transfer heartbeat: the manager has renewed the work already.
        Log(LOG_LEVEL_DEBUG,
            "CFileReadThread::ReqFileAgentGet(file transit heartbeat, work id: %u, dst work id: %u, file: %s)",
            pReq->m_nSrcWorkId, pReq->m_nDstWorkId, pReq->m_strSrcFile.c_str());
        return TURN_DONE;
    }
    if (pReq->m_strSrcFile.empty()) {
        Log(LOG_LEVEL_WARNING, "CFileReadThread::ReqFileAgentGet(src file is empty, work id: %u, dst work id: %u)",
            pReq->m_nSrcWorkId, pReq->m_nDstWorkId);
        SendFileAgentGetFailed(RET_SRC_FILE_UNREADABLE, pReq->m_nDstWorkId, pReq->m_nSrcWorkId, 0);
        return TURN_DONE;
    }
    // Never blocks: a FIFO or a device opens at once and is refused by its type.
    int fd = open(pReq->m_strSrcFile.c_str(), O_RDONLY | O_NOFOLLOW | O_SYNC | O_NONBLOCK | O_CLOEXEC);
    struct stat st;
    if (fd >= 0) {
        int nErr = fstat(fd, &st) != 0 ? errno : (S_ISREG(st.st_mode) ? 0 : EINVAL);
        if (nErr != 0) {
            close(fd);
            fd = -1;
            errno = nErr;
        }
    }
    if (fd < 0) {
        Log(LOG_LEVEL_WARNING,
            "CFileReadThread::ReqFileAgentGet(open src file is error, work id: %u, dst work id: %u, errno: %d)",
            pReq->m_nSrcWorkId, pReq->m_nDstWorkId, errno);
        SendFileAgentGetFailed(RET_SRC_FILE_UNREADABLE, pReq->m_nDstWorkId, pReq->m_nSrcWorkId, 0);
        return TURN_DONE;
    }
    int nTurn = TURN_MORE;
    if (!pReq->m_bStarted) nTurn = StartRead(pReq, fd);
    unsigned long long lFileSize = static_cast<unsigned long long>(st.st_size);
    int nBlocks = 0;
    while (nTurn == TURN_MORE) {
        if (pReq->m_nCount >= pReq->m_nGetNum) {
            nTurn = TURN_DONE;
            break;
        }
        if (nBlocks == BLOCKS_PER_TURN) break;
        nTurn = ServeBatch(conn, pReq, fd, lFileSize, BLOCKS_PER_TURN - nBlocks, nBlocks);
    }
    close(fd);
    if (nTurn == TURN_ENDED) return TURN_DONE;
    if (nTurn == TURN_DONE && pReq->m_bStarted) {
        Log(LOG_LEVEL_DEBUG,
            "CFileReadThread::ReqFileAgentGet(work id: %u, dst work id: %u, begin pos: %llu, file size: %llu, need "
            "read size: %d, get num: %d, real read size: %llu, connect id: %u)",
            pReq->m_nSrcWorkId, pReq->m_nDstWorkId, pReq->m_lBeginOffset, lFileSize, pReq->m_nGetSize, pReq->m_nGetNum,
            pReq->m_lReadSize, m_nNowConnectId);
    }
    return nTurn;
}

int CFileReadThread::ServeBatch(ConnectQueue& conn, CFileReadThreadReqRead* pReq, int fd, unsigned long long lFileSize,
                                int nMaxBlocks, int& nServed)
{
    unsigned int nGetSize = static_cast<unsigned int>(pReq->m_nGetSize);
    unsigned long long lRoom = QueueRoom(conn, nGetSize);
    if (lRoom == 0) return TURN_WAIT_PEER;
    // As many blocks as the request still wants, the turn allows, the queue
    // has room for (a block begun is finished) and the batch holds.
    unsigned long long lBlocks = std::min<unsigned long long>(pReq->m_nGetNum - pReq->m_nCount, nMaxBlocks);
    if (nGetSize > 0) {
        lBlocks = std::min(lBlocks, (lRoom + nGetSize - 1) / nGetSize);
        lBlocks = std::min(lBlocks, std::max(1ULL, BATCH_BYTES_MAX / nGetSize));
    }
    lBlocks = std::max(1ULL, lBlocks);
    unsigned int nBatchSize = static_cast<unsigned int>(lBlocks * nGetSize);
    if (m_pReadFileBuf == nullptr || nBatchSize > m_nReadFileBufSize) {
        free(m_pReadFileBuf);
        m_pReadFileBuf = static_cast<char*>(malloc(std::max(1u, nBatchSize)));
        m_nReadFileBufSize = m_pReadFileBuf == nullptr ? 0 : nBatchSize;
        if (m_pReadFileBuf == nullptr) return RefuseReadBuf(pReq);
    }
    // Read the batch; a failure, the end of the file or a short block ends it.
    const unsigned int BATCH_MAX = BLOCKS_PER_TURN;
    char* apBlock[BATCH_MAX];
    unsigned int anLength[BATCH_MAX];
    unsigned int nRead = 0;
    int nEnd = TURN_MORE;
    bool bReadFailed = false;
    int nReadErrno = 0;
    unsigned long long lOffset = pReq->m_lOffset;
    while (nRead < lBlocks) {
        ++pReq->m_nCount;
        ++nServed;
        char* pBlock = m_pReadFileBuf + static_cast<size_t>(nRead) * nGetSize;
        Log(LOG_LEVEL_LOWEST, "CFileReadThread::ReqFileAgentGet(begin read, work id: %u, size: %u)", pReq->m_nSrcWorkId,
            nGetSize);
        ssize_t nBytes = ReadBlock(fd, pBlock, nGetSize, lOffset);
        Log(LOG_LEVEL_LOWEST, "CFileReadThread::ReqFileAgentGet(end read, work id: %u, size: %u)", pReq->m_nSrcWorkId,
            nGetSize);
        if (nBytes < 0) {
            bReadFailed = true;
            nReadErrno = errno;
            nEnd = TURN_ENDED;
            break;
        }
        if (nBytes == 0) {
            nEnd = pReq->m_nCount == 1 ? TURN_ENDED : TURN_DONE;
            break;
        }
        apBlock[nRead] = pBlock;
        anLength[nRead++] = static_cast<unsigned int>(nBytes);
        lOffset += static_cast<unsigned long long>(nBytes);
        // A short block is the end of the file, or of what it has now: the client asks again.
        if (static_cast<unsigned int>(nBytes) < nGetSize) {
            nEnd = TURN_DONE;
            break;
        }
    }
    std::string astrMd5[BATCH_MAX];
    if (g_bEnableMd5Calc && nRead > 0)
        MD5::HexDigests(reinterpret_cast<const unsigned char* const*>(apBlock), anLength, nRead, astrMd5);
    for (unsigned int i = 0; i < nRead; ++i) {
        SendFileAgentGetOk(pReq->m_nDstWorkId, pReq->m_nSrcWorkId, pReq->m_lOffset, lFileSize, apBlock[i], anLength[i],
                           pReq->m_nFileAccessBit, astrMd5[i]);
        pReq->m_lOffset += anLength[i];
        pReq->m_lReadSize += anLength[i];
    }
    if (nEnd != TURN_ENDED) return nEnd;
    if (bReadFailed) {
        Log(LOG_LEVEL_WARNING,
            "CFileReadThread::ReqFileAgentGet(read src file is error, work id: %u, dst work id: %u, errno: %d, "
            "begin pos: %llu, read size: %d, get num: %d)",
            pReq->m_nSrcWorkId, pReq->m_nDstWorkId, nReadErrno, pReq->m_lOffset, pReq->m_nGetSize, pReq->m_nGetNum);
        SendFileAgentGetFailed(RET_SRC_FILE_UNREADABLE, pReq->m_nDstWorkId, pReq->m_nSrcWorkId,
                               pReq->m_nFileAccessBit);
    } else {
        // At the end of the file: an empty answer with ret 0 says so.
        Log(LOG_LEVEL_DEBUG,
            "CFileReadThread::ReqFileAgentGet(src file is empty, work id: %u, dst work id: %u, begin pos: "
            "%llu, file size: %llu, need read size: %d, get num: %d, connect id: %u)",
            pReq->m_nSrcWorkId, pReq->m_nDstWorkId, pReq->m_lOffset, lFileSize, pReq->m_nGetSize, pReq->m_nGetNum,
            m_nNowConnectId);
        SendFileAgentGetFailed(0, pReq->m_nDstWorkId, pReq->m_nSrcWorkId, pReq->m_nFileAccessBit);
    }
    return TURN_ENDED;
}

// A get whose read buffer can't be had: refused, and the request is done.
int CFileReadThread::RefuseReadBuf(const CFileReadThreadReqRead* pReq)
{
    Log(LOG_LEVEL_WARNING,
        "CFileReadThread::ReqFileAgentGet(malloc read buf is error, work id: %u, dst work id: %u, buf size: %d, "
        "get num: %d)",
        pReq->m_nSrcWorkId, pReq->m_nDstWorkId, pReq->m_nGetSize, pReq->m_nGetNum);
    SendFileAgentGetFailed(RET_READ_BUF_FAILED, pReq->m_nDstWorkId, pReq->m_nSrcWorkId, 0);
    return TURN_DONE;
}

int CFileReadThread::StartRead(CFileReadThreadReqRead* pReq, int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0) st.st_size = 0;
    bool bPreGet = (pReq->m_nBeginPosHigh & PRE_GET_MARK) != 0;
    unsigned long long lOffset =
        (static_cast<unsigned long long>(pReq->m_nBeginPosHigh & ~PRE_GET_MARK) << 32) | pReq->m_nBeginPosLow;
    unsigned long long lFileSize = static_cast<unsigned long long>(st.st_size);
    if (lFileSize < lOffset) {
        if (bPreGet) {
            // A look-ahead beyond the end is no error: it gets no answer.
            Log(LOG_LEVEL_WARNING,
                "CFileReadThread::ReqFileAgentGet(pre get, over file size, work id: %u, dst work id: %u, begin pos: "
                "%llu, file size: %llu, file: %s)",
                pReq->m_nSrcWorkId, pReq->m_nDstWorkId, lOffset, lFileSize, pReq->m_strSrcFile.c_str());
        } else {
            Log(LOG_LEVEL_WARNING,
                "CFileReadThread::ReqFileAgentGet(begin pos is error, work id: %u, dst work id: %u, begin pos: %llu, "
                "file size: %llu)",
                pReq->m_nSrcWorkId, pReq->m_nDstWorkId, lOffset, lFileSize);
            SendFileAgentGetFailed(RET_BEGIN_POS_BEYOND_END, pReq->m_nDstWorkId, pReq->m_nSrcWorkId, 0);
        }
        return TURN_DONE;
    }
    // A block larger than a packet may carry is refused, as one that can't be allocated.
    if (pReq->m_nGetSize < 0 || pReq->m_nGetSize > MAX_GET_SIZE) return RefuseReadBuf(pReq);
    pReq->m_bStarted = true;
    pReq->m_lOffset = pReq->m_lBeginOffset = lOffset;
    // Only answers to a get from position 0 carry the permission bits.
    pReq->m_nFileAccessBit = lOffset == 0 ? (st.st_mode & 0777) : 0;
    return TURN_MORE;
}

template <class T>
void CFileReadThread::SendToServer(T& message)
{
    unsigned int nSize = 0;
    char* pBytes = EncodePacket(m_packetBuf, message, m_nNowAppend, nSize);
    if (pBytes == nullptr) return;  // logged; the client's retry mends the loss
    m_sendDataBuffer.Push2(pBytes, nSize, static_cast<int>(m_nNowConnectId), BREL_DATA_NORMAL_PRI);
    auto it = m_mapConnect.find(m_nNowConnectId);
    if (it != m_mapConnect.end()) it->second.lPushed += nSize;
}

void CFileReadThread::SendFileAgentGetOk(unsigned int nDstWorkId, unsigned int nSrcWorkId, unsigned long long lBeginPos,
                                         unsigned long long lTotalSize, char* pBuf, unsigned int nBufSize,
                                         unsigned int nFileAccessBit, const std::string& strMd5)
{
    Log(LOG_LEVEL_DEBUG, "CFileReadThread::SendFileAgentGetOk(work id: %u, size: %u, append: %d)", nSrcWorkId, nBufSize,
        m_nNowAppend);
    g_lWorkTransmitSize += nBufSize;
    RspWorkFileAgentGet rsp;
    rsp.ret = 0;
    rsp.dstWorkId = static_cast<int>(nDstWorkId);
    rsp.srcWorkId = static_cast<int>(nSrcWorkId);
    rsp.srcFileAccessBit = static_cast<int>(nFileAccessBit);
    if (!strMd5.empty()) rsp.md5 = strMd5.c_str();
    rsp.beginPosHigh = static_cast<int>(lBeginPos >> 32);
    rsp.beginPosLow = static_cast<int>(lBeginPos & 0xFFFFFFFFU);
    rsp.totalSizeHigh = static_cast<int>(lTotalSize >> 32);
    rsp.totalSizeLow = static_cast<int>(lTotalSize & 0xFFFFFFFFU);
    COctsLoan loan(rsp.content, pBuf, nBufSize);
    SendToServer(rsp);
}

void CFileReadThread::SendFileAgentGetFailed(int ret, unsigned int nDstWorkId, unsigned int nSrcWorkId,
                                             unsigned int nFileAccessBit)
{
    Log(ret != 0 ? LOG_LEVEL_WARNING : LOG_LEVEL_DEBUG,
        "CFileReadThread::SendFileAgentGetFailed(ret: %d, work id: %u, append: %d)", ret, nSrcWorkId, m_nNowAppend);
    RspWorkFileAgentGet rsp;
    rsp.ret = ret;
    rsp.dstWorkId = static_cast<int>(nDstWorkId);
    rsp.srcWorkId = static_cast<int>(nSrcWorkId);
    rsp.srcFileAccessBit = static_cast<int>(nFileAccessBit);
    SendToServer(rsp);
}
