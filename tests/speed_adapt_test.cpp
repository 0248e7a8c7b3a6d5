// The speed adaption of a destination work: the tier that a measured pair of
// rates picks, and when a statistics period is ripe enough to pick one.
#include <gtest/gtest.h>

#include "file_trans_client/file_trans_client_work.h"
#include "file_trans_client/speed_adapt.h"

namespace {

const time_t kNow = 1700000000;

// A work whose ripe period measured the given mean network rate over 15
// packets and the given local rate over one second of handling.
FileTransClient RipeWork(unsigned int nNet, unsigned int nLocal)
{
    FileTransClient task;
    task.nWorkId = 7;
    task.nNowAllGetNum = 4;
    task.nNowGetSize = 0x80000;
    task.nStatPacketNum = 15;
    task.lStatSpeedSum = (unsigned long long)nNet * 15;
    task.nStatDataSize = 15 * 1000;
    task.nStatDealMSecond = 1000;
    task.nStatDealDataSize = nLocal;
    task.nStatBeginTime = kNow;
    return task;
}

struct WorkedRow {
    unsigned int nNet, nLocal;
    unsigned int nGetNum, nGetSize;
};

// Every worked row of the design, and the floors of each tier from both sides.
const WorkedRow kRows[] = {
    {2097152, 104857600, 5, 0x40000},
    {41943040, 3145728, 5, 0x40000},
    {102400, 1073741824, 3, 0x4000},
    {1073741824, 102400, 3, 0x8000},
    {102400, 102400, 3, 0x8000},
    {62914560, 62914560, 5, 0x500000},
    {52428799, 104857600, 5, 0x100000},
    {52428800, 104857600, 5, 0x500000},
    // Floors and the values just under them.
    {0x500000, 0xffffffff, 5, 0x100000},
    {0x4fffff, 0xffffffff, 5, 0x40000},
    {0x100000, 0xffffffff, 5, 0x40000},
    {0xfffff, 0xffffffff, 3, 0x10000},
    {0x40000, 0xffffffff, 3, 0x10000},
    {0x3ffff, 0xffffffff, 3, 0x4000},
    {0xffffffff, 0x3ffff, 3, 0x8000},
    {0xffffffff, 0x40000, 3, 0x10000},
    {0xffffffff, 0x3200000, 5, 0x500000},
    {0, 0, 3, 0x8000},
};

TEST(SpeedAdaptTest, EveryWorkedRowPicksItsTier)
{
    for (const WorkedRow& row : kRows) {
        SCOPED_TRACE(testing::Message() << "net " << row.nNet << " local " << row.nLocal);
        SpeedTier tier = ChooseSpeedTier(row.nNet, row.nLocal);
        EXPECT_EQ(row.nGetNum, tier.nGetNum);
        EXPECT_EQ(row.nGetSize, tier.nGetSize);

        FileTransClient task = RipeWork(row.nNet, row.nLocal);
        EXPECT_TRUE(AutoAdjustNewReqSizeAndNum(task, kNow));
        EXPECT_EQ(row.nGetNum, task.nNowAllGetNum);
        EXPECT_EQ(row.nGetSize, task.nNowGetSize);
    }
}

// 4 seconds, 14 packets, 0x63fffff bytes: one short of ripe on every count.
void Unripe(FileTransClient& t)
{
    t.nStatPacketNum = 14;
    t.lStatSpeedSum = 102400ULL * 14;
    t.nStatDataSize = 0x63fffff;
    t.nStatBeginTime = kNow - 4;
}

// When a period is ripe (5 seconds, 15 packets or 0x6400000 bytes) and
// measured, the pick is made and a new period starts; otherwise the size and
// the period stay, a beginning in the future pulled back to now.
TEST(SpeedAdaptTest, APeriodRipensByTimePacketsOrBytesAndNeedsAMeasure)
{
    struct Row {
        const char* szName;
        void (*change)(FileTransClient&);
        bool bAdapted;
        unsigned int nGetSize;
        time_t tBegin;  // the period's beginning after the call
    };
    const Row rows[] = {
        {"ripe", [](FileTransClient& t) { t.nStatBeginTime = kNow - 2; }, true, 0x8000, kNow},
        {"unripe", Unripe, false, 0x80000, kNow - 4},
        {"by time", [](FileTransClient& t) { Unripe(t); t.nStatBeginTime = kNow - 5; }, true, 0x8000, kNow},
        // 15 packets of a mean below 0x40000.
        {"by packets", [](FileTransClient& t) { Unripe(t); t.nStatPacketNum = 15; }, true, 0x4000, kNow},
        {"by bytes", [](FileTransClient& t) { Unripe(t); t.nStatDataSize = 0x6400000; }, true, 0x8000, kNow},
        // A disk that handles each block in under a millisecond adds no time.
        {"no local time", [](FileTransClient& t) { t.nStatDealMSecond = 0; t.nStatBeginTime = kNow - 100; }, false,
         0x80000, kNow - 100},
        {"no packets", [](FileTransClient& t) { t.nStatPacketNum = 0; }, false, 0x80000, kNow},
        {"future", [](FileTransClient& t) { Unripe(t); t.nStatBeginTime = kNow + 3600; }, false, 0x80000, kNow},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.szName);
        FileTransClient task = RipeWork(102400, 102400);
        row.change(task);
        FileTransClient before = task;
        EXPECT_EQ(AutoAdjustNewReqSizeAndNum(task, kNow), row.bAdapted);
        EXPECT_EQ(task.nNowGetSize, row.nGetSize);
        EXPECT_EQ(task.nStatBeginTime, row.tBegin);
        if (row.bAdapted) {  // a new period
            EXPECT_EQ(0u, task.lStatSpeedSum + task.nStatDataSize + task.nStatPacketNum + task.nStatDealMSecond +
                              task.nStatDealDataSize);
        } else {
            EXPECT_EQ(task.nNowAllGetNum, 4u);
            EXPECT_EQ(task.nStatPacketNum, before.nStatPacketNum);
        }
    }
    // A beginning pulled back to now ripens by time as usual.
    FileTransClient task = RipeWork(102400, 102400);
    rows[7].change(task);
    AutoAdjustNewReqSizeAndNum(task, kNow);
    EXPECT_TRUE(AutoAdjustNewReqSizeAndNum(task, kNow + 5));
}

TEST(SpeedAdaptTest, LocalRateIsComputedWithoutOverflow)
{
    // 4 GiB - 1 bytes in a second: times 1000 in 32 bits it would wrap to
    // about 4 MiB/s, and the local side would wrongly decide.
    FileTransClient task = RipeWork(0x3200000, 0xffffffff);
    ASSERT_TRUE(AutoAdjustNewReqSizeAndNum(task, kNow));
    EXPECT_EQ(0x500000u, task.nNowGetSize);  // net decides

    // A drop to the lowest tier climbs straight back at the next ripe period.
    FileTransClient slow = RipeWork(1000, 1000);
    ASSERT_TRUE(AutoAdjustNewReqSizeAndNum(slow, kNow));
    EXPECT_EQ(0x8000u, slow.nNowGetSize);
    slow.nStatPacketNum = 15;
    slow.lStatSpeedSum = 0x3200000ULL * 15;
    slow.nStatDealMSecond = 1;
    slow.nStatDealDataSize = 0x1000000;
    ASSERT_TRUE(AutoAdjustNewReqSizeAndNum(slow, kNow));
    EXPECT_EQ(0x500000u, slow.nNowGetSize);
}

}  // namespace
