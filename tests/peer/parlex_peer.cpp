// The other process of the transport tests. Each mode (table at the bottom) plays one side of a
// connection with the test process. The peer talks to the test through its standard streams:
// it writes one line to stdout for everything the test waits for ("ready" once it may proceed,
// "hanging" when a request is parked, "death 1" when a proxy hears of the server's death), and
// takes the end of stdin as the request to shut down cleanly and exit 0. Any other exit status
// tells the test that the peer failed.
#include <parlex/binder.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/RecordCodec.h"

namespace {

using parlex::AndroidBuffer;

// One line to the test. Handlers announce from transport threads, hence the lock.
void say(const std::string& line) {
    static std::mutex mutex;
    std::lock_guard<std::mutex> lock(mutex);
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
}

// Set when stdin ends; parked handlers return then so that the shutdown can join them.
class Shutdown {
public:
    void request() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            requested_ = true;
        }
        changed_.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return requested_; });
    }

private:
    std::mutex mutex_;  // guards: requested_
    std::condition_variable changed_;
    bool requested_ = false;
};
Shutdown shutdown;

void waitForEndOfStdin() {
    char buffer[64];
    while (::read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
    }
    shutdown.request();
}

// Holds each caller until `parties` callers are inside at once, which only happens when the
// transport runs that many requests concurrently. Counts arrivals over the process's life.
class Rendezvous {
public:
    void arrive(int parties) {
        std::unique_lock<std::mutex> lock(mutex_);
        ++arrived_;
        changed_.notify_all();
        if (!changed_.wait_for(lock, std::chrono::seconds(10),
                               [&] { return arrived_ >= parties; })) {
            throw std::runtime_error("rendezvous: " + std::to_string(arrived_) + " of " +
                                     std::to_string(parties) + " callers arrived");
        }
    }

private:
    std::mutex mutex_;  // guards: arrived_
    std::condition_variable changed_;
    int arrived_ = 0;
};
Rendezvous rendezvous;

// How many requests have been inside a handler at the same time, at most.
class Concurrency {
public:
    void sleepInside(int milliseconds) {
        const int now = ++inside_;
        int seen = most_.load();
        while (now > seen && !most_.compare_exchange_weak(seen, now)) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        --inside_;
    }
    int most() const { return most_.load(); }

private:
    std::atomic<int> inside_{0};
    std::atomic<int> most_{0};
};
Concurrency concurrency;

std::atomic<int> echoObjectsAlive{0};

// The object type "Echo": sends every argument kind back and exercises the transport from the
// server's side on request.
class Echo : public parlex::AndroidImpl {
public:
    Echo() {
        ++echoObjectsAlive;
        bindEchoes();
        bindFailures();
        bindConcurrency();
        bindCallsToClient();
        bind("alive", [] { return echoObjectsAlive.load(); });
        bind("increment", [this] { return ++increments_; });
    }
    ~Echo() { --echoObjectsAlive; }

private:
    void bindEchoes() {
        bind("echoInt", [](int value) { return value; });
        bind("echoUnsigned", [](unsigned int value) { return value; });
        bind("echoBool", [](bool value) { return value; });
        bind("echoLongLong", [](long long value) { return value; });
        bind("echoFloat", [](float value) { return value; });
        bind("echoString", [](std::string value) { return value; });
        // The pointer belongs to the request parcel, which outlives the reply's writing.
        bind("echoCString", [](const char* value) { return value; });
        bind("echoBuffer", [](AndroidBuffer value) { return value; });
        bind("echoState", [](orv::MediaPlayerStateV2 value) { return value; });
        bind("echoSource", [](orv::ZEMAudioSourceV4 value) { return value; });
        bind("describe", [](int i, unsigned int u, bool b, long long ll, float f, std::string s,
                            const char* c) {
            return std::to_string(i) + "|" + std::to_string(u) + "|" + (b ? "true" : "false") +
                   "|" + std::to_string(ll) + "|" + std::to_string(f) + "|" + s + "|" +
                   (c == nullptr ? "(null)" : c);
        });
        bind("bigReply", [](int bytes) { return std::string(static_cast<size_t>(bytes), 'r'); });
    }

