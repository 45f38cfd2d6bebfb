// The other process of the transport tests: `parlex_peer server <service>` publishes "Echo",
// "Null" and "Throwing"; `parlex_peer clients <service> <type> <count> <silent>` connects as up
// to `count` clients with one object of `type` each, stopping at the first refusal, and opens
// `silent` connections that never greet; `parlex_peer stuck <service> <type>` connects, makes
// its object "pull" and never answers the "getBuffer" callback that follows. It talks to the
// test through its standard streams: one line to stdout for everything the test waits for
// ("ready", "hanging" when a request or callback is parked, what a call raised), and the end of
// stdin as the request to shut down cleanly and exit 0.
// Any other exit status tells the test that the peer failed. The server keeps what the
// transport logs for the test to ask about.
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
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/Say.h"

namespace {

using orv::test::say;
using parlex::AndroidBuffer;

// Set when stdin ends; parked handlers return then, so that the shutdown can join them.
std::promise<void> stdinEnded;
const std::shared_future<void> shutdownRequested = stdinEnded.get_future().share();

// What the transport logged, kept for the test to ask about rather than printed.
std::mutex logMutex;
std::vector<std::string> logged;  // guards: logMutex

// How many requests are inside "sleepInside" now, and the most there ever were.
std::atomic<int> inside{0};
std::atomic<int> mostInside{0};

// Sends arguments back and exercises the transport from the server's side.
class Echo : public parlex::AndroidImpl {
public:
    Echo() : creator_(parlex::callingPeer()) {
        bind("echoInt", [](int value) { return value; });
        bind("echoString", [](std::string value) { return value; });
        bind("echoBuffer", [](AndroidBuffer value) { return value; });
        bind("bigReply", [](int bytes) { return std::string(static_cast<size_t>(bytes), 'r'); });

        bind("fail", [](std::string message) -> int { throw std::runtime_error(message); });
        bind("failOddly", []() -> int { throw 42; });
        bind("hang", [] {
            say("hanging");
            shutdownRequested.wait();
            return 0;
        });

        // Stays inside long enough for the other callers to pile up.
        bind("sleepInside", [](int value) {
            const int now = ++inside;
            for (int seen = mostInside;
                 now > seen && !mostInside.compare_exchange_weak(seen, now);) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
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
        // Lowers the soft limit of descriptors to the lowest free one, or puts it back.
        bind("limitDescriptors", [](bool lower) {
            static rlimit saved{};
            if (lower) ::getrlimit(RLIMIT_NOFILE, &saved);
            const int lowestFree = ::dup(STDIN_FILENO);
            ::close(lowestFree);
            const rlimit lowered{static_cast<rlim_t>(lowestFree), saved.rlim_max};
            return ::setrlimit(RLIMIT_NOFILE, lower ? &lowered : &saved);
        });
        // Lowers the soft limit of this user's processes and threads so that no thread can be
        // started (a server run as root is not held to it), or puts it back.
        bind("limitThreads", [](bool lower) {
            static rlimit saved{};
            if (lower) ::getrlimit(RLIMIT_NPROC, &saved);
            const rlimit lowered{1, saved.rlim_max};
            return ::setrlimit(RLIMIT_NPROC, lower ? &lowered : &saved);
        });
        // The client's answer to "getBuffer", passed back in the reply.
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

// What a call raised, as one line for the test.
std::string outcome(const std::function<void()>& call) {
    try {
        call();
    } catch (const parlex::dead_object&) {
        return "dead_object";
    } catch (const std::exception& error) {
        return std::string("error: ") + error.what();
    }
    return "returned";
}

void waitForStdinEnd() {
    for (char buffer[64]; ::read(STDIN_FILENO, buffer, sizeof buffer) > 0;) {
    }
}

struct Client {
    std::unique_ptr<parlex::AndroidClient> client;
    std::unique_ptr<parlex::AndroidProxy> proxy;
};

int runClients(const std::string& service, const std::string& type, int count, int silent) {
    std::vector<Client> clients;
    std::string refusal;
    for (int i = 0; i < count && refusal.empty(); ++i) {
        refusal = outcome([&] {
            Client made;
            made.client = std::make_unique<parlex::AndroidClient>(service);
            made.proxy = std::make_unique<parlex::AndroidProxy>(made.client.get(), type);
            clients.push_back(std::move(made));
        });
        if (refusal == "returned") refusal.clear();
    }
    std::vector<int> sockets;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = std::string(std::getenv("PARLEX_RUNTIME_DIR")) + "/" + service;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    for (int i = 0; i < silent; ++i) {
        sockets.push_back(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        if (::connect(sockets.back(), reinterpret_cast<sockaddr*>(&address), sizeof address)) {
            return 1;
        }
    }
    say("connected " + std::to_string(clients.size()));
    if (!refusal.empty()) say("refused " + refusal);
    say("ready");
    waitForStdinEnd();
    for (int socket : sockets) ::close(socket);
    for (Client& client : clients) client.proxy.reset();
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
    say(outcome([&] { proxy.call("pull", 16); }));
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
