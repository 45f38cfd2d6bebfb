// The client side of the transport: one connection per AndroidClient, the routes from object
// identifiers to proxies, and the delivery of "death".
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <thread>

#include "Channel.h"
#include "Messages.h"
#include "Pool.h"
#include "TestHooks.h"
#include "parlex/binder.h"

namespace parlex::transport {

std::function<void()> beforeProxyRouted;

using Proxy = ProxyBase<AndroidClient, AndroidParcel>;

// Lets a proxy go away while the transport may be calling into it: dispatches count themselves
// in, and detach() waits for the ones in flight (except any on the detaching thread itself).
class ProxyRoute {
public:
    explicit ProxyRoute(const Proxy* target) : target_(target) {}

    // The outcome of the proxy's dispatch, as runHandler() reports it.
    std::string dispatch(const std::string& method, const AndroidParcel& request,
                         AndroidParcel& reply) {
        std::string error = "parlex: the proxy is gone";
        visit([&](const Proxy& target) {
            error = runHandler(
                method, [&](AndroidParcel& out) { return target.dispatch(method, request, &out); },
                reply);
        });
        return error;
    }

    // Delivers "death"; false when the proxy is still there without a handler for it.
    bool offerDeath() {
        bool taken = true;
        visit([&](const Proxy& target) {
            AndroidParcel request, reply;
            runHandler(
                "death",
                [&](AndroidParcel& out) { return taken = target.dispatch("death", request, &out); },
                reply);
        });
        return taken;
    }

    void detach() {
        const auto& dispatching = dispatchingOnThisThread();
        auto mine = std::count(dispatching.begin(), dispatching.end(), this);
        std::unique_lock<std::mutex> lock(mutex_);
        target_ = nullptr;
        idle_.wait(lock, [&] { return active_ <= mine; });
    }

private:
    // Runs `use` on the proxy unless it is gone, counted in for detach().
    template <typename F>
    void visit(F&& use) {
        const Proxy* target;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (target_ == nullptr) return;
            target = target_;
            ++active_;
        }
        dispatchingOnThisThread().push_back(this);
        use(*target);
        dispatchingOnThisThread().pop_back();
        std::lock_guard<std::mutex> lock(mutex_);
        --active_;
        idle_.notify_all();
    }

    // The routes whose handlers this thread is inside, innermost last.
    static std::vector<const ProxyRoute*>& dispatchingOnThisThread() {
        thread_local std::vector<const ProxyRoute*> dispatching;
        return dispatching;
    }

    std::mutex mutex_;  // guards: target_, active_
    std::condition_variable idle_;
    const Proxy* target_;
    long active_ = 0;
};

