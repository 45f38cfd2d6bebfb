// The client half over the real transport, against the real server half with a mock player in
// a player_service process (EndToEndTest), a service that breaks the protocol (hostile_service),
// or a bare service in this process.
#include <gtest/gtest.h>
#include <parlex/binder.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <future>
#include <memory>
#include <thread>

#include "client/ZEMAudioTrackClient.h"
#include "parlex/TrackProtocol.h"
#include "support/Process.h"
#include "support/TrackCases.h"

namespace orv::test {
namespace {

constexpr const char* kTag = "ZEMAudioTrackClient";

class ClientTest : public ::testing::Test {
protected:
    std::unique_ptr<ZEMAudioTrack> connect(std::shared_ptr<EventListenerV3> listener) {
        std::unique_ptr<ZEMAudioTrack> track(createZEMAudioTrack());
        EXPECT_TRUE(track->init(std::move(listener), sink_));
        return track;
    }

    parlex::test::PrivateRuntimeDir dir_;
    std::shared_ptr<RecordingLogSink> sink_ = std::make_shared<RecordingLogSink>();
    std::shared_ptr<RecordingListener> listener_ = std::make_shared<RecordingListener>(sink_, "v3");
};

class EndToEndTest : public ClientTest {
protected:
    // Runs every request on `on` and checks the client's lines and the result: the player's
    // answer, once its call has shown up; when `dead`, the default after "server not running".
    template <typename Track>
    void expectRequests(Track& on, bool dead) {
        for (const auto& row : requestRows<Track>()) {
            SCOPED_TRACE(row.player);
            sink_->clear();
            EXPECT_EQ(row.call(on), dead ? row.failed : row.answered);
            EXPECT_TRUE(dead || says(row.player));
            std::vector<LogEntry> log;
            if (row.log != nullptr) log.push_back({row.level, kTag, row.log});
            if (dead) log.push_back({LOG_ERROR, kTag, "remoteCall:server not running"});
            EXPECT_EQ(sink_->entries(), log);
        }
    }

    // True once the peer writes a line with `text`, skipping the lines before it.
    bool says(const std::string& text) { return peer_.readUntil(text).has_value(); }

