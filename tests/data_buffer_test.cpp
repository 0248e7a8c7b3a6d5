// The block queue between threads: priorities, limits, the readable event, waits and the spare pool.
#include "data_buffer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "util.h"

using namespace brel_lib;

namespace {

std::string TakeString(CDataBufferSTLDeque& buf, unsigned int nTimeout = 0)
{
    unsigned int nSize = 0;
    char* p = static_cast<char*>(buf.GetFrontAndPop(nSize, nTimeout));
    if (p == nullptr) return "<null>";
    std::string str(p, nSize);
    CDataBufferSTLDeque::FreePopData(p);
    return str;
}

// Whether the event's descriptor reports readable now, as an epoll set would see it.
bool Readable(int fd)
{
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

TEST(DataBuffer, HighPriorityFirstOrderWithinALineAndWhatABlockCarries)
{
    CDataBufferSTLDeque buf(false, 0);
    EXPECT_EQ(buf.Push(nullptr, 5, BREL_DATA_NORMAL_PRI), -1);  // empty pushes are refused silently
    EXPECT_EQ(buf.Push("x", 0, BREL_DATA_NORMAL_PRI), -1);
    EXPECT_FALSE(Readable(buf.GetReadableFd()));
    buf.Push("n1", 2, BREL_DATA_NORMAL_PRI);
    buf.Push("n2", 2, BREL_DATA_NORMAL_PRI);
    buf.Push("h1", 2, BREL_DATA_HIGH_PRI);
    buf.Push("h2", 2, -5);  // anything but NORMAL is high
    buf.Push("h3", 2, 7);
    EXPECT_EQ(buf.GetDataNum(), 5u);
    EXPECT_EQ(buf.GetDataSize(), 10u);
    for (const char* sz : {"h1", "h2", "h3", "n1", "n2"}) EXPECT_EQ(TakeString(buf), sz);
    EXPECT_EQ(TakeString(buf, 1000), "<null>");  // non-blocking: at once
    EXPECT_EQ(buf.GetDataSize(), 0u);

    // A block carries its speed and append; a peek leaves it.
    buf.Push3("abc", 3, 1234, -9, BREL_DATA_NORMAL_PRI);
    unsigned int nSize = 1, nSpeed = 1;
    int nAppend = 1;
    void* p = buf.GetFront3(nSize, nSpeed, nAppend, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(nSize, 3u);
    EXPECT_EQ(nSpeed, 1234u);
    EXPECT_EQ(nAppend, -9);
    EXPECT_EQ(buf.GetDataNum(), 1u);
    buf.Pop();
    EXPECT_TRUE(buf.Empty());
    p = buf.GetFrontAndPop3(nSize, nSpeed, nAppend, 0);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(nSize, 0u);
    EXPECT_EQ(nSpeed, 0u);
    EXPECT_EQ(nAppend, 0);
    CDataBufferSTLDeque::FreePopData(nullptr);
}

TEST(DataBuffer, DropsTheOldestAtTheLimit)
{
    CDataBufferSTLDeque buf(false, 2000);
    for (int i = 0; i < 2001; ++i) {
        std::string str = std::to_string(i);
        buf.Push(str.data(), static_cast<unsigned int>(str.size()), BREL_DATA_NORMAL_PRI);
    }
    EXPECT_EQ(buf.GetDataNum(), 2000u);
    buf.Push("hi", 2, BREL_DATA_HIGH_PRI);  // never dropped, not counted
    buf.Push("2001", 4, BREL_DATA_NORMAL_PRI);
    EXPECT_EQ(buf.GetDataNum(), 2001u);
    EXPECT_EQ(TakeString(buf), "hi");
    EXPECT_EQ(TakeString(buf), "2");  // "0" and "1" were dropped

    CDataBufferSTLDeque one(false, 1);  // a limit of one settles at two
    for (const char* sz : {"a", "b", "c", "d"}) one.Push(sz, 1, BREL_DATA_NORMAL_PRI);
    EXPECT_EQ(one.GetDataNum(), 2u);
    EXPECT_EQ(TakeString(one), "c");
}

TEST(DataBuffer, EventIsRaisedWhileTheQueueHoldsBlocks)
{
    CDataBufferSTLDeque buf(false, 0);
    buf.Push("a", 1, BREL_DATA_NORMAL_PRI);
    int fd = buf.GetReadableFd();
    EXPECT_TRUE(Readable(fd));  // a block pushed before the first look counts too
    for (const char* sz : {"b", "c"}) buf.Push(sz, 1, BREL_DATA_NORMAL_PRI);
    EXPECT_EQ(TakeString(buf), "a");
    EXPECT_TRUE(Readable(fd));  // level: stays while blocks remain
    EXPECT_EQ(TakeString(buf), "b");
    EXPECT_TRUE(Readable(fd));
    EXPECT_EQ(TakeString(buf), "c");
    EXPECT_FALSE(Readable(fd));  // the take that empties the queue clears it

    // A hand-raised event on an empty queue wakes a consumer once: its take finds nothing and spends it.
    buf.SetEvent();
    EXPECT_TRUE(Readable(fd));
    EXPECT_EQ(TakeString(buf), "<null>");
    EXPECT_FALSE(Readable(fd));

    // A hand-cleared event comes back with the next push, and a peek leaves it.
    buf.Push("d", 1, BREL_DATA_HIGH_PRI);
    buf.ClearEvent();
    buf.Push("e", 1, BREL_DATA_NORMAL_PRI);
    EXPECT_TRUE(Readable(fd));
    unsigned int nSize = 0;
    EXPECT_NE(buf.GetFront(nSize, 0), nullptr);
    buf.Pop();
    EXPECT_TRUE(Readable(fd));
    buf.RemoveAll();
    EXPECT_FALSE(Readable(fd));  // nothing left to look at
    EXPECT_EQ(buf.GetDataSize(), 0u);
}

// A consumer polling the descriptor and taking until null never misses a block, and is rarely
// woken for an empty queue: a byte left behind for good would wake it on every poll.
TEST(DataBuffer, NoWakeUpIsLostWhileAConsumerEmptiesTheQueue)
{
    CDataBufferSTLDeque buf(false, 0);
    const int nBlocks = 20000;
    int fd = buf.GetReadableFd();
    std::atomic<int> nTaken{0};
    int nEmptyWakeUps = 0, nTimedOut = 0;
    std::thread consumer([&] {
        while (nTaken < nBlocks) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 5000) != 1) {  // bounded: a lost wake-up fails, it does not hang
                ++nTimedOut;
                break;
            }
            int nThisWake = 0;
            while (true) {
                unsigned int nSize = 0;
                void* pData = buf.GetFrontAndPop(nSize, 0);
                if (pData == nullptr) break;
                CDataBufferSTLDeque::FreePopData(pData);
                ++nThisWake;
                ++nTaken;
            }
            if (nThisWake == 0) ++nEmptyWakeUps;
        }
    });
    unsigned int nSeed = 7;
    for (int i = 0; i < nBlocks;) {
        nSeed = nSeed * 1103515245 + 12345;
        for (int n = 1 + (nSeed >> 16) % 8; n > 0 && i < nBlocks; --n, ++i) buf.Push(&i, sizeof(i), BREL_DATA_NORMAL_PRI);
        if ((nSeed >> 8) % 4 == 0) std::this_thread::yield();
    }
    consumer.join();
    EXPECT_EQ(nTimedOut, 0);
    EXPECT_EQ(nTaken, nBlocks);
    EXPECT_LT(nEmptyWakeUps, nBlocks / 20);
    EXPECT_FALSE(Readable(fd));
}

