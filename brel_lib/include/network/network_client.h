// The agent's one TCP link to a work server: a thread that connects to the
// servers of its list in a ring, cuts whole packets out of the stream into a
// receive buffer and sends what others put into a send buffer. It reconnects
// by itself, for ever, and knows nothing of the packets' content.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "data_buffer.h"
#include "network/connection.h"
#include "network/socket.h"
#include "thread.h"

namespace brel_lib {

class CNetworkClientBrel : public CThread {
public:
    enum NET_FLAG {
        NET_FLAG_CONNECT_NEW_SERVER = 1,   // drop the link, start again at the first server
        NET_BUFFER_AUTO_ADJUST = 2,        // give the receive buffer's memory back now
        NET_FLAG_CONNECT_NEXT_SERVER = 4,  // drop the link, go on with the next server
    };
    struct ServerInfo {
        std::string strIp;
        unsigned short nPort;
    };

    // bReConnClearBufData: a reconnect throws away what waits to be sent.
    CNetworkClientBrel(CDataBufferSTLDeque& revBuffer, CDataBufferSTLDeque& sendBuffer, bool bReConnClearBufData);
    ~CNetworkClientBrel() override;

    using CThread::Start;
    // true: a thread of its own; false: runs on the caller until Stop.
    int Start(bool bUseNewThread);
    int Stop() override;

    // Server list; any thread. An entry already present is not added twice.
    int AddServer(const std::string& strIp, unsigned short nPort);
    int DelServer(const std::string& strIp, unsigned short nPort);
    void ClearServer();
    // Replaces the whole list in one locked step (entries with a bad IP are
    // skipped) and starts again at its first entry; so a move between servers
    // never shows the link thread an empty list. -1 if nothing valid remains.
    int ReplaceServers(const std::vector<ServerInfo>& vecServer);
    std::vector<ServerInfo> GetServers();

    // Any thread.
    void SetFlag(NET_FLAG flag)
    {
        m_nFlag |= flag;
        WakeUp();
    }
    void SetServerSwitchSecond(unsigned int nSecond) { m_nServerConnectFailedSwitchMilliSecond = nSecond * 1000; }
    void SetConnectFailedSwitchTime(unsigned int nMilliSecond) { m_nServerConnectFailedSwitchMilliSecond = nMilliSecond; }
    void SetConnectTimeout(unsigned int nMilliSecond) { m_nConnectTimeout = nMilliSecond; }
    void SetConnectFailedSleepTime(unsigned int nMilliSecond) { m_nConnectFailedSleepTime = nMilliSecond; }
    // Before Start.
    void SetNetCallback(BrelNetCallback pCallback, void* pAppend);
    void SetPacketCompleteFun(BrelNetPacketCompleteFun pFun) { m_funBrelNetPacketComplete = pFun; }

    // Any thread: true while the link holds a socket.
    bool IsConnected() const { return m_sockTcp.GetSocket() >= 0; }
    // Any thread: the addresses of the current connection, as noted at its
    // connect; -1 while there is none. Never read from the descriptor, whose
    // number the link thread may close and the process reuse at any moment.
    int GetLocalIpPort(std::string& strIp, unsigned short& nPort);
    int GetRemoteIpPort(std::string& strIp, unsigned short& nPort);

    void Run() override;

private:
    enum { RECEIVE_BUF_SIZE = 8192, ADJUST_SECOND = 120, TOKEN_WAIT_MILLISECOND = 50 };

    int ConnectToServer();
    // Copies the current entry, wrapping the index; false on an empty list.
    bool CurrentServer(ServerInfo& server);
    bool TakeFlag(unsigned int nFlag) { return (m_nFlag.fetch_and(~nFlag) & nFlag) != 0; }
    // Takes a flag of the move kind, logs it for the calling function and moves the index.
    bool TakeMoveFlag(NET_FLAG flag, const char* szFunction);
    int SendData();
    int ReceiveData();
    void AdjustBufSize();
    void EpollMod(int epfd, int fd, uint32_t event, bool bAddOrMod);
    void ResetDataState();
    // Link thread: note the addresses of a new connection for other threads.
    void NoteAddresses();
    // Link thread: forgets the addresses, then closes the socket.
    void CloseSocket();
    void UnInit();

    const bool m_bReConnectClearBufData;
    CDataBufferSTLDeque& m_revBuffer;
    CDataBufferSTLDeque& m_sendBuffer;

    // Link thread only, but for the descriptor, which IsConnected reads. The
    // socket owns the descriptor; m_connect holds the connection's state, with
    // the descriptor as its id and the current server's address for log lines.
    CSocket m_sockTcp;
    ConnectInfo m_connect;

    // Guarded by m_lock: the list and the index into it, and the addresses
    // of the current connection (written by the link thread only).
    CLock m_lock;
    std::vector<ServerInfo> m_vecServer;
    unsigned int m_nNowUseServerId = 0;
    bool m_bHaveAddresses = false;
    ServerInfo m_local{"", 0};
    ServerInfo m_remote{"", 0};

    // Any thread.
    std::atomic<unsigned int> m_nFlag{0};
    std::atomic<bool> m_bUseNewThread{true};
    std::atomic<unsigned int> m_nServerConnectFailedSwitchMilliSecond{600000};
    std::atomic<unsigned int> m_nConnectTimeout{10000};
    std::atomic<unsigned int> m_nConnectFailedSleepTime{10000};

    // Set before Start.
    BrelNetCallback m_funBrelNetCallback = nullptr;
    void* m_pBrelNetCallbackAppend = nullptr;
    BrelNetPacketCompleteFun m_funBrelNetPacketComplete = asn_packet_complete;
};

} // namespace brel_lib