    parlex::test::Process peer_{{PLAYER_SERVICE_PATH}};
    const bool ready_ = says("ready");  // before the fixture's proxy connects
    parlex::AndroidClient client_{protocol::kServiceName};
    ZEMAudioTrackClient proxy_{sink_, &client_, protocol::kObjectType};
};

// The newest listener makes a request inside each event; each round releases the newest.
TEST_F(EndToEndTest, EachPlayerEventReachesOnlyTheNewestListenerWithItsArguments) {
    ASSERT_EQ(proxy_.setSource(pcmFormat(), "c1"), kSourceId);
    std::shared_ptr<RecordingListener> listeners[4];
    for (int v = 1; v <= 3; ++v)
        listeners[v] = std::make_shared<RecordingListener>(sink_, "v" + text(v));
    listeners[3]->then = [this] { proxy_.getOffset(); };
    proxy_.setListener(std::weak_ptr<EventListener>(listeners[1]));
    proxy_.setListener(std::weak_ptr<EventListenerV2>(listeners[2]));
    proxy_.setListener(std::weak_ptr<EventListenerV3>(listeners[3]));
    for (int newest = 3; newest >= 0; listeners[newest--].reset()) {
        SCOPED_TRACE("newest listener version " + std::to_string(newest));
        sink_->clear();
        ASSERT_TRUE(peer_.writeLine("events"));
        ASSERT_TRUE(says("fired"));
        std::vector<LogEntry> expected;
        for (const EventRow& row : eventRows()) {
            expected.push_back({LOG_TRACE, kTag, row.log});
            if (newest == 3 || (newest > 0 && !row.v1.empty())) {
                expected.push_back({kCall, "v" + text(newest), newest == 1 ? row.v1 : row.newer});
                if (newest == 3) expected.push_back({LOG_DATA, kTag, "getOffset: "});
            } else {
                expected.push_back({LOG_ERROR, kTag, row.name + ":No listener found"});
            }
        }
        EXPECT_EQ(sink_->entries(), expected);
    }
}

TEST_F(EndToEndTest, PcmArrivesByteExactWithTheListenersCountBroughtIntoRange) {
    std::atomic<int> written{0};  // what the listener says it wrote; 0: what was asked for
    listener_->count = [&](int size) { return written != 0 ? written.load() : size; };
    auto track = connect(listener_);
    ASSERT_EQ(track->setSource(pcmFormat(), "c1"), kSourceId);
    // 80 buffers of 12288 bytes (16384 asked): over five seconds of 44.1 kHz 16-bit stereo.
    ASSERT_TRUE(peer_.writeLine("pull 80 16384"));
    EXPECT_TRUE(says("pulled 983040 1"));
    for (int count : {-5, 150}) {
        const int sent = (written = count) < 0 ? 0 : 100;
        sink_->clear();
        ASSERT_TRUE(peer_.writeLine("pull 1 100"));
        EXPECT_TRUE(says("pulled " + text(sent) + " 1"));
        EXPECT_EQ(sink_->count(LOG_ERROR, "getBuffer:listener wrote " + text(count) +
                                              " bytes into a buffer of 100; using " + text(sent)),
                  1u);
    }
    listener_.reset();
    ASSERT_TRUE(peer_.writeLine("pull 1 100"));
    EXPECT_TRUE(says("pulled 0 1"));
    EXPECT_EQ(sink_->count(LOG_ERROR, "getBuffer:No listener found"), 1u);
}

// A second init leaves only the second listener registered.
TEST_F(EndToEndTest, RequestsReachThePlayerUntilTheServiceDiesThenFailAtOnceAfterOneNotice) {
    std::unique_ptr<ZEMAudioTrack> track(createZEMAudioTrack());
    auto firstJournal = std::make_shared<RecordingLogSink>();
    auto first = std::make_shared<RecordingListener>(firstJournal, "v1");
    ASSERT_TRUE(track->init(std::shared_ptr<EventListener>(first), sink_));
    ASSERT_TRUE(track->init(std::shared_ptr<EventListenerV3>(listener_), sink_));
    expectRequests(*track, false);
    expectRequests(proxy_, false);
    sink_->clear();
    peer_.kill();
    // Both proxies (the fixture's has no listener) are told.
    ASSERT_TRUE(parlex::test::waitUntil([&] {
        return sink_->count(LOG_LIFECYCLE, "operator():received server death notification") == 2;
    }));
    EXPECT_EQ(sink_->count(kCall, "onServerDeath"), 1u);
    EXPECT_EQ(firstJournal->entries().size(), 0u);
    expectRequests(*track, true);
    expectRequests(proxy_, true);
    // A new track finds no service: one line, from the connecting code.
    sink_->clear();
    EXPECT_FALSE(std::unique_ptr<ZEMAudioTrack>(createZEMAudioTrack())
                     ->init(std::shared_ptr<EventListenerV3>(listener_), sink_));
    ASSERT_EQ(sink_->entries().size(), 1u);
    EXPECT_EQ(sink_->count(LOG_ERROR, protocol::kServiceName), 1u);
    EXPECT_EQ(sink_->entries()[0].tag, "ClientTrackImpl");
}

// Until its own death notice arrives, a proxy whose calls find the service gone says so on each
// call and tries the next one again: only the notice marks the service dead. The notices go out
// one proxy after the other, and the first one is held in its listener meanwhile.
TEST_F(EndToEndTest, GoneServiceFailsEachCallUntilTheDeathNoticeMarksItDead) {
    std::promise<void> release;
    listener_->then = [held = release.get_future().share()] { held.wait(); };
    proxy_.setListener(std::weak_ptr<EventListenerV3>(listener_));
    ZEMAudioTrackClient second{sink_, &client_, protocol::kObjectType};
    peer_.kill();
    ASSERT_TRUE(parlex::test::waitUntil([&] { return sink_->count(kCall, "onServerDeath") == 1; }));
    sink_->clear();
    EXPECT_EQ(second.play(), 0);
    EXPECT_EQ(second.getOffset(), -1);
    EXPECT_EQ(sink_->count(LOG_ERROR, "remoteCall:server is dead"), 2u);
    release.set_value();
    ASSERT_TRUE(parlex::test::waitUntil([&] {
        return sink_->count(LOG_LIFECYCLE, "operator():received server death notification") == 2;
    }));
    EXPECT_EQ(second.play(), 0);
    EXPECT_EQ(sink_->count(LOG_ERROR, "remoteCall:server not running"), 1u);
}

// A service that answers with malformed replies and asks for absurd buffers (hostile_service).
using HostileServiceTest = ClientTest;
TEST_F(HostileServiceTest, MalformedRepliesAndOversizedBufferRequestsFailAloneAndThrowNothing) {
    parlex::test::Process service({HOSTILE_SERVICE_PATH});
    ASSERT_EQ(service.readLine(), "ready");
    std::atomic<int> filled{0};  // the listener's getBuffer calls; it writes nothing
    listener_->count = [&](int) {
        ++filled;
        return 0;
    };
    auto track = connect(listener_);

    EXPECT_EQ(text(track->getPlaybackReportArray()) + text(track->getPlaybackReports()), "0:0:");
    for (const std::string refused :
         {"PlaybackReportArray count 1000 exceeds", "PlaybackReports count 2147483647"}) {
        EXPECT_EQ(sink_->count(LOG_ERROR, "remoteCall:RPC failed exception: " + refused), 1u);
    }
    EXPECT_TRUE(track->play());  // the connection is as it was

    // Sizes beyond what one message can carry are refused before anything is allocated; the
    // largest it can carry reaches the listener.
    const int limit = static_cast<int>(parlex::kMaxMessageSize);
    for (int size : {INT_MAX, limit + 1, -1, 16, limit}) {
        const bool refused = size != 16 && size != limit;
        ASSERT_TRUE(service.writeLine("getBuffer " + text(size)));
        EXPECT_EQ(service.readLine().value_or("").substr(0, 6), refused ? "error " : "reply ")
            << size;
        EXPECT_EQ(
            sink_->count(LOG_ERROR, "getBuffer:refused a request for " + text(size) + " bytes"),
            refused ? 1u : 0u);
    }
    EXPECT_EQ(filled, 2);
}

// A bare service in this process whose tracks count "destroy" and how many "play" requests of
// one track are inside at once, the most there ever were.
class BareServiceTest : public ClientTest {
protected:
    void start(const parlex::ServerLimits& limits = {}) {
        server_.registerFactory(protocol::kObjectType, [this] {
            auto track = std::make_shared<parlex::AndroidImpl>();
            track->bind(protocol::kDestroy, [this] { ++destroys_; });
            track->bind(protocol::kPlay, [this, inside = std::make_shared<std::atomic<int>>(0)] {
                const int now = ++*inside;
                for (int seen = most_; now > seen && !most_.compare_exchange_weak(seen, now);) {
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                --*inside;
            });
            return track;
        });
        server_.start(protocol::kServiceName, limits);
    }

    std::atomic<int> destroys_{0};
    std::atomic<int> most_{0};
    parlex::AndroidServer server_;
};

// Application threads that share a track take turns: the service never has two of its requests
// at once. Only "destroy" sends "destroy", and requests after it fail.
TEST_F(BareServiceTest, ATrackSendsOneRequestAtATimeUntilItsDestroyAfterWhichRequestsFail) {
    start();
    connect(listener_).reset();
    auto track = connect(listener_);
    auto plays = [&] {
        for (int i = 0; i < 20; ++i) EXPECT_TRUE(track->play());
    };
    auto other = std::async(std::launch::async, plays);
    plays();
    other.get();
    EXPECT_EQ(most_, 1);
    EXPECT_EQ(destroys_, 0);
    track->destroy();
    EXPECT_EQ(destroys_, 1);
    EXPECT_FALSE(track->play());
    EXPECT_EQ(sink_->count(LOG_ERROR, "remoteCall:RPC failed exception: parlex: client stopped"),
              1u);
}

// The connection of an earlier init stays open for the rest of the process: the service still
// counts it against this process, however long it has had to notice it gone.
TEST_F(BareServiceTest, SecondInitLeavesTheEarlierConnectionOpen) {
    parlex::ServerLimits limits;
    limits.maxConnectionsPerProcess = 2;
    start(limits);
    auto track = connect(listener_);
    ASSERT_TRUE(track->init(std::shared_ptr<EventListenerV3>(listener_), sink_));
    EXPECT_TRUE(track->play());
    for (int i = 0; i < 10; ++i) {
        EXPECT_THROW(parlex::AndroidClient third(protocol::kServiceName), std::runtime_error);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace
}  // namespace orv::test
