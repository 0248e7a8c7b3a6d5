// A peer for the loop tests that a test can stop with SIGSTOP: connects to
// 127.0.0.1:<port> with a small receive buffer, reads until <bytes> are in or
// the peer closes, and prints the count and an FNV-1a hash of the stream.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: tcp_sink <port> <bytes>\n");
        return 2;
    }
    unsigned long long lWant = strtoull(argv[2], nullptr, 10);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int nBuf = 65536;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &nBuf, sizeof(nBuf));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<unsigned short>(atoi(argv[1])));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        perror("connect");
        return 1;
    }
    printf("connected\n");
    fflush(stdout);
    unsigned long long lHash = 1469598103934665603ULL, lGot = 0;
    static unsigned char buf[1 << 16];
    while (lGot < lWant) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) break;
        for (ssize_t i = 0; i < n; ++i) lHash = (lHash ^ buf[i]) * 1099511628211ULL;
        lGot += static_cast<unsigned long long>(n);
    }
    printf("%llu %016llx\n", lGot, lHash);
    return 0;
}
