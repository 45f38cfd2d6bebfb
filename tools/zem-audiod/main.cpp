// zem-audiod: the reference audio service. It publishes the track service with a host player
// that plays every source on its own thread into the chosen sink, and runs until SIGINT or
// SIGTERM.
#include <orv/ZEMAudioServer.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "CommandLine.h"
#include "HostPlayer.h"
#include "Log.h"

namespace {

constexpr auto kShutdownGrace = std::chrono::seconds(5);

const char kExamples[] = R"(Examples:
  zem-audiod                          play nothing, just serve (sink none)
  zem-audiod --sink wav:/tmp/out.wav  write what each source plays to /tmp/out.wav
  zem-audiod --sink 'wav:/tmp/src-{id}.wav' --fast -v
                                      one file per source; PCM as fast as clients supply
  zem-audiod --sink alsa:default      play on the sound card (alsa:null for no hardware)

The service is found through $PARLEX_RUNTIME_DIR (else $XDG_RUNTIME_DIR/parlex, else
/tmp/parlex-<uid>): start clients with the same value.

Exit status: 0 stopped cleanly, 1 could not start or stop cleanly, 2 bad usage.)";

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"zem-audiod: the reference audio service: plays the sources of every client"};
    std::string sinkText = "none";
    bool fast = false;
    int verbosity = 0;
    app.add_option("--sink", sinkText, "where audio goes: none, wav:PATH or alsa:DEVICE")
        ->type_name("SINK")
        ->capture_default_str();
    app.add_flag("--fast", fast,
                 "pull PCM sources as fast as clients supply, not in real time (files always "
                 "play in real time)");
    app.add_flag("-v,--verbose", verbosity,
                 "log more: -v lifecycle, -vv every call and event, -vvv the data path");
    app.footer(kExamples);
    if (const std::optional<int> status = zem::parseCommandLine(app, argc, argv)) return *status;
    std::string error;
    const std::optional<zem::SinkSpec> sink = zem::SinkSpec::parse(sinkText, error);
    if (!sink) {
        std::fprintf(stderr, "zem-audiod: --sink: %s\n", error.c_str());
        return 2;
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
    zem::HostPlayer::Options options;
    options.sink = *sink;
    options.fast = fast;
    options.log = log;
    auto player = std::make_shared<zem::HostPlayer>(options);
    std::unique_ptr<orv::ZEMAudioServer> server;
    try {
        server = std::make_unique<orv::ZEMAudioServer>(player, log);
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
    if (!player->shutdown(std::chrono::steady_clock::now() + kShutdownGrace)) {
        // A player thread is stuck in a client's data request: the server cannot be deleted
        // under it, so leave without the orderly teardown.
        std::fprintf(stderr, "zem-audiod: a client does not answer; exiting without cleanup\n");
        std::fflush(nullptr);
        std::_Exit(1);
    }
    server.reset();
    std::printf("zem-audiod: stopped\n");
    return 0;
}
