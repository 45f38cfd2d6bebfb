// zem-play: plays audio files, URLs or stdin through the audio service, one after another: a file
// as PCM that it decodes and supplies itself or as a URL that the service opens, and shows the
// playback as it goes. On a terminal it takes keys to pause, seek, change the volume and quit.
#include <orv/ZEMAudioTrack.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include "Arguments.h"
#include "CommandLine.h"
#include "ConnectFailure.h"
#include "FileInput.h"
#include "Listener.h"
#include "Log.h"
#include "PcmFeed.h"
#include "Source.h"
#include "Terminal.h"

namespace {

using namespace std::chrono_literals;
using namespace zem::play;
using Clock = std::chrono::steady_clock;

// How long zem-play waits, after SIGINT or SIGTERM, for the service to confirm the stop.
constexpr std::chrono::milliseconds kInterruptGrace{1000};
// What one press of an arrow key or of + and - changes.
constexpr int64_t kSeekStepMs = 5000;
constexpr float kVolumeStep = 0.05f;

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
  zem-play http://example.org/a.ogg     a URL goes to the service unchanged
  zem-play --volume -6dB --seek 1:30 a.wav b.flac
  cat song.wav | zem-play -             a WAV stream on stdin
  zem-play --format s16le:48000:2 - < a.raw
  zem-play --pause-after 2000 --pause-for 500 song.ogg

Keys, when stdin is a terminal: space pause/resume, left/right seek 5 s, + and - volume, q quit.

The service must be running (start it with `zem-audiod &`), with the same PARLEX_RUNTIME_DIR.

Exit status (the worst over all the inputs):
  0    playback finished (or q was pressed)
  1    playback failed: the file cannot be played, the service reported an error, stopped the
       playback or went away, or the audio it received differs from the audio supplied
  2    bad usage
  3    the audio service cannot be reached: not running, permission denied on its socket,
       the connection refused, or no answer
  130  interrupted (SIGINT, SIGTERM, SIGHUP or SIGQUIT): the playback was stopped)";

struct Options {
    std::vector<std::string> inputs;
    bool url = false;
    std::optional<float> volume;
    std::optional<int64_t> seekMs;
    std::optional<int64_t> pauseAfterMs;
    int64_t pauseForMs = 1000;
    std::optional<zem::StreamFormat> rawFormat;
    int verbosity = 0;
    bool quiet = false;
};

// What one argument names and how it travels.
struct Input {
    enum Kind { File, Url, Stdin } kind = File;
    std::string argument;
    std::string url;        // Url: what is sent
    std::string localPath;  // a file zem-play can read for the length and the meter; may be empty
};

Input classify(const std::string& argument, bool asUrl) {
    Input input;
    input.argument = argument;
    if (argument == "-") {
        input.kind = Input::Stdin;
    } else if (hasScheme(argument)) {
        input.kind = Input::Url;
        input.url = argument;
        std::string error;
        if (argument.compare(0, 5, "file:") == 0) {
            input.localPath = zem::pathFromUrl(argument, error).value_or("");
        }
    } else {
        input.kind = asUrl ? Input::Url : Input::File;
        input.localPath = argument;
        if (asUrl) {
            // An existing file by its real path; a missing one by its absolute name, so that the
            // service, whose working directory is not ours, reports the name the user meant.
            char* real = realpath(argument.c_str(), nullptr);
            char* cwd = getcwd(nullptr, 0);
            input.url = fileUrl(real ? std::string(real) : absolutePath(argument, cwd ? cwd : "/"));
            std::free(real);
            std::free(cwd);
        }
    }
    return input;
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

// The signals that end zem-play, blocked in every thread and taken by the SignalWatcher.
sigset_t endingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGTSTP}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

