// Session keys in the session run in-process, on a clock the test moves:
// renewal with the newest key as secret, the two newest keys, keys of 16, 24
// and 32 bytes, refused answers and the 30-second spacing, a clock set back,
// bad encrypted requests, a missing public key.
#include <gtest/gtest.h>

#include "session_key_server.h"
#include "session_harness.h"

using namespace agent_test;

namespace {

class SessionKeys : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_pSession = std::make_unique<SessionHarness>("heartbeat_second = 100000\nsession_key_update_second = 100\n");
        m_strPrivate = m_pSession->Path("private.pem");
        ASSERT_TRUE(MakeRsaKeyPair(m_strPrivate, m_pSession->Path("etc/publickey.pem")));
    }

    SessionHarness& Session() { return *m_pSession; }

    // The next request: its serial number and secret.
    bool NextRequest(unsigned int& nKeySn, std::string& strSecret, int nTimeoutMs = 3000)
    {
        ReqSessionKey req;
        ReqSessionKeyEncData data;
        if (!Session().Next(req, nTimeoutMs) || !OpenKeyRequest(m_strPrivate, req, data)) return false;
        nKeySn = static_cast<unsigned int>(data.keySn.value);
        strSecret.assign(data.oldKeyData.octs, data.oldKeyData.octetLen);
        return true;
    }

    void Answer(const std::string& strSecret, const std::string& strKey, unsigned int nKeySn, int nRet = 0,
                unsigned int nKeyId = 77)
    {
        RspSessionKey rsp;
        rsp.ret = nRet;
        SealKeyAnswer(rsp, strSecret, strKey, static_cast<int>(nKeySn), static_cast<int>(nKeyId));
        Session().Send(rsp);
    }

    bool Accepted()
    {
        RspSessionKeyUsed used;
        return Session().Next(used, 1500);
    }

    // The first request answered with the key.
    void Establish(const std::string& strKey)
    {
        unsigned int nKeySn = 0;
        std::string strSecret;
        ASSERT_TRUE(NextRequest(nKeySn, strSecret));
        Answer(strSecret, strKey, nKeySn);
        ASSERT_TRUE(Accepted());
    }

    template <class T>
    void SendEnc(const std::string& strEnc, unsigned int nKeySn, unsigned int nWorkId)
    {
        T req;
        req.encData.ReSet(strEnc.data(), strEnc.size());
        req.keySn = static_cast<int>(nKeySn);
        req.workId = static_cast<int>(nWorkId);
        Session().Send(req);
    }

    // An encrypted create under the key: its ret, or -1 for no reply.
    int CreateEnc(const std::string& strKey, unsigned int nKeySn, unsigned int nWorkId)
    {
        ReqWorkCmdCreateEncData data;
        data.cmd = "true";
        SendEnc<ReqWorkCmdCreateEnc>(AesEncrypt(strKey, EncodeRecord(data)), nKeySn, nWorkId);
        return Session().NextRet<RspWorkCmdCreate>(1000);
    }

    bool Logged(const std::string& strText)
    {
        return WaitUntil([&] { return Session().ReadLog().find(strText) != std::string::npos; }, 2000);
    }

    std::unique_ptr<SessionHarness> m_pSession;
    std::string m_strPrivate;
};

TEST_F(SessionKeys, RenewalKeepsTheTwoNewestKeys)
{
    Session().Start();
    const std::string keys[] = {"AAAAAAAAAAAAAAAA", "BBBBBBBBBBBBBBBB", "CCCCCCCCCCCCCCCC"};
    unsigned int nKeySn = 0;
    std::string strSecret;
    ASSERT_TRUE(NextRequest(nKeySn, strSecret));
    EXPECT_EQ(nKeySn, 1u);
    EXPECT_EQ(strSecret.size(), 16u);
    for (unsigned int n = 1; n <= 3; ++n) {
        if (n > 1) {
            Session().AdvanceClock(101);
            ASSERT_TRUE(NextRequest(nKeySn, strSecret));
            EXPECT_EQ(nKeySn, n);
            EXPECT_EQ(strSecret, keys[n - 2]);  // the newest key is the secret
        }
        Answer(strSecret, keys[n - 1], n);
        ASSERT_TRUE(Accepted()) << n;
    }
    EXPECT_EQ(CreateEnc(keys[0], 1, 11), -1);  // pushed out: dropped without a reply
    EXPECT_NE(Session().ReadLog().find("CProcessCommon::ReqCmdCreateEnc(no session key, keySn:1)"), std::string::npos);
    EXPECT_EQ(CreateEnc(keys[1], 2, 12), 0);
    EXPECT_EQ(CreateEnc(keys[2], 3, 13), 0);
}

