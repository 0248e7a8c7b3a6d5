// libFuzzer target: the input as the byte stream of one connection into a
// running server loop whose packets are echoed back. The loop must close the
// connection after the peer's half-close (or earlier, on a broken stream),
// within a bound, without crashing or leaking, and keep serving afterwards.
#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include "loop_harness.h"

namespace {

// Lives as long as the process: libFuzzer ends it with exit.
struct Loop {
    brel_lib::CDataBufferSTLDeque rev{true, 0};
    brel_lib::CDataBufferSTLDeque send{false, 0};
    brel_lib::CNetworkServerBrel server{rev, send, 4096};
    unsigned short nPort = 0;
    agent_test::EchoThread* pEcho = nullptr;

    Loop()
    {
        brel_lib::LogLevel(brel_lib::LOG_LEVEL_NONE);
        if ((nPort = agent_test::StartOnLoopback(server)) == 0) __builtin_trap();
        pEcho = new agent_test::EchoThread(rev, send);
    }
};

Loop& TheLoop()
{
    static Loop* pLoop = new Loop();
    return *pLoop;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    Loop& loop = TheLoop();
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = agent_test::LoopbackAddr(loop.nPort);
    // Thousands of connections a second can run this host out of ports for a moment: that is
    // the harness's limit, not the loop's, so such an input is tried again and then skipped.
    int nTry = 0;
    while (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        if (++nTry == 20) return 0;
        usleep(50000);
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    }
    // Closed with a reset, so that no closed connection of ours waits in TIME_WAIT.
    linger lin{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lin, sizeof(lin));
    // The first byte cuts the stream into writes of that many bytes, as a socket may deliver it.
    size_t nChunk = nSize > 0 && pData[0] != 0 ? pData[0] : 4096;
    for (size_t nPos = 0; nPos < nSize; nPos += nChunk) {
        size_t n = nSize - nPos < nChunk ? nSize - nPos : nChunk;
        if (send(fd, pData + nPos, n, MSG_NOSIGNAL) < 0) break;  // closed early on a broken stream
    }
    shutdown(fd, SHUT_WR);
    // Echoes may come back first; the end of the stream must come within the bound.
    char buf[65536];
    while (true) {
        pollfd p{fd, POLLIN, 0};
        int nReady = poll(&p, 1, 10000);
        if (nReady < 0 && errno == EINTR) continue;  // libFuzzer's timer signal
        if (nReady != 1) __builtin_trap();
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) break;
    }
    close(fd);
    return 0;
}
