// Many tracks in real time: one audio service and several application processes, the way a
// phone's audio service serves every app at once.
//
// For each track count N the binary forks a service process (the library's server half, with a
// player that pulls) and starts 4 copies of itself as application processes ("scale_bench
// client ..."), which share the N tracks between them. Each track has a PCM source playing. The
// service's player pulls 12288 bytes (64 ms of 48 kHz stereo 16-bit audio) from every track
// every 64 ms through MediaClientDelegate::getData, from a few player threads as a mixer would,
// while every track also asks for its offset once per 100 ms from its application process. Then
// every track is pulled as fast as the player threads can for a while (the burst), and the same
// 12288-byte answers go raw over socketpairs between the same processes for as long.
//
// A table at the end gives, by track count: the threads of the service and of each application
// process at the peak, resident memory per idle track on each side, pull and
// request latency, underruns, and the burst's throughput beside the raw sockets'.
//
// Last, the service and 64 tracks run in one process, as an application embedding its own
// service would, for that process's threads and memory per track.
//
// Any failure (a track that cannot be created, an application or the service that dies, a pull
// that finds no track, a request that fails) ends the run with a non-zero exit instead of
// figures for fewer tracks.
#include <fcntl.h>
#include <orv/ZEMAudioServer.h>
#include <orv/ZEMAudioTrack.h>
#include <parlex/binder.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TrackPath.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kClients = 4;
constexpr int kPullBytes = 12288;
constexpr milliseconds kPullPeriod{64};
constexpr milliseconds kRequestPeriod{100};
// What the player answers to getOffset, so that the application can tell a real answer.
constexpr int kOffsetMs = 1234;
// The raw twin's request: as long as the getBuffer callback's parcel.
constexpr size_t kRawRequestBytes = 40;
// How long the service waits for the application processes to create their tracks, and for
// them to exit at the end.
constexpr std::chrono::seconds kSetupTimeout(120);
constexpr std::chrono::seconds kExitTimeout(30);
// The descriptors an application process finds its two channels on.
constexpr int kControlFd = 3;
constexpr int kRawFd = 4;
const char* const kClientArgument = "client";

// Every application process holds up to a quarter of the tracks, one connection each: 128 at
// 512 tracks, the default cap of connections per peer process, so the service grants more.
const parlex::ServerLimits kLimits = [] {
    parlex::ServerLimits limits;
    limits.maxConnectionsPerProcess = 1024;
    limits.maxConnections = 4096;
    return limits;
}();

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

struct Options {
    std::vector<int> trackCounts{1, 8, 64, 512};
    double seconds = 5;
    double burstSeconds = 1;
    int playerThreads = 2;
    int oneProcessTracks = 64;  // 0: no run with both halves in one process
};

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) return NAN;
    std::sort(values.begin(), values.end());
    size_t rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(values.size())));
    return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

