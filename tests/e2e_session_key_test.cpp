// Session keys with the real agent: the exchange under a key pair made at
// run time, and command requests that travel encrypted. Renewal, longer keys
// and bad encrypted requests: session_key_test, in-process.
#include <gtest/gtest.h>
#include <signal.h>

#include "agent_e2e.h"
#include "session_key_server.h"
#include "util.h"

using namespace agent_test;

namespace {

const unsigned int AGENT_ID = brel_lib::IpStringToInt("127.0.0.1");

class AgentSessionKey : public AgentEndToEnd {
protected:
    void SetUp() override
    {
        AgentEndToEnd::SetUp();
        if (IsSkipped()) return;
        m_strPrivate = Tree().Path("private.pem");
        ASSERT_TRUE(MakeRsaKeyPair(m_strPrivate, Tree().Path("etc/publickey.pem")));
        Tree().Config()["public_key_version"] = "7";
        Server().SetAnswerHeartbeats(true);
    }

    // Waits for the request and answers it with the given key; returns the secret.
    std::string Handshake(const std::string& strKey, unsigned int nKeySn = 1)
    {
        TestWorkServer::Received got;
        EXPECT_TRUE(Server().WaitFor(Zik::reqSessionKeyCid, 5000, &got, nKeySn));
        EXPECT_EQ(got.nAppend, 0);
        ReqSessionKey req;
        EXPECT_TRUE(DecodeBody(got, req));
        EXPECT_EQ(req.moduleType, 2);
        EXPECT_EQ(static_cast<unsigned int>(req.keyId.value), AGENT_ID);
        EXPECT_EQ(req.publicKeyVersion, 7);
        ReqSessionKeyEncData encData;
        EXPECT_TRUE(OpenKeyRequest(m_strPrivate, req, encData));
        EXPECT_EQ(encData.keySn, static_cast<int>(nKeySn));
        EXPECT_EQ(static_cast<unsigned int>(encData.keyId.value), AGENT_ID);
        std::string strSecret(encData.oldKeyData.octs, encData.oldKeyData.octetLen);

        RspSessionKey rsp;
        SealKeyAnswer(rsp, strSecret, strKey, static_cast<int>(nKeySn), static_cast<int>(AGENT_ID), 3600);
        rsp.routeDstAgentId = 1;
        rsp.routeSrcServerIp = 0x01020304;
        rsp.routeSrcServerId = 99;
        Server().Send(rsp, 5);
        return strSecret;
    }

    void SendCreateEnc(const std::string& strKey, unsigned int nKeySn, unsigned int nWorkId, const std::string& strCmd)
    {
        ReqWorkCmdCreateEncData data;
        data.flag = 0;
        data.timeout = 0;
        data.bufSize = 0;
        data.execUser = "";
        data.cmd = strCmd.c_str();
        std::string strEnc = AesEncrypt(strKey, EncodeRecord(data));
        SendRawEnc<ReqWorkCmdCreateEnc>(strEnc, nKeySn, nWorkId);
    }

    template <class T>
    void SendRawEnc(const std::string& strEnc, unsigned int nKeySn, unsigned int nWorkId)
    {
        T req;
        req.encData.ReSet(strEnc.data(), strEnc.size());
        req.keySn = static_cast<int>(nKeySn);
        req.routeDstAgentId = 1;
        req.routeSrcServerIp = 0x0A000001;
        req.routeSrcServerId = 3;
        req.workId = static_cast<int>(nWorkId);
        Server().Send(req, 8);
    }

    std::string m_strPrivate;
};

TEST_F(AgentSessionKey, ExchangeAndEncryptedCommands)
{
    pid_t pid = StartAgent();
    const std::string strKey = "0123456789abcdef";
    std::string strSecret = Handshake(strKey);
    EXPECT_EQ(strSecret.size(), 16u);
    TestWorkServer::Received got;
    ASSERT_TRUE(Server().WaitFor(Zik::rspSessionKeyUsedCid, 5000, &got));
    EXPECT_EQ(got.nAppend, 0);
    RspSessionKeyUsed used;
    ASSERT_TRUE(DecodeBody(got, used));
    EXPECT_EQ(used.ret, 0);
    EXPECT_EQ(used.moduleType, 2);
    EXPECT_EQ(static_cast<unsigned int>(used.keyId.value), AGENT_ID);
    EXPECT_EQ(used.publicKeyVersion, 7);
    EXPECT_EQ(used.routeDstServerIp, 0x01020304);
    EXPECT_EQ(used.routeDstServerId, 99);
    RspSessionKeyUsedEncData usedData;
    ASSERT_TRUE(DecodeRecord(RsaPrivateDecrypt(m_strPrivate, std::string(used.encData.octs, used.encData.octetLen)),
                             usedData));
    EXPECT_EQ(static_cast<unsigned int>(usedData.keyId.value), AGENT_ID);
    EXPECT_EQ(usedData.keySn, 1);

    // Encrypted create and start run the command as the plain forms do.
    SendCreateEnc(strKey, 1, 101, "echo enc");
    ASSERT_TRUE(Server().WaitFor(Zik::rspWorkCmdCreateCid, 5000, &got));
    RspWorkCmdCreate created;
    ASSERT_TRUE(DecodeBody(got, created));
    EXPECT_EQ(created.ret, 0);
    EXPECT_EQ(created.workId, 101);
    EXPECT_EQ(created.routeDstServerIp, 0x0A000001);
    EXPECT_EQ(created.routeDstServerId, 3);
    EXPECT_EQ(got.nAppend, 8);
    ReqWorkCmdSetActionEncData action;
    action.action = 1;
    SendRawEnc<ReqWorkCmdSetActionEnc>(AesEncrypt(strKey, EncodeRecord(action)), 1, 101);
    ASSERT_TRUE(Server().WaitFor(Zik::rspWorkCmdSetActionCid, 5000, &got));
    RspWorkCmdSetAction started;
    ASSERT_TRUE(DecodeBody(got, started));
    EXPECT_EQ(started.ret, 0);
    ASSERT_TRUE(Server().WaitFor(Zik::rspWorkCmdQueryCid, 5000, &got));
    RspWorkCmdQuery result;
    ASSERT_TRUE(DecodeBody(got, result));
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(std::string(result.stdOut.octs, result.stdOut.octetLen), "enc\n");
    EXPECT_EQ(got.nAppend, 8);

    // The create's three lines, key included, as they have always been written.
    EXPECT_TRUE(Tree().WaitForLog("session key xxxx:0123456789abcdef:xxxxx", 1000));
    EXPECT_TRUE(Tree().WaitForLog("decrypt key:0123456789abcdef, size:", 1000));
    EXPECT_TRUE(Tree().WaitForLog("parse ret:0, size:", 1000));
    Stop(pid);
}

} // namespace
