// The host transport between real processes. The test process plays one side and a parlex_peer
// process (tests/peer) the other, over the real sockets; raw sockets play a peer that breaks the
// framing. Every test gets its own runtime directory, so no two tests share a socket, and a
// watchdog aborts a test that hangs, naming it, instead of stalling the run.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <parlex/binder.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cfloat>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "../platform/parlex/Frame.h"
#include "common/RecordCodec.h"
#include "support/Process.h"
#include "support/RecordingLogSink.h"

namespace parlex::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using transport::FrameHeader;
using transport::FrameKind;
using transport::UniqueFd;

constexpr const char* kService = "parlex-test";

// ---- Helpers ----

// Aborts the test binary when a test outlives its budget: a hang then fails promptly, naming the
// test, rather than waiting for the outer time-out of the run.
class Watchdog {
public:
    Watchdog() : thread_([this] { run(); }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        finished_.notify_all();
        thread_.join();
    }

private:
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (finished_.wait_for(lock, std::chrono::seconds(60), [this] { return done_; })) return;
        const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
        std::fprintf(stderr, "%s.%s still runs after 60 s: aborting\n", test->test_suite_name(),
                     test->name());
        std::abort();
    }

    std::mutex mutex_;  // guards: done_
    std::condition_variable finished_;
    bool done_ = false;
    std::thread thread_;
};

// Every line the transport logs. Installed once and never removed: transport threads may log
// until the test that started them has torn them down.
orv::test::RecordingLogSink& transportLog() {
    static auto* sink = [] {
        auto* recorder = new orv::test::RecordingLogSink;
        setLogHandler([recorder](const std::string& line) {
            std::fprintf(stderr, "[transport] %s\n", line.c_str());
            recorder->logMessage(orv::LOG_ERROR, "parlex", line.c_str());
        });
        return recorder;
    }();
    return *sink;
}

std::vector<uint8_t> pattern(size_t size) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 131 + (i >> 8));
    return bytes;
}

// The bytes of `buffer` equal pattern(size)?
::testing::AssertionResult holdsPattern(const AndroidBuffer& buffer, size_t size) {
    if (buffer.size() != size) {
        return ::testing::AssertionFailure() << buffer.size() << " bytes instead of " << size;
    }
    const std::vector<uint8_t> expected = pattern(size);
    if (size > 0 && std::memcmp(buffer.data(), expected.data(), size) != 0) {
        return ::testing::AssertionFailure() << "the bytes differ";
    }
    return ::testing::AssertionSuccess();
}

AndroidBuffer patternBuffer(size_t size) {
    const std::vector<uint8_t> bytes = pattern(size);
    return AndroidBuffer(static_cast<unsigned int>(size), bytes.data(), true);
}

template <typename T>
bool settles(std::future<T>& outcome) {
    return outcome.wait_for(kTimeout) == std::future_status::ready;
}

std::string describeStatus(const std::optional<int>& status) {
    if (!status) return "still running";
    if (WIFEXITED(*status)) return "exit status " + std::to_string(WEXITSTATUS(*status));
    if (WIFSIGNALED(*status)) return "killed by signal " + std::to_string(WTERMSIG(*status));
    return "wait status " + std::to_string(*status);
}

// Runs `send` and expects the error reply that a handler failure becomes: a std::runtime_error
// carrying `text`, and not a dead peer.
void expectErrorReply(const std::function<void()>& send, const std::string& text) {
    try {
        send();
        ADD_FAILURE() << "no error came back";
    } catch (const dead_object&) {
        ADD_FAILURE() << "reported as a dead peer";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr(text));
    }
}

// An object that the test process serves. It counts its live instances so that tests can watch
// the transport release them, and calls back to its client on request.
class Counted : public AndroidImpl {
public:
    explicit Counted(std::atomic<int>& alive) : alive_(alive) {
        ++alive_;
        bind("echoInt", [](int value) { return value; });
        bind("echoBuffer", [](AndroidBuffer value) { return value; });
        bind("pull",
             [this](int bytes) { return callback("getBuffer", bytes).as<AndroidBuffer>(); });
    }
    ~Counted() { --alive_; }

private:
    std::atomic<int>& alive_;
};

// A server in the test process publishing the type "Counted".
class CountedServer {
public:
    explicit CountedServer(const std::string& service) {
        server_.registerFactory("Counted", [this] {
            auto object = std::make_shared<Counted>(alive_);
            std::lock_guard<std::mutex> lock(mutex_);
            made_.push_back(object);
            return object;
        });
        server_.start(service);
    }

