// The settings of the file destination. The manager writes them at start and
// at a reload on the main thread; write threads read them at any time, so
// each is an atomic word: a reader sees the old or the new value.
#pragma once

#include <atomic>

extern std::atomic<int> g_nClientConnectSvrTimeoutSecond;
extern std::atomic<unsigned int> g_nMaxFileWriteThread;
extern std::atomic<unsigned int> g_nClientMaxConcurrent;
extern std::atomic<int> g_nClientThreadKeepTimeoutSecond;
extern std::atomic<int> g_nClientReGetTimeoutSecond;
extern std::atomic<int> g_nClientReGetFailedTimeoutSecond;
extern std::atomic<int> g_nClientRetryConnectSecond;
extern std::atomic<unsigned int> g_nGetSizePerReq;
extern std::atomic<unsigned int> g_nGetNumPerReq;
extern std::atomic<int> g_nClientFinishKeepSecondBeforeAutoDelete;
extern std::atomic<int> g_nClientNotBeginKeepSecondBeforeAutoDelete;
extern std::atomic<int> g_nMaxRecvSpeed;
extern std::atomic<bool> g_bEnableAutoAdjustSpeed;
extern std::atomic<bool> g_bEnablePreGet;
extern std::atomic<bool> g_bEnableMd5Check;
extern std::atomic<unsigned int> g_nPreGetPacketNum;
extern std::atomic<int> g_nFinishSendResultDisSecondBeforeAutoDelete;
// Opt-in: the destination file is opened with O_NOFOLLOW, so that a link
// planted at its name is not followed.
extern std::atomic<bool> g_bDstNoFollow;
// Opt-in: a work whose create gave the whole file's MD5 compares it with the
// file after the last block, and ends with 335 instead of 0 when they differ.
extern std::atomic<bool> g_bCheckFileMd5;

// The bits of a destination work's flag.
enum {
    FILE_DST_FLAG_QUIET = 0x1,
    FILE_DST_FLAG_NO_DELETE_REPLY = 0x40,
    FILE_DST_FLAG_NO_SET_ACTION_REPLY = 0x80,
    FILE_DST_FLAG_CACHE = 0x400,            // dstPath is a cache id; master and slaves
    FILE_DST_FLAG_FIRST_SRC_NAME = 0x800,   // the name in a directory comes from firstSrcFile
    FILE_DST_FLAG_CREATE_DIRS = 0x2000,
    FILE_DST_FLAG_FOR_DAEMON = 0x8000,      // written on behalf of the user daemon
};
