// The client half over the real transport. ClientTrackTest serves it from this process: each
// track object is a FakeTrack that answers only "destroy" and sends what a test asks for.
#include <gtest/gtest.h>
#include <parlex/binder.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>

#include "client/ZEMAudioTrackClient.h"
#include "common/RecordCodec.h"
#include "parlex/TrackProtocol.h"
#include "support/RecordingLogSink.h"
#include "support/TrackCases.h"

namespace orv::test {
namespace {

using Lines = std::vector<std::string>;
using V3 = std::shared_ptr<EventListenerV3>;
constexpr const char* kTag = "ZEMAudioTrackClient";

class FakeTrack : public parlex::AndroidImpl {
public:
    FakeTrack() {
        bind(protocol::kDestroy, [this] { ++destroys; });
    }
    void started() { event(protocol::kOnPlaybackStarted, kSourceId, eventState()); }
    std::atomic<int> destroys{0};
};

class ClientTest : public ::testing::Test {
protected:
    std::unique_ptr<ZEMAudioTrack> connect(const V3& listener) {
        std::unique_ptr<ZEMAudioTrack> track(createZEMAudioTrack());
        EXPECT_TRUE(track->init(listener, sink_));
        return track;
    }

    parlex::test::PrivateRuntimeDir dir_;
    std::shared_ptr<RecordingLogSink> sink_ = std::make_shared<RecordingLogSink>();
    std::shared_ptr<RecordingListener> listener_ = std::make_shared<RecordingListener>();
};

class ClientTrackTest : public ClientTest {
protected:
    ClientTrackTest() {
        server_->registerFactory(protocol::kObjectType, [this] {
            std::lock_guard<std::mutex> lock(mutex_);
            return fakes_.emplace_back(std::make_shared<FakeTrack>());
        });
        server_->start(protocol::kServiceName);
    }
    FakeTrack& fake(size_t index = 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        return *fakes_.at(index);
    }

    std::mutex mutex_;  // guards: fakes_
    std::vector<std::shared_ptr<FakeTrack>> fakes_;
    std::unique_ptr<parlex::AndroidServer> server_ = std::make_unique<parlex::AndroidServer>();
};

TEST_F(ClientTrackTest, GetBufferSendsTheListenersBytesWithTheCountBroughtIntoRange) {
    auto track = connect(listener_);
    struct {
        int asked, written, sent;
        std::string error;
    } const cases[] = {
        {12288, 12288, 12288, ""},
        {4096, 100, 100, ""},
        {100, -5, 0, "getBuffer:listener wrote -5 bytes into a buffer of 100; using 0"},
        {100, 150, 100, "getBuffer:listener wrote 150 bytes into a buffer of 100; using 100"},
    };
    uint64_t streamed = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.asked) + " asked, " + std::to_string(c.written) + " written");
        listener_->count = [&](int) { return c.written; };
        sink_->clear();
        auto buffer = fake().callback(protocol::kGetBuffer, c.asked).as<parlex::AndroidBuffer>();
        ASSERT_EQ(buffer.size(), static_cast<unsigned int>(c.sent));
        const auto* bytes = static_cast<const uint8_t*>(buffer.data());
        for (int i = 0; i < c.sent; ++i) ASSERT_EQ(bytes[i], patternByte(streamed++)) << i;
        std::vector<LogEntry> log = {{LOG_DATA, kTag, "getBuffer:size=" + text(c.asked)}};
        if (!c.error.empty()) log.push_back({LOG_ERROR, kTag, c.error});
        EXPECT_EQ(sink_->entries(), log);
    }
    // A negative size from the service is refused before the listener is asked.
    listener_->count = [](int) -> int { throw std::logic_error("asked"); };
    EXPECT_THROW(fake().callback(protocol::kGetBuffer, -1), std::runtime_error);
    EXPECT_TRUE(sink_->contains("getBuffer:refused a request for -1 bytes"));
    listener_.reset();
    EXPECT_EQ(fake().callback(protocol::kGetBuffer, 64).as<parlex::AndroidBuffer>().size(), 0u);
    EXPECT_TRUE(sink_->contains("getBuffer:No listener found"));
}

TEST_F(ClientTrackTest, FailedRequestsReturnDefaultsAndAfterDeathNeverReachTheTransport) {
    auto track = connect(listener_);
    auto proxyListener = std::make_shared<RecordingListener>();
    parlex::AndroidClient client(protocol::kServiceName);
    ZEMAudioTrackClient proxy(sink_, &client, protocol::kObjectType);
    proxy.setListener(std::weak_ptr<EventListenerV3>(proxyListener));
    // Before the death the service has no handler for any request; the error names what was sent.
    auto expectDefaults = [&](auto& on, bool dead) {
        for (const auto& row : requestRows<std::decay_t<decltype(on)>>()) {
            SCOPED_TRACE(row.method);
            sink_->clear();
            EXPECT_EQ(row.call(on), row.failed);
            std::vector<LogEntry> log;
            if (row.log != nullptr) log.push_back({row.level, kTag, row.log});
            log.push_back(
                {LOG_ERROR, kTag,
                 dead ? "remoteCall:server not running"
                      : "remoteCall:RPC failed exception: parlex: no handler for method '" +
                            std::string(row.method) + "'"});
            EXPECT_EQ(sink_->entries(), log);
        }
    };
    expectDefaults(*track, false);
    expectDefaults(proxy, false);
    server_.reset();
    ASSERT_TRUE(listener_->waitForCall() && proxyListener->waitForCall());
    EXPECT_EQ(sink_->count(LOG_LIFECYCLE, "operator():received server death notification"), 2u);
    expectDefaults(*track, true);
    expectDefaults(proxy, true);
    EXPECT_EQ(listener_->takeCalls(), Lines{"onServerDeath"});
    EXPECT_EQ(proxyListener->takeCalls(), Lines{"onServerDeath"});
}

