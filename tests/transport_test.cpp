// The host transport between real processes: this process plays one side, a parlex_peer or raw
// sockets the other. An alarm ends a hanging test; what the transport logged shows on failure.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <parlex/binder.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../platform/parlex/Frame.h"
#include "../platform/parlex/TestHooks.h"
#include "support/Process.h"
#include "support/Raised.h"
#include "support/RecordingLogSink.h"

namespace parlex::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using transport::FrameHeader;
using transport::FrameKind;
using transport::UniqueFd;

constexpr const char* kService = "parlex-test";

// Every test, and every peer it starts, runs on a pool this small.
constexpr int kPoolBound = 4;
const bool kSmallPool = ::setenv("PARLEX_MAX_THREADS", std::to_string(kPoolBound).c_str(), 1) == 0;

// What the transport logged, what the served objects' callbacks raised, for whom each went.
orv::test::RecordingLogSink logged, calloutFailures, releasedFor;
size_t loggedWith(const std::string& text) { return logged.count(orv::LOG_ERROR, text); }
::testing::AssertionResult loggedOnce(const std::string& text) {
    if (const size_t n = loggedWith(text); n != 1) {
        return ::testing::AssertionFailure() << n << " lines of: " << text;
    }
    return ::testing::AssertionSuccess();
}
void note(orv::test::RecordingLogSink& to, const std::string& line) {
    to.logMessage(orv::LOG_ERROR, "", line.c_str());
}
std::vector<std::string> notes(const orv::test::RecordingLogSink& from) {
    std::vector<std::string> lines;
    for (const auto& entry : from.entries()) lines.push_back(entry.message);
    return lines;
}

AndroidBuffer patternBuffer(size_t size) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 131 + (i >> 8));
    return AndroidBuffer(static_cast<unsigned int>(size), bytes.data(), true);
}

std::vector<uint8_t> bytesOf(const AndroidBuffer& buffer) {
    const auto* data = static_cast<const uint8_t*>(buffer.data());
    return std::vector<uint8_t>(data, data + buffer.size());
}

// Whether the transport pool has its epoll descriptor open.
bool poolOpen() {
    const std::vector<int> fds = openFds();
    return std::any_of(fds.begin(), fds.end(), [](int fd) {
        std::error_code gone;  // the listing's own descriptor
        return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), gone) ==
               "anon_inode:[eventpoll]";
    });
}

template <typename T>
bool settles(std::future<T>& outcome) {
    return outcome.wait_for(kTimeout) == std::future_status::ready;
}

// Runs call(0) ... call(count - 1) at once, each to return its index; kills a hung `server`.
::testing::AssertionResult eachGetsItsOwnReply(int count, const std::function<int(int)>& call,
                                               Process* server = nullptr) {
    std::vector<std::future<int>> replies;
    for (int i = 0; i < count; ++i) replies.push_back(std::async(std::launch::async, call, i));
    for (int i = 0; i < count; ++i) {
        if (!settles(replies[i])) {
            if (server != nullptr) server->kill();
            return ::testing::AssertionFailure() << "call " << i << " hangs";
        }
        if (const int got = replies[i].get(); got != i) {
            return ::testing::AssertionFailure() << "call " << i << " got the reply of " << got;
        }
    }
    return ::testing::AssertionSuccess();
}

// Counts its live instances; like the server's tracks, it joins its event thread on release.
// "hold" requests that have come in, and what lets them return.
std::atomic<int> holding{0};
std::shared_future<void> holdGate;

class Counted : public AndroidImpl {
public:
    explicit Counted(std::atomic<int>& alive) : alive_(alive) {
        ++alive_;
        bind("hold", [] {
            ++holding;
            holdGate.wait();
            return 0;
        });
        bind("echoInt", [](int value) { return value; });
        bind("echoString", [](std::string value) { return value; });
        bind("pull", [this](int bytes) {
            AndroidBuffer buffer;
            const std::string failure =
                errorOf([&] { buffer = callback("getBuffer", bytes).as<AndroidBuffer>(); });
            if (failure.empty()) return buffer;
            note(calloutFailures, failure);
            throw std::runtime_error(failure);
        });
        // More events at once than a client that does not read can take.
        bind("flood", [this] {
            std::vector<std::future<AndroidParcel>> sent;
            for (int i = 0; i < 20; ++i) {
                auto parcel = std::make_unique<AndroidParcel>();
                parcel->write(objectId());
                parcel->write(std::string("tick"));
                parcel->write(std::string(60000, 'f'));
                sent.push_back(send(std::move(parcel)));
            }
            std::string failure;
            for (auto& event : sent) {
                if (std::string raised = errorOf([&] { event.get(); }); failure.empty()) {
                    failure = raised;
                }
            }
            note(calloutFailures, failure);
        });
        bind("startTicking", [this] {
            worker_ = std::thread([this] {
                while ((ended_ = errorOf([this] { event("tick", 0); })).empty()) continue;
            });
        });
    }
    ~Counted() {
        if (worker_.get_id() == std::this_thread::get_id()) {
            ADD_FAILURE() << "released on the thread it would have to join";
            worker_.detach();
        } else if (worker_.joinable()) {
            worker_.join();
            EXPECT_EQ(ended_, "dead_object") << "what ended the events of a gone client";
        }
        const auto peer = callingPeer();
        note(releasedFor, peer ? std::to_string(peer->pid) : "nobody");
        --alive_;
    }

private:
    std::atomic<int>& alive_;
    std::thread worker_;
    std::string ended_;  // what the last event raised
};

class CountedServer : public AndroidServer {
public:
    explicit CountedServer(const std::string& service, const ServerLimits& limits = {}) {
        registerFactory("Counted", [this] { return std::make_shared<Counted>(alive_); });
        start(service, limits);
    }
    ~CountedServer() { stop(); }  // while the counter still exists
    int alive() const { return alive_; }

private:
    std::atomic<int> alive_{0};
};

