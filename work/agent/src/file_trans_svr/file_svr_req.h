// The calls carried into the source manager's thread: creates and deletes
// from the session, connection events from the listening loop. Passed as
// pointers on a queue of their own, executed by DoReq and then deleted.
#pragma once

#include <time.h>

#include <string>

#include "network/connection.h"

class CFileTransSvrManager;

class CFileSvrReqBase {
public:
    explicit CFileSvrReqBase(CFileTransSvrManager* pSvrManager) : m_pSvrManager(pSvrManager) {}
    virtual ~CFileSvrReqBase() = default;
    virtual void DoReq() = 0;

protected:
    CFileTransSvrManager* m_pSvrManager;
};

class CFileSvrReqCreate : public CFileSvrReqBase {
public:
    using CFileSvrReqBase::CFileSvrReqBase;
    void DoReq() override;

    unsigned int m_nWorkId = 0;
    unsigned int m_nFlag = 0;
    std::string m_strSrcFile;
    std::string m_strDstIp;
    int m_nAppend = 0;
    unsigned int m_nRouteSrcServerIp = 0;
    unsigned int m_nRouteSrcServerId = 0;
    time_t m_tFileModify = 0;
    unsigned long long m_lFileSize = 0;
};

class CFileSvrReqDelete : public CFileSvrReqBase {
public:
    using CFileSvrReqBase::CFileSvrReqBase;
    void DoReq() override;

    unsigned int m_nWorkId = 0;
    int m_nAppend = 0;
    unsigned int m_nRouteSrcServerIp = 0;
    unsigned int m_nRouteSrcServerId = 0;
};

class CFileSvrReqNetCallback : public CFileSvrReqBase {
public:
    using CFileSvrReqBase::CFileSvrReqBase;
    void DoReq() override;

    unsigned int m_nConnectId = 0;
    int m_nSockFd = -1;
    brel_lib::BREL_NET_CALLBACK_TYPE m_nType = brel_lib::BREL_CONNECT_CLOSE;
    // The peer of a new client, read while its descriptor is surely its own.
    std::string m_strClientIp;
    unsigned short m_nClientPort = 0;
};
