// The file source: offers files of this host to destination agents. On a
// server's request it records a source work, opens its listening port if none
// is open, and answers with addresses and port; it then admits the requests
// of destination agents for known works, hands the reads to a pool of read
// threads, expires works that nobody reads, and closes the listener after an
// idle time. It answers the server by pushing onto the session's send buffer.
#pragma once

#include <time.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "asn_parse.h"
#include "common/reply_route.h"
#include "data_buffer.h"
#include "file_trans_svr/file_read_thread.h"
#include "file_trans_svr/file_svr_req.h"
#include "network/network_server.h"
#include "thread.h"
#include "zik_pkt.h"

// Bits of a source work's flag.
enum {
    FILE_SVR_FLAG_QUIET = 0x1,  // no info line at create
    FILE_SVR_FLAG_NO_DELETE_REPLY = 0x40,
    FILE_SVR_FLAG_CREATE2_REPLY = 0x200,  // answer with RspWorkFileSrcCreate2
    FILE_SVR_FLAG_CACHE_FILE = 0x400,  // a file of the cache: renewed, no permission check
    FILE_SVR_FLAG_CHECK_DAEMON = 0x8000,  // the user daemon must be able to read it
};

// One source work.
struct FileTransSvr {
    std::string strSrcFile;
    std::string strDstIp;  // empty if the request gave 0
    unsigned int nFlag = 0;
    unsigned int nWorkId = 0;
    unsigned int nDstWorkId = 0;  // learnt from the client's first request
    unsigned int nConnectId = 0;  // the connection that last spoke for it
    time_t nLastGetTime = 0;  // equal to nBeginTime while no client came
    time_t nBeginTime = 0;
    std::string strCacheId;
};

// The reply records of the source, filled in one place for the manager and
// for the session's own failure replies; ret 0 carries the listener.
void FillFileSrcCreate(RspWorkFileSrcCreate& rsp, unsigned int nWorkId, const ReplyRoute& route, int ret,
                       unsigned int nIp, unsigned short nPort);
void FillFileSrcCreate2(RspWorkFileSrcCreate2& rsp, unsigned int nWorkId, const ReplyRoute& route, int ret,
                        const std::vector<unsigned int>& vecIp, unsigned short nPort, time_t tModify,
                        unsigned long long lFileSize);
void FillFileSrcDelete(RspWorkFileSrcDelete& rsp, unsigned int nWorkId, const ReplyRoute& route, int ret);

class CFileTransSvrManager : public brel_lib::CThread {
public:
    // Largest request a destination sends, by far: a longer packet closes its connection.
    static constexpr unsigned int CLIENT_PACKET_MAX = 65536;

    explicit CFileTransSvrManager(brel_lib::CDataBufferSTLDeque& sendDataBufferMain);
    ~CFileTransSvrManager() override;

    // Session, before Start.
    void SetCfgFile(const std::string& strCfgFile) { m_strCfgFile = strCfgFile; }
    // Any thread: the manager's thread reloads at its next pass.
    void ReloadCfg()
    {
        m_bLoadCfg = true;
        WakeUp();
    }

    // Session thread: the checks of a create (stat, the user daemon, the
    // expected MD5), then the work is queued; 0, or the code to report.
    int CreateTransSvr(ReqWorkFileSrcCreate* pPacket, const std::string& strMd5, int nAppend);
    int DeleteTransSvr(ReqWorkFileSrcDelete* pPacket, int nAppend);

    // Listening loop's thread: a connection event, queued for the manager.
    void NetCallback(unsigned int nConnectId, brel_lib::BREL_NET_CALLBACK_TYPE type, int nSockFd);
    // Any thread: the manager owns the object from here on.
    void AddReq(CFileSvrReqBase* pReq);
    // Any thread, for the metrics: the works as of the manager's last pass.
    unsigned int WorkCount() const { return m_nWorkCount.load(std::memory_order_relaxed); }

    void Run() override;

    // The steps of the requests, on the manager's thread.
    void Create(CFileSvrReqCreate* pReq);
    void Delete(CFileSvrReqDelete* pReq);
    void NetCallback(CFileSvrReqNetCallback* pReq);

private:
    struct FileMd5 {
        time_t timeModify = 0;  // the file's modification time when it was summed
        time_t timeLastUsed = 0;  // when the entry was made
        std::string strMd5;
    };
    // A connection of a destination agent.
    struct ClientConnect {
        unsigned int nThreadId = 0;
        int nSockFd = -1;
        std::string strIp;
    };