class TransportTest : public ::testing::Test {
protected:
    TransportTest() {
        // An earlier test's pool winds down on its own: the counts here start once it is gone.
        waitUntil([] { return !poolOpen(); });
        std::thread([] {}).join();  // ThreadSanitizer's own thread comes with the first one
        for (auto* sink : {&logged, &calloutFailures, &releasedFor}) sink->clear();
        setLogHandler([](const std::string& line) { note(logged, line); });
        ::alarm(60);
    }
    ~TransportTest() override { ::alarm(0); }

    // A peer still running must exit 0 when asked (not crashed, hung or leaking).
    void TearDown() override {
        for (auto& peer : peers_) {
            EXPECT_EQ(peer->running() ? peer->finish() : 0, 0) << "peer's wait status";
        }
        for (const auto& line : HasFailure() ? notes(logged) : std::vector<std::string>()) {
            std::fprintf(stderr, "[transport] %s\n", line.c_str());
        }
    }

    // Starts the peer (as `uid` if given), waits for its "ready"; what comes before goes to `said`.
    Process& startPeer(const std::vector<std::string>& args,
                       std::vector<std::string>* said = nullptr,
                       std::optional<uid_t> uid = std::nullopt) {
        std::vector<std::string> argv{PARLEX_PEER_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        peers_.push_back(std::make_unique<Process>(argv, uid));
        for (auto line = peers_.back()->readLine(); line != "ready";
             line = peers_.back()->readLine()) {
            if (!line || said == nullptr) {
                throw std::runtime_error("parlex_peer " + args.at(0) + " did not get ready");
            }
            said->push_back(*line);
        }
        return *peers_.back();
    }

    // Whether a new client of the service gets an answer from a new object of `type`.
    static bool serves(const char* type = "Counted") {
        AndroidClient client(kService);
        AndroidProxy proxy(&client, type);
        return proxy.call("echoInt", 5).as<int>() == 5;
    }

    std::string servicePath() const { return runtimeDir_.path() + "/" + kService; }

    std::string refusedBy() const {
        return "error: parlex: service '" + std::string(kService) + "' at " + servicePath() +
               " refused the connection: ";
    }

    PrivateRuntimeDir runtimeDir_;
    std::vector<std::unique_ptr<Process>> peers_;
};

class EchoTest : public TransportTest {
protected:
    Process& server_ = startPeer({"server", kService});
    AndroidClient client_{kService};
    AndroidProxy echo_{&client_, "Echo"};
};

TEST_F(TransportTest, ServiceSocketIsPrivateTakenOnceAndReplacedOnlyWhenItsServerIsGone) {
    namespace fs = std::filesystem;
    for (const char* mode : {"", "660"}) {
        const std::string dir = runtimeDir_.path() + "/run" + mode;
        ::setenv("PARLEX_RUNTIME_DIR", dir.c_str(), 1);
        if (*mode != '\0') ::setenv("PARLEX_SOCKET_MODE", mode, 1);
        CountedServer server(kService);
        EXPECT_EQ(fs::status(dir).permissions(), fs::perms::owner_all);
        EXPECT_EQ(fs::status(dir + "/" + kService).permissions(), fs::perms(*mode ? 0660 : 0600));
    }
    ::setenv("PARLEX_RUNTIME_DIR", runtimeDir_.path().c_str(), 1);
    ::unsetenv("PARLEX_SOCKET_MODE");
    Process& first = startPeer({"server", kService});
    AndroidServer second;
    EXPECT_THAT(errorOf([&] { second.start(kService); }), HasSubstr(kService));
    first.kill();
    ASSERT_TRUE(std::filesystem::exists(servicePath())) << "no stale socket to replace";
    CountedServer server(kService);
    EXPECT_TRUE(serves());
}

// The size of a parcel holding `values`, a request's object id and method name included.
template <typename... T>
size_t parcelSize(const T&... values) {
    AndroidParcel parcel;
    (parcel.write(values), ...);
    return parcel->dataSize();
}

// The longest text that a parcel of `head` and the text can carry within the message limit.
template <typename... T>
size_t longestText(const T&... head) {
    size_t n = kMaxMessageSize - parcelSize(head..., std::string());
    while (parcelSize(head..., std::string(n + 1, 't')) <= kMaxMessageSize) ++n;
    EXPECT_EQ(parcelSize(head..., std::string(n, 't')), kMaxMessageSize) << "no text fits exactly";
    return n;
}

TEST_F(EchoTest, MessagesOfExactlyTheLimitCrossAndOneByteMoreIsRefusedBeforeItIsSent) {
    const std::string id = echo_.objectId();
    const size_t request = longestText(id, std::string("echoString")), reply = longestText();
    const AndroidBuffer small = patternBuffer(transport::kInlineLimit / 2);
    const AndroidBuffer blob =
        patternBuffer(kMaxMessageSize - parcelSize(id, std::string("echoBuffer"), small));

    EXPECT_EQ(echo_.call("echoString", std::string(request, 'q')).as<std::string>().size(),
              request);
    EXPECT_EQ(echo_.call("bigReply", static_cast<int>(reply)).as<std::string>().size(), reply);
    EXPECT_EQ(bytesOf(echo_.call("echoBuffer", blob).as<AndroidBuffer>()), bytesOf(blob));

    EXPECT_THAT(errorOf([&] { echo_.call("echoString", std::string(request + 1, 'q')); }),
                HasSubstr("exceeds the limit"));
    EXPECT_THAT(errorOf([&] { echo_.call("bigReply", static_cast<int>(reply + 1)); }),
                HasSubstr("exceeds the message limit"));
    const AndroidBuffer over = patternBuffer(blob.size() + 1);
    EXPECT_THAT(errorOf([&] { echo_.call("echoBuffer", over); }), HasSubstr("blobs included"));
    // Every blob counts: two that fit one by one do not fit together.
    const AndroidBuffer half = patternBuffer(kMaxMessageSize / 2 + 1);
    EXPECT_THAT(errorOf([&] { echo_.call("echoBuffer", half, half); }),
                HasSubstr("blobs included"));
    EXPECT_EQ(echo_.call("echoInt", 7).as<int>(), 7);
}

TEST_F(EchoTest, FailuresComeBackAsErrorRepliesAndTheConnectionCarriesOn) {
    // No factory, a factory that makes nothing, a factory that throws.
    for (const char* type : {"NoSuchType", "Null", "Throwing"}) {
        EXPECT_THROW(AndroidProxy proxy(&client_, type), std::runtime_error) << type;
    }
    EXPECT_EQ(errorOf([&] { echo_.call("fail", std::string("boom 42")); }), "error: boom 42");
    EXPECT_THAT(errorOf([&] { echo_.call("failOddly"); }), StartsWith("error: "));
    EXPECT_THAT(errorOf([&] { echo_.call("noSuchMethod", 1); }),
                AllOf(StartsWith("error: "), HasSubstr("noSuchMethod")));
    // The client's handler failures come back to the server's callback the same way.
    AndroidProxy other(&client_, "Echo");
    EXPECT_THAT(errorOf([&] { other.call("pull", 1); }), HasSubstr("getBuffer"));
    other.bind("getBuffer", [](int) -> AndroidBuffer { throw std::runtime_error("client: no"); });
    EXPECT_EQ(errorOf([&] { other.call("pull", 1); }), "error: client: no");
    EXPECT_EQ(echo_.call("echoInt", 7).as<int>(), 7);
}

TEST_F(EchoTest, CallingPeerNamesTheClientInsideItsCreationAndRequestsOnly) {
    const std::string me = std::to_string(::getpid()) + " " + std::to_string(::getuid());
    EXPECT_EQ(echo_.call("callingPeer").as<std::string>(), me + " " + me + " unset");
    EXPECT_FALSE(callingPeer().has_value());
    std::atomic<bool> inCallback{true};
    echo_.bind("getBuffer", [&](int) {
        inCallback = callingPeer().has_value();
        return AndroidBuffer();
    });
    echo_.call("pull", 1);
    EXPECT_FALSE(inCallback);
}

TEST_F(EchoTest, CallsOfOneConnectionRunAtOnceUpToThePoolBoundAndWaitingOnesUpToTheirs) {
    EXPECT_TRUE(eachGetsItsOwnReply(
        kPoolBound + 8, [&](int i) { return echo_.call("sleepInside", i).as<int>(); }, &server_));
    EXPECT_EQ(echo_.call("mostInside").as<int>(), kPoolBound);

    const int bound = static_cast<int>(kMaxWaitingHandlersPerConnection);
    std::promise<void> release;
    echo_.bind("getBuffer", [released = release.get_future().share()](int) {
        released.wait();
        return AndroidBuffer();
    });
    std::vector<std::future<std::string>> pulls;
    for (int i = 0; i < bound + 2; ++i) {
        pulls.push_back(std::async(std::launch::async,
                                   [&] { return errorOf([&] { echo_.call("pull", 1); }); }));
    }
    auto failed = [&] {
        return std::count_if(pulls.begin(), pulls.end(), [](std::future<std::string>& pull) {
            return pull.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
    };
    const bool beyondFailed = waitUntil([&] { return failed() == 2; });
    release.set_value();
    EXPECT_TRUE(beyondFailed) << failed() << " failed while the others waited";
    std::vector<std::string> outcomes;
    for (auto& pull : pulls) outcomes.push_back(settles(pull) ? pull.get() : "hangs");
    EXPECT_THAT(outcomes, Contains("").Times(bound));
    EXPECT_THAT(
        outcomes,
        Contains(HasSubstr("handlers of this connection wait for answers already")).Times(2));
    EXPECT_EQ(echo_.call("echoInt", 3).as<int>(), 3);
}

// Both sides of every connection of this process share one pool of kPoolBound threads.
TEST_F(TransportTest, OneBoundedPoolServesManyConnectionsDespiteBlockedAndNestedHandlers) {
    const size_t threadsBefore = threadCount();
    constexpr size_t kClients = 64;
    CountedServer server(kService);
    std::vector<std::unique_ptr<AndroidClient>> clients(kClients);
    std::vector<std::unique_ptr<AndroidProxy>> proxies(kClients);
    for (size_t i = 0; i < kClients; ++i) {
        clients[i] = std::make_unique<AndroidClient>(kService);
        proxies[i] = std::make_unique<AndroidProxy>(clients[i].get(), "Counted");
    }
    std::promise<void> release;
    std::atomic<bool> blocked{false}, handlerDone{false};
    std::atomic<int> deaths{0};
    proxies[0]->bind("death", [&] { ++deaths; });
    proxies[0]->bind("getBuffer", [&, released = release.get_future().share()](int) {
        blocked = true;
        released.wait();
        handlerDone = true;
        return AndroidBuffer();
    });
    auto stuck = std::async(std::launch::async,
                            [&] { return errorOf([&] { proxies[0]->call("pull", 1); }); });
    ASSERT_TRUE(waitUntil([&] { return blocked.load(); }));
    EXPECT_TRUE(eachGetsItsOwnReply(kClients, [&](int i) {
        return proxies[static_cast<size_t>(i)]->call("echoInt", i).as<int>();
    }));
    // The pool, the blocked one's waiter, this thread, the pull's, accept's, one leaving.
    EXPECT_LE(threadCount(), threadsBefore + kPoolBound + 4);
    auto stop = [&] {
        clients[0]->stop();
        return handlerDone.load();
    };
    auto first = std::async(std::launch::async, stop);
    auto second = std::async(std::launch::async, stop);
    second.wait_for(std::chrono::milliseconds(200));  // a stop that does not wait returns now
    release.set_value();
    EXPECT_TRUE(first.get() && second.get()) << "a stop returned while its handler still ran";
    EXPECT_THAT(stuck.get(), StartsWith("error: "));
    EXPECT_THAT(errorOf([&] { proxies[0]->call("echoInt", 1); }), StartsWith("error: "));
    EXPECT_EQ(deaths, 0);

    std::atomic<int> inside{0};
    for (int i = 1; i <= 2 * kPoolBound; ++i) {
        proxies[i]->bind("getBuffer", [&, &proxy = *proxies[i]](int bytes) {
            ++inside;
            waitUntil([&] { return inside >= kPoolBound; });
            return patternBuffer(static_cast<size_t>(proxy.call("echoInt", bytes).as<int>()));
        });
    }
    EXPECT_TRUE(eachGetsItsOwnReply(2 * kPoolBound, [&](int i) {
        return static_cast<int>(proxies[i + 1]->call("pull", i).as<AndroidBuffer>().size());
    }));
    // The threads grown for the nested waits leave once idle: the pool and the accept thread.
    EXPECT_TRUE(waitUntil([&] { return threadCount() <= threadsBefore + kPoolBound + 1; }))
        << threadCount() - threadsBefore << " threads more";

    auto leaving = std::async(std::launch::async, [&] {
        for (size_t i = 0; i < kClients; i += 2) proxies[i].reset(), clients[i].reset();
    });
    for (size_t i = 1; i < 4 * kClients; i += 2) {
        EXPECT_EQ(proxies[i % kClients]->call("echoInt", 3).as<int>(), 3);
    }
    leaving.get();
    EXPECT_TRUE(waitUntil([&] { return server.alive() == kClients / 2; }));
}

// The first `recordBytes` of `header`, then zeros, with `fds` sealed memfds of `memfdBytes`.
struct BadFrame {
    const char* name;
    FrameHeader header;  // magic, kind, flags, txn, size, fdCount, reserved
    size_t recordBytes;
    size_t fds;
    size_t memfdBytes = 16;
};

void PrintTo(const BadFrame& frame, std::ostream* out) { *out << frame.name; }

constexpr uint32_t kMagic = transport::kFrameMagic;
constexpr uint16_t kCall = static_cast<uint16_t>(FrameKind::Call);
constexpr uint32_t kTooMany = static_cast<uint32_t>(transport::kMaxFds + 1);

const BadFrame kBadFrames[] = {
    {"ShorterThanAHeader", {kMagic, kCall, 0, 1, 0, 0, 0}, 11, 0},
    {"WrongMagic", {0x21444142, kCall, 0, 1, 0, 0, 0}, 24, 0},
    {"SizeAboveTheMessageLimit", {kMagic, kCall, 0, 1, kMaxMessageSize + 1, 0, 0}, 24, 0},
    {"PayloadShorterThanItsHeaderSays", {kMagic, kCall, 0, 1, 100, 0, 0}, 34, 0},
    {"UnknownKind", {kMagic, 99, 0, 1, 0, 0, 0}, 24, 0},
    {"AnswerWhereARequestBelongs", {kMagic, uint16_t(FrameKind::HelloAck), 0, 1, 0, 0, 0}, 24, 0},
    {"TooManyDescriptors", {kMagic, kCall, 0, 1, 0, kTooMany, 0}, 24, kTooMany},
    {"OutOfLinePayloadTooShort", {kMagic, kCall, transport::kOutOfLine, 1, 4096, 1, 0}, 24, 1},
    {"EmptyRecordWithDescriptors", {kMagic, kCall, 0, 1, 0, 64, 0}, 0, 64},
    {"BlobAndPayloadAboveTheLimit", {kMagic, kCall, 0, 1, 100, 1, 0}, 124, 1, kMaxMessageSize},
};

// Sends `frame` past every check the transport would make.
void sendBadFrame(int socket, const BadFrame& frame) {
    std::vector<uint8_t> bytes(std::max(frame.recordBytes, sizeof(FrameHeader)));
    std::memcpy(bytes.data(), &frame.header, sizeof(FrameHeader));
    iovec iov{bytes.data(), frame.recordBytes};
    // The same memfd as often as asked: each copy arrives as a descriptor of its own.
    const UniqueFd memfd(::memfd_create("bad-frame", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(::ftruncate(memfd.get(), static_cast<off_t>(frame.memfdBytes)), 0);
    ASSERT_EQ(::fcntl(memfd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW), 0);
    const std::vector<int> fds(frame.fds, memfd.get());
    std::vector<uint8_t> control(CMSG_SPACE(sizeof(int) * frame.fds));
    msghdr message{nullptr, 0, &iov, 1, control.data(), frame.fds > 0 ? control.size() : 0, 0};
    if (frame.fds > 0) {
        *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof(int) * frame.fds), SOL_SOCKET, SCM_RIGHTS};
        std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), fds.data(), sizeof(int) * frame.fds);
    }
    ASSERT_EQ(::sendmsg(socket, &message, MSG_NOSIGNAL), static_cast<ssize_t>(frame.recordBytes))
        << std::strerror(errno);
}

bool attach(int socket, const std::string& path, bool listening) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const auto* raw = reinterpret_cast<const sockaddr*>(&address);
    return listening ? ::bind(socket, raw, sizeof address) == 0 && ::listen(socket, 1) == 0
                     : ::connect(socket, raw, sizeof address) == 0;
}

