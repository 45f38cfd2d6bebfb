// The messages of parlex_bench as unary gRPC calls between two processes over a Unix socket,
// timed the same way (each call on its own with the steady clock; median, p99 and mean per call),
// so that one run gives both libraries' figures on the same machine at the same time.
//
// The binary starts a copy of itself as the server ("grpc_bench serve <socket> <cpu>"). Every
// request and reply carries one bytes field of the size the library's parcel has for the same
// message. The cases run in interleaved rounds, so that a burst of load on the machine falls on
// all of them alike. --pin=none|same|split places the two processes as parlex_bench does;
// --parlex-medians=FILE ("case median" lines from parlex_bench's run) adds the ratio of each
// gRPC median to the library's.
#include <grpcpp/grpcpp.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "../Placement.h"
#include "bench_peer.grpc.pb.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using benchpeer::Payload;
using benchpeer::Peer;

constexpr int kWarmupCalls = 500;
constexpr int kRounds = 10;
constexpr int kCallsPerRound = 2000;
constexpr std::chrono::seconds kStartupTimeout(10);

// Request and reply sizes of parlex_bench's cases.
struct Case {
    const char* name;
    size_t requestBytes;
    size_t replyBytes;
    grpc::Status (Peer::Stub::*call)(grpc::ClientContext*, const Payload&, Payload*);
};

const Case kCases[] = {
    {"ping", 0, 4, &Peer::Stub::Ping},
    {"sourceV4MediaDescription", 708, 8, &Peer::Stub::SetSource},
    {"getBufferCallback", 40, 12296, &Peer::Stub::GetBuffer},
    {"onPlaybackStartedEvent", 84, 0, &Peer::Stub::PlaybackStarted},
};

class PeerService final : public Peer::Service {
public:
    grpc::Status Ping(grpc::ServerContext*, const Payload*, Payload* reply) override {
        return answer(reply, kCases[0].replyBytes);
    }
    grpc::Status SetSource(grpc::ServerContext*, const Payload*, Payload* reply) override {
        return answer(reply, kCases[1].replyBytes);
    }
    grpc::Status GetBuffer(grpc::ServerContext*, const Payload*, Payload* reply) override {
        return answer(reply, kCases[2].replyBytes);
    }
    grpc::Status PlaybackStarted(grpc::ServerContext*, const Payload*, Payload* reply) override {
        return answer(reply, kCases[3].replyBytes);
    }

private:
    static grpc::Status answer(Payload* reply, size_t bytes) {
        if (bytes > 0) reply->set_data(std::string(bytes, '\x11'));
        return grpc::Status::OK;
    }
};

int serve(const std::string& socket, int cpu) {
    pinTo(cpu);
    PeerService service;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("unix:" + socket, grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    if (!server) throw std::runtime_error("the gRPC server did not start on " + socket);
    server->Wait();
    return 0;
}

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) return NAN;
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(values.size())));
    return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

void call(Peer::Stub& stub, const Case& c, const Payload& request) {
    grpc::ClientContext context;
    Payload reply;
    grpc::Status status = (stub.*c.call)(&context, request, &reply);
    if (!status.ok()) throw std::runtime_error(std::string(c.name) + ": " + status.error_message());
    if (reply.data().size() != c.replyBytes) {
        throw std::runtime_error(std::string(c.name) + ": reply of the wrong size");
    }
}

// "name median" lines, as scripts/bench.sh takes them from parlex_bench's pooled table.
std::map<std::string, double> readMedians(const std::string& path) {
    std::map<std::string, double> medians;
    if (path.empty()) return medians;
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::string name;
    double median;
    while (in >> name >> median) medians[name] = median;
    return medians;
}

