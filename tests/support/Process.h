// What the cross-process tests need around the peer program: a private runtime directory, a
// child process whose stdout is read line by line (the peer announces readiness and events that
// way, so a test never sleeps and hopes), and counters of this process's descriptors and threads
// for the leak checks.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace parlex::test {

// How long a test waits for something that should happen promptly before it calls it a bug.
constexpr std::chrono::milliseconds kTimeout = std::chrono::seconds(10);

// A fresh directory under $TMPDIR (or /tmp), removed together with its contents.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// A child started with posix_spawn. Its stdin and stdout are pipes to us; stderr is shared so
// its diagnostics land in the test log. The environment is ours at the time of the spawn.
class Process {
public:
    // argv[0] is the program's path. Throws std::runtime_error when the spawn fails.
    explicit Process(const std::vector<std::string>& argv);
    // Kills the child if it still runs and reaps it.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }

    // The next line of stdout without its newline; nullopt on end of file or when no whole
    // line arrives within `timeout`.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = kTimeout);
    // Consumes lines until one equals `line`; false on end of file or time-out.
    bool waitForLine(const std::string& line, std::chrono::milliseconds timeout = kTimeout);

    // The peer programs take the end of their stdin as the request to shut down cleanly.
    void closeStdin();
    void kill(int signal);
    // Reaps the child and returns its wait status; nullopt when it is still running after
    // `timeout`. Once reaped, returns the same status again.
    std::optional<int> wait(std::chrono::milliseconds timeout = kTimeout);
    bool reaped() const { return status_.has_value(); }
    // Whether kill() was called: the test ended the child on purpose.
    bool signalled() const { return signalled_; }

private:
    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
    std::string pending_;  // bytes read past the last complete line
    std::optional<int> status_;
    bool signalled_ = false;
};

// The path of the peer program built next to the tests.
std::string peerPath();

// Entries of /proc/self/fd and /proc/self/task: descriptors and threads of this process.
std::vector<int> openFds();
size_t threadCount();

// Polls `condition` until it holds; false when it still does not after `timeout`.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = kTimeout);

}  // namespace parlex::test
