// Command-line parsing shared by the tools: --help and --version print and exit 0; a usage
// error prints what is wrong, prefixed with the program's name like every other message of the
// tool, and exits 2.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdio>
#include <optional>
#include <string>

namespace zem {

inline constexpr int kUsageStatus = 2;

// nullopt when the program should go on; otherwise the status it exits with.
// Prints "<program>: <text>" and where to find the usage; returns the usage status.
inline int usageError(const char* program, const std::string& text) {
    std::fprintf(stderr, "%s: %s\n%s: see %s --help\n", program, text.c_str(), program, program);
    return kUsageStatus;
}

// nullopt when the program should go on; otherwise the status it exits with.
inline std::optional<int> parseCommandLine(CLI::App& app, int argc, char** argv,
                                           const char* program) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& done) {  // --help, --version
        return app.exit(done);
    } catch (const CLI::ParseError& error) {
        return usageError(program, error.what());
    }
    return std::nullopt;
}

}  // namespace zem
