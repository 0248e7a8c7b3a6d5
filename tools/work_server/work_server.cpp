// A small work server for people who want to try or debug agents without the
// platform. One process serves the agents; the same program, called again,
// talks to it over a local control socket:
//
//   work_server serve [--listen IP:PORT] [--control PATH]
//   work_server list  [--control PATH]
//   work_server run   [--control PATH] --agent ID [--user USER] [--timeout SEC]
//                     [--buf-size BYTES] [--wait SEC] -- COMMAND...
//   work_server copy  [--control PATH] --from AGENT:PATH --to AGENT:PATH
//   work_server stop  [--control PATH]
//
// `copy` moves a file from one agent to another (the data goes between the
// agents) and shows the destination's progress.
// `run` prints the command's standard output and error and exits with its
// exit code. The control protocol is one line of text each way, with the
// strings in hexadecimal.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "asn_parse.h"
#include "network/packet_listener.h"
#include "util.h"
#include "zik_pkt.h"

namespace {

const char* const DEFAULT_LISTEN = "127.0.0.1:18080";
const char* const DEFAULT_CONTROL = "/tmp/work_server.sock";

void Usage()
{
    fprintf(stderr,
            "usage:\n"
            "  work_server serve [--listen IP:PORT] [--control PATH]\n"
            "  work_server list  [--control PATH]\n"
            "  work_server copy  [--control PATH] --from AGENT:PATH --to AGENT:PATH\n"
            "  work_server run   [--control PATH] --agent ID [--user USER] [--timeout SEC]\n"
            "                    [--buf-size BYTES] [--wait SEC] -- COMMAND...\n"
            "  work_server stop  [--control PATH]\n"
            "defaults: --listen %s --control %s; ID is the agent id as an IPv4 text or a number\n",
            DEFAULT_LISTEN, DEFAULT_CONTROL);
}

std::string ToHex(const std::string& str)
{
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : str) {
        out += hex[c >> 4];
        out += hex[c & 15];
    }
    return out.empty() ? "-" : out;
}

std::string FromHex(const std::string& str)
{
    std::string out;
    if (str == "-") return out;
    for (size_t i = 0; i + 1 < str.size(); i += 2) out += static_cast<char>(strtol(str.substr(i, 2).c_str(), nullptr, 16));
    return out;
}

// The agent id as people write it: the IPv4 text it came from, else the number.
std::string AgentName(unsigned int nId)
{
    std::string strIp = brel_lib::IpIntToString(nId);
    return strIp.empty() ? std::to_string(nId) : strIp;
}

bool ParseAgent(const std::string& str, unsigned int& nId)
{
    if (brel_lib::IpStringToInt(nId, str) == 0) return true;
    char* pEnd = nullptr;
    unsigned long n = strtoul(str.c_str(), &pEnd, 10);
    if (str.empty() || *pEnd != 0) return false;
    nId = static_cast<unsigned int>(n);
    return true;
}

bool WriteAll(int fd, const std::string& str)
{
    size_t nDone = 0;
    while (nDone < str.size()) {
        ssize_t n = send(fd, str.data() + nDone, str.size() - nDone, MSG_NOSIGNAL);
        if (n <= 0) return false;
        nDone += static_cast<size_t>(n);
    }
    return true;
}

// ---- the server ------------------------------------------------------------------

struct Agent {
    brel_lib::CPacketConnection conn;
    std::string strAddr;
    bool bKnown = false;  // a heartbeat told its id
    unsigned int nId = 0;
    time_t tLastHeartbeat = 0;
};

struct Job {
    int fdControl = -1;
    int fdAgent = -1;
};

// A file copy: a source work on one agent, a destination work on the other.
struct Copy {
    int fdControl = -1;
    int fdSrcAgent = -1;
    int fdDstAgent = -1;
    unsigned int nSrcWorkId = 0;
    std::string strSrcPath;
    std::string strDstPath;
    bool bStarted = false;  // the destination's set-action went out
};

