// Session keys in the session run in-process, on a clock the test moves:
// renewal with the newest key as secret, the two newest keys, keys of 16, 24
// and 32 bytes, refused answers and the 30-second spacing, a clock set back,
// bad encrypted requests, a missing public key.
#include <gtest/gtest.h>

#include "session_harness.h"

using namespace agent_test;

namespace {

class SessionKeys : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(S().MakeKeys()); }
    SessionHarness& S() { return m_session; }

    // An encrypted create under the key: its ret, or -1 for no reply.
    int CreateEnc(const std::string& strKey, unsigned int nKeySn, unsigned int nWorkId)
    {
        ReqWorkCmdCreateEncData data;
        data.cmd = "true";
        S().SendSealed<ReqWorkCmdCreateEnc>(AesEncrypt(strKey, EncodeRecord(data)), nKeySn, nWorkId);
        return S().NextRet<RspWorkCmdCreate>(1000);
    }

    SessionHarness m_session{"heartbeat_second = 100000\nsession_key_update_second = 100\n"};
    unsigned int m_nKeySn = 0;
    std::string m_strSecret;
};

// Keys of 16, 24 and 32 bytes, each the secret of the next request.
TEST_F(SessionKeys, RenewalKeepsTheTwoNewestKeys)
{
    S().Start();
    const std::string keys[] = {std::string(16, 'A'), std::string(24, 'k'), std::string(32, 'K')};
    ASSERT_TRUE(S().KeyRequest(m_nKeySn, m_strSecret));
    EXPECT_EQ(m_nKeySn, 1u);
    EXPECT_EQ(m_strSecret.size(), 16u);
    for (unsigned int n = 1; n <= 3; ++n) {
        if (n > 1) {
            S().AdvanceClock(101);
            ASSERT_TRUE(S().KeyRequest(m_nKeySn, m_strSecret));
            EXPECT_EQ(m_nKeySn, n);
            EXPECT_EQ(m_strSecret, keys[n - 2]);  // the newest key is the secret
        }
        S().KeyAnswer(m_strSecret, keys[n - 1], n);
        ASSERT_TRUE(S().KeyAccepted()) << n;
    }
    EXPECT_EQ(CreateEnc(keys[0], 1, 11), -1);  // pushed out: dropped without a reply
    EXPECT_NE(S().ReadLog().find("CProcessCommon::ReqCmdCreateEnc(no session key, keySn:1)"), std::string::npos);
    EXPECT_EQ(CreateEnc(keys[1], 2, 12), 0);
    EXPECT_EQ(CreateEnc(keys[2], 3, 13), 0);
}

TEST_F(SessionKeys, BadEncryptedRequestsAreDroppedWithoutAReply)
{
    WriteFile(S().Path("etc/config"), ReadFile(S().Path("etc/config")) + "log_mask_session_key = 1\n");
    S().Start();
    const std::string strKey = "fedcba9876543210";
    ASSERT_EQ(S().EstablishKey(strKey), 1u);
    ReqWorkCmdCreateEncData data;
    data.cmd = "echo unknown key";
    S().SendSealed<ReqWorkCmdCreateEnc>(AesEncrypt(strKey, EncodeRecord(data)), 9, 1);
    EXPECT_TRUE(S().Logged("CProcessCommon::ReqCmdCreateEnc(no session key, keySn:9)"));
    S().SendSealed<ReqWorkCmdCreateEnc>("not a whole block", 1, 2);
    EXPECT_TRUE(S().Logged("CProcessCommon::ReqCmdCreateEnc(decrypt error)"));
    S().SendSealed<ReqWorkCmdCreateEnc>(AesEncrypt(strKey, "garbage, not BER"), 1, 3);
    EXPECT_TRUE(S().Logged("CProcessCommon::ReqCmdCreateEnc(parse from buffer error)"));
    S().SendSealed<ReqWorkCmdSetActionEnc>(std::string(16, 'x'), 1, 4);
    EXPECT_TRUE(S().Logged("CProcessCommon::ReqCmdSetActionEnc("));
    // Padding counts beyond the data, and hostile lengths: no reply, no crash.
    S().SendSealed<ReqWorkCmdCreateEnc>(std::string(31, 'p') + static_cast<char>(200), 1, 5);

    data.cmd = "echo fine";
    S().SendSealed<ReqWorkCmdCreateEnc>(AesEncrypt(strKey, EncodeRecord(data)), 1, 6);
    RspWorkCmdCreate created;
    ASSERT_TRUE(S().Next(created));
    EXPECT_EQ(created.workId, 6);  // the first reply of all: the bad ones got none
    RspWorkCmdSetAction action;
    EXPECT_FALSE(S().Next(action, 300));
    // The create's key lines are masked, and the key shows nowhere.
    EXPECT_TRUE(S().Logged("session key xxxx:******:xxxxx"));
    EXPECT_EQ(S().ReadLog().find(strKey), std::string::npos);
}

