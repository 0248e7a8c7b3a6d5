// A temporary installation tree with a running agent in it, for the tests
// that drive the real binary: bin/ (the working directory), etc/config,
// etc/publickey.pem, log/, tools/op/restart.sh and a cache directory.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace agent_test {

// True when the end-to-end tests may run (they need root, as in CI).
bool CanRunEndToEnd(std::string& strWhy);
// The same for a benchmark's main: false after printing "skipped: " and why.
bool CanRunEndToEndOrSaySkipped();

// A directory under /tmp (or the base given, /dev/shm for files in memory), removed
// with all it holds at the end (kept when AGENT_TEST_KEEP is set, for a look after a failure).
class TempDir {
public:
    explicit TempDir(const std::string& strPrefix = "agent_test_", const std::string& strBase = "/tmp");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Root() const { return m_strRoot; }
    std::string Path(const std::string& strRelative) const { return m_strRoot + "/" + strRelative; }

private:
    std::string m_strRoot;
};

void WriteFile(const std::string& strPath, const std::string& strText);

class InstallTree : public TempDir {
public:
    InstallTree();
    ~InstallTree();  // stops the agent by its pid; TempDir removes the tree

    // Settings every start needs; tests override or erase keys before WriteConfig.
    std::map<std::string, std::string>& Config() { return m_mapConfig; }
    void WriteConfig();
    // Writes the file as it stands, for tests of malformed files.
    void WriteRawConfig(const std::string& strText) { WriteFile(Path("etc/config"), strText); }

    std::string LogPath() const { return Path("log/agent.log"); }
    std::string StdoutPath() const { return Path("log/stdout.txt"); }

    // Runs the agent through a prefix command that ends in exec "$0" "$@" (a
    // mount namespace, say); empty for a direct start.
    void SetLaunchPrefix(const std::vector<std::string>& vecPrefix) { m_vecPrefix = vecPrefix; }
    // Runs the agent with the given arguments in bin/ and returns its pid.
    // Foreground mode: pass a second argument. Output goes to StdoutPath().
    pid_t Spawn(const std::string& strArg1, const std::string& strArg2 = "");
    // Starts in the foreground with the tree's config.
    pid_t StartForeground();
    // Starts as a daemon; returns the daemon's pid from the pid file, or -1.
    pid_t StartDaemon();

    // Waits for a child (or adopted daemon) to end; its exit status, or -1 on timeout.
    int WaitExit(pid_t pid, int nTimeoutMs);
    bool IsAlive(pid_t pid) const;

    std::string ReadLog() const;
    std::string ReadStdout() const;
    // Waits until the log holds the text; false on timeout.
    bool WaitForLog(const std::string& strText, int nTimeoutMs) const;

    // Stops every agent started here: SIGINT, then SIGKILL after a grace time.
    void StopAll();

private:
    std::map<std::string, std::string> m_mapConfig;
    std::map<pid_t, bool> m_mapPids;  // pids started or adopted by this tree
    std::vector<std::string> m_vecPrefix;
};

// Sanitized agents are many times slower: tests shrink or leave out their largest cases there.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::string ReadFile(const std::string& strPath);
// The file's size; -1 when it is missing.
long long FileSize(const std::string& strPath);
// Whether the name exists; a link is itself, whatever it points to.
bool Exists(const std::string& strPath);
inline void SleepMs(int nMs) { std::this_thread::sleep_for(std::chrono::milliseconds(nMs)); }
// Milliseconds of the monotonic clock.
inline int64_t SteadyMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
// Polls a condition every 10 ms until it holds or the time is up.
template <class F>
bool WaitUntil(F condition, int nTimeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
    for (;; SleepMs(10)) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
    }
}

} // namespace agent_test
