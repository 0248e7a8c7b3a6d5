// Where a reply goes: the envelope's append of the request it answers and the
// server that sent it. Handlers pass it by value to the reply they send, so a
// reply never reads another request's route.
#pragma once

struct ReplyRoute {
    int nAppend = 0;
    unsigned int nSrcServerIp = 0;  // becomes the reply's routeDstServerIp
    unsigned int nSrcServerId = 0;
};

// The route of a request of the server: its envelope's append and the server that sent it.
template <class T>
ReplyRoute RouteOf(const T& req, int nAppend)
{
    ReplyRoute route;
    route.nAppend = nAppend;
    route.nSrcServerIp = static_cast<unsigned int>(req.routeSrcServerIp.value);
    route.nSrcServerId = static_cast<unsigned int>(req.routeSrcServerId.value);
    return route;
}
