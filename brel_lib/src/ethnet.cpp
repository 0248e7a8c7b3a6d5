#include "ethnet.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <vector>

namespace brel_lib {

namespace {
// The datagram socket of the interface queries; 0 means none is open.
int g_sockFd = 0;
// Guards g_sockFd: the main thread and the file source both ask, and a
// destroy must not close the socket under a query.
std::mutex g_mutexSock;
// Room for 4096 entries of the interface list.
const size_t IFCONF_BUF_SIZE = 163840;

int EthnetInfoInitLocked()
{
    if (g_sockFd == 0) g_sockFd = socket(AF_INET, SOCK_DGRAM, 0);
    return g_sockFd == 0 ? errno : 0;
}
} // namespace

int EthnetInfoInit()
{
    std::lock_guard<std::mutex> lock(g_mutexSock);
    return EthnetInfoInitLocked();
}

void EthnetInfoDestroy()
{
    std::lock_guard<std::mutex> lock(g_mutexSock);
    if (g_sockFd != 0) {
        if (g_sockFd > 0) close(g_sockFd);
        g_sockFd = 0;
    }
}

int EthnetGetIpAddress(std::string& strIp, const std::string& strName)
{
    if (strName.empty()) return -1;
    std::lock_guard<std::mutex> lock(g_mutexSock);
    int ret = EthnetInfoInitLocked();
    if (ret != 0) return ret;

    std::vector<char> vecBuf(IFCONF_BUF_SIZE);
    ifconf conf;
    conf.ifc_len = static_cast<int>(vecBuf.size());
    conf.ifc_buf = vecBuf.data();
    if (ioctl(g_sockFd, SIOCGIFCONF, &conf) != 0) return errno;

    // The kernel lists only interfaces with an IPv4 address; an alias has its own entry.
    int nCount = conf.ifc_len / static_cast<int>(sizeof(ifreq));
    for (int i = nCount - 1; i >= 0; --i) {
        ifreq req;
        memcpy(&req, vecBuf.data() + static_cast<size_t>(i) * sizeof(ifreq), sizeof(ifreq));
        if (strncmp(req.ifr_name, strName.c_str(), IFNAMSIZ) != 0 || strName.size() >= IFNAMSIZ) continue;
        if (ioctl(g_sockFd, SIOCGIFADDR, &req) != 0) return 0;
        sockaddr_in addr;
        memcpy(&addr, &req.ifr_addr, sizeof(addr));
        char szIp[INET_ADDRSTRLEN];
        if (inet_ntop(AF_INET, &addr.sin_addr, szIp, sizeof(szIp)) != nullptr) strIp = szIp;
        return 0;
    }
    return -3;
}

} // namespace brel_lib