// A wake-up for the taker's flags ends its next wait once, whether asked before or during it.
TEST(DataBuffer, BlockingTakeTimesOutAndWakesForABlockOrAWakeUp)
{
    CDataBufferSTLDeque buf(true, 0);
    EXPECT_EQ(TakeString(buf, 0), "<null>");
    buf.WakeTaker();
    EXPECT_EQ(TakeString(buf, 3600 * 1000), "<null>");
    std::thread waker([&] {
        Sleep(30);
        buf.WakeTaker();
    });
    EXPECT_EQ(TakeString(buf, 3600 * 1000), "<null>");
    waker.join();
    buf.Push("kept", 4, BREL_DATA_NORMAL_PRI);
    buf.WakeTaker();
    EXPECT_EQ(TakeString(buf, 3600 * 1000), "kept");
    EXPECT_EQ(TakeString(buf, 3600 * 1000), "<null>");  // the wake-up waited for this take
    uint64_t lStart = GetNowMilliSecond();
    EXPECT_EQ(TakeString(buf, 60), "<null>");
    EXPECT_GE(GetNowMilliSecond() - lStart, 55u);  // and was spent

    std::thread producer([&] {
        Sleep(30);
        buf.Push("late", 4, BREL_DATA_NORMAL_PRI);
    });
    EXPECT_EQ(TakeString(buf, 5000), "late");
    producer.join();
}

