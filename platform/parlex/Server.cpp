// The service side of the transport: the listening socket and its accept thread, one
// connection per client with the objects that client created, and AndroidImpl's sends.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <set>
#include <system_error>
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
// Distinct refusals logged between two admissions of a client; beyond it they go unlogged.
constexpr size_t kMaxRefusalsLogged = 64;

namespace {

// The client whose Create or request this thread runs, if any.
thread_local const PeerCredentials* tCallingPeer = nullptr;

class CallingPeerScope {
public:
    explicit CallingPeerScope(const PeerCredentials& peer) : saved_(tCallingPeer) {
        tCallingPeer = &peer;
    }
    ~CallingPeerScope() { tCallingPeer = saved_; }
    CallingPeerScope(const CallingPeerScope&) = delete;
    CallingPeerScope& operator=(const CallingPeerScope&) = delete;

private:
    const PeerCredentials* saved_;
};

std::string describe(const PeerCredentials& peer) {
    return "pid " + std::to_string(peer.pid) + " (uid " + std::to_string(peer.uid) + ")";
}

void setSendTimeout(int socket, std::chrono::milliseconds timeout) {
    timeval value{};
    value.tv_sec = static_cast<time_t>(timeout.count() / 1000);
    value.tv_usec = static_cast<suseconds_t>(timeout.count() % 1000 * 1000);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof(value));
}

bool isSeqpacketSocket(int fd) {
    int type = 0;
    socklen_t length = sizeof(type);
    return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_SEQPACKET;
}

}  // namespace

// Why a client is refused: `reason` goes to the client, `line` to the log (once per `key` and
// burst).
struct Refusal {
    std::string key;
    std::string reason;
    std::string line;
    bool empty() const { return key.empty(); }
};

class ServerConnection : public std::enable_shared_from_this<ServerConnection> {
public:
    // Where the connection stands in the server's counts.
    enum class Stage { Pending, Greeted, Gone };

    ServerConnection(AndroidServer& server, ServerState& state, UniqueFd requests,
                     const PeerCredentials& peer);

    // Throws std::system_error when the transport pool cannot take it.
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
    // inside sends and waits that find the client gone or too slow, so it releases nothing
    // itself. `unresponsive`: the client missed the call deadline, which is logged once.
    void close(bool unresponsive = false) {
        if (closed_.exchange(true)) return;
        if (unresponsive) {
            logLine("parlex: client " + describe(peer_) +
                    " did not answer or take its messages within " +
                    std::to_string(limits_.callDeadline.count()) + " ms; disconnecting");
        }
        ::shutdown(requests_.get(), SHUT_RDWR);
        std::lock_guard<std::mutex> lock(callerMutex_);
        if (caller_) caller_->fail(Failure::Dead);
        if (events_.valid()) ::shutdown(events_.get(), SHUT_RDWR);
    }

    void join() { responder_.join(); }
    bool finished() { return responder_.finished(); }
    const PeerCredentials& peer() const { return peer_; }

    Stage stage = Stage::Pending;  // guarded by the ServerState's mutex
    // When the greeting is due.
    const std::chrono::steady_clock::time_point greetingDue;

private:
    static std::future<AndroidParcel> deadFuture() {
        return failedFuture(std::make_exception_ptr(dead_object()));
    }

    // The first frame of a connection must be the greeting that brings the event channel.
    bool handshake();

    void handle(Frame& frame) {
        CallingPeerScope calling(peer_);
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

    // An answer that the client did not take off its socket within the deadline: it is stuck.
    void answered(int sendResult) {
        if (sendResult == -ETIMEDOUT) close(true);
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
        answered(sendAnswer(requests_.get(), frame.txn, {}, empty));
    }

    void call(Frame& frame) {
        answered(
            answerCall(requests_.get(), frame, [this](const std::string& objectId) -> Dispatch {
                std::lock_guard<std::mutex> lock(objectsMutex_);
                auto it = objects_.find(objectId);
                if (it == objects_.end()) return {};
                return [object = it->second](const std::string& method,
                                             const AndroidParcel& request, AndroidParcel& reply) {
                    return runHandler(
                        method,
                        [&](AndroidParcel& out) { return object->dispatch(method, request, &out); },
                        reply);
                };
            }));
    }

    void onEnd(const std::string& error);

    AndroidServer& server_;
    ServerState& state_;
    const ServerLimits& limits_;
    const PeerCredentials peer_;
    UniqueFd requests_;  // channel A: the client's requests, our answers
    std::atomic<bool> closed_{false};
    std::mutex callerMutex_;  // guards: events_, caller_ (written once, by the handshake)
    UniqueFd events_;         // channel B: our events and callbacks, the client's answers
    std::unique_ptr<Caller> caller_;
    std::mutex objectsMutex_;  // guards: objects_, creating_
    std::map<std::string, std::shared_ptr<AndroidImpl>> objects_;
    size_t creating_ = 0;  // objects whose factory runs now
    Responder responder_;
};

// Connections counted by peer process.
class PeerCounts {
public:
    size_t total() const { return total_; }
    size_t of(pid_t pid) const {
        auto it = byPid_.find(pid);
        return it == byPid_.end() ? 0 : it->second;
    }
    void add(pid_t pid) {
        ++total_;
        ++byPid_[pid];
    }
    void remove(pid_t pid) {
        --total_;
        if (--byPid_[pid] == 0) byPid_.erase(pid);
    }

private:
    size_t total_ = 0;
    std::map<pid_t, size_t> byPid_;
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
        if (limits_.allowedUids.empty()) limits_.allowedUids = {::geteuid(), 0};
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

