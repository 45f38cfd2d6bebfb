// Command-line parsing shared by the tools: --help prints the help (with the examples in the
// footer) and exits 0; a usage error prints what is wrong and exits 2.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>

namespace zem {

inline constexpr int kUsageStatus = 2;

// nullopt when the program should go on; otherwise the status it exits with.
inline std::optional<int> parseCommandLine(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsageStatus;
    }
    return std::nullopt;
}

}  // namespace zem
