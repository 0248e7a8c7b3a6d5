#include "data_buffer.h"

#include <errno.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "process.h"
#include "util.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define SPARE_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define SPARE_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define SPARE_POISON(p, n) ((void)(p), (void)(n))
#define SPARE_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace brel_lib {

// One allocation: this header, then the payload. The header is padded to 16
// bytes so that the payload is aligned for any pointer or integer it carries.
struct CDataBufferSTLDeque::BufferData {
    unsigned int nSize;
    unsigned int nSpeed;
    int nAppend;
    unsigned int nClass;  // size class in the spare pool, 0 for a block too big for it

    char* Payload() { return reinterpret_cast<char*>(this) + sizeof(BufferData); }
    static BufferData* FromPayload(void* p)
    {
        return reinterpret_cast<BufferData*>(static_cast<char*>(p) - sizeof(BufferData));
    }
};
static_assert(sizeof(unsigned int) * 4 == 16, "block header must stay 16 bytes");

namespace {

// Freed blocks wait here for the next push of a similar size instead of going
// back to the allocator, which would trim large ones back to the system and
// fault them in again. Classes are four to a doubling (a block wastes at most
// a fifth), from 64 bytes to 4 MiB; bigger blocks are not kept. The pool is
// bounded in bytes, and blocks that stayed unused for a whole idle period
// (the fewest a class held during it) are given back, so an idle agent keeps
// nothing. One lock, innermost: it is taken inside a buffer's lock.
class CSparePool {
public:
    static const unsigned int CLASS_MIN_SHIFT = 6;
    static const unsigned int CLASS_MAX_SHIFT = 22;
    static const unsigned int CLASS_NUM = 2 + (CLASS_MAX_SHIFT - CLASS_MIN_SHIFT) * 4;

    // Class of an allocation of nBytes; 0 when it is too big to keep.
    static unsigned int ClassOf(size_t nBytes)
    {
        if (nBytes <= (size_t(1) << CLASS_MIN_SHIFT)) return 1;
        if (nBytes > (size_t(1) << CLASS_MAX_SHIFT)) return 0;
        unsigned int nShift = 63 - static_cast<unsigned int>(__builtin_clzll(nBytes - 1));  // 2^s < n <= 2^(s+1)
        size_t nStep = size_t(1) << (nShift - 2);
        size_t nQuarter = ((nBytes - (size_t(1) << nShift)) + nStep - 1) >> (nShift - 2);  // 1..4
        return 1 + (nShift - CLASS_MIN_SHIFT) * 4 + static_cast<unsigned int>(nQuarter);
    }
    static size_t ClassBytes(unsigned int nClass)
    {
        if (nClass == 1) return size_t(1) << CLASS_MIN_SHIFT;
        unsigned int nShift = CLASS_MIN_SHIFT + (nClass - 2) / 4;
        return (size_t(1) << nShift) + ((nClass - 2) % 4 + 1) * (size_t(1) << (nShift - 2));
    }

    // A block of at least nBytes, its class in nClass; null when out of memory.
    void* Acquire(size_t nBytes, unsigned int& nClass)
    {
        nClass = ClassOf(nBytes);
        if (nClass == 0) return malloc(nBytes);
        SpareNode* pNode = nullptr;
        {
            CAutoLock lock(m_lock);
            SpareClass& c = m_class[nClass];
            if (c.pHead != nullptr) {
                pNode = c.pHead;
                c.pHead = pNode->pNext;
                if (--c.nCount < c.nLowWater) c.nLowWater = c.nCount;
                m_lSpareBytes -= ClassBytes(nClass);
            }
        }
        if (pNode != nullptr) {
            SPARE_UNPOISON(pNode, ClassBytes(nClass));
            return pNode;
        }
        return malloc(ClassBytes(nClass));
    }

    // Every block acquired comes back here, so this is where the pool trims.
    void Release(void* p, unsigned int nClass)
    {
        if (nClass == 0 || nClass >= CLASS_NUM) {
            free(p);
            return;
        }
        size_t nBytes = ClassBytes(nClass);
        SpareNode* pNode = static_cast<SpareNode*>(p);
        SpareNode* pTrimmed = nullptr;
        bool bKept = false;
        {
            CAutoLock lock(m_lock);
            if (m_lSpareBytes + nBytes <= CDataBufferSTLDeque::SPARE_MAX_BYTES) {
                SpareClass& c = m_class[nClass];
                pNode->pNext = c.pHead;
                c.pHead = pNode;
                ++c.nCount;
                m_lSpareBytes += nBytes;
                bKept = true;
                // A use after FreePopData still shows under AddressSanitizer.
                SPARE_POISON(reinterpret_cast<char*>(pNode) + sizeof(SpareNode), nBytes - sizeof(SpareNode));
            }
            pTrimmed = TrimIfIdlePrivate();
        }
        FreeList(pTrimmed);
        if (!bKept) free(p);
    }

