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
    for (auto& row : requestRows<ZEMAudioTrack>()) {
        if (blocked.count(callOf(row))) rows.push_back(row);
    }
    return rows;
}

TEST(ServiceKillTest, PendingCallsFailWithTheirDefaultsAndEachListenerHearsDeathOnceWithin100Ms) {
    PrivateRuntimeDir dir;
    Process service({KILL_SERVICE_PATH});
    ASSERT_EQ(service.readLine(), "ready");
    auto sink = std::make_shared<RecordingLogSink>();
    const auto requests = pendingRequests();
    ASSERT_EQ(requests.size(), 8u);
    // One track per request; each listener journals its calls and notes when the first came.
    std::vector<std::shared_ptr<RecordingLogSink>> journals;
    std::vector<std::shared_ptr<RecordingListener>> listeners;
    std::vector<std::atomic<Clock::rep>> heardAt(requests.size());  // 0: nothing heard yet
    std::vector<std::unique_ptr<ZEMAudioTrack>> tracks;
    for (size_t k = 0; k < requests.size(); ++k) {
        journals.push_back(std::make_shared<RecordingLogSink>());
        listeners.push_back(std::make_shared<RecordingListener>(journals[k], "v3"));
        listeners[k]->then = [&at = heardAt[k]] {
            Clock::rep none = 0;
            at.compare_exchange_strong(none, Clock::now().time_since_epoch().count());
        };
    }
    auto deaths = [&](size_t k) { return journals[k]->count(kCall, "onServerDeath"); };
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
    listeners[0]->count = [&](int size) {
        if (first.exchange(false)) {
            pulled.set_value();
            letGoFuture.wait();
        }
        return size;
    };
    for (auto& listener : listeners) {
        tracks.emplace_back(createZEMAudioTrack());
        ASSERT_TRUE(tracks.back()->init(std::shared_ptr<EventListenerV3>(listener), sink));
    }
    const long long id = tracks[0]->setSource(source(kSourceTypePcm));
    ASSERT_EQ(id, 100);
    ASSERT_TRUE(service.writeLine("pull " + text(id)));
    ASSERT_EQ(service.readLine(), "pulling");
    ASSERT_EQ(pulled.get_future().wait_for(kTimeout), std::future_status::ready);

    for (size_t k = 0; k < requests.size(); ++k) {
        calls.push_back(std::async(std::launch::async, requests[k].call, std::ref(*tracks[k])));
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
        return std::all_of(heardAt.begin(), heardAt.end(), [](auto& at) { return at != 0; });
    }));
    long long latest = 0;
    for (size_t k = 0; k < listeners.size(); ++k) {
        const long long took = msSince(killed, Clock::time_point(Clock::duration(heardAt[k])));
        latest = std::max(latest, took);
        EXPECT_LE(took, kDeathBound.count()) << k;
    }
    RecordProperty("last_death_ms", static_cast<int>(latest));
    letGo.set_value();
    // Later calls fail at once and bring no second death.
    for (auto& track : tracks) EXPECT_FALSE(track->play());
    tracks.clear();
    for (size_t k = 0; k < listeners.size(); ++k) EXPECT_EQ(deaths(k), 1u) << k;
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
