#include "process_common/session_keys.h"

#include <type_traits>

#include "common/agent_clock.h"
#include "common/agent_globals.h"
#include "log.h"
#include "process.h"
#include "process_common/install_paths.h"
#include "process_common/session_crypto.h"
#include "util.h"

using namespace brel_lib;

namespace {

// A session key request without an answer is repeated this often; a key is
// renewed this long before its end.
const time_t SESSION_KEY_SPACING_SECOND = 30;
const unsigned int SESSION_SECRET_BYTES = 16;
const size_t SESSION_KEYS_KEPT = 2;
const int MODULE_TYPE_AGENT = 2;

} // namespace

// The log lines keep the session's name: they have always been its own.
CSessionKeys::CSessionKeys() : m_packetBuf("CProcessCommon", 0) {}

void CSessionKeys::LoadCfg(const CIniFile& ini)
{
    int nKeyVersion = StringToInt(ini.GetIni("public_key_version", ""));
    if (nKeyVersion == 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::LoadCfg(public key version error)");
        ExitProcess(1);
    }
    m_nPublicKeyVersion = nKeyVersion;
    m_nSessionKeyUpdateSecond = StringToInt(ini.GetIni("session_key_update_second", "3600"));
    m_bMaskSessionKeyLog = StringToInt(ini.GetIni("log_mask_session_key", "")) != 0;
}

void CSessionKeys::PullBackClock(time_t tNow)
{
    PullBack(m_timeReqUpdateSessionKey, tNow);
    for (SessionKey& key : m_vecSessionKey) PullBack(key.beginTime, tNow);
    if (m_timePreUpdateSessionKey > tNow) {
        m_timePreUpdateSessionKey = tNow;
        if (!m_vecSessionKey.empty()) m_vecSessionKey.front().validSecond = 0;
    }
}

bool CSessionKeys::NeedUpdate(bool bHeartbeatSent) const
{
    time_t tNow = g_timeNow;
    if (!bHeartbeatSent) return false;
    if (tNow - m_timeReqUpdateSessionKey < SESSION_KEY_SPACING_SECOND) return false;
    if (tNow - m_timePreUpdateSessionKey >= m_nSessionKeyUpdateSecond) return true;
    if (m_vecSessionKey.empty()) return true;
    const SessionKey& newest = m_vecSessionKey.front();
    // Renewed 30 seconds before its end; the life is compared as a signed number.
    return tNow - newest.beginTime + SESSION_KEY_SPACING_SECOND > static_cast<int>(newest.validSecond);
}

time_t CSessionKeys::NextUpdateTime(bool bHeartbeatSent) const
{
    // Without a heartbeat answer nothing is due: the answer itself wakes the session.
    if (!bHeartbeatSent) return TIME_NEVER;
    time_t tSpaced = m_timeReqUpdateSessionKey + SESSION_KEY_SPACING_SECOND;
    if (m_vecSessionKey.empty()) return tSpaced;
    time_t tDue = m_timePreUpdateSessionKey + m_nSessionKeyUpdateSecond;
    const SessionKey& newest = m_vecSessionKey.front();
    time_t tRenew = newest.beginTime + static_cast<time_t>(newest.validSecond) - SESSION_KEY_SPACING_SECOND + 1;
    if (tRenew < tDue) tDue = tRenew;
    return tDue > tSpaced ? tDue : tSpaced;
}

template <class T>
bool CSessionKeys::EncryptForServer(const char* szFunction, T& encData, std::string& strOut)
{
    bool bOpenFailed = false;
    std::string strPath = PublicKeyPath();
    rsa_st* pRsa = ReadPublicKey(strPath, bOpenFailed);
    if (pRsa == nullptr) {
        if (bOpenFailed) {
            Log(LOG_LEVEL_ERROR, "CProcessCommon::%s(open public key file failed, %s)", szFunction, strPath.c_str());
        } else {
            Log(LOG_LEVEL_ERROR, "CProcessCommon::%s(read public key file failed)", szFunction);
        }
        return false;
    }
    unsigned int nSize = 0;
    char* pBytes = m_packetBuf.PacketObjToBuffer(nSize, encData);
    char* pOut = nullptr;
    unsigned int nOutLen = 0;
    int ret = pBytes == nullptr || nSize == 0 ? -1 : RSAPublicEncrypt(pOut, nOutLen, pBytes, nSize, pRsa, RSA_PADDING_PKCS1);
    FreePublicKey(pRsa);
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::%s(RSA encrypt error, errno:%d)", szFunction, ret);
        return false;
    }
    strOut.assign(pOut, nOutLen);
    delete[] pOut;
    return true;
}

