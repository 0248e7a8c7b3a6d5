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

using agent_test::Exists;
using agent_test::ReadFile;
using agent_test::WriteFile;

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
    void Open(const std::string& strExtra = "")
    {
        WriteCfg(strExtra);
        m_cache.SetCfgFile(CfgPath());
    }
    // A cache file of n bytes.
    std::string CacheFile(const std::string& strName, size_t nSize)
    {
        std::string strPath = m_strCacheDir + "/" + strName;
        WriteFile(strPath, std::string(nSize, 'x'));
        return strPath;
    }
    // Moves the clock one second at a time, sweeping as the session does each pass.
    void Advance(time_t nSecond)
    {
        for (time_t i = 0; i < nSecond; ++i) {
            g_timeNow = g_timeNow + 1;
            m_cache.DealAutoDelete(g_timeNow);
        }
    }
    void AddFinished(const std::string& strPath, unsigned long long lSize)
    {
        m_cache.AddToCache(strPath, lSize, 0);
        m_cache.SetCacheFileFinish(strPath);
    }
    bool Has(const std::string& strId, bool* pComplete = nullptr)
    {
        std::string strOut;
        bool bComplete = false;
        unsigned int nThread = 0;
        bool bFound = m_cache.GetFromCache(strOut, bComplete, nThread, strId);
        if (pComplete != nullptr) *pComplete = bComplete;
        return bFound;
    }

    agent_test::TempDir m_dir{"cache_test_"};
    std::string m_strRoot = m_dir.Root();
    std::string m_strCacheDir = m_strRoot + "/cache";
    CFileTransCache m_cache;
};

// A lookup tells absent, unfinished (not looked for on disk) and complete; a
// finished file that changed or vanished leaves the table, the changed one the disk.
TEST_F(CacheTest, LookupTellsAbsentUnfinishedAndCompleteAndForgetsChangedFiles)
{
    Open();
    std::string strFile = m_strCacheDir + "/a";
    EXPECT_FALSE(Has(strFile));
    EXPECT_EQ(m_cache.AddToCache(strFile, 10, 3), strFile);
    std::string strId = "untouched";
    bool bComplete = true;
    unsigned int nThread = 99;
    ASSERT_TRUE(m_cache.GetFromCache(strId, bComplete, nThread, strFile));
    EXPECT_EQ(strId, strFile);
    EXPECT_FALSE(bComplete);
    EXPECT_EQ(nThread, 3u);
    EXPECT_FALSE(Exists(strFile));
    CacheFile("a", 10);
    m_cache.SetCacheFileFinish(strFile);
    ASSERT_TRUE(Has(strFile, &bComplete));
    EXPECT_TRUE(bComplete);

    std::string strChanged = CacheFile("changed", 10);
    std::string strGone = m_strCacheDir + "/gone";
    AddFinished(strChanged, 10);
    AddFinished(strGone, 7);
    EXPECT_EQ(m_cache.CacheNowSize(), 27u);
    WriteFile(strChanged, std::string(11, 'y'));
    EXPECT_FALSE(Has(strChanged));
    EXPECT_FALSE(Exists(strChanged));
    EXPECT_FALSE(Has(strGone));
    EXPECT_EQ(m_cache.CacheNowSize(), 10u);
    EXPECT_EQ(m_cache.EntryCount(), 1u);
}

TEST_F(CacheTest, EntriesAgeByLastUseAndALookupDoesNotRenewAndAClockSetBackPullsFutureUseToNow)
{
    Open("cache_expire_second = 1000\n");
    std::string strUsed = CacheFile("used", 1);
    std::string strLooked = CacheFile("looked", 1);
    for (const std::string& str : {strUsed, strLooked}) AddFinished(str, 1);
    Advance(900);
    m_cache.UpdateCacheAccessTime(strUsed);
    EXPECT_TRUE(Has(strLooked));  // found, but not renewed
    // The first expiry sweep, 1800 s after the cache was made.
    Advance(901);
    EXPECT_TRUE(Has(strUsed));
    EXPECT_FALSE(Has(strLooked));
    EXPECT_FALSE(Exists(strLooked));
    EXPECT_TRUE(Exists(strUsed));
    EXPECT_EQ(m_cache.CacheNowSize(), 1u);

    g_timeNow = g_timeNow - 100000;  // the clock goes back a day
    Advance(1801);  // the sweep pulls the future use back to now
    EXPECT_TRUE(Has(strUsed));
    Advance(1801);  // and from there it ages as usual
    EXPECT_FALSE(Has(strUsed));
}

