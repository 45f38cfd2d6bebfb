// The audio service of the client's end-to-end tests: the real server half over a GoogleMock
// player that answers with the values of TrackCases.h and writes one line per call ("play 7")
// after "ready". Commands on stdin play the player's part: "events" fires every player event for
// source 7 and writes "fired"; "pull N SIZE" pulls N buffers and writes "pulled BYTES EXACT",
// EXACT being 1 when they continued the listener's byte pattern. Ends with stdin.
#include <orv/ZEMAudioServer.h>

#include <iostream>

#include "support/MockPlayer.h"
#include "support/Say.h"
#include "support/TrackCases.h"

namespace orv::test {

std::string text(const SourceConfig& c) { return join(c.type, c.sampleRate, c.url); }

// A player call that writes its line and returns `result`.
#define ANSWER(method, result)                                        \
    ON_CALL(*player, method).WillByDefault([=](const auto&... args) { \
        say((std::string(#method) + ... + (" " + text(args))));       \
        return result;                                                \
    })

int run() {
    auto player = std::make_shared<::testing::NiceMock<MockPlayer>>();
    PlaybackReportArray array;
    array.count = 2;
    ANSWER(setSource, kSourceId);
    ANSWER(play, 0);
    ANSWER(stop, 0);
    ANSWER(pause, 0);
    ANSWER(resume, 0);
    ANSWER(newDecryptKey, 0);
    ANSWER(getOffset, 1234);
    ANSWER(getMediaPlayerState, (MediaPlayerState{5, 6, MediaPlayerProtection("prot", true)}));
    ANSWER(getPlaybackAttributes, PlaybackAttributes("a", "b", 1, 2));
    ANSWER(getPlaybackReports, PlaybackReports(1));
    ANSWER(getFingerprint, Fingerprint("f1", "f2", "f3"));
    ANSWER(seekTo, 0);
    ANSWER(getPlaybackReportArray, array);
    ANSWER(setVolume, 0);
    ANSWER(setFocusSessionId, 0);
    ANSWER(getMediaPlayerStateV2, eventState());

    ZEMAudioServer server(player, nullptr);
    say("ready");
    long long streamed = 0;  // bytes pulled so far, over every "pull"
    for (std::string verb; std::cin >> verb;) {
        if (verb == "events") {
            fireEvents(*player->delegate);
            say("fired");
            continue;
        }
        int count = 0, size = 0;
        std::cin >> count >> size;
        std::vector<uint8_t> buffer(static_cast<size_t>(size));
        const long long before = streamed;
        bool exact = true;
        for (int i = 0; i < count; ++i) {
            const int got = player->delegate.load()->getData(buffer.data(), size, kSourceId);
            for (int j = 0; j < got; ++j) exact = exact && buffer[j] == patternByte(streamed++);
        }
        say("pulled " + text(streamed - before) + " " + text(exact));
    }
    return 0;
}

}  // namespace orv::test

int main() { return orv::test::run(); }
