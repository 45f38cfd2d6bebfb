// The service side of the transport: the listening socket and its accept thread, one
// connection per client with the objects that client created, and AndroidImpl's sends.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <thread>
#include <type_traits>

#include "Channel.h"
#include "Messages.h"
#include "parlex/binder.h"

namespace parlex::transport {

class ServerState;

// How long the accept thread leaves the listener alone after running out of descriptors, unless
// a connection ends (and frees some) first, or waits after a failed poll.
constexpr int kRestMs = 250;

class ServerConnection : public std::enable_shared_from_this<ServerConnection> {
public:
    ServerConnection(AndroidServer& server, ServerState& state, UniqueFd requests);

    void start() {
        auto self = shared_from_this();
        responder_.start(self, [this] { return handshake(); });
    }

    std::future<AndroidParcel> send(const AndroidParcel& parcel) {
        Caller* caller;
        {
            std::lock_guard<std::mutex> lock(callerMutex_);
            caller = caller_.get();
        }
        if (closed_ || caller == nullptr) return deadFuture();
        return sendCall(shared_from_this(), *caller, parcel);
    }

    // Disconnects the client: pending and later sends fail with dead_object and the pool
    // threads end, the first of them releasing the client's objects (onEnd). It also runs
    // inside sends and waits that find the client gone, so it releases nothing itself.
    void close() {
        if (closed_.exchange(true)) return;
        ::shutdown(requests_.get(), SHUT_RDWR);
        std::lock_guard<std::mutex> lock(callerMutex_);
        if (caller_) caller_->fail(Failure::Dead);
        if (events_.valid()) ::shutdown(events_.get(), SHUT_RDWR);
    }

    void join() { responder_.join(); }
    bool finished() { return responder_.finished(); }
    bool closed() const { return closed_; }

private:
    static std::future<AndroidParcel> deadFuture() {
        return failedFuture(std::make_exception_ptr(dead_object()));
    }

    // True when the greeting, or the end of the connection, arrived before the deadline.
    bool greetedInTime() {
        const auto deadline = std::chrono::steady_clock::now() + limits_.greetingDeadline;
        pollfd greeting{requests_.get(), POLLIN, 0};
        while (true) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            const int ready =
                ::poll(&greeting, 1, static_cast<int>(std::max<long>(0, left.count())));
            if (ready >= 0 || errno != EINTR) return ready > 0;
        }
    }

    // The first frame of a connection must be the greeting that brings the event channel.
    bool handshake() {
        if (!greetedInTime()) {
            logLine("parlex: client sent no greeting within " +
                    std::to_string(limits_.greetingDeadline.count()) + " ms; disconnecting");
            return false;
        }
        Frame hello;
        std::string error;
        RecvStatus status = recvFrame(requests_.get(), hello, error);
        if (status == RecvStatus::Closed) return false;
        if (status == RecvStatus::Unreadable) {
            logLine("parlex: out of descriptors for a client's greeting; disconnecting");
            return false;
        }
        struct stat st;
        if (status == RecvStatus::Malformed || hello.kind != FrameKind::Hello ||
            hello.fds.size() != 1 || ::fstat(hello.fds[0].get(), &st) != 0 ||
            !S_ISSOCK(st.st_mode)) {
            logLine("parlex: client sent a bad greeting (" +
                    (error.empty() ? std::string("not a greeting") : error) + "); disconnecting");
            return false;
        }
        {
            std::lock_guard<std::mutex> lock(callerMutex_);
            if (closed_) return false;
            events_ = std::move(hello.fds[0]);
            caller_ = std::make_unique<Caller>(events_.get(), [this] { close(); });
        }
        return sendFrame(requests_.get(), FrameKind::HelloAck, hello.txn, nullptr, 0, {}) == 0;
    }

    void handle(Frame& frame) {
        switch (frame.kind) {
            case FrameKind::Create:
                return create(frame);
            case FrameKind::Release:
                return release(frame);
            case FrameKind::Call:
                return call(frame);
            default:
                logLine("parlex: client sent an unexpected frame; disconnecting");
                close();
        }
    }