// Three takers wait without end; pushing three blocks "x" must wake each of them.
void ExpectEveryWaitingTakerWoken(CDataBufferSTLDeque& buf, const std::function<void(int)>& pushX)
{
    const int nTakers = 3;
    std::atomic<int> nWoken{0};
    std::vector<std::thread> takers;
    for (int i = 0; i < nTakers; ++i) {
        takers.emplace_back([&] {
            if (TakeString(buf, 0xFFFFFFFF) == "x") ++nWoken;
        });
    }
    Sleep(50);  // let them wait; the check holds whether or not they all did
    pushX(nTakers);
    uint64_t lDeadline = GetNowMilliSecond() + 10000;
    while (nWoken < nTakers && GetNowMilliSecond() < lDeadline) Sleep(5);
    EXPECT_EQ(nWoken, nTakers);
    // Release any taker a lost wake-up left behind, so that the test ends.
    for (int i = nWoken; i < nTakers; ++i) buf.Push("y", 1, BREL_DATA_NORMAL_PRI);
    for (auto& t : takers) t.join();
}

TEST(DataBuffer, EveryWaitingTakerWakesForAPush)
{
    CDataBufferSTLDeque buf(true, 0);
    ExpectEveryWaitingTakerWoken(buf, [&](int n) {
        for (int i = 0; i < n; ++i) buf.Push("x", 1, BREL_DATA_NORMAL_PRI);
    });
}

// The line is a ring: order holds when it grows while wrapped and when the limit drops from it.
TEST(DataBuffer, OrderSurvivesAWrappedLineGrowing)
{
    CDataBufferSTLDeque buf(false, 40);
    int nNext = 0, nExpect = 0;
    auto push = [&](int n) {
        for (; n > 0; --n, ++nNext) buf.Push(&nNext, sizeof(nNext), BREL_DATA_NORMAL_PRI);
    };
    auto take = [&](int n) {
        for (; n > 0; --n, ++nExpect) {
            unsigned int nSize = 0;
            void* p = buf.GetFrontAndPop(nSize, 0);
            ASSERT_NE(p, nullptr);
            int nGot;
            memcpy(&nGot, p, sizeof(nGot));
            EXPECT_EQ(nGot, nExpect);
            CDataBufferSTLDeque::FreePopData(p);
        }
    };
    push(10);
    take(7);
    push(30);  // wraps, then grows while wrapped
    take(3);
    push(20);  // 50 would stand in line: the 10 oldest are dropped
    EXPECT_EQ(buf.GetDataNum(), 40u);
    nExpect += 10;
    take(40);
    EXPECT_TRUE(buf.Empty());
}

uint64_t g_lFakeNow = 0;
uint64_t FakeClock() { return g_lFakeNow; }

void PushTakeFree(CDataBufferSTLDeque& buf, unsigned int nSize, int nTimes = 1)
{
    std::vector<void*> vecTaken;
    std::vector<char> block(nSize, 'z');
    for (int i = 0; i < nTimes; ++i) buf.Push(block.data(), nSize, BREL_DATA_NORMAL_PRI);
    for (int i = 0; i < nTimes; ++i) {
        unsigned int nGot = 0;
        vecTaken.push_back(buf.GetFrontAndPop(nGot, 0));
        ASSERT_NE(vecTaken.back(), nullptr);
        ASSERT_EQ(nGot, nSize);
    }
    for (void* p : vecTaken) CDataBufferSTLDeque::FreePopData(p);
}

