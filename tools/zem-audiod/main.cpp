// zem-audiod: the reference audio service. It opens its output, publishes the track service
// with a host player that mixes every playing source into that output, and runs until SIGINT or
// SIGTERM.
#include <orv/ZEMAudioServer.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "CommandLine.h"
#include "HostPlayer.h"
#include "Log.h"

namespace {

const char kExamples[] = R"(Examples:
  zem-audiod                          play nothing, just serve (sink none)
  zem-audiod --sink wav:/tmp/out.wav  write the mix of every source to /tmp/out.wav
  zem-audiod --sink wav:/tmp/out.wav --track-files --fast -v
                                      the mix, and each track in /tmp/out.track1.wav, ...;
                                      as fast as the sources supply
  zem-audiod --sink alsa:default      play on the sound card (alsa:null for no hardware)
  zem-audiod --allow-uid 1001 --call-deadline 500
                                      let user 1001 in too; drop a client that takes 0.5 s

The service is found through $PARLEX_RUNTIME_DIR (else $XDG_RUNTIME_DIR/parlex, else
/tmp/parlex-<uid>): start clients with the same value. To let other users in, give the socket
a mode that lets them connect ($PARLEX_SOCKET_MODE, in a directory they can enter) and name
their uids with --allow-uid. A client plays only files that it could read itself.

Exit status: 0 stopped cleanly, 1 could not start or stop cleanly, 2 bad usage.)";

// Every client track is a connection holding descriptors in the service: the soft limit's usual
// 1024 would cap the clients long before the transport's own limits do.
void raiseDescriptorLimit(const zem::Log& log) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) == 0) {
        log(orv::LOG_LIFECYCLE, "main", "descriptor limit raised from %llu to %llu",
            static_cast<unsigned long long>(before),
            static_cast<unsigned long long>(limit.rlim_cur));
    }
}