    void create(Frame& frame);

    void release(Frame& frame) {
        std::string objectId(frame.payload.begin(), frame.payload.end());
        std::shared_ptr<AndroidImpl> object;
        {
            std::lock_guard<std::mutex> lock(objectsMutex_);
            auto it = objects_.find(objectId);
            if (it != objects_.end()) {
                object = std::move(it->second);
                objects_.erase(it);
            }
        }
        object.reset();
        AndroidParcel empty;
        sendAnswer(requests_.get(), frame.txn, {}, empty);
    }

    void call(Frame& frame) {
        answerCall(requests_.get(), frame, [this](const std::string& objectId) -> Dispatch {
            std::lock_guard<std::mutex> lock(objectsMutex_);
            auto it = objects_.find(objectId);
            if (it == objects_.end()) return {};
            return [object = it->second](const std::string& method, const AndroidParcel& request,
                                         AndroidParcel& reply) {
                return runHandler(
                    method,
                    [&](AndroidParcel& out) { return object->dispatch(method, request, &out); },
                    reply);
            };
        });
    }

    void onEnd(const std::string& error);

    AndroidServer& server_;
    ServerState& state_;
    const ServerLimits& limits_;
    UniqueFd requests_;  // channel A: the client's requests, our answers
    std::atomic<bool> closed_{false};
    std::mutex callerMutex_;  // guards: events_, caller_ (written once, by the handshake)
    UniqueFd events_;         // channel B: our events and callbacks, the client's answers
    std::unique_ptr<Caller> caller_;
    std::mutex objectsMutex_;  // guards: objects_
    std::map<std::string, std::shared_ptr<AndroidImpl>> objects_;
    Responder responder_;
};

class ServerState {
public:
    ServerState(AndroidServer& server, std::string path, UniqueFd listener, dev_t dev, ino_t ino,
                const ServerLimits& limits)
        : limits_(limits),
          server_(server),
          path_(std::move(path)),
          listener_(std::move(listener)),
          wake_(::eventfd(0, EFD_CLOEXEC)),
          socketDev_(dev),
          socketIno_(ino) {
        if (!wake_.valid()) throw std::runtime_error("parlex: eventfd failed");
        acceptThread_ = std::thread(&ServerState::acceptLoop, this);
    }

    ~ServerState() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake();
        acceptThread_.join();
        std::vector<std::shared_ptr<ServerConnection>> connections;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            connections.swap(connections_);
        }
        for (auto& connection : connections) connection->close();
        for (auto& connection : connections) connection->join();
        // Remove the socket only if it is still ours.
        struct stat st;
        if (::stat(path_.c_str(), &st) == 0 && st.st_dev == socketDev_ && st.st_ino == socketIno_) {
            ::unlink(path_.c_str());
        }
    }

    const ServerLimits& limits() const { return limits_; }

    std::string nextObjectId(const std::string& type) {
        return type + "#" + std::to_string(nextObjectId_++);
    }

    // Asks the accept thread to join the threads of connections that have ended.
    void wake() {
        uint64_t one = 1;
        ssize_t n = ::write(wake_.get(), &one, sizeof(one));
        (void)n;
    }