// Takes SIGINT, SIGTERM, SIGHUP and SIGQUIT (blocked in every thread) on a thread of its own and
// reports each through `onSignal`; SIGUSR1 ends it. The main thread may be blocked in a call into
// the library that does not return (a service that does not answer), so the first signal also
// arms a watchdog: when zem-play has not ended `grace` later, or a second signal comes, it leaves
// at once with the interrupted status, the terminal's mode restored. SIGTSTP (Ctrl-Z) restores
// the terminal, stops the process and takes the keys again once it continues.
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
        const sigset_t signals = endingSignals();
        int received = 0;
        for (;;) {
            if (sigwait(&signals, &received) != 0) continue;
            if (received != SIGTSTP) break;
            // The stop reaches this thread some time after kill returns: wait for the SIGCONT
            // (blocked everywhere, so that it waits here; an earlier one dropped first) before
            // taking the terminal again.
            sigset_t continued;
            sigemptyset(&continued);
            sigaddset(&continued, SIGCONT);
            const timespec noWait{0, 0};
            while (sigtimedwait(&continued, nullptr, &noWait) == SIGCONT) {
            }
            restoreTerminal();
            ::kill(::getpid(), SIGSTOP);
            while (sigwait(&continued, &received) != 0) {
            }
            reenterRawMode();
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
            if (received == SIGTSTP) continue;           // stopping now would outlast the grace
            if (received >= 0 || errno != EINTR) break;  // a second signal, or the time is up
        }
        restoreTerminal();
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

// Everything a run prints: event lines and messages on stdout, warnings and failures on stderr,
// and on a terminal one progress line below them that is redrawn in place. Quiet keeps only
// warnings and failures.
class Screen {
public:
    Screen(bool terminal, bool quiet)
        : terminal_(terminal && !quiet), quiet_(quiet), start_(Clock::now()) {}

    void line(const std::string& text) {
        if (quiet_) return;
        clear();
        const double at = std::chrono::duration<double>(Clock::now() - start_).count();
        std::printf("[%7.3f s] %s\n", at, text.c_str());
        std::fflush(stdout);
        redraw();
    }
    void message(const std::string& text) {
        if (quiet_) return;
        clear();
        std::printf("zem-play: %s\n", text.c_str());
        std::fflush(stdout);
        redraw();
    }
    void warning(const std::string& text) { toStderr("warning: " + text); }
    void failure(const std::string& text) { toStderr(text); }
    void progress(const Progress& progress) {
        if (!terminal_) return;
        progress_ = progressLine(progress, terminalWidth(STDOUT_FILENO));
        redraw();
    }
    // Takes the progress line off the screen for good, before the next input's lines.
    void finish() {
        clear();
        progress_.clear();
    }

private:
    void toStderr(const std::string& text) {
        clear();
        std::fflush(stdout);
        std::fprintf(stderr, "zem-play: %s\n", text.c_str());
        redraw();
    }
    void clear() {
        if (terminal_ && !progress_.empty()) {
            std::printf("\r\033[K");
            std::fflush(stdout);
        }
    }
    void redraw() {
        if (!terminal_ || progress_.empty()) return;
        std::printf("\r\033[K%s", progress_.c_str());
        std::fflush(stdout);
    }

    bool terminal_;
    bool quiet_;
    Clock::time_point start_;
    std::string progress_;
};

// What outlives one input: the screen, the keys, and the listener a signal is reported to.
struct Run {
    Run(const Options& options, bool keys)
        : options(options), screen(isatty(STDOUT_FILENO) == 1, options.quiet), keys(keys) {}

    const Options& options;
    Screen screen;
    bool keys;
    std::string pendingKeys;
    float volume = 1.0f;
    bool quit = false;

    std::mutex mutex;  // guards: current
    std::shared_ptr<zem::Listener> current;

    std::atomic<bool> interrupted{false};

    void interrupt() {
        interrupted = true;
        std::shared_ptr<zem::Listener> listener;
        {
            std::lock_guard<std::mutex> lock(mutex);
            listener = current;
        }
        if (listener) listener->push({zem::PlayEvent::Interrupted, 0, "", ""});
    }

