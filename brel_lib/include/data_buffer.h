// The queue of byte blocks between threads: a high-priority line served first
// and a normal line that may drop its oldest block at a limit. A push copies;
// a take hands over the block itself, freed later with FreePopData.
#pragma once

#include <deque>

#include "log.h"
#include "thread.h"

namespace brel_lib {

enum { BREL_DATA_HIGH_PRI = 0, BREL_DATA_NORMAL_PRI = 1 };

class CDataBufferSTLDeque {
public:
    // bBlockGet: takes may wait on the event. nPacketNumToDel: limit of the
    // normal line, 0 for none.
    CDataBufferSTLDeque(bool bBlockGet, unsigned int nPacketNumToDel);
    ~CDataBufferSTLDeque();
    CDataBufferSTLDeque(const CDataBufferSTLDeque&) = delete;
    CDataBufferSTLDeque& operator=(const CDataBufferSTLDeque&) = delete;

    // Copy nSize bytes into a new block; 0, or -1 for no data or no memory.
    // Only BREL_DATA_NORMAL_PRI selects the normal line.
    int Push(const void* pBuffer, unsigned int nSize, int nPriority);
    int Push2(const void* pBuffer, unsigned int nSize, int nAppend, int nPriority);
    int Push3(const void* pBuffer, unsigned int nSize, unsigned int nSpeed, int nAppend, int nPriority);

    // Peek at the first block (owned by the queue until Pop); null if none.
    void* GetFront(unsigned int& nSize, unsigned int nTimeoutMilliSecond);
    void* GetFront2(unsigned int& nSize, int& nAppend, unsigned int nTimeoutMilliSecond);
    void* GetFront3(unsigned int& nSize, unsigned int& nSpeed, int& nAppend, unsigned int nTimeoutMilliSecond);
    // Take the first block; the caller owns it and gives it to FreePopData.
    void* GetFrontAndPop(unsigned int& nSize, unsigned int nTimeoutMilliSecond);
    void* GetFrontAndPop2(unsigned int& nSize, int& nAppend, unsigned int nTimeoutMilliSecond);
    void* GetFrontAndPop3(unsigned int& nSize, unsigned int& nSpeed, int& nAppend, unsigned int nTimeoutMilliSecond);

    void Pop();
    static void FreePopData(void* pBuffer);
    void RemoveAll();
    bool Empty();
    unsigned int GetDataNum();
    unsigned long long GetDataSize();

    // The event says "look into the queue", not "the queue holds data".
    int GetReadableFd() const { return m_dataEvent.GetReadableFd(); }
    void SetEvent() { m_dataEvent.SetEvent(); }
    void ClearEvent() { m_dataEvent.ClearEvent(); }

private:
    struct BufferData;

    void* GetFrontPrivate(unsigned int& nSize, unsigned int& nSpeed, int& nAppend,
                          unsigned int nTimeoutMilliSecond, bool bPop);
    int RemovePrivate(unsigned int nBeginPos, unsigned int nEndPos);
    void LockOrExit(const char* szText);
    void UnLockOrExit(const char* szText);

    // All fields below are guarded by m_lock; the event is thread-safe by itself.
    std::deque<BufferData*> m_deDataBuffer;
    std::deque<BufferData*> m_deDataBufferHiPri;
    CLock m_lock;
    CEvent m_dataEvent;
    const bool m_bBlockGet;
    const unsigned int m_nPacketNumToDel;
    unsigned long long m_lPacketAllSize = 0;
};

} // namespace brel_lib