    int alive() const { return alive_; }
    // The `index`th object made, while the transport still holds it.
    std::shared_ptr<Counted> made(size_t index) {
        std::lock_guard<std::mutex> lock(mutex_);
        return index < made_.size() ? made_[index].lock() : nullptr;
    }
    void stop() { server_.stop(); }

private:
    std::atomic<int> alive_{0};
    std::mutex mutex_;  // guards: made_
    std::vector<std::weak_ptr<Counted>> made_;
    AndroidServer server_;  // last, so that it goes first, while the counter still exists
};

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("PARLEX_RUNTIME_DIR", runtimeDir_.path().c_str(), 1);
        ::unsetenv("PARLEX_SOCKET_MODE");
        transportLog().clear();
    }

    // A peer that is still running must shut down cleanly when asked: anything else means it
    // crashed, leaked (under the sanitizers) or kept objects alive after its server stopped.
    void TearDown() override {
        for (auto& peer : peers_) {
            if (peer->reaped() || peer->signalled()) continue;
            peer->closeStdin();
            const std::optional<int> status = peer->wait();
            EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
                << "peer " << peer->pid() << ": " << describeStatus(status);
        }
        peers_.clear();
    }

    // Starts parlex_peer with `args` and waits for its "ready".
    Process& startPeer(const std::vector<std::string>& args) {
        std::vector<std::string> argv{peerPath()};
        argv.insert(argv.end(), args.begin(), args.end());
        peers_.push_back(std::make_unique<Process>(argv));
        if (!peers_.back()->waitForLine("ready")) {
            throw std::runtime_error("parlex_peer " + args.at(0) + " did not get ready");
        }
        return *peers_.back();
    }

    std::string socketPathFor(const std::string& service) const {
        return runtimeDir_.path() + "/" + service;
    }

    TempDir runtimeDir_;
    std::vector<std::unique_ptr<Process>> peers_;
    Watchdog watchdog_;
};

// The test process as the client of a peer server, holding one "Echo" proxy.
class EchoTest : public TransportTest {
protected:
    void SetUp() override {
        TransportTest::SetUp();
        startPeer({"server", kService});
        client_ = std::make_unique<AndroidClient>(kService);
        echo_ = std::make_unique<AndroidProxy>(client_.get(), "Echo");
    }
    void TearDown() override {
        echo_.reset();
        client_.reset();
        TransportTest::TearDown();
    }

    AndroidClient& client() { return *client_; }
    AndroidProxy& echo() { return *echo_; }

private:
    std::unique_ptr<AndroidClient> client_;
    std::unique_ptr<AndroidProxy> echo_;
};

// ---- Finding the service and creating objects ----

TEST_F(TransportTest, ClientOfAServiceNobodyRunsThrowsNamingTheService) {
    try {
        AndroidClient client("nobody-home");
        ADD_FAILURE() << "connected to a service that nobody runs";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("nobody-home"));
    }
}

TEST_F(TransportTest, SecondServerUnderALiveNameIsRefusedAndTheFirstKeepsServing) {
    startPeer({"server", kService});
    AndroidServer second;
    EXPECT_THROW(second.start(kService), std::runtime_error);

    AndroidClient client(kService);
    AndroidProxy echo(&client, "Echo");
    EXPECT_EQ(echo.call("echoInt", 5).as<int>(), 5);
}

TEST_F(TransportTest, SocketLeftByAKilledServerIsTakenOver) {
    Process& crashed = startPeer({"server", kService});
    crashed.kill(SIGKILL);
    ASSERT_TRUE(crashed.wait());
    struct stat left;
    ASSERT_EQ(::stat(socketPathFor(kService).c_str(), &left), 0) << "no stale socket to replace";

    CountedServer server(kService);
    AndroidClient client(kService);
    AndroidProxy proxy(&client, "Counted");
    EXPECT_EQ(proxy.call("echoInt", 6).as<int>(), 6);
}

TEST_F(TransportTest, RuntimeDirIsPrivateAndTheSocketTakesTheConfiguredMode) {
    const struct {
        const char* modeVariable;
        mode_t socketMode;
    } kCases[] = {{nullptr, 0600}, {"660", 0660}};
    int index = 0;
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.modeVariable ? c.modeVariable : "default");
        const std::string dir = runtimeDir_.path() + "/run" + std::to_string(index++);
        ::setenv("PARLEX_RUNTIME_DIR", dir.c_str(), 1);
        if (c.modeVariable) ::setenv("PARLEX_SOCKET_MODE", c.modeVariable, 1);
        AndroidServer server;
        server.start(kService);

        struct stat info;
        ASSERT_EQ(::stat(dir.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0700u);
        ASSERT_EQ(::stat((dir + "/" + kService).c_str(), &info), 0);
        EXPECT_TRUE(S_ISSOCK(info.st_mode));
        EXPECT_EQ(info.st_mode & 0777, c.socketMode);
    }
}

TEST_F(EchoTest, ProxyOfATypeTheServiceCannotMakeThrowsAndTheConnectionSurvives) {
    // No factory, a factory that makes nothing, a factory that throws.
    for (const char* type : {"NoSuchType", "Null", "Throwing"}) {
        SCOPED_TRACE(type);
        EXPECT_THROW(AndroidProxy proxy(&client(), type), std::runtime_error);
    }
    EXPECT_EQ(echo().call("echoInt", 1).as<int>(), 1);
}

