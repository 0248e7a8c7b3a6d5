// The session's side of the file destination: the server's requests for
// destination works, plain and encrypted, and the failure replies for what
// the manager refused; the write threads send every other reply.
#include "common/agent_globals.h"
#include "common/work_codes.h"
#include "process_common/process_common.h"

using namespace brel_lib;

namespace {

// A failure reply to the request in hand: its work and route, the session's append.
template <class TRsp, class TReq>
void FillDstFailed(TRsp& rsp, int nRet, const TReq& req)
{
    rsp.ret = nRet;
    rsp.workId = req.workId;
    rsp.routeDstServerIp = req.routeSrcServerIp;
    rsp.routeDstServerId = req.routeSrcServerId;
    rsp.routeSrcAgentId = static_cast<int>(g_nAgentId.load());
}

template <class TEnc, class TPlain>
void CopyDstClearPart(const TEnc& enc, TPlain& plain)
{
    plain.workId = enc.workId;
    plain.routeDstAgentId = enc.routeDstAgentId;
    plain.routeSrcServerIp = enc.routeSrcServerIp;
    plain.routeSrcServerId = enc.routeSrcServerId;
}

} // namespace

// A known id is answered by silence; only an accepted create or delete is
// remembered, so that a refused one may be tried again.
void CProcessCommon::ReqFileDstCreate(ReqWorkFileDstCreate* pReq)
{
    unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
    if (m_mapCreatedWorkId.count(nWorkId) != 0) return;
    int ret = m_fileTransClientManager.CreateTransClient(pReq, m_nNowAppend);
    if (ret != 0) {
        SendFileDstToServerCreateFailed(ret, *pReq);
        return;
    }
    m_mapCreatedWorkId[nWorkId] = static_cast<long>(g_timeNow);
}

void CProcessCommon::ReqFileDstCreate2(ReqWorkFileDstCreate2* pReq)
{
    unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
    if (m_mapCreatedWorkId.count(nWorkId) != 0) return;
    int ret = m_fileTransClientManager.CreateTransClient2(pReq, m_nNowAppend);
    if (ret != 0) {
        SendFileDstToServerCreate2Failed(ret, *pReq);
        return;
    }
    m_mapCreatedWorkId[nWorkId] = static_cast<long>(g_timeNow);
}

void CProcessCommon::ReqFileDstSetAction(ReqWorkFileDstSetAction* pReq)
{
    int ret = m_fileTransClientManager.SetActionWork(pReq, m_nNowAppend);
    if (ret != 0) SendFileDstToServerSetActionFailed(ret, *pReq);
}

void CProcessCommon::ReqFileDstQuery(ReqWorkFileDstQuery* pReq)
{
    int ret = m_fileTransClientManager.QueryWork(pReq, m_nNowAppend);
    if (ret != 0) SendFileDstToServerQueryFailed(ret, *pReq);
}

void CProcessCommon::ReqFileDstDelete(ReqWorkFileDstDelete* pReq)
{
    unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
    if (m_mapDeletedWorkId.count(nWorkId) != 0) return;
    int ret = m_fileTransClientManager.DeleteWork(pReq, m_nNowAppend);
    if (ret != 0) {
        SendFileDstToServerDeleteFailed(ret, *pReq);
        return;
    }
    m_mapDeletedWorkId[nWorkId] = static_cast<long>(g_timeNow);
}

void CProcessCommon::ReqFileDstCreateEnc(ReqWorkFileDstCreateEnc* pReq)
{
    ReqWorkFileDstCreateEncData data;
    if (!m_sessionKeys.DecryptEncData("ReqFileDstCreateEnc", static_cast<unsigned int>(pReq->keySn.value),
                                      pReq->encData, data))
        return;
    ReqWorkFileDstCreate plain;
    CopyDstClearPart(*pReq, plain);
    plain.srcFile = data.srcFile;
    plain.dstPath = data.dstPath;
    plain.srcServerIp = data.srcServerIp;
    plain.srcServerPort = data.srcServerPort;
    plain.srcWorkId = data.srcWorkId;
    plain.flag = data.flag;
    plain.timeout = data.timeout;
    ReqFileDstCreate(&plain);
}

