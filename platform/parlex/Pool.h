// The process's one pool of transport threads, shared by every connection of the process, both
// the client's and the server's.
//
// Every idle thread waits in one epoll instance on the request sockets of all connections at
// once. Each socket is armed for one readiness at a time (EPOLLONESHOT): the thread that gets it
// reads one record, arms the socket again, so that the next request of the same connection can
// run at the same time, and then runs the handler inline and answers.
//
// The pool keeps at most bound() threads that are not waiting for an answer. A thread whose
// handler waits for the answer to a call of its own (a nested call) does not count while it
// waits, so that the request its answer depends on still finds a thread: the pool grows past its
// bound only then, and threads beyond it exit once they are idle again. When no connection is
// left, every thread exits and the epoll and wake-up descriptors are closed.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "UniqueFd.h"

namespace parlex::transport {

class Responder;

class Pool {
public:
    // The process's pool; its bound comes from $PARLEX_MAX_THREADS, read once.
    static Pool& instance();
    // The bound for `text` (the variable's value): a whole number from 1 to
    // kMaxTransportThreadsSetting, anything else (or nothing) giving kDefaultTransportThreads.
    static size_t boundFrom(const char* text);

    size_t bound() const { return bound_; }

    // Runs `task` on a pool thread soon.
    void post(std::function<void()> task);

private:
    friend class Responder;

    explicit Pool(size_t bound) : bound_(bound) {}

    // Registers the responder's socket; `keepAlive` is held until it leaves the pool. Throws
    // std::system_error when the socket cannot be watched or no thread can be started.
    void add(Responder& responder, std::shared_ptr<void> keepAlive);
    // Arms the responder's socket for its next record, unless it has left the pool.
    void rearm(Responder& responder);
    void armLocked(Responder& responder);
    // Takes the responder out of the pool: no thread enters it any more. Returns what kept its
    // owner alive, for the caller to let go once it holds no lock.
    std::shared_ptr<void> removeLocked(Responder& responder);

    void openLocked();
    // Starts a thread when none is idle and fewer than the bound are busy.
    void growLocked();
    void wakeLocked(uint64_t count);
    bool exitLocked() const;
    void loop();
    void serveOne(std::unique_lock<std::mutex>& lock, uint64_t id);
    void runTask(std::unique_lock<std::mutex>& lock);
    // A handler of `responder`'s group ended or began to wait: another of the group may run.
    void leaveGroupLocked(const Responder& responder);

    const size_t bound_;
    // guards: everything below, and the pool state of every Responder (see Channel.h)
    std::mutex mutex_;
    std::condition_variable left_;  // a thread left a responder, or a joiner came
    UniqueFd epoll_;
    UniqueFd wake_;  // counts posted tasks and wake-ups of idle threads (a semaphore)
    std::map<uint64_t, Responder*> registered_;
    std::deque<std::function<void()>> tasks_;
    uint64_t nextId_ = 1;  // 0 stands for the wake-up descriptor
    size_t threads_ = 0;
    size_t idle_ = 0;     // threads in epoll_wait, or on their way there
    size_t waiting_ = 0;  // threads whose handler waits for an answer
    struct Group {
        size_t busy = 0;                // its handlers running, not waiting
        std::deque<Responder*> parked;  // readable, waiting for one of those to end
    };
    std::map<uint64_t, Group> groups_;  // by Responder::group_, while busy or parked
};

}  // namespace parlex::transport
