#include "data_buffer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>

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

TEST(DataBuffer, RejectsEmptyPushesSilently)
{
    CDataBufferSTLDeque buf(false, 0);
    EXPECT_EQ(buf.Push(nullptr, 5, BREL_DATA_NORMAL_PRI), -1);
    EXPECT_EQ(buf.Push("x", 0, BREL_DATA_NORMAL_PRI), -1);
    EXPECT_TRUE(buf.Empty());
    EXPECT_FALSE(Readable(buf.GetReadableFd()));
}

TEST(DataBuffer, HighPriorityFirstAndOrderWithinALine)
{
    CDataBufferSTLDeque buf(false, 0);
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
}

TEST(DataBuffer, CarriesSpeedAndAppend)
{
    CDataBufferSTLDeque buf(false, 0);
    buf.Push3("abc", 3, 1234, -9, BREL_DATA_NORMAL_PRI);
    unsigned int nSize = 1, nSpeed = 1;
    int nAppend = 1;
    void* p = buf.GetFront3(nSize, nSpeed, nAppend, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(nSize, 3u);
    EXPECT_EQ(nSpeed, 1234u);
    EXPECT_EQ(nAppend, -9);
    EXPECT_EQ(buf.GetDataNum(), 1u);  // a peek leaves it
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
}

TEST(DataBuffer, LimitOfOneSettlesAtTwo)
{
    CDataBufferSTLDeque buf(false, 1);
    for (const char* sz : {"a", "b", "c", "d"}) buf.Push(sz, 1, BREL_DATA_NORMAL_PRI);
    EXPECT_EQ(buf.GetDataNum(), 2u);
    EXPECT_EQ(TakeString(buf), "c");
}

TEST(DataBuffer, EventFollowsPushesAndTakes)
{
    CDataBufferSTLDeque buf(false, 0);
    int fd = buf.GetReadableFd();
    for (const char* sz : {"a", "b", "c"}) buf.Push(sz, 1, BREL_DATA_NORMAL_PRI);
    EXPECT_TRUE(Readable(fd));
    EXPECT_EQ(TakeString(buf), "a");
    EXPECT_EQ(buf.GetDataNum(), 2u);
    EXPECT_FALSE(Readable(fd));  // cleared although blocks remain
    buf.SetEvent();
    EXPECT_TRUE(Readable(fd));
    buf.RemoveAll();
    EXPECT_TRUE(Readable(fd));  // RemoveAll leaves the event alone
    EXPECT_EQ(buf.GetDataSize(), 0u);
}

TEST(DataBuffer, BlockingTakeTimesOutAndWakesAcrossThreads)
{
    CDataBufferSTLDeque buf(true, 0);
    EXPECT_EQ(TakeString(buf, 0), "<null>");
    uint64_t lStart = GetNowMilliSecond();
    EXPECT_EQ(TakeString(buf, 60), "<null>");
    EXPECT_GE(GetNowMilliSecond() - lStart, 55u);

    std::thread producer([&] {
        Sleep(30);
        buf.Push("late", 4, BREL_DATA_NORMAL_PRI);
    });
    EXPECT_EQ(TakeString(buf, 5000), "late");
    producer.join();
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
