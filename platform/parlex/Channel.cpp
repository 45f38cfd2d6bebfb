#include "Channel.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

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

Caller::Caller(int fd, std::function<void()> onFailure)
    : fd_(fd), onFailure_(std::move(onFailure)) {}

std::shared_ptr<Caller::Slot> Caller::send(FrameKind kind, const void* payload, size_t size,
                                           const std::vector<int>& fds) {
    if (size > kMaxMessageSize) {
        throw std::runtime_error("parlex: message of " + std::to_string(size) +
                                 " bytes exceeds the limit of " + std::to_string(kMaxMessageSize) +
                                 " bytes");
    }
    if (fds.size() + 1 > kMaxFds) {
        throw std::runtime_error("parlex: message carries " + std::to_string(fds.size()) +
                                 " descriptors, more than the limit");
    }
    auto slot = std::make_shared<Slot>();
    uint32_t txn;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (failure_ != Failure::None) throwFailure(failure_);
        txn = nextTxn_++;
        if (nextTxn_ == 0) nextTxn_ = 1;
        slots_[txn] = slot;
    }
    int rc = sendFrame(fd_, kind, txn, payload, size, fds);
    if (rc == 0) return slot;

    forget(txn);
    if (rc == -EMSGSIZE) {
        throw std::runtime_error("parlex: message of " + std::to_string(size) +
                                 " bytes could not be sent");
    }
    fail(Failure::Dead);
    onFailure_();
    std::lock_guard<std::mutex> lock(mutex_);
    throwFailure(failure_);
}

Frame Caller::wait(const std::shared_ptr<Slot>& slot) {
    std::unique_lock<std::mutex> lock(mutex_);
    waiters_.push_back(slot.get());
    while (!slot->done && failure_ == Failure::None) {
        if (!reading_) {
            readOne(lock);
        } else {
            slot->cv.wait(lock);
        }
    }
    waiters_.erase(std::find(waiters_.begin(), waiters_.end(), slot.get()));
    // This thread may have been the reader: pass the role on to a waiter that still needs it.
    if (!reading_ && !waiters_.empty()) waiters_.front()->cv.notify_one();
    if (slot->done) return std::move(slot->answer);
    Failure failure = failure_;
    lock.unlock();
    throwFailure(failure);
}

void Caller::readOne(std::unique_lock<std::mutex>& lock) {
    reading_ = true;
    lock.unlock();
    Frame frame;
    std::string error;
    RecvStatus status = recvFrame(fd_, frame, error);
    if (status == RecvStatus::Ok && frame.kind != FrameKind::Reply &&
        frame.kind != FrameKind::Error && frame.kind != FrameKind::HelloAck) {
        status = RecvStatus::Malformed;
        error = "a request where an answer was expected";
    }
    if (status != RecvStatus::Ok) {
        if (status == RecvStatus::Malformed) {
            logLine("parlex: peer sent a malformed answer (" + error + "); disconnecting");
        }
        fail(Failure::Dead);
        onFailure_();
        lock.lock();
        reading_ = false;
        return;
    }
    lock.lock();
    reading_ = false;
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

// ---- Responder ----

Responder::Responder(int fd, Handle handle, OnEnd onEnd, std::function<void()> onFinished)
    : fd_(fd),
      handle_(std::move(handle)),
      onEnd_(std::move(onEnd)),
      onFinished_(std::move(onFinished)) {}

Responder::~Responder() { join(); }

void Responder::start(std::shared_ptr<void> keepAlive, std::function<bool()> first) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++running_;
    threads_.emplace_back(&Responder::loop, this, std::move(keepAlive), std::move(first));
}

void Responder::spawnLocked(std::shared_ptr<void> keepAlive) {
    ++running_;
    threads_.emplace_back(&Responder::loop, this, std::move(keepAlive), std::function<bool()>());
}

void Responder::loop(std::shared_ptr<void> keepAlive, std::function<bool()> first) {
    std::string error;
    if (!first || first()) {
        while (true) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                ++idle_;
            }
            Frame frame;
            RecvStatus status = recvFrame(fd_, frame, error);
            {
                std::lock_guard<std::mutex> lock(mutex_);
                --idle_;
                if (status != RecvStatus::Ok) break;
                if (idle_ == 0 && !ended_ && threads_.size() < kMaxHandlerThreadsPerConnection) {
                    spawnLocked(keepAlive);
                }
            }
            handle_(frame);
            error.clear();
        }
    }
    end(error);
    bool last;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        last = --running_ == 0;
    }
    if (last && onFinished_) onFinished_();
    // `keepAlive` goes last, when this function returns; it may destroy the owner.
}

void Responder::end(const std::string& error) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (ended_) return;
        ended_ = true;
    }
    onEnd_(error);
}

void Responder::join() {
    while (true) {
        std::vector<std::thread> threads;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            threads.swap(threads_);
        }
        if (threads.empty()) return;
        for (std::thread& thread : threads) {
            if (thread.get_id() == std::this_thread::get_id()) {
                thread.detach();
            } else {
                thread.join();
            }
        }
    }
}

bool Responder::finished() {
    std::lock_guard<std::mutex> lock(mutex_);
    return ended_ && running_ == 0;
}

}  // namespace parlex::transport

void parlex::setLogHandler(std::function<void(const std::string&)> handler) {
    std::lock_guard<std::mutex> lock(transport::gLogMutex);
    transport::gLogHandler = std::move(handler);
}