long residentKiB(pid_t pid) {
    std::ifstream statm("/proc/" + std::to_string(pid) + "/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

int threadCount(pid_t pid) {
    std::error_code error;
    int count = 0;
    for (std::filesystem::directory_iterator it("/proc/" + std::to_string(pid) + "/task", error);
         !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
        ++count;
    }
    return count;
}

// A socket's end with a line-oriented reader and writer: the service and each application
// process talk over a stream socketpair.
class LineChannel {
public:
    explicit LineChannel(int fd) : fd_(fd) {}
    ~LineChannel() {
        if (fd_ >= 0) ::close(fd_);
    }
    LineChannel(const LineChannel&) = delete;
    LineChannel& operator=(const LineChannel&) = delete;

    void send(const std::string& line) {
        std::string text = line + "\n";
        size_t done = 0;
        while (done < text.size()) {
            ssize_t n = ::send(fd_, text.data() + done, text.size() - done, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) throw std::runtime_error(errnoText("control channel send"));
            done += static_cast<size_t>(n);
        }
    }

    // The next line without its newline; throws when the other end is gone or, with a
    // timeout, when no line came in time.
    std::string receive(std::chrono::milliseconds timeout = milliseconds(-1)) {
        const auto deadline = Clock::now() + timeout;
        while (true) {
            size_t end = buffered_.find('\n');
            if (end != std::string::npos) {
                std::string line = buffered_.substr(0, end);
                buffered_.erase(0, end + 1);
                return line;
            }
            int waitMs = -1;
            if (timeout.count() >= 0) {
                waitMs = static_cast<int>(std::max<long long>(
                    0, std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count()));
            }
            pollfd readable{fd_, POLLIN, 0};
            int ready = ::poll(&readable, 1, waitMs);
            if (ready < 0 && errno == EINTR) continue;
            if (ready == 0) throw std::runtime_error("no answer on the control channel in time");
            char chunk[4096];
            ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) throw std::runtime_error("the other process closed the control channel");
            buffered_.append(chunk, static_cast<size_t>(n));
        }
    }

private:
    int fd_;
    std::string buffered_;
};

// ---- The application process ----

// The application's listener: audio always ready, and the service's death noted.
class ClientListener : public trackpath::ReadyListener {
public:
    void onServerDeath() override { died = true; }
    std::atomic<bool> died{false};
};

// Asks every track for its offset once per request period, the tracks spread evenly over it,
// from one thread; keeps each call's latency.
class RequestLoop {
public:
    explicit RequestLoop(std::vector<std::unique_ptr<orv::ZEMAudioTrack>>& tracks)
        : tracks_(tracks) {}
    ~RequestLoop() { finish(); }

    void start() {
        if (tracks_.empty()) return;
        thread_ = std::thread([this] { run(); });
    }
    void finish() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }

    std::vector<double> micros;
    long failures = 0;

private:
    void run() {
        const auto start = Clock::now();
        const auto n = static_cast<long long>(tracks_.size());
        const auto step = std::chrono::duration_cast<Clock::duration>(kRequestPeriod) / n;
        for (long long k = 0; !stop_; ++k) {
            std::this_thread::sleep_until(start + (k / n) * kRequestPeriod + (k % n) * step);
            const auto begin = Clock::now();
            const int offset = tracks_[static_cast<size_t>(k % n)]->getOffset();
            micros.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
            if (offset != kOffsetMs) ++failures;
        }
    }

    std::vector<std::unique_ptr<orv::ZEMAudioTrack>>& tracks_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Answers raw requests with 12288 bytes until a 1-byte record ends the burst.
void echoRaw(int fd) {
    std::vector<uint8_t> in(kRawRequestBytes), out(kPullBytes, 0x22);
    while (true) {
        ssize_t n = ::recv(fd, in.data(), in.size(), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw std::runtime_error("the raw channel closed");
        if (n == 1) return;
        if (::send(fd, out.data(), out.size(), MSG_NOSIGNAL) < 0) {
            throw std::runtime_error(errnoText("raw send"));
        }
    }
}

// `count` tracks, each with a PCM source playing through the service.
std::vector<std::unique_ptr<orv::ZEMAudioTrack>> playingTracks(
    int count, const std::shared_ptr<orv::EventListenerV3>& listener,
    const std::shared_ptr<orv::LoggingDelegate>& logger) {
    std::vector<std::unique_ptr<orv::ZEMAudioTrack>> tracks;
    for (int i = 0; i < count; ++i) {
        tracks.emplace_back(createZEMAudioTrack());
        orv::ZEMAudioTrack& track = *tracks.back();
        if (!track.init(listener, logger)) throw std::runtime_error("track init failed");
        const orv::ZEMAudioSource source = trackpath::stereoPcm();
        if (track.setSource(source) < 0) throw std::runtime_error("setSource failed");
        if (!track.play()) throw std::runtime_error("play failed");
    }
    return tracks;
}

// "ready <RSS KiB with no track> <RSS KiB with every track playing>", then on "go" the requests
// start, on "stop" they stop and "requests <failures> <latencies...>" comes back, on "raw" the
// raw burst is echoed, on "exit" the tracks end and the process exits.
int runClient(int trackCount) {
    LineChannel control(kControlFd);
    try {
        const long before = residentKiB(::getpid());
        auto listener = std::make_shared<ClientListener>();
        auto logger = std::make_shared<trackpath::QuietLog>();
        std::vector<std::unique_ptr<orv::ZEMAudioTrack>> tracks =
            playingTracks(trackCount, listener, logger);
        control.send("ready " + std::to_string(before) + " " +
                     std::to_string(residentKiB(::getpid())));
        RequestLoop requests(tracks);
        while (true) {
            const std::string command = control.receive();
            if (listener->died) throw std::runtime_error("the audio service died");
            if (command == "go") {
                requests.start();
            } else if (command == "stop") {
                requests.finish();
                std::ostringstream answer;
                answer << "requests " << requests.failures;
                for (double us : requests.micros) answer << ' ' << us;
                control.send(answer.str());
            } else if (command == "raw") {
                echoRaw(kRawFd);
            } else if (command == "exit") {
                break;
            } else {
                throw std::runtime_error("unknown command '" + command + "'");
            }
        }
        tracks.clear();
        control.send("done");
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "scale_bench client %d: %s\n", static_cast<int>(::getpid()), e.what());
        try {
            control.send(std::string("error ") + e.what());
        } catch (const std::exception&) {
        }
        return 1;
    }
}

// ---- The service process ----

// A player that gives every source an id of its own and keeps them, so that its threads can
// pull each one.
class ScalePlayer : public trackpath::InstantPlayer {
public:
    long long setSource(const orv::SourceConfig&, const char*) override {
        std::lock_guard<std::mutex> lock(mutex_);
        sources_.push_back(nextId_);
        return nextId_++;
    }
    int getOffset(long long) override { return kOffsetMs; }

    std::vector<long long> sources() {
        std::lock_guard<std::mutex> lock(mutex_);
        return sources_;
    }

private:
    std::mutex mutex_;  // guards: sources_, nextId_
    std::vector<long long> sources_;
    long long nextId_ = 1;
};

// One application process, killed and reaped on destruction unless it exited.
class ClientProcess {
public:
    explicit ClientProcess(int trackCount) : tracks(trackCount) {
        int control[2], raw[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, control) != 0 ||
            ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, raw) != 0) {
            throw std::runtime_error(errnoText("socketpair"));
        }
        channel = std::make_unique<LineChannel>(control[0]);
        rawFd_ = raw[0];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        // dup2 clears close-on-exec on the copies the application keeps.
        posix_spawn_file_actions_adddup2(&actions, control[1], kControlFd);
        posix_spawn_file_actions_adddup2(&actions, raw[1], kRawFd);
        std::string self = std::filesystem::read_symlink("/proc/self/exe");
        std::string count = std::to_string(trackCount);
        std::vector<char*> argv = {self.data(), const_cast<char*>(kClientArgument), count.data(),
                                   nullptr};
        int rc = ::posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(control[1]);
        ::close(raw[1]);
        if (rc != 0) {
            pid = -1;
            throw std::runtime_error(std::string("spawning an application: ") + std::strerror(rc));
        }
    }
    ~ClientProcess() {
        if (rawFd_ >= 0) ::close(rawFd_);
        if (pid > 0 && !exited_) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    // Throws when the process is gone.
    void checkAlive() {
        int status;
        if (!exited_ && ::waitpid(pid, &status, WNOHANG) == pid) {
            exited_ = true;
            throw std::runtime_error("application process " + std::to_string(pid) +
                                     " exited early (wait status " + std::to_string(status) + ")");
        }
    }

    // Throws unless the process exits with status 0 within `timeout`.
    void waitForCleanExit(std::chrono::seconds timeout) {
        const auto deadline = Clock::now() + timeout;
        int status = 0;
        while (::waitpid(pid, &status, WNOHANG) != pid) {
            if (Clock::now() > deadline) throw std::runtime_error("an application did not exit");
            std::this_thread::sleep_for(milliseconds(10));
        }
        exited_ = true;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            throw std::runtime_error("application process " + std::to_string(pid) +
                                     " failed (wait status " + std::to_string(status) + ")");
        }
    }

    int rawFd() const { return rawFd_; }

    const int tracks;
    pid_t pid = -1;
    std::unique_ptr<LineChannel> channel;
    long rssBeforeKiB = 0, rssAfterKiB = 0;

