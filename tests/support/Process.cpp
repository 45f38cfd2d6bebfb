#include "support/Process.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace parlex::test {

namespace {

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

// Entries of a /proc directory, without "." and "..".
std::vector<std::string> listDirectory(const char* path) {
    std::vector<std::string> names;
    DIR* dir = ::opendir(path);
    if (dir == nullptr) throw std::runtime_error(errnoText(std::string("opendir ") + path));
    while (const dirent* entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(dir);
    return names;
}

}  // namespace

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/parlex-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error(errnoText("mkdtemp"));
    path_ = pattern;
}

TempDir::~TempDir() { ::nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS); }

Process::Process(const std::vector<std::string>& argv) {
    // Close-on-exec, so that a child spawned later by another test does not hold these pipes
    // open; dup2 in the child clears the flag on its own copies.
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error(errnoText("pipe2"));
    if (::pipe2(out, O_CLOEXEC) != 0) {
        ::close(in[0]);
        ::close(in[1]);
        throw std::runtime_error(errnoText("pipe2"));
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);

    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);

    const int error = ::posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
    if (error != 0) {
        ::close(stdin_);
        ::close(stdout_);
        throw std::runtime_error("posix_spawn " + argv[0] + ": " + std::strerror(error));
    }
}

Process::~Process() {
    if (!reaped()) {
        kill(SIGKILL);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
    }
    closeStdin();
    if (stdout_ >= 0) ::close(stdout_);
}

std::optional<std::string> Process::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const size_t newline = pending_.find('\n');
        if (newline != std::string::npos) {
            std::string line = pending_.substr(0, newline);
            pending_.erase(0, newline + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd poller{stdout_, POLLIN, 0};
        const int ready = ::poll(&poller, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char buffer[512];
        const ssize_t got = ::read(stdout_, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return std::nullopt;
        pending_.append(buffer, static_cast<size_t>(got));
    }
}

bool Process::waitForLine(const std::string& line, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        std::optional<std::string> next = readLine(std::max(left, std::chrono::milliseconds(0)));
        if (!next) return false;
        if (*next == line) return true;
    }
}

void Process::closeStdin() {
    if (stdin_ >= 0) ::close(stdin_);
    stdin_ = -1;
}

void Process::kill(int signal) {
    if (reaped()) return;
    ::kill(pid_, signal);
    signalled_ = true;
}

std::optional<int> Process::wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!reaped()) {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            status_ = status;
        } else if (done < 0 && errno != EINTR) {
            throw std::runtime_error(errnoText("waitpid"));
        } else if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    return status_;
}

std::string peerPath() {
#ifdef PARLEX_PEER_PATH
    return PARLEX_PEER_PATH;
#else
    throw std::runtime_error("this test binary was built without the peer program");
#endif
}

std::vector<int> openFds() {
    std::vector<int> fds;
    for (const std::string& name : listDirectory("/proc/self/fd")) fds.push_back(std::stoi(name));
    return fds;
}

size_t threadCount() { return listDirectory("/proc/self/task").size(); }

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace parlex::test
