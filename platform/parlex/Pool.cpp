// The process's transport pool and the responders it serves.
#include "Pool.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <thread>

#include "Channel.h"
#include "parlex/binder.h"

namespace parlex::transport {

namespace {

constexpr uint64_t kWakeId = 0;

// What this thread does for the pool: whether it is a pool thread, and which responder it serves
// (its handler, its first readiness or its end).
struct PoolThread {
    bool inPool = false;
    Responder* handling = nullptr;
};
thread_local PoolThread tPool;

[[noreturn]] void throwErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

// ---- Pool ----

size_t Pool::boundFrom(const char* text) {
    if (text == nullptr || *text == '\0') return kDefaultTransportThreads;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (*end != '\0' || errno != 0 || value < 1 ||
        value > static_cast<long long>(kMaxTransportThreadsSetting)) {
        return kDefaultTransportThreads;
    }
    return static_cast<size_t>(value);
}

Pool& Pool::instance() {
    // Never destroyed: a detached pool thread may still be on its way out when the process exits.
    static Pool* const pool = new Pool(boundFrom(std::getenv("PARLEX_MAX_THREADS")));
    return *pool;
}

void Pool::openLocked() {
    if (epoll_.valid()) return;
    UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll.valid()) throwErrno("parlex: epoll_create1");
    UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE));
    if (!wake.valid()) throwErrno("parlex: eventfd");
    epoll_event event{};
    event.events = EPOLLIN;  // level-triggered: every token wakes a thread until it is taken
    event.data.u64 = kWakeId;
    if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, wake.get(), &event) != 0) {
        throwErrno("parlex: epoll_ctl");
    }
    epoll_ = std::move(epoll);
    wake_ = std::move(wake);
}

void Pool::add(Responder& responder, std::shared_ptr<void> keepAlive) {
    std::lock_guard<std::mutex> lock(mutex_);
    openLocked();
    const uint64_t id = nextId_++;
    epoll_event event{};
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.u64 = id;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, responder.fd_, &event) != 0) {
        throwErrno("parlex: epoll_ctl");
    }
    responder.id_ = id;
    responder.keepAlive_ = std::move(keepAlive);
    registered_[id] = &responder;
    growLocked();
    if (threads_ == 0) {
        // The caller still holds its owner: letting go of our hold here destroys nothing.
        removeLocked(responder);
        throw std::system_error(EAGAIN, std::generic_category(), "parlex: no transport thread");
    }
}

void Pool::rearm(Responder& responder) {
    std::lock_guard<std::mutex> lock(mutex_);
    armLocked(responder);
}

void Pool::armLocked(Responder& responder) {
    // Checked under the lock: a socket that left the pool may be closed, and its number reused.
    if (responder.id_ == 0) return;
    epoll_event event{};
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.u64 = responder.id_;
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, responder.fd_, &event);
}

std::shared_ptr<void> Pool::removeLocked(Responder& responder) {
    if (responder.parked_) {
        const auto group = groups_.find(responder.group_);
        auto& parked = group->second.parked;
        parked.erase(std::find(parked.begin(), parked.end(), &responder));
        responder.parked_ = false;
        if (group->second.busy == 0 && parked.empty()) groups_.erase(group);
    }
    if (responder.id_ != 0) {
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, responder.fd_, nullptr);
        registered_.erase(responder.id_);
        responder.id_ = 0;
        // The idle threads are not needed any more: they wake up to leave.
        if (registered_.empty()) wakeLocked(idle_);
    }
    return std::move(responder.keepAlive_);
}

void Pool::post(std::function<void()> task) {
    std::lock_guard<std::mutex> lock(mutex_);
    openLocked();
    tasks_.push_back(std::move(task));
    wakeLocked(1);
    growLocked();
}

void Pool::wakeLocked(uint64_t count) {
    if (count == 0 || !wake_.valid()) return;
    ssize_t n = ::write(wake_.get(), &count, sizeof(count));
    (void)n;
}

void Pool::growLocked() {
    if (idle_ > 0 || threads_ - waiting_ >= bound_) return;
    try {
        std::thread(&Pool::loop, this).detach();
    } catch (const std::system_error&) {
        return;  // out of threads: the requests wait for a busy one
    }
    // Counted as idle from now on, so that a second request does not start a second thread
    // before this one is waiting.
    ++threads_;
    ++idle_;
}

bool Pool::exitLocked() const {
    return (registered_.empty() && tasks_.empty()) || threads_ - waiting_ > bound_;
}

void Pool::loop() {
    tPool.inPool = true;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!exitLocked()) {
        const int epoll = epoll_.get();  // stays open while this thread is counted
        lock.unlock();
        epoll_event event{};
        const int ready = ::epoll_wait(epoll, &event, 1, -1);
        lock.lock();
        if (ready != 1) continue;  // interrupted
        --idle_;
        if (event.data.u64 == kWakeId) {
            runTask(lock);
        } else {
            serveOne(lock, event.data.u64);
        }
        ++idle_;
    }
    --idle_;
    --threads_;
    if (threads_ == 0 && registered_.empty() && tasks_.empty()) {
        epoll_.reset();
        wake_.reset();
    }
}