private:
    int rawFd_ = -1;
    bool exited_ = false;
};

// What one track count's run measured; written whole through a pipe to the coordinator.
struct Result {
    int tracks = 0;
    int serviceThreads = 0;            // at the peak
    int clientThreads[kClients] = {};  // each application's, at its peak
    double serviceKiBPerTrack = 0, clientKiBPerTrack = 0;
    double pullP50 = 0, pullP99 = 0, pullP999 = 0;
    long pulls = 0, underruns = 0;
    double requestP50 = 0, requestP99 = 0;
    long requests = 0;
    double burstMBps = 0, rawMBps = 0;
};

// The pulls of one player thread: its share of the sources, every period.
struct PullerFigures {
    std::vector<double> micros;
    long underruns = 0;
    long failures = 0;
    long long bytes = 0;
};

void pullInRealTime(orv::MediaClientDelegate& delegate, const std::vector<long long>& sources,
                    Clock::time_point start, Clock::time_point end, PullerFigures& figures) {
    std::vector<uint8_t> buffer(kPullBytes);
    for (long period = 0;; ++period) {
        const auto slot = start + period * kPullPeriod;
        if (slot >= end) return;
        std::this_thread::sleep_until(slot);
        for (long long source : sources) {
            const auto begin = Clock::now();
            const int pulled = delegate.getData(buffer.data(), kPullBytes, source);
            const auto finished = Clock::now();
            figures.micros.push_back(
                std::chrono::duration<double, std::micro>(finished - begin).count());
            if (pulled < 0) ++figures.failures;
            if (pulled < kPullBytes || finished > slot + kPullPeriod) ++figures.underruns;
        }
    }
}

