// The two roles a process plays on a channel: the Caller sends requests and collects their
// answers; the Responder runs a pool of threads that read requests and answer them.
//
// Caller: there is no reader thread. A thread that waits for an answer reads the socket itself
// when nobody else is reading, so a lone caller is woken directly by the kernel when its
// answer arrives; answers for other waiters are handed to them.
//
// Responder: the channel's place in the process's transport pool (Pool.h). A pool thread that
// finds a request on the channel reads it, runs it inline and answers. A handler that waits for an
// answer (a nested call) leaves room in the pool while it waits, so that the request its answer
// may depend on still finds a thread; the waiting handlers of one channel have a bound of their
// own, beyond which the wait fails at once.
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
    // Called once, when the channel closes or a peer sent a malformed frame (`error` is empty for
    // a plain close): from a pool thread, or from join() when the channel had not ended yet.
    using OnEnd = std::function<void(const std::string& error)>;

    // `onFinished`, if given, runs on the last pool thread to leave the ended responder, so that
    // an owner can join it without waiting for a thread that is still needed.
    Responder(int fd, Handle handle, OnEnd onEnd, std::function<void()> onFinished = {});
    ~Responder();

    // Puts the channel into the pool; `keepAlive` is held until the responder ends. `first`, if
    // given, runs on the pool thread that finds the channel readable first, before any request
    // is read; returning false ends the responder. Throws std::system_error when the pool cannot
    // take the channel.
    void start(std::shared_ptr<void> keepAlive, std::function<bool()> first = {});
    // Before start(): the channel's records are served only while fewer than `cap` handlers of
    // the responders that share `group` (not 0) run; the others wait, unread, in their sockets.
    void limitBusy(uint64_t group, size_t cap) {
        group_ = group;
        busyCap_ = cap;
    }
    // Takes the channel out of the pool and returns once no pool thread is inside it, except
    // the calling one and others inside join() themselves; ends it if it had not ended.
    void join();
    // True once the responder has ended and no pool thread is inside it.
    bool finished();

    // Called around a wait for an answer. A pool thread that waits does not count against the
    // pool's bound until waitEnded(); false when too many handlers of the channel whose handler
    // the thread runs wait already (the thread must not wait then).
    static bool waitBegins();
    static void waitEnded();

private:
    friend class Pool;

    // Runs on the pool thread that found the channel readable: reads one record and handles it.
    void serve();
    void end(const std::string& error);

    const int fd_;
    const Handle handle_;
    const OnEnd onEnd_;
    const std::function<void()> onFinished_;
    std::function<bool()> first_;  // run by the first serve(); the channel's arming orders them
    uint64_t group_ = 0;           // set before start(); 0 for none
    size_t busyCap_ = 0;
    // guarded by the pool's mutex:
    uint64_t id_ = 0;  // its registration in the pool; 0 when out of it
    std::shared_ptr<void> keepAlive_;
    size_t active_ = 0;     // pool threads inside serve()
    size_t joiners_ = 0;    // pool threads of this responder inside join()
    size_t finishing_ = 0;  // pool threads running onFinished
    size_t waiting_ = 0;    // handlers waiting for an answer
    bool ended_ = false;
    bool finishReported_ = false;
    bool parked_ = false;  // readable, but its group is at its cap: not armed
};

// Where transport failures that no caller can receive are reported.
void logLine(const std::string& line);

}  // namespace parlex::transport