TEST_F(EchoTest, EachProxyGetsItsOwnObject) {
    AndroidProxy other(&client(), "Echo");
    echo().call("increment");
    EXPECT_EQ(echo().call("increment").as<int>(), 2);
    EXPECT_EQ(other.call("increment").as<int>(), 1);
}

TEST_F(EchoTest, DestroyingAProxyReleasesItsObjectOnTheServer) {
    {
        AndroidProxy other(&client(), "Echo");
        EXPECT_EQ(echo().call("alive").as<int>(), 2);
    }
    EXPECT_TRUE(waitUntil([&] { return echo().call("alive").as<int>() == 1; }));
}

TEST_F(TransportTest, ProxyOutlivingItsClientIsDestroyedSafely) {
    startPeer({"server", kService});
    auto client = std::make_unique<AndroidClient>(kService);
    auto proxy = std::make_unique<AndroidProxy>(client.get(), "Echo");
    client.reset();
    proxy.reset();
}

// ---- Arguments ----

template <typename T>
uint64_t bitsOf(T value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof value);
    return bits;
}

TEST_F(EchoTest, ScalarsRoundTripWithTheirExtremes) {
    for (int value : {0, -1, INT_MIN, INT_MAX}) {
        EXPECT_EQ(echo().call("echoInt", value).as<int>(), value);
    }
    for (unsigned int value : {0u, 0x80000000u, UINT_MAX}) {
        EXPECT_EQ(echo().call("echoUnsigned", value).as<unsigned int>(), value);
    }
    for (bool value : {false, true}) {
        EXPECT_EQ(echo().call("echoBool", value).as<bool>(), value);
    }
    for (long long value : {LLONG_MIN, LLONG_MAX, 1LL << 40}) {
        EXPECT_EQ(echo().call("echoLongLong", value).as<long long>(), value);
    }
    // Bit for bit: negative zero, the smallest subnormal and a NaN must survive unchanged.
    for (float value : {-0.0f, FLT_TRUE_MIN, FLT_MAX, std::nanf("0x123")}) {
        EXPECT_EQ(bitsOf(echo().call("echoFloat", value).as<float>()), bitsOf(value));
    }
}

TEST_F(EchoTest, StringsKeepEmbeddedZerosAndNullStaysApartFromEmpty) {
    const std::string withZeros("a\0b\0", 4);
    EXPECT_EQ(echo().call("echoString", withZeros).as<std::string>(), withZeros);
    EXPECT_EQ(echo().call("echoString", std::string()).as<std::string>(), "");

    AndroidParcel null = echo().call("echoCString", static_cast<const char*>(nullptr));
    EXPECT_EQ(null.as<const char*>(), nullptr);
    AndroidParcel empty = echo().call("echoCString", "");
    const char* text = empty.as<const char*>();
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
}

// Either side of the inline limit of a frame, and the largest message there is.
TEST_F(EchoTest, MessagesInlineAndOutOfLineRoundTrip) {
    for (size_t size :
         {transport::kInlineLimit - 256, transport::kInlineLimit + 1, kMaxMessageSize - 1024}) {
        SCOPED_TRACE(size);
        const std::string text(size, 'm');
        EXPECT_EQ(echo().call("echoString", text).as<std::string>(), text);
    }
}

TEST_F(EchoTest, MixedArgumentsArriveInDeclarationOrder) {
    EXPECT_EQ(echo()
                  .call("describe", -3, 4u, true, 5000000000LL, 0.5f, std::string("s"), "c")
                  .as<std::string>(),
              "-3|4|true|5000000000|0.500000|s|c");
}

TEST_F(EchoTest, RecordsRoundTrip) {
    const orv::MediaPlayerStateV2 state(1234, 3, orv::MediaPlayerProtection("drm-a", true),
                                        nullptr);
    AndroidParcel stateReply = echo().call("echoState", state);
    const auto stateBack = stateReply.as<orv::MediaPlayerStateV2>();
    EXPECT_EQ(stateBack.offsetMs, 1234);
    EXPECT_EQ(stateBack.stateCode, 3);
    ASSERT_NE(stateBack.protection.protection, nullptr);
    EXPECT_STREQ(stateBack.protection.protection, "drm-a");
    EXPECT_TRUE(stateBack.protection.isProtected);
    EXPECT_EQ(stateBack.playlistType, nullptr);

    orv::ZEMAudioSourceV4 source;
    source.type = orv::kSourceTypeUrl;
    source.setUrl("https://media.invalid/a.mp4");
    source.format.sampleRate = 48000;
    source.param2 = 1LL << 40;
    source.param9 = -2;
    source.param11 = -(1LL << 50);
    source.volumeGain = 0.25f;
    AndroidParcel sourceReply = echo().call("echoSource", source);
    const auto sourceBack = sourceReply.as<orv::ZEMAudioSourceV4>();
    EXPECT_EQ(sourceBack.type, orv::kSourceTypeUrl);
    ASSERT_NE(sourceBack.url, nullptr);
    EXPECT_STREQ(sourceBack.url, "https://media.invalid/a.mp4");
    EXPECT_EQ(sourceBack.clusterId, nullptr);
    EXPECT_EQ(sourceBack.format.sampleRate, 48000u);
    EXPECT_EQ(sourceBack.param2, 1LL << 40);
    EXPECT_EQ(sourceBack.param9, -2);
    EXPECT_EQ(sourceBack.param11, -(1LL << 50));
    EXPECT_EQ(sourceBack.volumeGain, 0.25f);
}