void pullAsFastAsPossible(orv::MediaClientDelegate& delegate, const std::vector<long long>& sources,
                          Clock::time_point end, PullerFigures& figures) {
    std::vector<uint8_t> buffer(kPullBytes);
    while (Clock::now() < end) {
        for (long long source : sources) {
            const int pulled = delegate.getData(buffer.data(), kPullBytes, source);
            if (pulled < 0) ++figures.failures;
            figures.bytes += std::max(pulled, 0);
        }
    }
}

long long rawBurst(int fd, Clock::time_point end) {
    std::vector<uint8_t> request(kRawRequestBytes, 0x33), answer(kPullBytes + 1);
    long long bytes = 0;
    while (Clock::now() < end) {
        if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
            throw std::runtime_error(errnoText("raw send"));
        }
        ssize_t n = ::recv(fd, answer.data(), answer.size(), 0);
        if (n != kPullBytes) throw std::runtime_error("raw answer of the wrong size");
        bytes += n;
    }
    const char end1 = 0;
    if (::send(fd, &end1, 1, MSG_NOSIGNAL) < 0) throw std::runtime_error(errnoText("raw send"));
    return bytes;
}

// Splits `sources` into `threads` shares, round robin.
std::vector<std::vector<long long>> share(const std::vector<long long>& sources, int threads) {
    std::vector<std::vector<long long>> shares(static_cast<size_t>(threads));
    for (size_t i = 0; i < sources.size(); ++i) {
        shares[i % shares.size()].push_back(sources[i]);
    }
    return shares;
}

std::chrono::duration<double> secondsOf(double seconds) {
    return std::chrono::duration<double>(seconds);
}