    // Moves a connection that greeted from the pending to the greeted ones; the refusal when a
    // cap on greeted connections does not let it in (it is no longer counted then).
    Refusal greeted(ServerConnection& connection) {
        const PeerCredentials& peer = connection.peer();
        Refusal refusal;
        bool log = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (connection.stage != ServerConnection::Stage::Pending) {
                return {"closing", "the connection is closing", {}};
            }
            pending_.remove(peer.pid);
            if (greeted_.total() >= limits_.maxConnections) {
                const std::string cap = std::to_string(limits_.maxConnections);
                refusal = {
                    "connections",
                    "the service serves the most clients it may (maxConnections " + cap + ")",
                    "parlex: " + cap +
                        " clients connected, the most a server serves (maxConnections); "
                        "refusing more, first from " +
                        describe(peer)};
            } else if (greeted_.of(peer.pid) >= limits_.maxConnectionsPerProcess) {
                const std::string cap = std::to_string(limits_.maxConnectionsPerProcess);
                refusal = {"connections:" + std::to_string(peer.pid),
                           "this process has the most connections one process may have "
                           "(maxConnectionsPerProcess " +
                               cap + ")",
                           "parlex: " + describe(peer) + " has " + cap +
                               " connections, the most one process may have "
                               "(maxConnectionsPerProcess); refusing more"};
            }
            if (refusal.empty()) {
                connection.stage = ServerConnection::Stage::Greeted;
                greeted_.add(peer.pid);
                refusalsLogged_.clear();
            } else {
                connection.stage = ServerConnection::Stage::Gone;
                log = firstOfBurst(refusal.key);
            }
        }
        if (log) logLine(refusal.line);
        return refusal;
    }

    // The connection has ended: it counts no more.
    void leave(ServerConnection& connection) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (connection.stage == ServerConnection::Stage::Pending) {
            pending_.remove(connection.peer().pid);
        } else if (connection.stage == ServerConnection::Stage::Greeted) {
            greeted_.remove(connection.peer().pid);
        }
        connection.stage = ServerConnection::Stage::Gone;
    }

    // Logs a refusal that is not part of a cap's burst (a creation beyond the object cap).
    void refused(const Refusal& refusal) {
        bool log;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            log = firstOfBurst(refusal.key);
        }
        if (log) logLine(refusal.line);
    }

