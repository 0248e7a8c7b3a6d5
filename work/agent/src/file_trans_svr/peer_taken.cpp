// What the peer of a TCP socket has taken: the kernel's count of the bytes it
// acknowledged. Apart, as the kernel's header and the C library's don't mix.
#include <linux/tcp.h>
#include <stddef.h>
#include <netinet/in.h>
#include <sys/socket.h>

long long PeerTakenBytes(int fd)
{
    struct tcp_info info;
    socklen_t nLen = sizeof(info);
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &nLen) != 0) return -1;
    if (nLen < offsetof(struct tcp_info, tcpi_bytes_acked) + sizeof(info.tcpi_bytes_acked)) return -1;
    return static_cast<long long>(info.tcpi_bytes_acked);
}