Result runService(int trackCount, const Options& options) {
    Result result;
    result.tracks = trackCount;
    auto player = std::make_shared<ScalePlayer>();
    orv::ZEMAudioServer service(player, std::make_shared<trackpath::QuietLog>(), kLimits);
    orv::MediaClientDelegate& delegate = *player->delegate;
    const long serviceBefore = residentKiB(::getpid());

    std::vector<std::unique_ptr<ClientProcess>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<ClientProcess>(trackCount / kClients +
                                                          (i < trackCount % kClients ? 1 : 0)));
    }
    for (auto& client : clients) {
        const std::string line = client->channel->receive(kSetupTimeout);
        std::istringstream ready(line);
        std::string word;
        ready >> word >> client->rssBeforeKiB >> client->rssAfterKiB;
        if (word != "ready") throw std::runtime_error("an application failed to set up: " + line);
    }
    const std::vector<long long> sources = player->sources();
    if (static_cast<int>(sources.size()) != trackCount) {
        throw std::runtime_error("the service has " + std::to_string(sources.size()) +
                                 " sources instead of " + std::to_string(trackCount));
    }
    long clientGrowth = 0;
    for (auto& client : clients) clientGrowth += client->rssAfterKiB - client->rssBeforeKiB;
    result.serviceKiBPerTrack =
        static_cast<double>(residentKiB(::getpid()) - serviceBefore) / trackCount;
    result.clientKiBPerTrack = static_cast<double>(clientGrowth) / trackCount;

    // Real time: the pulls and the requests together, threads sampled meanwhile.
    const int players = std::min<int>(options.playerThreads, trackCount);
    const auto shares = share(sources, players);
    std::vector<PullerFigures> pullers(shares.size());
    for (auto& client : clients) client->channel->send("go");
    const auto start = Clock::now() + milliseconds(20);
    const auto end =
        start + std::chrono::duration_cast<Clock::duration>(secondsOf(options.seconds));
    {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < shares.size(); ++i) {
            threads.emplace_back(
                [&, i] { pullInRealTime(delegate, shares[i], start, end, pullers[i]); });
        }
        // The player threads end at `end` whatever happens; a failure is thrown once they have.
        std::string failure;
        while (Clock::now() < end && failure.empty()) {
            result.serviceThreads = std::max(result.serviceThreads, threadCount(::getpid()));
            try {
                for (size_t i = 0; i < clients.size(); ++i) {
                    clients[i]->checkAlive();
                    result.clientThreads[i] =
                        std::max(result.clientThreads[i], threadCount(clients[i]->pid));
                }
            } catch (const std::exception& e) {
                failure = e.what();
            }
            std::this_thread::sleep_for(milliseconds(200));
        }
        for (auto& thread : threads) thread.join();
        if (!failure.empty()) throw std::runtime_error(failure);
    }
    std::vector<double> pullMicros, requestMicros;
    for (const auto& puller : pullers) {
        if (puller.failures > 0) throw std::runtime_error("a pull found no track");
        pullMicros.insert(pullMicros.end(), puller.micros.begin(), puller.micros.end());
        result.underruns += puller.underruns;
    }
    for (auto& client : clients) {
        client->channel->send("stop");
        std::istringstream answer(client->channel->receive(kSetupTimeout));
        std::string word;
        long failures = -1;
        answer >> word >> failures;
        if (word != "requests" || failures != 0) {
            throw std::runtime_error("an application's requests failed: " + word + " " +
                                     std::to_string(failures));
        }
        for (double us; answer >> us;) requestMicros.push_back(us);
    }
    result.pulls = static_cast<long>(pullMicros.size());
    result.pullP50 = percentile(pullMicros, 0.5);
    result.pullP99 = percentile(pullMicros, 0.99);
    result.pullP999 = percentile(pullMicros, 0.999);
    result.requests = static_cast<long>(requestMicros.size());
    result.requestP50 = percentile(requestMicros, 0.5);
    result.requestP99 = percentile(requestMicros, 0.99);

    // The burst, then the raw sockets for as long with as many threads.
    const auto burst = std::chrono::duration_cast<Clock::duration>(secondsOf(options.burstSeconds));
    {
        std::vector<PullerFigures> burstFigures(shares.size());
        std::vector<std::thread> threads;
        const auto burstEnd = Clock::now() + burst;
        const auto burstStart = Clock::now();
        for (size_t i = 0; i < shares.size(); ++i) {
            threads.emplace_back(
                [&, i] { pullAsFastAsPossible(delegate, shares[i], burstEnd, burstFigures[i]); });
        }
        // A transport that adds threads under load shows it here.
        while (Clock::now() < burstEnd) {
            result.serviceThreads = std::max(result.serviceThreads, threadCount(::getpid()));
            std::this_thread::sleep_for(milliseconds(100));
        }
        for (auto& thread : threads) thread.join();
        const double elapsed = std::chrono::duration<double>(Clock::now() - burstStart).count();
        long long bytes = 0;
        for (const auto& figures : burstFigures) {
            if (figures.failures > 0) throw std::runtime_error("a burst pull found no track");
            bytes += figures.bytes;
        }
        result.burstMBps = static_cast<double>(bytes) / elapsed / 1e6;
    }
    {
        const size_t rawThreads = std::min(shares.size(), clients.size());
        for (size_t i = 0; i < rawThreads; ++i) clients[i]->channel->send("raw");
        std::vector<long long> bytes(rawThreads);
        std::vector<std::thread> threads;
        const auto rawStart = Clock::now();
        const auto rawEnd = rawStart + burst;
        for (size_t i = 0; i < rawThreads; ++i) {
            threads.emplace_back([&, i] { bytes[i] = rawBurst(clients[i]->rawFd(), rawEnd); });
        }
        for (auto& thread : threads) thread.join();
        const double elapsed = std::chrono::duration<double>(Clock::now() - rawStart).count();
        long long total = 0;
        for (long long b : bytes) total += b;
        result.rawMBps = static_cast<double>(total) / elapsed / 1e6;
    }

    for (auto& client : clients) client->channel->send("exit");
    for (auto& client : clients) {
        const std::string done = client->channel->receive(kExitTimeout);
        if (done != "done") throw std::runtime_error("an application failed at exit: " + done);
        client->waitForCleanExit(kExitTimeout);
    }
    return result;
}

