// zem-play: plays an audio file through the audio service, as PCM that it decodes and supplies
// itself or as a URL that the service opens, and shows the playback as it goes.
#include <orv/ZEMAudioTrack.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include "CommandLine.h"
#include "ConnectFailure.h"
#include "FileInput.h"
#include "Listener.h"
#include "Log.h"
#include "PcmFeed.h"
#include "Source.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// How long zem-play waits, after SIGINT or SIGTERM, for the service to confirm the stop.
constexpr std::chrono::milliseconds kInterruptGrace{1000};

enum ExitCode {
    kFinished = 0,
    kPlaybackFailed = 1,
    kUsage = zem::kUsageStatus,
    kNoService = 3,
    kInterrupted = 130,
};

const char kExamples[] = R"(Examples:
  zem-play song.flac                    decode here, send PCM to the service
  zem-play --url song.flac              let the service open the file itself
  zem-play --volume 0.5 --seek 30000 song.wav
  zem-play --pause-after 2000 --pause-for 500 song.ogg

The service must be running (start it with `zem-audiod &`), with the same PARLEX_RUNTIME_DIR.

Exit status:
  0    playback finished
  1    playback failed: the file cannot be played, the service reported an error, stopped the
       playback or went away, or the audio it received differs from the audio supplied
  2    bad usage
  3    the audio service cannot be reached: not running, permission denied on its socket,
       the connection refused, or no answer
  130  interrupted (SIGINT or SIGTERM): the playback was stopped)";

struct Options {
    std::string file;
    bool url = false;
    float volume = -1.0f;
    int seekMs = -1;
    int pauseAfterMs = -1;
    int pauseForMs = 1000;
    int verbosity = 0;
};

// "file://" and the absolute path, with every byte outside the unreserved set escaped.
std::string fileUrl(const std::string& path) {
    char* absolute = realpath(path.c_str(), nullptr);
    const std::string full = absolute ? absolute : path;
    std::free(absolute);
    std::string url = "file://";
    for (const unsigned char c : full) {
        if (std::isalnum(c) || std::strchr("/-._~", c)) {
            url += static_cast<char>(c);
        } else {
            char escape[4];
            std::snprintf(escape, sizeof escape, "%%%02X", c);
            url += escape;
        }
    }
    return url;
}

std::string clock(int ms) {
    char text[32];
    std::snprintf(text, sizeof text, "%d:%02d.%d", ms / 60000, ms / 1000 % 60, ms / 100 % 10);
    return text;
}

// The level heard around `frame`: the peak of the next 50 ms in dBFS, or NaN when unknown.
double peakDb(zem::FileInput* meter, int64_t frame) {
    if (meter == nullptr || !meter->seek(std::max<int64_t>(frame, 0))) return NAN;
    const zem::StreamFormat& format = meter->format();
    const size_t frames = format.rate / 20;
    std::vector<uint8_t> block(frames * format.bytesPerFrame());
    std::string error;
    const long got = meter->read(block.data(), frames, error);
    double peak = 0;
    for (size_t i = 0; got > 0 && i < static_cast<size_t>(got) * format.channels; ++i) {
        double value = 0;
        if (format.type == zem::SampleType::S16) {
            value = reinterpret_cast<const int16_t*>(block.data())[i] / 32768.0;
        } else if (format.type == zem::SampleType::S32) {
            value = reinterpret_cast<const int32_t*>(block.data())[i] / 2147483648.0;
        } else {
            value = reinterpret_cast<const float*>(block.data())[i];
        }
        peak = std::max(peak, std::fabs(value));
    }
    return peak > 0 ? 20 * std::log10(peak) : -INFINITY;
}