// In place up to 16 KiB, a shared-memory descriptor above.
class BufferTest : public EchoTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(BufferTest, BufferRoundTripsByteForByte) {
    AndroidParcel reply = echo().call("echoBuffer", patternBuffer(GetParam()));
    EXPECT_TRUE(holdsPattern(reply.as<AndroidBuffer>(), GetParam()));
}

INSTANTIATE_TEST_SUITE_P(InPlaceAndShared, BufferTest,
                         ::testing::Values(0, 16 * 1024, 16 * 1024 + 1, 1024 * 1024 - 64 * 1024),
                         [](const auto& info) { return "Bytes" + std::to_string(info.param); });

// ---- Calls from the server back to the client ----

// The server asks the client for audio while the client waits for the reply to its request.
class CallbackTest : public EchoTest, public ::testing::WithParamInterface<int> {};

TEST_P(CallbackTest, ServerCallsBackWhileTheClientWaitsForItsReply) {
    std::atomic<int> asked{0};
    echo().bind("getBuffer", [&](int bytes) {
        asked = bytes;
        return patternBuffer(static_cast<size_t>(bytes));
    });
    AndroidParcel reply = echo().call("pull", GetParam());
    EXPECT_EQ(asked, GetParam());
    EXPECT_TRUE(holdsPattern(reply.as<AndroidBuffer>(), static_cast<size_t>(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(AudioSizes, CallbackTest, ::testing::Values(1, 12288, 16385, 500000),
                         [](const auto& info) { return "Bytes" + std::to_string(info.param); });

TEST_F(EchoTest, ClientHandlerMayCallTheServerDuringACallback) {
    echo().bind("getBuffer", [&](int bytes) {
        const int doubled = echo().call("echoInt", bytes * 2).as<int>();
        return AndroidBuffer(sizeof doubled, &doubled, true);
    });
    AndroidParcel reply = echo().call("pull", 21);
    const AndroidBuffer buffer = reply.as<AndroidBuffer>();
    ASSERT_EQ(buffer.size(), sizeof(int));
    int doubled = 0;
    std::memcpy(&doubled, buffer.data(), sizeof doubled);
    EXPECT_EQ(doubled, 42);
}

TEST_F(EchoTest, EventsArriveInOrderAndOnlyAtTheProxyOfTheirObject) {
    AndroidProxy other(&client(), "Echo");
    std::mutex mutex;
    std::vector<int> ticks;
    std::atomic<int> strays{0};
    echo().bind("tick", [&](int i) {
        std::lock_guard<std::mutex> lock(mutex);
        ticks.push_back(i);
    });
    other.bind("tick", [&](int) { ++strays; });

    // Each event waits for the client's answer, so all have been handled once the call returns.
    EXPECT_EQ(echo().call("ticks", 5).as<int>(), 5);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(ticks, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(strays, 0);
}

TEST_F(EchoTest, ClientHandlerFailuresComeBackToTheServersCallback) {
    echo().bind("explode", [](int) -> int { throw std::runtime_error("client said no"); });
    EXPECT_THAT(echo().call("pullError", std::string("explode")).as<std::string>(),
                HasSubstr("client said no"));
    EXPECT_THAT(echo().call("pullError", std::string("neverBound")).as<std::string>(),
                Not(IsEmpty()));
    EXPECT_EQ(echo().call("echoInt", 3).as<int>(), 3);
}

// ---- Handler failures and limits ----

TEST_F(EchoTest, HandlerFailuresComeBackAsErrorsAndTheServerCarriesOn) {
    const struct {
        const char* what;
        std::function<void(AndroidProxy&)> send;
        const char* text;
    } kCases[] = {
        {"std::exception", [](AndroidProxy& p) { p.call("fail", std::string("boom 42")); },
         "boom 42"},
        {"exception of another type", [](AndroidProxy& p) { p.call("failOddly"); }, ""},
        {"method without handler", [](AndroidProxy& p) { p.call("noSuchMethod", 1); },
         "noSuchMethod"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.what);
        expectErrorReply([&] { c.send(echo()); }, c.text);
        EXPECT_EQ(echo().call("echoInt", 7).as<int>(), 7);
    }
}

TEST_F(EchoTest, OversizedMessagesFailTheirCallAndTheConnectionSurvives) {
    const std::string huge(kMaxMessageSize, 'x');
    expectErrorReply([&] { echo().call("echoString", huge); }, "");
    expectErrorReply([&] { echo().call("bigReply", static_cast<int>(kMaxMessageSize)); }, "");
    EXPECT_EQ(echo().call("echoInt", 8).as<int>(), 8);
}

// ---- Concurrency ----

TEST_F(EchoTest, EightThreadsCallingAtOnceEachGetTheirOwnReply) {
    constexpr int kThreads = 8;
    // The peer holds every call until all eight are inside their handlers at once.
    std::vector<std::future<int>> replies;
    for (int i = 0; i < kThreads; ++i) {
        replies.push_back(std::async(std::launch::async, [this, i] {
            return echo().call("rendezvous", kThreads, 100 + i).as<int>();
        }));
    }
    for (int i = 0; i < kThreads; ++i) {
        ASSERT_TRUE(settles(replies[i]));
        EXPECT_EQ(replies[i].get(), 100 + i);
    }
}

TEST_F(EchoTest, HandlerThreadsOfAConnectionStayWithinTheirBound) {
    const int callers = static_cast<int>(kMaxHandlerThreadsPerConnection) + 8;
    std::vector<std::future<int>> replies;
    for (int i = 0; i < callers; ++i) {
        replies.push_back(std::async(std::launch::async, [this, i] {
            return echo().call("sleepInside", 100 + i).as<int>();
        }));
    }
    for (int i = 0; i < callers; ++i) {
        ASSERT_TRUE(settles(replies[i]));
        EXPECT_EQ(replies[i].get(), 100 + i);
    }
    EXPECT_LE(echo().call("mostInside").as<int>(),
              static_cast<int>(kMaxHandlerThreadsPerConnection));
}

// ---- Death and stop ----

TEST_F(TransportTest, KilledServerFailsThePendingCallAndTellsEachProxyOnce) {
    Process& server = startPeer({"server", kService});
    AndroidClient client(kService);
    AndroidProxy first(&client, "Echo");
    AndroidProxy second(&client, "Echo");
    std::atomic<int> firstDeaths{0};
    std::atomic<int> secondDeaths{0};
    std::atomic<bool> callFromDeathFailed{false};
    first.bind("death", [&] {
        ++firstDeaths;
        // A listener told of the death may still try the server; that must fail, not hang.
        try {
            first.call("echoInt", 1);
        } catch (const dead_object&) {
            callFromDeathFailed = true;
        }
    });
    second.bind("death", [&] { ++secondDeaths; });

    auto pending = std::async(std::launch::async, [&] { return first.call("hang"); });
    ASSERT_TRUE(server.waitForLine("hanging"));
    server.kill(SIGKILL);
    ASSERT_TRUE(settles(pending));
    EXPECT_THROW(pending.get(), dead_object);

    EXPECT_TRUE(waitUntil([&] { return firstDeaths == 1 && secondDeaths == 1; }));
    EXPECT_THROW(second.call("echoInt", 2), dead_object);
    EXPECT_THROW(AndroidProxy third(&client, "Echo"), dead_object);
    EXPECT_EQ(firstDeaths, 1);
    EXPECT_EQ(secondDeaths, 1);
    EXPECT_TRUE(callFromDeathFailed);
}

TEST_F(TransportTest, KilledClientsObjectsAreReleasedAndOtherClientsKeepTheirs) {
    CountedServer server(kService);
    AndroidClient local(kService);
    AndroidProxy survivor(&local, "Counted");
    Process& client = startPeer({"client", kService, "Counted", "3"});
    EXPECT_EQ(server.alive(), 4);

    client.kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return server.alive() == 1; })) << server.alive() << " alive";
    EXPECT_EQ(survivor.call("echoInt", 9).as<int>(), 9);
}

// A service runs for long and its clients come and go: what a dead client's connection held
// must go when it dies, not when some other client happens to disconnect later.
TEST_F(TransportTest, KilledClientsConnectionClosesItsDescriptorsPromptly) {
    CountedServer server(kService);
    const size_t fdsBefore = openFds().size();
    Process& client = startPeer({"client", kService, "Counted", "1"});
    client.kill(SIGKILL);
    ASSERT_TRUE(client.wait());
    // The peer's two pipes stay open until the fixture lets the process go; anything beyond
    // them belongs to the dead connection.
    EXPECT_TRUE(waitUntil([&] { return openFds().size() == fdsBefore + 2; }))
        << openFds().size() - fdsBefore - 2 << " descriptors of the dead connection still open";
}

TEST_F(TransportTest, KilledClientFailsThePendingAndLaterCallbacksWithDeadObject) {
    CountedServer server(kService);
    Process& client = startPeer({"client", kService, "Counted", "1"});
    const std::shared_ptr<Counted> object = server.made(0);
    ASSERT_TRUE(object);

    auto pending =
        std::async(std::launch::async, [&] { return object->callback("getBuffer", 16); });
    ASSERT_TRUE(client.waitForLine("getBuffer 0"));
    client.kill(SIGKILL);
    ASSERT_TRUE(settles(pending));
    EXPECT_THROW(pending.get(), dead_object);
    EXPECT_THROW(object->event("tick", 1), dead_object);
}

TEST_F(TransportTest, StoppingTheServerReleasesItsObjectsAndTellsEachRemoteProxy) {
    CountedServer server(kService);
    Process& client = startPeer({"client", kService, "Counted", "2"});
    server.stop();
    EXPECT_EQ(server.alive(), 0);

    std::vector<std::string> lines;
    for (int i = 0; i < 2; ++i) lines.push_back(client.readLine().value_or("(nothing)"));
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<std::string>{"death 0", "death 1"}));
    client.closeStdin();
    EXPECT_EQ(client.readLine(), std::nullopt) << "more than one death per proxy";
}