    // The keys typed since the last call; none when stdin is no terminal.
    std::vector<Key> readKeys() {
        if (!keys) return {};
        pollfd input{STDIN_FILENO, POLLIN, 0};
        char bytes[64];
        while (::poll(&input, 1, 0) == 1 && (input.revents & POLLIN) != 0) {
            const ssize_t got = ::read(STDIN_FILENO, bytes, sizeof bytes);
            if (got <= 0) break;
            pendingKeys.append(bytes, static_cast<size_t>(got));
        }
        return decodeKeys(pendingKeys);
    }
};

// Whether `feed` can supply no more although the service expects more: a decoding failure, or
// the end of a file before the length it declares (the service stops asking at that length, so
// a request past it means the file is short).
bool endedEarly(zem::PcmFeed& feed) {
    const zem::PcmFeed::Totals totals = feed.totals();
    return !totals.error.empty() || (totals.atEnd && feed.frames() >= 0);
}

std::string describe(const Input& input) {
    return input.kind == Input::Stdin ? "stdin" : input.argument;
}

int playOne(Run& run, const Input& input) {
    const Options& options = run.options;
    Screen& screen = run.screen;
    std::string error;
    std::unique_ptr<zem::PcmFeed> feed;
    if (input.kind == Input::File) {
        feed = zem::PcmFeed::open(input.argument, error);
    } else if (input.kind == Input::Stdin) {
        feed = zem::PcmFeed::openStdin(options.rawFormat, error);
    }
    if (input.kind != Input::Url && !feed) {
        screen.failure("cannot play " + describe(input) + ": " + error);
        return kPlaybackFailed;
    }
    // The file is also read here for its length and the level meter; for a URL that is a
    // nicety, and a file only the service can read still plays.
    std::unique_ptr<zem::FileInput> meter;
    if (!input.localPath.empty()) meter = zem::openAudioFile(input.localPath, error);
    if (input.kind == Input::Url && meter && meter->format().rate > kMaxRate) {
        screen.failure("cannot play " + input.argument + ": its sample rate, " +
                       std::to_string(meter->format().rate) +
                       " Hz, is above the highest the service plays (" + std::to_string(kMaxRate) +
                       " Hz)");
        return kPlaybackFailed;
    }
    int64_t durationMs = -1;
    if (meter && meter->frames() >= 0) {
        durationMs = meter->frames() * 1000 / meter->format().rate;
    }
    if (options.seekMs && durationMs >= 0 && *options.seekMs >= durationMs) {
        screen.warning("--seek " + formatPosition(*options.seekMs) + " is past the end of " +
                       input.argument + " (" + formatPosition(durationMs) +
                       "): nothing of it will be heard");
    }
    if (options.seekMs && feed && !feed->seekable()) {
        screen.warning("--seek has no effect on stdin, which cannot seek");
    }

    auto listener = std::make_shared<zem::Listener>(feed.get());
    {
        std::lock_guard<std::mutex> lock(run.mutex);
        run.current = listener;
    }
    if (run.interrupted) return kInterrupted;  // a signal between two inputs found no listener
    const int verbosity = options.verbosity;
    const int minLevel = verbosity == 0 ? 6 : verbosity == 1 ? 5 : std::max(1, 5 - verbosity);
    auto logger = std::make_shared<zem::ConnectFailureRecorder>(
        std::make_shared<zem::StderrLogSink>("zem-play", minLevel));
    std::unique_ptr<orv::ZEMAudioTrack> track(createZEMAudioTrack());
    if (!track->init(std::shared_ptr<orv::EventListenerV3>(listener), logger)) {
        if (run.interrupted) return kInterrupted;
        screen.failure(zem::ConnectFailure::parse(logger->last()).explain());
        return kNoService;
    }

    orv::ZEMAudioSourceV4 source;
    orv::MediaDescription description;
    source.volumeGain = 1.0f;
    source.setClusterId("zem-play");
    if (feed) {
        const zem::StreamFormat& format = feed->format();
        source.type = orv::kSourceTypePcm;
        source.format.sampleRate = format.rate;
        source.format.sampleSizeInBits = format.type == zem::SampleType::S16 ? 16 : 32;
        source.format.channelNum = format.channels;
        source.format.isSigned = true;
        source.format.layout = 1;
        if (feed->frames() >= 0) {
            durationMs = feed->frames() * 1000 / format.rate;
            description.firstMap.count = 1;
            description.firstMap.pairs[0] =
                orv::DescriptionPair(zem::kTotalFramesKey, std::to_string(feed->frames()).c_str());
        }
        screen.message(
            describe(input) + ": " + format.describe() + ", " +
            (durationMs >= 0 ? formatPosition(durationMs) : std::string("length unknown")) +
            ", sent as PCM");
    } else {
        source.type = orv::kSourceTypeUrl;
        source.setUrl(input.url.c_str());
        screen.message(input.argument + ": sent as the URL " + source.url);
    }
    const long long sourceId = track->setSource(source, description);
    if (sourceId <= 0) {
        screen.failure("the audio service did not accept " + describe(input));
        track->destroy();
        return kPlaybackFailed;
    }
    if (options.volume || run.volume < 1.0f) track->setVolume(run.volume);
    if (options.seekMs && (!feed || feed->seekable())) {
        const int seekMs = static_cast<int>(*options.seekMs);
        if (feed) feed->seek(int64_t{seekMs} * feed->format().rate / 1000);
        track->seekTo(seekMs, true);
    }
    const Clock::time_point playedAt = Clock::now();
    track->play();

    const char* state = "starting";
    int result = -1;
    bool interrupted = false;
    bool quitting = false;
    bool paused = false;
    bool seekedWhilePlaying = false;
    bool cutShort = false;
    std::optional<Clock::time_point> resumeAt;
    bool pausedOnce = false;
    int offsetMs = 0;
    Clock::time_point endedAt;
    while (result < 0) {
        if (std::optional<zem::PlayEvent> event =
                listener->next(Clock::now() + (run.keys ? 50ms : 100ms))) {
            if (event->kind != zem::PlayEvent::Interrupted) screen.line(event->text);
            switch (event->kind) {
                case zem::PlayEvent::Started:
                case zem::PlayEvent::Resumed:
                case zem::PlayEvent::Refilled:
                    state = "playing";
                    paused = false;
                    break;
                case zem::PlayEvent::Paused:
                    state = "paused";
                    paused = true;
                    break;
                case zem::PlayEvent::Underrun:
                    state = "buffering";
                    if (feed && !cutShort && endedEarly(*feed)) {
                        // The service waits for audio that never comes: what could be decoded
                        // has been heard, so end the playback here.
                        cutShort = true;
                        screen.failure(describe(input) + " is damaged or cut short at " +
                                       formatPosition(event->offsetMs) + "; stopping there");
                        track->stop();
                    }
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
                    if (!interrupted && !quitting && !cutShort) {
                        screen.failure("the playback of " + describe(input) +
                                       " was stopped by the service");
                    }
                    result = interrupted ? kInterrupted : quitting ? kFinished : kPlaybackFailed;
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
        for (const Key key : run.readKeys()) {
            if (quitting || interrupted) break;
            switch (key) {
                case Key::PauseResume:
                    resumeAt.reset();
                    paused ? track->resume() : track->pause();
                    break;
                case Key::SeekBack:
                case Key::SeekForward: {
                    if (feed && !feed->seekable()) {
                        screen.warning("stdin cannot seek");
                        break;
                    }
                    int64_t target = offsetMs + (key == Key::SeekBack ? -kSeekStepMs : kSeekStepMs);
                    target = std::max<int64_t>(target, 0);
                    if (durationMs >= 0) target = std::min(target, durationMs);
                    if (feed) feed->seek(target * feed->format().rate / 1000);
                    track->seekTo(static_cast<int>(target), true);
                    seekedWhilePlaying = true;
                    offsetMs = static_cast<int>(target);  // where the next key press starts
                    break;
                }
                case Key::VolumeUp:
                case Key::VolumeDown: {
                    const float step = key == Key::VolumeUp ? kVolumeStep : -kVolumeStep;
                    run.volume = std::clamp(
                        std::round((run.volume + step) / kVolumeStep) * kVolumeStep, 0.0f, 1.0f);
                    track->setVolume(run.volume);
                    screen.line("volume " + std::to_string(std::lround(run.volume * 100)) + "%");
                    break;
                }
                case Key::Quit:
                    quitting = true;
                    run.quit = true;
                    track->stop();
                    break;
            }
        }
        if (options.pauseAfterMs && !pausedOnce && offsetMs >= *options.pauseAfterMs) {
            pausedOnce = true;
            track->pause();
            resumeAt = Clock::now() + std::chrono::milliseconds(options.pauseForMs);
        } else if (resumeAt && Clock::now() >= *resumeAt) {
            resumeAt.reset();
            track->resume();
        }
        const zem::PcmFeed::Totals supplied = feed ? feed->totals() : zem::PcmFeed::Totals{};
        if (feed && !cutShort && supplied.bytes == 0 && endedEarly(*feed)) {
            screen.failure("cannot play " + describe(input) + ": " +
                           (supplied.error.empty() ? "it holds no audio that can be decoded"
                                                   : supplied.error));
            track->stop();
            result = kPlaybackFailed;
        }
        const int64_t frame = meter ? int64_t{offsetMs} * meter->format().rate / 1000 : 0;
        screen.progress({offsetMs, durationMs, state, peakDb(meter.get(), frame), run.volume});
    }
    screen.finish();

    if (result == kFinished && feed && !quitting) {
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
        if (seekedWhilePlaying) {
            // Audio requested before a seek and dropped by the service is in our hash only.
            screen.message("the fingerprint is not compared after a seek during playback");
        } else if (fingerprint.first && std::string(fingerprint.first) == "fnv1a64" &&
                   fingerprint.second) {
            if (totals.hash == fingerprint.second) {
                screen.message("the service received exactly the audio supplied (fnv1a64 " +
                               totals.hash + ")");
            } else {
                screen.failure("MISMATCH: the service received fnv1a64 " +
                               std::string(fingerprint.second) + ", zem-play supplied " +
                               totals.hash);
                result = kPlaybackFailed;
            }
        }
    } else if (result == kFinished && !quitting) {
        const double took = std::chrono::duration<double>(endedAt - playedAt).count();
        char text[120];
        std::snprintf(text, sizeof text, "played to %s in %.3f s", formatPosition(offsetMs).c_str(),
                      took);
        screen.message(text);
    }
    track->destroy();
    {
        std::lock_guard<std::mutex> lock(run.mutex);
        run.current.reset();
    }
    return result;
}

int playAll(const Options& options, const std::vector<Input>& inputs) {
    const bool fromStdin = std::any_of(inputs.begin(), inputs.end(), [](const Input& input) {
        return input.kind == Input::Stdin;
    });
    const bool keys = !fromStdin && isatty(STDIN_FILENO) == 1;
    Run run(options, keys);
    run.volume = options.volume.value_or(1.0f);
    std::optional<RawTerminal> terminal;
    if (keys) terminal.emplace();
    SignalWatcher signals([&run] { run.interrupt(); }, kInterruptGrace);
    int worst = kFinished;
    for (const Input& input : inputs) {
        const int status = playOne(run, input);
        worst = std::max(worst, status);
        if (signals.interrupted()) return kInterrupted;
        // Without a service, or on q, the rest would not play either.
        if (status == kNoService || status == kInterrupted || run.quit) break;
    }
    return worst;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"zem-play: plays audio files, URLs or stdin through the audio service"};
    Options options;
    std::string volume, seek, pauseAfter, pauseFor, format;
    app.add_option("inputs", options.inputs,
                   "audio files (WAV, FLAC, Ogg, ...), URLs sent to the service as they are, or - "
                   "for PCM on stdin; played one after another")
        ->type_name("FILE|URL|-");
    app.add_flag("--url", options.url,
                 "send files as file:// URLs for the service to open, instead of as PCM");
    app.add_option("--volume", volume, "a factor (0.5), a percentage (50%) or decibels (-6dB)")
        ->type_name("VOLUME");
    app.add_option("--seek", seek, "start at this position: seconds, m:ss or h:mm:ss")
        ->type_name("POS");
    app.add_option("--pause-after", pauseAfter,
                   "pause once the position reaches this (a bare number is in ms)")
        ->type_name("POS");
    app.add_option("--pause-for", pauseFor, "how long to stay paused (a bare number is in ms)")
        ->type_name("TIME")
        ->default_str("1000");
    app.add_option("--format", format, "the layout of raw PCM on stdin: s16le:48000:2, s32le:...")
        ->type_name("TYPE:RATE:CH");
    app.add_flag("-q,--quiet", options.quiet,
                 "print only warnings and failures: no event lines, no progress");
    app.add_flag("-v,--verbose", options.verbosity,
                 "show the library's log: -v errors, -vv lifecycle, -vvv calls, -vvvv data");
    app.set_version_flag("--version", "zem-play " ZEM_PLAY_VERSION);
    app.footer(kExamples);
    const auto usage = [](const std::string& text) { return zem::usageError("zem-play", text); };
    if (const std::optional<int> status = zem::parseCommandLine(app, argc, argv, "zem-play")) {
        return *status;
    }
    std::string error;
    if (options.inputs.empty()) return usage("nothing to play: give files, URLs or - for stdin");
    if (std::count(options.inputs.begin(), options.inputs.end(), "-") > 1) {
        return usage("stdin (-) can be played only once");
    }
    if (!volume.empty() && !(options.volume = parseVolume(volume, error))) {
        return usage("--volume: " + error);
    }
    if (!seek.empty() && !(options.seekMs = parsePosition(seek, 1000, error))) {
        return usage("--seek: " + error);
    }
    if (!pauseAfter.empty() && !(options.pauseAfterMs = parsePosition(pauseAfter, 1, error))) {
        return usage("--pause-after: " + error);
    }
    if (!pauseFor.empty()) {
        const std::optional<int64_t> ms = parsePosition(pauseFor, 1, error);
        if (!ms) return usage("--pause-for: " + error);
        options.pauseForMs = *ms;
    }
    if (!format.empty() && !(options.rawFormat = parseRawFormat(format, error))) {
        return usage("--format: " + error);
    }
    std::vector<Input> inputs;
    for (const std::string& argument : options.inputs) {
        inputs.push_back(classify(argument, options.url));
    }
    const auto warn = [](const std::string& text) {
        std::fprintf(stderr, "zem-play: warning: %s\n", text.c_str());
    };
    const bool fromStdin = std::count(options.inputs.begin(), options.inputs.end(), "-") == 1;
    if (!pauseFor.empty() && pauseAfter.empty()) {
        warn("--pause-for has no effect without --pause-after");
    }
    if (!format.empty() && !fromStdin)
        warn("--format has no effect: it describes raw PCM on stdin (-)");
    for (const Input& input : inputs) {
        if (options.url && input.kind == Input::Stdin) {
            warn("--url has no effect on stdin, which is always sent as PCM");
        } else if (options.url && hasScheme(input.argument)) {
            warn("--url has no effect on " + input.argument + ": it is a URL already");
        }
    }
    if (fromStdin && isatty(STDIN_FILENO) == 1) {
        return usage("stdin is a terminal: pipe audio into zem-play to play it from stdin");
    }

    // Blocked before any thread starts; one thread takes them and tells the main loop.
    sigset_t signals = endingSignals();
    sigaddset(&signals, SIGCONT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    try {
        return playAll(options, inputs);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "zem-play: unexpected failure: %s\n", failure.what());
    } catch (...) {
        std::fprintf(stderr, "zem-play: unexpected failure\n");
    }
    restoreTerminal();
    std::fflush(nullptr);
    std::_Exit(kPlaybackFailed);
}
