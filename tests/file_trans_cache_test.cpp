// The file cache's table on the coarse clock that the test sets: lookup,
// ageing, eviction for room (finished entries only), the short life of
// unfinished entries, and the wipe of the cache directory, which must stay
// inside that directory.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "common/agent_globals.h"
#include "file_trans_cache/file_trans_cache.h"
#include "install_tree.h"

namespace {

using agent_test::ReadFile;
using agent_test::WriteFile;

bool Exists(const std::string& strPath)
{
    struct stat st;
    return lstat(strPath.c_str(), &st) == 0;
}

// A temporary tree with a cache directory and a configuration file.
class CacheTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(mkdir(m_strCacheDir.c_str(), 0755), 0);
        g_timeNow = 1000000;
    }
    std::string CfgPath() const { return m_strRoot + "/config"; }
    void WriteCfg(const std::string& strExtra)
    {
        WriteFile(CfgPath(), "cache_dir = " + m_strCacheDir + "\n" + strExtra);
    }
    // Loads the cache from a configuration with the extra keys.
    void Open(CFileTransCache& cache, const std::string& strExtra = "")
    {
        WriteCfg(strExtra);
        cache.SetCfgFile(CfgPath());
    }
    // A cache file of n bytes.
    std::string CacheFile(const std::string& strName, size_t nSize)
    {
        std::string strPath = m_strCacheDir + "/" + strName;
        WriteFile(strPath, std::string(nSize, 'x'));
        return strPath;
    }
    // Moves the clock one second at a time, sweeping as the session does each pass.
    void Advance(CFileTransCache& cache, time_t nSecond)
    {
        for (time_t i = 0; i < nSecond; ++i) {
            g_timeNow = g_timeNow + 1;
            cache.DealAutoDelete(g_timeNow);
        }
    }

    agent_test::TempDir m_dir{"cache_test_"};
    std::string m_strRoot = m_dir.Root();
    std::string m_strCacheDir = m_strRoot + "/cache";
};

void AddFinished(CFileTransCache& cache, const std::string& strPath, unsigned long long lSize)
{
    cache.AddToCache(strPath, lSize, 0);
    cache.SetCacheFileFinish(strPath);
}

bool Has(CFileTransCache& cache, const std::string& strId, bool* pComplete = nullptr)
{
    std::string strOut;
    bool bComplete = false;
    unsigned int nThread = 0;
    bool bFound = cache.GetFromCache(strOut, bComplete, nThread, strId);
    if (pComplete != nullptr) *pComplete = bComplete;
    return bFound;
}

TEST_F(CacheTest, LookupTellsAbsentUnfinishedAndComplete)
{
    CFileTransCache cache;
    Open(cache);
    std::string strFile = m_strCacheDir + "/a";
    EXPECT_FALSE(Has(cache, strFile));

    EXPECT_EQ(cache.AddToCache(strFile, 10, 3), strFile);
    std::string strId = "untouched";
    bool bComplete = true;
    unsigned int nThread = 99;
    ASSERT_TRUE(cache.GetFromCache(strId, bComplete, nThread, strFile));
    EXPECT_EQ(strId, strFile);
    EXPECT_FALSE(bComplete);
    EXPECT_EQ(nThread, 3u);
    // An unfinished entry is not looked for on disk.
    EXPECT_FALSE(Exists(strFile));

    CacheFile("a", 10);
    cache.SetCacheFileFinish(strFile);
    ASSERT_TRUE(Has(cache, strFile, &bComplete));
    EXPECT_TRUE(bComplete);
    EXPECT_EQ(cache.CacheNowSize(), 10u);
}

TEST_F(CacheTest, AFinishedFileThatChangedOrVanishedLeavesTheTable)
{
    CFileTransCache cache;
    Open(cache);
    std::string strChanged = CacheFile("changed", 10);
    std::string strGone = m_strCacheDir + "/gone";
    AddFinished(cache, strChanged, 10);
    AddFinished(cache, strGone, 7);
    WriteFile(strChanged, std::string(11, 'y'));

    EXPECT_FALSE(Has(cache, strChanged));
    EXPECT_FALSE(Exists(strChanged));  // the changed file is removed
    EXPECT_FALSE(Has(cache, strGone));
    EXPECT_EQ(cache.CacheNowSize(), 0u);
    EXPECT_EQ(cache.EntryCount(), 0u);
}

