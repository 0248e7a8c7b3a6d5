#include "log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "process.h"
#include "util.h"

namespace brel_lib {

std::atomic<unsigned int> g_nLogLevel{LOG_LEVEL_INFO};
const char* const g_szLogType[8] = {"All", "Lowest", "ObjDbg", "Debug", "Info", "Warning", "Error", "None"};

namespace {

// Guarded by g_lockLog, which is the innermost lock of the process.
std::string g_strLogFile;
bool g_bLogUseFile = false;
unsigned int g_nLogMaxNum = 10;
long long g_nLogMaxSize = 10485760;

std::string g_strSysLogName = "brel_lib";
bool g_bSysLogExitOrAbort = true;
int g_nSysLogOption = LOG_PID;
bool g_bSysLogOpened = false;

// Built on first use so that logging works from static constructors too.
CLock& LogLock()
{
    static CLock g_lockLog;
    return g_lockLog;
}

std::string NumberedName(const std::string& strBase, unsigned int n)
{
    char szName[4096];
    snprintf(szName, sizeof(szName), "%s%u.log", strBase.c_str(), n);
    return szName;
}

bool Exists(const std::string& strPath)
{
    struct stat st;
    return stat(strPath.c_str(), &st) == 0;
}

struct LevelName {
    const char* szName;
    unsigned int nLevel;
};
const LevelName g_levelNames[] = {
    {"ALL", LOG_LEVEL_ALL},      {"LOWEST", LOG_LEVEL_LOWEST},   {"OBJDBG", LOG_LEVEL_OBJDBG},
    {"DEBUG", LOG_LEVEL_DEBUG},  {"INFO", LOG_LEVEL_INFO},       {"WARNING", LOG_LEVEL_WARNING},
    {"ERROR", LOG_LEVEL_ERROR},  {"NONE", LOG_LEVEL_NONE},
};

} // namespace

// ---- locks ---------------------------------------------------------------

CLock::CLock()
{
    int ret = pthread_mutex_init(&m_lock, nullptr);
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CLock::CLock(pthread_mutex_init ret: %d)", ret);
        ExitProcess(1);
    }
}

CLock::~CLock()
{
    int ret = pthread_mutex_destroy(&m_lock);
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CLock::~CLock(pthread_mutex_destroy ret: %d)", ret);
        ExitProcess(1);
    }
}

int CLock::Lock() { return pthread_mutex_lock(&m_lock); }
int CLock::TryLock() { return pthread_mutex_trylock(&m_lock); }
int CLock::UnLock() { return pthread_mutex_unlock(&m_lock); }

CAutoLock::CAutoLock(CLock& lock) : m_lock(lock)
{
    int ret = m_lock.Lock();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CAutoLock::CAutoLock(lock ret: %d)", ret);
        ExitProcess(1);
    }
}

CAutoLock::~CAutoLock()
{
    int ret = m_lock.UnLock();
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CAutoLock::~CAutoLock(unlock ret: %d)", ret);
        ExitProcess(1);
    }
}

// ---- log -----------------------------------------------------------------

namespace {
// The line prefix: label and time, and in file mode the thread id.
std::string FormatPrefix(unsigned int nLevel, bool bThreadId)
{
    char szPrefix[128];
    if (bThreadId) {
        snprintf(szPrefix, sizeof(szPrefix), "%-7s(%s)(tid:%-6d):", g_szLogType[nLevel & 7],
                 GetNowDateTimeMSecond().c_str(), static_cast<int>(gettid()));
    } else {
        snprintf(szPrefix, sizeof(szPrefix), "%-7s(%s):", g_szLogType[nLevel & 7], GetNowDateTimeMSecond().c_str());
    }
    return szPrefix;
}
} // namespace

std::string LogPrefix(unsigned int nLevel) { return FormatPrefix(nLevel, false); }

