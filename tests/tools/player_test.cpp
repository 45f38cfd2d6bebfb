// The reference service's player, driven in-process through a fake client behind the delegate:
// what reaches the sink, the events and their order, pacing, underruns, files and their errors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include "HostPlayer.h"
#include "PlayoutClock.h"
#include "support/Process.h"

namespace zem {
namespace {

using namespace std::chrono_literals;
using orv::MediaPlayerStateV2;

#define EVENT(name, text) \
    void name(long long, const MediaPlayerStateV2&) override { record(text); }

// Serves `audio` in chunks of an odd size, not a whole number of frames; once half of it is
// out, answers nothing for `stallPulls` pulls. Takes `delay` over each call that the service
// waits for at its end, and 100 ms over the next pull once `slowOnce` is set. Records every
// event as a word of `events()`.
class FakeClient : public orv::MediaClientDelegate {
public:
    explicit FakeClient(std::vector<uint8_t> audio = {}, int stallPulls = 0)
        : audio(std::move(audio)), stallPulls(stallPulls) {}
    int getData(uint8_t* buffer, unsigned size, long long) override {
        if (throwOnData) throw std::runtime_error("malformed buffer");
        std::this_thread::sleep_for(slowOnce.exchange(false) ? 100ms : delay);
        std::lock_guard<std::mutex> lock(mutex_);
        if (served_ >= audio.size() / 2 && stallPulls > 0 && stallPulls--) return -1;
        const size_t n = std::min<size_t>({size, 1001, audio.size() - served_});
        std::copy_n(audio.begin() + static_cast<std::ptrdiff_t>(served_), n, buffer);
        served_ += n;
        return n == 0 ? -1 : static_cast<int>(n);
    }
    void closeDataSource(long long) override { record("close", delay); }
    void onStopRequested(long long) override { record("stopRequested", delay); }
    void onPlaybackError(long long, const orv::ErrorType& type, const char*,
                         const MediaPlayerStateV2&) override {
        record("error" + std::to_string(type));
    }
    void onStreamMetadataExtracted(long long, const MediaPlayerStateV2&,
                                   const orv::MetadataKeyValuePairs& pairs) override {
        for (uint32_t i = 0; i < pairs.count; ++i)
            record(std::string(pairs.pairs[i].key) + "=" + pairs.pairs[i].value);
    }
    EVENT(onFirstByteRead, "firstByte")
    void onPlaybackStarted(long long, const MediaPlayerStateV2&) override {
        record("started");
        if (throwOnStarted) throw std::runtime_error("event handler failed");
    }
    EVENT(onPlaybackFinished, "finished")
    EVENT(onPlaybackPaused, "paused")
    EVENT(onPlaybackResumed, "resumed")
    void onPlaybackStopped(long long, const MediaPlayerStateV2&) override {
        record("stopped", delay);
    }
    EVENT(onBufferUnderrunStarted, "underrun")
    EVENT(onBufferUnderrunEnded, "refilled")
    EVENT(onBufferingComplete, "complete")
    void onSeeked(long long, const MediaPlayerStateV2&, const MediaPlayerStateV2&) override {}
    void onLicenseAvailable(long long) override {}
    void onFirstDataSegmentAvailable(long long) override {}

    void record(const std::string& event, std::chrono::milliseconds after = {}) {
        std::this_thread::sleep_for(after);
        std::lock_guard<std::mutex> lock(mutex_);
        events_ += (events_.empty() ? "" : " ") + event;
    }
    std::string events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    bool waitFor(const std::string& event) {
        return parlex::test::waitUntil([&] { return events().find(event) != std::string::npos; });
    }

    std::vector<uint8_t> audio;
    int stallPulls = 0;
    bool throwOnData = false;
    bool throwOnStarted = false;
    std::chrono::milliseconds delay{0};
    std::atomic<bool> slowOnce{false};

private:
    std::mutex mutex_;  // guards: served_, stallPulls, events_
    size_t served_ = 0;
    std::string events_;
};

orv::SourceConfig urlSource(const std::string& url) {
    orv::SourceConfig config;
    config.type = orv::kSourceTypeUrl;
    config.setUrl(url.c_str());
    return config;
}

struct PlayerTest : testing::Test {
    HostPlayer::Options options(const std::string& sink = "") {
        std::string error;
        HostPlayer::Options options;
        options.sink =
            *SinkSpec::parse(sink.empty() ? "wav:" + dir.path() + "/out.wav" : sink, error);
        options.trackFiles = true;
        options.fast = true;
        return options;
    }
    orv::SourceConfig pcm(int32_t sampleFormat = 0, const char* totalFrames = "10000") {
        orv::SourceConfig config;
        config.sampleFormat = sampleFormat;
        config.channelLayout = 3;
        config.sampleRate = 48000;
        config.mediaDescription.firstMap.count = totalFrames ? 1 : 0;
        config.mediaDescription.firstMap.pairs[0] =
            orv::DescriptionPair(kTotalFramesKey, totalFrames);
        return config;
    }

