// The front of the file destination: it checks the server's create requests
// and refuses bad ones by its result, chooses the write thread of a work,
// starts the connecting loop with the first work and stops it after an idle
// time, routes set-action, query and delete by work id and received packets
// and connection events by connect id to the right write thread, and starts
// the dump. It keeps no work data, only the two routing maps.
#pragma once

#include <time.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "data_buffer.h"
#include "file_trans_client/file_write_thread.h"
#include "network/network_multi_client.h"
#include "thread.h"
#include "zik_pkt.h"

class CFileTransClientManager : public brel_lib::CThread {
public:
    explicit CFileTransClientManager(brel_lib::CDataBufferSTLDeque& sendDataBufferMain);
    ~CFileTransClientManager() override;

    // Session, before Start.
    void SetCfgFile(const std::string& strCfgFile) { m_strCfgFile = strCfgFile; }
    // Main thread, at a reload.
    void ReloadCfg();

    // Session thread: 0 when the write thread will reply, or the ret code
    // that the session sends back itself.
    // strFileMd5: the whole file's MD5 that the work is to end with, for the
    // opt-in check; the server's create records carry none, so it is empty
    // unless a caller in the agent knows it.
    int CreateTransClient(ReqWorkFileDstCreate* pPacket, int nAppend, const std::string& strFileMd5 = std::string());
    int CreateTransClient2(ReqWorkFileDstCreate2* pPacket, int nAppend,
                           const std::string& strFileMd5 = std::string());
    int SetActionWork(ReqWorkFileDstSetAction* pPacket, int nAppend);
    int QueryWork(ReqWorkFileDstQuery* pPacket, int nAppend);
    int DeleteWork(ReqWorkFileDstDelete* pPacket, int nAppend);

    // Loads the settings and builds the write threads before the manager's
    // thread starts, so that a create always finds them.
    int Start() override;
    void Run() override;
    // Any thread: the manager looks at its flag and its deadline now.
    void WakeUp() override;

    // Write threads: a work is gone; and around the start of a connect, so
    // that no event of the new connection passes before its route exists.
    void DeleteWorkId(unsigned int nWorkId);
    void BuildMapConnectIdAndThreadId(unsigned int nWorkId, unsigned int nConnectId);  // Lock held
    void Lock() { m_lock.Lock(); }
    void UnLock() { m_lock.UnLock(); }

    // Session thread, for the metrics: the works by stage and the requests
    // waiting, over all write threads.
    void CountWorks(unsigned int nByStage[3], unsigned int& nQueued);

    // Network thread of the connecting loop.
    void NetCallback(unsigned int nConnectId, brel_lib::BREL_NET_CALLBACK_TYPE nType, int fd);

private:
    void LoadCfg(bool bFirst);
    void PrintAgentInfo();
    int CheckDaemonMayWrite(const char* szFunction, unsigned int nWorkId, const std::string& strDstPath,
                            const std::string& strSrcName);
    // m_lock held: the limit and the work id; 0 or the refusal.
    int CheckNewWork(const char* szFunction, unsigned int nWorkId, const std::string& strSrcFile,
                     const std::string& strIp, unsigned short nPort, bool bLast);
    CFileWriteThread* TakeNextThread(unsigned int nWorkId);  // m_lock held
    void DealReceivedPackets(unsigned int nWaitMilliSecond);
    // The wait before the next pass: until the client loop's idle time is up.
    unsigned int NextWait();
    void DealIdleClient();
    template <class T>
    int RouteRequest(const char* szFunction, T* pPacket, CFileWriteReqBase* pReq, FileWriteReqRoute& route,
                     int nAppend);

    brel_lib::CDataBufferSTLDeque& m_sendDataBufferMain;
    brel_lib::CDataBufferSTLDeque m_revDataBuffer;
    brel_lib::CDataBufferSTLDeque m_sendDataBuffer;
    brel_lib::CNetworkMultiClientBrel m_networkMultiClient;
    std::string m_strCfgFile;

    // m_lock guards the two maps, the round robin and m_tServerLastRunning.
    // It comes before a write thread's lock and before the cache's.
    brel_lib::CLock m_lock;
    std::map<unsigned int, unsigned int> m_mapWorkIdThreadId;
    std::map<unsigned int, unsigned int> m_mapConnectIdThreadId;
    unsigned int m_nNowFileWriteThread = 0;
    time_t m_tServerLastRunning = 0;  // 0 while the connecting loop is stopped

    // Built by Start before the thread runs, emptied at the end of Run; read
    // without a lock in between.
    std::vector<CFileWriteThread*> m_vecFileWriteThread;
    std::atomic<bool> m_bPrintAgentInfo{false};
};

// Registered with the connecting loop; the context is the manager.
void FileTransClientNetCallback(unsigned int nConnectId, brel_lib::BREL_NET_CALLBACK_TYPE nType, void* pAppend,
                                int fd);