private:
    void acceptLoop() {
        pollfd fds[2] = {{listener_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
        bool resting = false;  // out of descriptors: the listener is left alone for a while
        bool pollFailed = false;
        while (true) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (stopping_) return;
            }
            fds[0].fd = resting ? -1 : listener_.get();
            if (::poll(fds, 2, resting ? kRestMs : -1) < 0) {
                const int error = errno;
                if (error == EINTR) continue;
                // Only a broken process gets here; keep trying rather than stop accepting.
                if (!pollFailed) {
                    logLine("parlex: poll failed: " + std::string(std::strerror(error)));
                }
                pollFailed = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(kRestMs));
                continue;
            }
            pollFailed = resting = false;
            if (fds[1].revents & POLLIN) {
                uint64_t count;
                ssize_t n = ::read(wake_.get(), &count, sizeof(count));
                (void)n;
                reap();
            }
            if (fds[0].revents & POLLIN) resting = !accept();
        }
    }

    // False when the process is out of descriptors, so that the client waits in the backlog.
    bool accept() {
        UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!client.valid()) {
            if (errno != EMFILE && errno != ENFILE) return true;
            if (!outOfDescriptors_) {
                logLine("parlex: out of descriptors; new clients wait until some are free");
            }
            outOfDescriptors_ = true;
            return false;
        }
        outOfDescriptors_ = false;
        std::shared_ptr<ServerConnection> connection;
        size_t open;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return true;
            // Connections already closed only wait for the reaper: they do not count.
            open = static_cast<size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                     [](const auto& c) { return !c->closed(); }));
            if (open < limits_.maxConnections) {
                connection = std::make_shared<ServerConnection>(server_, *this, std::move(client));
                connections_.push_back(connection);
            }
        }
        if (!connection) {
            // Closing the socket is the refusal: the client's greeting gets no answer.
            if (!full_) {
                logLine("parlex: " + std::to_string(open) +
                        " clients connected, the most a server serves; refusing more");
            }
            full_ = true;
            return true;
        }
        full_ = false;
        connection->start();
        return true;
    }

    void reap() {
        std::vector<std::shared_ptr<ServerConnection>> ended;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (auto it = connections_.begin(); it != connections_.end();) {
                if ((*it)->finished()) {
                    ended.push_back(std::move(*it));
                    it = connections_.erase(it);
                } else {
                    ++it;
                }
            }
        }
        for (auto& connection : ended) connection->join();
    }

    const ServerLimits limits_;
    AndroidServer& server_;
    const std::string path_;
    UniqueFd listener_;
    UniqueFd wake_;
    const dev_t socketDev_;
    const ino_t socketIno_;
    std::atomic<uint64_t> nextObjectId_{1};
    std::mutex mutex_;  // guards: connections_, stopping_
    std::vector<std::shared_ptr<ServerConnection>> connections_;
    bool stopping_ = false;
    // Accept thread only: the last client was refused for the cap, or had to wait.
    bool full_ = false;
    bool outOfDescriptors_ = false;
    std::thread acceptThread_;
};

ServerConnection::ServerConnection(AndroidServer& server, ServerState& state, UniqueFd requests)
    : server_(server),
      state_(state),
      limits_(state.limits()),
      requests_(std::move(requests)),
      responder_(
          requests_.get(), [this](Frame& frame) { handle(frame); },
          [this](const std::string& error) { onEnd(error); }, [this] { state_.wake(); }) {}

void ServerConnection::create(Frame& frame) {
    std::string type(frame.payload.begin(), frame.payload.end());
    std::shared_ptr<AndroidImpl> object;
    std::string error;
    try {
        object = server_.createObject(type);
        if (!object) error = "parlex: no factory for object type '" + type + "'";
    } catch (const std::exception& e) {
        error = std::string("parlex: creating '") + type + "' failed: " + e.what();
    }
    std::string objectId;
    if (object) {
        objectId = state_.nextObjectId(type);
        object->objectId_ = objectId;
        object->connection_ = weak_from_this();
        std::lock_guard<std::mutex> lock(objectsMutex_);
        if (closed_) {
            error = "parlex: connection closed";
        } else {
            objects_[objectId] = object;
        }
    }
    if (!error.empty()) {
        AndroidParcel empty;
        sendAnswer(requests_.get(), frame.txn, error, empty);
        return;
    }
    int rc = sendFrame(requests_.get(), FrameKind::Reply, frame.txn, objectId.data(),
                       objectId.size(), {});
    (void)rc;
}

void ServerConnection::onEnd(const std::string& error) {
    if (!error.empty()) {
        logLine("parlex: client sent a malformed frame (" + error + "); disconnecting");
    }
    close();
    std::map<std::string, std::shared_ptr<AndroidImpl>> objects;
    {
        std::lock_guard<std::mutex> lock(objectsMutex_);
        objects.swap(objects_);
    }
    // The objects go here, on a pool thread and outside the lock: their destructors may do
    // anything, such as joining a thread of theirs that is inside a send to this client.
}

