// Address of a network interface, through one shared query socket.
// Any thread: the shared socket is guarded.
#pragma once

#include <string>

namespace brel_lib {

int EthnetInfoInit();
void EthnetInfoDestroy();
// 0 and the address text; -1 empty name, -3 no such interface with an IPv4
// address, errno of a failed query. 0 with strIp untouched if the address
// query itself fails, so callers test strIp too.
int EthnetGetIpAddress(std::string& strIp, const std::string& strName);

} // namespace brel_lib