// Freed blocks are kept for the next push of their size class, within a bound, and given
// back when no push needed them for an idle period.
TEST(DataBuffer, SparePoolReusesBoundsAndGivesBack)
{
    g_lFakeNow = 1000000;
    CDataBufferSTLDeque::SetSpareClock(FakeClock);
    CDataBufferSTLDeque buf(false, 0);
    unsigned long long lBase = CDataBufferSTLDeque::GetSpareBytes();

    PushTakeFree(buf, 4096);
    unsigned long long lOne = CDataBufferSTLDeque::GetSpareBytes() - lBase;
    EXPECT_GE(lOne, 4096u);
    EXPECT_LE(lOne, 4096u * 5 / 4 + 64);
    std::vector<char> block(5000, 'q');  // the same size class: the spare block is taken
    buf.Push(block.data(), 5000, BREL_DATA_NORMAL_PRI);
    EXPECT_EQ(CDataBufferSTLDeque::GetSpareBytes(), lBase);
    PushTakeFree(buf, 4096, 0);
    buf.RemoveAll();
    EXPECT_EQ(CDataBufferSTLDeque::GetSpareBytes(), lBase + lOne);

    // Bounded: a burst of 40 blocks of 512 KiB keeps no more than the pool's limit.
    PushTakeFree(buf, 512 * 1024, 40);
    EXPECT_GT(CDataBufferSTLDeque::GetSpareBytes(), lBase + lOne);
    EXPECT_LE(CDataBufferSTLDeque::GetSpareBytes(), CDataBufferSTLDeque::SPARE_MAX_BYTES);
    // Too big to keep.
    unsigned long long lBefore = CDataBufferSTLDeque::GetSpareBytes();
    PushTakeFree(buf, 5u << 20);
    EXPECT_EQ(CDataBufferSTLDeque::GetSpareBytes(), lBefore);

    // Only the 4 KiB class stays in use across idle periods and keeps its block.
    for (int nPeriod = 0; nPeriod < 3; ++nPeriod) {
        g_lFakeNow += CDataBufferSTLDeque::SPARE_IDLE_MILLISECOND;
        PushTakeFree(buf, 4096);
    }
    EXPECT_EQ(CDataBufferSTLDeque::GetSpareBytes(), lOne);
    // A clock set back trims nothing early.
    PushTakeFree(buf, 10);
    g_lFakeNow += CDataBufferSTLDeque::SPARE_IDLE_MILLISECOND;
    PushTakeFree(buf, 4096);
    g_lFakeNow -= 100000;
    PushTakeFree(buf, 4096);
    g_lFakeNow += CDataBufferSTLDeque::SPARE_IDLE_MILLISECOND - 1;
    PushTakeFree(buf, 4096);
    EXPECT_GT(CDataBufferSTLDeque::GetSpareBytes(), lOne);
    CDataBufferSTLDeque::SetSpareClock(nullptr);
}

#if defined(__SANITIZE_ADDRESS__)
// Keeping freed blocks must hide neither a use after FreePopData nor a second free (which
// would hand one block to two owners through the pool) from AddressSanitizer.
TEST(DataBufferDeathTest, UseAfterFreeAndDoubleFreeStillShow)
{
    EXPECT_DEATH(
        {
            CDataBufferSTLDeque buf(false, 0);
            buf.Push("gone soon", 9, BREL_DATA_NORMAL_PRI);
            unsigned int nSize = 0;
            char* p = static_cast<char*>(buf.GetFrontAndPop(nSize, 0));
            CDataBufferSTLDeque::FreePopData(p);
            volatile char c = p[4];
            (void)c;
        },
        "use-after-poison");
    EXPECT_DEATH(
        {
            void* p = CDataBufferSTLDeque::AllocBlock(100);
            CDataBufferSTLDeque::FreePopData(p);
            CDataBufferSTLDeque::FreePopData(p);
        },
        "use-after-poison");
}
#endif

// A block built in place travels as it is: the taker gets the very block.
TEST(DataBuffer, BlockBuiltInPlaceIsQueuedWithoutACopy)
{
    CDataBufferSTLDeque buf(false, 0);
    EXPECT_EQ(CDataBufferSTLDeque::AllocBlock(0), nullptr);
    char* p = static_cast<char*>(CDataBufferSTLDeque::AllocBlock(1000));
    ASSERT_NE(p, nullptr);
    memset(p, 'b', 1000);
    // Refused: nothing, no bytes, more than the block holds. The block stays the caller's.
    EXPECT_EQ(buf.PushBlock(nullptr, 10, 0, 1, BREL_DATA_NORMAL_PRI), -1);
    EXPECT_EQ(buf.PushBlock(p, 0, 0, 1, BREL_DATA_NORMAL_PRI), -1);
    EXPECT_EQ(buf.PushBlock(p, 1u << 20, 0, 1, BREL_DATA_NORMAL_PRI), -1);
    EXPECT_TRUE(buf.Empty());
    ASSERT_EQ(buf.PushBlock(p, 600, 77, 9, BREL_DATA_NORMAL_PRI), 0);
    buf.Push("first", 5, BREL_DATA_HIGH_PRI);
    EXPECT_EQ(buf.GetDataSize(), 605u);
    EXPECT_EQ(TakeString(buf), "first");  // priorities hold for blocks built in place too
    unsigned int nSize = 0, nSpeed = 0;
    int nAppend = 0;
    EXPECT_EQ(buf.GetFrontAndPop3(nSize, nSpeed, nAppend, 0), p);
    EXPECT_EQ(nSize, 600u);
    EXPECT_EQ(nSpeed, 77u);
    EXPECT_EQ(nAppend, 9);
    EXPECT_EQ(std::string(p, 600), std::string(600, 'b'));
    CDataBufferSTLDeque::FreePopData(p);

    // Above the pool's largest class the block knows only the size asked for.
    const unsigned int nBig = 5u << 20;
    char* pBig = static_cast<char*>(CDataBufferSTLDeque::AllocBlock(nBig));
    ASSERT_NE(pBig, nullptr);
    EXPECT_EQ(buf.PushBlock(pBig, nBig + 1, 0, 1, BREL_DATA_NORMAL_PRI), -1);
    pBig[nBig - 1] = 'e';
    ASSERT_EQ(buf.PushBlock(pBig, nBig, 0, 1, BREL_DATA_NORMAL_PRI), 0);
    EXPECT_EQ(buf.GetFrontAndPop(nSize, 0), pBig);
    EXPECT_EQ(pBig[nBig - 1], 'e');
    CDataBufferSTLDeque::FreePopData(pBig);

    // A block never queued goes back as any other.
    CDataBufferSTLDeque::FreePopData(CDataBufferSTLDeque::AllocBlock(300));

    // A block may outlive the buffer that handed it over (a connection's send data).
    {
        CDataBufferSTLDeque gone(true, 0);
        gone.Push("left", 4, BREL_DATA_NORMAL_PRI);
        gone.Push("freed at the end", 16, BREL_DATA_NORMAL_PRI);
        p = static_cast<char*>(gone.GetFrontAndPop(nSize, 0));
    }
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(memcmp(p, "left", 4), 0);
    CDataBufferSTLDeque::FreePopData(p);
}