private:
    // Whether the refusal `key` is the first of its burst: refusals are logged once each until a
    // client is admitted again. Call with mutex_ held.
    bool firstOfBurst(const std::string& key) {
        if (refusalsLogged_.size() >= kMaxRefusalsLogged) return false;
        return refusalsLogged_.insert(key).second;
    }

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
            int timeout = greetingsDue();
            if (resting && (timeout < 0 || timeout > kRestMs)) timeout = kRestMs;
            if (::poll(fds, 2, timeout) < 0) {
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

    // Disconnects the connections whose greeting is overdue; returns the milliseconds until the
    // next one is due, or -1 when none waits.
    int greetingsDue() {
        const auto now = std::chrono::steady_clock::now();
        std::vector<std::shared_ptr<ServerConnection>> overdue;
        auto next = std::chrono::steady_clock::time_point::max();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (auto& connection : connections_) {
                if (connection->stage != ServerConnection::Stage::Pending) continue;
                if (connection->greetingDue > now) {
                    next = std::min(next, connection->greetingDue);
                    continue;
                }
                // Counted out now: a greeting that comes after all is refused as closing.
                pending_.remove(connection->peer().pid);
                connection->stage = ServerConnection::Stage::Gone;
                overdue.push_back(connection);
            }
        }
        for (auto& connection : overdue) {
            logLine("parlex: client sent no greeting within " +
                    std::to_string(limits_.greetingDeadline.count()) + " ms; disconnecting");
            connection->close();
        }
        if (next == std::chrono::steady_clock::time_point::max()) return -1;
        // Rounded up, so that the deadline has passed when poll returns.
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - now);
        return static_cast<int>(std::min<long long>(left.count() + 1, 60 * 1000));
    }

    // The refusal of a new connection from `peer` by the allow-list or the caps on pending
    // greetings; empty when it may wait for its greeting. Call with mutex_ held.
    Refusal pendingRefusal(const PeerCredentials& peer) const {
        const auto& allowed = limits_.allowedUids;
        if (std::find(allowed.begin(), allowed.end(), peer.uid) == allowed.end()) {
            return {"uid:" + std::to_string(peer.uid),
                    "uid " + std::to_string(peer.uid) + " may not use this service (allowedUids)",
                    "parlex: uid " + std::to_string(peer.uid) + " (pid " +
                        std::to_string(peer.pid) +
                        ") may not use this service (allowedUids); refusing its connections"};
        }
        if (pending_.total() >= limits_.maxPendingGreetings) {
            const std::string cap = std::to_string(limits_.maxPendingGreetings);
            return {
                "pending",
                "too many connections wait for their greeting (maxPendingGreetings " + cap + ")",
                "parlex: " + cap +
                    " connections wait for their greeting, the most a server lets wait "
                    "(maxPendingGreetings); refusing more, first from " +
                    describe(peer)};
        }
        if (pending_.of(peer.pid) >= limits_.maxPendingGreetingsPerProcess) {
            const std::string cap = std::to_string(limits_.maxPendingGreetingsPerProcess);
            return {"pending:" + std::to_string(peer.pid),
                    "too many connections of this process wait for their greeting "
                    "(maxPendingGreetingsPerProcess " +
                        cap + ")",
                    "parlex: " + describe(peer) + " has " + cap +
                        " connections waiting for their greeting, the most one process may have "
                        "(maxPendingGreetingsPerProcess); refusing more"};
        }
        return {};
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
        ucred credentials{};
        socklen_t length = sizeof(credentials);
        if (::getsockopt(client.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
            return true;  // a client that is gone already: nothing to serve
        }
        const PeerCredentials peer{credentials.pid, credentials.uid, credentials.gid};
        // No answer of ours, nor the refusal below, may wait on a client that does not read.
        setSendTimeout(client.get(), limits_.callDeadline);
        std::shared_ptr<ServerConnection> connection;
        Refusal refusal;
        bool log = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return true;
            refusal = pendingRefusal(peer);
            if (refusal.empty()) {
                connection =
                    std::make_shared<ServerConnection>(server_, *this, std::move(client), peer);
                connections_.push_back(connection);
                pending_.add(peer.pid);
            } else {
                log = firstOfBurst(refusal.key);
            }
        }
        if (!connection) {
            // Logged first, so that the line is there once the client knows. The client reads
            // the reason before it finds the connection closed.
            if (log) logLine(refusal.line);
            sendFrame(client.get(), FrameKind::Error, 0, refusal.reason.data(),
                      refusal.reason.size(), {});
            return true;
        }
        try {
            connection->start();
        } catch (const std::system_error&) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                connections_.erase(std::find(connections_.begin(), connections_.end(), connection));
            }
            leave(*connection);
            logLine("parlex: no thread left for a client of " + describe(peer) + "; disconnecting");
            connection->close();
        }
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

    ServerLimits limits_;  // set up by the constructor, then read only
    AndroidServer& server_;
    const std::string path_;
    UniqueFd listener_;
    UniqueFd wake_;
    const dev_t socketDev_;
    const ino_t socketIno_;
    std::atomic<uint64_t> nextObjectId_{1};
    // guards: connections_, stopping_, pending_, greeted_, refusalsLogged_ and each connection's
    // stage
    std::mutex mutex_;
    std::vector<std::shared_ptr<ServerConnection>> connections_;
    bool stopping_ = false;
    PeerCounts pending_;  // connections that have not greeted yet
    PeerCounts greeted_;
    std::set<std::string> refusalsLogged_;  // since the last admission
    // Accept thread only: the last client had to wait for descriptors.
    bool outOfDescriptors_ = false;
    std::thread acceptThread_;
};

ServerConnection::ServerConnection(AndroidServer& server, ServerState& state, UniqueFd requests,
                                   const PeerCredentials& peer)
    : greetingDue(std::chrono::steady_clock::now() + state.limits().greetingDeadline),
      server_(server),
      state_(state),
      limits_(state.limits()),
      peer_(peer),
      requests_(std::move(requests)),
      responder_(
          requests_.get(), [this](Frame& frame) { handle(frame); },
          [this](const std::string& error) { onEnd(error); }, [this] { state_.wake(); }) {
    // Peers in another pid namespace are seen with pid 0 and share one group, as they share
    // their other caps.
    responder_.limitBusy(static_cast<uint64_t>(peer.pid) + 1, limits_.maxBusyRequestsPerProcess);
}

