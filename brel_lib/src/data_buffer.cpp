#include "data_buffer.h"

#include <stdlib.h>
#include <string.h>

#include "process.h"
#include "util.h"

namespace brel_lib {

// One allocation: this header, then the payload. The header is padded to 16
// bytes so that the payload is aligned for any pointer or integer it carries.
struct CDataBufferSTLDeque::BufferData {
    unsigned int nSize;
    unsigned int nSpeed;
    int nAppend;
    unsigned int nPad;

    char* Payload() { return reinterpret_cast<char*>(this) + sizeof(BufferData); }
    static BufferData* FromPayload(void* p)
    {
        return reinterpret_cast<BufferData*>(static_cast<char*>(p) - sizeof(BufferData));
    }
};
static_assert(sizeof(unsigned int) * 4 == 16, "block header must stay 16 bytes");

CDataBufferSTLDeque::CDataBufferSTLDeque(bool bBlockGet, unsigned int nPacketNumToDel)
    : m_bBlockGet(bBlockGet), m_nPacketNumToDel(nPacketNumToDel)
{
    int ret = m_dataEvent.Init();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CDataBufferSTLDeque::CDataBufferSTLDeque(m_dataEvent init is error, ret: %d)", ret);
        ExitProcess(1);
    }
}

CDataBufferSTLDeque::~CDataBufferSTLDeque() { RemoveAll(); }

int CDataBufferSTLDeque::Push(const void* pBuffer, unsigned int nSize, int nPriority)
{
    return Push3(pBuffer, nSize, 0, 0, nPriority);
}

int CDataBufferSTLDeque::Push2(const void* pBuffer, unsigned int nSize, int nAppend, int nPriority)
{
    return Push3(pBuffer, nSize, 0, nAppend, nPriority);
}

int CDataBufferSTLDeque::Push3(const void* pBuffer, unsigned int nSize, unsigned int nSpeed, int nAppend,
                               int nPriority)
{
    if (pBuffer == nullptr || nSize == 0) return -1;
    // Allocated outside the lock.
    BufferData* pData = static_cast<BufferData*>(malloc(sizeof(BufferData) + nSize));
    if (pData == nullptr) {
        Log(LOG_LEVEL_WARNING, "CDataBufferSTLDeque::Push(malloc buf is error, malloc size: %u)", nSize);
        return -1;
    }
    pData->nSize = nSize;
    pData->nSpeed = nSpeed;
    pData->nAppend = nAppend;
    pData->nPad = 0;

    CAutoLock lock(m_lock);
    bool bNormal = nPriority == BREL_DATA_NORMAL_PRI;
    if (bNormal && m_nPacketNumToDel != 0 && m_deDataBuffer.size() >= m_nPacketNumToDel) {
        // Shed the oldest traffic rather than refuse the newest.
        Log(LOG_LEVEL_DEBUG,
            "CDataBufferSTLDeque::Push(now data buf size is over the max size, we remove the first data, now data "
            "buf size: %u)",
            static_cast<unsigned int>(m_deDataBuffer.size()));
        RemovePrivate(0, 1);
    }
    memcpy(pData->Payload(), pBuffer, nSize);
    (bNormal ? m_deDataBuffer : m_deDataBufferHiPri).push_back(pData);
    m_lPacketAllSize += nSize;
    int ret = m_dataEvent.SetEvent();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CDataBufferSTLDeque::Push(m_dataEvent SetEvent is error, ret: %d)", ret);
        ExitProcess(1);
    }
    return 0;
}

void* CDataBufferSTLDeque::GetFront(unsigned int& nSize, unsigned int nTimeoutMilliSecond)
{
    unsigned int nSpeed;
    int nAppend;
    return GetFrontPrivate(nSize, nSpeed, nAppend, nTimeoutMilliSecond, false);
}

void* CDataBufferSTLDeque::GetFront2(unsigned int& nSize, int& nAppend, unsigned int nTimeoutMilliSecond)
{
    unsigned int nSpeed;
    return GetFrontPrivate(nSize, nSpeed, nAppend, nTimeoutMilliSecond, false);
}

void* CDataBufferSTLDeque::GetFront3(unsigned int& nSize, unsigned int& nSpeed, int& nAppend,
                                     unsigned int nTimeoutMilliSecond)
{
    return GetFrontPrivate(nSize, nSpeed, nAppend, nTimeoutMilliSecond, false);
}

void* CDataBufferSTLDeque::GetFrontAndPop(unsigned int& nSize, unsigned int nTimeoutMilliSecond)
{
    unsigned int nSpeed;
    int nAppend;
    return GetFrontPrivate(nSize, nSpeed, nAppend, nTimeoutMilliSecond, true);
}

void* CDataBufferSTLDeque::GetFrontAndPop2(unsigned int& nSize, int& nAppend, unsigned int nTimeoutMilliSecond)
{
    unsigned int nSpeed;
    return GetFrontPrivate(nSize, nSpeed, nAppend, nTimeoutMilliSecond, true);
}

void* CDataBufferSTLDeque::GetFrontAndPop3(unsigned int& nSize, unsigned int& nSpeed, int& nAppend,
                                           unsigned int nTimeoutMilliSecond)
{
    return GetFrontPrivate(nSize, nSpeed, nAppend, nTimeoutMilliSecond, true);
}

