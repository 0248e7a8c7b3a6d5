// Hostile peers against one server loop: random bytes, lying lengths, torn
// packets, half-closes and resets on many connections at once. The loop must
// not crash or leak, must close what it cannot frame, and must keep serving a
// well-behaved client all along.
#include <gtest/gtest.h>
#include <errno.h>
#include <fcntl.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "loop_harness.h"
#include "network/network_server.h"
#include "tcp_peer.h"
#include "util.h"

using namespace brel_lib;
using namespace agent_test;

namespace {

class HostilePeer {
public:
    explicit HostilePeer(unsigned short nPort) : m_nPort(nPort) {}
    ~HostilePeer() { Close(false); }
    HostilePeer(const HostilePeer&) = delete;
    HostilePeer& operator=(const HostilePeer&) = delete;

    void Act(std::mt19937& rng)
    {
        if (m_fd < 0) {
            Connect();
            return;
        }
        unsigned int nDice = rng() % 100;
        if (nDice < 45) {
            Write(RandomBytes(rng, 1 + rng() % 4096, rng() % 2 == 0));
        } else if (nDice < 60) {
            // A header whose length lies: up to the framing's maximum and beyond, or more length bytes than fit.
            std::vector<unsigned char> head = {0x30, static_cast<unsigned char>(0x81 + rng() % 6)};
            for (unsigned int i = 0; i < (head[1] & 0x7fu); ++i) head.push_back(static_cast<unsigned char>(rng()));
            std::vector<unsigned char> rest = RandomBytes(rng, rng() % 2048, false);
            head.insert(head.end(), rest.begin(), rest.end());
            Write(head);
        } else if (nDice < 75) {
            // A valid packet torn at a random byte, sometimes followed by garbage.
            std::vector<unsigned char> packet = FramedPacket(rng() % 3000, static_cast<unsigned char>(rng()));
            packet.resize(1 + rng() % packet.size());
            if (rng() % 2 == 0) packet.push_back(static_cast<unsigned char>(rng()));
            Write(packet);
        } else if (nDice < 85) {
            Write(FramedPacket(rng() % 500, static_cast<unsigned char>(rng())));
        } else if (nDice < 92) {
            shutdown(m_fd, SHUT_WR);
        } else {
            Close(rng() % 2 == 0);
        }
    }

    void Close(bool bReset)
    {
        if (m_fd < 0) return;
        if (bReset) {
            linger lin{1, 0};
            setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &lin, sizeof(lin));
        }
        close(m_fd);
        m_fd = -1;
    }

private:
    static std::vector<unsigned char> RandomBytes(std::mt19937& rng, size_t n, bool bTagFirst)
    {
        std::vector<unsigned char> v(n);
        for (unsigned char& c : v) c = static_cast<unsigned char>(rng());
        if (bTagFirst && !v.empty()) v[0] = 0x30;
        return v;
    }

    void Connect()
    {
        m_fd = ConnectLoopback(m_nPort);
        if (m_fd < 0) return;
        // Never blocks the test: a peer that stops reading gets what fits.
        fcntl(m_fd, F_SETFL, fcntl(m_fd, F_GETFL) | O_NONBLOCK);
    }

    void Write(const std::vector<unsigned char>& bytes)
    {
        if (!bytes.empty()) send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

    unsigned short m_nPort;
    int m_fd = -1;
};

TEST(HostilePeers, RandomStreamsCloseOnlyTheirConnectionsAndTheLoopKeepsServing)
{
    TempLog log("loop", LOG_LEVEL_WARNING);
    unsigned int nSeed = static_cast<unsigned int>(time(nullptr));
    SCOPED_TRACE("seed " + std::to_string(nSeed));
    std::mt19937 rng(nSeed);
    // Bounds what a lying length can make a connection hold.
    SetBrelRecvPacketMaxSize(256 * 1024);

    CDataBufferSTLDeque rev(true, 0), send(false, 0);
    LoopEventRecorder events;
    unsigned short nPort = 0;
    {
        CNetworkServerBrel server(rev, send, 4096);
        events.Attach(server);
        ASSERT_NE(nPort = StartOnLoopback(server), 0);
        EchoThread echo(rev, send);

        PlainClient good(nPort);
        ASSERT_TRUE(good.Connected());
        std::vector<std::unique_ptr<HostilePeer>> vecPeers;
        for (int i = 0; i < 32; ++i) vecPeers.emplace_back(new HostilePeer(nPort));
        for (int nRound = 0; nRound < 3000; ++nRound) {
            vecPeers[rng() % vecPeers.size()]->Act(rng);
            if (nRound % 100 == 0) {
                // Two content bytes at least: the framing recognises no packet below four bytes.
                std::vector<unsigned char> packet = FramedPacket(2 + rng() % 5000, static_cast<unsigned char>(nRound));
                ASSERT_TRUE(good.Write(packet));
                ASSERT_EQ(good.ReadPacket(5000), packet) << "round " << nRound;
            }
        }
        for (auto& pPeer : vecPeers) pPeer->Close(false);
        // Every hostile connection ends, and only the good one is left.
        ASSERT_TRUE(WaitUntil(
            [&] { return events.Count(BREL_CONNECT_CLOSE) == events.Count(BREL_CONNECT_NEW_CLIENT) - 1; }, 10000))
            << events.Count(BREL_CONNECT_CLOSE) << " of " << events.Count(BREL_CONNECT_NEW_CLIENT);
        std::vector<unsigned char> packet = FramedPacket(4000, 1);
        ASSERT_TRUE(good.Write(packet));
        EXPECT_EQ(good.ReadPacket(5000), packet);
        EXPECT_GT(events.Count(BREL_CONNECT_NEW_CLIENT), 33);
        server.Stop();
    }
    SetBrelRecvPacketMaxSize(0);
}

} // namespace