int serve(int argc, char** argv) {
    CLI::App app{"zem-audiod: the reference audio service: plays the sources of every client"};
    std::string sinkText = "none";
    bool fast = false;
    int verbosity = 0;
    parlex::ServerLimits limits;
    int callDeadlineMs = static_cast<int>(limits.callDeadline.count());
    std::vector<uid_t> allowedUids;
    app.add_option("--sink", sinkText,
                   "where the mix goes, opened at start: none, wav:PATH or alsa:DEVICE")
        ->type_name("SINK")
        ->capture_default_str();
    app.add_flag("--fast", fast,
                 "run the output as fast as the playing sources supply, not in real time");
    zem::HostPlayer::Options options;
    std::string sampleType = "s16";
    app.add_option("--rate", options.device.rate, "the output's sample rate")
        ->check(CLI::Range(8000u, 192000u))
        ->type_name("HZ")
        ->capture_default_str();
    app.add_option("--channels", options.device.channels, "the output's channels")
        ->check(CLI::Range(1u, 2u))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--sample-format", sampleType, "the output's samples")
        ->check(CLI::IsMember({"s16", "s32", "f32"}))
        ->type_name("s16|s32|f32")
        ->capture_default_str();
    app.add_flag("--track-files", options.trackFiles,
                 "with a WAV sink, also write each track to its own file beside the mix "
                 "(out.track1.wav, out.track2.wav, ... in the order the tracks start)");
    app.add_option("--call-deadline", callDeadlineMs,
                   "how long a client may take to answer a request for audio or an event before "
                   "it is disconnected, in ms")
        ->check(CLI::Range(1, 3'600'000))
        ->type_name("MS")
        ->capture_default_str();
    app.add_option("--allow-uid", allowedUids,
                   "a user that may connect besides the service's own user and root (repeatable)")
        ->type_name("UID")
        ->take_all();
    app.add_option("--max-connections-per-process", limits.maxConnectionsPerProcess,
                   "connections (one per track) that one client process may hold at once")
        ->check(CLI::Range(size_t{1}, limits.maxConnections))
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--max-sources-per-process", options.maxSourcesPerProcess,
                   "sources that one client process may have open at once")
        ->check(CLI::Range(size_t{1}, options.maxSources))
        ->type_name("N")
        ->capture_default_str();
    app.add_flag("-v,--verbose", verbosity,
                 "log more: -v lifecycle, -vv every call and event, -vvv the data path");
    app.footer(kExamples);
    if (const std::optional<int> status = zem::parseCommandLine(app, argc, argv, "zem-audiod"))
        return *status;
    std::string error;
    const std::optional<zem::SinkSpec> sink = zem::SinkSpec::parse(sinkText, error);
    if (!sink) {
        std::fprintf(stderr, "zem-audiod: --sink: %s\n", error.c_str());
        return 2;
    }
    if (options.trackFiles && sink->kind != zem::SinkSpec::Kind::Wav) {
        std::fprintf(stderr, "zem-audiod: --track-files needs a WAV sink (--sink wav:PATH)\n");
        return 2;
    }
    options.device.type = sampleType == "s32"   ? zem::SampleType::S32
                          : sampleType == "f32" ? zem::SampleType::F32
                                                : zem::SampleType::S16;
    options.device.bits = sampleType == "s16" ? 16 : 32;
    limits.callDeadline = std::chrono::milliseconds(callDeadlineMs);
    // The users named come in addition to the service's own and root, which an empty list means.
    if (!allowedUids.empty()) {
        limits.allowedUids = allowedUids;
        limits.allowedUids.push_back(geteuid());
        limits.allowedUids.push_back(0);
    }

    // Blocked before any thread starts, so that every thread inherits the mask and the
    // signals reach only sigwait below.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    const int minLevel = verbosity == 0 ? orv::LOG_ERROR : std::max(1, 4 - verbosity);
    auto log = std::make_shared<zem::StderrLogSink>("zem-audiod", minLevel);
    raiseDescriptorLimit(zem::Log(log, "zem-audiod"));
    options.sink = *sink;
    options.fast = fast;
    options.log = log;
    std::shared_ptr<zem::HostPlayer> player;
    try {
        player = std::make_shared<zem::HostPlayer>(options);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "zem-audiod: cannot open the output %s: %s\n",
                     sink->describe().c_str(), failure.what());
        return 1;
    }
    zem::Log(log, "zem-audiod")(
        orv::LOG_LIFECYCLE, "main",
        "output %s, %s; latency %lld ms (read-ahead %lld ms per source, "
        "%lld ms queued at the output)",
        sink->describe().c_str(), options.device.describe().c_str(),
        static_cast<long long>(player->latency().count()),
        static_cast<long long>(zem::SourceSettings().ring.count()),
        static_cast<long long>((player->latency() - zem::SourceSettings().ring).count()));
    std::unique_ptr<orv::ZEMAudioServer> server;
    try {
        server = std::make_unique<orv::ZEMAudioServer>(player, log, limits);
    } catch (const std::exception& failure) {
        std::fprintf(stderr,
                     "zem-audiod: cannot publish the audio service: %s\n"
                     "zem-audiod: is another zem-audiod running with the same "
                     "PARLEX_RUNTIME_DIR?\n",
                     failure.what());
        return 1;
    }
    std::printf("zem-audiod: ready (pid %d, sink %s%s)\n", static_cast<int>(getpid()),
                sink->describe().c_str(), fast ? ", fast PCM" : "");
    std::fflush(stdout);

    int received = 0;
    sigwait(&signals, &received);
    std::printf("zem-audiod: %s, stopping\n", received == SIGINT ? "interrupted" : "terminated");
    std::fflush(stdout);
    const auto grace = zem::shutdownGrace(limits.callDeadline);
    if (!player->shutdown(std::chrono::steady_clock::now() + grace)) {
        // A player thread is still in a call to a client past every deadline: the server
        // cannot be deleted under it, so leave without the orderly teardown.
        std::fprintf(stderr, "zem-audiod: a client does not answer; exiting without cleanup\n");
        std::fflush(nullptr);
        std::_Exit(1);
    }
    server.reset();
    std::printf("zem-audiod: stopped\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return serve(argc, argv);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "zem-audiod: unexpected failure: %s\n", failure.what());
    } catch (...) {
        std::fprintf(stderr, "zem-audiod: unexpected failure\n");
    }
    std::fflush(nullptr);
    std::_Exit(1);
}