class Server {
public:
    int Serve(const std::string& strListen, const std::string& strControl);

private:
    bool Listen(const std::string& strListen, const std::string& strControl);
    void AcceptAgent();
    void ReadAgent(Agent& agent);
    void DealPacket(Agent& agent, char* pData, unsigned int nSize);
    void DealControl(int fd);
    void FinishJob(unsigned int nWorkId, const std::string& strLine);
    int AgentFd(const std::string& strAgent);
    void StartCopy(int fd, std::istringstream& in);
    bool DealCopyPacket(Zik& body);
    void FinishCopy(unsigned int nDstWorkId, const std::string& strLine);
    void QueryCopies();
    void DropAgent(int fd);
    template <class T>
    bool SendTo(int fd, T& msg, int nAppend = 0);

    brel_lib::CPacketListener m_listener;
    int m_fdControl = -1;
    std::string m_strControlPath;
    std::map<int, std::unique_ptr<Agent>> m_mapAgents;  // by descriptor
    std::map<unsigned int, Job> m_mapJobs;  // by work id
    std::map<unsigned int, Copy> m_mapCopies;  // by the destination's work id
    std::map<unsigned int, unsigned int> m_mapCopySrc;  // source work id to destination work id
    time_t m_tLastQuery = 0;
    unsigned int m_nNextWorkId = static_cast<unsigned int>(time(nullptr)) & 0x7fffffff;
    bool m_bStop = false;
};

template <class T>
bool Server::SendTo(int fd, T& msg, int nAppend)
{
    brel_lib::CPacketBuffer block("work_server", 0);
    unsigned int nSize = 0;
    char* p = EncodePacket(block, msg, nAppend, nSize);
    return p != nullptr && WriteAll(fd, std::string(p, nSize));
}

bool Server::Listen(const std::string& strListen, const std::string& strControl)
{
    size_t nColon = strListen.rfind(':');
    if (nColon == std::string::npos) return false;
    unsigned short nPort = static_cast<unsigned short>(atoi(strListen.substr(nColon + 1).c_str()));
    int nRet = m_listener.Listen(strListen.substr(0, nColon), nPort, 64);
    if (nRet != 0) {
        fprintf(stderr, "work_server: cannot listen on %s: %s\n", strListen.c_str(),
                nRet < 0 ? "not an IPv4 address" : strerror(nRet));
        return false;
    }
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    snprintf(un.sun_path, sizeof(un.sun_path), "%s", strControl.c_str());
    unlink(strControl.c_str());
    m_fdControl = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(m_fdControl, reinterpret_cast<sockaddr*>(&un), sizeof(un)) != 0 || listen(m_fdControl, 16) != 0) {
        fprintf(stderr, "work_server: cannot listen on %s: %s\n", strControl.c_str(), strerror(errno));
        return false;
    }
    m_strControlPath = strControl;
    return true;
}

int Server::Serve(const std::string& strListen, const std::string& strControl)
{
    if (!Listen(strListen, strControl)) return 1;
    printf("work_server: serving agents on %s, control at %s\n", strListen.c_str(), strControl.c_str());
    fflush(stdout);
    while (!m_bStop) {
        std::vector<pollfd> fds = {{m_listener.GetSocket(), POLLIN, 0}, {m_fdControl, POLLIN, 0}};
        for (const auto& pair : m_mapAgents) fds.push_back({pair.first, POLLIN, 0});
        int nReady = poll(fds.data(), fds.size(), 200);
        QueryCopies();
        if (nReady <= 0) continue;
        if (fds[0].revents & POLLIN) AcceptAgent();
        if (fds[1].revents & POLLIN) {
            int fd = accept4(m_fdControl, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) DealControl(fd);
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents == 0) continue;
            auto it = m_mapAgents.find(fds[i].fd);
            if (it != m_mapAgents.end()) ReadAgent(*it->second);
        }
    }
    unlink(m_strControlPath.c_str());
    return 0;
}

void Server::AcceptAgent()
{
    std::unique_ptr<Agent> pAgent(new Agent);
    if (m_listener.Accept(pAgent->conn, 0) != 0) return;
    Agent& agent = *pAgent;
    agent.strAddr = agent.conn.PeerAddress();
    m_mapAgents[agent.conn.GetSocket()] = std::move(pAgent);
    printf("work_server: agent connected from %s\n", agent.strAddr.c_str());
    fflush(stdout);
}

