// The server half in this process over a GoogleMock player, with its clients in peer processes
// (track_client, hostile_client) driven line by line.
#pragma once

#include <gmock/gmock.h>
#include <orv/AudioServerImpl.h>
#include <orv/ZEMAudioServer.h>

#include <memory>
#include <string>
#include <vector>

#include "support/MockPlayer.h"
#include "support/Process.h"
#include "support/RawArgs.h"

namespace orv::test {

// The wire bytes of `values` in hex, as the peers take and print arguments, replies and events.
template <typename... T>
std::string hex(const T&... values) {
    return Raw::encoding(values...).hex();
}

class ServerFixture : public ::testing::Test {
protected:
    using Process = parlex::test::Process;

    // A peer, once it said it is ready.
    Process& start(std::vector<std::string> argv) {
        peers.push_back(std::make_unique<Process>(std::move(argv)));
        EXPECT_EQ(peers.back()->readLine(), "ready");
        return *peers.back();
    }
    // A track_client with `tracks` tracks (the first client's are 0, 1...).
    Process& client(int tracks, const char* hold = "") {
        return start({TRACK_CLIENT_PATH, std::to_string(tracks), hold});
    }
    // ThreadSanitizer does not see the pipe and socket between this thread and the server's; the
    // sink's lock, which the server takes to log before it calls the player, orders them.
    std::string send(Process& peer, const std::string& command) {
        sink->entries();
        peer.writeLine(command);
        return peer.readLine().value_or("(no answer)");
    }
    void setPcm(Process& peer, int track, long long id) {
        EXPECT_EQ(send(peer, std::to_string(track) + " setZEMAudioSource " + hex(source(0))),
                  "reply " + hex(id));
    }

    parlex::test::PrivateRuntimeDir runtimeDir;
    std::shared_ptr<::testing::NiceMock<MockPlayer>> player =
        std::make_shared<::testing::NiceMock<MockPlayer>>();
    std::shared_ptr<RecordingLogSink> sink = std::make_shared<RecordingLogSink>();
    std::unique_ptr<ZEMAudioServer> server = std::make_unique<ZEMAudioServer>(player, sink);
    AudioServerImpl* impl = static_cast<AudioServerImpl*>(player->delegate.load());
    std::vector<std::unique_ptr<Process>> peers;
};

}  // namespace orv::test