    unsigned long long GetSpareBytes()
    {
        CAutoLock lock(m_lock);
        return m_lSpareBytes;
    }

    void SetClock(CDataBufferSTLDeque::ClockFun pClock)
    {
        CAutoLock lock(m_lock);
        m_pClock = pClock != nullptr ? pClock : GetNowMilliSecond;
        m_lTrimTime = m_pClock();
    }

private:
    // Laid over the first bytes of a spare block.
    struct SpareNode {
        SpareNode* pNext;
    };
    struct SpareClass {
        SpareNode* pHead = nullptr;
        unsigned int nCount = 0;
        unsigned int nLowWater = 0;  // fewest blocks held since the last trim
    };

    // Once an idle period has passed, takes out of each class the blocks that
    // no push needed during it; the caller frees them outside the lock.
    SpareNode* TrimIfIdlePrivate()
    {
        uint64_t lNow = m_pClock();
        if (m_lTrimTime > lNow) m_lTrimTime = lNow;  // the clock went back
        if (lNow - m_lTrimTime < CDataBufferSTLDeque::SPARE_IDLE_MILLISECOND) return nullptr;
        m_lTrimTime = lNow;
        SpareNode* pTrimmed = nullptr;
        for (unsigned int n = 1; n < CLASS_NUM; ++n) {
            SpareClass& c = m_class[n];
            for (; c.nLowWater > 0; --c.nLowWater, --c.nCount) {
                SpareNode* pNode = c.pHead;
                c.pHead = pNode->pNext;
                m_lSpareBytes -= ClassBytes(n);
                SPARE_UNPOISON(pNode, ClassBytes(n));
                pNode->pNext = pTrimmed;
                pTrimmed = pNode;
            }
            c.nLowWater = c.nCount;
        }
        return pTrimmed;
    }

    // Freed blocks below the heap's top would stay resident as free space,
    // so the heap is trimmed after them and their pages go to the system.
    static void FreeList(SpareNode* pNode)
    {
        if (pNode == nullptr) return;
        while (pNode != nullptr) {
            SpareNode* pNext = pNode->pNext;
            free(pNode);
            pNode = pNext;
        }
        malloc_trim(0);
    }

    CLock m_lock;  // guards everything below
    SpareClass m_class[CLASS_NUM];
    unsigned long long m_lSpareBytes = 0;
    CDataBufferSTLDeque::ClockFun m_pClock = GetNowMilliSecond;
    uint64_t m_lTrimTime = GetNowMilliSecond();
};

// Never destroyed: a block may be freed during the process's exit, after the
// static objects are gone.
CSparePool& SparePool()
{
    static CSparePool* pPool = new CSparePool;
    return *pPool;
}

} // namespace

// ---- the line ----------------------------------------------------------------------

// A line that drains after growing past this many slots gives its slots back.
static const size_t LINE_KEEP_SLOTS = 4096;
static const size_t LINE_FIRST_SLOTS = 16;

void CDataBufferSTLDeque::CBlockLine::push_back(BufferData* pData)
{
    if (m_nCount == m_vecSlot.size()) {
        std::vector<BufferData*> vecSlot(m_vecSlot.empty() ? LINE_FIRST_SLOTS : m_vecSlot.size() * 2);
        for (size_t i = 0; i < m_nCount; ++i) vecSlot[i] = (*this)[i];
        m_vecSlot.swap(vecSlot);
        m_nHead = 0;
    }
    m_vecSlot[(m_nHead + m_nCount) & (m_vecSlot.size() - 1)] = pData;
    ++m_nCount;
}

void CDataBufferSTLDeque::CBlockLine::pop_front()
{
    m_nHead = (m_nHead + 1) & (m_vecSlot.size() - 1);
    if (--m_nCount == 0 && m_vecSlot.size() > LINE_KEEP_SLOTS) clear();
}

void CDataBufferSTLDeque::CBlockLine::erase(size_t nBegin, size_t nEnd)
{
    const size_t nMask = m_vecSlot.size() - 1;
    for (size_t i = nEnd; i < m_nCount; ++i)
        m_vecSlot[(m_nHead + nBegin + i - nEnd) & nMask] = m_vecSlot[(m_nHead + i) & nMask];
    m_nCount -= nEnd - nBegin;
}

