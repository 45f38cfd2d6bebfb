// The audio service that the kill tests SIGKILL: the real server half over a player whose
// control calls never return, so that a client's request is still pending when the service
// dies. It writes "ready", then "blocked <call>" as each call reaches the player. "pull <id>"
// on stdin makes the player pull audio of source <id> on a thread of its own, as a player does
// while it plays, and writes "pulling" before the first pull.
#include <orv/ZEMAudioServer.h>

#include <atomic>
#include <iostream>
#include <thread>
#include <vector>

#include "support/MockPlayer.h"
#include "support/Say.h"

namespace {

using namespace orv;
using orv::test::say;

// Blocks the calling server thread for good: only the SIGKILL ends it.
[[noreturn]] void blockForever(const char* call) {
    say(std::string("blocked ") + call);
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

}  // namespace

int main() {
    using ::testing::_;
    auto player = std::make_shared<::testing::NiceMock<orv::test::MockPlayer>>();
    std::atomic<long long> nextId{100};
    ON_CALL(*player, setSource(_, _)).WillByDefault([&](const SourceConfig&, const char*) {
        return nextId.fetch_add(1);
    });
#define BLOCK(call, Result) \
    ON_CALL(*player, call).WillByDefault([](auto...) -> Result { blockForever(#call); })
    BLOCK(play, int);
    BLOCK(stop, int);
    BLOCK(pause, int);
    BLOCK(resume, int);
    BLOCK(getOffset, int);
    BLOCK(seekTo, int);
    BLOCK(setVolume, int);
    BLOCK(getMediaPlayerStateV2, MediaPlayerStateV2);
#undef BLOCK

    ZEMAudioServer server(player, nullptr);
    say("ready");
    std::vector<std::thread> pullers;
    for (std::string verb; std::cin >> verb;) {
        long long id = 0;
        std::cin >> id;
        pullers.emplace_back([&player, id] {
            say("pulling");
            std::vector<uint8_t> buffer(4096);
            for (;;) player->delegate.load()->getData(buffer.data(), 4096, id);
        });
    }
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));  // killed, never ended
}