    void bindFailures() {
        bind("fail", [](std::string message) -> int { throw std::runtime_error(message); });
        bind("failOddly", []() -> int { throw 42; });
        bind("hang", [] {
            say("hanging");
            shutdown.wait();
            return 0;
        });
    }

    void bindConcurrency() {
        bind("rendezvous", [](int parties, int value) {
            rendezvous.arrive(parties);
            return value;
        });
        bind("sleepInside", [](int milliseconds) {
            concurrency.sleepInside(milliseconds);
            return milliseconds;
        });
        bind("mostInside", [] { return concurrency.most(); });
    }

    void bindCallsToClient() {
        // The client's answer to "getBuffer", passed back in the reply.
        bind("pull",
             [this](int bytes) { return callback("getBuffer", bytes).as<AndroidBuffer>(); });
        // Calls `name` on the client and returns the error it raised, "" when it succeeded.
        bind("pullError", [this](std::string name) -> std::string {
            try {
                callback(name, 0);
                return "";
            } catch (const std::exception& error) {
                return error.what();
            }
        });
        bind("ticks", [this](int count) {
            for (int i = 0; i < count; ++i) event("tick", i);
            return count;
        });
    }

    std::atomic<int> increments_{0};
};

// server <service>: publishes "Echo", plus "Null" (a factory that makes nothing) and "Throwing"
// (a factory that throws), until stdin ends.
int runServer(char** args) {
    parlex::AndroidServer server;
    server.registerFactory("Echo", [] { return std::make_shared<Echo>(); });
    server.registerFactory("Null", [] { return std::shared_ptr<parlex::AndroidImpl>(); });
    server.registerFactory("Throwing", []() -> std::shared_ptr<parlex::AndroidImpl> {
        throw std::runtime_error("factory refused");
    });
    server.start(args[0]);
    say("ready");
    waitForEndOfStdin();
    server.stop();
    return echoObjectsAlive.load() == 0 ? 0 : 3;
}

// client <service> <type> <count>: holds <count> proxies of <type>. Each announces "death <i>"
// when the server goes, and parks "getBuffer" callbacks after announcing "getBuffer <i>".
int runClient(char** args) {
    parlex::AndroidClient client(args[0]);
    std::vector<std::unique_ptr<parlex::AndroidProxy>> proxies;
    for (int i = 0; i < std::atoi(args[2]); ++i) {
        auto proxy = std::make_unique<parlex::AndroidProxy>(&client, args[1]);
        const std::string index = std::to_string(i);
        proxy->bind("death", [index] { say("death " + index); });
        proxy->bind("getBuffer", [index](int) {
            say("getBuffer " + index);
            shutdown.wait();
            return AndroidBuffer();
        });
        proxies.push_back(std::move(proxy));
    }
    say("ready");
    waitForEndOfStdin();
    client.stop();
    return 0;
}

struct Mode {
    const char* name;
    const char* arguments;
    int argumentCount;
    int (*run)(char** args);
};

constexpr Mode kModes[] = {
    {"server", "<service>", 1, runServer},
    {"client", "<service> <type> <count>", 3, runClient},
};

int usage() {
    std::fprintf(stderr, "usage:\n");
    for (const Mode& mode : kModes) {
        std::fprintf(stderr, "  parlex_peer %s %s\n", mode.name, mode.arguments);
    }
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    const auto mode = std::find_if(std::begin(kModes), std::end(kModes), [&](const Mode& m) {
        return std::strcmp(m.name, argv[1]) == 0;
    });
    if (mode == std::end(kModes) || argc - 2 != mode->argumentCount) return usage();
    try {
        return mode->run(argv + 2);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "parlex_peer %s: %s\n", mode->name, error.what());
        return 1;
    }
}
