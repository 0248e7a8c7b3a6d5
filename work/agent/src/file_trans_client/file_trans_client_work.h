// The record of one destination work, kept by value in its write thread's
// map, so that a pointer to it stays good until the work is erased. Every
// field belongs to that one thread.
#pragma once

#include <time.h>

#include <string>
#include <vector>

#include "md5.h"

// Roles of a work in the sharing of one pull by a cache id.
enum { FTC_TRANS_COMMON = 0, FTC_TRANS_MASTER = 1, FTC_TRANS_SLAVE = 2 };

struct FileTransClient {
    unsigned int nWorkId = 0;
    std::string strSrcFile;
    std::string strDstFile;  // empty until the first block arrives
    std::string strDstPath;  // a directory, a file, or the cache id
    std::vector<std::string> vecSrcServerIp;
    unsigned short nSrcServerPort = 0;
    unsigned int nNowUseServerIp = 0;
    bool bConnectOk = false;
    bool bIsFirstMaster = false;  // the create is still to be answered by the connect
    unsigned int nSrcWorkId = 0;
    unsigned int nFlag = 0;
    int nTimeoutSecond = 0;
    int nAppend = 0;
    unsigned int nRouteSrcServerIp = 0;
    unsigned int nRouteSrcServerId = 0;
    unsigned int nConnectId = 0;
    unsigned int nStatus = 0;
    unsigned int nRetryConnectCount = 0;
    unsigned int nNowGetNum = 0;
    unsigned int nNowAllGetNum = 0;
    unsigned int nNowInGetNum = 0;
    unsigned int nNowGetSize = 0;
    unsigned long long lInGetSize = 0;
    // The statistics period of the speed adaption.
    unsigned long long lStatSpeedSum = 0;
    unsigned int nStatDataSize = 0;
    unsigned int nStatPacketNum = 0;
    unsigned int nStatDealMSecond = 0;
    unsigned int nStatDealDataSize = 0;
    time_t nStatBeginTime = 0;
    time_t nLastReqTime = 0;
    time_t nLastRspTime = 0;
    time_t nBeginTime = 0;
    time_t nEndTime = 0;
    unsigned int nNowReportResultCount = 0;
    int nErrno = 0;
    unsigned long long nNowPos = 0;
    unsigned long long nTotalSize = 0;
    int nTransType = FTC_TRANS_COMMON;
    std::string strCacheId;
    unsigned int nFirstSrcAgentId = 0;
    std::string strFirstSrcFile;
    time_t tFileModify = 0;
    unsigned long long lFileSize = 0;
    // The opt-in whole-file check: the MD5 that the create expects, and the
    // digest of the blocks as this work wrote them, kept only while it wrote
    // the file from position 0 itself (a slave that took over reads the file).
    std::string strFileMd5;
    brel_lib::MD5 md5Written;
    bool bMd5Written = false;
};

// A slave takes the progress of its master: status, pipeline, statistics,
// times of the pull, result, position and size; not its identity, route,
// flags, own times, addresses, connection or role.
void CopySlaveFromMaster(const FileTransClient& taskMaster, FileTransClient& taskSlave);
// The address in use, as text; empty past the list.
const char* NowIp(const FileTransClient& task);