TEST_F(CacheTest, UnfinishedEntriesGoBetween120And180SecondsAfterTheirLastBlock)
{
    Open();
    Advance(30);  // not in step with the sweep
    std::string strPull = CacheFile("pull", 5);
    std::string strDone = CacheFile("done", 5);
    m_cache.AddToCache(strPull, 5, 0);
    AddFinished(strDone, 5);
    // Blocks keep an unfinished entry alive for as long as they come.
    for (int i = 0; i < 10; ++i) {
        Advance(60);
        m_cache.UpdateCacheAccessTime(strPull);
    }
    time_t tLastBlock = g_timeNow;
    time_t tGone = 0;
    for (int i = 0; i < 300 && tGone == 0; ++i) {
        Advance(1);
        if (!Has(strPull)) tGone = g_timeNow;
    }
    ASSERT_NE(tGone, 0);
    EXPECT_GE(tGone - tLastBlock, 120);
    EXPECT_LE(tGone - tLastBlock, 180);
    EXPECT_FALSE(Exists(strPull));
    // The finished one stays: it ages by the long expiry only.
    EXPECT_TRUE(Has(strDone));
}

TEST_F(CacheTest, RoomIsMadeFromTheOldestFinishedEntriesOnly)
{
    Open("cache_max_size = 500\n");
    std::string strPulling = CacheFile("pulling", 100);
    m_cache.AddToCache(strPulling, 100, 0);  // unfinished, and the oldest
    std::vector<std::string> vecFiles;
    for (int i = 0; i < 4; ++i) {
        g_timeNow = g_timeNow + 10;
        vecFiles.push_back(CacheFile("f" + std::to_string(i), 100));
        AddFinished(vecFiles.back(), 100);
    }
    // 500 of 500 in use; 200 more evicts the two oldest finished ones.
    g_timeNow = g_timeNow + 10;
    std::string strNew = m_strCacheDir + "/new";
    EXPECT_EQ(m_cache.AddToCache(strNew, 200, 0), strNew);
    EXPECT_TRUE(Has(strPulling));
    EXPECT_FALSE(Has(vecFiles[0]));
    EXPECT_FALSE(Has(vecFiles[1]));
    EXPECT_FALSE(Exists(vecFiles[0]));
    EXPECT_TRUE(Has(vecFiles[2]));
    EXPECT_TRUE(Has(vecFiles[3]));
    EXPECT_EQ(m_cache.CacheNowSize(), 500u);

    // Unfinished entries alone over the budget: the new file is refused,
    // every finished entry has gone for it, and the sum goes back.
    EXPECT_EQ(m_cache.AddToCache(m_strCacheDir + "/huge", 450, 0), "");
    EXPECT_TRUE(Has(strPulling));
    EXPECT_TRUE(Has(strNew));
    EXPECT_FALSE(Has(vecFiles[2]));
    EXPECT_FALSE(Has(vecFiles[3]));
    EXPECT_EQ(m_cache.CacheNowSize(), 300u);
}

TEST_F(CacheTest, ASizeAbove4GiBIsReadAs64Bits)
{
    Open("cache_max_size = 6442450944\n");  // 6 GiB
    EXPECT_NE(m_cache.AddToCache(m_strCacheDir + "/big", 5ULL << 30, 0), "");
    EXPECT_EQ(m_cache.AddToCache(m_strCacheDir + "/more", 2ULL << 30, 0), "");
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

    Open();
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
    m_cache.ReloadCfg();
    EXPECT_TRUE(Exists(m_strCacheDir + "/kept"));
    EXPECT_FALSE(Exists(strOther));
    EXPECT_EQ(m_cache.CacheDir(), strOther);

    // A reload whose file can't be read wipes the directory it has.
    ASSERT_EQ(mkdir(strOther.c_str(), 0755), 0);
    WriteFile(strOther + "/stale", "x");
    ASSERT_EQ(unlink(CfgPath().c_str()), 0);
    m_cache.ReloadCfg();
    EXPECT_TRUE(Exists(strOther));
    EXPECT_FALSE(Exists(strOther + "/stale"));
    EXPECT_TRUE(Exists(m_strCacheDir + "/kept"));
}

TEST_F(CacheTest, TheMissingDirectoryIsMadeAtStart)
{
    std::string strDeep = m_strRoot + "/a/b/c";
    WriteFile(CfgPath(), "cache_dir = " + strDeep + "\n");
    m_cache.SetCfgFile(CfgPath());
    struct stat st;
    ASSERT_EQ(stat(strDeep.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(CacheTest, TheRootIsNeverWipedHoweverItIsSpelt)
{
    // Plain "/" in the file falls back to the default name, with a warning;
    // on a reload that reads its file, nothing is wiped.
    Open();
    WriteFile(CfgPath(), "cache_dir = /\n");
    m_cache.ReloadCfg();
    EXPECT_EQ(m_cache.CacheDir(), CFileTransCache::DEFAULT_DIR);

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
