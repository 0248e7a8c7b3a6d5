// Where a reply goes: the envelope's append of the request it answers and the
// server that sent it. Handlers pass it by value to the reply they send, so a
// reply never reads another request's route.
#pragma once

struct ReplyRoute {
    int nAppend = 0;
    unsigned int nSrcServerIp = 0;  // becomes the reply's routeDstServerIp
    unsigned int nSrcServerId = 0;
};
