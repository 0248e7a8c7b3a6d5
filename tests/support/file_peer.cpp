#include "file_peer.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <string>

#include "md5.h"

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

bool FilePeer::Connect(unsigned short nPort, int nTimeoutMs)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    m_conn.Attach(fd);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int nErr = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 ? 0 : errno;
    socklen_t nLen = sizeof(nErr);
    if (nErr == EINPROGRESS && WaitFd(fd, POLLOUT, nTimeoutMs)) getsockopt(fd, SOL_SOCKET, SO_ERROR, &nErr, &nLen);
    if (nErr != 0) {
        Close();
        return false;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return true;
}

bool FilePeer::WriteRaw(const std::vector<unsigned char>& bytes)
{
    size_t nDone = 0;
    while (nDone < bytes.size()) {
        if (!WaitFd(Fd(), POLLOUT, 5000)) return false;
        ssize_t r = send(Fd(), bytes.data() + nDone, bytes.size() - nDone, MSG_NOSIGNAL | MSG_DONTWAIT);
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
    std::vector<unsigned char> packet;
    return m_conn.IsOpen() && m_conn.ReadPacket(packet, nTimeoutMs) == 1 ? packet : std::vector<unsigned char>();
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
    for (int64_t lLeft = nTimeoutMs; m_conn.IsOpen() && lLeft > 0; lLeft = lDeadline - SteadyMs()) {
        int n = m_conn.ReadSome(static_cast<int>(lLeft));
        if (n == 0) return true;
        if (n < 0) return false;
        m_conn.Pending().clear();
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

// Outside the range the kernel hands out to outgoing connections, so that the
// pair stays free between the check and the agent's bind: any client of a
// test running beside this one would otherwise take its ports from there.
unsigned short FreePortPair()
{
    unsigned int nLow = 32768, nHigh = 60999;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> nLow >> nHigh;
    // The wider of the two gaps around that range, or anywhere if both are narrow.
    unsigned int nFirst = 10000, nLast = nLow > nFirst ? nLow - 1 : nFirst;
    if (65000 > nHigh && 65000 - nHigh > nLast - nFirst) nFirst = std::max(nHigh + 1, 10000u), nLast = 65000;
    if (nLast < nFirst + 1000) nFirst = 10000, nLast = 60000;
    std::random_device rd;
    std::mt19937 gen(rd());
    for (int i = 0; i < 100; ++i) {
        unsigned short nPort = static_cast<unsigned short>(nFirst + 1 + gen() % (nLast - nFirst));
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
