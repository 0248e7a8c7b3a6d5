// Process-wide logging and the plain mutex every class uses.
//
// One sink for the whole process: standard output until LogFile names a file,
// then "<name>.log", opened anew for every line and rotated by size.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <string>

namespace brel_lib {

// Plain, non-recursive mutex. Results are the pthread codes, unchanged.
class CLock {
public:
    CLock();
    ~CLock();
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

    int Lock();
    int TryLock();
    int UnLock();
    pthread_mutex_t* GetMutex() { return &m_lock; }

private:
    pthread_mutex_t m_lock;
};

// Holds a CLock for its own lifetime; a failing lock or unlock ends the process.
class CAutoLock {
public:
    explicit CAutoLock(CLock& lock);
    ~CAutoLock();
    CAutoLock(const CAutoLock&) = delete;
    CAutoLock& operator=(const CAutoLock&) = delete;

private:
    CLock& m_lock;
};

// Levels: 0 all, 1 lowest, 2 object dumps, 3 debug, 4 info, 5 warning, 6 error.
enum { LOG_LEVEL_ALL = 0, LOG_LEVEL_LOWEST = 1, LOG_LEVEL_OBJDBG = 2, LOG_LEVEL_DEBUG = 3,
       LOG_LEVEL_INFO = 4, LOG_LEVEL_WARNING = 5, LOG_LEVEL_ERROR = 6, LOG_LEVEL_NONE = 100 };

// Threshold: lines below it are dropped. Read on every call without the lock.
extern std::atomic<unsigned int> g_nLogLevel;
// Label of each level in the line prefix.
extern const char* const g_szLogType[8];

// Writes one line at the given level; 0, or errno when the file can't be opened.
int Log(unsigned int nLevel, const char* szFormat, ...) __attribute__((format(printf, 2, 3)));
// Sets the threshold by name ("ALL" .. "ERROR", "NONE") or number (0..100); -1 leaves it.
int LogLevel(const std::string& strName);
int LogLevel(unsigned int nLevel);
// Non-empty: log to "<name>.log". Empty: back to standard output.
void LogFile(std::string strName);
// Number of files kept and rotation size in MiB.
void SetLogInfo(unsigned int nMaxNum, unsigned long long lMaxSizeMiB);
// Rotation; called with the log lock held, so it never logs.
int ShiftFile();
// The file lines go to now, "" for standard output: for a child between fork and
// exec, which may not take the log lock and writes its own line.
std::string LogFilePath();
// A bare newline to the sink.
int LogEmptyLine();

// Syslog helpers of the library's surface; the agent itself never calls them.
void SetSysLogParam(const std::string& strName, bool bExitOrAbort, int nOption);
void SysLog(const char* szFormat, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void SysLogAndExitOrAbort(int nErr, const char* szFormat, ...)
    __attribute__((format(printf, 2, 3)));

// Prefix of a dump line: "%-7s(%s):" with label and time.
std::string LogPrefix(unsigned int nLevel);

// Dumps a packet object to standard output, whatever the log sink is.
template <class T>
void LogAsnObj(unsigned int nLevel, T& obj)
{
    if (nLevel < g_nLogLevel.load(std::memory_order_relaxed) || nLevel > LOG_LEVEL_ERROR) return;
    std::string strPrefix = LogPrefix(nLevel);
    std::cout << strPrefix;
    obj.Print(std::cout);
    std::cout << '\n' << std::flush;
}

} // namespace brel_lib
