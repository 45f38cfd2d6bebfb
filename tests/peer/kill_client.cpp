// A client that the kill tests and the soak SIGKILL. It plays a PCM source through the exported
// track, supplying a byte pattern whenever the service asks.
//   kill_client stream            sets the source, writes "source <id>" and streams until its
//                                 stdin ends or it is killed
//   kill_client die <stage> <seed> kills itself with SIGKILL at a random point of <stage>:
//                                 init (connecting), setSource, getBuffer (inside the listener's
//                                 answer to the service's pull) or event (inside an event)
// A stage that cannot be reached (no service, no pull within 10 s) exits 3 with a line on stderr.
#include <orv/ZEMAudioTrack.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "support/TrackCases.h"

namespace {

using namespace orv;
using namespace orv::test;

int fail(const std::string& why) {
    std::fprintf(stderr, "kill_client: %s\n", why.c_str());
    return 3;
}

// SIGKILL after a random delay below `maxMicros`, from a thread of its own.
void killAfter(std::mt19937& random, int maxMicros) {
    const auto delay = std::chrono::microseconds(random() % static_cast<unsigned>(maxMicros));
    std::thread([delay] {
        std::this_thread::sleep_for(delay);
        ::raise(SIGKILL);
    }).detach();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    const std::string stage = argc > 2 ? argv[2] : "";
    std::mt19937 random(argc > 3 ? static_cast<unsigned>(std::stoul(argv[3])) : 1u);
    auto log = std::make_shared<orv::test::RecordingLogSink>();
    auto listener = std::make_shared<RecordingListener>(log, "listener");
    if (mode == "die" && stage == "init") {
        killAfter(random, 3000);
        for (;;) {  // connect again and again until the kill lands
            std::unique_ptr<ZEMAudioTrack> track(createZEMAudioTrack());
            if (!track->init(std::shared_ptr<EventListenerV3>(listener), log))
                return fail("init failed");
        }
    }
    std::unique_ptr<ZEMAudioTrack> track(createZEMAudioTrack());
    if (!track->init(std::shared_ptr<EventListenerV3>(listener), log)) return fail("init failed");
    if (mode == "die" && stage == "setSource") {
        killAfter(random, 3000);
        for (;;)
            if (track->setSource(source(kSourceTypePcm)) < 0) return fail("setSource failed");
    }
    // Dies inside getBuffer on a random one of the first pulls, or inside one of the first events.
    std::atomic<int> pulls{0}, events{0};
    const int dieOnPull = stage == "getBuffer" ? 1 + random() % 8 : 0;
    const int dieOnEvent = stage == "event" ? 1 + random() % 2 : 0;
    listener->count = [&](int size) {
        if (++pulls == dieOnPull) ::raise(SIGKILL);
        return size;
    };
    listener->then = [&] {
        if (++events == dieOnEvent) ::raise(SIGKILL);
    };
    const long long id = track->setSource(source(kSourceTypePcm));
    if (id < 0) return fail("setSource failed");
    if (mode == "stream") {
        std::cout << "source " << id << std::endl;
        for (std::string line; std::getline(std::cin, line);) continue;
        return 0;
    }
    if (mode != "die" || (stage != "getBuffer" && stage != "event")) return fail("bad usage");
    if (!track->play()) return fail("play failed");
    std::this_thread::sleep_for(std::chrono::seconds(10));
    return fail("no " + stage + " within 10 s");
}