void Server::DropAgent(int fd)
{
    auto it = m_mapAgents.find(fd);
    if (it == m_mapAgents.end()) return;
    printf("work_server: agent %s at %s is gone\n", it->second->bKnown ? AgentName(it->second->nId).c_str() : "?",
           it->second->strAddr.c_str());
    fflush(stdout);
    for (auto copy = m_mapCopies.begin(); copy != m_mapCopies.end();) {
        if (copy->second.fdSrcAgent == fd || copy->second.fdDstAgent == fd) {
            WriteAll(copy->second.fdControl, "ERROR an agent was lost during the copy\n");
            close(copy->second.fdControl);
            m_mapCopySrc.erase(copy->second.nSrcWorkId);
            copy = m_mapCopies.erase(copy);
        } else {
            ++copy;
        }
    }
    for (auto job = m_mapJobs.begin(); job != m_mapJobs.end();) {
        if (job->second.fdAgent == fd) {
            WriteAll(job->second.fdControl, "ERROR the agent was lost while the command ran\n");
            close(job->second.fdControl);
            job = m_mapJobs.erase(job);
        } else {
            ++job;
        }
    }
    m_mapAgents.erase(it);  // closes the connection
}

void Server::ReadAgent(Agent& agent)
{
    if (agent.conn.ReadSome(0) <= 0) {
        DropAgent(agent.conn.GetSocket());
        return;
    }
    std::vector<unsigned char> packet;
    int nRet;
    while ((nRet = agent.conn.NextPacket(packet)) == 1) {
        DealPacket(agent, reinterpret_cast<char*>(packet.data()), static_cast<unsigned int>(packet.size()));
    }
    if (nRet < 0) DropAgent(agent.conn.GetSocket());
}

void Server::DealPacket(Agent& agent, char* pData, unsigned int nSize)
{
    ZikPacket packet;
    unsigned int nUsed = 0;
    if (brel_lib::ParseFromBuffer(packet, nUsed, pData, nSize) != 0 || packet.body.get() == nullptr) return;
    Zik& body = *packet.body;
    if (DealCopyPacket(body)) return;
    switch (body.choiceId) {
    case Zik::reqWorkAgentHeartbeatCid: {
        agent.bKnown = true;
        agent.nId = static_cast<unsigned int>(body.reqWorkAgentHeartbeat->agentId.value);
        agent.tLastHeartbeat = time(nullptr);
        RspWorkAgentHeartbeat rsp;  // an answer keeps the agent on this server
        rsp.ret = 0;
        SendTo(agent.conn.GetSocket(), rsp);
        break;
    }
    case Zik::rspWorkCmdCreateCid: {
        RspWorkCmdCreate& rsp = *body.rspWorkCmdCreate;
        unsigned int nWorkId = static_cast<unsigned int>(rsp.workId.value);
        if (m_mapJobs.count(nWorkId) == 0) break;
        if (rsp.ret != 0) {
            FinishJob(nWorkId, "ERROR the agent refused the work, ret " + std::to_string(rsp.ret.value) + "\n");
            break;
        }
        ReqWorkCmdSetAction start;
        start.workId = rsp.workId;
        start.action = 1;
        SendTo(agent.conn.GetSocket(), start);
        break;
    }
    case Zik::rspWorkCmdSetActionCid: {
        RspWorkCmdSetAction& rsp = *body.rspWorkCmdSetAction;
        if (rsp.ret != 0) {
            FinishJob(static_cast<unsigned int>(rsp.workId.value),
                      "ERROR the agent could not start the work, ret " + std::to_string(rsp.ret.value) + "\n");
        }
        break;
    }
    case Zik::rspWorkCmdQueryCid: {
        RspWorkCmdQuery& rsp = *body.rspWorkCmdQuery;
        unsigned int nWorkId = static_cast<unsigned int>(rsp.workId.value);
        if (m_mapJobs.count(nWorkId) == 0 || rsp.status < 2) break;
        std::ostringstream line;
        line << "RESULT " << rsp.ret.value << ' ' << rsp.exitCode.value << ' '
             << ToHex(std::string(rsp.stdOut.octs, rsp.stdOut.octetLen)) << ' '
             << ToHex(std::string(rsp.stdErr.octs, rsp.stdErr.octetLen)) << '\n';
        ReqWorkCmdDelete del;  // the result is taken: stop its repeats
        del.workId = rsp.workId;
        SendTo(agent.conn.GetSocket(), del);
        FinishJob(nWorkId, line.str());
        break;
    }
    default:
        break;
    }
}