TEST_F(TransportTest, StoppedClientFailsSendsWithoutReportingADeath) {
    Process& server = startPeer({"server", kService});
    AndroidClient client(kService);
    AndroidProxy echo(&client, "Echo");
    std::atomic<int> deaths{0};
    echo.bind("death", [&] { ++deaths; });

    client.stop();
    expectErrorReply([&] { echo.call("echoInt", 1); }, "");
    // Not even the server's death afterwards counts: the connection was ours to close.
    server.kill(SIGKILL);
    ASSERT_TRUE(server.wait());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // a death would come by now
    expectErrorReply([&] { echo.call("echoInt", 2); }, "");
    EXPECT_EQ(deaths, 0);
}

// ---- Malformed frames ----

FrameHeader header(uint16_t kind, uint32_t size, uint32_t fdCount, uint16_t flags = 0) {
    return FrameHeader{transport::kFrameMagic, kind, flags, 1, size, fdCount, 0};
}

// A record holding `header` followed by `payloadBytes` zero bytes.
std::vector<uint8_t> record(const FrameHeader& frameHeader, size_t payloadBytes) {
    std::vector<uint8_t> bytes(sizeof frameHeader + payloadBytes);
    std::memcpy(bytes.data(), &frameHeader, sizeof frameHeader);
    return bytes;
}

