// A client that misbehaves, for the server's tests: `hostile_client <behaviour>` creates one track,
// gives it the PCM source of TrackCases.h and prints "ready". It answers every "getBuffer" with
// the byte count asked for and no blob after it. Each stream metadata event prints "metadata";
// then, by behaviour:
//   sleep    stays inside the event until stdin says "wake";
//   destroy  sends "destroy" for its own track from inside the event and prints "destroyed" once
//            that returned.
// Ends with stdin.
#include <parlex/binder.h>

#include <future>
#include <iostream>
#include <string>

#include "common/RecordCodec.h"
#include "parlex/TrackProtocol.h"
#include "support/RawArgs.h"
#include "support/Say.h"

using orv::test::Raw;
using orv::test::say;

int main(int, char** argv) {
    using namespace orv::protocol;
    const std::string behaviour = argv[1];
    std::promise<void> wake;
    const std::shared_future<void> woken = wake.get_future().share();
    parlex::AndroidClient client(kServiceName);
    parlex::AndroidProxy track(&client, kObjectType);
    track.bind(kGetBuffer, [](int size) { return Raw::encoding(size); });
    track.bind(kOnStreamMetadataExtracted, [&](Raw) {
        say("metadata");
        if (behaviour == "sleep") woken.wait();
        if (behaviour == "destroy") {
            track.call(kDestroy);
            say("destroyed");
        }
    });
    track.call(kSetZEMAudioSource, orv::test::source(orv::kSourceTypePcm));
    say("ready");
    for (std::string line; std::getline(std::cin, line);) {
        if (line == "wake") wake.set_value();
    }
    client.stop();
    return 0;
}