bool CSessionKeys::MakeRequest(ReqSessionKey& req)
{
    Log(LOG_LEVEL_INFO, "CProcessCommon::ReqUpdateSessionKey(send request new session key to server, agent id:%u)",
        g_nAgentId.load());
    m_timeReqUpdateSessionKey = g_timeNow;  // a failure below is retried after the spacing
    unsigned int nKeySn = 1;
    std::string strSecret;
    if (!m_vecSessionKey.empty()) {
        strSecret = m_vecSessionKey.front().keyData;
        nKeySn = m_vecSessionKey.front().keySn + 1;
    } else {
        strSecret = RandomSecret(SESSION_SECRET_BYTES, static_cast<unsigned int>(g_timeNow.load()));
        if (strSecret.empty()) {
            Log(LOG_LEVEL_ERROR, "CProcessCommon::ReqUpdateSessionKey(random bytes error)");
            return false;
        }
    }
    ReqSessionKeyEncData encData;
    encData.oldKeyData.ReSet(strSecret.data(), strSecret.size());
    encData.keyId = static_cast<int>(g_nAgentId.load());
    encData.keySn = static_cast<int>(nKeySn);
    std::string strEncrypted;
    if (!EncryptForServer("ReqUpdateSessionKey", encData, strEncrypted)) return false;

    req.moduleType = MODULE_TYPE_AGENT;
    req.keyId = static_cast<int>(g_nAgentId.load());
    req.publicKeyVersion = m_nPublicKeyVersion.load();
    req.encData.ReSet(strEncrypted.data(), strEncrypted.size());
    nReqSessionKeySn = nKeySn;
    m_strReqSessionKeyData = strSecret;
    return true;
}

bool CSessionKeys::DealResponse(RspSessionKey& rsp, RspSessionKeyUsed& used)
{
    Log(LOG_LEVEL_INFO, "CProcessCommon::DealRspSessionKey(deal rsp session key)");
    // Whatever fails below, a new request follows as soon as the spacing allows.
    m_timePreUpdateSessionKey = 0;
    if (rsp.ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::DealRspSessionKey(rsp session key error, ret:%d)", rsp.ret.value);
        return false;
    }
    unsigned int nAgentId = g_nAgentId;
    if (rsp.moduleType != MODULE_TYPE_AGENT || static_cast<unsigned int>(rsp.keyId.value) != nAgentId ||
        m_strReqSessionKeyData.empty()) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::DealRspSessionKey(rsp session key error, module type:%d, keyId:%d, keyLen",
            rsp.moduleType.value, rsp.keyId.value);
        return false;
    }
    char* pPlain = nullptr;
    unsigned int nPlainLen = 0;
    int ret = AESDecrypt(pPlain, nPlainLen, rsp.encData.octs, static_cast<unsigned int>(rsp.encData.octetLen),
                         m_strReqSessionKeyData);
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::DealRspSessionKey(decrypt error, errno:%d", ret);
        return false;
    }
    RspSessionKeyEncData keyData;
    unsigned int nUsed = 0;
    ret = ParseFromBuffer(keyData, nUsed, pPlain, nPlainLen);
    delete[] pPlain;
    if (ret != 0) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::DealRspSessionKey(parse from encData error)");
        return false;
    }
    unsigned int nKeySn = static_cast<unsigned int>(keyData.keySn.value);
    if (nKeySn != nReqSessionKeySn || static_cast<unsigned int>(keyData.keyId.value) != nAgentId) {
        Log(LOG_LEVEL_ERROR, "CProcessCommon::DealRspSessionKey(enc data error, keySn:%iu-%u, keyId:%u-%u)",
            keyData.keySn.value, nReqSessionKeySn, static_cast<unsigned int>(keyData.keyId.value), nAgentId);
        return false;
    }
    RspSessionKeyUsedEncData usedData;
    usedData.keyId = static_cast<int>(nAgentId);
    usedData.keySn = keyData.keySn;
    std::string strEncrypted;
    if (!EncryptForServer("DealRspSessionKey", usedData, strEncrypted)) return false;
    used.ret = 0;
    used.moduleType = MODULE_TYPE_AGENT;
    used.keyId = static_cast<int>(nAgentId);
    used.publicKeyVersion = m_nPublicKeyVersion.load();
    used.encData.ReSet(strEncrypted.data(), strEncrypted.size());
    used.routeDstServerIp = rsp.routeSrcServerIp;
    used.routeDstServerId = rsp.routeSrcServerId;

    // Only with its confirmation built is the key kept; the two newest stay usable.
    SessionKey key{nAgentId, nKeySn, g_timeNow.load(), static_cast<unsigned int>(keyData.validSecond.value),
                   std::string(keyData.keyData.octs, keyData.keyData.octetLen)};
    m_bSessionKeyOk = true;
    m_timePreUpdateSessionKey = g_timeNow;
    m_vecSessionKey.insert(m_vecSessionKey.begin(), key);
    if (m_vecSessionKey.size() > SESSION_KEYS_KEPT) m_vecSessionKey.pop_back();
    return true;
}