// Several blocks at once: in order, under the limit, and every waiting taker woken.
TEST(DataBuffer, BlocksQueuedTogetherKeepOrderLimitAndWakeTakers)
{
    CDataBufferSTLDeque buf(true, 3);
    int fd = buf.GetReadableFd();
    std::vector<CDataBufferSTLDeque::BlockItem> items;
    for (int i = 0; i < 5; ++i) {
        char* p = static_cast<char*>(CDataBufferSTLDeque::AllocBlock(16));
        p[0] = static_cast<char>('a' + i);
        items.push_back({p, 1, 0, i});
    }
    buf.PushBlocks(items.data(), static_cast<unsigned int>(items.size()), BREL_DATA_NORMAL_PRI);
    EXPECT_TRUE(Readable(fd));
    // The limit of 3 sheds the oldest as single pushes do (and frees them).
    EXPECT_EQ(TakeString(buf), "c");
    EXPECT_EQ(TakeString(buf), "d");
    EXPECT_EQ(TakeString(buf), "e");
    EXPECT_FALSE(Readable(fd));
    buf.PushBlocks(nullptr, 0, BREL_DATA_NORMAL_PRI);
    EXPECT_TRUE(buf.Empty());

    ExpectEveryWaitingTakerWoken(buf, [&](int n) {
        std::vector<CDataBufferSTLDeque::BlockItem> vecX;
        for (int i = 0; i < n; ++i) {
            char* p = static_cast<char*>(CDataBufferSTLDeque::AllocBlock(8));
            p[0] = 'x';
            vecX.push_back({p, 1, 0, 0});
        }
        buf.PushBlocks(vecX.data(), static_cast<unsigned int>(n), BREL_DATA_NORMAL_PRI);
    });
}

TEST(DataBuffer, ManyProducersAndConsumersLoseNothing)
{
    CDataBufferSTLDeque buf(true, 0);
    const int nProducers = 3, nPerProducer = 2000;
    std::atomic<int> nTaken{0};
    std::atomic<long long> lSum{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < 2; ++c) {
        threads.emplace_back([&] {
            // Bounded: a lost block must fail the test, not hang it.
            uint64_t lDeadline = GetNowMilliSecond() + 20000;
            while (nTaken < nProducers * nPerProducer && GetNowMilliSecond() < lDeadline) {
                unsigned int nSize = 0;
                void* p = buf.GetFrontAndPop(nSize, 20);
                if (p == nullptr) continue;
                int n;
                memcpy(&n, p, sizeof(n));
                lSum += n;
                ++nTaken;
                CDataBufferSTLDeque::FreePopData(p);
            }
        });
    }
    for (int pIdx = 0; pIdx < nProducers; ++pIdx) {
        threads.emplace_back([&] {
            for (int i = 1; i <= nPerProducer; ++i) buf.Push(&i, sizeof(i), BREL_DATA_NORMAL_PRI);
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(nTaken, nProducers * nPerProducer);
    EXPECT_EQ(lSum, 1LL * nProducers * nPerProducer * (nPerProducer + 1) / 2);
    EXPECT_TRUE(buf.Empty());
}

} // namespace
