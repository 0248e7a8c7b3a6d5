#include "agent.h"

#include "ethnet.h"
#include "log.h"
#include "util.h"

using namespace brel_lib;

const std::string g_strVersion = "7.0.39";
std::string g_strCfgFile;
std::atomic<unsigned int> g_nAgentId{0};
const time_t g_nStartTime = time(nullptr);
std::atomic<time_t> g_timeNow{time(nullptr)};
std::atomic<bool> g_bNeedGetNewWs{false};

unsigned int ConvertAgentIdToInt(const std::string& strAgentId)
{
    // Dotted IPv4: the address exactly as inet_pton leaves it; it goes on the wire bit for bit.
    unsigned int nId = 0;
    if (IpStringToInt(nId, strAgentId) == 0) return nId;

    std::string strIp;
    int ret = EthnetGetIpAddress(strIp, strAgentId);
    if (ret == 0 && !strIp.empty()) {
        nId = 0;
        if (IpStringToInt(nId, strIp) != 0) nId = 0;
    } else {
        Log(LOG_LEVEL_WARNING, "ReLoadCfg(EthnetGetIpAddress is return error, we try num of agent id, errno: %d)", ret);
        nId = static_cast<unsigned int>(StringToInt(strAgentId));
    }
    EthnetInfoDestroy();
    return nId;
}
