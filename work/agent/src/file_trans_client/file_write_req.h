// The calls that other threads carry into a write thread: small objects,
// passed as pointers through the thread's queue and executed by DoReq on the
// thread itself, which then deletes them.
#pragma once

#include <time.h>

#include <memory>
#include <string>
#include <vector>

#include "network/connection.h"
#include "zik_pkt.h"

class CFileWriteThread;

enum { FWR_TYPE_CMD = 0, FWR_TYPE_DATA = 1 };

class CFileWriteReqBase {
public:
    explicit CFileWriteReqBase(CFileWriteThread* pWriteThread) : m_pWriteThread(pWriteThread) {}
    virtual ~CFileWriteReqBase() = default;
    virtual void DoReq() = 0;
    virtual int GetType() const { return FWR_TYPE_CMD; }

    CFileWriteThread* m_pWriteThread;
};

// The four fields that every server request brings along for its reply.
struct FileWriteReqRoute {
    unsigned int m_nWorkId = 0;
    int m_nAppend = 0;
    unsigned int m_nRouteSrcServerIp = 0;
    unsigned int m_nRouteSrcServerId = 0;
};

class CFileWriteReqCreate : public CFileWriteReqBase, public FileWriteReqRoute {
public:
    using CFileWriteReqBase::CFileWriteReqBase;
    void DoReq() override;

    std::string m_strSrcFile;
    std::string m_strDstPath;
    std::vector<std::string> m_vecSrcServerIp;
    unsigned short m_nSrcServerPort = 0;
    unsigned int m_nSrcWorkId = 0;
    unsigned int m_nFlag = 0;
    std::string m_strFirstSrcFile;
    int m_nTimeoutSecond = 0;
    std::string m_strFileMd5;  // the whole file's expected MD5; empty for none
};

class CFileWriteReqCreate2 : public CFileWriteReqCreate {
public:
    using CFileWriteReqCreate::CFileWriteReqCreate;
    void DoReq() override;

    unsigned int m_nFirstSrcAgentId = 0;
    time_t m_tFileModify = 0;
    unsigned long long m_lFileSize = 0;
    std::string m_strCacheId;
};

class CFileWriteReqSetAction : public CFileWriteReqBase, public FileWriteReqRoute {
public:
    using CFileWriteReqBase::CFileWriteReqBase;
    void DoReq() override;
};

class CFileWriteReqQuery : public CFileWriteReqBase, public FileWriteReqRoute {
public:
    using CFileWriteReqBase::CFileWriteReqBase;
    void DoReq() override;
};

class CFileWriteReqDelete : public CFileWriteReqBase, public FileWriteReqRoute {
public:
    using CFileWriteReqBase::CFileWriteReqBase;
    void DoReq() override;
};

// A packet of a file connection; the write thread decodes it and frees the block.
class CFileWriteReqReceiveData : public CFileWriteReqBase {
public:
    using CFileWriteReqBase::CFileWriteReqBase;
    ~CFileWriteReqReceiveData() override;  // frees a block that no one took
    void DoReq() override;
    int GetType() const override { return FWR_TYPE_DATA; }

    char* m_pData = nullptr;
    unsigned int m_nSize = 0;
    unsigned int m_nSpeed = 0;
    // Once decoded (the block is freed then): the packet, null if it did
    // not decode, and the digest of its content where it was summed ahead.
    bool m_bDecoded = false;
    std::unique_ptr<ZikPacket> m_pPacket;
    std::string m_strOurMd5;
};

class CFileWriteReqNetConnectCallback : public CFileWriteReqBase {
public:
    using CFileWriteReqBase::CFileWriteReqBase;
    void DoReq() override;

    unsigned int m_nConnectId = 0;
    brel_lib::BREL_NET_CALLBACK_TYPE m_nType = brel_lib::BREL_CONNECT_CLOSE;
    int m_sockFd = -1;
};

class CFileWriteReqPrintAgentInfo : public CFileWriteReqBase {
public:
    using CFileWriteReqBase::CFileWriteReqBase;
    void DoReq() override;
};