class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
public:
    ClientConnection(UniqueFd requests, UniqueFd events, std::string serviceName, std::string path)
        : requests_(std::move(requests)),
          events_(std::move(events)),
          serviceName_(std::move(serviceName)),
          path_(std::move(path)),
          caller_(requests_.get(), [this](bool) { markDead(); }),
          responder_(
              events_.get(), [this](Frame& frame) { handle(frame); },
              [this](const std::string& error) { onResponderEnd(error); }) {}

    ~ClientConnection() { responder_.join(); }

    static std::shared_ptr<ClientConnection> connect(const std::string& serviceName) {
        const std::string path = socketPath(serviceName);
        const auto deadline = std::chrono::steady_clock::now() + connectDeadline();
        UniqueFd requests = dial(serviceName, path);
        int pair[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
            throw std::runtime_error("parlex: socketpair failed: " +
                                     std::string(std::strerror(errno)));
        }
        UniqueFd mine(pair[0]), theirs(pair[1]);
        greet(requests.get(), theirs, deadline, serviceName, path);
        auto connection = std::make_shared<ClientConnection>(std::move(requests), std::move(mine),
                                                             serviceName, path);
        connection->responder_.start(connection);
        return connection;
    }

    // How long the service may take to answer the greeting or a creation.
    static std::chrono::milliseconds connectDeadline() {
        const char* text = std::getenv("PARLEX_CONNECT_DEADLINE_MS");
        if (text == nullptr || *text == '\0') return kConnectDeadline;
        char* end = nullptr;
        errno = 0;
        const long long ms = std::strtoll(text, &end, 10);
        // Anything but a positive number of milliseconds keeps the default.
        if (*end != '\0' || errno != 0 || ms <= 0 || ms > 24LL * 3600 * 1000) {
            return kConnectDeadline;
        }
        return std::chrono::milliseconds(ms);
    }

    std::future<AndroidParcel> send(const AndroidParcel& parcel) {
        if (stopped_) {
            return failedFuture(
                std::make_exception_ptr(std::runtime_error("parlex: client stopped")));
        }
        return sendCall(shared_from_this(), caller_, parcel);
    }

    std::string createObject(const std::string& type) {
        if (stopped_) throw std::runtime_error("parlex: client stopped");
        const auto deadline = std::chrono::steady_clock::now() + connectDeadline();
        auto slot = caller_.send(FrameKind::Create, type.data(), type.size(), {});
        std::optional<Frame> answer = caller_.waitUntil(slot, deadline);
        if (!answer) throw std::runtime_error(noAnswer(serviceName_, path_));
        std::string text(answer->payload.begin(), answer->payload.end());
        if (answer->kind != FrameKind::Reply) throw std::runtime_error(text);
        return text;
    }

    // Bounded like a creation, so that a service that stopped answering cannot hold up the
    // application's teardown; the object then goes with the connection.
    void releaseObject(const std::string& objectId) {
        if (stopped_ || state_ != Failure::None) return;
        try {
            const auto deadline = std::chrono::steady_clock::now() + connectDeadline();
            caller_.waitUntil(
                caller_.send(FrameKind::Release, objectId.data(), objectId.size(), {}), deadline);
        } catch (const std::exception&) {
            // The service is gone or the client stopped: the object went with the connection.
        }
    }

    std::shared_ptr<ProxyRoute> addRoute(const std::string& objectId, const Proxy* proxy) {
        if (beforeProxyRouted) beforeProxyRouted();
        auto route = std::make_shared<ProxyRoute>(proxy);
        std::lock_guard<std::mutex> lock(routesMutex_);
        routes_[objectId] = route;
        // A proxy made while the connection died is owed its "death" like the others.
        if (deathStarted_) owedDeath_.push_back(route);
        return route;
    }

    // A proxy bound "death": one still owed it may take it now, on a pool thread.
    void deathBound() {
        {
            std::lock_guard<std::mutex> lock(routesMutex_);
            if (!deathStarted_ || stopping_ || owedDeath_.empty()) return;
        }
        Pool::instance().post([self = shared_from_this()] { self->deliverDeath(); });
    }

    void removeRoute(const std::string& objectId, const std::shared_ptr<ProxyRoute>& route) {
        {
            std::lock_guard<std::mutex> lock(routesMutex_);
            auto it = routes_.find(objectId);
            if (it != routes_.end() && it->second == route) routes_.erase(it);
        }
        route->detach();
    }

    void stop() {
        stopped_ = true;
        Failure expected = Failure::None;
        state_.compare_exchange_strong(expected, Failure::Stopped);
        caller_.fail(Failure::Stopped);
        shutdownSockets();
        {
            // A delivery of "death" under way on another thread finishes before stop() returns.
            std::unique_lock<std::mutex> lock(routesMutex_);
            stopping_ = true;
            const auto self = std::this_thread::get_id();
            deathDelivered_.wait(lock, [&] { return !delivering_ || deliverer_ == self; });
        }
        responder_.join();
    }