    void LoadCfg(bool bFirst);
    void LoadBindEth(const std::string& strBindEth);
    int CheckDaemonMayRead(const struct stat& st, unsigned int nWorkId);
    int CheckFileMd5(const std::string& strSrcFile, time_t tFileModify, const std::string& strMd5,
                     unsigned int nWorkId);
    void CleanMd5Map();
    int OpenListener(unsigned short& nPort);

    void DealRequests();
    void DealFileClientReq(char* pData, unsigned int nSize, unsigned int nConnectId);
    int UpdateClientInfo(unsigned int nWorkId, unsigned int nDstWorkId, unsigned int nConnectId);
    bool ClientMayRead(const FileTransSvr& work, const ClientConnect& client, const std::string& strSrcFile);
    void CloseClientOf(unsigned int nConnectId);
    void DealAutoDelete();
    void AutoDeleteWork(std::map<unsigned int, FileTransSvr>::iterator it, bool bMarkEnd);
    void DealIdleListener();
    // The time the next timed step of the loop comes due.
    time_t NextDeadline(time_t timePreTestAutoDelete) const;
    void PrintAgentInfo();

    void SendFileSrcToServerCreateOk(unsigned int nIp, unsigned short nPort);
    void SendFileSrcToServerCreateFailed(int ret);
    void SendFileSrcToServerCreate2Ok(const std::vector<unsigned int>& vecIp, unsigned short nPort, time_t tModify,
                                      unsigned long long lFileSize);
    void SendFileSrcToServerCreate2Failed(int ret);
    void SendFileSrcToServerDeleteOk();
    void SendFileSrcToServerDeleteFailed(int ret);
    ReplyRoute NowRoute() const;
    template <class T>
    void SendToServerMain(T& message);

    // Queues: packets of the connections (append: the connection id), the
    // request objects (nothing else), the answers to the connections (filled
    // by the read threads) and the session's send buffer.
    brel_lib::CDataBufferSTLDeque m_revDataBuffer;
    brel_lib::CDataBufferSTLDeque m_reqQueue;
    brel_lib::CDataBufferSTLDeque m_sendDataBuffer;
    brel_lib::CDataBufferSTLDeque& m_sendDataBufferMain;
    brel_lib::CNetworkServerBrel m_networkServer;
    std::string m_strCfgFile;

    // Session thread: the sums already computed, by path; m_lockMd5 guards
    // the map against the clean-up of the manager's thread.
    brel_lib::CLock m_lockMd5;
    std::map<std::string, FileMd5> m_mapFileMd5;
    std::atomic<unsigned int> m_nCheckMd5MaxSize{0x6400000};
    std::atomic<unsigned long long> m_lWorkAllCount{0};

    // Manager's thread only.
    brel_lib::CPacketBuffer m_packetBuf;
    time_t m_timeLastCleanMd5Map = 0;
    std::map<unsigned int, FileTransSvr> m_mapWork;
    std::map<unsigned int, unsigned int> m_mapConnectIdThreadId;
    std::map<unsigned int, ClientConnect> m_mapClient;
    std::vector<unsigned int> m_vecBindEth;
    std::string m_strBindIp;
    unsigned short m_nBindPort = 0;
    unsigned int m_nNowWorkId = 0;
    int m_nNowAppend = 0;
    unsigned int m_nNowRouteSrcServerIp = 0;
    unsigned int m_nNowRouteSrcServerId = 0;
    unsigned int m_nMaxFileReadThread = 4;
    unsigned int m_nWorkMaxConcurrent = 100;
    int m_nSvrThreadKeepTimeoutSecond = 600;
    int m_nNotGetKeepSecondBeforeAutoDelete = 600;
    int m_nMaxSendSpeed = 0;
    bool m_bCheckClient = false;
    std::vector<CFileReadThread*> m_vecFileReadThread;
    unsigned int m_nNowFileReadThread = 0;
    time_t m_timeLastTaskEnd = 0;
    bool m_bPrintAgentInfo = false;

    // Written by other threads.
    std::atomic<time_t> m_tServerLastRunning{0};  // 0 while the listener is closed
    std::atomic<bool> m_bLoadCfg{false};
    // Written at the end of each of the manager's passes.
    std::atomic<unsigned int> m_nWorkCount{0};
};

// Registered with the listening loop; the context is the manager.
void FileTransSvrNetCallback(unsigned int nConnectId, brel_lib::BREL_NET_CALLBACK_TYPE type, void* pAppend,
                             int nSockFd);
// The framing of the source's connections: as the stream's, but a packet
// announced longer than CLIENT_PACKET_MAX condemns the stream at once.
int FileSvrPacketComplete(const void* pData, unsigned int nDataLen);

extern const char* const g_strFileTransSvrInfo;
