// Encoding and decoding of whole packets: a heartbeat and a file block of
// 512 KiB (RspWorkFileAgentGet), in packets and bytes per second, each beside
// memcpy of the packet's size in the same run; then the decoding of a
// constructed string of 1 MiB of empty segments, the shape that was once
// quadratic, beside memcpy of 1 MiB.
#include <string.h>

#include <string>
#include <vector>

#include "asn_parse.h"
#include "bench_util.h"
#include "zik_pkt.h"

namespace {

// Keeps the compiler from dropping work whose result is not used.
inline void Touch(const void* p) { asm volatile("" : : "r"(p) : "memory"); }

struct Rates {
    double dPacketsPerSecond;
    double dMiBPerSecond;
};

Rates Measure(int nPackets, size_t nPacketSize, const std::function<void()>& one)
{
    double dSeconds = bench::BestSeconds(5, [&] {
        for (int i = 0; i < nPackets; ++i) one();
    });
    return Rates{nPackets / dSeconds, nPackets * static_cast<double>(nPacketSize) / dSeconds / (1024.0 * 1024.0)};
}

// Encoding and decoding of one packet, each beside memcpy of its size.
template <class T>
void Run(const char* szName, T& msg, int nPackets)
{
    brel_lib::CPacketBuffer block("CodecBench", 0);
    unsigned int nSize = 0;
    char* pOut = EncodePacket(block, msg, 0, nSize);
    if (pOut == nullptr) {
        printf("%s: encoding failed\n", szName);
        return;
    }
    std::vector<char> wire(pOut, pOut + nSize);
    std::vector<char> copy(nSize);

    Rates enc = Measure(nPackets, nSize, [&] {
        unsigned int n = 0;
        Touch(EncodePacket(block, msg, 0, n));
    });
    Rates dec = Measure(nPackets, nSize, [&] {
        ZikPacket packet;
        unsigned int nUsed = 0;
        if (brel_lib::ParseFromBuffer(packet, nUsed, wire.data(), nSize) != 0) abort();
        Touch(&packet);
    });
    Rates bare = Measure(nPackets, nSize, [&] {
        memcpy(copy.data(), wire.data(), nSize);
        Touch(copy.data());
    });

    printf("%s, %u bytes on the wire, %d packets per run\n", szName, nSize, nPackets);
    std::string strWhat = std::string("  encode ") + szName;
    bench::Report((strWhat + ", packets").c_str(), "pkt/s", enc.dPacketsPerSecond, "memcpy of the same size",
                  bare.dPacketsPerSecond);
    bench::Report((strWhat + ", bytes").c_str(), "MiB/s", enc.dMiBPerSecond, "memcpy of the same size",
                  bare.dMiBPerSecond);
    strWhat = std::string("  decode ") + szName;
    bench::Report((strWhat + ", packets").c_str(), "pkt/s", dec.dPacketsPerSecond, "memcpy of the same size",
                  bare.dPacketsPerSecond);
    bench::Report((strWhat + ", bytes").c_str(), "MiB/s", dec.dMiBPerSecond, "memcpy of the same size",
                  bare.dMiBPerSecond);
}

// reqWorkCmdCreate whose command is 1 MiB of empty segments (04 00) inside 24 80.
std::vector<char> ConstructedCommand()
{
    std::vector<char> cmd = {0x24, static_cast<char>(0x80)};
    for (int i = 0; i < 512 * 1024; ++i) {
        cmd.push_back(0x04);
        cmd.push_back(0x00);
    }
    cmd.push_back(0);
    cmd.push_back(0);
    std::vector<char> fields;
    for (int i = 0; i < 4; ++i) fields.insert(fields.end(), {0x02, 0x01, 0x01});
    fields.insert(fields.end(), {0x04, 0x00});
    fields.insert(fields.end(), cmd.begin(), cmd.end());
    for (int i = 0; i < 3; ++i) fields.insert(fields.end(), {0x02, 0x01, 0x02});
    // Long definite lengths of four octets, as the codec itself writes them.
    auto wrap = [](std::vector<char> tag, const std::vector<char>& content) {
        size_t n = content.size();
        tag.insert(tag.end(), {static_cast<char>(0x84), static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                               static_cast<char>(n >> 8), static_cast<char>(n)});
        tag.insert(tag.end(), content.begin(), content.end());
        return tag;
    };
    std::vector<char> body = wrap({static_cast<char>(0xBF), 0x64}, wrap({0x30}, fields));
    std::vector<char> content = {0x02, 0x01, 0x04, 0x02, 0x01, 0x00};
    content.insert(content.end(), body.begin(), body.end());
    return wrap({0x30}, content);
}

void RunConstructed()
{
    std::vector<char> wire = ConstructedCommand();
    std::vector<char> copy(wire.size());
    const int nRuns = 20;
    double dDecode = bench::BestSeconds(nRuns, [&] {
        ZikPacket packet;
        unsigned int nUsed = 0;
        if (brel_lib::ParseFromBuffer(packet, nUsed, wire.data(), static_cast<unsigned int>(wire.size())) != 0) {
            abort();
        }
        Touch(&packet);
    });
    double dCopy = bench::BestSeconds(nRuns, [&] {
        memcpy(copy.data(), wire.data(), wire.size());
        Touch(copy.data());
    });
    printf("constructed command of 1 MiB of empty segments, %zu bytes, best of %d\n", wire.size(), nRuns);
    // Microseconds: lower is better, so the ratio reads as times slower.
    bench::Report("  decode, us per packet", "us", dDecode * 1e6, "memcpy of the same size", dCopy * 1e6);
}

} // namespace

int main()
{
    ReqWorkAgentHeartbeat heartbeat;
    heartbeat.agentId = 1234;
    Run("heartbeat", heartbeat, 200000);

    RspWorkFileAgentGet get;
    std::string strContent(512 * 1024, '\0');
    for (size_t i = 0; i < strContent.size(); ++i) strContent[i] = static_cast<char>(i * 131 + 7);
    get.content.ReSet(strContent.data(), strContent.size());
    get.md5 = "0123456789abcdef0123456789abcdef";
    get.dstWorkId = 7;
    get.srcWorkId = 8;
    get.totalSizeLow = 1 << 30;
    Run("RspWorkFileAgentGet with 512 KiB of content", get, 400);

    RunConstructed();
    return 0;
}
