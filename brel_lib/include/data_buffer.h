// The queue of byte blocks between threads: a high-priority line served first
// and a normal line that may drop its oldest block at a limit. A push copies;
// a take hands over the block itself, freed later with FreePopData. A
// producer that can build its data in place takes a block with AllocBlock
// and queues it with PushBlock, which copies nothing.
//
// The event's descriptor is readable while the queue holds a block: raised by
// the push that finds the queue empty, cleared by the take that empties it, so
// that a busy consumer costs no system call. A blocking take waits on a
// condition variable. Freed blocks go to a bounded process-wide spare pool in
// size classes, so that a steady flow allocates nothing.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <vector>

#include "log.h"
#include "thread.h"

namespace brel_lib {

enum { BREL_DATA_HIGH_PRI = 0, BREL_DATA_NORMAL_PRI = 1 };

class CDataBufferSTLDeque {
public:
    typedef uint64_t (*ClockFun)();
    // The spare pool keeps at most this many bytes of freed blocks.
    static constexpr unsigned long long SPARE_MAX_BYTES = 8ULL << 20;
    // Spare blocks that no push needed for this long are given back.
    static constexpr unsigned int SPARE_IDLE_MILLISECOND = 10000;

    // bBlockGet: takes may wait. nPacketNumToDel: limit of the normal line, 0 for none.
    CDataBufferSTLDeque(bool bBlockGet, unsigned int nPacketNumToDel);
    ~CDataBufferSTLDeque();
    CDataBufferSTLDeque(const CDataBufferSTLDeque&) = delete;
    CDataBufferSTLDeque& operator=(const CDataBufferSTLDeque&) = delete;

    // Copy nSize bytes into a new block; 0, or -1 for no data or no memory.
    // Only BREL_DATA_NORMAL_PRI selects the normal line.
    int Push(const void* pBuffer, unsigned int nSize, int nPriority);
    int Push2(const void* pBuffer, unsigned int nSize, int nAppend, int nPriority);
    int Push3(const void* pBuffer, unsigned int nSize, unsigned int nSpeed, int nAppend, int nPriority);

    // A block for at least nCapacity bytes, filled by the caller and then
    // queued with PushBlock, or given back with FreePopData. Any thread; null
    // for 0 or no memory.
    static void* AllocBlock(unsigned int nCapacity);
    // Queues a block from AllocBlock holding nSize bytes, without a copy; the
    // queue owns it from then on. On -1 (null, 0 bytes, more than the block
    // holds) the block stays the caller's.
    int PushBlock(void* pBlock, unsigned int nSize, unsigned int nSpeed, int nAppend, int nPriority);
    // Several blocks from AllocBlock at once, in order, under one lock and
    // with one wake-up of a waiting taker. Every block must be valid (a
    // payload of 1 to its capacity bytes); the queue owns them all after.
    struct BlockItem {
        void* pBlock;
        unsigned int nSize;
        unsigned int nSpeed;
        int nAppend;
    };
    void PushBlocks(const BlockItem* pItems, unsigned int nCount, int nPriority);

    // Peek at the first block (owned by the queue until Pop); null if none.
    void* GetFront(unsigned int& nSize, unsigned int nTimeoutMilliSecond);
    void* GetFront2(unsigned int& nSize, int& nAppend, unsigned int nTimeoutMilliSecond);
    void* GetFront3(unsigned int& nSize, unsigned int& nSpeed, int& nAppend, unsigned int nTimeoutMilliSecond);
    // Take the first block; the caller owns it and gives it to FreePopData.
    void* GetFrontAndPop(unsigned int& nSize, unsigned int nTimeoutMilliSecond);
    void* GetFrontAndPop2(unsigned int& nSize, int& nAppend, unsigned int nTimeoutMilliSecond);
    void* GetFrontAndPop3(unsigned int& nSize, unsigned int& nSpeed, int& nAppend, unsigned int nTimeoutMilliSecond);

    // Any thread: the next (or the current) blocking take returns at once, with a
    // block if one is there and null if not; kept until a take waits. Wakes the
    // consumer for its run flag or its deadlines.
    void WakeTaker();

    void Pop();
    // Any thread, also after the buffer that gave the block is gone.
    static void FreePopData(void* pBuffer);
    void RemoveAll();
    bool Empty();
    unsigned int GetDataNum();
    unsigned long long GetDataSize();

    // Readable while the queue holds a block, for a consumer's epoll set
    // (level-triggered). The event follows the queue from the first call on.
    int GetReadableFd();
    // Raise and clear by hand. A take that finds the queue empty clears a
    // hand-raised event, so that a stale one wakes a consumer only once.
    void SetEvent();
    void ClearEvent();

    // The spare pool, for diagnostics and tests: bytes held, and its clock.
    static unsigned long long GetSpareBytes();
    static void SetSpareClock(ClockFun pClock);

private:
    struct BufferData;

    // A first-in first-out line of block pointers in a ring that keeps its
    // slots, so that a steady flow allocates nothing.
    class CBlockLine {
    public:
        bool empty() const { return m_nCount == 0; }
        size_t size() const { return m_nCount; }
        BufferData* front() const { return m_vecSlot[m_nHead]; }
        BufferData* operator[](size_t i) const { return m_vecSlot[(m_nHead + i) & (m_vecSlot.size() - 1)]; }
        void push_back(BufferData* pData);
        void pop_front();
        void erase(size_t nBegin, size_t nEnd);  // positions [nBegin, nEnd)
        void clear();

    private:
        std::vector<BufferData*> m_vecSlot;  // a power of two in size, or empty
        size_t m_nHead = 0;
        size_t m_nCount = 0;
    };

    void* GetFrontPrivate(unsigned int& nSize, unsigned int& nSpeed, int& nAppend,
                          unsigned int nTimeoutMilliSecond, bool bPop);
    bool WaitForData(unsigned int nTimeoutMilliSecond);
    void PushPrivate(BufferData* pData, int nPriority);
    void QueuePrivate(BufferData* pData, bool bNormal);
    void WakeAfterPush(bool bWake, bool bRaise);
    int RemovePrivate(unsigned int nBeginPos, unsigned int nEndPos);
    bool EmptyPrivate() const { return m_deDataBufferHiPri.empty() && m_deDataBuffer.empty(); }
    void RaiseEventPrivate();
    void RaiseEventUnlocked();
    void LowerEventPrivate();
    void LockOrExit(const char* szText);
    void UnLockOrExit(const char* szText);

    // All fields below but the constants are guarded by m_lock, which any
    // thread may take; the spare pool's lock is taken inside it, never around it.
    CBlockLine m_deDataBuffer;
    CBlockLine m_deDataBufferHiPri;
    CLock m_lock;
    pthread_cond_t m_condData;   // signalled by a push while takers wait
    CEvent m_dataEvent;          // its pipe holds a byte while m_bEventRaised (or one about to be taken back)
    bool m_bEventRaised = false;
    bool m_bEventWatched = false;  // set by GetReadableFd: pushes raise the event from then on
    unsigned int m_nWaiters = 0;   // takers inside the condition wait
    bool m_bWakeTaker = false;     // set by WakeTaker, taken by the next blocking take
    const bool m_bBlockGet;
    const unsigned int m_nPacketNumToDel;
    unsigned long long m_lPacketAllSize = 0;
};

} // namespace brel_lib
