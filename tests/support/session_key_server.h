// The server's two steps of a session key exchange, for tests: opening the
// agent's request with the private key, and sealing the answer that gives the
// key with the secret the request carried.
#pragma once

#include <string>

#include "server_crypto.h"
#include "zik_pkt.h"

namespace agent_test {

// False when the request's content does not open with the key or does not decode.
inline bool OpenKeyRequest(const std::string& strPrivatePath, const ReqSessionKey& req, ReqSessionKeyEncData& data)
{
    return DecodeRecord(RsaPrivateDecrypt(strPrivatePath, std::string(req.encData.octs, req.encData.octetLen)), data);
}

// Fills in the answer's module, key id and sealed content; its ret and route stay the caller's.
inline void SealKeyAnswer(RspSessionKey& rsp, const std::string& strSecret, const std::string& strKey, int nKeySn,
                          int nKeyId, int nValidSecond = 100000)
{
    RspSessionKeyEncData data;
    data.keyData.ReSet(strKey.data(), strKey.size());
    data.keyId = nKeyId;
    data.keySn = nKeySn;
    data.validSecond = nValidSecond;
    std::string strEnc = AesEncrypt(strSecret, EncodeRecord(data));
    rsp.moduleType = 2;
    rsp.keyId = nKeyId;
    rsp.encData.ReSet(strEnc.data(), strEnc.size());
}

} // namespace agent_test
