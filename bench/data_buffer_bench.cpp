// CDataBufferSTLDeque: blocks pushed by one thread and taken by another,
// beside the bare machine's hand-over of the same blocks: a malloc and a
// memcpy per block into a std::deque under a mutex and a condition variable.
#include <string.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "data_buffer.h"

namespace {

// Moves nCount blocks of nSize bytes through a queue between two threads.
void Transfer(unsigned int nSize, unsigned int nCount)
{
    brel_lib::CDataBufferSTLDeque buf(true, 0);
    std::vector<char> block(nSize, 'x');
    std::thread consumer([&] {
        for (unsigned int n = 0; n < nCount;) {
            unsigned int nGot = 0;
            void* p = buf.GetFrontAndPop(nGot, 100);
            if (p == nullptr) continue;
            brel_lib::CDataBufferSTLDeque::FreePopData(p);
            ++n;
        }
    });
    for (unsigned int n = 0; n < nCount; ++n) buf.Push(block.data(), nSize, brel_lib::BREL_DATA_NORMAL_PRI);
    consumer.join();
}

void BareHandOver(unsigned int nSize, unsigned int nCount)
{
    std::mutex mutex;
    std::condition_variable cond;
    std::deque<char*> queue;
    std::vector<char> block(nSize, 'x');
    std::thread consumer([&] {
        for (unsigned int n = 0; n < nCount; ++n) {
            std::unique_lock<std::mutex> lock(mutex);
            cond.wait(lock, [&] { return !queue.empty(); });
            char* p = queue.front();
            queue.pop_front();
            lock.unlock();
            free(p);
        }
    });
    for (unsigned int n = 0; n < nCount; ++n) {
        char* p = static_cast<char*>(malloc(nSize));
        memcpy(p, block.data(), nSize);
        {
            std::lock_guard<std::mutex> lock(mutex);
            queue.push_back(p);
        }
        cond.notify_one();
    }
    consumer.join();
}

} // namespace

int main()
{
    struct Case {
        unsigned int nSize, nCount;
    } cases[] = {{64, 200000}, {4096, 100000}, {512 * 1024, 2000}};
    for (const Case& c : cases) {
        double dQueue = bench::BestSeconds(3, [&] { Transfer(c.nSize, c.nCount); });
        double dBare = bench::BestSeconds(3, [&] { BareHandOver(c.nSize, c.nCount); });
        double dMiB = static_cast<double>(c.nSize) * c.nCount / (1024 * 1024);
        char szWhat[96];
        snprintf(szWhat, sizeof(szWhat), "queue, %u-byte blocks, %.0f k blocks/s", c.nSize, c.nCount / dQueue / 1000);
        bench::Report(szWhat, "MiB/s", dMiB / dQueue, "mutex+condvar deque, same", dMiB / dBare);
    }
    return 0;
}
