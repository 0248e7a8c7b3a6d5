// The one way back from a manager into the server session: the replies and
// reports that a manager hands to the session for the server. The session
// implements it and gives it to each manager before that manager starts.
#pragma once

struct CommonWork;

class CSessionReply {
public:
    virtual ~CSessionReply() = default;

    // Command works; the command manager may call these with its lock held.
    // The SetAction and QueryFailed forms answer the request in hand, so they
    // run on the session thread; QueryOk takes the work's own route and may
    // run on any thread.
    virtual void SendCmdToServerSetActionOk(unsigned int nWorkId) = 0;
    virtual void SendCmdToServerSetActionFailed(int nRet, unsigned int nWorkId) = 0;
    virtual void SendCmdToServerQueryOk(const CommonWork& work) = 0;
    virtual void SendCmdToServerQueryFailed(int nRet, unsigned int nWorkId) = 0;
};
