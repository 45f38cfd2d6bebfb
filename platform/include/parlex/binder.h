// Host transport for the named-method RPC layer: real processes talking over Unix-domain
// sockets with the semantics the layer above relies on.
//
//  - A service is found by name: the socket `<runtime dir>/<service name>`, where the runtime
//    dir is $PARLEX_RUNTIME_DIR when set, else $XDG_RUNTIME_DIR/parlex, else /tmp/parlex-<uid>.
//    A directory the transport creates gets mode 0700 and the socket 0600 (or the octal mode in
//    $PARLEX_SOCKET_MODE), so only the same user can connect unless the integrator widens it.
//  - A client's calls block until the reply with no time-out; only its greeting and each
//    object's creation and release wait at most kConnectDeadline. A server waits at most
//    ServerLimits::callDeadline for a client's answer, or for a client to take a message off its
//    socket, and disconnects a client that misses it. Incoming requests never run on a thread
//    that waits for a reply, so a handler may call the other side, and a handler waiting for
//    such a nested call does not hold up the requests it may depend on.
//  - A server records each client's credentials as it connects, admits only the users
//    ServerLimits allows, and caps what all clients and each peer process may hold.
//  - A handler's exception, or a method without handler, comes back to the caller as a
//    std::runtime_error carrying the message; so does a call that fails for a reason local to
//    either process (a message above the limit, no descriptor left for it), which leaves the
//    connection as it was. A dead peer fails every pending and later send with dead_object;
//    each proxy of a client connection then receives "death" exactly once.
//  - Blobs above 16 KiB travel as sealed memfd regions; a message above 1 MiB, its blobs
//    included, is refused.
//  - Objects a client created are released on a transport thread (the connection's own, or
//    the server's accept thread), never inside an AndroidImpl::send() or a future's get().
//
// AndroidServer and AndroidImpl have no virtual functions: classes deriving from them rely on
// that for their layout.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "parlex/AndroidParcel.h"
#include "parlex/parlex.h"

namespace parlex {

// The peer process is gone (or closed its connection).
class dead_object : public std::runtime_error {
public:
    dead_object() : std::runtime_error("parlex: dead object") {}
};

namespace transport {
class ClientConnection;
class ServerConnection;
class ServerState;
class ProxyRoute;
}  // namespace transport

// Largest message, arguments, blobs and descriptors' indices included, that either side sends
// or accepts.
constexpr size_t kMaxMessageSize = 1024 * 1024;
// Threads of the process's one transport pool, shared by all its connections, that may run at
// once to handle incoming messages. A handler that waits for the answer to a call of its own does
// not count while it waits. A whole number from 1 to kMaxTransportThreadsSetting in
// $PARLEX_MAX_THREADS (read once, at the first connection) replaces it; anything else there is
// ignored.
constexpr size_t kDefaultTransportThreads = 16;
constexpr size_t kMaxTransportThreadsSetting = 1024;
// Handlers of a connection's side that may wait for answers at once; a handler whose wait would
// go beyond it gets std::runtime_error instead of waiting.
constexpr size_t kMaxWaitingHandlersPerConnection = 64;
// How long AndroidClient waits for the service to take the connection and answer its greeting,
// and for each object creation, before its constructor (or AndroidProxy's) throws
// std::runtime_error ("did not answer within <N> ms"), leaving no thread or descriptor behind.
// AndroidProxy's destructor waits as long for the release, then lets the object go with the
// connection. A positive number of milliseconds (at most a day) in $PARLEX_CONNECT_DEADLINE_MS
// replaces it; anything else there is ignored.
constexpr std::chrono::milliseconds kConnectDeadline{5000};

// The process at the other end of a connection, as the kernel reported it when it connected.
struct PeerCredentials {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};

// The client on whose behalf the calling thread runs: set on a server's thread while it creates
// an object for a client or runs one of its requests (and whatever those call, such as the
// player); empty on every other thread. Exported from the shared library, so that the player of
// an embedding service can ask.
__attribute__((visibility("default"))) std::optional<PeerCredentials> callingPeer();

// What a server grants its clients. Every cap is refused with one log line naming it and the
// peer (once per burst: until a client is admitted again), and the client is told which cap it
// met; the caps by peer process keep one process from crowding out the others. A peer process is
// the pid the kernel reported when it connected.
struct ServerLimits {
    // How long the server waits for a client to answer an event or a callback, or to take a
    // message off its socket. A client that misses it is disconnected as if it had died: its
    // pending calls fail with dead_object and the objects it created are released. Both
    // deadlines must be positive: AndroidServer::start throws otherwise.
    std::chrono::milliseconds callDeadline{2000};
    // How long a new connection has to send its greeting, which AndroidClient sends as soon as
    // it has connected, before it is dropped.
    std::chrono::milliseconds greetingDeadline{3000};
    // Greeted connections served at once, all peers together, and those of one peer process.
    size_t maxConnections = 2048;
    size_t maxConnectionsPerProcess = 128;
    // Connections that have not greeted yet, all together and of one peer process. They do not
    // count against the greeted ones.
    size_t maxPendingGreetings = 64;
    size_t maxPendingGreetingsPerProcess = 8;
    // Objects one connection may have created and not released; a creation beyond it gets an
    // error answer naming the cap and the connection carries on.
    size_t maxObjectsPerConnection = 16;
    // Requests of one peer process that the process's transport pool runs at once, all its
    // connections together; its further requests wait in their sockets until one of those
    // ends. A handler waiting for an answer (a nested call) does not count. It keeps one
    // process whose requests are slow, or that does not read its answers, from holding every
    // thread of the pool. Must be positive.
    size_t maxBusyRequestsPerProcess = 8;
    // Users that may connect; empty means the server's own (effective) user and root. A list
    // that is not empty is the whole list: root and the server's user are in only if listed.
    std::vector<uid_t> allowedUids;
};

// Where the transport reports what it can not hand to anyone: a malformed frame from a peer and
// its disconnection, a client refused or dropped for the limits above, a server out of
// descriptors. The default writes the line to stderr.
void setLogHandler(std::function<void(const std::string&)> handler);

class AndroidClient {
public:
    // Connects to the service registered under `serviceName`; throws std::runtime_error naming
    // the service and its socket when none is running, the socket is not ours to use, the
    // service refused the connection (with its reason when it gave one) or did not answer within
    // kConnectDeadline.
    explicit AndroidClient(const std::string& serviceName);
    ~AndroidClient();
    AndroidClient(const AndroidClient&) = delete;
    AndroidClient& operator=(const AndroidClient&) = delete;