UniqueFd socketAt(const std::string& path, bool listening) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    EXPECT_TRUE(attach(socket.get(), path, listening)) << path << ": " << std::strerror(errno);
    return socket;
}

bool readable(int socket) {
    pollfd poller{socket, POLLIN, 0};
    return ::poll(&poller, 1, static_cast<int>(kTimeout.count())) == 1;
}

bool received(int socket, transport::Frame& frame, std::string error = {}) {
    return readable(socket) &&
           transport::recvFrame(socket, frame, error) == transport::RecvStatus::Ok;
}

// Reads until the other end closes `socket`; false when it is still open after kTimeout.
bool closedByPeer(int socket) {
    for (;;) {
        if (!readable(socket)) return false;
        char bytes[256];
        const ssize_t got = ::recv(socket, bytes, sizeof bytes, MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) return true;
    }
}

// Greets the server as a client would; the client's end of the event channel.
UniqueFd greet(int socket) {
    int events[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, events), 0);
    UniqueFd ours(events[0]);
    const UniqueFd theirs(events[1]);
    transport::Frame answer;
    transport::sendFrame(socket, FrameKind::Hello, 1, nullptr, 0, {theirs.get()});
    EXPECT_TRUE(received(socket, answer) && answer.kind == FrameKind::HelloAck) << "not greeted";
    return ours;
}

