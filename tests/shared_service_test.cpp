// Both halves against peers that break the protocol or stall: a service that answers with
// malformed replies and asks for absurd buffers (hostile_service), clients that answer with a
// malformed buffer, stay inside an event or destroy their track from inside one (hostile_client).
// Neither process may crash, and one bad peer may hold up no other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orv/AudioServerImpl.h>
#include <orv/ZEMAudioServer.h>

#include <atomic>
#include <climits>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "common/RecordCodec.h"
#include "support/ServerFixture.h"

namespace orv::test {
namespace {

using namespace ::testing;
using namespace parlex::test;

TEST(HostileServiceTest, MalformedRepliesAndOversizedBufferRequestsFailAloneAndThrowNothing) {
    PrivateRuntimeDir dir;
    Process service({HOSTILE_SERVICE_PATH});
    ASSERT_EQ(service.readLine(), "ready");
    auto sink = std::make_shared<RecordingLogSink>();
    auto listener = std::make_shared<RecordingListener>(sink, "v3");
    std::atomic<int> filled{0};  // the listener's getBuffer calls; it writes nothing
    listener->count = [&](int) {
        ++filled;
        return 0;
    };
    std::unique_ptr<ZEMAudioTrack> track(createZEMAudioTrack());
    ASSERT_TRUE(track->init(std::shared_ptr<EventListenerV3>(listener), sink));

    std::string got;
    EXPECT_NO_THROW(got = text(track->getPlaybackReportArray()));
    EXPECT_EQ(got, "0:");
    EXPECT_NO_THROW(got = text(track->getPlaybackReports()));
    EXPECT_EQ(got, "0:");
    EXPECT_EQ(
        sink->count(LOG_ERROR,
                    "remoteCall:RPC failed exception: PlaybackReportArray count 1000 exceeds"),
        1u);
    EXPECT_EQ(
        sink->count(LOG_ERROR, "remoteCall:RPC failed exception: PlaybackReports count 2147483647"),
        1u);
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
            sink->count(LOG_ERROR, "getBuffer:refused a request for " + text(size) + " bytes"),
            refused ? 1u : 0u);
    }
    EXPECT_EQ(filled, 2);
}

class HostileClientTest : public ServerFixture {
protected:
    HostileClientTest() {
        ON_CALL(*player, setSource).WillByDefault([this](const SourceConfig&, const char*) {
            return nextSourceId.fetch_add(1);
        });
    }

    std::atomic<long long> nextSourceId{100};  // the player's next source id
};

// The sleeper, then the destroyer, come before the polite client in the registry: a broadcast
// that waited for each client in turn would never reach the polite one.
TEST_F(HostileClientTest, AClientStuckInOrDestroyingFromItsMetadataEventHoldsUpNoOtherClient) {
    std::promise<void> destroyed;
    EXPECT_CALL(*player, releaseSource(_)).Times(AnyNumber());
    EXPECT_CALL(*player, releaseSource(101)).WillOnce([&](long long) {
        destroyed.set_value();
        return 0;
    });
    Process& sleeper = start({HOSTILE_CLIENT_PATH, "sleep"});      // source 100
    Process& destroyer = start({HOSTILE_CLIENT_PATH, "destroy"});  // source 101
    Process& polite = client(1);
    setPcm(polite, 0, 102);
    uint8_t buffer[64];
    int got = 0;
    EXPECT_NO_THROW(got = impl->getData(buffer, sizeof buffer, 100));  // answered malformed
    EXPECT_EQ(got, -1);
    EXPECT_EQ(sink->count(LOG_ERROR, "getData:malformed reply: readBlob failed"), 1u);

    auto broadcast = std::async(std::launch::async, [&] {
        impl->updateMetadata({{"title", "Song"}});
    });
    EXPECT_EQ(sleeper.readLine(), "metadata");
    EXPECT_EQ(destroyer.readLine(), "metadata");
    EXPECT_EQ(destroyer.readLine(), "destroyed");
    EXPECT_EQ(destroyed.get_future().wait_for(kTimeout), std::future_status::ready);
    MetadataKeyValuePairs pairs;
    pairs.pairs[pairs.count++] = MetadataKeyValuePair("com.tarnek.kolvo.metadata.update", "true");
    pairs.pairs[pairs.count++] = MetadataKeyValuePair("title", "Song");
    EXPECT_EQ(polite.readLine(),
              "event 0 onStreamMetadataExtracted " + hex(102LL, MediaPlayerStateV2(), pairs));
    // While the sleeper still holds its event, the others' audio flows and new tracks come.
    auto pull = std::async(std::launch::async, [&] { return impl->getData(buffer, 64, 102); });
    EXPECT_EQ(pull.wait_for(kTimeout), std::future_status::ready);
    EXPECT_EQ(polite.readLine(), "getBuffer 0 64");
    client(1);
    EXPECT_NE(broadcast.wait_for(std::chrono::milliseconds(0)), std::future_status::ready);
    sleeper.writeLine("wake");
    const bool done = broadcast.wait_for(kTimeout) == std::future_status::ready;
    EXPECT_TRUE(done);
    if (!done) {
        for (auto& peer : peers) peer->kill();  // so that the futures above can end
    }
}

TEST_F(HostileClientTest, EverySourceATrackStillHoldsIsReleasedOnceWhenItGoes) {
    std::promise<void> gone;
    {
        InSequence order;
        EXPECT_CALL(*player, releaseSource(100));  // by "destroy"
        EXPECT_CALL(*player, releaseSource(101));  // replaced by another URL
        EXPECT_CALL(*player, releaseSource(102)).WillOnce([&](long long) {  // as the client goes
            gone.set_value();
            return 0;
        });
    }
    Process& peer = client(1);
    setPcm(peer, 0, 100);
    EXPECT_EQ(send(peer, "0 destroy -"), "reply -");
    setPcm(peer, 0, 101);
    EXPECT_THAT(send(peer, "0 play -"), StartsWith("reply "));
    const MediaDescription none;
    EXPECT_EQ(send(peer, "0 setZEMAudioSourceV2MediaDescription " +
                             hex(source<ZEMAudioSourceV2>(kSourceTypeUrl), none)),
              "reply " + hex(102LL));
    peer.kill();
    EXPECT_EQ(gone.get_future().wait_for(kTimeout), std::future_status::ready);
    EXPECT_EQ(
        sink->count(LOG_LIFECYCLE, "~ZEMServerTrack:released sourceId=102, set after destroy"), 1u);
}

}  // namespace
}  // namespace orv::test
