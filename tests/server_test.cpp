// The server half between a GoogleMock player and clients in other processes (track_client)
// driven line by line: requests, sources, audio pulls, events and the registry of tracks, and
// clients that stall in an event, destroy their track from inside one or answer malformed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orv/AudioServerImpl.h>
#include <orv/ZEMAudioServer.h>

#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "common/RecordCodec.h"
#include "support/MockPlayer.h"
#include "support/Process.h"
#include "support/RawArgs.h"

namespace orv::test {
namespace {

using namespace ::testing;
using namespace parlex::test;

constexpr const char* kTrack = "ZEMServerTrack";

// The wire bytes of `values` in hex, as the peers take and print arguments, replies and events.
template <typename... T>
std::string hex(const T&... values) {
    return Raw::encoding(values...).hex();
}

// The pairs a metadata update carries: the marker, then the first 19 of `metadata` by key.
MetadataKeyValuePairs update(const std::map<std::string, std::string>& metadata) {
    MetadataKeyValuePairs pairs;
    pairs.pairs[pairs.count++] = {"com.tarnek.kolvo.metadata.update", "true"};
    for (auto it = metadata.begin(); it != metadata.end() && pairs.count < 20; ++it)
        pairs.pairs[pairs.count++] = {it->first.c_str(), it->second.c_str()};
    return pairs;
}

class ServerTest : public ::testing::Test {
protected:
    ServerTest() {
        ON_CALL(*player, setSource).WillByDefault([this](const SourceConfig& config, const char*) {
            std::lock_guard<std::mutex> lock(configsMutex);
            configs.push_back(config);
            return 99 + static_cast<long long>(configs.size());
        });
    }

    // A track_client with `tracks` tracks (the first client's are 0, 1...), once it is ready.
    Process& client(int tracks, const char* mode = "") {
        peers.push_back(std::make_unique<Process>(
            std::vector<std::string>{TRACK_CLIENT_PATH, text(tracks), mode}));
        EXPECT_EQ(peers.back()->readLine(), "ready");
        return *peers.back();
    }
    // ThreadSanitizer does not see the pipe and socket between this thread and the server's; the
    // sink's lock, which the server takes to log before it calls the player, orders them.
    std::string send(Process& peer, const std::string& command) {
        sink->entries();
        peer.writeLine(command);
        return peer.readLine().value_or("(no answer)");
    }
    void setPcm(Process& peer, int track, long long id) {
        EXPECT_EQ(send(peer, std::to_string(track) + " setZEMAudioSource " + hex(source(0))),
                  "reply " + hex(id));
    }