void Server::FinishJob(unsigned int nWorkId, const std::string& strLine)
{
    auto it = m_mapJobs.find(nWorkId);
    if (it == m_mapJobs.end()) return;
    WriteAll(it->second.fdControl, strLine);
    close(it->second.fdControl);
    m_mapJobs.erase(it);
}

void Server::DealControl(int fd)
{
    // One short request line; the client sends it at once after connecting.
    std::string strLine;
    char c;
    pollfd p{fd, POLLIN, 0};
    while (strLine.size() < (1 << 20) && poll(&p, 1, 2000) == 1 && read(fd, &c, 1) == 1 && c != '\n') strLine += c;
    std::istringstream in(strLine);
    std::string strVerb;
    in >> strVerb;
    if (strVerb == "LIST") {
        std::ostringstream out;
        for (const auto& pair : m_mapAgents) {
            const Agent& a = *pair.second;
            if (!a.bKnown) continue;
            out << "AGENT " << AgentName(a.nId) << ' ' << a.nId << ' ' << a.strAddr << ' '
                << (time(nullptr) - a.tLastHeartbeat) << '\n';
        }
        out << "END\n";
        WriteAll(fd, out.str());
    } else if (strVerb == "STOP") {
        WriteAll(fd, "OK\n");
        m_bStop = true;
    } else if (strVerb == "COPY") {
        StartCopy(fd, in);
        return;
    } else if (strVerb == "RUN") {
        std::string strAgent, strUser, strCmd;
        int nTimeout = 0, nBufSize = 0;
        in >> strAgent >> nTimeout >> nBufSize >> strUser >> strCmd;
        int fdAgent = AgentFd(strAgent);
        if (fdAgent < 0) {
            WriteAll(fd, "ERROR no such agent is connected: " + strAgent + "\n");
        } else {
            unsigned int nWorkId = ++m_nNextWorkId;
            ReqWorkCmdCreate create;
            create.workId = static_cast<int>(nWorkId);
            create.flag = 0;
            create.timeout = nTimeout;
            create.bufSize = nBufSize;
            std::string strUserText = FromHex(strUser), strCmdText = FromHex(strCmd);
            create.execUser.ReSet(strUserText.data(), strUserText.size());
            create.cmd.ReSet(strCmdText.data(), strCmdText.size());
            m_mapJobs[nWorkId] = Job{fd, fdAgent};
            SendTo(fdAgent, create);
            return;  // answered when the result comes
        }
    } else {
        WriteAll(fd, "ERROR unknown request\n");
    }
    close(fd);
}

// ---- copies ---------------------------------------------------------------------

int Server::AgentFd(const std::string& strAgent)
{
    unsigned int nId = 0;
    if (!ParseAgent(strAgent, nId)) return -1;
    for (const auto& pair : m_mapAgents) {
        if (pair.second->bKnown && pair.second->nId == nId) return pair.first;
    }
    return -1;
}

// The source is asked first; its answer brings the address and port that the
// destination then pulls from.
void Server::StartCopy(int fd, std::istringstream& in)
{
    std::string strSrcAgent, strSrcPath, strDstAgent, strDstPath;
    in >> strSrcAgent >> strSrcPath >> strDstAgent >> strDstPath;
    int fdSrc = AgentFd(strSrcAgent);
    int fdDst = AgentFd(strDstAgent);
    if (fdSrc < 0 || fdDst < 0) {
        WriteAll(fd, "ERROR no such agent is connected: " + (fdSrc < 0 ? strSrcAgent : strDstAgent) + "\n");
        close(fd);
        return;
    }
    Copy copy;
    copy.fdControl = fd;
    copy.fdSrcAgent = fdSrc;
    copy.fdDstAgent = fdDst;
    copy.nSrcWorkId = ++m_nNextWorkId;
    copy.strSrcPath = FromHex(strSrcPath);
    copy.strDstPath = FromHex(strDstPath);
    unsigned int nDstWorkId = ++m_nNextWorkId;
    ReqWorkFileSrcCreate create;
    create.workId = static_cast<int>(copy.nSrcWorkId);
    create.srcFile.ReSet(copy.strSrcPath.data(), copy.strSrcPath.size());
    m_mapCopySrc[copy.nSrcWorkId] = nDstWorkId;
    m_mapCopies[nDstWorkId] = copy;
    SendTo(fdSrc, create);
}