TEST_F(CacheTest, EntriesAgeByLastUseAndALookupDoesNotRenew)
{
    CFileTransCache cache;
    Open(cache, "cache_expire_second = 1000\n");
    std::string strUsed = CacheFile("used", 1);
    std::string strLooked = CacheFile("looked", 1);
    for (const std::string& str : {strUsed, strLooked}) AddFinished(cache, str, 1);
    Advance(cache, 900);
    cache.UpdateCacheAccessTime(strUsed);
    EXPECT_TRUE(Has(cache, strLooked));  // found, but not renewed
    // The first expiry sweep, 1800 s after the cache was made.
    Advance(cache, 901);
    EXPECT_TRUE(Has(cache, strUsed));
    EXPECT_FALSE(Has(cache, strLooked));
    EXPECT_FALSE(Exists(strLooked));
    EXPECT_TRUE(Exists(strUsed));
    EXPECT_EQ(cache.CacheNowSize(), 1u);
}

TEST_F(CacheTest, UnfinishedEntriesGoBetween120And180SecondsAfterTheirLastBlock)
{
    CFileTransCache cache;
    Open(cache);
    Advance(cache, 30);  // not in step with the sweep
    std::string strPull = CacheFile("pull", 5);
    std::string strDone = CacheFile("done", 5);
    cache.AddToCache(strPull, 5, 0);
    AddFinished(cache, strDone, 5);
    // Blocks keep an unfinished entry alive for as long as they come.
    for (int i = 0; i < 10; ++i) {
        Advance(cache, 60);
        cache.UpdateCacheAccessTime(strPull);
    }
    time_t tLastBlock = g_timeNow;
    time_t tGone = 0;
    for (int i = 0; i < 300 && tGone == 0; ++i) {
        Advance(cache, 1);
        if (!Has(cache, strPull)) tGone = g_timeNow;
    }
    ASSERT_NE(tGone, 0);
    EXPECT_GE(tGone - tLastBlock, 120);
    EXPECT_LE(tGone - tLastBlock, 180);
    EXPECT_FALSE(Exists(strPull));
    // The finished one stays: it ages by the long expiry only.
    EXPECT_TRUE(Has(cache, strDone));
}

TEST_F(CacheTest, ClockSetBackPullsFutureUseToNow)
{
    CFileTransCache cache;
    Open(cache, "cache_expire_second = 1000\n");
    std::string strFile = CacheFile("f", 1);
    AddFinished(cache, strFile, 1);
    g_timeNow = g_timeNow - 100000;  // the clock goes back a day
    Advance(cache, 1801);  // the sweep pulls the future use back to now
    EXPECT_TRUE(Has(cache, strFile));
    Advance(cache, 1801);  // and from there it ages as usual
    EXPECT_FALSE(Has(cache, strFile));
}

TEST_F(CacheTest, RoomIsMadeFromTheOldestFinishedEntriesOnly)
{
    CFileTransCache cache;
    Open(cache, "cache_max_size = 500\n");
    std::string strPulling = CacheFile("pulling", 100);
    cache.AddToCache(strPulling, 100, 0);  // unfinished, and the oldest
    std::vector<std::string> vecFiles;
    for (int i = 0; i < 4; ++i) {
        g_timeNow = g_timeNow + 10;
        vecFiles.push_back(CacheFile("f" + std::to_string(i), 100));
        AddFinished(cache, vecFiles.back(), 100);
    }
    // 500 of 500 in use; 200 more evicts the two oldest finished ones.
    g_timeNow = g_timeNow + 10;
    std::string strNew = m_strCacheDir + "/new";
    EXPECT_EQ(cache.AddToCache(strNew, 200, 0), strNew);
    EXPECT_TRUE(Has(cache, strPulling));
    EXPECT_FALSE(Has(cache, vecFiles[0]));
    EXPECT_FALSE(Has(cache, vecFiles[1]));
    EXPECT_FALSE(Exists(vecFiles[0]));
    EXPECT_TRUE(Has(cache, vecFiles[2]));
    EXPECT_TRUE(Has(cache, vecFiles[3]));
    EXPECT_EQ(cache.CacheNowSize(), 500u);

    // Unfinished entries alone over the budget: the new file is refused,
    // every finished entry has gone for it, and the sum goes back.
    EXPECT_EQ(cache.AddToCache(m_strCacheDir + "/huge", 450, 0), "");
    EXPECT_TRUE(Has(cache, strPulling));
    EXPECT_TRUE(Has(cache, strNew));
    EXPECT_FALSE(Has(cache, vecFiles[2]));
    EXPECT_FALSE(Has(cache, vecFiles[3]));
    EXPECT_EQ(cache.CacheNowSize(), 300u);
}

TEST_F(CacheTest, ASizeAbove4GiBIsReadAs64Bits)
{
    CFileTransCache cache;
    Open(cache, "cache_max_size = 6442450944\n");  // 6 GiB
    EXPECT_NE(cache.AddToCache(m_strCacheDir + "/big", 5ULL << 30, 0), "");
    EXPECT_EQ(cache.AddToCache(m_strCacheDir + "/more", 2ULL << 30, 0), "");
}