TEST_F(ClientTrackTest, ADeadServerFailsTheCallButOnlyTheDeathNoticeStopsCalling) {
    parlex::AndroidClient client(protocol::kServiceName);
    ZEMAudioTrackClient proxies[] = {{sink_, &client, protocol::kObjectType},
                                     {sink_, &client, protocol::kObjectType}};
    std::shared_ptr<RecordingListener> listeners[] = {listener_,
                                                      std::make_shared<RecordingListener>()};
    // The proxy told first holds its notice, so the other has not heard of the death yet.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<int> holding{-1};
    for (int i = 0; i < 2; ++i) {
        proxies[i].setListener(std::weak_ptr<EventListenerV3>(listeners[i]));
        listeners[i]->then = [&, i] {
            if (int none = -1; holding.compare_exchange_strong(none, i)) released.wait();
        };
    }
    server_.reset();
    ASSERT_TRUE(parlex::test::waitUntil([&] { return holding >= 0; }));
    const int other = 1 - holding;
    EXPECT_EQ(proxies[other].play(), 0);
    EXPECT_EQ(proxies[other].play(), 0);
    EXPECT_EQ(sink_->count(LOG_ERROR, "remoteCall:server is dead"), 2u);
    release.set_value();
    ASSERT_TRUE(listeners[other]->waitForCall());
    EXPECT_EQ(proxies[other].play(), 0);
    EXPECT_EQ(sink_->count(LOG_ERROR, "remoteCall:server not running"), 1u);
}

TEST_F(ClientTrackTest, InitWithoutTheServiceFailsWithOneLineTaggedClientTrackImpl) {
    server_.reset();
    std::unique_ptr<ZEMAudioTrack> track(createZEMAudioTrack());
    EXPECT_FALSE(track->init(V3(listener_), sink_));
    const auto entries = sink_->entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, LOG_ERROR);
    EXPECT_EQ(entries[0].tag, "ClientTrackImpl");
    EXPECT_NE(entries[0].message.find(protocol::kServiceName), std::string::npos);
}

TEST_F(ClientTrackTest, SecondInitLeavesOnlyTheNewListenerAndTheOldConnectionOpen) {
    auto first = std::make_shared<RecordingListener>();
    std::unique_ptr<ZEMAudioTrack> track(createZEMAudioTrack());
    ASSERT_TRUE(track->init(std::shared_ptr<EventListener>(first), sink_));
    ASSERT_TRUE(track->init(V3(listener_), sink_));
    fake(1).started();
    EXPECT_EQ(listener_->takeCalls(), Lines{"onPlaybackStarted 7 1000/3/drm/1/live/"});
    // The first proxy is gone, but its connection, which would fail with dead_object, answers.
    try {
        fake(0).started();
        ADD_FAILURE() << "the first proxy still receives events";
    } catch (const parlex::dead_object&) {
        ADD_FAILURE() << "the first connection was closed";
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(first->takeCalls(), Lines{});
}

TEST_F(ClientTrackTest, OnlyDestroySendsDestroyAndRequestsAfterItFail) {
    connect(listener_).reset();
    EXPECT_EQ(fake(0).destroys, 0);
    auto track = connect(listener_);
    track->destroy();
    EXPECT_EQ(fake(1).destroys, 1);
    EXPECT_FALSE(track->play());
    EXPECT_TRUE(sink_->contains("remoteCall:RPC failed exception: parlex: client stopped"));
}

TEST_F(ClientTrackTest, MetricsArriveOnlyUnderTheClientsNameAndRequestsWorkInsideEvents) {
    auto track = connect(listener_);
    fake().event(protocol::kReportMetric, std::string("rate"), std::string("320"));
    EXPECT_EQ(listener_->takeCalls(), Lines{"onReportMetric rate 320"});
    EXPECT_TRUE(sink_->contains("onReportMetric:metric=rate"));
    EXPECT_THROW(fake().event(protocol::kOnReportMetric, std::string("a"), std::string("b")),
                 std::runtime_error);
    std::atomic<int> offset{0};
    listener_->then = [&] { offset = track->getOffset(); };
    auto sent = std::async(std::launch::async, [&] { fake().started(); });
    ASSERT_EQ(sent.wait_for(parlex::test::kTimeout), std::future_status::ready);
    EXPECT_EQ(offset, -1);
}

}  // namespace
}  // namespace orv::test