// Sends `bytes` as one record with `fds` attached, past every check the transport would make.
void sendRecord(int socket, const std::vector<uint8_t>& bytes, const std::vector<int>& fds) {
    iovec iov{const_cast<uint8_t*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    std::vector<uint8_t> control(CMSG_SPACE(sizeof(int) * fds.size()));
    if (!fds.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        std::memcpy(CMSG_DATA(rights), fds.data(), sizeof(int) * fds.size());
    }
    ASSERT_EQ(::sendmsg(socket, &message, MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()))
        << std::strerror(errno);
}

struct BadFrame {
    const char* name;
    std::function<void(int socket)> send;
};

void PrintTo(const BadFrame& frame, std::ostream* out) { *out << frame.name; }

const uint16_t kCall = static_cast<uint16_t>(FrameKind::Call);

const BadFrame kBadFrames[] = {
    {"Garbage",
     [](int s) {
         const std::string text = "not a frame";
         sendRecord(s, std::vector<uint8_t>(text.begin(), text.end()), {});
     }},
    {"WrongMagic",
     [](int s) {
         FrameHeader bad = header(kCall, 0, 0);
         bad.magic = 0x21444142;
         sendRecord(s, record(bad, 0), {});
     }},
    {"SizeAboveTheMessageLimit",
     [](int s) { sendRecord(s, record(header(kCall, kMaxMessageSize + 1, 0), 0), {}); }},
    {"PayloadShorterThanItsHeaderSays",
     [](int s) { sendRecord(s, record(header(kCall, 100, 0), 10), {}); }},
    {"UnknownKind", [](int s) { sendRecord(s, record(header(99, 0, 0), 0), {}); }},
    {"AnswerWhereARequestBelongs",
     [](int s) {
         sendRecord(s, record(header(static_cast<uint16_t>(FrameKind::HelloAck), 0, 0), 0), {});
     }},
    {"TooManyDescriptors",
     [](int s) {
         std::vector<UniqueFd> owned;
         std::vector<int> fds;
         for (size_t i = 0; i < transport::kMaxFds + 1; ++i) {
             owned.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
             fds.push_back(owned.back().get());
         }
         sendRecord(s, record(header(kCall, 0, static_cast<uint32_t>(fds.size())), 0), fds);
     }},
    {"OutOfLinePayloadShorterThanItsHeaderSays",
     [](int s) {
         UniqueFd payload(::memfd_create("short-payload", MFD_CLOEXEC));
         ASSERT_EQ(::ftruncate(payload.get(), 16), 0);
         sendRecord(s, record(header(kCall, 4096, 1, transport::kOutOfLine), 0), {payload.get()});
     }},
};

std::string badFrameName(const ::testing::TestParamInfo<BadFrame>& info) { return info.param.name; }

UniqueFd connectTo(const std::string& path) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ADD_FAILURE() << "connect " << path << ": " << std::strerror(errno);
        socket.reset();
    }
    return socket;
}

