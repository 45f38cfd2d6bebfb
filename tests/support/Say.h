// How a peer program talks to its test: whole lines on stdout, flushed at once (stdio locks the
// stream for each call, so lines from several threads never interleave).
#pragma once

#include <cstdio>
#include <string>

namespace orv::test {

inline void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace orv::test
