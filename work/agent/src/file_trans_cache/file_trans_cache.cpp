#include "file_trans_cache/file_trans_cache.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/agent_clock.h"
#include "common/agent_globals.h"
#include "ini_file.h"
#include "util.h"

using namespace brel_lib;

CFileTransCache g_fileTransCache;

namespace {

// Sweep periods: more than this many seconds between two sweeps.
const time_t ACCESS_SWEEP_SECOND = 1799;
const time_t NOT_FINISH_SWEEP_SECOND = 59;

// A size key read as 64 bits; anything unreadable is 0.
unsigned long long StringToULongLong(const std::string& str) { return strtoull(str.c_str(), nullptr, 10); }

} // namespace

CFileTransCache::CFileTransCache()
{
    time_t tNow = g_timeNow;
    m_tLastAutoDeleteAccessTime = tNow;
    m_tLastAutoDeleteNotFinishTime = tNow;
}

void CFileTransCache::SetCfgFile(const std::string& strCfgFile)
{
    m_strCfgFile = strCfgFile;
    LoadCfg();
}

void CFileTransCache::ReloadCfg()
{
    Log(LOG_LEVEL_INFO, "CFileTransCache::ReloadCfg");
    LoadCfg();
}

void CFileTransCache::LoadCfg()
{
    CIniFile ini;
    bool bLoaded = ini.Load(m_strCfgFile) == 0;
    std::string strDir;
    {
        CAutoLock lock(m_lock);
        if (bLoaded) {
            int nExpire = StringToInt(ini.GetIni("cache_expire_second", ""));
            m_nCacheExpireSecond = nExpire <= 0 ? DEFAULT_EXPIRE_SECOND : nExpire;
            unsigned long long lMax = StringToULongLong(ini.GetIni("cache_max_size", ""));
            m_lCacheMaxSize = lMax == 0 ? DEFAULT_MAX_SIZE : lMax;
            std::string strCacheDir = ini.GetIni("cache_dir", DEFAULT_DIR);
            if (strCacheDir == "/") {
                Log(LOG_LEVEL_WARNING,
                    "CFileTransCache::ReloadCfg(the cache dir is /, because we will delete all the file in this dict, "
                    "so do not set to /, we set to the default dict: %s)",
                    DEFAULT_DIR);
                strCacheDir = DEFAULT_DIR;
            }
            m_strCacheDir = strCacheDir;
        }
        strDir = m_strCacheDir;
    }
    // The table starts empty with the process, so the directory must too. A
    // later reload changes the directory's name only, unless the file is gone.
    if (m_bFirstLoad || !bLoaded) {
        m_bFirstLoad = false;
        WipeCacheDir(strDir);
    }
}

std::string CFileTransCache::AddToCache(const std::string& strDstPath, unsigned long long lFileSize,
                                        unsigned int nThreadId)
{
    CAutoLock lock(m_lock);
    // The new file's whole size counts from the start.
    m_lCacheNowSize += lFileSize;
    if (m_lCacheNowSize > m_lCacheMaxSize && !DeleteCacheBySizeMax()) {
        m_lCacheNowSize -= lFileSize;
        return std::string();
    }
    auto result = m_mapCache.emplace(strDstPath, TransitFileCache());
    TransitFileCache& entry = result.first->second;
    if (!result.second) {
        // The id is known already: the old entry's size leaves the sum, and
        // the entry is made anew where it stands in the list.
        m_lCacheNowSize -= entry.lFileSize;
    } else {
        m_listCache.push_back(&entry);
    }
    entry.strLocalFile = strDstPath;
    entry.tLastAccess = g_timeNow;
    entry.bTransitOk = false;
    entry.nThreadId = nThreadId;
    entry.lFileSize = lFileSize;
    return strDstPath;
}

void CFileTransCache::SetCacheFileFinish(const std::string& strCacheId)
{
    CAutoLock lock(m_lock);
    auto it = m_mapCache.find(strCacheId);
    if (it != m_mapCache.end()) it->second.bTransitOk = true;
}

bool CFileTransCache::GetFromCache(std::string& strCacheId, bool& bComplete, unsigned int& nThreadId,
                                   const std::string& strDstPath)
{
    CAutoLock lock(m_lock);
    auto it = m_mapCache.find(strDstPath);
    if (it == m_mapCache.end()) return false;
    TransitFileCache& entry = it->second;
    if (entry.bTransitOk) {
        // A finished file must prove itself on disk.
        struct stat st;
        bool bGone = stat(entry.strLocalFile.c_str(), &st) != 0;
        if (bGone) {
            Log(LOG_LEVEL_WARNING,
                "CFileTransCache::GetFromCache(stat the file is error, we delete the cache file, errno: %d, last "
                "access "
                "time: %s, the cache file size: %llu, file path: %s)",
                errno, ConvertUnixTimeToStr(entry.tLastAccess).c_str(), entry.lFileSize, entry.strLocalFile.c_str());
        } else if (static_cast<unsigned long long>(st.st_size) != entry.lFileSize) {
            Log(LOG_LEVEL_WARNING,
                "CFileTransCache::GetFromCache(stat the cache file size in disk is not equal to real size, maybe the "
                "file is modified in transport in the file svr, we delete the cache file, last access time: %s, stat "
                "file size: %llu, real size: %llu, file path: %s)",
                ConvertUnixTimeToStr(entry.tLastAccess).c_str(), static_cast<unsigned long long>(st.st_size),
                entry.lFileSize, entry.strLocalFile.c_str());
        }
        if (bGone || static_cast<unsigned long long>(st.st_size) != entry.lFileSize) {
            unlink(entry.strLocalFile.c_str());
            m_lCacheNowSize -= entry.lFileSize;
            m_listCache.remove(&entry);
            m_mapCache.erase(it);
            return false;
        }
    }
    strCacheId = entry.strLocalFile;
    bComplete = entry.bTransitOk;
    nThreadId = entry.nThreadId;
    return true;
}