void CDataBufferSTLDeque::LockOrExit(const char* szText)
{
    int ret = m_lock.Lock();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CDataBufferSTLDeque::Push(%s, ret: %d)", szText, ret);
        ExitProcess(1);
    }
}

void CDataBufferSTLDeque::UnLockOrExit(const char* szText)
{
    int ret = m_lock.UnLock();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CDataBufferSTLDeque::Push(%s, ret: %d)", szText, ret);
        ExitProcess(1);
    }
}

void* CDataBufferSTLDeque::GetFrontPrivate(unsigned int& nSize, unsigned int& nSpeed, int& nAppend,
                                           unsigned int nTimeoutMilliSecond, bool bPop)
{
    nSize = nSpeed = 0;
    nAppend = 0;
    uint64_t lStart = GetNowMilliSecond();
    int nRemain = static_cast<int>(nTimeoutMilliSecond);
    bool bWaited = false;
    LockOrExit("lock is error 1");
    while (m_deDataBufferHiPri.empty() && m_deDataBuffer.empty()) {
        UnLockOrExit("unlock is error 1");
        if (!m_bBlockGet) return nullptr;
        int ret = m_dataEvent.WaitForSingleObject(static_cast<unsigned int>(nRemain));
        if (ret == 0) return nullptr;
        if (ret < 0) {
            Log(LOG_LEVEL_ERROR, "CDataBufferSTLDeque::Push(m_dataEvent WaitForSingleObject is error, ret: %d)", ret);
            ExitProcess(1);
        }
        uint64_t lNow = GetNowMilliSecond();
        LockOrExit("lock is error 2");
        if (!m_deDataBufferHiPri.empty() || !m_deDataBuffer.empty()) {
            bWaited = true;
            break;
        }
        // An empty wake-up: another consumer was faster, or the signal was stale.
        if (lStart > lNow) lStart = lNow;
        int nElapsed = static_cast<int>(lNow - lStart);
        if (nElapsed >= nRemain) {
            UnLockOrExit("unlock is error 2");
            return nullptr;
        }
        nRemain -= nElapsed;
        lStart = lNow;
    }

    std::deque<BufferData*>& line = m_deDataBufferHiPri.empty() ? m_deDataBuffer : m_deDataBufferHiPri;
    BufferData* pData = line.front();
    nSize = pData->nSize;
    nSpeed = pData->nSpeed;
    nAppend = pData->nAppend;
    if (bPop) {
        m_lPacketAllSize -= pData->nSize;
        line.pop_front();
        // A take clears the event whatever remains; a waiting take had it cleared already.
        if (!bWaited) m_dataEvent.ClearEvent();
    }
    UnLockOrExit("unlock is error 3");
    return pData->Payload();
}

void CDataBufferSTLDeque::Pop()
{
    CAutoLock lock(m_lock);
    std::deque<BufferData*>& line = m_deDataBufferHiPri.empty() ? m_deDataBuffer : m_deDataBufferHiPri;
    if (line.empty()) return;
    BufferData* pData = line.front();
    line.pop_front();
    m_lPacketAllSize -= pData->nSize;
    free(pData);
    if (m_deDataBufferHiPri.empty() && m_deDataBuffer.empty()) m_dataEvent.ClearEvent();
}

void CDataBufferSTLDeque::FreePopData(void* pBuffer)
{
    if (pBuffer != nullptr) free(BufferData::FromPayload(pBuffer));
}

int CDataBufferSTLDeque::RemovePrivate(unsigned int nBeginPos, unsigned int nEndPos)
{
    // The range test is strict on both ends, so a line of one block never
    // loses it: with a limit of 1 the line settles at two blocks.
    unsigned int n = static_cast<unsigned int>(m_deDataBuffer.size());
    if (!(nBeginPos < n && nEndPos < n && nBeginPos <= nEndPos)) return -1;
    for (unsigned int i = nBeginPos; i < nEndPos; ++i) {
        m_lPacketAllSize -= m_deDataBuffer[i]->nSize;
        free(m_deDataBuffer[i]);
    }
    m_deDataBuffer.erase(m_deDataBuffer.begin() + nBeginPos, m_deDataBuffer.begin() + nEndPos);
    return 0;
}

void CDataBufferSTLDeque::RemoveAll()
{
    CAutoLock lock(m_lock);
    for (BufferData* pData : m_deDataBufferHiPri) free(pData);
    for (BufferData* pData : m_deDataBuffer) free(pData);
    m_deDataBufferHiPri.clear();
    m_deDataBuffer.clear();
    m_lPacketAllSize = 0;
}

bool CDataBufferSTLDeque::Empty()
{
    CAutoLock lock(m_lock);
    return m_deDataBufferHiPri.empty() && m_deDataBuffer.empty();
}

unsigned int CDataBufferSTLDeque::GetDataNum()
{
    CAutoLock lock(m_lock);
    return static_cast<unsigned int>(m_deDataBufferHiPri.size() + m_deDataBuffer.size());
}

unsigned long long CDataBufferSTLDeque::GetDataSize()
{
    CAutoLock lock(m_lock);
    return m_lPacketAllSize;
}

} // namespace brel_lib