// Takes SIGINT and SIGTERM (blocked in every thread) on a thread of its own and reports each
// through `onSignal`; SIGUSR1 ends it. The main thread may be blocked in a call into the library
// that does not return (a service that does not answer), so the first signal also arms a
// watchdog: when zem-play has not ended `grace` later, or a second signal comes, it leaves at
// once with the interrupted status.
class SignalWatcher {
public:
    SignalWatcher(std::function<void()> onSignal, std::chrono::milliseconds grace)
        : thread_([this, onSignal = std::move(onSignal), grace] { watch(onSignal, grace); }) {}
    ~SignalWatcher() {
        pthread_kill(thread_.native_handle(), SIGUSR1);
        thread_.join();
    }
    bool interrupted() const { return interrupted_; }

private:
    void watch(const std::function<void()>& onSignal, std::chrono::milliseconds grace) {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGUSR1);
        int received = 0;
        while (sigwait(&signals, &received) != 0) {
        }
        if (received == SIGUSR1) return;
        interrupted_ = true;
        try {
            onSignal();
        } catch (...) {  // the watchdog below still ends the process
        }
        const auto deadline = Clock::now() + grace;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
                std::max(deadline - Clock::now(), Clock::duration::zero()));
            const timespec wait{static_cast<time_t>(left.count() / 1'000'000'000),
                                static_cast<long>(left.count() % 1'000'000'000)};
            received = sigtimedwait(&signals, nullptr, &wait);
            if (received == SIGUSR1) return;
            if (received >= 0 || errno != EINTR) break;  // a second signal, or the time is up
        }
        static const char kGone[] =
            "\nzem-play: interrupted; the audio service does not answer, leaving without "
            "stopping the playback\n";
        if (::write(STDERR_FILENO, kGone, sizeof kGone - 1) < 0) {
        }
        std::_Exit(kInterrupted);
    }

    std::atomic<bool> interrupted_{false};
    std::thread thread_;
};

// Everything one playback prints: event lines, and on a terminal one progress line below them
// that is redrawn in place.
class Screen {
public:
    explicit Screen(bool terminal) : terminal_(terminal), start_(Clock::now()) {}

    void line(const std::string& text) {
        clear();
        const double at = std::chrono::duration<double>(Clock::now() - start_).count();
        std::printf("[%7.3f s] %s\n", at, text.c_str());
        std::fflush(stdout);
        redraw();
    }
    void message(const std::string& text) {
        clear();
        std::printf("zem-play: %s\n", text.c_str());
        std::fflush(stdout);
    }
    void progress(int offsetMs, int durationMs, const char* state, double db) {
        if (!terminal_) return;
        const int bars = std::isnan(db) ? 0 : std::clamp(static_cast<int>((db + 60) / 3), 0, 20);
        char level[16] = "   --- dB";
        if (!std::isnan(db)) std::snprintf(level, sizeof level, "%6.1f dB", std::max(db, -99.9));
        char text[160];
        std::snprintf(text, sizeof text, "  %s / %s  %-9s [%s%s] %s",
                      clock(std::max(offsetMs, 0)).c_str(),
                      durationMs >= 0 ? clock(durationMs).c_str() : "?:??.?", state,
                      std::string(static_cast<size_t>(bars), '#').c_str(),
                      std::string(static_cast<size_t>(20 - bars), '-').c_str(), level);
        progress_ = text;
        redraw();
    }
    void clear() {
        if (terminal_ && !progress_.empty()) std::printf("\r\033[K");
    }

private:
    void redraw() {
        if (!terminal_ || progress_.empty()) return;
        std::printf("\r\033[K%s", progress_.c_str());
        std::fflush(stdout);
    }

    bool terminal_;
    Clock::time_point start_;
    std::string progress_;
};