void CDataBufferSTLDeque::CBlockLine::clear()
{
    std::vector<BufferData*>().swap(m_vecSlot);
    m_nHead = m_nCount = 0;
}

// ---- the buffer ----------------------------------------------------------------------

CDataBufferSTLDeque::CDataBufferSTLDeque(bool bBlockGet, unsigned int nPacketNumToDel)
    : m_bBlockGet(bBlockGet), m_nPacketNumToDel(nPacketNumToDel)
{
    int ret = m_dataEvent.Init();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CDataBufferSTLDeque::CDataBufferSTLDeque(m_dataEvent init is error, ret: %d)", ret);
        ExitProcess(1);
    }
    // The monotonic clock, so that a wall clock set back neither stretches nor cuts a wait.
    pthread_condattr_t attr;
    ret = pthread_condattr_init(&attr);
    if (ret == 0) ret = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (ret == 0) ret = pthread_cond_init(&m_condData, &attr);
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CDataBufferSTLDeque::CDataBufferSTLDeque(m_condData init is error, ret: %d)", ret);
        ExitProcess(1);
    }
    pthread_condattr_destroy(&attr);
}

CDataBufferSTLDeque::~CDataBufferSTLDeque()
{
    RemoveAll();
    pthread_cond_destroy(&m_condData);
}

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
    // The block is filled outside the lock: no one sees it before it is queued.
    unsigned int nClass = 0;
    BufferData* pData = static_cast<BufferData*>(SparePool().Acquire(sizeof(BufferData) + size_t(nSize), nClass));
    if (pData == nullptr) {
        Log(LOG_LEVEL_WARNING, "CDataBufferSTLDeque::Push(malloc buf is error, malloc size: %u)", nSize);
        return -1;
    }
    pData->nSize = nSize;
    pData->nSpeed = nSpeed;
    pData->nAppend = nAppend;
    pData->nClass = nClass;
    memcpy(pData->Payload(), pBuffer, nSize);
    PushPrivate(pData, nPriority);
    return 0;
}

void* CDataBufferSTLDeque::AllocBlock(unsigned int nCapacity)
{
    if (nCapacity == 0) return nullptr;
    unsigned int nClass = 0;
    BufferData* pData = static_cast<BufferData*>(SparePool().Acquire(sizeof(BufferData) + size_t(nCapacity), nClass));
    if (pData == nullptr) {
        Log(LOG_LEVEL_WARNING, "CDataBufferSTLDeque::AllocBlock(malloc buf is error, malloc size: %u)", nCapacity);
        return nullptr;
    }
    // Until the push, the size field holds what was asked for: a block too big
    // for the pool has no class that would tell its capacity.
    pData->nSize = nCapacity;
    pData->nSpeed = 0;
    pData->nAppend = 0;
    pData->nClass = nClass;
    return pData->Payload();
}

int CDataBufferSTLDeque::PushBlock(void* pBlock, unsigned int nSize, unsigned int nSpeed, int nAppend, int nPriority)
{
    if (pBlock == nullptr || nSize == 0) return -1;
    BufferData* pData = BufferData::FromPayload(pBlock);
    size_t nCapacity = pData->nClass != 0 ? CSparePool::ClassBytes(pData->nClass) - sizeof(BufferData) : pData->nSize;
    if (nSize > nCapacity) {
        Log(LOG_LEVEL_WARNING, "CDataBufferSTLDeque::PushBlock(size is over the block, size: %u, block size: %u)",
            nSize, static_cast<unsigned int>(nCapacity));
        return -1;
    }
    pData->nSize = nSize;
    pData->nSpeed = nSpeed;
    pData->nAppend = nAppend;
    PushPrivate(pData, nPriority);
    return 0;
}

void CDataBufferSTLDeque::PushPrivate(BufferData* pData, int nPriority)
{
    bool bWake, bRaise;
    {
        CAutoLock lock(m_lock);
        QueuePrivate(pData, nPriority == BREL_DATA_NORMAL_PRI);
        bRaise = m_bEventWatched && !m_bEventRaised;
        if (bRaise) m_bEventRaised = true;  // only the push that finds the event down pays for raising it
        bWake = m_nWaiters > 0;
    }
    WakeAfterPush(bWake, bRaise);
}

