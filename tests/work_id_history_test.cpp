// The flat history of work ids on its own: ids out of order, renewal, the
// clock set back, and the sweep giving back the storage of a burst.
#include <gtest/gtest.h>

#include "process_common/work_id_history.h"

namespace {

TEST(WorkIdHistory, IdsOutOfOrderAreFoundAndSweptLowestFirst)
{
    CWorkIdHistory history;
    for (unsigned int nId : {50u, 10u, 30u, 20u, 40u, 30u}) history.Remember(nId, 100);
    EXPECT_EQ(history.Size(), 5u);
    for (unsigned int nId : {10u, 20u, 30u, 40u, 50u}) EXPECT_TRUE(history.Contains(nId)) << nId;
    EXPECT_FALSE(history.Contains(35));
    EXPECT_EQ(history.Sweep(100, 600, 3), 2u);  // beyond three, the lowest ids go
    EXPECT_FALSE(history.Contains(10));
    EXPECT_FALSE(history.Contains(20));
    EXPECT_TRUE(history.Contains(30));
}

TEST(WorkIdHistory, AgeCountsFromTheLastNoteAndAFutureTimeIsPulledBack)
{
    CWorkIdHistory history;
    history.Remember(1, 0);
    history.Remember(2, 0);
    history.Remember(1, 500);     // renewed
    history.Remember(3, 10000);   // noted before the clock was set back
    EXPECT_EQ(history.Sweep(600, 600, 1000), 1u);
    EXPECT_FALSE(history.Contains(2));
    EXPECT_TRUE(history.Contains(1));
    EXPECT_TRUE(history.Contains(3));  // now 600, not 10000: kept ...
    EXPECT_EQ(history.Sweep(1199, 600, 1000), 1u);
    EXPECT_TRUE(history.Contains(3));  // ... and it ages from there, not from 10000
    EXPECT_EQ(history.Sweep(1200, 600, 1000), 1u);
    EXPECT_EQ(history.Size(), 0u);
}

TEST(WorkIdHistory, ABurstLeavesNoPeakBehindItsSweep)
{
    CWorkIdHistory history;
    for (unsigned int nId = 1; nId <= 100000; ++nId) history.Remember(nId, 0);
    EXPECT_EQ(history.Sweep(1, 600, 1000), 99000u);
    EXPECT_EQ(history.Size(), 1000u);
    EXPECT_TRUE(history.Contains(99001));
    EXPECT_FALSE(history.Contains(99000));
    EXPECT_LE(history.Capacity(), 2000u);
}

} // namespace
