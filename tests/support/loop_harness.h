// Helpers for the tests of the multi-connection loops: an event recorder, a plain client,
// an echo thread, and the epoll masks of this process read from /proc. Every wait is bounded.
#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "data_buffer.h"
#include "install_tree.h"
#include "log.h"
#include "network/socket.h"
#include "network/network_multi.h"
#include "network/network_server.h"
#include "network/packet_listener.h"

namespace agent_test {

struct LoopEvent {
    unsigned int nConnectId;
    brel_lib::BREL_NET_CALLBACK_TYPE type;
    int fd;
    bool bFdOpen;          // the descriptor was open while the callback ran
    std::string strPeerIp;  // as the loop knew it during the callback
    unsigned short nPeerPort;
    long nTid;  // the thread that made the callback
};

// Records every callback of one loop.
class LoopEventRecorder {
public:
    void Attach(brel_lib::CNetworkMultiBase& loop)
    {
        m_pLoop = &loop;
        loop.SetNetClientCallback(OnEvent, this);
    }

    static void OnEvent(unsigned int nConnectId, brel_lib::BREL_NET_CALLBACK_TYPE type, void* pAppend, int fd)
    {
        LoopEventRecorder* pThis = static_cast<LoopEventRecorder*>(pAppend);
        LoopEvent ev{nConnectId, type, fd, fcntl(fd, F_GETFD) != -1, "", 0, static_cast<long>(syscall(SYS_gettid))};
        if (pThis->m_pLoop != nullptr) pThis->m_pLoop->GetConnectPeer(nConnectId, ev.strPeerIp, ev.nPeerPort);
        std::lock_guard<std::mutex> lock(pThis->m_mutex);
        pThis->m_vecEvents.push_back(ev);
    }

    int Count(brel_lib::BREL_NET_CALLBACK_TYPE type) const { return static_cast<int>(Events(type).size()); }
    int CountFor(unsigned int nConnectId, brel_lib::BREL_NET_CALLBACK_TYPE type) const
    {
        int n = 0;
        for (const LoopEvent& ev : Events(type)) n += ev.nConnectId == nConnectId;
        return n;
    }
    bool WaitCount(brel_lib::BREL_NET_CALLBACK_TYPE type, int n, int nTimeoutMs) const
    {
        return WaitUntil([&] { return Count(type) >= n; }, nTimeoutMs);
    }
    bool WaitFor(unsigned int nConnectId, brel_lib::BREL_NET_CALLBACK_TYPE type, int nTimeoutMs) const
    {
        return WaitUntil([&] { return CountFor(nConnectId, type) > 0; }, nTimeoutMs);
    }
    std::vector<LoopEvent> Events() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_vecEvents;
    }
    std::vector<LoopEvent> Events(brel_lib::BREL_NET_CALLBACK_TYPE type) const
    {
        std::vector<LoopEvent> vec;
        for (const LoopEvent& ev : Events()) {
            if (ev.type == type) vec.push_back(ev);
        }
        return vec;
    }

private:
    brel_lib::CNetworkMultiBase* m_pLoop = nullptr;
    mutable std::mutex m_mutex;
    std::vector<LoopEvent> m_vecEvents;
};

inline int64_t HarnessNowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline sockaddr_in LoopbackAddr(unsigned short nPort)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

// A blocking socket connected to the port of 127.0.0.1, with the receive
// buffer's size when one is given; -1 when the connect fails.
inline int ConnectLoopback(unsigned short nPort, int nReceiveBuf = 0)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && nReceiveBuf > 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &nReceiveBuf, sizeof(nReceiveBuf));
    sockaddr_in addr = LoopbackAddr(nPort);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

// Binds the server loop to a port of 127.0.0.1 the kernel picks and starts it; the port, 0 on failure.
inline unsigned short StartOnLoopback(brel_lib::CNetworkServerBrel& server, unsigned short nPort = 0)
{
    std::string strIp;
    if (server.CreateServer("127.0.0.1", nPort) != 0 || server.GetListenIpPort(strIp, nPort) != 0) return 0;
    return server.Start() == 0 ? nPort : 0;
}

// How many times the text holds the needle.
inline int CountOf(const std::string& strText, const std::string& strNeedle)
{
    int n = 0;
    for (size_t nPos = strText.find(strNeedle); nPos != std::string::npos; nPos = strText.find(strNeedle, nPos + 1)) ++n;
    return n;
}