int measure(const std::string& pin, const std::string& parlexMedians) {
    const std::map<std::string, double> library = readMedians(parlexMedians);
    const auto [self, serverCpu] = placementFor(pin);
    pinTo(self);
    char pattern[] = "/tmp/grpc-bench-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    const std::string dir = pattern;
    const std::string socket = dir + "/peer.sock";

    std::string exe = std::filesystem::read_symlink("/proc/self/exe");
    std::string cpuText = std::to_string(serverCpu);
    std::string socketText = socket;
    const char* serveArgument = "serve";
    std::vector<char*> argv = {exe.data(), const_cast<char*>(serveArgument), socketText.data(),
                               cpuText.data(), nullptr};
    pid_t server = -1;
    int rc = ::posix_spawn(&server, exe.c_str(), nullptr, nullptr, argv.data(), environ);
    if (rc != 0) throw std::runtime_error(std::string("spawning the server: ") + std::strerror(rc));
    struct Reaper {
        pid_t pid;
        std::string dir;
        ~Reaper() {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        }
    } reaper{server, dir};

    auto channel = grpc::CreateChannel("unix:" + socket, grpc::InsecureChannelCredentials());
    if (!channel->WaitForConnected(std::chrono::system_clock::now() + kStartupTimeout)) {
        throw std::runtime_error("the gRPC server did not come up");
    }
    auto stub = Peer::NewStub(channel);

    std::vector<Payload> requests;
    std::vector<std::vector<double>> micros(std::size(kCases));
    for (const Case& c : kCases) {
        Payload request;
        if (c.requestBytes > 0) request.set_data(std::string(c.requestBytes, '\x33'));
        requests.push_back(request);
        for (int i = 0; i < kWarmupCalls; ++i) call(*stub, c, requests.back());
    }
    for (int round = 0; round < kRounds; ++round) {
        for (size_t i = 0; i < std::size(kCases); ++i) {
            for (int n = 0; n < kCallsPerRound; ++n) {
                const auto start = Clock::now();
                call(*stub, kCases[i], requests[i]);
                micros[i].push_back(
                    std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            }
        }
    }

    std::printf(
        "\ngRPC unary calls over a Unix socket, placement %s; %d calls per case. Times in "
        "microseconds; bytes = payload bytes of request/reply (the field's framing not "
        "counted).\n",
        pin.c_str(), kRounds * kCallsPerRound);
    std::printf("%-30s %13s %8s %8s %8s %11s %7s\n", "case", "bytes req/rep", "median", "p99",
                "mean", "parlex med", "ratio");
    for (size_t i = 0; i < std::size(kCases); ++i) {
        double sum = 0;
        for (double us : micros[i]) sum += us;
        char sizes[32];
        std::snprintf(sizes, sizeof sizes, "%zu/%zu", kCases[i].requestBytes, kCases[i].replyBytes);
        const auto it = library.find(kCases[i].name);
        const double parlex = it == library.end() ? NAN : it->second;
        const double median = percentile(micros[i], 0.5);
        std::printf("grpc/%-25s %13s %8.2f %8.2f %8.2f %11.2f %7.2f\n", kCases[i].name, sizes,
                    median, percentile(micros[i], 0.99),
                    sum / static_cast<double>(micros[i].size()), parlex, median / parlex);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc == 4 && std::strcmp(argv[1], "serve") == 0) {
            return serve(argv[2], std::atoi(argv[3]));
        }
        std::string pin = "none", parlexMedians;
        for (int i = 1; i < argc; ++i) {
            if (std::strncmp(argv[i], "--pin=", 6) == 0) {
                pin = argv[i] + 6;
            } else if (std::strncmp(argv[i], "--parlex-medians=", 17) == 0) {
                parlexMedians = argv[i] + 17;
            } else {
                std::fprintf(stderr,
                             "grpc_bench: unknown argument '%s'; expected --pin=none|same|split "
                             "and --parlex-medians=FILE\n",
                             argv[i]);
                return 2;
            }
        }
        return measure(pin, parlexMedians);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "grpc_bench: %s\n", e.what());
        return 1;
    }
}