TEST_F(SessionKeys, RefusedAnswersAreRequestedAgainAfterTheSpacing)
{
    S().Start();
    const std::string strKey(16, 'K');
    ASSERT_TRUE(S().KeyRequest(m_nKeySn, m_strSecret));
    S().KeyAnswer(m_strSecret, strKey, 2);  // a wrong serial number
    EXPECT_FALSE(S().KeyAccepted());
    EXPECT_NE(S().ReadLog().find("CProcessCommon::DealRspSessionKey(enc data error, keySn:2u-1, keyId:77-77)"),
              std::string::npos);
    S().AdvanceClock(10);
    EXPECT_FALSE(S().KeyRequest(m_nKeySn, m_strSecret, 300));  // spaced by 30 seconds
    S().AdvanceClock(21);
    ASSERT_TRUE(S().KeyRequest(m_nKeySn, m_strSecret));
    EXPECT_EQ(m_nKeySn, 1u);

    S().KeyAnswer(m_strSecret, strKey, 1, 5);  // a non-zero ret
    EXPECT_FALSE(S().KeyAccepted());
    EXPECT_NE(S().ReadLog().find("CProcessCommon::DealRspSessionKey(rsp session key error, ret:5)"), std::string::npos);
    S().AdvanceClock(31);
    ASSERT_TRUE(S().KeyRequest(m_nKeySn, m_strSecret));

    S().KeyAnswer(m_strSecret, strKey, 1, 0, 78);  // another agent's key
    EXPECT_FALSE(S().KeyAccepted());
    EXPECT_NE(S().ReadLog().find("rsp session key error, module type:2, keyId:78, keyLen"), std::string::npos);
    S().AdvanceClock(31);
    ASSERT_TRUE(S().KeyRequest(m_nKeySn, m_strSecret));
    S().KeyAnswer(m_strSecret, strKey, 1);
    EXPECT_TRUE(S().KeyAccepted());
    EXPECT_EQ(CreateEnc(strKey, 1, 5), 0);
}

TEST_F(SessionKeys, ClockSetBackAsksAgainAndOldKeysStayUsable)
{
    S().Start();
    const std::string strKey(16, 'O');
    ASSERT_EQ(S().EstablishKey(strKey), 1u);
    S().AdvanceClock(-3600);
    S().AdvanceClock(31);
    ASSERT_TRUE(S().KeyRequest(m_nKeySn, m_strSecret));
    EXPECT_EQ(m_nKeySn, 2u);
    EXPECT_EQ(m_strSecret, strKey);
    EXPECT_EQ(CreateEnc(strKey, 1, 6), 0);
}

// A key file that is missing or unreadable is logged as an error, retried every
// 30 seconds, and plain requests go on.
TEST_F(SessionKeys, AMissingOrUnreadablePublicKeyIsLoggedAndRetried)
{
    const std::string strOpenFailed = "CProcessCommon::ReqUpdateSessionKey(open public key file failed, /proc/";
    unlink(S().Path("etc/publickey.pem").c_str());
    S().Start();
    ASSERT_TRUE(S().Logged(strOpenFailed, 2000));
    EXPECT_NE(S().ReadLog().find("Error  ("), std::string::npos);
    ReqSessionKey req;
    EXPECT_FALSE(S().Next(req, 300));
    S().AdvanceClock(20);
    EXPECT_EQ(S().LogCount(strOpenFailed), 1u);
    S().AdvanceClock(11);
    EXPECT_EQ(S().LogCount(strOpenFailed), 2u);
    EXPECT_EQ(S().Create(3), 0);

    WriteFile(S().Path("etc/publickey.pem"), "-----BEGIN RSA PUBLIC KEY-----\nnot a key\n");
    S().AdvanceClock(31);
    ASSERT_TRUE(S().Logged("CProcessCommon::ReqUpdateSessionKey(read public key file failed)", 2000));
    EXPECT_EQ(S().Create(4), 0);
}

} // namespace
