// Where a benchmark's two processes run, for parlex_bench and grpc_bench alike.
#pragma once

#include <sched.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

// "none" leaves placement to the scheduler. "same" puts both processes on one CPU, so that every
// wake-up is a switch on that CPU; "split" gives each its own CPU, so that every wake-up crosses
// CPUs. A process is pinned from its first thread before it starts any other, and its threads
// inherit the mask.

struct Placement {
    int self = -1;  // CPU of this process, -1 for any
    int peer = -1;  // CPU of the peer
};

inline Placement placementFor(const std::string& pin) {
    if (pin == "none") return {};
    cpu_set_t allowed;
    if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
        throw std::runtime_error(std::string("sched_getaffinity: ") + std::strerror(errno));
    }
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &allowed)) cpus.push_back(cpu);
    }
    if (pin == "same" && !cpus.empty()) return {cpus[0], cpus[0]};
    if (pin == "split" && cpus.size() >= 2) return {cpus[0], cpus[1]};
    throw std::runtime_error("--pin=" + pin +
                             ": expected none, same or split (split needs 2 CPUs)");
}

inline void pinTo(int cpu) {
    if (cpu < 0) return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (::sched_setaffinity(0, sizeof set, &set) != 0) {
        throw std::runtime_error(std::string("sched_setaffinity: ") + std::strerror(errno));
    }
}
