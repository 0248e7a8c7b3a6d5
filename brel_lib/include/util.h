// Host and text utilities: numbers, times, IPv4 addresses, paths.
//
// Addresses as integers are in network byte order in an unsigned int, as
// inet_pton leaves them. Anything unreadable as a number becomes 0, which is
// what lets callers fall back to their defaults.
#pragma once

#include <sys/time.h>
#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

namespace brel_lib {

// Numbers and text.
int StringToInt(const std::string& str);
unsigned int StringToUInt(const std::string& str);
std::string IntToString(int n);
std::string UIntToString(unsigned int n);
std::string LongLongToString(long long n);
std::string ULongLongToString(unsigned long long n);
std::string TrimLeft(const std::string& str, const std::string& strSet);
std::string TrimRight(const std::string& str, const std::string& strSet);
std::string Trim(const std::string& str, const std::string& strSet);
void StringToLower(std::string& str);
void StringToUpper(std::string& str);
// Splits at every delimiter character; a trailing delimiter adds no empty element.
void SplitDataToVector(std::vector<std::string>& vecOut, const std::string& strData,
                       const std::string& strDelimiters);
std::string JoinDataToStr(const std::vector<std::string>& vecData, const std::string& strDelimiter);
// "a.b[.c]" <-> a<<24 | b<<16 | c; -1 for a wrong number of parts.
int VersionStringToInt(unsigned int& nOut, const std::string& str);
int VersionIntToString(std::string& strOut, unsigned int nVersion, unsigned int nParts);

// Times; all from the wall clock.
void Sleep(unsigned int nMilliSecond);
uint64_t GetNowMilliSecond();
void ConvertMSecondToTimeVal(timeval& tv, uint64_t lMilliSecond);
uint64_t TimevalSubtract(const timeval& first, const timeval& second);
void TimevalAdd(timeval& out, const timeval& a, const timeval& b);
std::string GetNowDateTime();
std::string GetNowDateTimeMSecond();
std::string ConvertUnixTimeToStr(long lSecond);

// IPv4 addresses.
int IpStringToInt(unsigned int& nIp, const std::string& strIp);
unsigned int IpStringToInt(const std::string& strIp);
int IpIntToString(std::string& strIp, unsigned int nIp);
std::string IpIntToString(unsigned int nIp);
// 0 when valid, -1 when not (an error code, not a truth value).
int CheckIpValid(const std::string& strIp);
int GetPeerName(std::string& strIp, unsigned short& nPort, int fd);
int GetSockName(std::string& strIp, unsigned short& nPort, int fd);

// Files and paths.
int CreateDirs(const std::string& strPath);
std::string PathFolder(const std::string& strPath);
std::string PathFile(const std::string& strPath);
int GetFileMode(unsigned int& nMode, const std::string& strPath);
int GetFileAccessBit(unsigned int& nBits, const std::string& strPath);
bool IsRegularFile(const std::string& strPath);
bool IsDir(const std::string& strPath);

} // namespace brel_lib
