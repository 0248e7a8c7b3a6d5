#include "util.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <sstream>

namespace brel_lib {

// ---- numbers and text --------------------------------------------------------

namespace {
template <class T>
T StreamToNumber(const std::string& str)
{
    if (str.empty()) return 0;
    // Stream extraction: leading white space skipped, stops at the first
    // character that can't continue the number, 0 for no number, the limit
    // of the type when out of range.
    std::istringstream is(str);
    T n = 0;
    is >> n;
    return n;
}
} // namespace

int StringToInt(const std::string& str) { return StreamToNumber<int>(str); }
unsigned int StringToUInt(const std::string& str) { return StreamToNumber<unsigned int>(str); }
std::string IntToString(int n) { return std::to_string(n); }
std::string UIntToString(unsigned int n) { return std::to_string(n); }
std::string LongLongToString(long long n) { return std::to_string(n); }
std::string ULongLongToString(unsigned long long n) { return std::to_string(n); }

std::string TrimLeft(const std::string& str, const std::string& strSet)
{
    size_t nBegin = str.find_first_not_of(strSet);
    return nBegin == std::string::npos ? std::string() : str.substr(nBegin);
}

std::string TrimRight(const std::string& str, const std::string& strSet)
{
    size_t nEnd = str.find_last_not_of(strSet);
    return nEnd == std::string::npos ? std::string() : str.substr(0, nEnd + 1);
}

std::string Trim(const std::string& str, const std::string& strSet) { return TrimRight(TrimLeft(str, strSet), strSet); }

void StringToLower(std::string& str)
{
    for (char& c : str) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
}

void StringToUpper(std::string& str)
{
    for (char& c : str) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
}

void SplitDataToVector(std::vector<std::string>& vecOut, const std::string& strData,
                       const std::string& strDelimiters)
{
    vecOut.clear();
    size_t nBegin = 0;
    while (true) {
        size_t nPos = strData.find_first_of(strDelimiters, nBegin);
        if (nPos == std::string::npos) break;
        vecOut.push_back(strData.substr(nBegin, nPos - nBegin));
        nBegin = nPos + 1;
    }
    if (nBegin < strData.size()) vecOut.push_back(strData.substr(nBegin));
}

std::string JoinDataToStr(const std::vector<std::string>& vecData, const std::string& strDelimiter)
{
    std::string strOut;
    for (size_t i = 0; i < vecData.size(); ++i) {
        if (i != 0) strOut += strDelimiter;
        strOut += vecData[i];
    }
    return strOut;
}

int VersionStringToInt(unsigned int& nOut, const std::string& str)
{
    nOut = 0;
    std::vector<std::string> vecParts;
    SplitDataToVector(vecParts, str, ".");
    if (vecParts.size() != 2 && vecParts.size() != 3) return -1;
    unsigned int nVersion = static_cast<unsigned int>(StringToInt(vecParts[0])) << 24;
    nVersion |= (static_cast<unsigned int>(StringToInt(vecParts[1])) & 0xff) << 16;
    if (vecParts.size() == 3) nVersion |= static_cast<unsigned int>(StringToInt(vecParts[2])) & 0xffff;
    nOut = nVersion;
    return 0;
}

int VersionIntToString(std::string& strOut, unsigned int nVersion, unsigned int nParts)
{
    strOut.clear();
    if (nParts != 2 && nParts != 3) return -1;
    strOut = std::to_string(nVersion >> 24) + "." + std::to_string((nVersion >> 16) & 0xff);
    if (nParts == 3) strOut += "." + std::to_string(nVersion & 0xffff);
    return 0;
}

// ---- times -------------------------------------------------------------------

void Sleep(unsigned int nMilliSecond) { usleep(static_cast<useconds_t>(nMilliSecond) * 1000); }

uint64_t GetNowMilliSecond()
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

void ConvertMSecondToTimeVal(timeval& tv, uint64_t lMilliSecond)
{
    tv.tv_sec = static_cast<time_t>(lMilliSecond / 1000);
    tv.tv_usec = static_cast<suseconds_t>((lMilliSecond % 1000) * 1000);
}

uint64_t TimevalSubtract(const timeval& first, const timeval& second)
{
    int64_t lFirst = static_cast<int64_t>(first.tv_sec) * 1000 + first.tv_usec / 1000;
    int64_t lSecond = static_cast<int64_t>(second.tv_sec) * 1000 + second.tv_usec / 1000;
    return lFirst > lSecond ? 0 : static_cast<uint64_t>(lSecond - lFirst);
}

void TimevalAdd(timeval& out, const timeval& a, const timeval& b)
{
    out.tv_sec = a.tv_sec + b.tv_sec;
    out.tv_usec = a.tv_usec + b.tv_usec;
    if (out.tv_usec >= 1000000) {
        out.tv_sec += out.tv_usec / 1000000;
        out.tv_usec %= 1000000;
    }
}

namespace {
// "YYYY-MM-DD hh:mm:ss", with ".mmm" behind when nMilliSecond is not negative.
// bLogYears: years below 1951 read as 20xx, as the log has always printed them.
std::string FormatLocalTime(time_t tSecond, int nMilliSecond, bool bLogYears)
{
    tm tmThen;
    if (localtime_r(&tSecond, &tmThen) == nullptr) return std::string();
    int nYear = tmThen.tm_year + (bLogYears && tmThen.tm_year < 51 ? 2000 : 1900);
    char szTime[64];
    int n = snprintf(szTime, sizeof(szTime), "%04d-%02d-%02d %02d:%02d:%02d", nYear, tmThen.tm_mon + 1,
                     tmThen.tm_mday, tmThen.tm_hour, tmThen.tm_min, tmThen.tm_sec);
    if (nMilliSecond >= 0) snprintf(szTime + n, sizeof(szTime) - static_cast<size_t>(n), ".%03d", nMilliSecond);
    return szTime;
}
} // namespace

std::string GetNowDateTime() { return FormatLocalTime(time(nullptr), -1, true); }

std::string GetNowDateTimeMSecond()
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    return FormatLocalTime(tv.tv_sec, static_cast<int>(tv.tv_usec / 1000), true);
}