namespace {

// Creates the runtime directory when missing. The shared default under /tmp must be ours and a
// real directory, or anyone could stand in for the service.
void prepareRuntimeDir(const std::string& dir) {
    if (::mkdir(dir.c_str(), 0700) == 0) return;
    if (errno != EEXIST) {
        throw std::runtime_error("parlex: cannot create " + dir + ": " + std::strerror(errno));
    }
    struct stat st;
    if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        throw std::runtime_error("parlex: " + dir + " is not a directory");
    }
    bool isDefault =
        std::getenv("PARLEX_RUNTIME_DIR") == nullptr && std::getenv("XDG_RUNTIME_DIR") == nullptr;
    if (isDefault && st.st_uid != ::getuid()) {
        throw std::runtime_error("parlex: " + dir + " belongs to another user");
    }
}

mode_t socketMode() {
    const char* text = std::getenv("PARLEX_SOCKET_MODE");
    if (text == nullptr || *text == '\0') return 0600;
    char* end = nullptr;
    unsigned long mode = std::strtoul(text, &end, 8);
    if (*end != '\0' || mode > 0777) {
        throw std::runtime_error(std::string("parlex: bad PARLEX_SOCKET_MODE '") + text + "'");
    }
    return static_cast<mode_t>(mode);
}

int bindTo(int fd, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
}

// True when a server accepts connections at `path`.
bool serverAlive(const std::string& path) {
    UniqueFd probe(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return probe.valid() &&
           ::connect(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}

}  // namespace

}  // namespace parlex::transport

namespace parlex {

// Classes deriving from these rely on their having no virtual table.
static_assert(!std::is_polymorphic_v<AndroidServer>, "AndroidServer must stay non-virtual");
static_assert(!std::is_polymorphic_v<AndroidImpl>, "AndroidImpl must stay non-virtual");

AndroidImpl::AndroidImpl() = default;
AndroidImpl::~AndroidImpl() = default;

std::future<AndroidParcel> AndroidImpl::send(std::unique_ptr<AndroidParcel> parcel) {
    if (auto connection = connection_.lock()) return connection->send(*parcel);
    return transport::failedFuture(std::make_exception_ptr(dead_object()));
}

AndroidServer::AndroidServer() = default;

AndroidServer::~AndroidServer() { stop(); }

void AndroidServer::start(const std::string& serviceName) { start(serviceName, ServerLimits()); }

void AndroidServer::start(const std::string& serviceName, const ServerLimits& limits) {
    using namespace transport;
    if (state_) throw std::runtime_error("parlex: server already started");
    std::string path = socketPath(serviceName);
    prepareRuntimeDir(runtimeDir());
    mode_t mode = socketMode();

    UniqueFd listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!listener.valid()) throw std::runtime_error("parlex: socket failed");
    if (bindTo(listener.get(), path) != 0) {
        if (errno != EADDRINUSE) {
            throw std::runtime_error("parlex: cannot bind " + path + ": " + std::strerror(errno));
        }
        if (serverAlive(path)) {
            throw std::runtime_error("parlex: service '" + serviceName + "' is already running");
        }
        // Left behind by a server that died: take its place.
        ::unlink(path.c_str());
        if (bindTo(listener.get(), path) != 0) {
            throw std::runtime_error("parlex: cannot bind " + path + ": " + std::strerror(errno));
        }
    }
    struct stat st;
    if (::chmod(path.c_str(), mode) != 0 || ::stat(path.c_str(), &st) != 0 ||
        ::listen(listener.get(), SOMAXCONN) != 0) {
        std::string why = std::strerror(errno);
        ::unlink(path.c_str());
        throw std::runtime_error("parlex: cannot listen at " + path + ": " + why);
    }
    state_ = std::make_unique<ServerState>(*this, path, std::move(listener), st.st_dev, st.st_ino,
                                           limits);
}

void AndroidServer::stop() { state_.reset(); }

std::optional<PeerCredentials> callingPeer() { return std::nullopt; }

}  // namespace parlex
