// Either side SIGKILLed in the middle of its work. The service dies while eight application
// threads wait for their requests and its player is inside a pull: every call returns its
// failure default and each track's listener hears onServerDeath once, within 100 ms of the
// kill. A client dies while its audio streams: the player is told to release its source within
// 100 ms. Both bounds are measured from just before the kill.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orv/AudioServerImpl.h>
#include <orv/ZEMAudioServer.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/MockPlayer.h"
#include "support/Process.h"
#include "support/TrackCases.h"

namespace orv::test {
namespace {

using namespace ::testing;
using namespace parlex::test;
using Clock = std::chrono::steady_clock;

constexpr auto kDeathBound = std::chrono::milliseconds(100);

long long msSince(Clock::time_point start, Clock::time_point end) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count();
}

// The exported track's requests whose player calls kill_service blocks.
std::vector<RequestRow<ZEMAudioTrack>> pendingRequests() {
    const std::set<std::string> blocked = {
        "play",   "stop",      "pause",     "resume",
        "seekTo", "getOffset", "setVolume", "getMediaPlayerStateV2"};
    std::vector<RequestRow<ZEMAudioTrack>> rows;
    for (auto& row : requestRows<ZEMAudioTrack>())
        if (blocked.count(callOf(row))) rows.push_back(row);
    return rows;
}

TEST(ServiceKillTest, PendingCallsFailWithTheirDefaultsAndEachListenerHearsDeathOnceWithin100Ms) {
    PrivateRuntimeDir dir;
    Process service({KILL_SERVICE_PATH});
    ASSERT_EQ(service.readLine(), "ready");
    const auto requests = pendingRequests();
    ASSERT_EQ(requests.size(), 8u);
    // One track per request; each listener journals its calls and notes when the first came.
    struct Watched {
        std::shared_ptr<RecordingLogSink> journal = std::make_shared<RecordingLogSink>();
        std::shared_ptr<RecordingListener> listener =
            std::make_shared<RecordingListener>(journal, "v3");
        std::atomic<Clock::rep> heardAt{0};  // 0: nothing heard yet
        std::unique_ptr<ZEMAudioTrack> track;
    };
    std::vector<Watched> watched(requests.size());
    // The first track's listener holds the service's pull until the test lets it go.
    std::promise<void> pulled, letGo;
    std::shared_future<void> letGoFuture = letGo.get_future().share();
    std::vector<std::future<std::string>> calls;
    // Whatever fails below, the service goes and the pull is let go before the calls and the
    // tracks are waited for.
    const std::shared_ptr<void> cleanUp(nullptr, [&](void*) {
        service.kill();
        if (letGoFuture.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            letGo.set_value();
        }
    });
    std::atomic<bool> first{true};
    watched[0].listener->count = [&](int size) {
        if (first.exchange(false)) {
            pulled.set_value();
            letGoFuture.wait();
        }
        return size;
    };
    for (Watched& each : watched) {
        each.listener->then = [&at = each.heardAt] {
            Clock::rep none = 0;
            at.compare_exchange_strong(none, Clock::now().time_since_epoch().count());
        };
        each.track.reset(createZEMAudioTrack());
        ASSERT_TRUE(each.track->init(std::shared_ptr<EventListenerV3>(each.listener),
                                     std::make_shared<RecordingLogSink>()));
    }
    const long long id = watched[0].track->setSource(source(kSourceTypePcm));
    ASSERT_EQ(id, 100);
    ASSERT_TRUE(service.writeLine("pull " + text(id)));
    ASSERT_EQ(service.readLine(), "pulling");
    ASSERT_EQ(pulled.get_future().wait_for(kTimeout), std::future_status::ready);

    for (size_t k = 0; k < requests.size(); ++k) {
        calls.push_back(
            std::async(std::launch::async, requests[k].call, std::ref(*watched[k].track)));
    }
    std::multiset<std::string> blocked, expected;
    for (const auto& request : requests) {
        expected.insert("blocked " + callOf(request));
        blocked.insert(service.readLine().value_or("(none)"));
    }
    ASSERT_EQ(blocked, expected);

    const Clock::time_point killed = Clock::now();
    service.kill();
    for (size_t k = 0; k < requests.size(); ++k) {
        ASSERT_EQ(calls[k].wait_for(kTimeout), std::future_status::ready) << requests[k].player;
        EXPECT_EQ(calls[k].get(), requests[k].failed) << requests[k].player;
    }
    ASSERT_TRUE(waitUntil([&] {
        return std::all_of(watched.begin(), watched.end(), [](auto& w) { return w.heardAt != 0; });
    }));
    Clock::rep last = 0;
    for (Watched& each : watched) last = std::max(last, each.heardAt.load());
    const long long latest = msSince(killed, Clock::time_point(Clock::duration(last)));
    EXPECT_LE(latest, kDeathBound.count());
    RecordProperty("last_death_ms", static_cast<int>(latest));
    letGo.set_value();
    // Later calls fail at once and bring no second death.
    for (Watched& each : watched) {
        EXPECT_FALSE(each.track->play());
        each.track.reset();
    }
    for (Watched& each : watched) EXPECT_EQ(each.journal->count(kCall, "onServerDeath"), 1u);
}

TEST(ClientKillTest, TheSourcesOfAClientKilledMidStreamAreReleasedAtThePlayerWithin100Ms) {
    PrivateRuntimeDir dir;
    auto player = std::make_shared<NiceMock<MockPlayer>>();
    std::promise<Clock::time_point> released;
    ON_CALL(*player, setSource).WillByDefault(Return(42));
    EXPECT_CALL(*player, releaseSource(42)).WillOnce([&](long long) {
        released.set_value(Clock::now());
        return 0;
    });
    ZEMAudioServer server(player, nullptr);
    Process client({KILL_CLIENT_PATH, "stream"});
    ASSERT_EQ(client.readLine(), "source 42");

    // The player pulls as it plays, until the source is gone.
    std::atomic<int> pulls{0};
    std::atomic<bool> stop{false};
    std::thread puller([&] {
        std::vector<uint8_t> buffer(4096);
        while (!stop && player->delegate.load()->getData(buffer.data(), 4096, 42) > 0) ++pulls;
    });
    EXPECT_TRUE(waitUntil([&] { return pulls >= 10; }));

    const Clock::time_point killed = Clock::now();
    client.kill();
    auto when = released.get_future();
    const bool done = when.wait_for(kTimeout) == std::future_status::ready;
    stop = true;
    puller.join();
    ASSERT_TRUE(done);
    const long long took = msSince(killed, when.get());
    EXPECT_LE(took, kDeathBound.count());
    RecordProperty("release_ms", static_cast<int>(took));
}

}  // namespace
}  // namespace orv::test