// ---- The coordinator ----

// Both halves in one process, as an application that embeds its own service: the service and
// `trackCount` tracks playing through it, each pulled once. Only the tracks, the threads and the
// service's memory per track are filled in.
Result runOneProcess(int trackCount) {
    Result result;
    result.tracks = trackCount;
    auto player = std::make_shared<ScalePlayer>();
    auto logger = std::make_shared<trackpath::QuietLog>();
    orv::ZEMAudioServer service(player, logger);
    const long before = residentKiB(::getpid());
    auto listener = std::make_shared<ClientListener>();
    auto tracks = playingTracks(trackCount, listener, logger);
    result.serviceKiBPerTrack = static_cast<double>(residentKiB(::getpid()) - before) / trackCount;
    std::vector<uint8_t> buffer(kPullBytes);
    for (long long source : player->sources()) {
        if (player->delegate.load()->getData(buffer.data(), kPullBytes, source) != kPullBytes) {
            throw std::runtime_error("a pull in one process came short");
        }
    }
    result.serviceThreads = threadCount(::getpid());
    return result;
}

// Runs `run` in a service process of its own, so that each track count starts with a fresh
// heap and each figure of memory is its own; returns what it measured.
Result runForked(const std::string& what, const std::string& dir,
                 const std::function<Result()>& run) {
    std::filesystem::create_directories(dir);
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error(errnoText("pipe"));
    std::fflush(nullptr);
    // The coordinator has no thread but its own, so the forked service starts clean.
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error(errnoText("fork"));
    if (pid == 0) {
        ::close(pipeFds[0]);
        int status = 0;
        try {
            ::setenv("PARLEX_RUNTIME_DIR", dir.c_str(), 1);
            Result result = run();
            if (::write(pipeFds[1], &result, sizeof result) != sizeof result) status = 1;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "scale_bench service, %s: %s\n", what.c_str(), e.what());
            status = 1;
        }
        std::fflush(nullptr);
        ::_exit(status);
    }
    ::close(pipeFds[1]);
    Result result;
    ssize_t n;
    do {
        n = ::read(pipeFds[0], &result, sizeof result);
    } while (n < 0 && errno == EINTR);
    ::close(pipeFds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (n != sizeof result || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("the service process for " + what + " failed (wait status " +
                                 std::to_string(status) + ")");
    }
    return result;
}

void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error(errnoText("getrlimit"));
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error(errnoText("setrlimit"));
}

void printTable(const std::vector<Result>& results, const Options& options) {
    std::printf(
        "\n%d application processes; %d player threads in the service; %.1f s in real time "
        "(12288 bytes per track every 64 ms, one getOffset per track every 100 ms), then a "
        "%.1f s burst.\nthreads: whole processes at the peak (the service's include its main "
        "and player threads, an application's its main and request threads).\nKiB/track: "
        "resident memory with the tracks created and playing, before any pull, minus that with "
        "none, over the tracks.\nTimes in microseconds; underrun = a pull that returned short "
        "or ended after its next 64 ms slot.\n",
        kClients, options.playerThreads, options.seconds, options.burstSeconds);
    std::printf(
        "The service grants maxConnectionsPerProcess %zu and maxConnections %zu (defaults %zu "
        "and %zu).\n",
        kLimits.maxConnectionsPerProcess, kLimits.maxConnections,
        parlex::ServerLimits().maxConnectionsPerProcess, parlex::ServerLimits().maxConnections);
    std::printf("%6s %8s %15s %9s %9s %8s %8s %8s %7s %6s %8s %8s %7s %9s %9s\n", "tracks",
                "svc thr", "app thr (each)", "svc KiB/t", "app KiB/t", "pull p50", "pull p99",
                "p99.9", "pulls", "under", "req p50", "req p99", "reqs", "burst MB/s", "raw MB/s");
    for (const Result& r : results) {
        std::string each;
        for (int threads : r.clientThreads) {
            each += (each.empty() ? "" : "/") + std::to_string(threads);
        }
        std::printf(
            "%6d %8d %15s %9.1f %9.1f %8.1f %8.1f %8.1f %7ld %6ld %8.1f %8.1f %7ld %9.1f %9.1f\n",
            r.tracks, r.serviceThreads, each.c_str(), r.serviceKiBPerTrack, r.clientKiBPerTrack,
            r.pullP50, r.pullP99, r.pullP999, r.pulls, r.underruns, r.requestP50, r.requestP99,
            r.requests, r.burstMBps, r.rawMBps);
    }
}