bool readable(int socket) {
    pollfd poller{socket, POLLIN, 0};
    return ::poll(&poller, 1, static_cast<int>(kTimeout.count())) == 1;
}

// The greeting a client opens with: the Hello brings the server its end of the event channel,
// whose other end goes to `events`.
bool greet(int socket, UniqueFd& events) {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return false;
    events.reset(pair[0]);
    UniqueFd theirs(pair[1]);
    if (transport::sendFrame(socket, FrameKind::Hello, 1, nullptr, 0, {theirs.get()}) != 0) {
        return false;
    }
    transport::Frame answer;
    std::string error;
    return readable(socket) &&
           transport::recvFrame(socket, answer, error) == transport::RecvStatus::Ok &&
           answer.kind == FrameKind::HelloAck;
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

class MalformedFrameToServerTest
    : public TransportTest,
      public ::testing::WithParamInterface<std::tuple<BadFrame, bool>> {};

TEST_P(MalformedFrameToServerTest, DropsOnlyThatConnectionLogsItAndKeepsServing) {
    const auto& [frame, afterGreeting] = GetParam();
    const size_t fdsBefore = openFds().size();
    {
        CountedServer server(kService);
        AndroidClient bystander(kService);
        AndroidProxy watcher(&bystander, "Counted");
        {
            UniqueFd raw = connectTo(socketPathFor(kService));
            UniqueFd events;
            if (afterGreeting) {
                ASSERT_TRUE(greet(raw.get(), events));
            }
            frame.send(raw.get());
            EXPECT_TRUE(closedByPeer(raw.get())) << "the server kept the connection open";
            EXPECT_TRUE(transportLog().waitForMessage("", kTimeout)) << "nothing was logged";
        }

        EXPECT_EQ(watcher.call("echoInt", 4).as<int>(), 4);
        AndroidClient newcomer(kService);
        AndroidProxy proxy(&newcomer, "Counted");
        EXPECT_EQ(proxy.call("echoInt", 5).as<int>(), 5);
    }
    // Descriptors that came with the frame are closed, whichever way it was rejected.
    EXPECT_EQ(openFds().size(), fdsBefore);
}

INSTANTIATE_TEST_SUITE_P(Frames, MalformedFrameToServerTest,
                         ::testing::Combine(::testing::ValuesIn(kBadFrames), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<BadFrame, bool>>& info) {
                             return std::string(std::get<0>(info.param).name) +
                                    (std::get<1>(info.param) ? "AfterGreeting"
                                                             : "InsteadOfGreeting");
                         });

// A server that greets, creates one object, waits for `go` and then sends a bad frame on the
// event channel; afterwards it waits until the client hangs up.
class MisbehavingServer {
public:
    MisbehavingServer(const std::string& path, const BadFrame& frame)
        : listener_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_.get(), 1) != 0) {
            throw std::runtime_error(std::string("listen: ") + std::strerror(errno));
        }
        thread_ = std::thread([this, frame] { serve(frame); });
    }
    ~MisbehavingServer() {
        misbehave();
        thread_.join();
    }

    void misbehave() {
        if (!released_) go_.set_value();
        released_ = true;
    }

private:
    void serve(const BadFrame& frame) {
        if (!readable(listener_.get())) return;
        UniqueFd requests(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        transport::Frame hello;
        transport::Frame create;
        std::string error;
        if (!readable(requests.get()) ||
            transport::recvFrame(requests.get(), hello, error) != transport::RecvStatus::Ok ||
            hello.fds.size() != 1) {
            return;
        }
        UniqueFd events = std::move(hello.fds[0]);
        transport::sendFrame(requests.get(), FrameKind::HelloAck, hello.txn, nullptr, 0, {});
        if (!readable(requests.get()) ||
            transport::recvFrame(requests.get(), create, error) != transport::RecvStatus::Ok) {
            return;
        }
        const std::string objectId = "Fake#1";
        transport::sendFrame(requests.get(), FrameKind::Reply, create.txn, objectId.data(),
                             objectId.size(), {});
        if (goSignal_.wait_for(kTimeout) != std::future_status::ready) return;
        frame.send(events.get());
        closedByPeer(events.get());
    }

    UniqueFd listener_;
    std::promise<void> go_;
    std::future<void> goSignal_ = go_.get_future();
    bool released_ = false;
    std::thread thread_;
};

class MalformedFrameToClientTest : public TransportTest,
                                   public ::testing::WithParamInterface<BadFrame> {};