// A greeted client that writes its frames itself.
struct RawClient {
    explicit RawClient(const std::string& path)
        : socket(socketAt(path, false)), events(greet(socket.get())) {}
    // The id of a new object of `type`.
    std::string create(const std::string& type) {
        transport::Frame created;
        transport::sendFrame(socket.get(), FrameKind::Create, 2, type.data(), type.size(), {});
        EXPECT_TRUE(received(socket.get(), created));
        return std::string(created.payload.begin(), created.payload.end());
    }
    template <typename... Args>
    void call(uint32_t txn, const std::string& objectId, const std::string& method,
              const Args&... args) {
        AndroidParcel call;
        call.write(objectId);
        call.write(method);
        (call.write(args), ...);
        transport::sendFrame(socket.get(), FrameKind::Call, txn, call->data(), call->dataSize(),
                             {});
    }
    const UniqueFd socket;
    UniqueFd events;
};

class MalformedFrameTest : public TransportTest, public ::testing::WithParamInterface<BadFrame> {};

TEST_P(MalformedFrameTest, ServerDropsOnlyThatConnectionLogsItAndKeepsServing) {
    for (bool afterGreeting : {false, true}) {
        SCOPED_TRACE(afterGreeting ? "after the greeting" : "instead of the greeting");
        const size_t fdsBefore = openFds().size();
        {
            CountedServer server(kService);
            AndroidClient bystander(kService);
            AndroidProxy watcher(&bystander, "Counted");
            {
                const UniqueFd raw = socketAt(servicePath(), false);
                const UniqueFd events = afterGreeting ? greet(raw.get()) : UniqueFd();
                sendBadFrame(raw.get(), GetParam());
                EXPECT_TRUE(closedByPeer(raw.get())) << "the server kept the connection open";
                EXPECT_TRUE(waitUntil([] { return loggedWith("disconnecting") > 0; }));
            }
            EXPECT_EQ(watcher.call("echoInt", 4).as<int>(), 4);
            EXPECT_TRUE(serves());
        }
        // The frame's descriptors are closed, whichever way it was rejected.
        EXPECT_TRUE(waitUntil([&] { return openFds().size() == fdsBefore; }));
        logged.clear();
    }
}