std::string CSessionKeys::GetSessionKeyBySn(unsigned int nKeySn) const
{
    for (const SessionKey& key : m_vecSessionKey) {
        if (key.keySn == nKeySn) return key.keyData;
    }
    return std::string();
}

template <class T>
bool CSessionKeys::DecryptEncData(const char* szHandler, unsigned int nKeySn, const AsnOcts& encData, T& out)
{
    std::string strKey = GetSessionKeyBySn(nKeySn);
    if (strKey.empty()) {
        Log(LOG_LEVEL_WARNING, "CProcessCommon::%s(no session key, keySn:%u)", szHandler, nKeySn);
        return false;
    }
    const bool bCreate = std::is_same<T, ReqWorkCmdCreateEncData>::value;
    // The create alone has always written these three lines, key included; a
    // site may mask the key bytes.
    std::string strKeyText = m_bMaskSessionKeyLog ? std::string("******") : strKey;
    if (bCreate) Log(LOG_LEVEL_WARNING, "session key xxxx:%s:xxxxx", strKeyText.c_str());
    char* pPlain = nullptr;
    unsigned int nPlainLen = 0;
    int ret = AESDecrypt(pPlain, nPlainLen, encData.octs, static_cast<unsigned int>(encData.octetLen), strKey);
    if (ret != 0) {
        Log(LOG_LEVEL_WARNING, "CProcessCommon::%s(decrypt error)", szHandler);
        return false;
    }
    if (bCreate) {
        Log(LOG_LEVEL_WARNING, "decrypt key:%s, size:%u, length:%u", strKeyText.c_str(), nPlainLen,
            static_cast<unsigned int>(encData.octetLen));
    }
    unsigned int nUsed = 0;
    ret = ParseFromBuffer(out, nUsed, pPlain, nPlainLen);
    delete[] pPlain;
    if (bCreate) Log(LOG_LEVEL_WARNING, "parse ret:%d, size:%u", ret, nUsed);
    if (ret != 0) {
        Log(LOG_LEVEL_WARNING, "CProcessCommon::%s(parse from buffer error)", szHandler);
        return false;
    }
    return true;
}

// The EncData records of the encrypted requests the session serves.
template bool CSessionKeys::DecryptEncData(const char*, unsigned int, const AsnOcts&, ReqWorkCmdCreateEncData&);
template bool CSessionKeys::DecryptEncData(const char*, unsigned int, const AsnOcts&, ReqWorkCmdSetActionEncData&);
template bool CSessionKeys::DecryptEncData(const char*, unsigned int, const AsnOcts&, ReqWorkFileSrcCreateEncData&);
template bool CSessionKeys::DecryptEncData(const char*, unsigned int, const AsnOcts&, ReqWorkFileDstCreateEncData&);
template bool CSessionKeys::DecryptEncData(const char*, unsigned int, const AsnOcts&, ReqWorkFileDstCreate2EncData&);
template bool CSessionKeys::DecryptEncData(const char*, unsigned int, const AsnOcts&, ReqWorkFileDstSetActionEncData&);