bool Server::DealCopyPacket(Zik& body)
{
    switch (body.choiceId) {
    case Zik::rspWorkFileSrcCreateCid: {
        RspWorkFileSrcCreate& rsp = *body.rspWorkFileSrcCreate;
        auto itSrc = m_mapCopySrc.find(static_cast<unsigned int>(rsp.workId.value));
        if (itSrc == m_mapCopySrc.end()) return true;
        unsigned int nDstWorkId = itSrc->second;
        Copy& copy = m_mapCopies[nDstWorkId];
        if (rsp.ret != 0) {
            FinishCopy(nDstWorkId, "FAILED source " + std::to_string(rsp.ret.value) + "\n");
            return true;
        }
        ReqWorkFileDstCreate create;
        create.workId = static_cast<int>(nDstWorkId);
        create.srcFile.ReSet(copy.strSrcPath.data(), copy.strSrcPath.size());
        create.dstPath.ReSet(copy.strDstPath.data(), copy.strDstPath.size());
        create.srcServerIp = rsp.srcServerIp;
        create.srcServerPort = rsp.srcServerPort;
        create.srcWorkId = static_cast<int>(copy.nSrcWorkId);
        SendTo(copy.fdDstAgent, create);
        return true;
    }
    case Zik::rspWorkFileDstCreateCid: {
        RspWorkFileDstCreate& rsp = *body.rspWorkFileDstCreate;
        unsigned int nDstWorkId = static_cast<unsigned int>(rsp.workId.value);
        auto it = m_mapCopies.find(nDstWorkId);
        if (it == m_mapCopies.end()) return true;
        if (rsp.ret != 0) {
            FinishCopy(nDstWorkId, "FAILED destination " + std::to_string(rsp.ret.value) + "\n");
            return true;
        }
        ReqWorkFileDstSetAction start;
        start.workId = rsp.workId;
        start.action = 1;
        SendTo(it->second.fdDstAgent, start);
        it->second.bStarted = true;
        return true;
    }
    case Zik::rspWorkFileDstQueryCid: {
        RspWorkFileDstQuery& rsp = *body.rspWorkFileDstQuery;
        unsigned int nDstWorkId = static_cast<unsigned int>(rsp.workId.value);
        auto it = m_mapCopies.find(nDstWorkId);
        if (it == m_mapCopies.end()) return true;
        unsigned long long lOk = (static_cast<unsigned long long>(static_cast<unsigned int>(rsp.okSizeHigh.value)) << 32) |
                                 static_cast<unsigned int>(rsp.okSizeLow.value);
        unsigned long long lTotal =
            (static_cast<unsigned long long>(static_cast<unsigned int>(rsp.totalSizeHigh.value)) << 32) |
            static_cast<unsigned int>(rsp.totalSizeLow.value);
        if (rsp.status.value == 2) {
            FinishCopy(nDstWorkId, (rsp.ret.value == 0 ? "DONE " : "FAILED destination " + std::to_string(rsp.ret.value) + " ") +
                                       std::to_string(lOk) + " " + std::to_string(lTotal) + "\n");
        } else if (rsp.status.value == 1) {
            WriteAll(it->second.fdControl, "PROGRESS " + std::to_string(lOk) + " " + std::to_string(lTotal) + "\n");
        }
        return true;
    }
    case Zik::rspWorkFileSrcDeleteCid:
    case Zik::rspWorkFileDstDeleteCid:
    case Zik::rspWorkFileDstSetActionCid:
        return true;
    default:
        return false;
    }
}

// Like run, a copy deletes its works on both agents once it has the result.
void Server::FinishCopy(unsigned int nDstWorkId, const std::string& strLine)
{
    auto it = m_mapCopies.find(nDstWorkId);
    if (it == m_mapCopies.end()) return;
    Copy& copy = it->second;
    ReqWorkFileDstDelete delDst;
    delDst.workId = static_cast<int>(nDstWorkId);
    SendTo(copy.fdDstAgent, delDst);
    ReqWorkFileSrcDelete delSrc;
    delSrc.workId = static_cast<int>(copy.nSrcWorkId);
    SendTo(copy.fdSrcAgent, delSrc);
    WriteAll(copy.fdControl, strLine);
    close(copy.fdControl);
    m_mapCopySrc.erase(copy.nSrcWorkId);
    m_mapCopies.erase(it);
}