void CFileTransCache::UpdateCacheAccessTime(const std::string& strCacheId)
{
    CAutoLock lock(m_lock);
    auto it = m_mapCache.find(strCacheId);
    if (it != m_mapCache.end()) it->second.tLastAccess = g_timeNow;
}

void CFileTransCache::DealAutoDelete(time_t)
{
    time_t tNow = g_timeNow;
    PullBack(m_tLastAutoDeleteAccessTime, tNow);
    if (tNow - m_tLastAutoDeleteAccessTime > ACCESS_SWEEP_SECOND) {
        m_tLastAutoDeleteAccessTime = tNow;
        DeleteCacheByAccessTimeout();
    }
    PullBack(m_tLastAutoDeleteNotFinishTime, tNow);
    if (tNow - m_tLastAutoDeleteNotFinishTime > NOT_FINISH_SWEEP_SECOND) {
        m_tLastAutoDeleteNotFinishTime = tNow;
        DeleteCacheByNotFinishTimeout();
    }
}

time_t CFileTransCache::NextAutoDelete()
{
    time_t tAccess = m_tLastAutoDeleteAccessTime + ACCESS_SWEEP_SECOND + 1;
    time_t tNotFinish = m_tLastAutoDeleteNotFinishTime + NOT_FINISH_SWEEP_SECOND + 1;
    return tAccess < tNotFinish ? tAccess : tNotFinish;
}

std::list<TransitFileCache*>::iterator CFileTransCache::RemoveEntry(std::list<TransitFileCache*>::iterator it,
                                                                    const char* szFunction)
{
    TransitFileCache* pEntry = *it;
    Log(LOG_LEVEL_DEBUG, "CFileTransCache::%s(last access time: %s, file size: %llu, local file: %s)", szFunction,
        ConvertUnixTimeToStr(pEntry->tLastAccess).c_str(), pEntry->lFileSize, pEntry->strLocalFile.c_str());
    m_lCacheNowSize -= pEntry->lFileSize;
    // A file that can't be removed is not noticed; the entry goes all the same.
    unlink(pEntry->strLocalFile.c_str());
    std::string strKey = pEntry->strLocalFile;
    it = m_listCache.erase(it);
    m_mapCache.erase(strKey);
    return it;
}

void CFileTransCache::DeleteCacheByAccessTimeout()
{
    CAutoLock lock(m_lock);
    time_t tNow = g_timeNow;
    m_listCache.sort(FileCacheTimeAsc());  // std::list::sort is stable
    for (auto it = m_listCache.begin(); it != m_listCache.end();) {
        PullBack((*it)->tLastAccess, tNow);
        if (tNow - (*it)->tLastAccess >= m_nCacheExpireSecond) {
            it = RemoveEntry(it, "DeleteCacheByAccessTimeout");
        } else {
            ++it;
        }
    }
}

void CFileTransCache::DeleteCacheByNotFinishTimeout()
{
    CAutoLock lock(m_lock);
    time_t tNow = g_timeNow;
    for (auto it = m_listCache.begin(); it != m_listCache.end();) {
        if ((*it)->bTransitOk) {
            ++it;
            continue;
        }
        PullBack((*it)->tLastAccess, tNow);
        if (tNow - (*it)->tLastAccess >= NOT_FINISH_KEEP_SECOND) {
            it = RemoveEntry(it, "DeleteCacheByNotFinishTimeout");
        } else {
            ++it;
        }
    }
}

bool CFileTransCache::DeleteCacheBySizeMax()
{
    // Oldest first; unfinished entries are never evicted for room.
    m_listCache.sort(FileCacheTimeAsc());  // std::list::sort is stable
    for (auto it = m_listCache.begin(); it != m_listCache.end();) {
        if (!(*it)->bTransitOk) {
            ++it;
            continue;
        }
        if (m_lCacheNowSize <= m_lCacheMaxSize) break;
        it = RemoveEntry(it, "DeleteCacheBySizeMax");
    }
    return m_lCacheNowSize <= m_lCacheMaxSize;
}

unsigned long long CFileTransCache::CacheNowSize()
{
    CAutoLock lock(m_lock);
    return m_lCacheNowSize;
}

size_t CFileTransCache::EntryCount()
{
    CAutoLock lock(m_lock);
    return m_mapCache.size();
}

std::string CFileTransCache::CacheDir()
{
    CAutoLock lock(m_lock);
    return m_strCacheDir;
}
