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

TEST(SpeedAdaptTest, AdaptingStartsANewPeriod)
{
    FileTransClient task = RipeWork(2097152, 104857600);
    task.nStatBeginTime = kNow - 2;
    ASSERT_TRUE(AutoAdjustNewReqSizeAndNum(task, kNow));
    EXPECT_EQ(0u, task.lStatSpeedSum);
    EXPECT_EQ(0u, task.nStatDataSize);
    EXPECT_EQ(0u, task.nStatPacketNum);
    EXPECT_EQ(0u, task.nStatDealMSecond);
    EXPECT_EQ(0u, task.nStatDealDataSize);
    EXPECT_EQ(kNow, task.nStatBeginTime);
}

TEST(SpeedAdaptTest, NothingMeasuredKeepsTheSizeAndThePeriod)
{
    // A disk that handles each block in under a millisecond adds no time.
    FileTransClient task = RipeWork(102400, 102400);
    task.nStatDealMSecond = 0;
    task.nStatBeginTime = kNow - 100;
    EXPECT_FALSE(AutoAdjustNewReqSizeAndNum(task, kNow));
    EXPECT_EQ(4u, task.nNowAllGetNum);
    EXPECT_EQ(0x80000u, task.nNowGetSize);
    EXPECT_EQ(15u, task.nStatPacketNum);

    task = RipeWork(102400, 102400);
    task.nStatPacketNum = 0;
    EXPECT_FALSE(AutoAdjustNewReqSizeAndNum(task, kNow));
    EXPECT_EQ(0x80000u, task.nNowGetSize);
}

TEST(SpeedAdaptTest, APeriodRipensByTimePacketsOrBytes)
{
    // Unripe: 4 seconds, 14 packets, 0x63fffff bytes.
    FileTransClient task = RipeWork(102400, 102400);
    task.nStatPacketNum = 14;
    task.lStatSpeedSum = 102400ULL * 14;
    task.nStatDataSize = 0x63fffff;
    task.nStatBeginTime = kNow - 4;
    EXPECT_FALSE(AutoAdjustNewReqSizeAndNum(task, kNow));
    EXPECT_EQ(0x80000u, task.nNowGetSize);
    EXPECT_EQ(14u, task.nStatPacketNum);

    FileTransClient byTime = task;
    byTime.nStatBeginTime = kNow - 5;
    EXPECT_TRUE(AutoAdjustNewReqSizeAndNum(byTime, kNow));
    EXPECT_EQ(0x8000u, byTime.nNowGetSize);

    FileTransClient byPackets = task;
    byPackets.nStatPacketNum = 15;
    EXPECT_TRUE(AutoAdjustNewReqSizeAndNum(byPackets, kNow));

    FileTransClient byBytes = task;
    byBytes.nStatDataSize = 0x6400000;
    EXPECT_TRUE(AutoAdjustNewReqSizeAndNum(byBytes, kNow));
}

TEST(SpeedAdaptTest, ABeginInTheFutureIsPulledBackToNow)
{
    FileTransClient task = RipeWork(102400, 102400);
    task.nStatPacketNum = 3;
    task.lStatSpeedSum = 102400ULL * 3;
    task.nStatBeginTime = kNow + 3600;
    EXPECT_FALSE(AutoAdjustNewReqSizeAndNum(task, kNow));
    EXPECT_EQ(kNow, task.nStatBeginTime);
    // And the period then ripens by time as usual.
    EXPECT_TRUE(AutoAdjustNewReqSizeAndNum(task, kNow + 5));
}

TEST(SpeedAdaptTest, LocalRateIsComputedWithoutOverflow)
{
    // 4 GiB - 1 bytes in a second: times 1000 in 32 bits it would wrap to
    // about 4 MiB/s, and the local side would wrongly decide.
    FileTransClient task = RipeWork(0x3200000, 0);
    task.nStatDealDataSize = 0xffffffff;
    task.nStatDealMSecond = 1000;
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