    parlex::test::PrivateRuntimeDir dir;  // a private temporary directory
    HostPlayer player{options()};
    std::vector<uint8_t> audio = std::vector<uint8_t>(40000);
};

TEST_F(PlayerTest, PcmReachesTheSinkWholeAtVolumeUnderrunsOncePerStallAndEndsWhenItStaysDry) {
    for (size_t i = 0; i < audio.size(); ++i) audio[i] = static_cast<uint8_t>(i * 7 + i / 256);
    const struct {
        int stallPulls;
        float volume;
        const char* totalFrames;  // none: the stream ends when it stays dry
        std::string events;
    } cases[] = {
        {0, 1.0f, "10000", "firstByte started complete finished close"},
        {3, 0.0f, "10000", "firstByte started underrun refilled complete finished close"},
        {0, 1.0f, nullptr, "firstByte started underrun complete finished close"},
    };
    long long track = 0;
    for (const auto& test : cases) {
        FakeClient client(audio, test.stallPulls);
        player.setMediaClientDelegate(&client);
        const long long id = player.setSource(pcm(0, test.totalFrames), "cluster");
        ASSERT_EQ(player.setVolume(test.volume, id), 0);
        ASSERT_EQ(player.play(id), 0);
        ASSERT_TRUE(client.waitFor("close"));
        EXPECT_EQ(client.events(), test.events);
        SF_INFO info{};
        const std::string path = dir.path() + "/out.track" + std::to_string(++track) + ".wav";
        SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
        std::vector<uint8_t> written(audio.size());
        EXPECT_EQ(sf_read_raw(file, written.data(), static_cast<sf_count_t>(written.size())),
                  static_cast<sf_count_t>(audio.size()));
        sf_close(file);
        EXPECT_EQ(written, test.volume == 1.0f ? audio : std::vector<uint8_t>(audio.size()));
        ContentHash hash;
        hash.add(audio.data(), audio.size());
        EXPECT_STREQ(player.getFingerprint(id).second, hash.hex().c_str());
        player.releaseSource(id);
    }
}

TEST(PlayoutClockTest, PacesToTheRateNeverPlaysPastTheDataAndRestartsAfterAGap) {
    const auto t0 = std::chrono::steady_clock::now();
    PlayoutClock clock(1000, 100, true);
    clock.start(t0);
    clock.wrote(100, t0);
    EXPECT_FALSE(clock.wantsData(t0));
    EXPECT_EQ(clock.nextPullAt(t0), t0 + 1ms);
    EXPECT_EQ(clock.played(t0 + 50ms), 50);
    EXPECT_TRUE(clock.dry(t0 + 150ms) && clock.played(t0 + 150ms) == 100);
    clock.wrote(10, t0 + 150ms);
    EXPECT_EQ(clock.played(t0 + 155ms), 105);
    clock.pause(t0 + 155ms);
    EXPECT_EQ(clock.played(t0 + 1s), 105);
    PlayoutClock fast(1000, 100, false);
    fast.wrote(500, t0);
    EXPECT_TRUE(fast.wantsData(t0) && fast.played(t0) == 500);
}

TEST_F(PlayerTest, FileSourceReportsItsTagsAndUnplayableSourcesReportWhy) {
    SF_INFO info{4800, 48000, 2, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* file = sf_open((dir.path() + "/tagged.flac").c_str(), SFM_WRITE, &info);
    sf_set_string(file, SF_STR_TITLE, "Tone");
    sf_writef_short(file, reinterpret_cast<const short*>(audio.data()), 4800);
    sf_close(file);
    const std::pair<std::string, std::string> cases[] = {
        {"file://" + dir.path() + "/tagged.flac",
         "duration-ms=100 title=Tone firstByte started complete finished"},
        {dir.path() + "/missing.wav", "error1"},
        {"/proc/self/exe", "error1"},  // not audio
        {"", "error2 close"},          // a PCM source of 8-bit samples
    };
    for (const auto& [url, events] : cases) {
        FakeClient client;
        player.setMediaClientDelegate(&client);
        const long long id = player.setSource(url.empty() ? pcm(-1) : urlSource(url), "cluster");
        player.play(id);
        ASSERT_TRUE(client.waitFor(events.substr(events.rfind(' ') + 1))) << url << client.events();
        EXPECT_EQ(client.events(), events) << url;
        player.releaseSource(id);
    }
}

TEST_F(PlayerTest, ShutdownTellsTheClientToStopAndEndsEveryThread) {
    FakeClient client(audio, 1 << 30);
    player.setMediaClientDelegate(&client);
    player.play(player.setSource(pcm(), "cluster"));
    ASSERT_TRUE(client.waitFor("underrun"));
    ASSERT_TRUE(player.shutdown(std::chrono::steady_clock::now() + 10s));
    EXPECT_NE(client.events().find("underrun stopRequested stopped close"), std::string::npos);
}

// The service's shutdown and a client's release on a transport thread can wait for one source's
// thread at the same time.
TEST_F(PlayerTest, ShutdownWhileSourcesAreReleasedJoinsEachSourceOnce) {
    FakeClient client(audio);
    for (int round = 0; round < 20; ++round) {
        HostPlayer racing{options("none")};
        racing.setMediaClientDelegate(&client);
        std::vector<long long> ids;
        for (int i = 0; i < 8; ++i) ids.push_back(racing.setSource(pcm(), "cluster"));
        std::thread releases([&] {
            for (const long long id : ids) racing.releaseSource(id);
        });
        EXPECT_TRUE(racing.shutdown(std::chrono::steady_clock::now() + 10s));
        releases.join();
    }
}

TEST_F(PlayerTest, WhatTheClientOrItsEventsThrowFailsOnlyThatSourceOrEvent) {
    for (const bool onData : {true, false}) {  // else in the "started" event
        FakeClient client(audio);
        client.throwOnData = onData;
        client.throwOnStarted = !onData;
        player.setMediaClientDelegate(&client);
        const long long id = player.setSource(pcm(), "cluster");
        EXPECT_EQ(player.play(id), 0);
        EXPECT_TRUE(client.waitFor("close"));
        EXPECT_EQ(client.events(),
                  onData ? "error3 close" : "firstByte started complete finished close");
        player.releaseSource(id);
    }
}

TEST_F(PlayerTest, ShutdownWaitsOutAClientThatAnswersEveryCallJustBeforeTheDeadline) {
    const auto deadline = 400ms;
    FakeClient client;  // answers every call just before the call deadline it must meet
    client.delay = deadline - 20ms;
    player.setMediaClientDelegate(&client);
    player.play(player.setSource(pcm(), "cluster"));
    std::this_thread::sleep_for(50ms);  // the source's thread is in a data request
    EXPECT_TRUE(player.shutdown(std::chrono::steady_clock::now() + shutdownGrace(deadline)));
    EXPECT_EQ(client.events(), "stopRequested stopped close");
}

TEST_F(PlayerTest, SeekWaitsForTheReadAheadInsteadOfReportingAnUnderrun) {
    HostPlayer::Options paced = options("none");
    paced.fast = false;
    FakeClient client(std::vector<uint8_t>(48000 * 4, 1));  // enough for what the seek repeats
    HostPlayer pacedPlayer(paced);
    pacedPlayer.setMediaClientDelegate(&client);
    const long long id = pacedPlayer.setSource(pcm(0, "24000"), "");
    ASSERT_EQ(pacedPlayer.play(id), 0);
    ASSERT_TRUE(client.waitFor("started"));
    client.slowOnce = true;  // the audio after the seek comes late
    ASSERT_EQ(pacedPlayer.seekTo(id, 100, true), 0);
    EXPECT_EQ(pacedPlayer.getOffset(id), 100);
    ASSERT_TRUE(client.waitFor("close"));
    EXPECT_EQ(client.events().find("underrun"), std::string::npos) << client.events();
}

TEST_F(PlayerTest, FileThatIsSlowToOpenHoldsUpNoOtherSource) {
    // A FIFO's open blocks until a writer appears: the file system that takes long to open.
    const std::string fifo = dir.path() + "/slow.wav";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::promise<void> opening;
    HostPlayer::Options slow = options();
    slow.openFile = [&](const std::string& path, const std::optional<PeerIdentity>& peer,
                        std::string& error, bool* denied) {
        opening.set_value();
        ::close(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        return openReadableBy(path, peer, error, denied);
    };
    FakeClient client(audio);  // outlives the player, which still calls it as it goes
    HostPlayer slowPlayer(slow);
    slowPlayer.setMediaClientDelegate(&client);
    const long long other = slowPlayer.setSource(pcm(), "cluster");
    auto slowSource =
        std::async(std::launch::async, [&] { return slowPlayer.setSource(urlSource(fifo), ""); });
    opening.get_future().wait();
    std::atomic<bool> answered{false};
    std::thread other_calls([&] {
        slowPlayer.getOffset(other);
        slowPlayer.play(other);
        answered = true;
    });
    EXPECT_TRUE(parlex::test::waitUntil([&] { return answered.load(); }));
    ::close(::open(fifo.c_str(), O_WRONLY | O_CLOEXEC));  // lets the slow open end
    other_calls.join();
    EXPECT_GT(slowSource.get(), 0);  // a source that fails when played: not a regular file
    EXPECT_TRUE(client.waitFor("close"));
}

TEST_F(PlayerTest, ClientProcessGetsItsShareOfSourcesAndPlaysOnlyFilesItCouldRead) {
    static thread_local parlex::PeerCredentials caller{100, 65534, 65534};
    HostPlayer::Options shared = options();
    shared.callingPeer = [] { return std::optional<parlex::PeerCredentials>(caller); };
    FakeClient client(audio);
    HostPlayer sharedPlayer(shared);
    sharedPlayer.setMediaClientDelegate(&client);
    std::vector<long long> ids;
    for (size_t i = 0; i < shared.maxSourcesPerProcess; ++i) {
        ids.push_back(sharedPlayer.setSource(pcm(), ""));
        ASSERT_GT(ids.back(), 0);
    }
    EXPECT_EQ(sharedPlayer.setSource(pcm(), ""), 0);
    caller.pid = 200;
    EXPECT_GT(sharedPlayer.setSource(pcm(), ""), 0);
    caller.pid = 100;
    sharedPlayer.releaseSource(ids.back());
    EXPECT_GT(sharedPlayer.setSource(pcm(), ""), 0);

    caller.pid = 300;
    const std::string secret = dir.path() + "/secret.wav";
    SF_INFO info{4800, 48000, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    sf_close(sf_open(secret.c_str(), SFM_WRITE, &info));
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(secret.c_str(), 0600), 0);
    const long long refused = sharedPlayer.setSource(urlSource("file://" + secret), "");
    EXPECT_EQ(sharedPlayer.play(refused), -1);
    EXPECT_TRUE(client.waitFor("error1"));
    struct stat written {};
    EXPECT_NE(::stat((dir.path() + "/out.track1.wav").c_str(), &written), 0);  // nothing played
}

// Files owned by this process's user, checked for synthetic peers: another user, a member of
// the files' group, and the owner himself.
TEST(AccessTest, PeerReadsOnlyWhatItsOwnRightsAllowThroughEveryDirectoryAndLink) {
    parlex::test::PrivateRuntimeDir dir;
    const std::string base = dir.path();
    ASSERT_EQ(::chmod(base.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((base + "/closed").c_str(), 0700), 0);
    const uid_t me = ::geteuid();
    const gid_t group = ::getegid();
    const uid_t stranger = me == 0 ? 1000 : me + 1000;
    const gid_t otherGroup = group + 1000;
    const auto make = [&](const std::string& name, mode_t mode) {
        const std::string path = base + "/" + name;
        ::close(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        return path;
    };
    const std::string secret = make("secret.wav", 0600);
    const std::string open = make("open.wav", 0644);
    const std::string grouped = make("grouped.wav", 0640);
    const std::string notForOwner = make("others.wav", 0044);
    const std::string hidden = make("closed/open.wav", 0644);
    ASSERT_EQ(::symlink(secret.c_str(), (base + "/to-secret").c_str()), 0);
    ASSERT_EQ(::symlink(open.c_str(), (base + "/to-open").c_str()), 0);
    const PeerIdentity other{stranger, otherGroup, {}};
    const PeerIdentity member{stranger, otherGroup, {otherGroup + 1, group}};
    // As root, the file goes to a synthetic owner, so that root's rights do not hide its bits.
    const uid_t fileOwner =
        me == 0 && ::chown(notForOwner.c_str(), stranger, static_cast<gid_t>(-1)) == 0 ? stranger
                                                                                       : me;
    const PeerIdentity owner{fileOwner, otherGroup, {}};
    const struct {
        std::string path;
        std::optional<PeerIdentity> peer;
        bool readable;
    } cases[] = {
        {secret, other, false},
        {secret, PeerIdentity{0, 0, {}}, true},
        {secret, std::nullopt, true},  // the service itself
        {open, other, true},
        {hidden, other, false},
        {base + "/closed/missing.wav", other, false},
        {grouped, other, false},
        {grouped, member, true},
        {grouped, PeerIdentity{stranger, group, {}}, true},
        {notForOwner, owner, fileOwner == 0},  // the owner's bits rule the owner
        {notForOwner, PeerIdentity{stranger + 1, otherGroup, {}}, true},
        {base + "/to-secret", other, false},
        {base + "/to-open", other, true},
    };
    for (const auto& test : cases) {
        std::string error;
        bool denied = false;
        const int fd = openReadableBy(test.path, test.peer, error, &denied);
        EXPECT_EQ(fd >= 0, test.readable) << test.path << ": " << error;
        EXPECT_EQ(denied, !test.readable) << test.path;
        EXPECT_EQ(error == "permission denied", !test.readable) << test.path << ": " << error;
        if (fd >= 0) ::close(fd);
    }
    const PeerIdentity self = peerIdentity(::getpid(), me, group);
    std::vector<gid_t> groups(static_cast<size_t>(::getgroups(0, nullptr)));
    groups.resize(static_cast<size_t>(::getgroups(static_cast<int>(groups.size()), groups.data())));
    EXPECT_EQ(self.groups, groups);
    EXPECT_TRUE(peerIdentity(::getpid(), me + 1, group).groups.empty());  // a reused pid
}

TEST(WavSinkTest, HeaderCarriesTheStreamFormatTracksAreNamedByOrderAndBadPathsFailAtOnce) {
    parlex::test::PrivateRuntimeDir dir;
    std::string error;
    const std::pair<StreamFormat, int> cases[] = {
        {{SampleType::S16, 16, 8000, 1}, SF_FORMAT_PCM_16},
        {{SampleType::S32, 24, 44100, 2}, SF_FORMAT_PCM_24},
        {{SampleType::F32, 32, 96000, 2}, SF_FORMAT_FLOAT}};
    for (const auto& [format, subtype] : cases) {
        const int32_t samples[4] = {1 << 16, -(1 << 16), 0x7fffff00, -0x7fffff00};
        const std::string path = dir.path() + "/out.wav";
        auto sink = openWavSink(path, format, error);
        ASSERT_TRUE(sink) << error;
        ASSERT_TRUE(sink->write(reinterpret_cast<const uint8_t*>(samples), 2, error));
        SF_INFO info{};
        SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);  // while the sink still writes
        int32_t readBack[4] = {};
        sf_read_int(file, readBack, 2 * format.channels);
        sf_close(file);
        EXPECT_EQ(info.format, SF_FORMAT_WAV | subtype);
        EXPECT_EQ(info.samplerate * 10 + info.channels, format.rate * 10 + format.channels);
        EXPECT_EQ(info.frames, 2);
        EXPECT_TRUE(format.type != SampleType::S32 || readBack[3] == samples[3]);
    }
    EXPECT_EQ(trackFilePath("/a.b/out.wav", 2), "/a.b/out.track2.wav");
    EXPECT_EQ(trackFilePath("/a.b/out", 1), "/a.b/out.track1");
    EXPECT_FALSE(SinkSpec::parse("wav:/tmp/out-{id}.wav", error));

    HostPlayer::Options options;
    options.sink = *SinkSpec::parse("wav:" + dir.path() + "/missing/out.wav", error);
    EXPECT_THROW(HostPlayer player(options), std::runtime_error);
    if (alsaAvailable()) {
        options.sink = *SinkSpec::parse("alsa:no-such-device", error);
        EXPECT_THROW(HostPlayer player(options), std::runtime_error);
    }
}

}  // namespace
}  // namespace zem