void CDataBufferSTLDeque::PushBlocks(const BlockItem* pItems, unsigned int nCount, int nPriority)
{
    if (nCount == 0) return;
    bool bWake, bRaise;
    {
        CAutoLock lock(m_lock);
        for (unsigned int i = 0; i < nCount; ++i) {
            BufferData* pData = BufferData::FromPayload(pItems[i].pBlock);
            pData->nSize = pItems[i].nSize;
            pData->nSpeed = pItems[i].nSpeed;
            pData->nAppend = pItems[i].nAppend;
            QueuePrivate(pData, nPriority == BREL_DATA_NORMAL_PRI);
        }
        bRaise = m_bEventWatched && !m_bEventRaised;
        if (bRaise) m_bEventRaised = true;
        bWake = m_nWaiters > 0;
    }
    // Several takers may wait, and there is a block for each of them.
    if (bWake && nCount > 1) {
        pthread_cond_broadcast(&m_condData);
        bWake = false;
    }
    WakeAfterPush(bWake, bRaise);
}

// With the lock held: the block goes to the end of its line.
void CDataBufferSTLDeque::QueuePrivate(BufferData* pData, bool bNormal)
{
    if (bNormal && m_nPacketNumToDel != 0 && m_deDataBuffer.size() >= m_nPacketNumToDel) {
        // Shed the oldest traffic rather than refuse the newest.
        Log(LOG_LEVEL_DEBUG,
            "CDataBufferSTLDeque::Push(now data buf size is over the max size, we remove the first data, now "
            "data buf size: %u)",
            static_cast<unsigned int>(m_deDataBuffer.size()));
        RemovePrivate(0, 1);
    }
    (bNormal ? m_deDataBuffer : m_deDataBufferHiPri).push_back(pData);
    m_lPacketAllSize += pData->nSize;
}

void CDataBufferSTLDeque::WakeAfterPush(bool bWake, bool bRaise)
{
    if (bWake) pthread_cond_signal(&m_condData);
    if (bRaise) RaiseEventUnlocked();
}

// The byte goes in after the lock is released, so that the consumer it wakes
// does not find the lock still held. A take may have emptied the queue and
// lowered the event in between: then the byte is stale and is taken back.
void CDataBufferSTLDeque::RaiseEventUnlocked()
{
    int ret = m_dataEvent.SetEvent();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CDataBufferSTLDeque::Push(m_dataEvent SetEvent is error, ret: %d)", ret);
        ExitProcess(1);
    }
    CAutoLock lock(m_lock);
    if (!m_bEventRaised) m_dataEvent.ClearEvent();
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

void CDataBufferSTLDeque::WakeTaker()
{
    LockOrExit("lock is error 4");
    m_bWakeTaker = true;
    pthread_cond_broadcast(&m_condData);
    UnLockOrExit("unlock is error 4");
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

// With the lock held: waits until a line holds a block or the time is up;
// true when there is a block. 0xFFFFFFFF (any value above INT_MAX) waits for ever.
bool CDataBufferSTLDeque::WaitForData(unsigned int nTimeoutMilliSecond)
{
    timespec tsEnd{};
    bool bForever = static_cast<int>(nTimeoutMilliSecond) < 0;
    if (!bForever) {
        clock_gettime(CLOCK_MONOTONIC, &tsEnd);
        tsEnd.tv_sec += nTimeoutMilliSecond / 1000;
        tsEnd.tv_nsec += static_cast<long>(nTimeoutMilliSecond % 1000) * 1000000L;
        if (tsEnd.tv_nsec >= 1000000000L) {
            tsEnd.tv_nsec -= 1000000000L;
            ++tsEnd.tv_sec;
        }
    }
    // Another consumer may be faster after any wake-up, so the lines are looked at each time.
    while (EmptyPrivate()) {
        if (m_bWakeTaker) {
            m_bWakeTaker = false;
            return false;
        }
        ++m_nWaiters;
        int ret = bForever ? pthread_cond_wait(&m_condData, m_lock.GetMutex())
                           : pthread_cond_timedwait(&m_condData, m_lock.GetMutex(), &tsEnd);
        --m_nWaiters;
        if (ret == ETIMEDOUT) return !EmptyPrivate();
        if (ret != 0) {
            Log(LOG_LEVEL_ERROR, "CDataBufferSTLDeque::Push(m_dataEvent WaitForSingleObject is error, ret: %d)", ret);
            ExitProcess(1);
        }
    }
    return true;
}

void* CDataBufferSTLDeque::GetFrontPrivate(unsigned int& nSize, unsigned int& nSpeed, int& nAppend,
                                           unsigned int nTimeoutMilliSecond, bool bPop)
{
    nSize = nSpeed = 0;
    nAppend = 0;
    LockOrExit("lock is error 1");
    if (EmptyPrivate()) {
        if (!m_bBlockGet || nTimeoutMilliSecond == 0 || !WaitForData(nTimeoutMilliSecond)) {
            // Nothing there: a hand-raised event has been looked at, and is spent.
            LowerEventPrivate();
            UnLockOrExit(m_bBlockGet ? "unlock is error 2" : "unlock is error 1");
            return nullptr;
        }
    }

    CBlockLine& line = m_deDataBufferHiPri.empty() ? m_deDataBuffer : m_deDataBufferHiPri;
    BufferData* pData = line.front();
    nSize = pData->nSize;
    nSpeed = pData->nSpeed;
    nAppend = pData->nAppend;
    if (bPop) {
        m_lPacketAllSize -= pData->nSize;
        line.pop_front();
        // Cleared only by the take that empties the queue, under the lock that
        // pushes take too, so that no push between the two is missed.
        if (EmptyPrivate()) LowerEventPrivate();
    }
    UnLockOrExit("unlock is error 3");
    return pData->Payload();
}

void CDataBufferSTLDeque::RaiseEventPrivate()
{
    if (m_bEventRaised) return;
    int ret = m_dataEvent.SetEvent();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CDataBufferSTLDeque::Push(m_dataEvent SetEvent is error, ret: %d)", ret);
        ExitProcess(1);
    }
    m_bEventRaised = true;
}

