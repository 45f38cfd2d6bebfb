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
#include <mutex>
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

// Notes when, and how often, the service's death reached it. Its getBuffer can be held, so that
// the service is inside a pull when it dies.
class DeathListener : public RecordingListener {
public:
    using RecordingListener::RecordingListener;
    void onServerDeath() override {
        std::lock_guard<std::mutex> lock(mutex);
        if (deaths++ == 0) diedAt = Clock::now();
    }
    int deathCount() {
        std::lock_guard<std::mutex> lock(mutex);
        return deaths;
    }
    Clock::time_point deathTime() {
        std::lock_guard<std::mutex> lock(mutex);
        return diedAt;
    }

private:
    std::mutex mutex;  // guards: deaths, diedAt
    int deaths = 0;
    Clock::time_point diedAt;
};

// One request per application thread, each on its own track, with the default it returns when
// the service is gone.
struct PendingRequest {
    const char* call;  // the player's call it blocks in, as kill_service writes it
    std::function<std::string(ZEMAudioTrack&)> run;
    std::string failed;
};

std::vector<PendingRequest> pendingRequests() {
    const std::string noState =
        text(MediaPlayerStateV2(0, 0, MediaPlayerProtection("", false), ""));
    return {
        {"play", [](ZEMAudioTrack& t) { return text(t.play()); }, text(false)},
        {"stop", [](ZEMAudioTrack& t) { return text(t.stop()); }, text(false)},
        {"pause", [](ZEMAudioTrack& t) { return text(t.pause()); }, text(false)},
        {"resume", [](ZEMAudioTrack& t) { return text(t.resume()); }, text(false)},
        {"getOffset", [](ZEMAudioTrack& t) { return text(t.getOffset()); }, text(-1)},
        {"seekTo", [](ZEMAudioTrack& t) { return text(t.seekTo(5, true)); }, text(false)},
        {"setVolume", [](ZEMAudioTrack& t) { return text(t.setVolume(0.5f)); }, text(false)},
        {"getMediaPlayerStateV2", [](ZEMAudioTrack& t) { return text(t.getMediaPlayerStateV2()); },
         noState},
    };
}

TEST(ServiceKillTest, PendingCallsFailWithTheirDefaultsAndEachListenerHearsDeathOnceWithin100Ms) {
    PrivateRuntimeDir dir;
    Process service({KILL_SERVICE_PATH});
    ASSERT_EQ(service.readLine(), "ready");
    auto sink = std::make_shared<RecordingLogSink>();
    const std::vector<PendingRequest> requests = pendingRequests();
    std::vector<std::shared_ptr<DeathListener>> listeners;
    std::vector<std::unique_ptr<ZEMAudioTrack>> tracks;
    for (size_t k = 0; k < requests.size(); ++k) {
        listeners.push_back(std::make_shared<DeathListener>(sink, "v3"));
    }
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
        calls.push_back(std::async(std::launch::async, requests[k].run, std::ref(*tracks[k])));
    }
    std::multiset<std::string> blocked, expected;
    for (const PendingRequest& request : requests) {
        expected.insert(std::string("blocked ") + request.call);
        blocked.insert(service.readLine().value_or("(none)"));
    }
    ASSERT_EQ(blocked, expected);

    const Clock::time_point killed = Clock::now();
    service.kill();
    for (size_t k = 0; k < requests.size(); ++k) {
        ASSERT_EQ(calls[k].wait_for(kTimeout), std::future_status::ready) << requests[k].call;
        EXPECT_EQ(calls[k].get(), requests[k].failed) << requests[k].call;
    }
    ASSERT_TRUE(waitUntil([&] {
        for (auto& listener : listeners) {
            if (listener->deathCount() == 0) return false;
        }
        return true;
    }));
    long long latest = 0;
    for (size_t k = 0; k < listeners.size(); ++k) {
        latest = std::max(latest, msSince(killed, listeners[k]->deathTime()));
        EXPECT_LE(msSince(killed, listeners[k]->deathTime()), kDeathBound.count()) << k;
    }
    RecordProperty("last_death_ms", static_cast<int>(latest));
    letGo.set_value();
    // Later calls fail at once and bring no second death.
    for (auto& track : tracks) EXPECT_FALSE(track->play());
    tracks.clear();
    for (auto& listener : listeners) EXPECT_EQ(listener->deathCount(), 1);
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
