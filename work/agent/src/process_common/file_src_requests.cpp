// The session's side of the file source: the requests of the server that
// create and delete source works, plain and encrypted, and the failure
// replies for what the manager refused before queueing.
#include "common/agent_globals.h"
#include "process_common/process_common.h"

using namespace brel_lib;

namespace {

template <class T>
FileSrcReplyTo ReplyToOf(const T& req, int nAppend)
{
    FileSrcReplyTo to;
    to.nWorkId = static_cast<unsigned int>(req.workId.value);
    to.nAppend = nAppend;
    to.nRouteSrcServerIp = static_cast<unsigned int>(req.routeSrcServerIp.value);
    to.nRouteSrcServerId = static_cast<unsigned int>(req.routeSrcServerId.value);
    return to;
}

} // namespace

void CProcessCommon::ReqFileSrcCreate(ReqWorkFileSrcCreate* pReq) { ServeFileSrcCreate(pReq, std::string()); }

// A known id is answered by silence. A create is remembered even when it
// failed, so the same id is not tried again until the history forgets it.
void CProcessCommon::ServeFileSrcCreate(ReqWorkFileSrcCreate* pReq, const std::string& strMd5)
{
    unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
    if (m_mapCreatedWorkId.count(nWorkId) != 0) return;
    int ret = m_fileTransSvrManager.CreateTransSvr(pReq, strMd5, m_nNowAppend);
    m_mapCreatedWorkId[nWorkId] = static_cast<long>(g_timeNow);
    if (ret == 0) return;
    if (static_cast<unsigned int>(pReq->flag.value) & FILE_SVR_FLAG_CREATE2_REPLY) {
        SendFileSrcToServerCreate2Failed(ret, *pReq);
    } else {
        SendFileSrcToServerCreateFailed(ret, *pReq);
    }
}

void CProcessCommon::ReqFileSrcDelete(ReqWorkFileSrcDelete* pReq)
{
    unsigned int nWorkId = static_cast<unsigned int>(pReq->workId.value);
    if (m_mapDeletedWorkId.count(nWorkId) != 0) return;
    int ret = m_fileTransSvrManager.DeleteTransSvr(pReq, m_nNowAppend);
    if (ret != 0) {
        SendFileSrcToServerDeleteFailed(ret, *pReq);
        return;
    }
    m_mapDeletedWorkId[nWorkId] = static_cast<long>(g_timeNow);
}

void CProcessCommon::ReqFileSrcCreateEnc(ReqWorkFileSrcCreateEnc* pReq)
{
    ReqWorkFileSrcCreateEncData data;
    unsigned int nKeySn = static_cast<unsigned int>(pReq->keySn.value);
    if (!m_sessionKeys.DecryptEncData("ReqFileSrcCreateEnc", nKeySn, pReq->encData, data)) return;
    ReqWorkFileSrcCreate plain;
    plain.workId = pReq->workId;
    plain.routeDstAgentId = pReq->routeDstAgentId;
    plain.routeSrcServerIp = pReq->routeSrcServerIp;
    plain.routeSrcServerId = pReq->routeSrcServerId;
    plain.srcFile = data.srcFile;
    plain.dstIp = data.dstIp;
    plain.flag = data.flag;
    std::string strMd5(data.fileMd5.octs == nullptr ? "" : data.fileMd5.octs, data.fileMd5.octetLen);
    Log(LOG_LEVEL_DEBUG, "CProcessCommon::ReqFileSrcCreateEnc(file md5: %s)", strMd5.c_str());
    ServeFileSrcCreate(&plain, strMd5);
}

void CProcessCommon::SendFileSrcToServerCreateFailed(int nRet, const ReqWorkFileSrcCreate& req)
{
    Log(LOG_LEVEL_WARNING, "CProcessCommon::SendFileSrcToServerCreateFailed(ret: %d, work id: %u, append: %d)", nRet,
        static_cast<unsigned int>(req.workId.value), m_nNowAppend);
    RspWorkFileSrcCreate rsp;
    FillFileSrcCreate(rsp, ReplyToOf(req, m_nNowAppend), nRet, 0, 0);
    SendToServer(rsp, m_nNowAppend);
}

void CProcessCommon::SendFileSrcToServerCreate2Failed(int nRet, const ReqWorkFileSrcCreate& req)
{
    Log(LOG_LEVEL_WARNING, "CProcessCommon::SendFileSrcToServerCreate2Failed(ret: %d, work id: %u, append: %d)", nRet,
        static_cast<unsigned int>(req.workId.value), m_nNowAppend);
    RspWorkFileSrcCreate2 rsp;
    FillFileSrcCreate2(rsp, ReplyToOf(req, m_nNowAppend), nRet, std::vector<unsigned int>(), 0, 0, 0);
    SendToServer(rsp, m_nNowAppend);
}

void CProcessCommon::SendFileSrcToServerDeleteFailed(int nRet, const ReqWorkFileSrcDelete& req)
{
    Log(LOG_LEVEL_WARNING, "CProcessCommon::SendFileSrcToServerDeleteFailed(ret: %d, work id: %u, append: %d)", nRet,
        static_cast<unsigned int>(req.workId.value), m_nNowAppend);
    RspWorkFileSrcDelete rsp;
    FillFileSrcDelete(rsp, ReplyToOf(req, m_nNowAppend), nRet);
    SendToServer(rsp, m_nNowAppend);
}