void CDataBufferSTLDeque::LowerEventPrivate()
{
    if (!m_bEventRaised) return;
    m_dataEvent.ClearEvent();
    m_bEventRaised = false;
}

int CDataBufferSTLDeque::GetReadableFd()
{
    CAutoLock lock(m_lock);
    m_bEventWatched = true;
    if (!EmptyPrivate()) RaiseEventPrivate();
    return m_dataEvent.GetReadableFd();
}

void CDataBufferSTLDeque::SetEvent()
{
    CAutoLock lock(m_lock);
    RaiseEventPrivate();
}

void CDataBufferSTLDeque::ClearEvent()
{
    CAutoLock lock(m_lock);
    LowerEventPrivate();
}

void CDataBufferSTLDeque::Pop()
{
    CAutoLock lock(m_lock);
    CBlockLine& line = m_deDataBufferHiPri.empty() ? m_deDataBuffer : m_deDataBufferHiPri;
    if (line.empty()) return;
    BufferData* pData = line.front();
    line.pop_front();
    m_lPacketAllSize -= pData->nSize;
    FreePopData(pData->Payload());
    if (EmptyPrivate()) LowerEventPrivate();
}

void CDataBufferSTLDeque::FreePopData(void* pBuffer)
{
    if (pBuffer == nullptr) return;
    BufferData* pData = BufferData::FromPayload(pBuffer);
    SparePool().Release(pData, pData->nClass);
}

int CDataBufferSTLDeque::RemovePrivate(unsigned int nBeginPos, unsigned int nEndPos)
{
    // The range test is strict on both ends, so a line of one block never
    // loses it: with a limit of 1 the line settles at two blocks.
    unsigned int n = static_cast<unsigned int>(m_deDataBuffer.size());
    if (!(nBeginPos < n && nEndPos < n && nBeginPos <= nEndPos)) return -1;
    for (unsigned int i = nBeginPos; i < nEndPos; ++i) {
        m_lPacketAllSize -= m_deDataBuffer[i]->nSize;
        FreePopData(m_deDataBuffer[i]->Payload());
    }
    m_deDataBuffer.erase(nBeginPos, nEndPos);
    return 0;
}

void CDataBufferSTLDeque::RemoveAll()
{
    CAutoLock lock(m_lock);
    for (CBlockLine* pLine : {&m_deDataBufferHiPri, &m_deDataBuffer}) {
        for (size_t i = 0; i < pLine->size(); ++i) FreePopData((*pLine)[i]->Payload());
        pLine->clear();
    }
    m_lPacketAllSize = 0;
    // Nothing is left to look at.
    LowerEventPrivate();
}

bool CDataBufferSTLDeque::Empty()
{
    CAutoLock lock(m_lock);
    return EmptyPrivate();
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

unsigned long long CDataBufferSTLDeque::GetSpareBytes() { return SparePool().GetSpareBytes(); }

void CDataBufferSTLDeque::SetSpareClock(ClockFun pClock) { SparePool().SetClock(pClock); }

} // namespace brel_lib