// The destination reports by itself only at the end: progress is asked for.
void Server::QueryCopies()
{
    time_t tNow = time(nullptr);
    if (tNow == m_tLastQuery) return;
    m_tLastQuery = tNow;
    for (const auto& pair : m_mapCopies) {
        if (!pair.second.bStarted) continue;
        ReqWorkFileDstQuery query;
        query.workId = static_cast<int>(pair.first);
        SendTo(pair.second.fdDstAgent, query);
    }
}

// ---- the client ------------------------------------------------------------------

int ConnectControl(const std::string& strControl)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    snprintf(un.sun_path, sizeof(un.sun_path), "%s", strControl.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&un), sizeof(un)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Sends one request line and returns all the server answers.
bool Ask(const std::string& strControl, const std::string& strRequest, std::string& strAnswer, bool bQuiet = false)
{
    int fd = ConnectControl(strControl);
    if (fd < 0) {
        if (!bQuiet) fprintf(stderr, "work_server: no server at %s (start one with: work_server serve)\n", strControl.c_str());
        return false;
    }
    WriteAll(fd, strRequest + "\n");
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) strAnswer.append(buf, static_cast<size_t>(n));
    close(fd);
    return true;
}

bool AgentListed(const std::string& strControl, const std::string& strAgent)
{
    std::string strAnswer;
    unsigned int nId = 0;
    if (!ParseAgent(strAgent, nId) || !Ask(strControl, "LIST", strAnswer, true)) return false;
    return strAnswer.find(" " + std::to_string(nId) + " ") != std::string::npos;
}

int Run(const std::string& strControl, const std::string& strAgent, const std::string& strUser, int nTimeout,
        int nBufSize, int nWait, const std::string& strCmd)
{
    unsigned int nId = 0;
    if (!ParseAgent(strAgent, nId)) {
        fprintf(stderr, "work_server: bad agent id: %s\n", strAgent.c_str());
        return 2;
    }
    for (int i = 0; i < nWait * 5 && !AgentListed(strControl, strAgent); ++i) usleep(200000);
    std::string strAnswer;
    std::ostringstream request;
    request << "RUN " << strAgent << ' ' << nTimeout << ' ' << nBufSize << ' ' << ToHex(strUser) << ' ' << ToHex(strCmd);
    if (!Ask(strControl, request.str(), strAnswer)) return 2;
    std::istringstream in(strAnswer);
    std::string strVerb;
    in >> strVerb;
    if (strVerb != "RESULT") {
        fprintf(stderr, "work_server: %s", strAnswer.empty() ? "no answer from the server\n" : strAnswer.substr(6).c_str());
        return 2;
    }
    int nRet = 0, nExit = 0;
    std::string strOut, strErr;
    in >> nRet >> nExit >> strOut >> strErr;
    std::string strOutText = FromHex(strOut), strErrText = FromHex(strErr);
    fwrite(strOutText.data(), 1, strOutText.size(), stdout);
    fflush(stdout);
    fwrite(strErrText.data(), 1, strErrText.size(), stderr);
    if (nRet != 0) {
        fprintf(stderr, "work_server: the work ended with ret %d%s\n", nRet, nRet == 324 ? " (timed out)" : "");
        return 1;
    }
    return nExit;
}

// What each failure code of a copy means to the person who asked for it.
const char* CopyErrorText(int nRet)
{
    switch (nRet) {
    case 300: return "no such work (it was deleted meanwhile)";
    case 302: return "the agent runs as many transfers as it may";
    case 313: return "the source agent could not open a listening port";
    case 314: return "the source file can't be opened or read, or is no regular file";
    case 316: return "the source file shrank during the copy";
    case 317: return "the destination could not connect to the source";
    case 318: return "the source stopped answering";
    case 320: return "the destination file can't be created (missing directory, read-only, or not a file)";
    case 321: return "no space left on the destination";
    case 322: return "writing the destination file failed, or it was changed during the copy";
    case 323: return "the work id is in use";
    case 324: return "the copy took longer than its time limit";
    case 329: return "the source file does not exist";
    case 334: return "the source agent could not allocate a read buffer";
    case 339: case 340: return "the user daemon may not write there";
    case 341: return "the user daemon is unknown on the destination";
    case 342: return "a block arrived damaged (MD5 mismatch)";
    case 1000: return "the source address is bad";
    default: return "unexplained failure";
    }
}

