#include "Channel.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "parlex/binder.h"

namespace parlex::transport {

namespace {
std::mutex gLogMutex;  // guards: gLogHandler
std::function<void(const std::string&)> gLogHandler;
}  // namespace

void logLine(const std::string& line) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    if (gLogHandler) {
        gLogHandler(line);
    } else {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

void throwFailure(Failure failure) {
    if (failure == Failure::Stopped) throw std::runtime_error("parlex: connection stopped");
    throw dead_object();
}

// ---- Caller ----

namespace {
bool isAnswer(FrameKind kind) {
    return kind == FrameKind::Reply || kind == FrameKind::Error || kind == FrameKind::HelloAck;
}
}  // namespace

Caller::Caller(int fd, std::function<void(bool timedOut)> onFailure,
               std::chrono::milliseconds deadline)
    : fd_(fd), onFailure_(std::move(onFailure)), deadline_(deadline) {}

std::shared_ptr<Caller::Slot> Caller::send(FrameKind kind, const void* payload, size_t size,
                                           const std::vector<int>& fds) {
    if (const size_t total = size + attachedBytes(fds); total > kMaxMessageSize) {
        throw std::runtime_error("parlex: message of " + std::to_string(total) +
                                 " bytes, blobs included, exceeds the limit of " +
                                 std::to_string(kMaxMessageSize) + " bytes");
    }
    if (fds.size() + 1 > kMaxFds) {
        throw std::runtime_error("parlex: message carries " + std::to_string(fds.size()) +
                                 " descriptors, more than the limit");
    }
    auto slot = std::make_shared<Slot>();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (failure_ != Failure::None) throwFailure(failure_);
        slot->txn = nextTxn_++;
        if (nextTxn_ == 0) nextTxn_ = 1;
        slots_[slot->txn] = slot;
    }
    int rc = sendFrame(fd_, kind, slot->txn, payload, size, fds);
    if (rc == 0) return slot;

    forget(slot->txn);
    if (!peerGone(rc)) {
        // Nothing reached the peer and the channel is as it was: only this call fails.
        throw std::runtime_error("parlex: message of " + std::to_string(size) +
                                 " bytes could not be sent: " + std::strerror(-rc));
    }
    broken(rc == -ETIMEDOUT);
}

void Caller::broken(bool timedOut) {
    fail(Failure::Dead);
    onFailure_(timedOut);
    std::lock_guard<std::mutex> lock(mutex_);
    throwFailure(failure_);
}

Frame Caller::wait(const std::shared_ptr<Slot>& slot) {
    if (deadline_.count() <= 0) return *await(slot, nullptr);
    const Clock::time_point deadline = Clock::now() + deadline_;
    if (std::optional<Frame> answer = await(slot, &deadline)) return std::move(*answer);
    broken(true);
}

std::optional<Frame> Caller::waitUntil(const std::shared_ptr<Slot>& slot,
                                       Clock::time_point deadline) {
    return await(slot, &deadline);
}

std::optional<Frame> Caller::await(const std::shared_ptr<Slot>& slot,
                                   const Clock::time_point* deadline) {
    if (!Responder::waitBegins()) {
        throw std::runtime_error("parlex: " + std::to_string(kMaxWaitingHandlersPerConnection) +
                                 " handlers of this connection wait for answers already");
    }
    struct WaitEnd {
        ~WaitEnd() { Responder::waitEnded(); }
    } waitEnd;
    std::unique_lock<std::mutex> lock(mutex_);
    waiters_.push_back(slot.get());
    while (!slot->done && failure_ == Failure::None) {
        if (deadline != nullptr && Clock::now() >= *deadline) break;
        if (!reading_) {
            readOne(lock, deadline);
        } else if (deadline != nullptr) {
            slot->cv.wait_until(lock, *deadline);
        } else {
            slot->cv.wait(lock);
        }
    }
    waiters_.erase(std::find(waiters_.begin(), waiters_.end(), slot.get()));
    // This thread may have been the reader: pass the role on to a waiter that still needs it.
    if (!reading_ && !waiters_.empty()) waiters_.front()->cv.notify_one();
    if (slot->done) return std::move(slot->answer);
    if (failure_ == Failure::None) {
        slots_.erase(slot->txn);  // too late: its answer, should it come, goes nowhere
        return std::nullopt;
    }
    Failure failure = failure_;
    lock.unlock();
    throwFailure(failure);
}

namespace {
// Waits until `fd` is readable or `deadline` passes; true when it is readable (or broken, which
// the read that follows finds out).
bool readableBy(int fd, const Caller::Clock::time_point& deadline) {
    pollfd readable{fd, POLLIN, 0};
    while (true) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Caller::Clock::now());
        if (left.count() <= 0) return false;
        // Rounded up, so that a wait does not spin through its last millisecond; in slices, so
        // that a long deadline does not overflow poll's argument.
        const auto slice = std::min<long long>(left.count(), 60 * 1000);
        const int ready = ::poll(&readable, 1, static_cast<int>(slice) + 1);
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return true;
    }
}
}  // namespace

void Caller::readOne(std::unique_lock<std::mutex>& lock, const Clock::time_point* deadline) {
    reading_ = true;
    lock.unlock();
    if (deadline != nullptr && !readableBy(fd_, *deadline)) {
        lock.lock();
        reading_ = false;
        return;
    }
    Frame frame;
    std::string error;
    RecvStatus status = recvFrame(fd_, frame, error);
    if (status == RecvStatus::Unreadable && isAnswer(frame.kind)) {
        // The answer came, but without room for its descriptors: its caller gets an error.
        static const std::string kDropped = "parlex: answer dropped: out of descriptors";
        frame.kind = FrameKind::Error;
        frame.payload.assign(kDropped.begin(), kDropped.end());
        status = RecvStatus::Ok;
    }
    if (status != RecvStatus::Closed && !isAnswer(frame.kind)) {
        status = RecvStatus::Malformed;
        error = "a request where an answer was expected";
    }
    if (status != RecvStatus::Ok) {
        if (status == RecvStatus::Malformed) {
            logLine("parlex: peer sent a malformed answer (" + error + "); disconnecting");
        }
        fail(Failure::Dead);
        onFailure_(false);
        lock.lock();
        reading_ = false;
        return;
    }
    lock.lock();
    reading_ = false;
    deliver(std::move(frame));
}

void Caller::deliver(Frame frame) {
    auto it = slots_.find(frame.txn);
    if (it == slots_.end()) return;  // its waiter dropped the future: nobody wants it
    Slot& slot = *it->second;
    slot.answer = std::move(frame);
    slot.done = true;
    slot.cv.notify_one();
    slots_.erase(it);
}

void Caller::forget(uint32_t txn) {
    std::lock_guard<std::mutex> lock(mutex_);
    slots_.erase(txn);
}

void Caller::fail(Failure failure) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (failure_ == Failure::None) failure_ = failure;
    slots_.clear();
    for (Slot* waiter : waiters_) waiter->cv.notify_one();
}

}  // namespace parlex::transport

void parlex::setLogHandler(std::function<void(const std::string&)> handler) {
    std::lock_guard<std::mutex> lock(transport::gLogMutex);
    transport::gLogHandler = std::move(handler);
}