TEST_F(CacheTest, TheFirstLoadWipesOnlyTheCacheDirectory)
{
    // Inside: files, a tree, a link to a directory outside. Beside: a file.
    ASSERT_EQ(mkdir((m_strCacheDir + "/sub").c_str(), 0755), 0);
    WriteFile(m_strCacheDir + "/sub/deep", "x");
    WriteFile(m_strCacheDir + "/top", "x");
    ASSERT_EQ(mkdir((m_strRoot + "/outside").c_str(), 0755), 0);
    WriteFile(m_strRoot + "/outside/keep", "x");
    ASSERT_EQ(symlink((m_strRoot + "/outside").c_str(), (m_strCacheDir + "/link").c_str()), 0);
    WriteFile(m_strRoot + "/beside", "x");

    CFileTransCache cache;
    Open(cache);
    EXPECT_TRUE(Exists(m_strCacheDir));
    EXPECT_FALSE(Exists(m_strCacheDir + "/sub"));
    EXPECT_FALSE(Exists(m_strCacheDir + "/top"));
    EXPECT_FALSE(Exists(m_strCacheDir + "/link"));
    EXPECT_EQ(ReadFile(m_strRoot + "/outside/keep"), "x");
    EXPECT_EQ(ReadFile(m_strRoot + "/beside"), "x");

    // A reload that reads its file does not wipe, even with a new directory.
    WriteFile(m_strCacheDir + "/kept", "x");
    std::string strOther = m_strRoot + "/other";
    WriteFile(CfgPath(), "cache_dir = " + strOther + "\n");
    cache.ReloadCfg();
    EXPECT_TRUE(Exists(m_strCacheDir + "/kept"));
    EXPECT_FALSE(Exists(strOther));
    EXPECT_EQ(cache.CacheDir(), strOther);

    // A reload whose file can't be read wipes the directory it has.
    ASSERT_EQ(mkdir(strOther.c_str(), 0755), 0);
    WriteFile(strOther + "/stale", "x");
    ASSERT_EQ(unlink(CfgPath().c_str()), 0);
    cache.ReloadCfg();
    EXPECT_TRUE(Exists(strOther));
    EXPECT_FALSE(Exists(strOther + "/stale"));
    EXPECT_TRUE(Exists(m_strCacheDir + "/kept"));
}

TEST_F(CacheTest, TheMissingDirectoryIsMadeAtStart)
{
    std::string strDeep = m_strRoot + "/a/b/c";
    WriteFile(CfgPath(), "cache_dir = " + strDeep + "\n");
    CFileTransCache cache;
    cache.SetCfgFile(CfgPath());
    struct stat st;
    ASSERT_EQ(stat(strDeep.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(CacheTest, TheRootIsNeverWipedHoweverItIsSpelt)
{
    // Plain "/" in the file falls back to the default name, with a warning;
    // on a reload that reads its file, nothing is wiped.
    CFileTransCache cache;
    Open(cache);
    WriteFile(CfgPath(), "cache_dir = /\n");
    cache.ReloadCfg();
    EXPECT_EQ(cache.CacheDir(), CFileTransCache::DEFAULT_DIR);

    std::string strLinkToRoot = m_strRoot + "/rootlink";
    ASSERT_EQ(symlink("/", strLinkToRoot.c_str()), 0);
    char szCwd[4096];
    ASSERT_NE(getcwd(szCwd, sizeof(szCwd)), nullptr);
    std::string strUp;
    for (int i = 0; i < 40; ++i) strUp += "../";
    // The test alone for the spellings, so that a fault here can't reach the
    // root; the wipe itself for the links, which it would only unlink.
    for (const std::string& strRoot :
         {std::string("/"), std::string("//"), std::string("/./"), std::string("///."), std::string("/tmp/.."),
          std::string("/tmp/../.."), strUp, strUp + ".", strLinkToRoot + "/", std::string("")}) {
        EXPECT_TRUE(CacheDirIsRoot(strRoot)) << strRoot;
    }
    EXPECT_FALSE(CacheDirIsRoot("/tmp"));
    EXPECT_FALSE(CacheDirIsRoot(m_strCacheDir + "/../cache"));
    EXPECT_EQ(WipeCacheDir(strLinkToRoot), -1);
    EXPECT_EQ(WipeCacheDir(strLinkToRoot + "/."), -1);
    EXPECT_TRUE(Exists(strLinkToRoot));
    // The root and the test's tree are still there.
    EXPECT_TRUE(Exists("/tmp"));
    EXPECT_TRUE(Exists(m_strCacheDir));
}

} // namespace