    std::future<AndroidParcel> send(std::unique_ptr<AndroidParcel> parcel);
    // Closes the connection: later sends fail with std::runtime_error and no "death" follows.
    void stop();

private:
    friend class AndroidProxy;
    std::shared_ptr<transport::ClientConnection> connection_;
};

class AndroidProxy : public ProxyBase<AndroidClient, AndroidParcel> {
public:
    // Asks the service to create an object of type `type` for this proxy; throws
    // std::runtime_error when the service has no factory for it.
    AndroidProxy(AndroidClient* client, const std::string& type);
    // Releases the service's reference to the object.
    ~AndroidProxy();
    AndroidProxy(const AndroidProxy&) = delete;
    AndroidProxy& operator=(const AndroidProxy&) = delete;

    // As ProxyBase::bind. A "death" that came before its handler was bound (while the proxy was
    // being constructed) is delivered once that handler is bound through this function.
    template <typename F, int R = detail::hasResult<F>()>
    void bind(const std::string& name, F f) {
        ProxyBase::bind<F, R>(name, std::move(f));
        if (name == "death") deathBound();
    }

private:
    void deathBound();

    std::shared_ptr<transport::ClientConnection> connection_;
    std::shared_ptr<transport::ProxyRoute> route_;
};

class AndroidImpl : public ImplBase<AndroidImpl, AndroidParcel> {
public:
    AndroidImpl();
    ~AndroidImpl();
    AndroidImpl(const AndroidImpl&) = delete;
    AndroidImpl& operator=(const AndroidImpl&) = delete;

    // Sends an event or callback parcel to the client that created this object.
    std::future<AndroidParcel> send(std::unique_ptr<AndroidParcel> parcel);

private:
    friend class transport::ServerConnection;
    std::weak_ptr<transport::ServerConnection> connection_;
};

class AndroidServer : public ServerBase<AndroidServer, AndroidImpl, AndroidParcel> {
public:
    AndroidServer();
    // Stops the service if it still runs.
    ~AndroidServer();
    AndroidServer(const AndroidServer&) = delete;
    AndroidServer& operator=(const AndroidServer&) = delete;

    // Publishes the service under `serviceName` with the default ServerLimits, or with
    // `limits`; throws std::runtime_error when another live server holds the name. A socket left
    // behind by a crashed server is replaced. Raises the process's soft limit of descriptors, up
    // to its hard limit, to what the caps may need (two per connection).
    void start(const std::string& serviceName);
    void start(const std::string& serviceName, const ServerLimits& limits);
    // Closes every connection, joins every transport thread and releases every object. Must
    // not be called from a transport thread.
    void stop();

private:
    std::unique_ptr<transport::ServerState> state_;
};

}  // namespace parlex