void CProcessCommon::ReqFileDstCreate2Enc(ReqWorkFileDstCreate2Enc* pReq)
{
    ReqWorkFileDstCreate2EncData data;
    if (!m_sessionKeys.DecryptEncData("ReqFileDstCreate2Enc", static_cast<unsigned int>(pReq->keySn.value),
                                      pReq->encData, data))
        return;
    ReqWorkFileDstCreate2 plain;
    CopyDstClearPart(*pReq, plain);
    plain.srcFile = data.srcFile;
    plain.dstPath = data.dstPath;
    data.srcServerIp.SetCurrToFirst();
    for (AsnInt* pIp = data.srcServerIp.Curr(); pIp != nullptr; pIp = data.srcServerIp.GoNext())
        plain.srcServerIp.AppendCopy(*pIp);
    plain.srcServerPort = data.srcServerPort;
    plain.srcWorkId = data.srcWorkId;
    plain.flag = data.flag;
    plain.timeout = data.timeout;
    plain.firstSrcAgentId = data.firstSrcAgentId;
    plain.firstSrcFile = data.firstSrcFile;
    plain.modifyTime = data.modifyTime;
    plain.totalSizeHigh = data.totalSizeHigh;
    plain.totalSizeLow = data.totalSizeLow;
    ReqFileDstCreate2(&plain);
}

void CProcessCommon::ReqFileDstSetActionEnc(ReqWorkFileDstSetActionEnc* pReq)
{
    ReqWorkFileDstSetActionEncData data;
    if (!m_sessionKeys.DecryptEncData("ReqFileDstSetActionEnc", static_cast<unsigned int>(pReq->keySn.value),
                                      pReq->encData, data))
        return;
    ReqWorkFileDstSetAction plain;
    CopyDstClearPart(*pReq, plain);
    plain.action = data.action;
    ReqFileDstSetAction(&plain);
}

// The failure replies of the requests in hand.
template <class TRsp, class TReq>
void CProcessCommon::SendFileDstFailed(const char* szFunction, int nRet, const TReq& req, bool bExpected)
{
    Log(bExpected ? LOG_LEVEL_DEBUG : LOG_LEVEL_WARNING, "CProcessCommon::%s(ret: %d, work id: %u, append: %d)",
        szFunction, nRet, static_cast<unsigned int>(req.workId.value), m_nNowAppend);
    TRsp rsp;
    FillDstFailed(rsp, nRet, req);
    SendToServer(rsp, m_nNowAppend);
}

void CProcessCommon::SendFileDstToServerCreateFailed(int nRet, const ReqWorkFileDstCreate& req)
{
    SendFileDstFailed<RspWorkFileDstCreate>("SendFileDstToServerCreateFailed", nRet, req, false);
}

// 330 and 331 are expected outcomes of a create through the cache.
void CProcessCommon::SendFileDstToServerCreate2Failed(int nRet, const ReqWorkFileDstCreate2& req)
{
    SendFileDstFailed<RspWorkFileDstCreate>("SendFileDstToServerCreate2Failed", nRet, req,
                                            nRet == RET_IN_CACHE_COMPLETE || nRet == RET_RUNS_BY_ITSELF);
}

void CProcessCommon::SendFileDstToServerSetActionFailed(int nRet, const ReqWorkFileDstSetAction& req)
{
    SendFileDstFailed<RspWorkFileDstSetAction>("SendFileDstToServerSetActionFailed", nRet, req, false);
}

void CProcessCommon::SendFileDstToServerQueryFailed(int nRet, const ReqWorkFileDstQuery& req)
{
    Log(LOG_LEVEL_WARNING, "CProcessCommon::SendFileDstToServerQueryFailed(ret: %d, work id: %u, append: %d)", nRet,
        static_cast<unsigned int>(req.workId.value), m_nNowAppend);
    RspWorkFileDstQuery rsp;
    FillDstFailed(rsp, nRet, req);
    rsp.status = WORK_UNKNOWN;
    rsp.beginTime = rsp.endTime = 0;
    rsp.srcFile = "";
    rsp.okSizeHigh = rsp.okSizeLow = rsp.totalSizeHigh = rsp.totalSizeLow = 0;
    SendToServer(rsp, m_nNowAppend);
}

void CProcessCommon::SendFileDstToServerDeleteFailed(int nRet, const ReqWorkFileDstDelete& req)
{
    SendFileDstFailed<RspWorkFileDstDelete>("SendFileDstToServerDeleteFailed", nRet, req, false);
}