Options parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&arg](const char* prefix) -> const char* {
            const size_t length = std::strlen(prefix);
            return arg.compare(0, length, prefix) == 0 ? arg.c_str() + length : nullptr;
        };
        if (const char* v = value("--seconds=")) {
            options.seconds = std::atof(v);
        } else if (const char* v = value("--burst-seconds=")) {
            options.burstSeconds = std::atof(v);
        } else if (const char* v = value("--player-threads=")) {
            options.playerThreads = std::atoi(v);
        } else if (const char* v = value("--one-process-tracks=")) {
            options.oneProcessTracks = std::atoi(v);
        } else if (const char* v = value("--tracks=")) {
            options.trackCounts.clear();
            std::istringstream list(v);
            for (std::string item; std::getline(list, item, ',');) {
                options.trackCounts.push_back(std::atoi(item.c_str()));
            }
        } else {
            throw std::runtime_error(
                "unknown argument '" + arg +
                "'; expected --tracks=1,8,64,512 --seconds=5 --burst-seconds=1 "
                "--player-threads=2 --one-process-tracks=64");
        }
    }
    const bool countsValid = !options.trackCounts.empty() &&
                             std::all_of(options.trackCounts.begin(), options.trackCounts.end(),
                                         [](int n) { return n > 0 && n <= 4096; });
    if (!countsValid || options.seconds <= 0 || options.burstSeconds <= 0 ||
        options.playerThreads < 1 || options.oneProcessTracks < 0) {
        throw std::runtime_error("track counts must be 1-4096, times and threads positive");
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], kClientArgument) == 0) {
        return runClient(std::atoi(argv[2]));
    }
    try {
        const Options options = parseOptions(argc, argv);
        raiseDescriptorLimit();
        char pattern[] = "/tmp/scale-bench-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) throw std::runtime_error(errnoText("mkdtemp"));
        const std::string base = pattern;
        std::vector<Result> results;
        std::string failure;
        for (int tracks : options.trackCounts) {
            std::printf("%d tracks...\n", tracks);
            std::fflush(stdout);
            try {
                results.push_back(runForked(std::to_string(tracks) + " tracks",
                                            base + "/" + std::to_string(tracks),
                                            [&] { return runService(tracks, options); }));
            } catch (const std::exception& e) {
                failure = e.what();
                break;
            }
        }
        std::optional<Result> oneProcess;
        if (failure.empty() && options.oneProcessTracks > 0) {
            try {
                oneProcess = runForked("one process", base + "/one-process",
                                       [&] { return runOneProcess(options.oneProcessTracks); });
            } catch (const std::exception& e) {
                failure = e.what();
            }
        }
        std::error_code ignored;
        std::filesystem::remove_all(base, ignored);
        if (!results.empty()) printTable(results, options);
        if (oneProcess) {
            std::printf(
                "\nBoth halves in one process, %d tracks playing: %d threads, %.1f KiB per "
                "track.\n",
                oneProcess->tracks, oneProcess->serviceThreads, oneProcess->serviceKiBPerTrack);
        }
        if (!failure.empty()) {
            std::fprintf(stderr, "scale_bench: FAILED: %s\n", failure.c_str());
            return 1;
        }
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "scale_bench: %s\n", e.what());
        return 1;
    }
}
