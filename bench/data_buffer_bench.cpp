// CDataBufferSTLDeque: blocks pushed by one thread and taken by another,
// beside the bare machine's hand-over of the same blocks: a malloc and a
// memcpy per block into a std::deque under a mutex and a condition variable.
// Two consumers: a worker's blocking take, and a network loop's epoll wait on
// the readable descriptor followed by takes until the queue is empty.
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
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

// The same through a non-blocking buffer whose consumer sleeps in epoll.
void TransferWatched(unsigned int nSize, unsigned int nCount)
{
    brel_lib::CDataBufferSTLDeque buf(false, 0);
    std::vector<char> block(nSize, 'x');
    int epfd = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev{};
    ev.events = EPOLLIN;
    epoll_ctl(epfd, EPOLL_CTL_ADD, buf.GetReadableFd(), &ev);
    std::thread consumer([&] {
        for (unsigned int n = 0; n < nCount;) {
            epoll_event evGot;
            if (epoll_wait(epfd, &evGot, 1, 100) != 1) continue;
            unsigned int nGot = 0;
            for (void* p; (p = buf.GetFrontAndPop(nGot, 0)) != nullptr; ++n) brel_lib::CDataBufferSTLDeque::FreePopData(p);
        }
    });
    for (unsigned int n = 0; n < nCount; ++n) buf.Push(block.data(), nSize, brel_lib::BREL_DATA_NORMAL_PRI);
    consumer.join();
    close(epfd);
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

int main(int argc, char** argv)
{
    // Rounds, each timing all three in turn, so that a burst of load on a
    // shared machine falls on all of them alike; the best round of each counts.
    int nRounds = argc > 1 ? atoi(argv[1]) : 7;
    struct Case {
        unsigned int nSize, nCount;
    } cases[] = {{64, 200000}, {4096, 100000}, {512 * 1024, 2000}};
    for (const Case& c : cases) {
        double dQueue = 1e30, dWatched = 1e30, dBare = 1e30;
        for (int i = 0; i < nRounds; ++i) {
            dQueue = std::min(dQueue, bench::BestSeconds(1, [&] { Transfer(c.nSize, c.nCount); }));
            dWatched = std::min(dWatched, bench::BestSeconds(1, [&] { TransferWatched(c.nSize, c.nCount); }));
            dBare = std::min(dBare, bench::BestSeconds(1, [&] { BareHandOver(c.nSize, c.nCount); }));
        }
        double dMiB = static_cast<double>(c.nSize) * c.nCount / (1024 * 1024);
        char szWhat[96];
        snprintf(szWhat, sizeof(szWhat), "queue, %u-byte blocks, %.0f k blocks/s", c.nSize, c.nCount / dQueue / 1000);
        bench::Report(szWhat, "MiB/s", dMiB / dQueue, "mutex+condvar deque, same", dMiB / dBare);
        snprintf(szWhat, sizeof(szWhat), "  the same taken after epoll, %.0f k blocks/s", c.nCount / dWatched / 1000);
        bench::Report(szWhat, "MiB/s", dMiB / dWatched, "mutex+condvar deque, same", dMiB / dBare);
    }
    return 0;
}