    PrivateRuntimeDir runtimeDir;
    std::mutex configsMutex;            // guards: configs
    std::vector<SourceConfig> configs;  // every source the player opened: ids 100, 101...
    std::shared_ptr<NiceMock<MockPlayer>> player = std::make_shared<NiceMock<MockPlayer>>();
    std::shared_ptr<RecordingLogSink> sink = std::make_shared<RecordingLogSink>();
    std::unique_ptr<ZEMAudioServer> server = std::make_unique<ZEMAudioServer>(player, sink);
    AudioServerImpl* impl = static_cast<AudioServerImpl*>(player->delegate.load());
    std::vector<std::unique_ptr<Process>> peers;
};

TEST_F(ServerTest, RequestReachesPlayerWithCurrentSourceIdAndAMalformedOneChangesNothing) {
    // Other source ids or values get the mock's default results; the player's offset and records
    // reach the client in its end-to-end tests.
    ON_CALL(*player, play(100)).WillByDefault(Return(3));
    ON_CALL(*player, stop(100)).WillByDefault(Return(4));
    ON_CALL(*player, pause(100)).WillByDefault(Return(5));
    ON_CALL(*player, resume(100)).WillByDefault(Return(-6));
    ON_CALL(*player, seekTo(100, 1500, true)).WillByDefault(Return(7));
    ON_CALL(*player, newDecryptKey(100, StrEq("key"))).WillByDefault(Return(8));
    ON_CALL(*player, setVolume(0.5f, 100)).WillByDefault(Return(9));
    ON_CALL(*player, setFocusSessionId(4294967295u, 100)).WillByDefault(Return(10));
    Process& peer = client(1);  // the player is set up before the server's threads first call it
    setPcm(peer, 0, 100);
    const std::string pcm = hex(source(0));
    struct Row {
        std::string request, args, answer;  // answer "error": the request is refused
        LogLevel level = LOG_TRACE;         // of the line logged, "<request>:sourceId=100<values>"
        std::string values = "";
    };
    for (const Row& row : std::vector<Row>{
             {"seekTo", hex(1500), "error"},                                 // the flag is missing
             {"setZEMAudioSource", pcm.substr(0, pcm.size() - 8), "error"},  // a text cut off
             {"setSource", hex(source(0).format, 5), "error"},  // a text's length, no text
             {"setZEMAudioSourceMediaDescription", pcm + hex(-1, 0, -1, -1, -1, -1, 21), "error"},
             {"play", hex(1), "error"},  // bytes after the arguments
             {"play", "-", hex(3)},
             {"stop", "-", hex(4)},
             {"pause", "-", hex(5)},
             {"resume", "-", hex(-6)},
             {"seekTo", hex(1500, 7), hex(7), LOG_LIFECYCLE, ", offsetInMs=1500, fromStart=1"},
             {"getOffset", "-", hex(0), LOG_DATA},
             {"newDecryptKey", hex(std::string("key")), hex(8), LOG_DEPRECATED},
             {"setVolume", hex(0.5f), hex(9), LOG_TRACE, ",volume=0.500000"},
             {"setFocusSessionId", hex(-1), hex(10), LOG_TRACE, ",focusSessionId=4294967295"},
             {"getMediaPlayerState", "-", hex(MediaPlayerState())},
             {"getMediaPlayerStateV2", "-", hex(MediaPlayerStateV2())},
             {"getPlaybackAttributes", "-", hex(PlaybackAttributes())},
             {"getPlaybackReports", "-", hex(PlaybackReports())},
             {"getFingerprint", "-", hex(Fingerprint())},
             {"getPlaybackReportArray", "-", hex(PlaybackReportArray())}}) {
        const std::string got = send(peer, "0 " + row.request + " " + row.args);
        const bool refused = row.answer == "error";
        EXPECT_EQ(refused ? got.substr(0, 6) : got, refused ? "error " : "reply " + row.answer)
            << row.request << " " << row.args;
        if (refused) continue;
        EXPECT_EQ(sink->entries().back(),
                  (LogEntry{row.level, kTrack, row.request + ":sourceId=100" + row.values}));
    }
    EXPECT_CALL(*player, releaseSource(100));  // once: a second "destroy" does nothing
    for (int i = 0; i < 2; ++i) EXPECT_EQ(send(peer, "0 destroy -"), "reply -");
    EXPECT_EQ(sink->entries().back(),
              (LogEntry{LOG_LIFECYCLE, "AudioServerImpl", "removeTrack:trackId=0"}));
}

TEST_F(ServerTest, SourceIsCheckedAndConvertedForThePlayer) {
    Process& peer = client(1);
    const MediaDescription none;
    auto mono32 = source<ZEMAudioSourceV2>(kSourceTypePcm, 1, 32);
    mono32.param3 = 0x100000005;  // only the low 32 bits reach the player
    auto eightBit = source<ZEMAudioSourceV4>(kSourceTypePcm, 2, 8);
    eightBit.param7 = true;
    eightBit.volumeGain = 0.25f;
    auto url = source<ZEMAudioSourceV3>(kSourceTypeUrl);
    url.param2 = 0x100000007;
    // type, sample format, channel layout, rate, start offset, param3, param7, gain ("": rejected)
    auto fields = [](const SourceConfig& c) {
        return join(c.type, c.sampleFormat, c.channelLayout, c.sampleRate, c.startOffset, c.param3,
                    c.param7, c.volumeGain);
    };
    size_t count = 0;  // sources opened
    for (const auto& [command, opened] : std::vector<std::pair<std::string, std::string>>{
             {"setZEMAudioSource " + hex(source(0)), "0/0/3/48000/9/0/0/1.000000/"},
             {"setZEMAudioSourceV2MediaDescription " + hex(mono32, none),
              "0/2/4/48000/9/5/0/1.000000/"},
             {"setZEMAudioSourceV4MediaDescription " + hex(eightBit, none),
              "0/-1/3/48000/9/0/1/0.250000/"},
             {"setSource " + hex(source(0).format, "c"), "0/0/3/48000/9/0/0/0.000000/"},
             {"setZEMAudioSourceV3MediaDescription " + hex(url, none), "1/0/0/0/7/0/0/1.000000/"},
             {"setZEMAudioSource " + hex(source(0, 2, 16, true, 2)), ""},
             {"setZEMAudioSource " + hex(source(0, 2, 24)), ""},
             {"setZEMAudioSource " + hex(source(0, 3, 16)), ""},
             {"setZEMAudioSource " + hex(source(0, 2, 16, false)), ""},
             {"setSource " + hex(source(0, 1).format, "c"), ""},
             {"setZEMAudioSource " + hex(source(5)), ""}}) {  // unknown type: no log
        const std::string reply = send(peer, "0 " + command);
        std::lock_guard<std::mutex> lock(configsMutex);
        ASSERT_EQ(configs.size(), opened.empty() ? count : ++count) << command;
        EXPECT_EQ(reply, "reply " + hex(99 + static_cast<long long>(count))) << command;
        EXPECT_EQ(opened.empty() ? "" : fields(configs.back()), opened) << command;
    }
    EXPECT_EQ(sink->count(LOG_ERROR, "toORVFormat:Unsupported sample size=8"), 1u);
    EXPECT_EQ(sink->count(LOG_LIFECYCLE, "setSource:clusterId=c,url=[redacted],"), 1u);
    EXPECT_EQ(sink->count(LOG_LIFECYCLE, "setSource:unsupported format"), 5u);
}

// A source counts as the same when its type and URL match and its third text matches or is
// absent on either side. A muted track stays muted on every new source.
TEST_F(ServerTest, SameSourceOpensBeforeReleaseAndEveryNewSourceGetsVolumeAndFocus) {
    Process& peer = client(1);
    MediaDescription third;
    third.thirdText = new char[2]{'t', 0};
    const MediaDescription none;
    auto urlA = source<ZEMAudioSourceV4>(kSourceTypeUrl);
    auto urlB = urlA;
    urlB.setUrl("https://b");
    {
        InSequence order;
        EXPECT_CALL(*player, setVolume(0.0f, 0));
        EXPECT_CALL(*player, setSource(_, StrEq("c")));
        EXPECT_CALL(*player, setVolume(0.0f, 100));
        EXPECT_CALL(*player, setFocusSessionId(0u, 100));
        EXPECT_CALL(*player, setFocusSessionId(7u, 100));
        EXPECT_CALL(*player, setSource(_, _));  // the same source: the new one opens first
        EXPECT_CALL(*player, setVolume(0.0f, 101));
        EXPECT_CALL(*player, setFocusSessionId(7u, 101));
        EXPECT_CALL(*player, releaseSource(100));
        EXPECT_CALL(*player, releaseSource(101));  // another URL: the old one goes first
        EXPECT_CALL(*player, setSource(_, _));
        EXPECT_CALL(*player, setVolume(0.0f, 102));
        EXPECT_CALL(*player, setFocusSessionId(7u, 102));
        EXPECT_CALL(*player, releaseSource(102));  // when the client goes
    }
    const std::string set = "0 setZEMAudioSourceV4MediaDescription ";
    for (const std::string& command :
         {"0 setVolume " + hex(0.0f), set + hex(urlA, third), "0 setFocusSessionId " + hex(7),
          set + hex(urlA, none), set + hex(urlB, third)}) {
        EXPECT_THAT(send(peer, command), StartsWith("reply "));
    }
    EXPECT_EQ(sink->count(LOG_TRACE, "releaseSourceId:"), 1u);
    EXPECT_EQ(sink->count(LOG_TRACE, "releaseSourceId:sourceId=101"), 1u);
}

TEST_F(ServerTest, GetDataAsksAtMost12288AndNeverWritesPastWhatItAsked) {
    Process& peer = client(1);
    setPcm(peer, 0, 100);
    // size the player offers, bytes the client answers (-1: as asked), bytes asked, result
    using Row = std::tuple<int, int, int, int>;
    for (auto [size, answered, asked, result] :
         {Row{16383, -1, 16383, 16383}, Row{16384, -1, 12288, 12288}, Row{65536, -1, 12288, 12288},
          Row{4096, 0, 4096, -1}, Row{100, 20000, 100, 100}}) {
        EXPECT_EQ(send(peer, "buffer " + std::to_string(answered)), "ok");
        std::vector<uint8_t> buffer(static_cast<size_t>(size) + 1, 0xEE);
        EXPECT_EQ(impl->getData(buffer.data(), static_cast<unsigned int>(size), 100), result);
        EXPECT_EQ(peer.readLine(), "getBuffer 0 " + std::to_string(asked));
        for (int k = 0; k < result; ++k) ASSERT_EQ(buffer[k], k % 251) << size << " at " << k;
        EXPECT_EQ(buffer[result < 0 ? 0 : result], 0xEE) << size;
    }
    EXPECT_EQ(sink->count(LOG_ERROR, "getData:reply of 20000 bytes cut to the 100 asked for"), 1u);
    sink->clear();
    EXPECT_EQ(impl->getData(nullptr, 10, 0x100000003), -1);  // only the low 32 bits are printed
    impl->onBufferUnderrunStarted(3, MediaPlayerStateV2());  // named as the host named it
    EXPECT_EQ(sink->count(LOG_ERROR, "getTrack:cannot find track, sourceId=3"), 2u);
    for (const std::string report : {"getData", "onBufferUnderrunStarted"})
        EXPECT_EQ(sink->count(LOG_ERROR, report + ":no track found, sourceId=3"), 1u);
}

TEST_F(ServerTest, ReportAndMetadataReachTheirClientsUnderTheirWireNamesArgumentsInOrder) {
    Process& peer = client(3);  // track 2 has no source
    setPcm(peer, 0, 100);
    ON_CALL(*player, setSource).WillByDefault(Return(kSourceId));
    setPcm(peer, 1, kSourceId);
    const MediaPlayerStateV2 s = eventState();
    MetadataKeyValuePairs title;
    title.pairs[title.count++] = MetadataKeyValuePair("title", "Song");
    // The event's arguments when they are not the source id and the state.
    const std::map<std::string, std::string> args = {
        {"closeAudioSource", "-"},
        {"onPlaybackError", hex(kSourceId, 12, std::string("boom"), s)},
        {"onStreamMetadataExtracted", hex(kSourceId, s, title)},
        {"onSeeked", hex(kSourceId, s, seekedState())},
        {"onStopRequested", hex(kSourceId)},
        {"onLicenseAvailable", hex(kSourceId)},
        {"onFirstDataSegmentAvailable", hex(kSourceId)}};
    fireEvents(*impl);  // as the player reports, named as the host names them
    for (const EventRow& row : eventRows()) {
        const auto special = args.find(row.name);
        EXPECT_EQ(peer.readLine(),
                  "event 1 " + row.name + " " +
                      (special != args.end() ? special->second : hex(kSourceId, s)));
        EXPECT_THAT(sink->entries(), Contains(LogEntry{LOG_TRACE, kTrack, row.log}));
    }
    // A metadata update goes to every live track: the marker, then at most 19 entries by key.
    // The tracks get it at once, so their lines come in any order.
    for (int entries : {0, 25}) {
        std::map<std::string, std::string> metadata;
        for (char key[] = "ka"; key[1] < 'a' + entries; ++key[1])
            metadata[key] = key + std::string("v");
        const MetadataKeyValuePairs expected = update(metadata);
        impl->updateMetadata(metadata);
        std::vector<std::string> lines, sent;
        for (long long track : {0, 1, 2}) {
            const long long id[] = {100, kSourceId, 0};
            lines.push_back(peer.readLine().value_or("(none)"));
            sent.push_back("event " + text(track) + " onStreamMetadataExtracted " +
                           hex(id[track], MediaPlayerStateV2(), expected));
        }
        EXPECT_THAT(lines, UnorderedElementsAreArray(sent));
    }
}

TEST_F(ServerTest, EventsOfATrackNeverOverlapAudioFlowsBetweenAndADeadClientOnlyLogs) {
    Process& peer = client(1, "hold");
    setPcm(peer, 0, 100);
    const MediaPlayerStateV2 state;
    auto first = std::async(std::launch::async, [&] { impl->onPlaybackStarted(100, state); });
    EXPECT_EQ(peer.readLine(), "event 0 onPlaybackStarted " + hex(100LL, state));
    auto second = std::async(std::launch::async, [&] { impl->onPlaybackPaused(100, state); });
    // Logged before it waits its turn.
    ASSERT_TRUE(waitUntil([&] { return sink->count(LOG_TRACE, "onPlaybackPaused:") == 1; }));
    uint8_t buffer[64];
    EXPECT_EQ(impl->getData(buffer, sizeof buffer, 100), 64);
    EXPECT_EQ(peer.readLine(), "getBuffer 0 64");  // and not the second event yet
    peer.writeLine("release");
    EXPECT_EQ(peer.readLine(), "event 0 onPlaybackPaused " + hex(100LL, state));
    first.get();
    second.get();
    const auto track = impl->getTrack(100);  // outlives its client
    peer.kill();
    impl->onPlaybackStarted(100, state);  // returns
    EXPECT_EQ(sink->count(LOG_ERROR, "remoteEvent:client is dead"), 1u);
}

TEST_F(ServerTest, RegistryFollowsSourceChangesKeepsTheOldestOwnerNeverReusesIdsOutlivesTracks) {
    ON_CALL(*player, setSource).WillByDefault(Return(5));
    Process& first = client(3);
    for (int track = 0; track < 3; ++track) setPcm(first, track, 5);
    auto reach = [&](long long id) {  // the track that getData for `id` reaches
        uint8_t byte = 0;
        impl->getData(&byte, 1, id);
        return first.readLine().value_or("(none)");
    };
    EXPECT_EQ(reach(5), "getBuffer 0 1");
    // By "destroy", by a new source, as the client dies.
    EXPECT_CALL(*player, releaseSource(5)).Times(3);
    EXPECT_CALL(*player, releaseSource(6)).Times(2);
    ON_CALL(*player, setSource).WillByDefault(Return(6));
    setPcm(first, 0, 6);
    EXPECT_EQ(reach(6), "getBuffer 0 1");
    EXPECT_EQ(reach(5), "getBuffer 1 1");
    EXPECT_EQ(send(first, "1 destroy -"), "reply -");
    EXPECT_EQ(reach(5), "getBuffer 2 1");
    setPcm(first, 1, 6);  // after its destroy: still released as the client goes
    first.kill();
    ASSERT_TRUE(waitUntil([&] { return sink->count(LOG_LIFECYCLE, "removeTrack:trackId=") == 3; }));
    EXPECT_EQ(sink->count(LOG_LIFECYCLE, "~ZEMServerTrack:released sourceId=6, set after destroy"),
              1u);
    // The server goes while a request of the next client's tracks 3 and 4 is in the player.
    Process& second = client(2);
    std::promise<void> inside;
    EXPECT_CALL(*player, play(0)).WillOnce([&](long long) {
        inside.set_value();
        waitUntil([&] { return sink->count(LOG_LIFECYCLE, "~AudioServerImpl") == 1; });
        return 1;
    });
    EXPECT_EQ(sink->count(LOG_LIFECYCLE, "createNewTrack:created, trackId=3"), 1u);  // orders
    second.writeLine("0 play -");
    ASSERT_EQ(inside.get_future().wait_for(kTimeout), std::future_status::ready);
    EXPECT_CALL(*player, releaseSource(0)).Times(2);
    server.reset();  // under the address sanitizer: no track outlives the registry it leaves
    EXPECT_EQ(sink->count(LOG_LIFECYCLE, "removeTrack:trackId="), 5u);
}

using HostileClientTest = ServerTest;

// The sleeper, then the destroyer, come before the polite client in the registry: a broadcast
// that waited for each client in turn would never reach the polite one.
TEST_F(HostileClientTest, AClientStuckInOrDestroyingFromItsMetadataEventHoldsUpNoOtherClient) {
    std::promise<void> destroyed;
    EXPECT_CALL(*player, releaseSource(_)).Times(AnyNumber());
    EXPECT_CALL(*player, releaseSource(101)).WillOnce([&](long long) {
        destroyed.set_value();
        return 0;
    });
    Process& sleeper = client(1, "hold,malformed");
    Process& destroyer = client(1, "destroy");
    Process& polite = client(1);
    setPcm(sleeper, 0, 100);
    setPcm(destroyer, 0, 101);
    setPcm(polite, 0, 102);
    uint8_t buffer[64];
    EXPECT_EQ(impl->getData(buffer, sizeof buffer, 100), -1);  // answered malformed
    EXPECT_EQ(sink->count(LOG_ERROR, "getData:malformed reply: readBlob failed"), 1u);

    auto broadcast = std::async(std::launch::async, [&] {
        impl->updateMetadata({{"title", "Song"}});
    });
    EXPECT_TRUE(sleeper.readUntil("onStreamMetadataExtracted"));
    EXPECT_TRUE(destroyer.readUntil("onStreamMetadataExtracted"));
    EXPECT_EQ(destroyer.readLine(), "destroyed");
    EXPECT_EQ(destroyed.get_future().wait_for(kTimeout), std::future_status::ready);
    EXPECT_EQ(polite.readLine(), "event 0 onStreamMetadataExtracted " +
                                     hex(102LL, MediaPlayerStateV2(), update({{"title", "Song"}})));
    // While the sleeper still holds its event, the others' audio flows and new tracks come.
    auto pull = std::async(std::launch::async, [&] { return impl->getData(buffer, 64, 102); });
    EXPECT_EQ(pull.wait_for(kTimeout), std::future_status::ready);
    EXPECT_EQ(polite.readLine(), "getBuffer 0 64");
    client(1);
    EXPECT_NE(broadcast.wait_for(std::chrono::milliseconds(0)), std::future_status::ready);
    sleeper.writeLine("release");
    const bool done = broadcast.wait_for(kTimeout) == std::future_status::ready;
    EXPECT_TRUE(done);
    if (!done) {
        for (auto& peer : peers) peer->kill();  // so that the futures above can end
    }
}

}  // namespace
}  // namespace orv::test
