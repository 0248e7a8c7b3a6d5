// The one way back from a manager into the server session: what a manager
// reports by itself, unasked. The session implements it and gives it to each
// manager before that manager starts. Answers to requests are not sent this
// way: a manager returns its result code and the session answers.
#pragma once

struct CommonWork;

class CSessionReply {
public:
    virtual ~CSessionReply() = default;

    // A command work's state, under the work's own route: its result when it
    // ends and while it waits to be deleted, and the answer to a query. Any
    // thread; the command manager calls it with its lock held.
    virtual void SendCmdToServerQueryOk(const CommonWork& work) = 0;
};
