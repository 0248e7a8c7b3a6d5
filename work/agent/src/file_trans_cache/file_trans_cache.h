// The bookkeeping of the file cache: which files pulled into the cache
// directory exist, how large they are, whether their transfer finished, and
// when each was last used. It moves no data. The destination side adds and
// finishes entries, the source side renews the files it serves, and the
// session ages them out. g_fileTransCache is the one table of the process.
#pragma once

#include <time.h>

#include <list>
#include <map>
#include <string>

#include "log.h"

// One cached file; its path is its cache id.
struct TransitFileCache {
    std::string strLocalFile;
    time_t tLastAccess = 0;
    bool bTransitOk = false;  // the transfer into the cache has finished well
    unsigned int nThreadId = 0;  // write thread that pulls or pulled it
    unsigned long long lFileSize = 0;  // as the server announced it
};

// Oldest last use first; used with a stable sort, so ties keep their order.
struct FileCacheTimeAsc {
    bool operator()(const TransitFileCache* pA, const TransitFileCache* pB) const
    {
        return pA->tLastAccess < pB->tLastAccess;
    }
};

class CFileTransCache {
public:
    static constexpr int DEFAULT_EXPIRE_SECOND = 604800;
    static constexpr unsigned long long DEFAULT_MAX_SIZE = 0x100000000ULL;
    static constexpr const char* DEFAULT_DIR = "/data/zik_cache/";
    // An unfinished entry without a block for this long goes at the next sweep.
    static constexpr time_t NOT_FINISH_KEEP_SECOND = 120;

    CFileTransCache();
    CFileTransCache(const CFileTransCache&) = delete;
    CFileTransCache& operator=(const CFileTransCache&) = delete;

    // Start and reload (main thread). The first load of the process, and any
    // load whose file can't be read, wipes the cache directory.
    void SetCfgFile(const std::string& strCfgFile);
    void ReloadCfg();

    // The table; any thread. AddToCache returns the cache id, or empty text
    // when even evicting every finished entry leaves no room.
    std::string AddToCache(const std::string& strDstPath, unsigned long long lFileSize, unsigned int nThreadId);
    void SetCacheFileFinish(const std::string& strCacheId);
    // False: not there (a finished file that changed on disk is dropped here).
    // True: strCacheId, bComplete and nThreadId are filled.
    bool GetFromCache(std::string& strCacheId, bool& bComplete, unsigned int& nThreadId, const std::string& strDstPath);
    void UpdateCacheAccessTime(const std::string& strCacheId);
    // The periodic sweeps; session thread, each pass.
    void DealAutoDelete(time_t now);
    // When DealAutoDelete has a sweep to do next.
    time_t NextAutoDelete();

    // For dumps and tests.
    unsigned long long CacheNowSize();
    size_t EntryCount();
    std::string CacheDir();

private:
    void LoadCfg();
    void DeleteCacheByAccessTimeout();
    void DeleteCacheByNotFinishTimeout();
    bool DeleteCacheBySizeMax();  // m_lock held by the caller
    // Drops the entry at it, with its file; returns the next node.
    std::list<TransitFileCache*>::iterator RemoveEntry(std::list<TransitFileCache*>::iterator it,
                                                       const char* szFunction);

    std::string m_strCfgFile;  // set at start, then read by the main thread only
    bool m_bFirstLoad = true;  // main thread

    // Guards the table and the settings below it.
    brel_lib::CLock m_lock;
    std::map<std::string, TransitFileCache> m_mapCache;
    std::list<TransitFileCache*> m_listCache;  // entries in order of addition or of the last sort
    unsigned long long m_lCacheNowSize = 0;  // sum of lFileSize of all entries
    int m_nCacheExpireSecond = DEFAULT_EXPIRE_SECOND;
    unsigned long long m_lCacheMaxSize = DEFAULT_MAX_SIZE;
    std::string m_strCacheDir = DEFAULT_DIR;

    // Session thread only.
    time_t m_tLastAutoDeleteAccessTime;
    time_t m_tLastAutoDeleteNotFinishTime;
};

// Empties a cache directory and makes it anew, without a shell. Refuses a
// path that is the root however it is spelt ("//", "/./", "/tmp/..", or a
// link to it); the refusal is logged. Returns 0, -1 refused, or an errno.
int WipeCacheDir(const std::string& strDir);
// The test of WipeCacheDir: true when the path names the root.
bool CacheDirIsRoot(const std::string& strDir);

extern CFileTransCache g_fileTransCache;
