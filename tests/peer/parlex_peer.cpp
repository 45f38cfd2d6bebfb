// The other process of the transport tests: `parlex_peer server <service>` publishes "Echo",
// "Null" and "Throwing"; `clients <service> <type> <count> <silent>` connects as up to `count`
// clients with one object each, stopping at the first refusal, plus `silent` connections that
// never greet; `stuck <service> <type>` makes its object "pull" and never answers the callback.
// It says on stdout what the test waits for ("ready", "hanging", what a call raised); the end of
// stdin asks it to shut down and exit 0, and any other status tells the test that it failed.
#include <parlex/binder.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../../platform/parlex/UniqueFd.h"
#include "support/Raised.h"
#include "support/Say.h"

namespace {

using orv::test::say;
using parlex::AndroidBuffer;
using parlex::test::errorOf;

// Set when stdin ends; parked handlers return then, so that the shutdown can join them.
std::promise<void> stdinEnded;
const std::shared_future<void> shutdownRequested = stdinEnded.get_future().share();

std::mutex logMutex;
std::vector<std::string> logged;  // guards: logMutex

// How many requests are inside "sleepInside" now, and the most there ever were.
std::atomic<int> inside{0};
std::atomic<int> mostInside{0};

class Echo : public parlex::AndroidImpl {
public:
    Echo() : creator_(parlex::callingPeer()) {
        bind("echoInt", [](int value) { return value; });
        bind("echoString", [](std::string value) { return value; });
        bind("echoBuffer", [](AndroidBuffer value) { return value; });
        bind("bigReply", [](int bytes) { return std::string(static_cast<size_t>(bytes), 'r'); });
        bind("fail", [](std::string message) -> int { throw std::runtime_error(message); });
        bind("failOddly", []() -> int { throw 42; });
        bind("sleepInside", [](int value) {
            const int now = ++inside;
            for (int seen = mostInside;
                 now > seen && !mostInside.compare_exchange_weak(seen, now);) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));  // for callers to pile up
            --inside;
            return value;
        });
        bind("mostInside", [] { return mostInside.load(); });
        bind("logged", [](std::string text) {
            std::lock_guard<std::mutex> lock(logMutex);
            return static_cast<int>(std::count_if(
                logged.begin(), logged.end(),
                [&](const std::string& line) { return line.find(text) != std::string::npos; }));
        });
        // Lowers the soft limit of descriptors to the lowest free one, or of this user's threads
        // to one (a server run as root is not held to it); or puts it back.
        bind("limit", [](std::string what, bool lower) {
            const int resource = what == "descriptors" ? RLIMIT_NOFILE : RLIMIT_NPROC;
            static rlimit saved[RLIM_NLIMITS];
            if (lower) ::getrlimit(resource, &saved[resource]);
            const int lowestFree = ::dup(STDIN_FILENO);
            ::close(lowestFree);
            const rlimit lowered{resource == RLIMIT_NOFILE ? static_cast<rlim_t>(lowestFree) : 1,
                                 saved[resource].rlim_max};
            return ::setrlimit(resource, lower ? &lowered : &saved[resource]);
        });
        bind("pull",
             [this](int bytes) { return callback("getBuffer", bytes).as<AndroidBuffer>(); });
        // "<creator pid> <creator uid> <caller pid> <caller uid> <seen on another thread>".
        bind("callingPeer", [this] {
            const auto caller = parlex::callingPeer();
            const bool elsewhere = std::async(std::launch::async, [] {
                                       return parlex::callingPeer().has_value();
                                   }).get();
            auto text = [](const std::optional<parlex::PeerCredentials>& peer) {
                return peer ? std::to_string(peer->pid) + " " + std::to_string(peer->uid)
                            : std::string("none none");
            };
            return text(creator_) + " " + text(caller) + " " + (elsewhere ? "set" : "unset");
        });
    }

private:
    const std::optional<parlex::PeerCredentials> creator_;
};

void waitForStdinEnd() {
    for (char buffer[64]; ::read(STDIN_FILENO, buffer, sizeof buffer) > 0;) {
    }
}

int runClients(const std::string& service, const std::string& type, int count, int silent) {
    std::vector<
        std::pair<std::unique_ptr<parlex::AndroidClient>, std::unique_ptr<parlex::AndroidProxy>>>
        clients;
    std::string refusal;
    for (int i = 0; i < count && refusal.empty(); ++i) {
        refusal = errorOf([&] {
            auto client = std::make_unique<parlex::AndroidClient>(service);
            auto proxy = std::make_unique<parlex::AndroidProxy>(client.get(), type);
            clients.emplace_back(std::move(client), std::move(proxy));
        });
    }
    std::vector<parlex::transport::UniqueFd> sockets;
    sockaddr_un address{AF_UNIX, {}};
    (std::string(std::getenv("PARLEX_RUNTIME_DIR")) + "/" + service)
        .copy(address.sun_path, sizeof address.sun_path - 1);
    for (int i = 0; i < silent; ++i) {
        sockets.emplace_back(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        if (::connect(sockets.back().get(), reinterpret_cast<sockaddr*>(&address),
                      sizeof address)) {
            return 1;
        }
    }
    say("connected " + std::to_string(clients.size()));
    if (!refusal.empty()) say("refused " + refusal);
    say("ready");
    waitForStdinEnd();
    sockets.clear();
    for (auto& [client, proxy] : clients) proxy.reset();
    return 0;
}

int runStuck(const std::string& service, const std::string& type) {
    parlex::AndroidClient client(service);
    parlex::AndroidProxy proxy(&client, type);
    proxy.bind("getBuffer", [](int) {
        say("hanging");
        shutdownRequested.wait();
        return AndroidBuffer();
    });
    say("ready");
    say(errorOf([&] { proxy.call("pull", 16); }));
    waitForStdinEnd();
    stdinEnded.set_value();
    return 0;
}

int runServer(const char* service) {
    parlex::setLogHandler([](const std::string& line) {
        std::lock_guard<std::mutex> lock(logMutex);
        logged.push_back(line);
    });
    parlex::AndroidServer server;
    server.registerFactory("Echo", [] { return std::make_shared<Echo>(); });
    server.registerFactory("Null", [] { return std::shared_ptr<parlex::AndroidImpl>(); });
    server.registerFactory("Throwing", []() -> std::shared_ptr<parlex::AndroidImpl> {
        throw std::runtime_error("factory refused");
    });
    server.start(service);
    say("ready");
    waitForStdinEnd();
    stdinEnded.set_value();
    server.stop();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc == 3 && std::strcmp(argv[1], "server") == 0) return runServer(argv[2]);
        if (argc == 6 && std::strcmp(argv[1], "clients") == 0) {
            return runClients(argv[2], argv[3], std::atoi(argv[4]), std::atoi(argv[5]));
        }
        if (argc == 4 && std::strcmp(argv[1], "stuck") == 0) return runStuck(argv[2], argv[3]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "parlex_peer %s: %s\n", argv[1], error.what());
        return 1;
    }
    std::fprintf(stderr,
                 "usage: parlex_peer server <service> | clients <service> <type> <count> <silent>"
                 " | stuck <service> <type>\n");
    return 2;
}
