// MD5 throughput over 512 KiB blocks, beside md5sum on the same data: one
// digest over all of it, and a digest per block with the blocks of a batch
// side by side (as the file transfer sums its blocks).
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bench_util.h"
#include "md5.h"

int main()
{
    const size_t nBlock = 512 * 1024;
    const size_t nTotal = 256u * 1024 * 1024;
    std::vector<unsigned char> data(nTotal);
    for (size_t i = 0; i < nTotal; ++i) data[i] = static_cast<unsigned char>((i * 2654435761u) >> 13);

    std::string strDigest;
    double dOurs = bench::BestSeconds(3, [&] {
        brel_lib::MD5 md5;
        for (size_t n = 0; n < nTotal; n += nBlock) md5.update(data.data() + n, nBlock);
        strDigest = md5.finalize().hexdigest();
    });

    std::vector<std::string> vecHex(nTotal / nBlock);
    double dBatch = bench::BestSeconds(3, [&] {
        const size_t nBatch = 8;
        for (size_t nFirst = 0; nFirst < vecHex.size(); nFirst += nBatch) {
            const unsigned char* apData[nBatch];
            unsigned int anLength[nBatch];
            for (size_t i = 0; i < nBatch; ++i) {
                apData[i] = data.data() + (nFirst + i) * nBlock;
                anLength[i] = static_cast<unsigned int>(nBlock);
            }
            brel_lib::MD5::HexDigests(apData, anLength, nBatch, &vecHex[nFirst]);
        }
    });
    bool bBatchAgrees = vecHex.back() == brel_lib::md5(std::string(
                                             reinterpret_cast<const char*>(data.data()) + nTotal - nBlock, nBlock));

    // md5sum reads the same bytes from a file in memory (tmpfs or the page cache).
    std::string strFile = access("/dev/shm", W_OK) == 0 ? "/dev/shm/md5_bench.dat" : "/tmp/md5_bench.dat";
    FILE* pFile = fopen(strFile.c_str(), "wb");
    if (pFile == nullptr || fwrite(data.data(), 1, nTotal, pFile) != nTotal) return 1;
    fclose(pFile);
    std::string strCommand = "md5sum " + strFile + " > /dev/null";
    double dBare = bench::BestSeconds(3, [&] {
        if (system(strCommand.c_str()) != 0) fprintf(stderr, "md5sum failed\n");
    });
    std::string strCheck = "md5sum " + strFile + " | cut -c1-32";
    FILE* pPipe = popen(strCheck.c_str(), "r");
    char szSum[64] = {0};
    if (pPipe != nullptr) {
        if (fgets(szSum, sizeof(szSum), pPipe) == nullptr) szSum[0] = 0;
        pclose(pPipe);
    }
    unlink(strFile.c_str());

    double dMiB = static_cast<double>(nTotal) / (1024 * 1024);
    bench::Report("MD5 over 512 KiB blocks (256 MiB)", "MiB/s", dMiB / dOurs, "md5sum, same data", dMiB / dBare);
    bench::Report("MD5 per block, batches of 8 blocks", "MiB/s", dMiB / dBatch, "md5sum, same data", dMiB / dBare);
    printf("batch digests %s\n", bBatchAgrees ? "agree" : "DIFFER");
    printf("digests %s\n", std::string(szSum).substr(0, 32) == strDigest ? "agree" : "DIFFER");
    return 0;
}
