// An IPv4 TCP socket and the ways of connecting and listening that the
// network classes use.
#pragma once

#include <atomic>
#include <string>

namespace brel_lib {

// An IPv4 TCP socket; owns its descriptor until Detach. Results are 0 or errno
// unless said otherwise.
class CSocket {
public:
    CSocket() = default;
    virtual ~CSocket() { Close(); }
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    int Create();
    // -1 without a socket; -2 for an IP that does not parse; empty IP: any address.
    int Bind(const std::string& strIp, unsigned short nPort);
    int Listen();  // backlog 32
    // Stores the new descriptor in client, without closing what client held.
    int Accept(CSocket& client);
    // -1 for an empty or unparsable IP.
    int Connect(const std::string& strIp, unsigned short nPort);
    int Send(unsigned int& nSendLen, const void* pBuf, unsigned int nSize);
    int Receive(unsigned int& nReceiveLen, void* pBuf, unsigned int nBufSize);
    int Close();
    int Shutdown();
    int Attach(int fd);
    int Detach();
    int SetBlockOrNon(bool bBlock);
    int SetReuseAddrOrNon(bool bReuse);
    // Small packets leave at once instead of waiting for the peer's delayed ACK.
    int SetNoDelay(bool bNoDelay);
    int GetPeerName(std::string& strIp, unsigned short& nPort);
    int GetSockName(std::string& strIp, unsigned short& nPort);
    int GetSocket() const { return m_sockFd; }

    // Waits in 50 ms tries for a non-blocking connect to finish: 0 connected,
    // SO_ERROR of a failed connect, -1 out of time or stopped, errno of epoll.
    int TestConnected(const std::atomic<unsigned int>& nContinueRun, unsigned int nTimeoutMilliSecond);
    // A listening socket; the IP is bound only if not empty.
    int CreateServer(const std::string& strIp, unsigned short nPort, bool bBlockOrNon, bool bSetReuseAddr);
    int ConnectToServerBlock(const std::string& strIp, unsigned short nPort, unsigned int nTimeoutMilliSecond);
    int ConnectToServerNonBlock(const std::string& strIp, unsigned short nPort,
                                const std::atomic<unsigned int>& nContinueRun, unsigned int nTimeoutMilliSecond);
    int ConnectToServerAsync(const std::string& strIp, unsigned short nPort);

private:
    // Connects a new socket and takes it over only once it stands, so the
    // current connection is untouched by a failed attempt.
    int ConnectToServerPrivate(const std::string& strIp, unsigned short nPort, bool bBlockOrNon,
                               const std::atomic<unsigned int>& nContinueRun, bool bSync,
                               unsigned int nTimeoutMilliSecond);

    // Read by other threads (IsConnected of the link), written by the owner.
    std::atomic<int> m_sockFd{-1};
};

} // namespace brel_lib
