// A small work server for people who want to try or debug agents without the
// platform. One process serves the agents; the same program, called again,
// talks to it over a local control socket:
//
//   work_server serve [--listen IP:PORT] [--control PATH]
//   work_server list  [--control PATH]
//   work_server run   [--control PATH] --agent ID [--user USER] [--timeout SEC]
//                     [--buf-size BYTES] [--wait SEC] -- COMMAND...
//   work_server stop  [--control PATH]
//
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
    void DropAgent(int fd);
    template <class T>
    bool SendTo(int fd, T& msg, int nAppend = 0);

    brel_lib::CPacketListener m_listener;
    int m_fdControl = -1;
    std::string m_strControlPath;
    std::map<int, std::unique_ptr<Agent>> m_mapAgents;  // by descriptor
    std::map<unsigned int, Job> m_mapJobs;  // by work id
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
        if (poll(fds.data(), fds.size(), 1000) <= 0) continue;
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
    } else if (strVerb == "RUN") {
        std::string strAgent, strUser, strCmd;
        int nTimeout = 0, nBufSize = 0;
        in >> strAgent >> nTimeout >> nBufSize >> strUser >> strCmd;
        unsigned int nId = 0;
        int fdAgent = -1;
        if (ParseAgent(strAgent, nId)) {
            for (const auto& pair : m_mapAgents) {
                if (pair.second->bKnown && pair.second->nId == nId) fdAgent = pair.first;
            }
        }
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

} // namespace

int main(int argc, char* argv[])
{
    signal(SIGPIPE, SIG_IGN);
    if (argc < 2) {
        Usage();
        return 2;
    }
    std::string strVerb = argv[1];
    std::string strListen = DEFAULT_LISTEN, strControl = DEFAULT_CONTROL, strAgent, strUser;
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
    if (strVerb == "stop") {
        std::string strAnswer;
        return Ask(strControl, "STOP", strAnswer) ? 0 : 2;
    }
    Usage();
    return 2;
}