// The process log sent to NAME.log in a temporary directory while the object lives.
class TempLog {
public:
    explicit TempLog(const std::string& strName, unsigned int nLevel = brel_lib::LOG_LEVEL_DEBUG)
        : m_strPath(m_dir.Path(strName + ".log"))
    {
        brel_lib::LogFile(m_dir.Path(strName));
        brel_lib::LogLevel(nLevel);
    }
    ~TempLog() { brel_lib::LogFile(""); }
    int Count(const std::string& strText) const { return CountOf(ReadFile(m_strPath), strText); }

private:
    TempDir m_dir{"loop_log_"};
    std::string m_strPath;
};

// A listener whose accept queue is full: later SYNs are dropped, so a connect
// to it neither succeeds nor fails until its own time limit.
class FullBacklogListener {
public:
    FullBacklogListener()
    {
        m_fdListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr = LoopbackAddr(0);
        bind(m_fdListen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        listen(m_fdListen, 0);
        socklen_t nLen = sizeof(addr);
        getsockname(m_fdListen, reinterpret_cast<sockaddr*>(&addr), &nLen);
        m_nPort = ntohs(addr.sin_port);
        // Fill the queue until a connect hangs.
        for (int i = 0; i < 8; ++i) {
            int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
            m_vecFill.push_back(fd);
            pollfd p{fd, POLLOUT, 0};
            if (poll(&p, 1, 300) == 0) {
                m_bFull = true;
                break;
            }
        }
    }
    ~FullBacklogListener()
    {
        for (int fd : m_vecFill) close(fd);
        close(m_fdListen);
    }
    unsigned short Port() const { return m_nPort; }
    bool Full() const { return m_bFull; }

private:
    int m_fdListen = -1;
    unsigned short m_nPort = 0;
    bool m_bFull = false;
    std::vector<int> m_vecFill;
};

// A blocking TCP client of 127.0.0.1 that reads packets by the stream framing.
class PlainClient {
public:
    explicit PlainClient(unsigned short nPort, int nReceiveBuf = 0)
    {
        m_conn.Attach(ConnectLoopback(nPort, nReceiveBuf));
        int nOn = 1;
        if (Connected()) setsockopt(Fd(), IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
    }
    PlainClient(const PlainClient&) = delete;
    PlainClient& operator=(const PlainClient&) = delete;

    bool Connected() const { return m_conn.IsOpen(); }
    int Fd() const { return m_conn.GetSocket(); }
    void Close() { m_conn.Close(); }
    unsigned short LocalPort() const
    {
        sockaddr_in addr{};
        socklen_t nLen = sizeof(addr);
        getsockname(Fd(), reinterpret_cast<sockaddr*>(&addr), &nLen);
        return ntohs(addr.sin_port);
    }

    bool Write(const std::vector<unsigned char>& bytes) { return m_conn.WriteAll(bytes.data(), bytes.size()) == 0; }

    // One whole packet, or empty on timeout, close or a broken stream.
    std::vector<unsigned char> ReadPacket(int nTimeoutMs)
    {
        std::vector<unsigned char> packet;
        return m_conn.ReadPacket(packet, nTimeoutMs) == 1 ? packet : std::vector<unsigned char>();
    }

    // Reads whatever arrives until nBytes are in or the time is up; the count read.
    size_t ReadCount(size_t nBytes, int nTimeoutMs)
    {
        int64_t lDeadline = HarnessNowMs() + nTimeoutMs;
        size_t nTotal = 0;
        while (true) {
            nTotal += m_conn.Pending().size();
            m_conn.Pending().clear();
            int nLeft = static_cast<int>(lDeadline - HarnessNowMs());
            if (nTotal >= nBytes || nLeft <= 0 || m_conn.ReadSome(nLeft) <= 0) return nTotal;
        }
    }

    // True when the peer closed (or reset) the connection within the time.
    bool WaitClosedByPeer(int nTimeoutMs)
    {
        int64_t lDeadline = HarnessNowMs() + nTimeoutMs;
        while (true) {
            int nLeft = static_cast<int>(lDeadline - HarnessNowMs());
            int n = nLeft > 0 ? m_conn.ReadSome(nLeft) : -1;
            if (n <= 0) return n == 0;
            m_conn.Pending().clear();
        }
    }

private:
    brel_lib::CPacketConnection m_conn;
};

// A packet of nTotal bytes in all (a four-byte length) whose content tells where it sits.
inline std::vector<unsigned char> PatternPacket(unsigned int nTotal, unsigned int nSeed)
{
    std::vector<unsigned char> p(nTotal);
    unsigned int nContent = nTotal - 6;
    p[0] = 0x30;
    p[1] = 0x84;
    for (int i = 0; i < 4; ++i) p[2 + i] = static_cast<unsigned char>(nContent >> (24 - 8 * i));
    for (unsigned int i = 6; i < nTotal; ++i) p[i] = static_cast<unsigned char>(i * 31 + nSeed);
    return p;
}

// Takes one block; false on timeout.
inline bool TakePacket(brel_lib::CDataBufferSTLDeque& buffer, unsigned int nTimeoutMs, int& nAppend,
                       std::vector<unsigned char>& packet)
{
    unsigned int nSize = 0, nSpeed = 0;
    char* p = static_cast<char*>(buffer.GetFrontAndPop3(nSize, nSpeed, nAppend, nTimeoutMs));
    if (p == nullptr) return false;
    packet.assign(p, p + nSize);
    brel_lib::CDataBufferSTLDeque::FreePopData(p);
    return true;
}

inline void PushTo(brel_lib::CDataBufferSTLDeque& buffer, unsigned int nConnectId,
                   const std::vector<unsigned char>& packet)
{
    buffer.Push2(packet.data(), static_cast<unsigned int>(packet.size()), static_cast<int>(nConnectId),
                 brel_lib::BREL_DATA_NORMAL_PRI);
}

// Sends every packet that a loop receives back to the connection it came from.
class EchoThread {
public:
    EchoThread(brel_lib::CDataBufferSTLDeque& revBuffer, brel_lib::CDataBufferSTLDeque& sendBuffer)
        : m_thread([this, &revBuffer, &sendBuffer] {
              while (m_bRun) {
                  int nAppend = 0;
                  std::vector<unsigned char> packet;
                  if (TakePacket(revBuffer, 50, nAppend, packet)) PushTo(sendBuffer, static_cast<unsigned int>(nAppend), packet);
              }
          })
    {
    }
    ~EchoThread()
    {
        m_bRun = false;
        m_thread.join();
    }

private:
    std::atomic<bool> m_bRun{true};
    std::thread m_thread;
};

// The open descriptors of this process.
inline std::vector<int> OpenFds()
{
    std::vector<int> vecFd;
    DIR* pDir = opendir("/proc/self/fd");
    if (pDir == nullptr) return vecFd;
    while (dirent* pEntry = readdir(pDir)) {
        if (pEntry->d_name[0] != '.' && atoi(pEntry->d_name) != dirfd(pDir)) vecFd.push_back(atoi(pEntry->d_name));
    }
    closedir(pDir);
    return vecFd;
}

inline int CountOpenFds() { return static_cast<int>(OpenFds().size()); }

// The registered mask (EPOLLIN and EPOLLOUT bits only) of fd in the epoll set of this
// process that holds fdMember; -1 if not found.
inline long EpollMaskOf(int fdMember, int fd)
{
    for (int fdSet : OpenFds()) {
        char szLink[256] = {0};
        std::string strPath = "/proc/self/fd/" + std::to_string(fdSet);
        if (readlink(strPath.c_str(), szLink, sizeof(szLink) - 1) <= 0 || std::string(szLink) != "anon_inode:[eventpoll]") continue;
        std::ifstream in("/proc/self/fdinfo/" + std::to_string(fdSet));
        std::map<int, uint32_t> mapSet;
        std::string strLine;
        while (std::getline(in, strLine)) {
            if (strLine.compare(0, 4, "tfd:") != 0) continue;
            std::istringstream line(strLine);
            std::string strTag, strEventsTag, strEvents;
            int nTfd = -1;
            line >> strTag >> nTfd >> strEventsTag >> strEvents;
            mapSet[nTfd] = static_cast<uint32_t>(std::stoul(strEvents, nullptr, 16)) & (EPOLLIN | EPOLLOUT);
        }
        if (mapSet.count(fdMember) != 0) return mapSet.count(fd) != 0 ? static_cast<long>(mapSet[fd]) : -1;
    }
    return -1;
}

} // namespace agent_test
