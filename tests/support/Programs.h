// The tools as programs, for the tests that run them: a command's output and exit status, and
// the audio service started and stopped as its users do.
#pragma once

#include <signal.h>

#include <string>
#include <utility>
#include <vector>

#include "support/Process.h"

namespace parlex::test {

inline int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

// Runs `command` through the shell, its stderr with its stdout: its lines and exit status.
inline std::pair<std::string, int> shell(const std::string& command) {
    Process process({"/bin/sh", "-c", command + " 2>&1"});
    std::string output;
    while (std::optional<std::string> line = process.readLine()) output += *line + "\n";
    return {output, exitStatus(process.finish())};
}

// A program started through the shell, with its stderr on its stdout; `pid` is its own.
struct Shell {
    explicit Shell(const std::string& command)
        : process({"/bin/sh", "-c", "echo $$; exec " + command + " 2>&1"}),
          pid(std::stoi(process.readLine().value_or("-1"))) {}
    Process process;
    pid_t pid;
};

// The audio service started with `argv`, once it said it is ready (`pid` is -1 if it did not).
struct AudioService {
    explicit AudioService(std::vector<std::string> argv) : process(std::move(argv)) {
        const std::optional<std::string> ready = process.readUntil("ready (pid ");
        if (ready) pid = std::stoi(ready->substr(ready->find("pid ") + 4));
    }
    // Ends it as SIGTERM does; its exit status.
    int stop() {
        if (pid > 0) ::kill(pid, SIGTERM);
        while (process.readLine()) {
        }
        return exitStatus(process.finish());
    }
    Process process;
    pid_t pid = -1;
};

}  // namespace parlex::test