int Log(unsigned int nLevel, const char* szFormat, ...)
{
    if (nLevel < g_nLogLevel.load(std::memory_order_relaxed) || nLevel > LOG_LEVEL_ERROR) return 0;

    CAutoLock lock(LogLock());
    std::string strPrefix = FormatPrefix(nLevel, g_bLogUseFile);
    va_list args;
    va_start(args, szFormat);
    if (g_bLogUseFile) {
        std::string strPath = g_strLogFile + ".log";
        FILE* pFile = fopen(strPath.c_str(), "a");
        if (pFile == nullptr) {
            int nErr = errno;
            va_end(args);
            return nErr;
        }
        fputs(strPrefix.c_str(), pFile);
        vfprintf(pFile, szFormat, args);
        fputc('\n', pFile);
        fclose(pFile);
        ShiftFile();
    } else {
        fputs(strPrefix.c_str(), stdout);
        vprintf(szFormat, args);
        putchar('\n');
        // Flushed so that a foreground agent piped to a file loses nothing at a crash.
        fflush(stdout);
    }
    va_end(args);
    return 0;
}

std::string LogFilePath()
{
    CAutoLock lock(LogLock());
    return g_bLogUseFile ? g_strLogFile + ".log" : std::string();
}

int LogLevel(const std::string& strName)
{
    for (const LevelName& level : g_levelNames) {
        if (strName == level.szName) return LogLevel(level.nLevel);
    }
    return -1;
}

int LogLevel(unsigned int nLevel)
{
    if (nLevel > LOG_LEVEL_NONE) return -1;
    CAutoLock lock(LogLock());
    g_nLogLevel.store(nLevel, std::memory_order_relaxed);
    return 0;
}

void LogFile(std::string strName)
{
    CAutoLock lock(LogLock());
    if (strName.empty()) {
        g_bLogUseFile = false;
        return;
    }
    g_strLogFile = std::move(strName);
    g_bLogUseFile = true;
}

void SetLogInfo(unsigned int nMaxNum, unsigned long long lMaxSizeMiB)
{
    CAutoLock lock(LogLock());
    g_nLogMaxNum = nMaxNum;
    g_nLogMaxSize = static_cast<long long>(lMaxSizeMiB << 20);
}

int ShiftFile()
{
    struct stat st;
    std::string strCurrent = g_strLogFile + ".log";
    if (stat(strCurrent.c_str(), &st) != 0) return errno;
    if (static_cast<long long>(st.st_size) < g_nLogMaxSize) return 0;

    // With 0 files the count wraps on purpose: the oldest name then ends in 4294967295.
    std::string strOldest = NumberedName(g_strLogFile, g_nLogMaxNum - 1);
    if (Exists(strOldest) && remove(strOldest.c_str()) != 0) return errno;
    for (int i = static_cast<int>(g_nLogMaxNum) - 2; i >= 0; --i) {
        std::string strFrom = i == 0 ? strCurrent : NumberedName(g_strLogFile, static_cast<unsigned int>(i));
        if (!Exists(strFrom)) continue;
        std::string strTo = NumberedName(g_strLogFile, static_cast<unsigned int>(i) + 1);
        if (rename(strFrom.c_str(), strTo.c_str()) != 0) return errno;
    }
    return 0;
}

int LogEmptyLine()
{
    CAutoLock lock(LogLock());
    if (!g_bLogUseFile) {
        putchar('\n');
        return 0;
    }
    std::string strPath = g_strLogFile + ".log";
    FILE* pFile = fopen(strPath.c_str(), "a");
    if (pFile == nullptr) return errno;
    fputc('\n', pFile);
    fclose(pFile);
    ShiftFile();
    return 0;
}

// ---- syslog ----------------------------------------------------------------

void SetSysLogParam(const std::string& strName, bool bExitOrAbort, int nOption)
{
    CAutoLock lock(LogLock());
    g_strSysLogName = strName;
    g_bSysLogExitOrAbort = bExitOrAbort;
    g_nSysLogOption = nOption;
}

namespace {
void VSysLog(const char* szFormat, va_list args)
{
    CAutoLock lock(LogLock());
    if (!g_bSysLogOpened) {
        openlog(g_strSysLogName.c_str(), g_nSysLogOption, 0);
        g_bSysLogOpened = true;
    }
    vsyslog(LOG_DEBUG, szFormat, args);
}
} // namespace

void SysLog(const char* szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    VSysLog(szFormat, args);
    va_end(args);
}

void SysLogAndExitOrAbort(int nErr, const char* szFormat, ...)
{
    std::string strFormat = std::string("(") + strerror(nErr) + ") " + szFormat;
    va_list args;
    va_start(args, szFormat);
    VSysLog(strFormat.c_str(), args);
    va_end(args);
    closelog();
    if (g_bSysLogExitOrAbort) exit(nErr);
    abort();
}

} // namespace brel_lib