// Greets one client, answers its first `creates` creations (Fake#1...) once all came; its channels.
std::pair<UniqueFd, UniqueFd> serveCreating(int listener, int creates = 1) {
    std::pair<UniqueFd, UniqueFd> channels;
    transport::Frame hello;
    std::vector<transport::Frame> made(static_cast<size_t>(creates));
    if (!readable(listener)) return channels;
    channels.first.reset(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!received(channels.first.get(), hello) || hello.fds.size() != 1) return channels;
    channels.second = std::move(hello.fds[0]);
    transport::sendFrame(channels.first.get(), FrameKind::HelloAck, hello.txn, nullptr, 0, {});
    for (auto& create : made) {
        if (!received(channels.first.get(), create)) return channels;
    }
    for (int i = 0; i < creates; ++i) {
        const std::string id = "Fake#" + std::to_string(i + 1);
        transport::sendFrame(channels.first.get(), FrameKind::Reply, made[i].txn, id.data(),
                             id.size(), {});
    }
    return channels;
}

TEST_P(MalformedFrameTest, ClientDisconnectsLogsItAndReportsDeathOnce) {
    const UniqueFd listener = socketAt(servicePath(), true);
    auto fake = std::async(std::launch::async, [&] { return serveCreating(listener.get()); });
    std::atomic<int> deaths{0};
    {
        AndroidClient client(kService);
        AndroidProxy proxy(&client, "Fake");
        proxy.bind("death", [&] { ++deaths; });
        const auto [requests, events] = fake.get();
        sendBadFrame(events.get(), GetParam());
        // Without a disconnect the call below would wait for a fake that never answers.
        ASSERT_TRUE(waitUntil([&] { return deaths > 0; })) << "no death reported";
        EXPECT_TRUE(waitUntil([] { return loggedWith("disconnecting") > 0; }));
        EXPECT_THROW(proxy.call("echoInt", 1), dead_object);
    }
    EXPECT_EQ(deaths, 1);
}

INSTANTIATE_TEST_SUITE_P(Frames, MalformedFrameTest, ::testing::ValuesIn(kBadFrames),
                         ::testing::PrintToStringParamName());

TEST_F(TransportTest, ProxyMadeWhileTheDeathIsDeliveredIsToldOfItToo) {
    CountedServer server(kService);
    AndroidClient client(kService);
    AndroidProxy witness(&client, "Counted");
    std::atomic<int> witnessed{0}, deaths{0};
    witness.bind("death", [&] { ++witnessed; });
    transport::beforeProxyRouted = [&] {
        server.stop();
        waitUntil([&] { return witnessed == 1; });
    };
    AndroidProxy late(&client, "Counted");
    transport::beforeProxyRouted = nullptr;
    ASSERT_EQ(witnessed, 1) << "the death came only after the proxy was reachable";
    late.bind("death", [&] { ++deaths; });
    EXPECT_TRUE(waitUntil([&] { return deaths == 1; }));
    late.bind("death", [&] { ++deaths; });  // binding again is no call for another
    client.stop();
    EXPECT_EQ(deaths, 1);
    EXPECT_EQ(witnessed, 1);
}

// Not when some other client disconnects later. The raw client's event channel goes while its
// object waits there for an event's answer on a thread that the object's destructor joins.
TEST_F(TransportTest, DroppedProxiesAndGoneClientsReleaseTheirObjectsAndDescriptorsAtOnce) {
    CountedServer server(kService);
    auto local = std::make_unique<AndroidClient>(kService);
    AndroidProxy survivor(local.get(), "Counted");
    { AndroidProxy dropped(local.get(), "Counted"); }
    // The transport thread that created the object may still hold it for a moment.
    EXPECT_TRUE(waitUntil([&] { return server.alive() == 1; }));
    const size_t fdsBefore = openFds().size();
    {
        RawClient raw(servicePath());
        raw.call(3, raw.create("Counted"), std::string("startTicking"));
        transport::Frame started, tick;
        ASSERT_TRUE(received(raw.socket.get(), started) && received(raw.events.get(), tick));
        raw.events.reset();
        EXPECT_TRUE(waitUntil([&] { return server.alive() == 1; })) << server.alive() << " alive";
    }
    EXPECT_TRUE(waitUntil([&] { return openFds().size() == fdsBefore; }))
        << openFds().size() - fdsBefore << " descriptors of the gone connection still open";
    EXPECT_EQ(survivor.call("echoInt", 9).as<int>(), 9);
    // The remaining proxy outlives its client, and must still be destroyed safely later.
    local.reset();
    EXPECT_TRUE(waitUntil([&] { return server.alive() == 0; }));
    // A release that the client asked for runs on its behalf; the transport's, on nobody's.
    EXPECT_THAT(notes(releasedFor), ElementsAre(std::to_string(::getpid()), "nobody", "nobody"));
}

