// What the cross-process tests need around the peer program: a child process whose stdout is
// read line by line (the peer announces readiness and events that way, so a test never sleeps
// and hopes), and this process's descriptors and threads for the leak checks.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "../../platform/parlex/UniqueFd.h"

namespace parlex::test {

// How long a test waits for something that should happen promptly before it calls it a bug.
constexpr std::chrono::milliseconds kTimeout = std::chrono::seconds(10);

// Polls `condition` until it holds; false when it still does not after kTimeout.
inline bool waitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kTimeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// A child whose stdin and stdout are pipes to us (the end of its stdin asks it to shut down);
// its stderr lands in the test log. With `uid`, it runs as that user and group (we are root).
class Process {
public:
    explicit Process(std::vector<std::string> argv, std::optional<uid_t> uid = std::nullopt) {
        // Close-on-exec, so that a child started later does not hold these pipes open.
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2 failed");
        std::vector<char*> args;
        for (std::string& arg : argv) args.push_back(arg.data());
        args.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {  // only async-signal-safe calls until exec: other threads may run
            ::dup2(in[0], STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            if (uid && (::setgroups(0, nullptr) || ::setgid(*uid) || ::setuid(*uid))) ::_exit(126);
            ::execv(args[0], args.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        stdin_.reset(in[1]);
        stdout_.reset(out[0]);
    }
    ~Process() { kill(); }  // not copied: it owns the child and the pipes

    // The next line of stdout; nullopt on end of file or when no whole line arrives in time.
    std::optional<std::string> readLine() {
        const auto deadline = std::chrono::steady_clock::now() + kTimeout;
        std::string line;
        for (char c;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd poller{stdout_.get(), POLLIN, 0};
            if (left.count() <= 0 || ::poll(&poller, 1, static_cast<int>(left.count())) != 1 ||
                ::read(stdout_.get(), &c, 1) != 1) {
                return std::nullopt;
            }
            if (c == '\n') return line;
            line += c;
        }
    }

    // The first line that contains `text`, skipping those before it.
    std::optional<std::string> readUntil(const std::string& text) {
        while (auto line = readLine()) {
            if (line->find(text) != std::string::npos) return line;
        }
        return std::nullopt;
    }

    bool writeLine(const std::string& line) {
        const std::string text = line + "\n";
        return ::write(stdin_.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    void kill() {
        if (!running()) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    // Closes stdin; the child's wait status, -1 when it still runs after kTimeout.
    int finish() {
        stdin_.reset();
        int status = -1;
        if (!waitUntil([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; })) return -1;
        pid_ = -1;
        return status;
    }

private:
    pid_t pid_ = -1;
    transport::UniqueFd stdin_;
    transport::UniqueFd stdout_;
};

// A runtime directory of the test's own, so that its services meet no other test run's, and
// the transport's settings at their defaults; children started meanwhile inherit them.
class PrivateRuntimeDir {
public:
    PrivateRuntimeDir() {
        if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        ::setenv("PARLEX_RUNTIME_DIR", path_.c_str(), 1);
        ::unsetenv("PARLEX_SOCKET_MODE");
        ::unsetenv("PARLEX_CONNECT_DEADLINE_MS");
    }
    ~PrivateRuntimeDir() { std::filesystem::remove_all(path_); }
    PrivateRuntimeDir(const PrivateRuntimeDir&) = delete;
    PrivateRuntimeDir& operator=(const PrivateRuntimeDir&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_ = std::filesystem::temp_directory_path() / "parlex-test-XXXXXX";
};

// Entries of /proc/self/fd and /proc/self/task: descriptors and threads of this process.
inline std::vector<int> openFds() {
    std::vector<int> fds;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        fds.push_back(std::stoi(entry.path().filename().string()));
    return fds;
}
inline size_t threadCount() {
    std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

}  // namespace parlex::test
