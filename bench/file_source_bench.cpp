// A file served by the file source, the way a destination agent pulls it: the
// source manager with its read threads and listening loop in this process,
// one get for the whole file in 512 KiB blocks, and a reader on a plain
// socket that cuts the answers out of the stream. Beside it, the bare
// machine's work for the same bytes in the same run: read the file in 512 KiB
// blocks, sum each block, and copy it through a plain loopback socket.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "asn_parse.h"
#include "bench_util.h"
#include "data_buffer.h"
#include "file_trans_svr/file_trans_svr.h"
#include "log.h"
#include "md5.h"
#include "network/stream_framing.h"
#include "zik_pkt.h"

namespace {

const unsigned int BLOCK = 512 * 1024;
const unsigned long long TOTAL = 512ULL << 20;

unsigned short FreePort()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nLen = sizeof(addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &nLen) != 0) {
        exit(1);
    }
    close(fd);
    return ntohs(addr.sin_port);
}

int Connect(unsigned short nPort)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) exit(1);
    return fd;
}

template <class T>
std::vector<char> Encode(T& message)
{
    brel_lib::CPacketBuffer block("Bench", 0);
    unsigned int nSize = 0;
    char* p = EncodePacket(block, message, 1, nSize);
    return std::vector<char>(p, p + nSize);
}

// Reads answers until the blocks hold all of the file; the content bytes.
unsigned long long ReadAnswers(int fd)
{
    std::vector<char> buf(4 << 20);
    size_t nHeld = 0;
    unsigned long long lContent = 0;
    while (lContent < TOTAL) {
        if (nHeld == buf.size()) buf.resize(buf.size() * 2);
        ssize_t r = read(fd, buf.data() + nHeld, buf.size() - nHeld);
        if (r <= 0) exit(2);
        nHeld += static_cast<size_t>(r);
        size_t nStart = 0;
        while (true) {
            int nPacket = brel_lib::asn_packet_complete(buf.data() + nStart, static_cast<unsigned int>(nHeld - nStart));
            if (nPacket < 0) exit(3);
            if (nPacket == 0) break;
            // The envelope of an answer is some 80 bytes; the rest is the block.
            lContent += static_cast<unsigned int>(nPacket) > 200 ? BLOCK : 0;
            nStart += static_cast<size_t>(nPacket);
        }
        memmove(buf.data(), buf.data() + nStart, nHeld - nStart);
        nHeld -= nStart;
    }
    return lContent;
}

double SourceSeconds(const std::string& strDir, const std::string& strFile)
{
    unsigned short nPort = FreePort();
    std::string strCfg = strDir + "/config";
    FILE* pCfg = fopen(strCfg.c_str(), "w");
    fprintf(pCfg,
            "file_trans_svr_bind_eth = 127.0.0.1\nfile_trans_svr_bind_ip = 127.0.0.1\n"
            "file_trans_svr_begin_bind_port = %hu\n",
            nPort);
    fclose(pCfg);
    brel_lib::CDataBufferSTLDeque sessionSend(true, 0);
    CFileTransSvrManager manager(sessionSend);
    manager.SetCfgFile(strCfg);
    manager.Start();
    ReqWorkFileSrcCreate create;
    create.workId = 1;
    create.srcFile = strFile.c_str();
    if (manager.CreateTransSvr(&create, "", 0) != 0) exit(4);
    unsigned int nSize = 0;
    void* pReply = sessionSend.GetFrontAndPop(nSize, 5000);
    if (pReply == nullptr) exit(5);
    brel_lib::CDataBufferSTLDeque::FreePopData(pReply);
    double dSeconds = bench::BestSeconds(3, [&] {
        int fd = Connect(nPort);
        ReqWorkFileAgentGet get;
        get.srcWorkId = 1;
        get.dstWorkId = 2;
        get.srcFile = strFile.c_str();
        get.getSize = static_cast<int>(BLOCK);
        get.getNum = static_cast<int>(TOTAL / BLOCK);
        std::vector<char> bytes = Encode(get);
        if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) exit(6);
        ReadAnswers(fd);
        close(fd);
    });
    manager.Stop();
    return dSeconds;
}

// The bare machine: read, sum and send each block through a plain socket.
double BareSeconds(const std::string& strFile)
{
    return bench::BestSeconds(3, [&] {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) exit(7);
        std::thread reader([&] {
            std::vector<char> buf(1 << 20);
            unsigned long long lGot = 0;
            while (lGot < TOTAL) {
                ssize_t r = read(pair[1], buf.data(), buf.size());
                if (r <= 0) break;
                lGot += static_cast<unsigned long long>(r);
            }
        });
        int fd = open(strFile.c_str(), O_RDONLY);
        std::vector<char> block(BLOCK);
        for (unsigned long long lPos = 0; lPos < TOTAL; lPos += BLOCK) {
            if (pread(fd, block.data(), BLOCK, static_cast<off_t>(lPos)) != static_cast<ssize_t>(BLOCK)) exit(8);
            brel_lib::MD5 md5;
            md5.update(block.data(), BLOCK);
            md5.finalize();
            for (size_t nDone = 0; nDone < BLOCK;) {
                ssize_t w = write(pair[0], block.data() + nDone, BLOCK - nDone);
                if (w <= 0) exit(9);
                nDone += static_cast<size_t>(w);
            }
        }
        close(fd);
        reader.join();
        close(pair[0]);
        close(pair[1]);
    });
}

} // namespace

int main()
{
    brel_lib::LogLevel(brel_lib::LOG_LEVEL_ERROR);
    char szDir[] = "/tmp/file_source_bench_XXXXXX";
    if (mkdtemp(szDir) == nullptr) return 1;
    std::string strFile = std::string(szDir) + "/data";
    {
        int fd = open(strFile.c_str(), O_CREAT | O_WRONLY, 0644);
        std::vector<char> block(BLOCK);
        for (unsigned long long lPos = 0; lPos < TOTAL; lPos += BLOCK) {
            for (size_t i = 0; i < BLOCK; i += 64) block[i] = static_cast<char>(lPos / BLOCK + i);
            if (write(fd, block.data(), BLOCK) != static_cast<ssize_t>(BLOCK)) return 1;
        }
        close(fd);
    }
    double dBare = BareSeconds(strFile);
    double dSource = SourceSeconds(szDir, strFile);
    double dMiB = static_cast<double>(TOTAL) / (1 << 20);
    bench::Report("file source, 512 MiB in 512 KiB blocks", "MiB/s", dMiB / dSource, "read + MD5 + socket copy",
                  dMiB / dBare);
    std::string strCommand = std::string("rm -rf ") + szDir;
    return system(strCommand.c_str()) == 0 ? 0 : 1;
}
