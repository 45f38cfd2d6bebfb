// A track service that breaks the protocol, for the client's tests: `hostile_service` publishes
// the track service over the bare transport. Its track objects answer "getPlaybackReportArray"
// with a count of 1000 and "getPlaybackReports" with a count of 0x7fffffff, neither followed by
// any report, and every other request with nothing. On stdin, "getBuffer <n>" asks the newest
// track's client for <n> bytes and prints "reply <hex>" or "error <what>". Prints "ready" once
// published; ends with stdin.
#include <parlex/binder.h>

#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include "parlex/TrackProtocol.h"
#include "support/RawArgs.h"
#include "support/Say.h"

namespace {

using orv::test::Raw;
using orv::test::say;

std::mutex newestMutex;  // guards: newest
std::weak_ptr<parlex::AndroidImpl> newest;

}  // namespace

int main() {
    using namespace orv::protocol;
    parlex::AndroidServer server;
    server.registerFactory(kObjectType, [] {
        auto track = std::make_shared<parlex::AndroidImpl>();
        for (const char* name : {kPlay, kStop, kGetOffset, kDestroy})
            track->bind(name, [] { return Raw(); });
        track->bind(kGetPlaybackReportArray, [] { return Raw::encoding(1000); });
        track->bind(kGetPlaybackReports, [] { return Raw::encoding(0x7fffffff); });
        std::lock_guard<std::mutex> lock(newestMutex);
        newest = track;
        return track;
    });
    server.start(kServiceName);
    say("ready");
    for (std::string verb; std::cin >> verb;) {
        int size = 0;
        std::cin >> size;
        try {
            std::unique_lock<std::mutex> lock(newestMutex);
            const std::shared_ptr<parlex::AndroidImpl> track = newest.lock();
            lock.unlock();
            if (!track) throw std::runtime_error("no track");
            say("reply " + track->callback(kGetBuffer, size).as<Raw>().hex());
        } catch (const std::exception& error) {
            say(std::string("error ") + error.what());
        }
    }
    server.stop();
    return 0;
}
