// The request queue of the write threads: the high queue strictly first.
#include <gtest/gtest.h>

#include "file_trans_client/two_priority_queue.h"

TEST(TwoPriorityQueueTest, TheHighQueueAlwaysGoesFirstAndEachKeepsItsOrder)
{
    CTwoPriorityQueue<int> q;
    EXPECT_TRUE(q.empty());
    q.push(1, TPQ_LOW);
    q.push(2, TPQ_LOW);
    q.push(10, TPQ_HIGH);
    q.push(3, 7);  // any priority but high is low
    q.push(11, TPQ_HIGH);
    EXPECT_EQ(q.size(), 5u);
    std::vector<int> vecOut;
    while (!q.empty()) {
        vecOut.push_back(q.front());
        q.pop();
        if (vecOut.size() == 3) q.push(12, TPQ_HIGH);  // a late query still overtakes the data
    }
    EXPECT_EQ(vecOut, (std::vector<int>{10, 11, 1, 12, 2, 3}));
}
