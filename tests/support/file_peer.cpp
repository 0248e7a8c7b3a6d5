#include "file_peer.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <string>

#include "md5.h"
#include "network/stream_framing.h"

namespace agent_test {

namespace {

bool WaitFd(int fd, short nEvents, int nTimeoutMs)
{
    pollfd pfd{fd, nEvents, 0};
    while (true) {
        int r = poll(&pfd, 1, nTimeoutMs < 0 ? 0 : nTimeoutMs);
        if (r < 0 && errno == EINTR) continue;
        return r > 0;
    }
}

unsigned long long Join(int nHigh, int nLow)
{
    return (static_cast<unsigned long long>(static_cast<unsigned int>(nHigh)) << 32) | static_cast<unsigned int>(nLow);
}

} // namespace

FilePeer::~FilePeer() { Close(); }

void FilePeer::Close()
{
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
    m_vecBuf.clear();
    m_nStart = 0;
}

bool FilePeer::Connect(unsigned short nPort, int nTimeoutMs)
{
    Close();
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int r = connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    if (r != 0 && errno != EINPROGRESS) {
        Close();
        return false;
    }
    if (r != 0) {
        int nErr = 0;
        socklen_t nLen = sizeof(nErr);
        if (!WaitFd(m_fd, POLLOUT, nTimeoutMs) || getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &nErr, &nLen) != 0 ||
            nErr != 0) {
            Close();
            return false;
        }
    }
    fcntl(m_fd, F_SETFL, fcntl(m_fd, F_GETFL) & ~O_NONBLOCK);
    return true;
}

