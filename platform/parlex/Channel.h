// The two roles a process plays on a channel: the Caller sends requests and collects their
// answers; the Responder runs a pool of threads that read requests and answer them.
//
// Caller: there is no reader thread. A thread that waits for an answer reads the socket itself
// when nobody else is reading, so a lone caller is woken directly by the kernel when its
// answer arrives; answers for other waiters are handed to them.
//
// Responder: every idle thread blocks in recvmsg on the same SOCK_SEQPACKET socket and the
// kernel gives each request to exactly one of them, which runs it inline and answers. When the
// last idle thread takes a request, another is started, up to the per-connection bound. A
// handler that waits for an answer (a nested call) stops counting against that bound while it
// waits, so that the request its answer may depend on still finds a thread; the waiting
// handlers have a bound of their own, beyond which the wait fails at once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Frame.h"

namespace parlex::transport {

enum class Failure { None, Dead, Stopped };

// Throws the exception a caller sees for `failure`.
[[noreturn]] void throwFailure(Failure failure);

class Caller {
public:
    using Clock = std::chrono::steady_clock;

    struct Slot {
        uint32_t txn = 0;
        bool done = false;
        Frame answer;
        std::condition_variable cv;
    };

    // `onFailure` is called (without locks held) when the channel is found broken; `timedOut`
    // when the peer let `deadline` pass. A positive `deadline` bounds every wait() and counts
    // a peer that misses it as gone.
    Caller(int fd, std::function<void(bool timedOut)> onFailure,
           std::chrono::milliseconds deadline = std::chrono::milliseconds(0));

    // Registers a slot and sends the request; throws dead_object when the peer is gone, or
    // std::runtime_error when stopped, when the message is too large or when it cannot be sent
    // for a local reason (which leaves the channel as it was).
    std::shared_ptr<Slot> send(FrameKind kind, const void* payload, size_t size,
                               const std::vector<int>& fds);
    // Blocks until the slot's answer arrives; throws when the channel fails first (dead_object
    // when the channel's deadline passes), or when the calling handler thread may not wait (see
    // Responder).
    Frame wait(const std::shared_ptr<Slot>& slot);
    // As wait(), but gives up at `deadline` and returns nullopt then, which leaves the channel as
    // it was: an answer that comes later is dropped.
    std::optional<Frame> waitUntil(const std::shared_ptr<Slot>& slot, Clock::time_point deadline);
    // Fails every waiter now and later with `failure` (the first failure recorded sticks).
    void fail(Failure failure);

private:
    std::optional<Frame> await(const std::shared_ptr<Slot>& slot,
                               const Clock::time_point* deadline);
    void readOne(std::unique_lock<std::mutex>& lock, const Clock::time_point* deadline);
    void deliver(Frame frame);
    void forget(uint32_t txn);
    [[noreturn]] void broken(bool timedOut);

    const int fd_;
    const std::function<void(bool timedOut)> onFailure_;
    const std::chrono::milliseconds deadline_;
    std::mutex mutex_;  // guards: slots_, waiters_, nextTxn_, reading_, failure_
    std::map<uint32_t, std::shared_ptr<Slot>> slots_;
    std::vector<Slot*> waiters_;  // slots whose owner is blocked in wait()
    uint32_t nextTxn_ = 1;
    bool reading_ = false;
    Failure failure_ = Failure::None;
};

class Responder {
public:
    using Handle = std::function<void(Frame&)>;
    // Called once, from a pool thread, when the channel closes or a peer sent a malformed frame
    // (`error` is empty for a plain close).
    using OnEnd = std::function<void(const std::string& error)>;

    // `onFinished`, if given, runs on the last pool thread once it is done with the responder, so
    // that an owner can join the threads without waiting for a thread that is still needed.
    Responder(int fd, Handle handle, OnEnd onEnd, std::function<void()> onFinished = {});
    ~Responder();

    // Starts the first thread; `keepAlive` is held by every pool thread until it exits.
    // `first`, if given, runs on that thread before it starts reading requests; returning false
    // ends the responder.
    void start(std::shared_ptr<void> keepAlive, std::function<bool()> first = {});
    // Joins every pool thread except the calling one, which is detached. A caller that is not
    // a pool thread returns only once every other joiner has finished too.
    void join();
    // True once every pool thread has returned.
    bool finished();

    // Called around a wait for an answer. When the calling thread runs a handler of some
    // responder, that responder no longer counts the thread as busy until waitEnded(); false
    // when too many of its handlers wait already (the thread must not wait then).
    static bool waitBegins();
    static void waitEnded();

private:
    void loop(std::shared_ptr<void> keepAlive, std::function<bool()> first);
    // Starts a thread when none is left to read and the bound allows one.
    void growLocked(const std::shared_ptr<void>& keepAlive);
    void end(const std::string& error);

    const int fd_;
    const Handle handle_;
    const OnEnd onEnd_;
    const std::function<void()> onFinished_;
    std::mutex mutex_;  // guards: threads_, poolIds_, idle_, running_, waiting_, joining_, ended_
    std::condition_variable joined_;
    std::vector<std::thread> threads_;  // not yet joined
    std::vector<std::thread::id> poolIds_;
    size_t idle_ = 0;
    size_t running_ = 0;
    size_t waiting_ = 0;  // handlers waiting for an answer
    size_t joining_ = 0;  // join() calls that are joining threads now
    bool ended_ = false;
};

// Where transport failures that no caller can receive are reported.
void logLine(const std::string& line);

}  // namespace parlex::transport
