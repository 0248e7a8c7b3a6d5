// A write thread of the file destination: it owns a share of the destination
// works and does everything that touches them in one loop (requests from the
// manager, connection events, received blocks, the periodic sweep), so that
// a work record needs no lock. Other threads reach a work only by posting a
// request object (file_write_req.h).
#pragma once

#include <time.h>

#include <atomic>
#include <list>
#include <map>
#include <string>

#include "asn_parse.h"
#include "data_buffer.h"
#include "file_trans_client/file_trans_client_work.h"
#include "file_trans_client/file_write_req.h"
#include "file_trans_client/two_priority_queue.h"
#include "network/network_multi_client.h"
#include "thread.h"
#include "zik_pkt.h"

class CFileTransClientManager;

class CFileWriteThread : public brel_lib::CThread {
public:
    CFileWriteThread(int nThreadId, brel_lib::CDataBufferSTLDeque& revDataBuffer,
                     brel_lib::CDataBufferSTLDeque& sendDataBuffer, brel_lib::CDataBufferSTLDeque& sendDataBufferMain,
                     brel_lib::CNetworkMultiClientBrel& networkMultiClient, CFileTransClientManager* pParent);
    ~CFileWriteThread() override;

    // Any thread: the thread owns the request from here on.
    void AddReq(CFileWriteReqBase* pReq);
    // Any thread, for the metrics: adds the works by stage as of the thread's
    // last pass, and returns the requests waiting.
    void CountWorks(unsigned int nByStage[3]) const;
    unsigned int QueuedRequests();
    void Run() override;
    // Any thread: the thread looks at its flag and its deadline now.
    void WakeUp() override;

    // The steps of the requests, on the thread itself.
    void CreateTransClient(CFileWriteReqCreate* pReq);
    void CreateTransClient2(CFileWriteReqCreate2* pReq);
    void SetActionWork(CFileWriteReqSetAction* pReq);
    void QueryWork(CFileWriteReqQuery* pReq);
    void DeleteWork(CFileWriteReqDelete* pReq);
    void ReceiveFileData(CFileWriteReqReceiveData* pReq);
    void NetConnectCallback(CFileWriteReqNetConnectCallback* pReq);
    void PrintAgentInfo();

    int ConnectToFileServerAsync(FileTransClient& task);
    void DealConnectFailedWork(FileTransClient& task);
    void ReqFileAgentHeartbeat(FileTransClient& task);

    // The pull (file_pull.cpp).
    void ReqFileAgentGet(FileTransClient& task);
    void ReqFileAgentPreGet(FileTransClient& task);
    // strOurMd5: the content's digest where it was computed ahead, or empty.
    void RspFileAgentGet(RspWorkFileAgentGet* pPacket, unsigned int nSpeed, const std::string& strOurMd5 = "");

    // The end of a work and the sweep (file_finish.cpp).
    void FinishWork(FileTransClient& task, int nRet);
    void DealReGetAndAutoDelete();

private:
    // Decodes the block of a data request, and frees it.
    static void Decode(CFileWriteReqReceiveData* pReq);
    // Decodes the data request and those waiting behind it, and sums the
    // contents of the batch together.
    void DigestAhead(CFileWriteReqReceiveData* pFirst);
    void SetNowFrom(const FileWriteReqRoute& req);
    void SetNowFrom(const FileTransClient& task);
    FileTransClient& MakeWork(const CFileWriteReqCreate& req);
    void FixReqSizeAndNum(FileTransClient& task);
    void SendGet(FileTransClient& task, unsigned long long lBeginPos, bool bPreGet);
    // The steps of one accepted block (file_pull.cpp); false: the work ended.
    void SettleDstFile(FileTransClient& task, int& nOpenFlag, bool& bFileExist);
    bool WriteBlock(FileTransClient& task, const char* pContent, unsigned int nLength, unsigned long long lBeginPos,
                    unsigned int nAccessBit, int nOpenFlag, bool bGiveToDaemon);
    bool GiveToDaemon(FileTransClient& task, int fd);
    void ContinuePipeline(FileTransClient& task);
    void FinishSlaves(FileTransClient& master, int nRet);
    void DealRunningWork(FileTransClient& task, time_t tNow);
    void LeaveMasterSlaveList(FileTransClient& task);
    void PrintWork(FILE* fp, const FileTransClient& task);
    void PublishStages();

    // The replies to the server (file_dst_reply.cpp).
    void SendFileDstToServerCreateOk();
    void SendFileDstToServerCreateFailed(int nRet);
    void SendFileDstToServerSetActionOk();
    void SendFileDstToServerSetActionFailed(int nRet);
    void SendFileDstToServerQueryOk(const FileTransClient& task);
    void SendFileDstToServerQueryFailed(int nRet);
    void SendFileDstToServerDeleteOk();
    void SendFileDstToServerDeleteFailed(int nRet);
    template <class T>
    void SendToServerMain(T& message, int nAppend);
    template <class T>
    void SendToServerFile(T& message);

    const int m_nThreadId;
    // Shared with the manager; each buffer has its own lock.
    brel_lib::CDataBufferSTLDeque& m_revDataBuffer;
    brel_lib::CDataBufferSTLDeque& m_sendDataBuffer;
    brel_lib::CDataBufferSTLDeque& m_sendDataBufferMain;
    brel_lib::CNetworkMultiClientBrel& m_networkMultiClient;
    CFileTransClientManager* m_pParent;

    // m_lock guards m_deqReq only; the event is set and cleared under it.
    brel_lib::CLock m_lock;
    brel_lib::CEvent m_dataEventReq;
    CTwoPriorityQueue<CFileWriteReqBase*> m_deqReq;

    // The thread's own: the works, the lists of works sharing a cache id, the
    // encoding block, the register of the work answered for, the counters.
    std::map<unsigned int, FileTransClient> m_mapWork;
    std::map<std::string, std::list<FileTransClient*>> m_mapWorkMasterSlave;
    brel_lib::CPacketBuffer m_packetBuf;
    unsigned int m_nNowWorkId = 0;
    int m_nNowAppend = 0;
    unsigned int m_nNowRouteSrcServerIp = 0;
    unsigned int m_nNowRouteSrcServerId = 0;
    unsigned int m_nNowConnectId = 0;
    unsigned long long m_lWorkAllCount = 0;
    unsigned int m_nWorkFailedCount = 0;
    unsigned long long m_lAllGetSize = 0;
    time_t m_timeLastTaskEnd = 0;

    // Written by the thread at the end of each pass, read by the metrics.
    std::atomic<unsigned int> m_nWorksByStage[3] = {};
};

extern const char* const g_strFileTransClientInfo;