bool ServerConnection::handshake() {
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
        hello.fds.size() != 1 || ::fstat(hello.fds[0].get(), &st) != 0 || !S_ISSOCK(st.st_mode) ||
        !isSeqpacketSocket(hello.fds[0].get())) {
        logLine("parlex: client sent a bad greeting (" +
                (error.empty() ? std::string("not a greeting") : error) + "); disconnecting");
        return false;
    }
    if (const Refusal refusal = state_.greeted(*this); !refusal.empty()) {
        sendFrame(requests_.get(), FrameKind::Error, hello.txn, refusal.reason.data(),
                  refusal.reason.size(), {});
        return false;
    }
    // Our events may not wait on a client that does not read them.
    setSendTimeout(hello.fds[0].get(), limits_.callDeadline);
    {
        std::lock_guard<std::mutex> lock(callerMutex_);
        if (closed_) return false;
        events_ = std::move(hello.fds[0]);
        caller_ = std::make_unique<Caller>(
            events_.get(), [this](bool timedOut) { close(timedOut); }, limits_.callDeadline);
    }
    const int rc = sendFrame(requests_.get(), FrameKind::HelloAck, hello.txn, nullptr, 0, {});
    answered(rc);
    return rc == 0;
}

void ServerConnection::create(Frame& frame) {
    std::string type(frame.payload.begin(), frame.payload.end());
    std::shared_ptr<AndroidImpl> object;
    std::string error;
    {
        std::lock_guard<std::mutex> lock(objectsMutex_);
        if (objects_.size() + creating_ >= limits_.maxObjectsPerConnection) {
            const std::string cap = std::to_string(limits_.maxObjectsPerConnection);
            error = "parlex: this connection holds " + cap +
                    " objects, the most one connection may create (maxObjectsPerConnection)";
        } else {
            ++creating_;
        }
    }
    if (!error.empty()) {
        state_.refused({"objects:" + std::to_string(peer_.pid), error,
                        "parlex: a connection of " + describe(peer_) + " holds " +
                            std::to_string(limits_.maxObjectsPerConnection) +
                            " objects, the most one connection may create "
                            "(maxObjectsPerConnection); refusing more"});
        AndroidParcel empty;
        answered(sendAnswer(requests_.get(), frame.txn, error, empty));
        return;
    }
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
    }
    {
        std::lock_guard<std::mutex> lock(objectsMutex_);
        --creating_;
        if (object && closed_) {
            error = "parlex: connection closed";
        } else if (object) {
            objects_[objectId] = object;
        }
    }
    if (!error.empty()) {
        // An object made for a connection that closed meanwhile goes here, outside the lock.
        object.reset();
        AndroidParcel empty;
        answered(sendAnswer(requests_.get(), frame.txn, error, empty));
        return;
    }
    answered(sendFrame(requests_.get(), FrameKind::Reply, frame.txn, objectId.data(),
                       objectId.size(), {}));
}

void ServerConnection::onEnd(const std::string& error) {
    if (!error.empty()) {
        logLine("parlex: client sent a malformed frame (" + error + "); disconnecting");
    }
    close();
    state_.leave(*this);
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

// Lets the process hold the descriptors that the caps may ask for (two per connection), up to
// the hard limit: the usual soft limit of 1024 would run out long before maxConnections.
void raiseDescriptorLimit(const ServerLimits& limits) {
    // Caps beyond what any system grants ask for all there is, without wrapping.
    const size_t connections = std::min<size_t>(limits.maxConnections, 1 << 24) +
                               std::min<size_t>(limits.maxPendingGreetings, 1 << 24);
    const rlim_t wanted = static_cast<rlim_t>(2 * connections + 256);
    rlimit current{};
    if (::getrlimit(RLIMIT_NOFILE, &current) != 0 || current.rlim_cur >= wanted) return;
    rlimit raised = current;
    raised.rlim_cur =
        current.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, current.rlim_max);
    ::setrlimit(RLIMIT_NOFILE, &raised);
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
    if (limits.callDeadline.count() <= 0 || limits.greetingDeadline.count() <= 0) {
        throw std::runtime_error("parlex: the server's deadlines must be positive");
    }
    if (limits.maxBusyRequestsPerProcess == 0) {
        throw std::runtime_error("parlex: maxBusyRequestsPerProcess must be positive");
    }
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
    raiseDescriptorLimit(limits);
    state_ = std::make_unique<ServerState>(*this, path, std::move(listener), st.st_dev, st.st_ino,
                                           limits);
}

void AndroidServer::stop() { state_.reset(); }

std::optional<PeerCredentials> callingPeer() {
    if (transport::tCallingPeer == nullptr) return std::nullopt;
    return *transport::tCallingPeer;
}

}  // namespace parlex
