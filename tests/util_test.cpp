#include "util.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ethnet.h"
#include "install_tree.h"

using namespace brel_lib;

namespace {

TEST(Util, StringToIntEdges)
{
    EXPECT_EQ(StringToInt(""), 0);
    EXPECT_EQ(StringToInt("abc"), 0);
    EXPECT_EQ(StringToInt("  42"), 42);
    EXPECT_EQ(StringToInt("12ab"), 12);
    EXPECT_EQ(StringToInt("0x1f"), 0);
    EXPECT_EQ(StringToInt("-1"), -1);
    EXPECT_EQ(StringToInt("+7"), 7);
    EXPECT_EQ(StringToInt("99999999999"), 2147483647);
    EXPECT_EQ(StringToInt("-99999999999"), -2147483647 - 1);
    // Callers widen with the sign: "-1" as an unsigned count is all ones.
    EXPECT_EQ(static_cast<unsigned int>(StringToInt("-1")), 0xFFFFFFFFu);
}

TEST(Util, SplitAndJoin)
{
    std::vector<std::string> vec{"stale"};
    SplitDataToVector(vec, "", ",");
    EXPECT_TRUE(vec.empty());
    SplitDataToVector(vec, "a,b,", ",");
    EXPECT_EQ(vec, (std::vector<std::string>{"a", "b"}));
    SplitDataToVector(vec, ",a", ",");
    EXPECT_EQ(vec, (std::vector<std::string>{"", "a"}));
    SplitDataToVector(vec, "a,,b;c", ",;");
    EXPECT_EQ(vec, (std::vector<std::string>{"a", "", "b", "c"}));
    SplitDataToVector(vec, "whole", ",");
    EXPECT_EQ(vec, (std::vector<std::string>{"whole"}));

    EXPECT_EQ(JoinDataToStr({}, ","), "");
    EXPECT_EQ(JoinDataToStr({"one"}, ","), "one");
    EXPECT_EQ(JoinDataToStr({"a", "b", "c"}, ", "), "a, b, c");
}

TEST(Util, Trim)
{
    EXPECT_EQ(TrimLeft("  a b ", " "), "a b ");
    EXPECT_EQ(TrimRight("  a b ", " "), "  a b");
    EXPECT_EQ(Trim("xxaxx", "x"), "a");
    EXPECT_EQ(Trim("xxxx", "x"), "");
}

TEST(Util, Versions)
{
    unsigned int n = 5;
    EXPECT_EQ(VersionStringToInt(n, "7.0.39"), 0);
    EXPECT_EQ(n, 117440551u);
    EXPECT_EQ(VersionStringToInt(n, "1.2"), 0);
    EXPECT_EQ(n, 0x01020000u);
    EXPECT_EQ(VersionStringToInt(n, "1"), -1);
    EXPECT_EQ(n, 0u);
    n = 5;
    EXPECT_EQ(VersionStringToInt(n, "1.2.3.4"), -1);
    EXPECT_EQ(n, 0u);
    std::string str;
    EXPECT_EQ(VersionIntToString(str, 117440551u, 3), 0);
    EXPECT_EQ(str, "7.0.39");
    EXPECT_EQ(VersionIntToString(str, 117440551u, 2), 0);
    EXPECT_EQ(str, "7.0");
    EXPECT_EQ(VersionIntToString(str, 1, 4), -1);
}

TEST(Util, Addresses)
{
    EXPECT_EQ(CheckIpValid(""), -1);
    EXPECT_EQ(CheckIpValid("1.2.3"), -1);
    EXPECT_EQ(CheckIpValid("256.1.1.1"), -1);
    EXPECT_EQ(CheckIpValid("10.0.0.1"), 0);

    // Network order in memory: on this little-endian host 1.2.3.4 reads as 0x04030201.
    unsigned int nIp = 7;
    EXPECT_EQ(IpStringToInt(nIp, "1.2.3.4"), 0);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&nIp);
    EXPECT_EQ(p[0], 1);
    EXPECT_EQ(p[3], 4);
    nIp = 7;
    EXPECT_EQ(IpStringToInt(nIp, "x"), -1);
    EXPECT_EQ(nIp, 7u);
    EXPECT_EQ(IpStringToInt("bad"), 0xFFFFFFFFu);
    EXPECT_EQ(IpIntToString(IpStringToInt("192.168.10.20")), "192.168.10.20");
}

TEST(Util, Paths)
{
    EXPECT_EQ(PathFolder("file"), "");
    EXPECT_EQ(PathFile("file"), "file");
    EXPECT_EQ(PathFolder("/file"), "");
    EXPECT_EQ(PathFolder("/a/b/c.txt"), "/a/b");
    EXPECT_EQ(PathFile("/a/b/c.txt"), "c.txt");
    EXPECT_EQ(PathFile("a\\b"), "b");

    agent_test::TempDir dir("util_test_");
    std::string strDeep = dir.Path("x/y/z");
    EXPECT_EQ(CreateDirs(strDeep), 0);
    EXPECT_TRUE(IsDir(strDeep));
    EXPECT_EQ(CreateDirs(strDeep + "/"), 0);  // exists already
    std::string strFile = dir.Path("x/file");
    FILE* f = fopen(strFile.c_str(), "w");
    fclose(f);
    chmod(strFile.c_str(), 0640);
    unsigned int nBits = 0;
    EXPECT_EQ(GetFileAccessBit(nBits, strFile), 0);
    EXPECT_EQ(nBits, 0640u);
    EXPECT_TRUE(IsRegularFile(strFile));
    EXPECT_FALSE(IsDir(strFile));
    EXPECT_FALSE(IsDir(strFile + "/missing"));
    // A file in the way shows at the next level.
    EXPECT_EQ(CreateDirs(strFile + "/sub"), ENOTDIR);
}

TEST(Util, Times)
{
    uint64_t lBefore = GetNowMilliSecond();
    Sleep(20);
    EXPECT_GE(GetNowMilliSecond() - lBefore, 19u);
    std::string strNow = GetNowDateTimeMSecond();
    EXPECT_EQ(strNow.size(), 23u);
    EXPECT_EQ(strNow[19], '.');
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(ConvertUnixTimeToStr(0), "1970-01-01 00:00:00");
    timeval a{1, 900000}, b{2, 200000}, sum;
    TimevalAdd(sum, a, b);
    EXPECT_EQ(sum.tv_sec, 4);
    EXPECT_EQ(sum.tv_usec, 100000);
    EXPECT_EQ(TimevalSubtract(a, b), 300u);
    EXPECT_EQ(TimevalSubtract(b, a), 0u);
}

TEST(Ethnet, InterfaceAddress)
{
    std::string strIp = "unchanged";
    EXPECT_EQ(EthnetGetIpAddress(strIp, ""), -1);
    EXPECT_EQ(EthnetGetIpAddress(strIp, "no-such-if0"), -3);
    EXPECT_EQ(strIp, "unchanged");
    strIp.clear();
    EXPECT_EQ(EthnetGetIpAddress(strIp, "lo"), 0);
    EXPECT_EQ(strIp, "127.0.0.1");
    EthnetInfoDestroy();
}

} // namespace