private:
    static std::string noAnswer(const std::string& serviceName, const std::string& path) {
        return "parlex: service '" + serviceName + "' at " + path + " did not answer within " +
               std::to_string(connectDeadline().count()) + " ms";
    }

    // Connects to the service's socket. A service whose backlog is full makes connect() wait:
    // the send time-out bounds that wait, and is lifted once connected.
    static UniqueFd dial(const std::string& serviceName, const std::string& path) {
        UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        if (!socket.valid()) {
            throw std::runtime_error("parlex: cannot connect to service '" + serviceName +
                                     "': " + std::strerror(errno));
        }
        setSendTimeout(socket.get(), connectDeadline());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        const auto* raw = reinterpret_cast<const sockaddr*>(&address);
        int rc;
        do {
            rc = ::connect(socket.get(), raw, sizeof(address));
        } while (rc != 0 && errno == EINTR);
        if (rc != 0) {
            const int error = errno;
            if (error == ENOENT || error == ECONNREFUSED) {
                throw std::runtime_error("parlex: service '" + serviceName +
                                         "' is not running (nothing listens at " + path + ")");
            }
            if (error == EACCES || error == EPERM) {
                throw std::runtime_error("parlex: permission denied on the socket of service '" +
                                         serviceName + "' at " + path);
            }
            if (error == EAGAIN || error == EWOULDBLOCK) {
                throw std::runtime_error(noAnswer(serviceName, path));
            }
            throw std::runtime_error("parlex: cannot connect to service '" + serviceName + "' at " +
                                     path + ": " + std::strerror(error));
        }
        setSendTimeout(socket.get(), std::chrono::milliseconds(0));
        return socket;
    }

    // Sends the greeting with the server's end of the event channel (which goes, sent or not)
    // and waits for its answer until `deadline`. The service refuses a connection by closing
    // it, after an Error frame that says why when it can; that frame may come before the
    // greeting has even been sent.
    static void greet(int socket, UniqueFd& theirs, std::chrono::steady_clock::time_point deadline,
                      const std::string& serviceName, const std::string& path) {
        const int sent = sendFrame(socket, FrameKind::Hello, 1, nullptr, 0, {theirs.get()});
        theirs.reset();
        const std::string refused =
            "parlex: service '" + serviceName + "' at " + path + " refused the connection";
        if (sent != 0 && !peerGone(sent)) {
            throw std::runtime_error("parlex: cannot connect to service '" + serviceName + "' at " +
                                     path + ": " + std::strerror(-sent));
        }
        pollfd answer{socket, POLLIN, 0};
        while (true) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) throw std::runtime_error(noAnswer(serviceName, path));
            const int ready = ::poll(&answer, 1, static_cast<int>(left.count()) + 1);
            if (ready > 0) break;
            if (ready < 0 && errno != EINTR) throw std::runtime_error(refused);
        }
        Frame frame;
        std::string error;
        RecvStatus status = recvFrame(socket, frame, error);
        // A service that closed before it read our greeting leaves a reset in front of the
        // reason it sent; the reset reads once, then what was queued (or the end) comes.
        if (status == RecvStatus::Closed) status = recvFrame(socket, frame, error);
        if (status == RecvStatus::Ok) {
            if (frame.kind == FrameKind::HelloAck && frame.txn == 1 && frame.fds.empty()) return;
            if (frame.kind == FrameKind::Error) {
                // The reason is the service's text: shown as one line of printable characters.
                std::string reason(frame.payload.begin(), frame.payload.end());
                reason = reason.substr(0, 512);
                for (char& c : reason) {
                    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
                }
                throw std::runtime_error(refused + ": " + reason);
            }
        }
        throw std::runtime_error(refused);
    }

    static void setSendTimeout(int socket, std::chrono::milliseconds timeout) {
        timeval value{};
        value.tv_sec = static_cast<time_t>(timeout.count() / 1000);
        value.tv_usec = static_cast<suseconds_t>(timeout.count() % 1000 * 1000);
        ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof(value));
    }

    void shutdownSockets() {
        ::shutdown(requests_.get(), SHUT_RDWR);
        ::shutdown(events_.get(), SHUT_RDWR);
    }

    // The service is gone (or broke the protocol): fail every call and wake every thread.
    void markDead() {
        Failure expected = Failure::None;
        if (!state_.compare_exchange_strong(expected, Failure::Dead)) return;
        caller_.fail(Failure::Dead);
        shutdownSockets();
    }

    void onResponderEnd(const std::string& error) {
        if (!error.empty()) {
            logLine("parlex: service sent a malformed frame (" + error + "); disconnecting");
        }
        markDead();
        if (state_ != Failure::Dead) return;
        {
            std::lock_guard<std::mutex> lock(routesMutex_);
            deathStarted_ = true;
            for (auto& entry : routes_) owedDeath_.push_back(entry.second);
        }
        deliverDeath();
    }

    // Gives "death" to the proxies owed it that take it now; runs on a pool thread, never on a
    // thread waiting for a reply. A proxy still being constructed has no "death" handler yet and
    // stays owed until it binds one. One delivery at a time: a call that finds one under way
    // leaves the owed proxies to it.
    void deliverDeath() {
        std::unique_lock<std::mutex> lock(routesMutex_);
        deathRetry_ = true;
        if (delivering_) return;
        delivering_ = true;
        deliverer_ = std::this_thread::get_id();
        while (deathRetry_ && !stopping_) {
            deathRetry_ = false;
            std::vector<std::shared_ptr<ProxyRoute>> owed;
            owed.swap(owedDeath_);
            lock.unlock();
            for (auto& route : owed) {
                if (route->offerDeath()) route.reset();
            }
            lock.lock();
            for (auto& route : owed) {
                if (route) owedDeath_.push_back(std::move(route));
            }
        }
        delivering_ = false;
        deathDelivered_.notify_all();
    }

    void handle(Frame& frame) {
        if (frame.kind != FrameKind::Call) {
            logLine("parlex: service sent an unexpected frame; disconnecting");
            markDead();
            return;
        }
        answerCall(events_.get(), frame, [this](const std::string& objectId) -> Dispatch {
            std::lock_guard<std::mutex> lock(routesMutex_);
            auto it = routes_.find(objectId);
            if (it == routes_.end()) return {};
            return [route = it->second](const std::string& method, const AndroidParcel& request,
                                        AndroidParcel& reply) {
                return route->dispatch(method, request, reply);
            };
        });
    }

    UniqueFd requests_;  // channel A: our requests, the service's answers
    UniqueFd events_;    // channel B: the service's events and callbacks, our answers
    const std::string serviceName_;
    const std::string path_;
    Caller caller_;
    Responder responder_;
    std::atomic<Failure> state_{Failure::None};
    std::atomic<bool> stopped_{false};
    // guards: routes_, owedDeath_, deathStarted_, deathRetry_, delivering_, deliverer_, stopping_
    std::mutex routesMutex_;
    std::condition_variable deathDelivered_;
    std::map<std::string, std::shared_ptr<ProxyRoute>> routes_;
    std::vector<std::shared_ptr<ProxyRoute>> owedDeath_;  // not yet given their "death"
    bool deathStarted_ = false;
    bool deathRetry_ = false;  // more proxies may take their "death": look again
    bool delivering_ = false;
    std::thread::id deliverer_;
    bool stopping_ = false;
};

}  // namespace parlex::transport

namespace parlex {

AndroidClient::AndroidClient(const std::string& serviceName)
    : connection_(transport::ClientConnection::connect(serviceName)) {}

AndroidClient::~AndroidClient() { connection_->stop(); }

std::future<AndroidParcel> AndroidClient::send(std::unique_ptr<AndroidParcel> parcel) {
    return connection_->send(*parcel);
}

void AndroidClient::stop() { connection_->stop(); }

AndroidProxy::AndroidProxy(AndroidClient* client, const std::string& type)
    : ProxyBase(client, client->connection_->createObject(type)),
      connection_(client->connection_),
      route_(connection_->addRoute(objectId(), this)) {}

AndroidProxy::~AndroidProxy() {
    connection_->removeRoute(objectId(), route_);
    connection_->releaseObject(objectId());
}

void AndroidProxy::deathBound() { connection_->deathBound(); }

}  // namespace parlex