TEST_P(MalformedFrameToClientTest, ClientDisconnectsLogsItAndReportsDeathOnce) {
    std::atomic<int> deaths{0};
    {
        MisbehavingServer server(socketPathFor(kService), GetParam());
        AndroidClient client(kService);
        AndroidProxy proxy(&client, "Fake");
        proxy.bind("death", [&] { ++deaths; });
        server.misbehave();

        EXPECT_TRUE(waitUntil([&] { return deaths > 0; })) << "no death reported";
        EXPECT_TRUE(transportLog().waitForMessage("", kTimeout)) << "nothing was logged";
        EXPECT_THROW(proxy.call("echoInt", 1), dead_object);
    }
    EXPECT_EQ(deaths, 1);
}

INSTANTIATE_TEST_SUITE_P(Frames, MalformedFrameToClientTest, ::testing::ValuesIn(kBadFrames),
                         badFrameName);

// ---- Teardown ----

TEST_F(TransportTest, TeardownOfServerAndClientLeavesNoThreadsOrDescriptors) {
    const size_t threadsBefore = threadCount();
    const size_t fdsBefore = openFds().size();
    {
        CountedServer server(kService);
        AndroidClient client(kService);
        AndroidProxy first(&client, "Counted");
        AndroidProxy second(&client, "Counted");
        std::atomic<int> deaths{0};
        for (AndroidProxy* proxy : {&first, &second}) {
            proxy->bind("getBuffer", [](int bytes) { return patternBuffer(bytes); });
            proxy->bind("death", [&] { ++deaths; });
        }
        // Concurrent callbacks grow the handler pools on both sides.
        std::vector<std::future<AndroidParcel>> pulls;
        for (int i = 0; i < 6; ++i) {
            AndroidProxy& proxy = i % 2 ? first : second;
            pulls.push_back(
                std::async(std::launch::async, [&proxy] { return proxy.call("pull", 100000); }));
        }
        for (auto& pull : pulls) {
            ASSERT_TRUE(settles(pull));
            EXPECT_TRUE(holdsPattern(pull.get().as<AndroidBuffer>(), 100000));
        }

        // The server goes first, with its client still connected.
        server.stop();
        EXPECT_EQ(server.alive(), 0);
        EXPECT_TRUE(waitUntil([&] { return deaths == 2; }));
    }
    EXPECT_EQ(threadCount(), threadsBefore);
    EXPECT_EQ(openFds().size(), fdsBefore);
}

TEST_F(TransportTest, TeardownOfAClientOfARemoteServerLeavesNoThreadsOrDescriptors) {
    startPeer({"server", kService});
    const size_t threadsBefore = threadCount();
    const size_t fdsBefore = openFds().size();
    {
        AndroidClient client(kService);
        AndroidProxy echo(&client, "Echo");
        echo.bind("getBuffer", [](int bytes) { return patternBuffer(bytes); });
        echo.bind("tick", [](int) {});
        EXPECT_TRUE(holdsPattern(echo.call("pull", 200000).as<AndroidBuffer>(), 200000));
        EXPECT_TRUE(holdsPattern(echo.call("echoBuffer", patternBuffer(300000)).as<AndroidBuffer>(),
                                 300000));
        echo.call("ticks", 3);
    }
    EXPECT_EQ(threadCount(), threadsBefore);
    EXPECT_EQ(openFds().size(), fdsBefore);
}

TEST_F(TransportTest, SharedMemoryBlobsAreClosedOnceTheirMessageIsDone) {
    CountedServer server(kService);
    AndroidClient client(kService);
    AndroidProxy proxy(&client, "Counted");
    proxy.bind("getBuffer", [](int bytes) { return patternBuffer(bytes); });
    proxy.call("echoInt", 0);
    const size_t fdsBefore = openFds().size();
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(holdsPattern(proxy.call("echoBuffer", patternBuffer(65536)).as<AndroidBuffer>(),
                                 65536));
        EXPECT_TRUE(holdsPattern(proxy.call("pull", 65536).as<AndroidBuffer>(), 65536));
    }
    // The last answer's parcel is let go on a transport thread just after it was sent.
    EXPECT_TRUE(waitUntil([&] { return openFds().size() == fdsBefore; }))
        << openFds().size() << " descriptors open, " << fdsBefore << " before";
}

// A transport descriptor inherited by a spawned child would keep a dead peer's connection open,
// and its death would never be noticed.
TEST_F(TransportTest, TransportDescriptorsAreCloseOnExec) {
    const std::vector<int> before = openFds();
    CountedServer server(kService);
    AndroidClient client(kService);
    AndroidProxy proxy(&client, "Counted");
    EXPECT_EQ(proxy.call("echoInt", 1).as<int>(), 1);
    for (int fd : openFds()) {
        if (std::find(before.begin(), before.end(), fd) != before.end()) continue;
        const int flags = ::fcntl(fd, F_GETFD);
        if (flags < 0) continue;  // the listing's own descriptor, closed since
        EXPECT_TRUE(flags & FD_CLOEXEC) << "descriptor " << fd;
    }
}

}  // namespace
}  // namespace parlex::test