TEST_F(SessionKeys, KeysOf24And32BytesWorkAsKeysAndAsSecrets)
{
    Session().Start();
    const std::string strKey24(24, 'k'), strKey32(32, 'K');
    Establish(strKey24);
    EXPECT_EQ(CreateEnc(strKey24, 1, 7), 0);
    Session().AdvanceClock(101);
    unsigned int nKeySn = 0;
    std::string strSecret;
    ASSERT_TRUE(NextRequest(nKeySn, strSecret));
    EXPECT_EQ(strSecret, strKey24);
    Answer(strSecret, strKey32, nKeySn);
    ASSERT_TRUE(Accepted());
    EXPECT_EQ(CreateEnc(strKey32, nKeySn, 8), 0);
}

TEST_F(SessionKeys, BadEncryptedRequestsAreDroppedWithoutAReply)
{
    WriteFile(Session().Path("etc/config"), ReadFile(Session().Path("etc/config")) + "log_mask_session_key = 1\n");
    Session().Start();
    const std::string strKey = "fedcba9876543210";
    Establish(strKey);
    ReqWorkCmdCreateEncData data;
    data.cmd = "echo unknown key";
    SendEnc<ReqWorkCmdCreateEnc>(AesEncrypt(strKey, EncodeRecord(data)), 9, 1);
    EXPECT_TRUE(Logged("CProcessCommon::ReqCmdCreateEnc(no session key, keySn:9)"));
    SendEnc<ReqWorkCmdCreateEnc>("not a whole block", 1, 2);
    EXPECT_TRUE(Logged("CProcessCommon::ReqCmdCreateEnc(decrypt error)"));
    SendEnc<ReqWorkCmdCreateEnc>(AesEncrypt(strKey, "garbage, not BER"), 1, 3);
    EXPECT_TRUE(Logged("CProcessCommon::ReqCmdCreateEnc(parse from buffer error)"));
    SendEnc<ReqWorkCmdSetActionEnc>(std::string(16, 'x'), 1, 4);
    EXPECT_TRUE(Logged("CProcessCommon::ReqCmdSetActionEnc("));
    // Padding counts beyond the data, and hostile lengths: no reply, no crash.
    std::string strPadded(31, 'p');
    strPadded.push_back(static_cast<char>(200));
    SendEnc<ReqWorkCmdCreateEnc>(strPadded, 1, 5);

    data.cmd = "echo fine";
    SendEnc<ReqWorkCmdCreateEnc>(AesEncrypt(strKey, EncodeRecord(data)), 1, 6);
    RspWorkCmdCreate created;
    ASSERT_TRUE(Session().Next(created));
    EXPECT_EQ(created.workId, 6);  // the first reply of all: the bad ones got none
    RspWorkCmdSetAction action;
    EXPECT_FALSE(Session().Next(action, 300));
    // The create's key lines are masked, and the key shows nowhere.
    EXPECT_TRUE(Logged("session key xxxx:******:xxxxx"));
    EXPECT_EQ(Session().ReadLog().find(strKey), std::string::npos);
}

