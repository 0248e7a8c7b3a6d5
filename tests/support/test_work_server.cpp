#include "test_work_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

#include "network/stream_framing.h"

namespace agent_test {

int64_t SteadyMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

TestWorkServer::TestWorkServer(unsigned short nPort)
{
    m_fdListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int nOn = 1;
    setsockopt(m_fdListen, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(m_fdListen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(m_fdListen, 16) != 0) {
        throw std::runtime_error("TestWorkServer: bind or listen failed");
    }
    socklen_t nLen = sizeof(addr);
    getsockname(m_fdListen, reinterpret_cast<sockaddr*>(&addr), &nLen);
    m_nPort = ntohs(addr.sin_port);
    m_thread = std::thread([this] { Loop(); });
}

TestWorkServer::~TestWorkServer()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bStop = true;
    }
    m_thread.join();
    if (m_fdConn >= 0) close(m_fdConn);
    close(m_fdListen);
}

void TestWorkServer::Loop()
{
    while (true) {
        int fdConn;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_bStop) return;
            if (m_bDropRequested && m_fdConn >= 0) {
                close(m_fdConn);
                m_fdConn = -1;
                m_vecPending.clear();
            }
            m_bDropRequested = false;
            fdConn = m_fdConn;
        }
        pollfd fds[2] = {{m_fdListen, POLLIN, 0}, {fdConn, POLLIN, 0}};
        if (poll(fds, fdConn >= 0 ? 2 : 1, 20) <= 0) continue;
        if (fds[0].revents & POLLIN) {
            int fd = accept4(m_fdListen, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_fdConn >= 0) {
                    // The agent closed the old link before it connected anew:
                    // whatever it sent there is readable now; keep it.
                    unsigned char buf[65536];
                    ssize_t n;
                    while ((n = recv(m_fdConn, buf, sizeof(buf), MSG_DONTWAIT)) > 0) OnBytes(buf, static_cast<size_t>(n));
                    if (m_fdConn >= 0) close(m_fdConn);
                }
                m_fdConn = fd;
                m_vecPending.clear();
                ++m_nConnections;
                m_vecConnectTimes.push_back(SteadyMs());
                m_cond.notify_all();
            }
            continue;
        }
        if (fdConn >= 0 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
            unsigned char buf[65536];
            ssize_t n = read(fdConn, buf, sizeof(buf));
            std::lock_guard<std::mutex> lock(m_mutex);
            if (n <= 0) {
                if (m_fdConn == fdConn) {
                    close(m_fdConn);
                    m_fdConn = -1;
                }
                continue;
            }
            OnBytes(buf, static_cast<size_t>(n));
        }
    }
}

void TestWorkServer::OnBytes(const unsigned char* p, size_t n)
{
    m_vecPending.insert(m_vecPending.end(), p, p + n);
    while (true) {
        int nPacket = brel_lib::asn_packet_complete(m_vecPending.data(), static_cast<unsigned int>(m_vecPending.size()));
        if (nPacket == 0) return;
        if (nPacket < 0) {
            close(m_fdConn);
            m_fdConn = -1;
            m_vecPending.clear();
            return;
        }
        std::vector<unsigned char> packet(m_vecPending.begin(), m_vecPending.begin() + nPacket);
        m_vecPending.erase(m_vecPending.begin(), m_vecPending.begin() + nPacket);
        Record(packet);
    }
}

void TestWorkServer::Record(const std::vector<unsigned char>& packet)
{
    Received received;
    received.bytes = packet;
    received.lTimeMs = SteadyMs();
    received.nConnection = m_nConnections;
    ZikPacket decoded;
    unsigned int nUsed = 0;
    std::vector<unsigned char> copy = packet;
    if (brel_lib::ParseFromBuffer(decoded, nUsed, reinterpret_cast<char*>(copy.data()),
                                  static_cast<unsigned int>(copy.size())) == 0 &&
        decoded.body.get() != nullptr) {
        received.nChoiceId = decoded.body->choiceId;
        received.nAppend = decoded.append;
        received.nVersion = decoded.version;
    }
    m_vecReceived.push_back(received);
    m_cond.notify_all();
    if (m_bAnswerHeartbeats && received.nChoiceId == Zik::reqWorkAgentHeartbeatCid) {
        RspWorkAgentHeartbeat rsp;
        rsp.ret = 0;
        std::vector<unsigned char> bytes = EncodeMessage(rsp, 0);
        if (send(m_fdConn, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
            // the connection is gone; the next read notices
        }
    }
}

bool TestWorkServer::WaitFor(int nChoiceId, int nTimeoutMs, Received* pOut, size_t n)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    auto found = [&]() -> const Received* {
        size_t nSeen = 0;
        for (const Received& r : m_vecReceived) {
            if (r.nChoiceId == nChoiceId && ++nSeen == n) return &r;
        }
        return nullptr;
    };
    bool bOk = m_cond.wait_for(lock, std::chrono::milliseconds(nTimeoutMs), [&] { return found() != nullptr; });
    if (bOk && pOut != nullptr) *pOut = *found();
    return bOk;
}

bool TestWorkServer::WaitConnections(int n, int nTimeoutMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::milliseconds(nTimeoutMs), [&] { return m_nConnections >= n; });
}

int TestWorkServer::Count(int nChoiceId)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    int n = 0;
    for (const Received& r : m_vecReceived) n += r.nChoiceId == nChoiceId;
    return n;
}

std::vector<TestWorkServer::Received> TestWorkServer::Packets()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_vecReceived;
}

int TestWorkServer::Connections()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_nConnections;
}

int64_t TestWorkServer::ConnectTimeMs(int nConnection)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return nConnection >= 1 && nConnection <= static_cast<int>(m_vecConnectTimes.size())
               ? m_vecConnectTimes[static_cast<size_t>(nConnection - 1)]
               : 0;
}

bool TestWorkServer::SendRaw(const std::vector<unsigned char>& bytes)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fdConn < 0 || bytes.empty()) return false;
    size_t nDone = 0;
    while (nDone < bytes.size()) {
        ssize_t n = send(m_fdConn, bytes.data() + nDone, bytes.size() - nDone, MSG_NOSIGNAL);
        if (n <= 0) return false;
        nDone += static_cast<size_t>(n);
    }
    return true;
}

void TestWorkServer::DropConnection()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bDropRequested = true;
}

} // namespace agent_test