std::string Bytes(double d)
{
    const char* szUnit[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int i = 0;
    while (d >= 1024 && i < 4) {
        d /= 1024;
        ++i;
    }
    char sz[32];
    snprintf(sz, sizeof(sz), i == 0 ? "%.0f %s" : "%.1f %s", d, szUnit[i]);
    return sz;
}

// One progress report: a bar that redraws itself on a terminal, plain lines elsewhere.
void ShowProgress(unsigned long long lOk, unsigned long long lTotal, double dSeconds, bool bTty)
{
    double dRate = dSeconds > 0 ? lOk / dSeconds : 0;
    double dPart = lTotal == 0 ? 1.0 : static_cast<double>(lOk) / lTotal;
    std::string strLeft = dRate > 0 ? std::to_string(static_cast<long>((lTotal - lOk) / dRate)) + "s" : "?";
    if (!bTty) {
        printf("%s of %s, %s/s, %s left\n", Bytes(lOk).c_str(), Bytes(lTotal).c_str(), Bytes(dRate).c_str(),
               strLeft.c_str());
        fflush(stdout);
        return;
    }
    const int WIDTH = 30;
    int nFull = static_cast<int>(dPart * WIDTH);
    std::string strBar = std::string(nFull, '#') + std::string(WIDTH - nFull, '-');
    printf("\r[%s] %3d%% %s of %s, %s/s, %s left   ", strBar.c_str(), static_cast<int>(dPart * 100), Bytes(lOk).c_str(),
           Bytes(lTotal).c_str(), Bytes(dRate).c_str(), strLeft.c_str());
    fflush(stdout);
}

// AGENT:PATH; the path may hold colons of its own.
bool SplitTarget(const std::string& str, std::string& strAgent, std::string& strPath)
{
    size_t n = str.find(':');
    if (n == std::string::npos || n == 0 || n + 1 >= str.size()) return false;
    strAgent = str.substr(0, n);
    strPath = str.substr(n + 1);
    return true;
}

int CopyFile(const std::string& strControl, const std::string& strFrom, const std::string& strTo, int nWait)
{
    std::string strSrcAgent, strSrcPath, strDstAgent, strDstPath;
    if (!SplitTarget(strFrom, strSrcAgent, strSrcPath) || !SplitTarget(strTo, strDstAgent, strDstPath)) {
        fprintf(stderr, "work_server: --from and --to are AGENT:PATH\n");
        return 2;
    }
    for (int i = 0; i < nWait * 5 && !(AgentListed(strControl, strSrcAgent) && AgentListed(strControl, strDstAgent)); ++i)
        usleep(200000);
    int fd = ConnectControl(strControl);
    if (fd < 0) {
        fprintf(stderr, "work_server: no server at %s (start one with: work_server serve)\n", strControl.c_str());
        return 2;
    }
    WriteAll(fd, "COPY " + strSrcAgent + " " + ToHex(strSrcPath) + " " + strDstAgent + " " + ToHex(strDstPath) + "\n");
    bool bTty = isatty(STDOUT_FILENO) != 0;
    int64_t lBegin = static_cast<int64_t>(brel_lib::GetNowMilliSecond());
    std::string strBuf, strLast;
    bool bShown = false;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) {
        strBuf.append(buf, static_cast<size_t>(n));
        size_t nEnd;
        while ((nEnd = strBuf.find('\n')) != std::string::npos) {
            std::string strLine = strBuf.substr(0, nEnd);
            strBuf.erase(0, nEnd + 1);
            std::istringstream in(strLine);
            std::string strVerb;
            in >> strVerb;
            if (strVerb == "PROGRESS") {
                unsigned long long lOk = 0, lTotal = 0;
                in >> lOk >> lTotal;
                ShowProgress(lOk, lTotal, (static_cast<int64_t>(brel_lib::GetNowMilliSecond()) - lBegin) / 1000.0, bTty);
                bShown = true;
            } else {
                strLast = strLine;
            }
        }
    }
    close(fd);
    if (bShown && bTty) printf("\n");
    std::istringstream in(strLast);
    std::string strVerb;
    in >> strVerb;
    double dSeconds = (static_cast<int64_t>(brel_lib::GetNowMilliSecond()) - lBegin) / 1000.0;
    if (strVerb == "DONE") {
        unsigned long long lOk = 0, lTotal = 0;
        in >> lOk >> lTotal;
        printf("copied %s in %.1fs (%s/s)\n", Bytes(lOk).c_str(), dSeconds,
               Bytes(dSeconds > 0 ? lOk / dSeconds : 0).c_str());
        return 0;
    }
    if (strVerb == "FAILED") {
        std::string strSide;
        int nRet = 0;
        in >> strSide >> nRet;
        fprintf(stderr, "work_server: the copy failed at the %s with ret %d: %s\n", strSide.c_str(), nRet,
                CopyErrorText(nRet));
        return 1;
    }
    fprintf(stderr, "work_server: %s\n",
            strLast.empty() ? "no answer from the server" : strLast.substr(strLast.find(' ') + 1).c_str());
    return 2;
}

} // namespace

