// A work server for end-to-end tests, built on the project's codec: listens
// on 127.0.0.1, accepts the agent (a new connection replaces the old one),
// cuts packets by the stream framing, decodes and records them with their
// arrival times, and sends any packet. Every wait is bounded.
#pragma once

#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "asn_parse.h"
#include "install_tree.h"
#include "network/packet_listener.h"
#include "zik_pkt.h"

namespace agent_test {

class TestWorkServer {
public:
    struct Received {
        int nChoiceId = -1;  // -1 when the packet did not decode
        int nAppend = 0;
        int nVersion = 0;
        int nConnection = 0;  // 1 for the first accepted connection
        int64_t lTimeMs = 0;
        std::vector<unsigned char> bytes;
    };

    // Listens on 127.0.0.1, or on the address given (a veth end of a test's own).
    explicit TestWorkServer(unsigned short nPort = 0, const std::string& strIp = "127.0.0.1");
    ~TestWorkServer();
    TestWorkServer(const TestWorkServer&) = delete;
    TestWorkServer& operator=(const TestWorkServer&) = delete;

    unsigned short Port() const { return m_listener.Port(); }
    // Answers each heartbeat with a RspWorkAgentHeartbeat when on.
    void SetAnswerHeartbeats(bool bOn) { m_bAnswerHeartbeats = bOn; }

    // Waits until at least n packets of the choice have arrived; the n-th one.
    bool WaitFor(int nChoiceId, int nTimeoutMs, Received* pOut = nullptr, size_t n = 1);
    bool WaitConnections(int n, int nTimeoutMs);
    int Count(int nChoiceId);
    std::vector<Received> Packets();
    // Hands over the packets recorded so far and forgets them, so that a long
    // run keeps neither their memory nor the cost of the waits that scan them.
    std::vector<Received> Drain();
    int Connections();
    int64_t ConnectTimeMs(int nConnection);

    template <class T>
    bool Send(T& message, int nAppend);
    // The messages of type T after packet nFrom that accept takes, in order of arrival.
    template <class T>
    struct Match {
        size_t nIndex;
        int nAppend;
        T msg;
    };
    template <class T, class F>
    std::deque<Match<T>> Messages(F accept, size_t nFrom = 0);
    // Waits until such a message has come; the first one.
    template <class T, class F>
    bool WaitMessage(T& out, F accept, int nTimeoutMs, size_t nFrom = 0, int* pAppend = nullptr);
    bool SendRaw(const std::vector<unsigned char>& bytes);
    void DropConnection();

private:
    void Loop();
    void TakePackets();
    void Record(const std::vector<unsigned char>& packet);

    brel_lib::CPacketListener m_listener;  // the loop's own
    std::thread m_thread;
    bool m_bStop = false;  // guarded by m_mutex
    std::atomic<bool> m_bAnswerHeartbeats{false};

    std::mutex m_mutex;  // guards everything below
    std::condition_variable m_cond;
    brel_lib::CPacketConnection m_conn;
    int m_nConnections = 0;
    std::vector<int64_t> m_vecConnectTimes;
    std::vector<Received> m_vecReceived;
    bool m_bDropRequested = false;
};

// Decodes a recorded packet's body into a message of the expected type.
template <class T>
bool DecodeBody(const TestWorkServer::Received& received, T& out)
{
    ZikPacket packet;
    unsigned int nUsed = 0;
    std::vector<unsigned char> bytes = received.bytes;
    if (brel_lib::ParseFromBuffer(packet, nUsed, reinterpret_cast<char*>(bytes.data()),
                                  static_cast<unsigned int>(bytes.size())) != 0) {
        return false;
    }
    if (packet.body.get() == nullptr || packet.body->choiceId != ZikChoiceOf<T>::value) return false;
    out = *static_cast<T*>(packet.body->Alternative());
    return true;
}

template <class T>
std::vector<unsigned char> EncodeMessage(T& message, int nAppend)
{
    brel_lib::CPacketBuffer block("TestWorkServer", 0);
    unsigned int nSize = 0;
    char* p = EncodePacket(block, message, nAppend, nSize);
    return p == nullptr ? std::vector<unsigned char>() : std::vector<unsigned char>(p, p + nSize);
}

template <class T>
bool TestWorkServer::Send(T& message, int nAppend)
{
    return SendRaw(EncodeMessage(message, nAppend));
}

// A deque: records can't be copied into place, only assigned.
template <class T, class F>
std::deque<TestWorkServer::Match<T>> TestWorkServer::Messages(F accept, size_t nFrom)
{
    std::deque<Match<T>> found;
    std::vector<Received> packets = Packets();
    for (size_t i = nFrom; i < packets.size(); ++i) {
        T msg;
        if (packets[i].nChoiceId != ZikChoiceOf<T>::value || !DecodeBody(packets[i], msg) || !accept(msg)) continue;
        found.emplace_back();
        found.back().nIndex = i;
        found.back().nAppend = packets[i].nAppend;
        found.back().msg = msg;
    }
    return found;
}

template <class T, class F>
bool TestWorkServer::WaitMessage(T& out, F accept, int nTimeoutMs, size_t nFrom, int* pAppend)
{
    std::deque<Match<T>> vec;
    if (!WaitUntil([&] { return !(vec = Messages<T>(accept, nFrom)).empty(); }, nTimeoutMs)) return false;
    out = vec[0].msg;
    if (pAppend != nullptr) *pAppend = vec[0].nAppend;
    return true;
}

// Accepts the messages of one work, for Messages and WaitMessage.
inline auto OfWork(unsigned int nWorkId)
{
    return [nWorkId](const auto& m) { return static_cast<unsigned int>(m.workId.value) == nWorkId; };
}

// The end of a transfer as a work server does it: the destination's work is
// deleted (append 4), then the source's (append 5), each through its agent's server.
inline void DeleteTransferWorks(TestWorkServer& dst, unsigned int nDstWorkId, TestWorkServer& src,
                                unsigned int nSrcWorkId)
{
    ReqWorkFileDstDelete delDst;
    delDst.workId = static_cast<int>(nDstWorkId);
    dst.Send(delDst, 4);
    ReqWorkFileSrcDelete delSrc;
    delSrc.workId = static_cast<int>(nSrcWorkId);
    src.Send(delSrc, 5);
}

} // namespace agent_test
