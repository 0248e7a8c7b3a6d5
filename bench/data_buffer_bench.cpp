// CDataBufferSTLDeque: blocks pushed by one thread and taken by another,
// beside a bare memcpy of the same bytes.
#include <string.h>

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

void Memcpy(unsigned int nSize, unsigned int nCount)
{
    std::vector<char> src(nSize, 'x'), dst(nSize);
    for (unsigned int n = 0; n < nCount; ++n) {
        memcpy(dst.data(), src.data(), nSize);
        asm volatile("" : : "r"(dst.data()) : "memory");
    }
}

} // namespace

int main()
{
    struct Case {
        unsigned int nSize, nCount;
    } cases[] = {{64, 200000}, {4096, 100000}, {512 * 1024, 2000}};
    for (const Case& c : cases) {
        double dQueue = bench::BestSeconds(3, [&] { Transfer(c.nSize, c.nCount); });
        double dCopy = bench::BestSeconds(3, [&] { Memcpy(c.nSize, c.nCount); });
        double dMiB = static_cast<double>(c.nSize) * c.nCount / (1024 * 1024);
        char szWhat[96];
        snprintf(szWhat, sizeof(szWhat), "queue, %u-byte blocks, %.0f k blocks/s", c.nSize, c.nCount / dQueue / 1000);
        bench::Report(szWhat, "MiB/s", dMiB / dQueue, "memcpy, same blocks", dMiB / dCopy);
    }
    return 0;
}