int main(int argc, char* argv[])
{
    signal(SIGPIPE, SIG_IGN);
    if (argc < 2) {
        Usage();
        return 2;
    }
    std::string strVerb = argv[1];
    std::string strListen = DEFAULT_LISTEN, strControl = DEFAULT_CONTROL, strAgent, strUser, strFrom, strTo;
    int nTimeout = 0, nBufSize = 0, nWait = 10;
    std::string strCmd;
    for (int i = 2; i < argc; ++i) {
        std::string strArg = argv[i];
        if (strArg == "--") {
            for (int j = i + 1; j < argc; ++j) strCmd += (j > i + 1 ? " " : "") + std::string(argv[j]);
            break;
        }
        if (i + 1 >= argc) {
            Usage();
            return 2;
        }
        std::string strValue = argv[++i];
        if (strArg == "--listen") {
            strListen = strValue;
        } else if (strArg == "--control") {
            strControl = strValue;
        } else if (strArg == "--agent") {
            strAgent = strValue;
        } else if (strArg == "--user") {
            strUser = strValue;
        } else if (strArg == "--timeout") {
            nTimeout = atoi(strValue.c_str());
        } else if (strArg == "--buf-size") {
            nBufSize = atoi(strValue.c_str());
        } else if (strArg == "--from") {
            strFrom = strValue;
        } else if (strArg == "--to") {
            strTo = strValue;
        } else if (strArg == "--wait") {
            nWait = atoi(strValue.c_str());
        } else {
            Usage();
            return 2;
        }
    }
    if (strVerb == "serve") return Server().Serve(strListen, strControl);
    if (strVerb == "list") {
        std::string strAnswer;
        if (!Ask(strControl, "LIST", strAnswer)) return 2;
        printf("%-16s %-12s %-22s %s\n", "AGENT", "ID", "FROM", "LAST HEARTBEAT");
        std::istringstream in(strAnswer);
        std::string strWord, strName, strId, strAddr;
        long lAgo = 0;
        while (in >> strWord && strWord == "AGENT" && in >> strName >> strId >> strAddr >> lAgo) {
            printf("%-16s %-12s %-22s %lds ago\n", strName.c_str(), strId.c_str(), strAddr.c_str(), lAgo);
        }
        return 0;
    }
    if (strVerb == "run") {
        if (strAgent.empty() || strCmd.empty()) {
            Usage();
            return 2;
        }
        return Run(strControl, strAgent, strUser, nTimeout, nBufSize, nWait, strCmd);
    }
    if (strVerb == "copy") {
        if (strFrom.empty() || strTo.empty()) {
            Usage();
            return 2;
        }
        return CopyFile(strControl, strFrom, strTo, nWait);
    }
    if (strVerb == "stop") {
        std::string strAnswer;
        return Ask(strControl, "STOP", strAnswer) ? 0 : 2;
    }
    Usage();
    return 2;
}