std::string ConvertUnixTimeToStr(long lSecond) { return FormatLocalTime(static_cast<time_t>(lSecond), -1, false); }

// ---- IPv4 addresses ----------------------------------------------------------

int IpStringToInt(unsigned int& nIp, const std::string& strIp)
{
    in_addr addr;
    if (inet_pton(AF_INET, strIp.c_str(), &addr) != 1) return -1;
    nIp = addr.s_addr;
    return 0;
}

unsigned int IpStringToInt(const std::string& strIp)
{
    unsigned int nIp = 0xFFFFFFFF;
    IpStringToInt(nIp, strIp);
    return nIp;
}

int IpIntToString(std::string& strIp, unsigned int nIp)
{
    in_addr addr;
    addr.s_addr = nIp;
    char szIp[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &addr, szIp, sizeof(szIp)) == nullptr) return errno;
    strIp = szIp;
    return 0;
}

std::string IpIntToString(unsigned int nIp)
{
    std::string strIp;
    IpIntToString(strIp, nIp);
    return strIp;
}

int CheckIpValid(const std::string& strIp)
{
    unsigned int nIp = 0;
    return IpStringToInt(nIp, strIp) == 0 ? 0 : -1;
}

namespace {
int AddressOf(std::string& strIp, unsigned short& nPort, int fd, bool bPeer)
{
    strIp.clear();
    nPort = 0;
    sockaddr_in addr;
    socklen_t nLen = sizeof(addr);
    int ret = bPeer ? getpeername(fd, reinterpret_cast<sockaddr*>(&addr), &nLen)
                    : getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &nLen);
    if (ret != 0) return errno;
    char szIp[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, &addr.sin_addr, szIp, sizeof(szIp)) != nullptr) strIp = szIp;
    nPort = ntohs(addr.sin_port);
    return 0;
}
} // namespace

int GetPeerName(std::string& strIp, unsigned short& nPort, int fd) { return AddressOf(strIp, nPort, fd, true); }
int GetSockName(std::string& strIp, unsigned short& nPort, int fd) { return AddressOf(strIp, nPort, fd, false); }

// ---- files and paths -----------------------------------------------------------

int CreateDirs(const std::string& strPath)
{
    std::string strDirs = strPath;
    if (strDirs.empty() || strDirs.back() != '/') strDirs += '/';
    // From the second character on, so that the root of an absolute path is spared.
    for (size_t i = 1; i < strDirs.size(); ++i) {
        if (strDirs[i] != '/') continue;
        std::string strPrefix = strDirs.substr(0, i);
        if (access(strPrefix.c_str(), F_OK) != 0 && mkdir(strPrefix.c_str(), 0755) != 0 && errno != EEXIST) {
            return errno;
        }
    }
    return 0;
}

std::string PathFolder(const std::string& strPath)
{
    size_t nPos = strPath.find_last_of("/\\");
    return nPos == std::string::npos ? std::string() : strPath.substr(0, nPos);
}

std::string PathFile(const std::string& strPath)
{
    size_t nPos = strPath.find_last_of("/\\");
    return nPos == std::string::npos ? strPath : strPath.substr(nPos + 1);
}

int GetFileMode(unsigned int& nMode, const std::string& strPath)
{
    struct stat st;
    if (stat(strPath.c_str(), &st) != 0) return errno;
    nMode = st.st_mode;
    return 0;
}

int GetFileAccessBit(unsigned int& nBits, const std::string& strPath)
{
    unsigned int nMode = 0;
    int ret = GetFileMode(nMode, strPath);
    if (ret != 0) return ret;
    nBits = nMode & 0x1ff;
    return 0;
}

bool IsRegularFile(const std::string& strPath)
{
    unsigned int nMode = 0;
    return GetFileMode(nMode, strPath) == 0 && S_ISREG(nMode);
}

bool IsDir(const std::string& strPath)
{
    unsigned int nMode = 0;
    return GetFileMode(nMode, strPath) == 0 && S_ISDIR(nMode);
}

} // namespace brel_lib