bool FilePeer::WriteRaw(const std::vector<unsigned char>& bytes)
{
    size_t nDone = 0;
    while (nDone < bytes.size()) {
        if (!WaitFd(m_fd, POLLOUT, 5000)) return false;
        ssize_t r = send(m_fd, bytes.data() + nDone, bytes.size() - nDone, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (r < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (r <= 0) return false;
        nDone += static_cast<size_t>(r);
    }
    return true;
}

bool FilePeer::Get(unsigned int nSrcWorkId, unsigned int nDstWorkId, const std::string& strPath,
                   unsigned long long lPos, int nGetSize, int nGetNum, bool bPreGet, int nAppend)
{
    ReqWorkFileAgentGet req;
    req.dstWorkId = static_cast<int>(nDstWorkId);
    req.srcWorkId = static_cast<int>(nSrcWorkId);
    req.srcFile.Set(strPath.data(), strPath.size());
    req.beginPosHigh = static_cast<int>(static_cast<unsigned int>(lPos >> 32) | (bPreGet ? 0x80000000U : 0));
    req.beginPosLow = static_cast<int>(static_cast<unsigned int>(lPos));
    req.getSize = nGetSize;
    req.getNum = nGetNum;
    return Send(req, nAppend);
}

bool FilePeer::Heartbeat(unsigned int nSrcWorkId, unsigned int nDstWorkId)
{
    ReqWorkFileAgentHeartbeat req;
    req.dstWorkId = static_cast<int>(nDstWorkId);
    req.srcWorkId = static_cast<int>(nSrcWorkId);
    return Send(req, 9);
}

std::vector<unsigned char> FilePeer::ReadPacket(int nTimeoutMs)
{
    int64_t lDeadline = SteadyMs() + nTimeoutMs;
    while (m_fd >= 0) {
        unsigned int nHeld = static_cast<unsigned int>(m_vecBuf.size() - m_nStart);
        int nPacket = brel_lib::asn_packet_complete(m_vecBuf.data() + m_nStart, nHeld);
        if (nPacket > 0) {
            std::vector<unsigned char> packet(m_vecBuf.begin() + static_cast<long>(m_nStart),
                                              m_vecBuf.begin() + static_cast<long>(m_nStart) + nPacket);
            m_nStart += static_cast<size_t>(nPacket);
            return packet;
        }
        if (nPacket < 0) return {};
        if (m_nStart > 0) {
            m_vecBuf.erase(m_vecBuf.begin(), m_vecBuf.begin() + static_cast<long>(m_nStart));
            m_nStart = 0;
        }
        int64_t lLeft = lDeadline - SteadyMs();
        if (lLeft <= 0 || !WaitFd(m_fd, POLLIN, static_cast<int>(lLeft))) return {};
        size_t nOld = m_vecBuf.size();
        m_vecBuf.resize(nOld + 1048576);
        ssize_t r = recv(m_fd, m_vecBuf.data() + nOld, 1048576, MSG_DONTWAIT);
        m_vecBuf.resize(nOld + (r > 0 ? static_cast<size_t>(r) : 0));
        if (r == 0 || (r < 0 && errno != EINTR && errno != EAGAIN)) return {};
    }
    return {};
}

bool FilePeer::Next(FileBlock& out, int nTimeoutMs)
{
    std::vector<unsigned char> bytes = ReadPacket(nTimeoutMs);
    if (bytes.empty()) return false;
    ZikPacket packet;
    unsigned int nUsed = 0;
    if (brel_lib::ParseFromBuffer(packet, nUsed, reinterpret_cast<char*>(bytes.data()),
                                  static_cast<unsigned int>(bytes.size())) != 0 ||
        packet.body.get() == nullptr || packet.body->choiceId != Zik::rspWorkFileAgentGetCid) {
        return false;
    }
    const RspWorkFileAgentGet& rsp = *packet.body->rspWorkFileAgentGet;
    out.ret = rsp.ret;
    out.nAppend = packet.append;
    out.nDstWorkId = static_cast<unsigned int>(rsp.dstWorkId.value);
    out.nSrcWorkId = static_cast<unsigned int>(rsp.srcWorkId.value);
    out.nAccessBit = static_cast<unsigned int>(rsp.srcFileAccessBit.value);
    out.strContent.assign(rsp.content.octs == nullptr ? "" : rsp.content.octs, rsp.content.octetLen);
    out.strMd5.assign(rsp.md5.octs == nullptr ? "" : rsp.md5.octs, rsp.md5.octetLen);
    out.lPos = Join(rsp.beginPosHigh, rsp.beginPosLow);
    out.lTotal = Join(rsp.totalSizeHigh, rsp.totalSizeLow);
    return true;
}

bool FilePeer::WaitClosedBySource(int nTimeoutMs)
{
    int64_t lDeadline = SteadyMs() + nTimeoutMs;
    while (m_fd >= 0) {
        int64_t lLeft = lDeadline - SteadyMs();
        if (lLeft <= 0 || !WaitFd(m_fd, POLLIN, static_cast<int>(lLeft))) return false;
        char buf[65536];
        ssize_t r = recv(m_fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (r == 0 || (r < 0 && errno == ECONNRESET)) return true;
    }
    return false;
}

bool AnswerGet(TestWorkServer& source, unsigned int nDstWorkId, unsigned long long lPos, const std::string& strContent,
               unsigned long long lTotal, const std::string* pMd5, int ret)
{
    RspWorkFileAgentGet rsp;
    rsp.ret = ret;
    rsp.dstWorkId = static_cast<int>(nDstWorkId);
    rsp.srcWorkId = 9;
    rsp.srcFileAccessBit = 0640;
    rsp.content.Set(strContent.data(), strContent.size());
    std::string strMd5 = pMd5 != nullptr ? *pMd5 : brel_lib::md5(strContent);
    rsp.md5.Set(strMd5.data(), strMd5.size());
    rsp.beginPosHigh = static_cast<int>(lPos >> 32);
    rsp.beginPosLow = static_cast<int>(lPos & 0xFFFFFFFFU);
    rsp.totalSizeHigh = static_cast<int>(lTotal >> 32);
    rsp.totalSizeLow = static_cast<int>(lTotal & 0xFFFFFFFFU);
    return source.Send(rsp, 0);
}

PortHolder::PortHolder(unsigned short nPort)
{
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int nOn = 1;
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    m_bOwn = bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 && listen(m_fd, 1) == 0;
}

PortHolder::~PortHolder() { close(m_fd); }

unsigned short FreePortPair()
{
    std::random_device rd;
    std::mt19937 gen(rd());
    for (int i = 0; i < 100; ++i) {
        unsigned short nPort = static_cast<unsigned short>(30000 + gen() % 30000);
        PortHolder a(nPort), b(static_cast<unsigned short>(nPort - 1));
        if (a.Own() && b.Own()) return nPort;
    }
    return 0;
}

long ResidentKiB(int pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string strLine;
    while (std::getline(in, strLine)) {
        if (strLine.compare(0, 6, "VmRSS:") == 0) return std::stol(strLine.substr(6));
    }
    return -1;
}

} // namespace agent_test