// How a peer process is named in the server's log lines.
std::string described(pid_t pid, uid_t uid = ::getuid()) {
    return "pid " + std::to_string(pid) + " (uid " + std::to_string(uid) + ")";
}

// More than the 64 that once were the whole server's share; the silent go at the deadline.
TEST_F(TransportTest, IdleAndSilentConnectionsOfOneProcessLockOutNoOtherProcess) {
    ServerLimits limits;
    limits.greetingDeadline = std::chrono::milliseconds(300);
    CountedServer server(kService, limits);
    std::vector<std::string> said;
    Process& crowd = startPeer({"clients", kService, "Counted", "70", "70"}, &said);
    EXPECT_THAT(said, ElementsAre("connected 70"));
    EXPECT_TRUE(serves());
    const std::string line = "parlex: " + described(crowd.pid()) +
                             " has 8 connections waiting for their greeting, the most one process "
                             "may have (maxPendingGreetingsPerProcess); refusing more";
    EXPECT_TRUE(waitUntil([&] { return loggedWith("no greeting") == 8; }));
    EXPECT_TRUE(loggedOnce(line));
    EXPECT_TRUE(serves());
}

TEST_F(TransportTest, CapsRefuseWithTheirReasonAndOneLineWhileOtherProcessesStillConnect) {
    ServerLimits limits;
    limits.maxConnections = 5;
    limits.maxConnectionsPerProcess = 3;
    limits.maxPendingGreetings = 3;
    limits.maxPendingGreetingsPerProcess = 2;
    limits.maxObjectsPerConnection = 2;
    CountedServer server(kService, limits);

    std::vector<std::string> said;
    Process& greedy = startPeer({"clients", kService, "Counted", "5", "0"}, &said);
    EXPECT_THAT(said, ElementsAre("connected 3",
                                  "refused " + refusedBy() +
                                      "this process has the most connections one process may "
                                      "have (maxConnectionsPerProcess 3)"));
    EXPECT_TRUE(loggedOnce("parlex: " + described(greedy.pid()) +
                           " has 3 connections, the most one process may have "
                           "(maxConnectionsPerProcess); refusing more"));

    {
        AndroidClient client(kService);
        auto first = std::make_unique<AndroidProxy>(&client, "Counted");
        AndroidProxy second(&client, "Counted");
        EXPECT_EQ(errorOf([&] { AndroidProxy third(&client, "Counted"); }),
                  "error: parlex: this connection holds 2 objects, the most one connection may "
                  "create (maxObjectsPerConnection)");
        first.reset();
        AndroidProxy third(&client, "Counted");
        EXPECT_EQ(third.call("echoInt", 3).as<int>(), 3);
        EXPECT_TRUE(loggedOnce("a connection of " + described(::getpid()) +
                               " holds 2 objects, the most one connection may create "
                               "(maxObjectsPerConnection); refusing more"));
        client.stop();  // so that its objects go with the connection, not before it
    }
    // The server counts a connection gone before it releases the connection's objects.
    const auto onlyGreedyLeft = [&] { return server.alive() == 3; };
    EXPECT_TRUE(waitUntil(onlyGreedyLeft));

    {
        AndroidClient fourth(kService);
        AndroidClient fifth(kService);
        const AndroidProxy held(&fourth, "Counted");
        const AndroidProxy alsoHeld(&fifth, "Counted");
        said.clear();
        Process& late = startPeer({"clients", kService, "Counted", "1", "0"}, &said);
        EXPECT_THAT(said, ElementsAre("connected 0", "refused " + refusedBy() +
                                                         "the service serves the most clients "
                                                         "it may (maxConnections 5)"));
        EXPECT_TRUE(
            loggedOnce("parlex: 5 clients connected, the most a server serves "
                       "(maxConnections); refusing more, first from " +
                       described(late.pid())));
    }
    EXPECT_TRUE(waitUntil(onlyGreedyLeft));

    // This process's two silent connections; another's client gets in, its two fill the share.
    std::vector<UniqueFd> silent;
    for (int i = 0; i < 2; ++i) silent.push_back(socketAt(servicePath(), false));
    EXPECT_EQ(errorOf([] { AndroidClient refused(kService); }),
              refusedBy() +
                  "too many connections of this process wait for their greeting "
                  "(maxPendingGreetingsPerProcess 2)");
    EXPECT_TRUE(
        loggedOnce("parlex: " + described(::getpid()) +
                   " has 2 connections waiting for their greeting, the most one process may "
                   "have (maxPendingGreetingsPerProcess); refusing more"));
    said.clear();
    Process& other = startPeer({"clients", kService, "Counted", "1", "2"}, &said);
    EXPECT_THAT(said, ElementsAre("connected 1"));
    EXPECT_TRUE(waitUntil([&] {
        return loggedWith(
                   "parlex: 3 connections wait for their greeting, the most a server lets "
                   "wait (maxPendingGreetings); refusing more, first from " +
                   described(other.pid())) == 1;
    }));
}

