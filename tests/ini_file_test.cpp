// The flat key file: line rules, load failures, saving and one-line parsing.
#include "ini_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

using brel_lib::CIniFile;

namespace {

std::string TempFile(const std::string& strText)
{
    char szName[] = "/tmp/ini_test_XXXXXX";
    int fd = mkstemp(szName);
    close(fd);
    std::ofstream(szName) << strText;
    return szName;
}

TEST(IniFile, LineRules)
{
    std::string strPath = TempFile(
        "; comment\n"
        "# comment too\n"
        "[section]\n"
        "  key1   =   value 1  \n"
        "key2=a=b\n"
        "inner key = x # not a comment\n"
        "\tkey3 = tab\n"
        "crlf = v\r\r\n"
        "dup = first\n"
        "dup = second\n"
        "empty =\n"
        "= nokey\n"
        "quoted = \"q\"\n"
        "no equals sign\n");
    CIniFile ini;
    ASSERT_EQ(ini.Load(strPath), 0);
    EXPECT_EQ(ini.GetIni("key1", "-"), "value 1");
    EXPECT_EQ(ini.GetIni("key2", "-"), "a=b");
    EXPECT_EQ(ini.GetIni("inner key", "-"), "x # not a comment");
    EXPECT_EQ(ini.GetIni("key3", "-"), "-");  // a leading tab is part of the key
    EXPECT_EQ(ini.GetIni("\tkey3", "-"), "tab");
    EXPECT_EQ(ini.GetIni("crlf", "-"), "v");
    EXPECT_EQ(ini.GetIni("dup", "-"), "second");
    EXPECT_EQ(ini.GetIni("empty", "-"), "");  // present but empty: no default
    EXPECT_EQ(ini.GetIni("", "-"), "nokey");
    EXPECT_EQ(ini.GetIni("quoted", "-"), "\"q\"");
    EXPECT_EQ(ini.GetIni("[section]", "-"), "-");
    EXPECT_EQ(ini["missing"], "");
    // Load failures leave the object unchanged.
    EXPECT_EQ(ini.Load(""), -1);
    EXPECT_EQ(ini.Load("/nonexistent/dir/file"), -2);
    EXPECT_EQ(ini["key1"], "value 1");
    EXPECT_EQ(ini.GetFileName(), strPath);
    unlink(strPath.c_str());
}

TEST(IniFile, SaveAndLoadRoundTrip)
{
    std::string strPath = TempFile("# gone after save\nb = 2\na = 1 \nc = x = y\n");
    CIniFile ini;
    ASSERT_EQ(ini.Load(strPath), 0);
    EXPECT_EQ(ini.SetIni("", "v"), -1);
    EXPECT_EQ(ini.SetIni("d", "new"), 0);
    EXPECT_EQ(ini.SetIni("b", "22"), 0);
    ASSERT_EQ(ini.Save(""), 0);  // to the loaded file
    std::ifstream file(strPath);
    std::string strText((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_EQ(strText, "a = 1\nb = 22\nc = x = y\nd = new\n");

    CIniFile again;
    ASSERT_EQ(again.Load(strPath), 0);
    for (const char* szKey : {"a", "b", "c", "d"}) EXPECT_EQ(again[szKey], ini[szKey]) << szKey;

    CIniFile fresh;
    EXPECT_EQ(fresh.Save(""), -1);
    EXPECT_EQ(fresh.Save("/nonexistent/dir/file"), -2);
    unlink(strPath.c_str());
}

TEST(IniFile, ParseSingleLine)
{
    std::string strKey = "k", strValue = "v";
    EXPECT_EQ(brel_lib::ParseIniSingleConfig(strKey, strValue, "   "), -2);
    EXPECT_EQ(brel_lib::ParseIniSingleConfig(strKey, strValue, " ;x=1"), -2);
    EXPECT_EQ(brel_lib::ParseIniSingleConfig(strKey, strValue, "novalue"), -1);
    EXPECT_EQ(strKey, "k");
    EXPECT_EQ(strValue, "v");
    EXPECT_EQ(brel_lib::ParseIniSingleConfig(strKey, strValue, " a b = c d "), 0);
    EXPECT_EQ(strKey, "a b");
    EXPECT_EQ(strValue, "c d");
}

} // namespace
