// The session's side of the file destination: the server's requests for
// destination works, plain and encrypted, and the failure replies for what
// the manager refused; the write threads send every other reply.
#include "common/agent_counters.h"
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

} // namespace

void CProcessCommon::ReqFileDstCreate(ReqWorkFileDstCreate* pReq, int nAppend)
{
    ServeOnce(m_mapCreatedWorkId, pReq, nAppend, &CProcessCommon::SendFileDstToServerCreateFailed,
              [&] { return m_fileTransClientManager.CreateTransClient(pReq, nAppend); });
}

void CProcessCommon::ReqFileDstCreate2(ReqWorkFileDstCreate2* pReq, int nAppend)
{
    ServeOnce(m_mapCreatedWorkId, pReq, nAppend, &CProcessCommon::SendFileDstToServerCreate2Failed,
              [&] { return m_fileTransClientManager.CreateTransClient2(pReq, nAppend); });
}

void CProcessCommon::ReqFileDstSetAction(ReqWorkFileDstSetAction* pReq, int nAppend)
{
    int ret = m_fileTransClientManager.SetActionWork(pReq, nAppend);
    if (ret != 0) SendFileDstToServerSetActionFailed(ret, *pReq, nAppend);
}

void CProcessCommon::ReqFileDstQuery(ReqWorkFileDstQuery* pReq, int nAppend)
{
    int ret = m_fileTransClientManager.QueryWork(pReq, nAppend);
    if (ret != 0) SendFileDstToServerQueryFailed(ret, *pReq, nAppend);
}

void CProcessCommon::ReqFileDstDelete(ReqWorkFileDstDelete* pReq, int nAppend)
{
    ServeOnce(m_mapDeletedWorkId, pReq, nAppend, &CProcessCommon::SendFileDstToServerDeleteFailed,
              [&] { return m_fileTransClientManager.DeleteWork(pReq, nAppend); });
}

void CProcessCommon::FillFromEncData(const ReqWorkFileDstCreateEncData& data, ReqWorkFileDstCreate& plain)
{
    plain.srcFile = data.srcFile;
    plain.dstPath = data.dstPath;
    plain.srcServerIp = data.srcServerIp;
    plain.srcServerPort = data.srcServerPort;
    plain.srcWorkId = data.srcWorkId;
    plain.flag = data.flag;
    plain.timeout = data.timeout;
}

// The two lists of addresses are of different types: copied element by
// element, which moves the current element of data's list.
void CProcessCommon::FillFromEncData(ReqWorkFileDstCreate2EncData& data, ReqWorkFileDstCreate2& plain)
{
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
}

void CProcessCommon::FillFromEncData(const ReqWorkFileDstSetActionEncData& data, ReqWorkFileDstSetAction& plain)
{
    plain.action = data.action;
}

void CProcessCommon::ReqFileDstCreateEnc(ReqWorkFileDstCreateEnc* pReq, int nAppend)
{
    ServeEnc<ReqWorkFileDstCreateEncData>("ReqFileDstCreateEnc", pReq, nAppend, &CProcessCommon::ReqFileDstCreate);
}

void CProcessCommon::ReqFileDstCreate2Enc(ReqWorkFileDstCreate2Enc* pReq, int nAppend)
{
    ServeEnc<ReqWorkFileDstCreate2EncData>("ReqFileDstCreate2Enc", pReq, nAppend, &CProcessCommon::ReqFileDstCreate2);
}

void CProcessCommon::ReqFileDstSetActionEnc(ReqWorkFileDstSetActionEnc* pReq, int nAppend)
{
    ServeEnc<ReqWorkFileDstSetActionEncData>("ReqFileDstSetActionEnc", pReq, nAppend,
                                             &CProcessCommon::ReqFileDstSetAction);
}

// The failure replies of the requests in hand.
template <class TRsp, class TReq>
void CProcessCommon::SendFileDstFailed(const char* szFunction, int nRet, const TReq& req, int nAppend, bool bExpected)
{
    Log(bExpected ? LOG_LEVEL_DEBUG : LOG_LEVEL_WARNING, "CProcessCommon::%s(ret: %d, work id: %u, append: %d)",
        szFunction, nRet, static_cast<unsigned int>(req.workId.value), nAppend);
    CountRefusal(nRet);
    TRsp rsp;
    FillDstFailed(rsp, nRet, req);
    SendToServer(rsp, nAppend);
}

void CProcessCommon::SendFileDstToServerCreateFailed(int nRet, const ReqWorkFileDstCreate& req, int nAppend)
{
    SendFileDstFailed<RspWorkFileDstCreate>("SendFileDstToServerCreateFailed", nRet, req, nAppend, false);
}

// 330 and 331 are expected outcomes of a create through the cache.
void CProcessCommon::SendFileDstToServerCreate2Failed(int nRet, const ReqWorkFileDstCreate2& req, int nAppend)
{
    SendFileDstFailed<RspWorkFileDstCreate>("SendFileDstToServerCreate2Failed", nRet, req, nAppend,
                                            nRet == RET_IN_CACHE_COMPLETE || nRet == RET_RUNS_BY_ITSELF);
}

void CProcessCommon::SendFileDstToServerSetActionFailed(int nRet, const ReqWorkFileDstSetAction& req, int nAppend)
{
    SendFileDstFailed<RspWorkFileDstSetAction>("SendFileDstToServerSetActionFailed", nRet, req, nAppend, false);
}

void CProcessCommon::SendFileDstToServerQueryFailed(int nRet, const ReqWorkFileDstQuery& req, int nAppend)
{
    Log(LOG_LEVEL_WARNING, "CProcessCommon::SendFileDstToServerQueryFailed(ret: %d, work id: %u, append: %d)", nRet,
        static_cast<unsigned int>(req.workId.value), nAppend);
    RspWorkFileDstQuery rsp;
    FillDstFailed(rsp, nRet, req);
    rsp.status = WORK_UNKNOWN;
    rsp.beginTime = rsp.endTime = 0;
    rsp.srcFile = "";
    rsp.okSizeHigh = rsp.okSizeLow = rsp.totalSizeHigh = rsp.totalSizeLow = 0;
    SendToServer(rsp, nAppend);
}

void CProcessCommon::SendFileDstToServerDeleteFailed(int nRet, const ReqWorkFileDstDelete& req, int nAppend)
{
    SendFileDstFailed<RspWorkFileDstDelete>("SendFileDstToServerDeleteFailed", nRet, req, nAppend, false);
}