// Without an allow-list only the server's own user (and root); the socket's mode comes first.
TEST_F(TransportTest, OnlyAllowedUsersGetInAndOthersLearnWhy) {
    if (::geteuid() != 0) GTEST_SKIP() << "running a peer as another user needs root";
    constexpr uid_t kNobody = 65534;
    ASSERT_EQ(::chmod(runtimeDir_.path().c_str(), 0711), 0);
    auto attempt = [&](const ServerLimits& limits) {
        CountedServer server(kService, limits);
        std::vector<std::string> said;
        Process& peer =
            startPeer({"clients", kService, "Counted", "1", "0"}, &said, std::optional(kNobody));
        EXPECT_EQ(peer.finish(), 0);
        return said;
    };
    EXPECT_THAT(attempt({}), ElementsAre("connected 0",
                                         "refused error: parlex: permission denied on the "
                                         "socket of service 'parlex-test' at " +
                                             servicePath()));
    ::setenv("PARLEX_SOCKET_MODE", "666", 1);
    EXPECT_THAT(attempt({}), ElementsAre("connected 0", "refused " + refusedBy() +
                                                            "uid 65534 may not use this service "
                                                            "(allowedUids)"));
    EXPECT_TRUE(loggedOnce("parlex: uid 65534 (pid "));
    EXPECT_TRUE(loggedOnce("may not use this service (allowedUids); refusing its connections"));
    ServerLimits allowed;
    allowed.allowedUids = {kNobody};
    EXPECT_THAT(attempt(allowed), ElementsAre("connected 1"));
}

// The peer runs as another user, whom the limit of threads binds.
TEST_F(TransportTest, ServerOutOfThreadsServesANewClientOnItsPool) {
    if (::geteuid() != 0) GTEST_SKIP() << "running a peer as another user needs root";
    ASSERT_EQ(::chmod(runtimeDir_.path().c_str(), 0777), 0);
    startPeer({"server", kService}, nullptr, std::optional<uid_t>(65534));
    AndroidClient client(kService);
    AndroidProxy echo(&client, "Echo");
    ASSERT_EQ(echo.call("limit", std::string("threads"), true).as<int>(), 0);
    const bool served = serves("Echo") && serves("Echo");
    ASSERT_EQ(echo.call("limit", std::string("threads"), false).as<int>(), 0);
    EXPECT_TRUE(served);
}

// A stopped service's backlog fills; a greeting one that answers neither a creation (but late)
// nor a release fails the first and lets the proxy go.
TEST_F(TransportTest, ServiceThatDoesNotAnswerFailsTheClientAtTheConnectDeadlineLeavingNothing) {
    ::setenv("PARLEX_CONNECT_DEADLINE_MS", "200", 1);
    const auto started = std::chrono::steady_clock::now();
    const std::string noAnswer = "error: parlex: service '" + std::string(kService) + "' at " +
                                 servicePath() + " did not answer within 200 ms";
    {
        const UniqueFd stopped = socketAt(servicePath(), true);
        const size_t threadsBefore = threadCount();
        const std::vector<int> fdsBefore = openFds();
        // A backlog of one takes two connections; the third finds it full.
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(errorOf([] { AndroidClient client(kService); }), noAnswer) << i;
        }
        EXPECT_EQ(threadCount(), threadsBefore);
        EXPECT_EQ(openFds(), fdsBefore);
    }

    const UniqueFd listener = socketAt(servicePath() + "2", true);
    std::promise<void> clientDone;
    auto fake = std::async(std::launch::async, [&] {
        const auto channels = serveCreating(listener.get(), 2);
        transport::Frame release;
        const bool released = received(channels.first.get(), release);
        clientDone.get_future().wait();
        return released && release.kind == FrameKind::Release;
    });
    {
        AndroidClient client(std::string(kService) + "2");
        EXPECT_THAT(errorOf([&] { AndroidProxy proxy(&client, "Fake"); }),
                    HasSubstr("did not answer within 200 ms"));
        AndroidProxy proxy(&client, "Fake");
        EXPECT_EQ(proxy.objectId(), "Fake#2");
    }
    clientDone.set_value();
    EXPECT_TRUE(fake.get()) << "the fake service did not see the client's frames";
    EXPECT_LT(std::chrono::steady_clock::now() - started, kConnectDeadline)
        << "the deadline from the environment was not used";
}

// It never answers a callback, or leaves its answers or its events unread.
TEST_F(TransportTest, ClientThatDoesNotAnswerOrReadIsDisconnectedAtTheCallDeadline) {
    ServerLimits limits;
    limits.callDeadline = std::chrono::milliseconds(200);
    CountedServer server(kService, limits);
    AndroidClient bystander(kService);
    AndroidProxy watcher(&bystander, "Counted");
    const auto line = [](pid_t pid) {
        return "parlex: client " + described(pid) +
               " did not answer or take its messages within 200 ms; disconnecting";
    };
    Process& stuck = startPeer({"stuck", kService, "Counted"});
    EXPECT_EQ(stuck.readLine(), "hanging");
    EXPECT_EQ(watcher.call("echoInt", 4).as<int>(), 4);
    EXPECT_EQ(stuck.readLine(), "dead_object");
    EXPECT_TRUE(waitUntil([&] { return server.alive() == 1; })) << server.alive() << " alive";
    EXPECT_TRUE(loggedOnce(line(stuck.pid())));
    for (const char* unread : {"answers", "events"}) {
        SCOPED_TRACE(unread);
        const size_t linesBefore = loggedWith(line(::getpid()));
        RawClient raw(servicePath());
        const std::string id = raw.create("Counted");
        ASSERT_EQ(server.alive(), 2);
        for (uint32_t txn = 3; txn < 11 && *unread == 'a'; ++txn) {
            raw.call(txn, id, std::string("echoString"), std::string(60000, 'a'));
        }
        if (*unread == 'e') raw.call(3, id, std::string("flood"));
        EXPECT_TRUE(waitUntil([&] { return server.alive() == 1; })) << server.alive() << " alive";
        EXPECT_EQ(loggedWith(line(::getpid())), linesBefore + 1);
        EXPECT_EQ(watcher.call("echoInt", 4).as<int>(), 4);
    }
    EXPECT_THAT(notes(calloutFailures), ElementsAre("dead_object", "dead_object"));
}

