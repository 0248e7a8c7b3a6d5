#include "test_work_server.h"

#include <poll.h>

#include <stdexcept>

namespace agent_test {

TestWorkServer::TestWorkServer(unsigned short nPort, const std::string& strIp)
{
    if (m_listener.Listen(strIp, nPort) != 0) throw std::runtime_error("TestWorkServer: bind or listen failed");
    m_thread = std::thread([this] { Loop(); });
}

TestWorkServer::~TestWorkServer()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bStop = true;
    }
    m_thread.join();
}

void TestWorkServer::Loop()
{
    while (true) {
        int fdConn;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_bStop) return;
            if (m_bDropRequested) m_conn.Close();
            m_bDropRequested = false;
            fdConn = m_conn.GetSocket();
        }
        pollfd fds[2] = {{m_listener.GetSocket(), POLLIN, 0}, {fdConn, POLLIN, 0}};
        if (poll(fds, fdConn >= 0 ? 2 : 1, 20) <= 0) continue;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (fds[0].revents & POLLIN) {
            // The agent closed the old link before it connected anew: whatever
            // it sent there is readable now; keep it.
            while (m_conn.ReadSome(0) > 0) TakePackets();
            if (m_listener.Accept(m_conn, 0) == 0) {
                ++m_nConnections;
                m_vecConnectTimes.push_back(SteadyMs());
                m_cond.notify_all();
            }
        } else if (fdConn >= 0 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
            if (m_conn.ReadSome(0) <= 0) {
                m_conn.Close();
            } else {
                TakePackets();
            }
        }
    }
}

// Records each whole packet read; a stream that breaks the framing is closed.
void TestWorkServer::TakePackets()
{
    std::vector<unsigned char> packet;
    int nRet;
    while ((nRet = m_conn.NextPacket(packet)) == 1) Record(packet);
    if (nRet < 0) m_conn.Close();
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
        m_conn.WriteAll(bytes.data(), bytes.size());  // a lost connection shows at the next read
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

std::vector<TestWorkServer::Received> TestWorkServer::Drain()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Received> vecTaken;
    vecTaken.swap(m_vecReceived);
    return vecTaken;
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
    return m_conn.IsOpen() && !bytes.empty() && m_conn.WriteAll(bytes.data(), bytes.size()) == 0;
}

void TestWorkServer::DropConnection()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bDropRequested = true;
}

} // namespace agent_test
