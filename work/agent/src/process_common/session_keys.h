// The session keys: the agent asks the server for an AES key under a secret
// of its own, encrypted with the server's RSA public key; it checks the answer
// and confirms it; it keeps the two newest keys and decrypts the encrypted
// requests with them. The session sends what this class builds.
#pragma once

#include <time.h>

#include <atomic>
#include <string>
#include <vector>

#include "asn_parse.h"
#include "ini_file.h"
#include "zik_pkt.h"

class CSessionKeys {
public:
    CSessionKeys();

    // Main thread, at start and reload: public_key_version (0 ends the
    // process), session_key_update_second, log_mask_session_key.
    void LoadCfg(const brel_lib::CIniFile& ini);

    // The rest runs on the session thread.
    // Once per pass: stored times in the future come back to now, and the
    // newest key counts as expired, so that a new one is asked for.
    void PullBackClock(time_t tNow);
    // True when a new key is to be asked for; never before the first heartbeat.
    bool NeedUpdate(bool bHeartbeatSent) const;
    // The time from which NeedUpdate turns true, or TIME_NEVER.
    time_t NextUpdateTime(bool bHeartbeatSent) const;
    // Builds the request for a new key; false after logging.
    bool MakeRequest(ReqSessionKey& req);
    // Checks the server's answer, builds the confirmation and keeps the key;
    // false after logging, with nothing to send.
    bool DealResponse(RspSessionKey& rsp, RspSessionKeyUsed& used);
    // Finds the key, decrypts and decodes the EncData record of an encrypted
    // request; false after logging. szHandler names the request's handler.
    template <class T>
    bool DecryptEncData(const char* szHandler, unsigned int nKeySn, const AsnOcts& encData, T& out);

private:
    struct SessionKey {
        unsigned int nId;
        unsigned int keySn;
        time_t beginTime;
        unsigned int validSecond;
        std::string keyData;
    };

    std::string GetSessionKeyBySn(unsigned int nKeySn) const;
    // Encodes a record alone and encrypts it under the public key; false after logging.
    template <class T>
    bool EncryptForServer(const char* szFunction, T& encData, std::string& strOut);

    // Settings: written by the main thread at start and reload.
    std::atomic<int> m_nPublicKeyVersion{0};
    std::atomic<int> m_nSessionKeyUpdateSecond{86400};
    std::atomic<bool> m_bMaskSessionKeyLog{false};

    // Session thread only.
    brel_lib::CPacketBuffer m_packetBuf;  // the bare EncData records
    time_t m_timePreUpdateSessionKey = 0;
    time_t m_timeReqUpdateSessionKey = 0;
    bool m_bSessionKeyOk = false;
    unsigned int nReqSessionKeySn = 0;
    std::string m_strReqSessionKeyData;
    std::vector<SessionKey> m_vecSessionKey;  // newest first, at most two
};
