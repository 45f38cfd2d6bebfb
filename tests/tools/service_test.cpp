// The programs across processes: the service outlives a client killed mid-playback and keeps
// serving bit-exact audio at the stream's pace; a second service, and a client without one, fail
// with their documented exit status; SIGTERM stops the service cleanly, and zem-play promptly
// whatever it waits for; a client of another user plays only the files it could read itself; a
// client that falls behind is its own underrun, and another client's audio plays on unbroken.
#include <gtest/gtest.h>
#include <orv/ZEMAudioTrack.h>
#include <parlex/binder.h>
#include <sndfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <future>

#include "Listener.h"
#include "Log.h"
#include "Sink.h"
#include "Source.h"
#include "support/Programs.h"
#include "support/TrackCases.h"

namespace {

using namespace parlex::test;
using namespace std::chrono_literals;

const std::string kService = "com.tarnek.zem.parlex";

// Runs `command` to its end: its exit status.
int run(const std::string& command) { return shell(command).second; }

TEST(ServiceTest, OutlivesAKilledClientRefusesASecondServiceAndStopsCleanlyOnSigterm) {
    PrivateRuntimeDir dir;
    const std::string longInput = dir.path() + "/long.wav";
    const std::string shortInput = dir.path() + "/short.wav";
    ASSERT_EQ(run(ZEM_WAVTOOL_PATH " generate " + longInput +
                  " 30 && " ZEM_WAVTOOL_PATH " generate " + shortInput + " 0.3"),
              0);
    AudioService service(
        {ZEM_AUDIOD_PATH, "--sink", "wav:" + dir.path() + "/out.wav", "--track-files"});
    ASSERT_GT(service.pid, 0);
    {
        Process client({ZEM_PLAY_PATH, longInput});
        ASSERT_TRUE(client.readUntil("playback started")) << "the client never started playing";
    }  // killed here, mid-playback
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(run(ZEM_PLAY_PATH " " + shortInput), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(200));  // paced
    EXPECT_EQ(run(ZEM_WAVTOOL_PATH " compare " + shortInput + " " + dir.path() + "/out.track2.wav"),
              0);
    EXPECT_EQ(run(ZEM_AUDIOD_PATH), 1);
    // An output that cannot be opened ends the service before it is ready, with ALSA's own
    // messages in its log rather than raw on stderr.
    Shell unwritable(ZEM_AUDIOD_PATH " --sink wav:" + dir.path() + "/missing/out.wav");
    EXPECT_TRUE(unwritable.process.readUntil("cannot open the output wav:"));
    EXPECT_EQ(exitStatus(unwritable.process.finish()), 1);
    if (zem::alsaAvailable()) {
        const auto [all, status] = shell(ZEM_AUDIOD_PATH " --sink alsa:no-such-device");
        EXPECT_EQ(status, 1);
        EXPECT_NE(all.find("cannot open the output alsa:no-such-device"), std::string::npos);
        EXPECT_NE(all.find("HostPlayer: alsa:"), std::string::npos) << all;
        EXPECT_EQ(all.find("ALSA lib"), std::string::npos) << all;
    }
    EXPECT_EQ(service.stop(), 0);
    const auto [alone, status] = shell(ZEM_PLAY_PATH " " + shortInput);
    EXPECT_NE(alone.find("nothing listens at " + dir.path() + "/" + kService), std::string::npos);
    EXPECT_EQ(status, 3);
}

TEST(ServiceTest, ZemPlayEndsPromptlyOnSigtermWhileInitWaitsOrTheServiceStalls) {
    PrivateRuntimeDir dir;
    const std::string input = dir.path() + "/long.wav";
    ASSERT_EQ(run(ZEM_WAVTOOL_PATH " generate " + input + " 30"), 0);
    {
        // A service that accepts the connection and never answers it.
        parlex::transport::UniqueFd silent(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s/%s", dir.path().c_str(),
                      kService.c_str());
        ASSERT_EQ(::bind(silent.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(::listen(silent.get(), 4), 0);
        ::setenv("PARLEX_CONNECT_DEADLINE_MS", "60000", 1);
        Shell client(ZEM_PLAY_PATH " " + input);
        ::unsetenv("PARLEX_CONNECT_DEADLINE_MS");
        pollfd connecting{silent.get(), POLLIN, 0};
        ASSERT_EQ(::poll(&connecting, 1, 10'000), 1);
        parlex::transport::UniqueFd accepted(
            ::accept4(silent.get(), nullptr, nullptr, SOCK_CLOEXEC));
        ::kill(client.pid, SIGTERM);
        EXPECT_EQ(exitStatus(client.process.finish()), 130);
        ::unlink(address.sun_path);
    }
    AudioService service({ZEM_AUDIOD_PATH});
    ASSERT_GT(service.pid, 0);
    {
        Shell answered(ZEM_PLAY_PATH " " + input);
        ASSERT_TRUE(answered.process.readUntil("playback started"));
        ::kill(answered.pid, SIGTERM);
        EXPECT_TRUE(answered.process.readUntil("interrupted, stopping"));
        EXPECT_TRUE(answered.process.readUntil("stopped at"));  // the orderly stop
        EXPECT_EQ(exitStatus(answered.process.finish()), 130);
    }
    Shell stalled(ZEM_PLAY_PATH " " + input);
    ASSERT_TRUE(stalled.process.readUntil("playback started"));
    ::kill(service.pid, SIGSTOP);
    std::this_thread::sleep_for(300ms);  // zem-play's next request now waits for the service
    ::kill(stalled.pid, SIGTERM);
    EXPECT_EQ(exitStatus(stalled.process.finish()), 130);
    ::kill(service.pid, SIGCONT);
    EXPECT_EQ(service.stop(), 0);
}

// A track of this process that plays 16-bit stereo PCM at 48000 Hz from `listener`.
std::unique_ptr<orv::ZEMAudioTrack> playPcm(std::shared_ptr<orv::EventListenerV3> listener,
                                            const orv::MediaDescription& description = {}) {
    std::unique_ptr<orv::ZEMAudioTrack> track(createZEMAudioTrack());
    orv::ZEMAudioSourceV4 source;
    source.type = orv::kSourceTypePcm;
    source.format = {0, 48000, 16, 2, true, 1, 0};
    EXPECT_TRUE(track->init(std::move(listener), std::make_shared<zem::StderrLogSink>("test", 6)));
    EXPECT_GT(track->setSource(source, description), 0);
    track->play();
    return track;
}

TEST(ServiceTest, AnotherUsersClientPlaysOnlyWhatItCouldReadAndAStalledOneHoldsUpNoShutdown) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to run a client as nobody";
    PrivateRuntimeDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ::setenv("PARLEX_SOCKET_MODE", "0666", 1);
    const std::string secret = dir.path() + "/secret.wav";
    const std::string open = dir.path() + "/open.wav";
    ASSERT_EQ(run(ZEM_WAVTOOL_PATH " generate " + secret + " 0.3 && cp " + secret + " " + open), 0);
    ASSERT_EQ(::chmod(secret.c_str(), 0600), 0);
    ASSERT_EQ(::chmod(open.c_str(), 0644), 0);
    AudioService service({ZEM_AUDIOD_PATH, "--call-deadline", "300", "--allow-uid", "65534",
                          "--sink", "wav:" + dir.path() + "/out.wav", "--track-files"});
    ASSERT_GT(service.pid, 0);
    const std::string nobody = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    const auto [refused, status] = shell(nobody + ZEM_PLAY_PATH " --url " + secret);
    EXPECT_NE(refused.find("playback error 1"), std::string::npos) << refused;
    EXPECT_EQ(status, 1);
    struct stat written {};
    EXPECT_NE(::stat((dir.path() + "/out.track1.wav").c_str(), &written), 0);  // nothing played
    EXPECT_EQ(run(nobody + ZEM_PLAY_PATH " --url " + open), 0);

    std::promise<void> release;
    std::atomic<bool> asked{false};  // a client that never answers a request for audio
    auto listener = std::make_shared<orv::test::RecordingListener>(
        std::make_shared<orv::test::RecordingLogSink>(), "");
    listener->count = [&asked, released = release.get_future().share()](int) {
        asked = true;
        released.wait();
        return 0;
    };
    const auto track = playPcm(listener);
    ASSERT_TRUE(waitUntil([&] { return asked.load(); }));
    EXPECT_EQ(service.stop(), 0);
    release.set_value();
    ::unsetenv("PARLEX_SOCKET_MODE");
}

// Supplies silence; once, a third of a second into its stream, it takes 300 ms to answer.
class LateListener : public zem::Listener {
public:
    LateListener() : zem::Listener(nullptr) {}
    int getBuffer(uint8_t* buffer, int size) override {
        if (supplied < 16000 * 4 && supplied + size >= 16000 * 4)
            std::this_thread::sleep_for(300ms);
        std::memset(buffer, 0, static_cast<size_t>(size));
        supplied += size;
        return size;
    }
    void onPlaybackStarted(long long, const orv::MediaPlayerStateV2&) override { started = true; }
    void onBufferUnderrun(long long, const orv::MediaPlayerStateV2&) override { ++underruns; }
    void onBufferRefilled(long long, const orv::MediaPlayerStateV2&) override { ++refills; }
    void onPlaybackFinished(long long, const orv::MediaPlayerStateV2&) override { finished = true; }
    int supplied = 0;  // the library calls getBuffer for one source at a time
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
    std::atomic<int> underruns{0};
    std::atomic<int> refills{0};
};

std::vector<short> readWav(const std::string& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) return {};
    std::vector<short> samples(static_cast<size_t>(info.frames * info.channels));
    sf_readf_short(file, samples.data(), info.frames);
    sf_close(file);
    return samples;
}

TEST(ServiceTest, LateClientIsHeardAsItsOwnUnderrunAndAnotherClientPlaysOnUnbroken) {
    PrivateRuntimeDir dir;
    const std::string input = dir.path() + "/steady.wav";
    ASSERT_EQ(run(ZEM_WAVTOOL_PATH " generate " + input + " 0.8"), 0);
    AudioService service({ZEM_AUDIOD_PATH, "--sink", "wav:" + dir.path() + "/mix.wav"});
    ASSERT_GT(service.pid, 0);
    auto listener = std::make_shared<LateListener>();
    orv::MediaDescription length;
    length.firstMap.count = 1;
    length.firstMap.pairs[0] = orv::DescriptionPair(zem::kTotalFramesKey, "48000");
    const auto track = playPcm(listener, length);
    ASSERT_TRUE(waitUntil([&] { return listener->started.load(); }));
    const auto [events, status] = shell(ZEM_PLAY_PATH " --url " + input);  // the other client
    EXPECT_EQ(status, 0);
    EXPECT_EQ(events.find("underrun"), std::string::npos) << events;
    ASSERT_TRUE(waitUntil([&] { return listener->finished.load(); }));
    EXPECT_EQ(listener->underruns.load(), 1);
    EXPECT_EQ(listener->refills.load(), 1);
    track->destroy();
    EXPECT_EQ(service.stop(), 0);
    // The late client supplied silence: the mix is the other client's audio, whole, from where
    // it started.
    const std::vector<short> steady = readWav(input);
    const std::vector<short> mix = readWav(dir.path() + "/mix.wav");
    size_t start = 0;
    while (start < mix.size() && mix[start] == 0) ++start;
    start -= start % 2;
    ASSERT_GE(mix.size(), start + steady.size());
    for (size_t i = 0; i < steady.size(); ++i)
        ASSERT_EQ(mix[start + i], steady[i]) << "frame " << i / 2;
}

}  // namespace