int play(const Options& options) {
    std::string error;
    std::unique_ptr<zem::PcmFeed> feed;
    if (!options.url) {
        feed = zem::PcmFeed::open(options.file, error);
        if (!feed) {
            std::fprintf(stderr, "zem-play: cannot play %s\n", error.c_str());
            return kPlaybackFailed;
        }
    }
    // The file is also read here for its length and the level meter; with --url that is a
    // nicety, and a file only the service can read still plays.
    std::unique_ptr<zem::FileInput> meter = zem::FileInput::open(options.file, error);
    int durationMs = -1;
    if (meter && meter->frames() >= 0) {
        durationMs = static_cast<int>(meter->frames() * 1000 / meter->format().rate);
    }

    auto listener = std::make_shared<zem::Listener>(feed.get());
    SignalWatcher signals(
        [listener] {
            listener->push({zem::PlayEvent::Interrupted, 0, "", ""});
        },
        kInterruptGrace);
    const int verbosity = options.verbosity;
    const int minLevel = verbosity == 0 ? 6 : verbosity == 1 ? 5 : std::max(1, 5 - verbosity);
    auto logger = std::make_shared<zem::ConnectFailureRecorder>(
        std::make_shared<zem::StderrLogSink>("zem-play", minLevel));
    std::unique_ptr<orv::ZEMAudioTrack> track(createZEMAudioTrack());
    if (!track->init(std::shared_ptr<orv::EventListenerV3>(listener), logger)) {
        if (signals.interrupted()) return kInterrupted;
        std::fprintf(stderr, "zem-play: %s\n",
                     zem::ConnectFailure::parse(logger->last()).explain().c_str());
        return kNoService;
    }

    orv::ZEMAudioSourceV4 source;
    orv::MediaDescription description;
    source.volumeGain = 1.0f;
    source.setClusterId("zem-play");
    Screen screen(isatty(STDOUT_FILENO) == 1);
    if (feed) {
        const zem::StreamFormat& format = feed->format();
        source.type = orv::kSourceTypePcm;
        source.format.sampleRate = format.rate;
        source.format.sampleSizeInBits = format.type == zem::SampleType::S16 ? 16 : 32;
        source.format.channelNum = format.channels;
        source.format.isSigned = true;
        source.format.layout = 1;
        description.firstMap.count = 1;
        description.firstMap.pairs[0] =
            orv::DescriptionPair(zem::kTotalFramesKey, std::to_string(feed->frames()).c_str());
        screen.message(options.file + ": " + format.describe() + ", " + clock(durationMs) +
                       ", sent as PCM");
    } else {
        source.type = orv::kSourceTypeUrl;
        source.setUrl(fileUrl(options.file).c_str());
        screen.message(options.file + ": sent as the URL " + source.url);
    }
    const long long sourceId = track->setSource(source, description);
    if (sourceId <= 0) {
        screen.message("the audio service did not accept the source");
        track->destroy();
        return kPlaybackFailed;
    }
    if (options.volume >= 0) track->setVolume(options.volume);
    if (options.seekMs >= 0) {
        if (feed) feed->seek(int64_t{options.seekMs} * feed->format().rate / 1000);
        track->seekTo(options.seekMs, true);
    }
    const Clock::time_point playedAt = Clock::now();
    track->play();

    const char* state = "starting";
    int result = -1;
    bool interrupted = false;
    std::optional<Clock::time_point> resumeAt;
    bool pausedOnce = false;
    int offsetMs = 0;
    Clock::time_point endedAt;
    while (result < 0) {
        if (std::optional<zem::PlayEvent> event = listener->next(Clock::now() + 100ms)) {
            if (event->kind != zem::PlayEvent::Interrupted) screen.line(event->text);
            switch (event->kind) {
                case zem::PlayEvent::Started:
                case zem::PlayEvent::Resumed:
                case zem::PlayEvent::Refilled:
                    state = "playing";
                    break;
                case zem::PlayEvent::Paused:
                    state = "paused";
                    break;
                case zem::PlayEvent::Underrun:
                    state = "buffering";
                    break;
                case zem::PlayEvent::Metadata:
                    if (durationMs < 0 && !event->durationMs.empty()) {
                        durationMs = std::atoi(event->durationMs.c_str());
                    }
                    break;
                case zem::PlayEvent::Finished:
                    result = kFinished;
                    offsetMs = event->offsetMs;
                    break;
                case zem::PlayEvent::Stopped:
                    if (!interrupted) screen.message("the playback was stopped by the service");
                    result = interrupted ? kInterrupted : kPlaybackFailed;
                    break;
                case zem::PlayEvent::Error:
                case zem::PlayEvent::Death:
                    result = kPlaybackFailed;
                    break;
                case zem::PlayEvent::StopRequested:
                    track->stop();
                    break;
                case zem::PlayEvent::Interrupted:
                    if (interrupted) result = kInterrupted;  // a second one: do not wait
                    interrupted = true;
                    screen.message("interrupted, stopping");
                    track->stop();
                    break;
                case zem::PlayEvent::Note:
                    break;
            }
            endedAt = Clock::now();
            continue;
        }
        offsetMs = track->getOffset();
        if (options.pauseAfterMs >= 0 && !pausedOnce && offsetMs >= options.pauseAfterMs) {
            pausedOnce = true;
            track->pause();
            resumeAt = Clock::now() + std::chrono::milliseconds(options.pauseForMs);
        } else if (resumeAt && Clock::now() >= *resumeAt) {
            resumeAt.reset();
            track->resume();
        }
        if (feed && !feed->totals().error.empty()) {
            screen.message("decoding failed: " + feed->totals().error);
            track->stop();
            result = kPlaybackFailed;
        }
        const int64_t frame = meter ? int64_t{offsetMs} * meter->format().rate / 1000 : 0;
        screen.progress(offsetMs, durationMs, state, peakDb(meter.get(), frame));
    }
    screen.clear();

    if (result == kFinished && feed) {
        const zem::PcmFeed::Totals totals = feed->totals();
        const zem::StreamFormat& format = feed->format();
        const double seconds =
            static_cast<double>(totals.bytes) / format.bytesPerFrame() / format.rate;
        const double took = std::chrono::duration<double>(endedAt - playedAt).count();
        char text[200];
        std::snprintf(text, sizeof text,
                      "%.3f s of audio (%llu bytes) crossed the process boundary in %.3f s: "
                      "%.1fx real time",
                      seconds, static_cast<unsigned long long>(totals.bytes), took,
                      took > 0 ? seconds / took : 0.0);
        screen.message(text);
        const orv::Fingerprint fingerprint = track->getFingerprint();
        if (fingerprint.first && std::string(fingerprint.first) == "fnv1a64" &&
            fingerprint.second) {
            if (totals.hash == fingerprint.second) {
                screen.message("the service received exactly the audio supplied (fnv1a64 " +
                               totals.hash + ")");
            } else {
                screen.message("MISMATCH: the service received fnv1a64 " +
                               std::string(fingerprint.second) + ", zem-play supplied " +
                               totals.hash);
                result = kPlaybackFailed;
            }
        }
    } else if (result == kFinished) {
        const double took = std::chrono::duration<double>(endedAt - playedAt).count();
        char text[120];
        std::snprintf(text, sizeof text, "played to %s in %.3f s", clock(offsetMs).c_str(), took);
        screen.message(text);
    }
    track->destroy();
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"zem-play: plays an audio file through the audio service"};
    Options options;
    app.add_option("file", options.file, "the audio file (WAV, FLAC, Ogg, ...)")
        ->required()
        ->type_name("FILE");
    app.add_flag("--url", options.url,
                 "send the file as a URL for the service to open, instead of as PCM");
    app.add_option("--volume", options.volume, "volume from 0 to 1")
        ->check(CLI::Range(0.0, 1.0))
        ->type_name("GAIN");
    app.add_option("--seek", options.seekMs, "start at this position, in ms")
        ->check(CLI::NonNegativeNumber)
        ->type_name("MS");
    app.add_option("--pause-after", options.pauseAfterMs,
                   "pause once the position reaches this many ms")
        ->check(CLI::NonNegativeNumber)
        ->type_name("MS");
    app.add_option("--pause-for", options.pauseForMs, "how long to stay paused, in ms")
        ->check(CLI::NonNegativeNumber)
        ->type_name("MS")
        ->capture_default_str();
    app.add_flag("-v,--verbose", options.verbosity,
                 "show the library's log: -v errors, -vv lifecycle, -vvv calls, -vvvv data");
    app.footer(kExamples);
    if (const std::optional<int> status = zem::parseCommandLine(app, argc, argv)) return *status;

    // Blocked before any thread starts; one thread takes them and tells the main loop.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    try {
        return play(options);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "zem-play: unexpected failure: %s\n", failure.what());
    } catch (...) {
        std::fprintf(stderr, "zem-play: unexpected failure\n");
    }
    std::fflush(nullptr);
    std::_Exit(kPlaybackFailed);
}