TEST_F(SessionKeys, RefusedAnswersAreRequestedAgainAfterTheSpacing)
{
    Session().Start();
    unsigned int nKeySn = 0;
    std::string strSecret;
    ASSERT_TRUE(NextRequest(nKeySn, strSecret));

    Answer(strSecret, "KKKKKKKKKKKKKKKK", 2);  // a wrong serial number
    EXPECT_FALSE(Accepted());
    EXPECT_NE(Session().ReadLog().find("CProcessCommon::DealRspSessionKey(enc data error, keySn:2u-1, keyId:77-77)"),
              std::string::npos);
    Session().AdvanceClock(10);
    EXPECT_FALSE(NextRequest(nKeySn, strSecret, 300));  // spaced by 30 seconds
    Session().AdvanceClock(21);
    ASSERT_TRUE(NextRequest(nKeySn, strSecret));
    EXPECT_EQ(nKeySn, 1u);

    Answer(strSecret, "KKKKKKKKKKKKKKKK", 1, 5);  // a non-zero ret
    EXPECT_FALSE(Accepted());
    EXPECT_NE(Session().ReadLog().find("CProcessCommon::DealRspSessionKey(rsp session key error, ret:5)"),
              std::string::npos);
    Session().AdvanceClock(31);
    ASSERT_TRUE(NextRequest(nKeySn, strSecret));

    Answer(strSecret, "KKKKKKKKKKKKKKKK", 1, 0, 78);  // another agent's key
    EXPECT_FALSE(Accepted());
    EXPECT_NE(Session().ReadLog().find("rsp session key error, module type:2, keyId:78, keyLen"), std::string::npos);
    Session().AdvanceClock(31);
    ASSERT_TRUE(NextRequest(nKeySn, strSecret));
    Answer(strSecret, "KKKKKKKKKKKKKKKK", 1);
    EXPECT_TRUE(Accepted());
    EXPECT_EQ(CreateEnc("KKKKKKKKKKKKKKKK", 1, 5), 0);
}

TEST_F(SessionKeys, ClockSetBackAsksAgainAndOldKeysStayUsable)
{
    Session().Start();
    unsigned int nKeySn = 0;
    std::string strSecret;
    ASSERT_TRUE(NextRequest(nKeySn, strSecret));
    Answer(strSecret, "OOOOOOOOOOOOOOOO", 1);
    ASSERT_TRUE(Accepted());
    Session().AdvanceClock(-3600);
    Session().AdvanceClock(31);
    ASSERT_TRUE(NextRequest(nKeySn, strSecret));
    EXPECT_EQ(nKeySn, 2u);
    EXPECT_EQ(strSecret, "OOOOOOOOOOOOOOOO");
    EXPECT_EQ(CreateEnc("OOOOOOOOOOOOOOOO", 1, 6), 0);
}

TEST_F(SessionKeys, MissingPublicKeyIsRetriedEvery30Seconds)
{
    unlink(Session().Path("etc/publickey.pem").c_str());
    Session().Start();
    auto count = [&] {
        std::string strLog = Session().ReadLog();
        int n = 0;
        for (size_t nPos = strLog.find("ReqUpdateSessionKey(open public key file failed"); nPos != std::string::npos;
             nPos = strLog.find("ReqUpdateSessionKey(open public key file failed", nPos + 1)) {
            ++n;
        }
        return n;
    };
    ASSERT_TRUE(WaitUntil([&] { return count() == 1; }, 2000));
    EXPECT_TRUE(Logged("CProcessCommon::ReqUpdateSessionKey(open public key file failed, /proc/"));
    EXPECT_NE(Session().ReadLog().find("Error  ("), std::string::npos);
    ReqSessionKey req;
    EXPECT_FALSE(Session().Next(req, 300));
    Session().AdvanceClock(20);
    EXPECT_EQ(count(), 1);
    Session().AdvanceClock(11);
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(Session().Create(3), 0);  // plain requests go on
}

TEST_F(SessionKeys, UnreadablePublicKeyIsLogged)
{
    WriteFile(Session().Path("etc/publickey.pem"), "-----BEGIN RSA PUBLIC KEY-----\nnot a key\n");
    Session().Start();
    ASSERT_TRUE(WaitUntil(
        [&] { return Session().ReadLog().find("CProcessCommon::ReqUpdateSessionKey(read public key file failed)") !=
                     std::string::npos; },
        2000));
    EXPECT_NE(Session().ReadLog().find("Error  ("), std::string::npos);
    EXPECT_EQ(Session().Create(4), 0);
}

} // namespace