void Pool::serveOne(std::unique_lock<std::mutex>& lock, uint64_t id) {
    auto it = registered_.find(id);
    if (it == registered_.end()) return;  // it left the pool after its socket became readable
    Responder& responder = *it->second;
    if (responder.group_ != 0) {
        Group& group = groups_[responder.group_];
        if (group.busy >= responder.busyCap_) {
            // Left unarmed and unread until a handler of its group ends.
            responder.parked_ = true;
            group.parked.push_back(&responder);
            return;
        }
        ++group.busy;
    }
    ++responder.active_;
    std::shared_ptr<void> keepAlive = responder.keepAlive_;
    growLocked();  // this may have been the last idle thread
    lock.unlock();
    tPool.handling = &responder;
    responder.serve();
    tPool.handling = nullptr;
    lock.lock();
    if (responder.group_ != 0) leaveGroupLocked(responder);
    --responder.active_;
    if (responder.ended_ && responder.active_ == 0 && !responder.finishReported_) {
        responder.finishReported_ = true;
        // Until onFinished returns, join() waits: the owner it reaches must still be there.
        ++responder.finishing_;
        lock.unlock();
        if (responder.onFinished_) responder.onFinished_();
        lock.lock();
        --responder.finishing_;
    }
    left_.notify_all();
    lock.unlock();
    keepAlive.reset();  // may destroy the owner, and the responder with it: no lock held
    lock.lock();
}

void Pool::leaveGroupLocked(const Responder& responder) {
    const auto group = groups_.find(responder.group_);
    Group& state = group->second;
    --state.busy;
    if (!state.parked.empty() && state.busy < responder.busyCap_) {
        Responder* next = state.parked.front();
        state.parked.pop_front();
        next->parked_ = false;
        armLocked(*next);
    }
    if (state.busy == 0 && state.parked.empty()) groups_.erase(group);
}

void Pool::runTask(std::unique_lock<std::mutex>& lock) {
    uint64_t token;
    if (::read(wake_.get(), &token, sizeof(token)) != sizeof(token) || tasks_.empty()) return;
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    task = nullptr;  // what it holds may go, outside the lock
    lock.lock();
}

// ---- Responder ----

Responder::Responder(int fd, Handle handle, OnEnd onEnd, std::function<void()> onFinished)
    : fd_(fd),
      handle_(std::move(handle)),
      onEnd_(std::move(onEnd)),
      onFinished_(std::move(onFinished)) {}

Responder::~Responder() { join(); }

void Responder::start(std::shared_ptr<void> keepAlive, std::function<bool()> first) {
    first_ = std::move(first);
    Pool::instance().add(*this, std::move(keepAlive));
}

void Responder::serve() {
    Pool& pool = Pool::instance();
    if (first_) {
        const std::function<bool()> first = std::move(first_);
        first_ = nullptr;
        if (!first()) return end("");
        return pool.rearm(*this);
    }
    Frame frame;
    std::string error;
    const RecvStatus status = recvFrame(fd_, frame, error);
    if (status == RecvStatus::Closed || status == RecvStatus::Malformed) return end(error);
    pool.rearm(*this);
    if (status == RecvStatus::Unreadable) {
        // The request came, but without room for its descriptors: its caller gets an error.
        static const std::string kDropped = "parlex: request dropped: out of descriptors";
        sendFrame(fd_, FrameKind::Error, frame.txn, kDropped.data(), kDropped.size(), {});
        return;
    }
    handle_(frame);
}

void Responder::end(const std::string& error) {
    Pool& pool = Pool::instance();
    std::shared_ptr<void> keepAlive;
    {
        std::lock_guard<std::mutex> lock(pool.mutex_);
        if (ended_) return;
        ended_ = true;
        keepAlive = pool.removeLocked(*this);
    }
    onEnd_(error);
    // `keepAlive` goes here; the pool thread that runs this holds the owner too.
}

void Responder::join() {
    Pool& pool = Pool::instance();
    std::shared_ptr<void> keepAlive;
    bool endHere;
    {
        std::unique_lock<std::mutex> lock(pool.mutex_);
        keepAlive = pool.removeLocked(*this);
        // A handler of this responder that joins it cannot wait for itself, nor for another
        // handler that joins it too: that one may be waiting for this thread.
        const bool handler = tPool.handling == this;
        if (handler) {
            ++joiners_;
            pool.left_.notify_all();
        }
        pool.left_.wait(lock, [&] { return active_ <= joiners_ && finishing_ == 0; });
        if (handler) --joiners_;
        endHere = !ended_;
        ended_ = true;
    }
    if (endHere) onEnd_("");
}

bool Responder::finished() {
    Pool& pool = Pool::instance();
    std::lock_guard<std::mutex> lock(pool.mutex_);
    return ended_ && active_ == 0;
}

bool Responder::waitBegins() {
    if (!tPool.inPool) return true;
    Pool& pool = Pool::instance();
    std::lock_guard<std::mutex> lock(pool.mutex_);
    if (Responder* self = tPool.handling) {
        if (self->waiting_ >= kMaxWaitingHandlersPerConnection) return false;
        ++self->waiting_;
        if (self->group_ != 0) pool.leaveGroupLocked(*self);
    }
    ++pool.waiting_;
    pool.growLocked();
    return true;
}

void Responder::waitEnded() {
    if (!tPool.inPool) return;
    Pool& pool = Pool::instance();
    std::lock_guard<std::mutex> lock(pool.mutex_);
    if (Responder* self = tPool.handling) {
        --self->waiting_;
        if (self->group_ != 0) ++pool.groups_[self->group_].busy;
    }
    --pool.waiting_;
    // Threads grown for waits that have ended leave; idle ones must wake up to notice.
    const size_t busy = pool.threads_ - pool.waiting_;
    if (busy > pool.bound_) pool.wakeLocked(std::min(busy - pool.bound_, pool.idle_));
}

}  // namespace parlex::transport