// The peer at its descriptor limit, and this process unable to fill a large call's memfd.
TEST_F(EchoTest, LocalShortagesFailOnlyTheCallsTheyHitAndTheServerSaysSoOnce) {
    const UniqueFd waiting(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    auto outOfDescriptors = [&] {
        return echo_.call("logged", std::string("out of descriptors")).as<int>();
    };
    echo_.call("limit", std::string("descriptors"), true);
    auto outcome = std::async(std::launch::async, [&] {
        return std::make_pair(
            errorOf([&] { echo_.call("echoString", std::string(kMaxMessageSize / 2, 'i')); }),
            errorOf([&] { echo_.call("bigReply", static_cast<int>(kMaxMessageSize / 2)); }));
    });
    if (!settles(outcome)) server_.kill();  // a call left without answer would wait for good
    const auto [request, reply] = outcome.get();
    EXPECT_THAT(request, StartsWith("error: "));
    EXPECT_THAT(reply, StartsWith("error: "));
    EXPECT_TRUE(attach(waiting.get(), servicePath(), false));
    EXPECT_TRUE(waitUntil([&] { return outOfDescriptors() > 0; }));
    // A server that retries at once would have logged several more lines by now.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    echo_.call("limit", std::string("descriptors"), false);
    EXPECT_EQ(outOfDescriptors(), 1);
    greet(waiting.get());

    // This process may write no byte to a file meanwhile, a payload's memfd included.
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    const rlimit none{0, saved.rlim_max};
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &none);
    const std::string largeCall =
        errorOf([&] { echo_.call("echoInt", std::string(kMaxMessageSize / 2, 'l')); });
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previous);
    EXPECT_THAT(largeCall, StartsWith("error: "));
    EXPECT_EQ(echo_.call("echoInt", 2).as<int>(), 2);
}

// A process's greeting and object creation count among its requests too, so every connection
// is set up before the process holds its share.
TEST_F(TransportTest, OneProcessHoldsAtMostItsShareOfThePoolWhileOtherProcessesAreServed) {
    ServerLimits limits;
    limits.maxBusyRequestsPerProcess = 2;
    CountedServer server(kService, limits);
    std::vector<std::unique_ptr<AndroidClient>> clients;
    std::vector<std::unique_ptr<AndroidProxy>> proxies;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<AndroidClient>(kService));
        proxies.push_back(std::make_unique<AndroidProxy>(clients.back().get(), "Counted"));
    }
    std::promise<void> open;
    holdGate = open.get_future().share();
    holding = 0;
    std::vector<std::future<int>> held;
    const std::shared_ptr<void> opened(nullptr, [&](void*) {  // before `held` waits, on failure
        if (holdGate.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            open.set_value();
        }
    });
    for (auto& proxy : proxies) {
        held.push_back(
            std::async(std::launch::async, [&proxy] { return proxy->call("hold").as<int>(); }));
    }
    ASSERT_TRUE(waitUntil([] { return holding >= 2; }));
    std::vector<std::string> said;
    startPeer({"clients", kService, "Counted", "1", "0"}, &said);
    EXPECT_THAT(said, ElementsAre("connected 1"));
    EXPECT_EQ(holding, 2) << "more requests of one process ran at once than its cap";
    open.set_value();
    for (auto& call : held) EXPECT_TRUE(settles(call) && call.get() == 0);
    EXPECT_EQ(holding, 3);
}

// A server stopping first tells each proxy once; a client going first is no death.
TEST_F(TransportTest, TransportThreadsAndDescriptorsNeitherOutliveTeardownNorLeakIntoChildren) {
    for (bool serverFirst : {true, false}) {
        SCOPED_TRACE(serverFirst ? "server first" : "client first");
        const size_t threadsBefore = threadCount();
        const std::vector<int> fdsBefore = openFds();
        std::atomic<int> deaths{0};
        {
            CountedServer server(kService);
            AndroidClient client(kService);
            AndroidProxy first(&client, "Counted");
            AndroidProxy second(&client, "Counted");
            for (AndroidProxy* proxy : {&first, &second}) {
                proxy->bind("getBuffer", [](int bytes) { return patternBuffer(bytes); });
                // A listener told of the death may still try the server: that fails, not hangs.
                proxy->bind("death", [&deaths, proxy] {
                    ++deaths;
                    EXPECT_THROW(proxy->call("echoInt", 1), dead_object);
                });
            }
            const std::string outOfLine(transport::kInlineLimit + 1, 'o');
            auto everyKind = [&](AndroidProxy* proxy) {
                EXPECT_EQ(proxy->call("echoInt", 1).as<int>(), 1);
                EXPECT_EQ(proxy->call("echoString", outOfLine).as<std::string>(), outOfLine);
                EXPECT_EQ(bytesOf(proxy->call("pull", 100000).as<AndroidBuffer>()),
                          bytesOf(patternBuffer(100000)));
            };
            // Concurrent callbacks with shared-memory blobs grow the pool.
            std::vector<std::future<void>> calls;
            for (int i = 0; i < 6; ++i) {
                calls.push_back(
                    std::async(std::launch::async, everyKind, i % 2 ? &first : &second));
            }
            for (auto& call : calls) ASSERT_TRUE(settles(call));
            const size_t fdsBetween = openFds().size();
            for (int i = 0; i < 5; ++i) everyKind(&first);
            // A sender's memfd may outlive its message's answer for a moment.
            EXPECT_TRUE(waitUntil([&] { return openFds().size() <= fdsBetween; }));
            // The pool may have grown up to its bound, and no further.
            EXPECT_TRUE(waitUntil([&] { return threadCount() <= threadsBefore + kPoolBound + 1; }))
                << threadCount() - threadsBefore << " threads more";
            for (int fd : openFds()) {
                const int flags = ::fcntl(fd, F_GETFD);  // fails for the listing's own, closed
                EXPECT_TRUE(flags < 0 || (flags & FD_CLOEXEC) ||
                            std::count(fdsBefore.begin(), fdsBefore.end(), fd) > 0)
                    << "descriptor " << fd << " is inherited by children";
            }
            if (serverFirst) {
                server.stop();
                EXPECT_EQ(server.alive(), 0);
                EXPECT_TRUE(waitUntil([&] { return deaths == 2; }));
                EXPECT_THROW(first.call("echoInt", 2), dead_object);
                EXPECT_THROW(AndroidProxy third(&client, "Counted"), dead_object);
            }
        }
        EXPECT_EQ(deaths, serverFirst ? 2 : 0);
        EXPECT_TRUE(waitUntil([&] { return threadCount() <= threadsBefore; }));
        EXPECT_TRUE(waitUntil([&] { return openFds() == fdsBefore; }));
    }
}

}  // namespace
}  // namespace parlex::test
