// The client of the server tests: `track_client <count> [<behaviours>]` holds <count> bare proxies
// of the track type, numbered from 0, and plays any client, well-behaved or not, as told on stdin:
//   <i> <request> <hex>  sends <request> on proxy i with the argument bytes <hex> ("-": none)
//                        and prints "reply <hex>" or "error <what>"
//   buffer <n>           "getBuffer" answers <n> bytes from now on (-1: as asked); prints "ok"
//   release              lets the first event, which "hold" keeps in its handler, return
// Events print "event <i> <name> <hex>", the callback "getBuffer <i> <size>". The behaviours,
// any of: "hold" keeps the first event in its handler until "release"; "destroy" makes each
// event send "destroy" for its own track from inside its handler and print "destroyed" once that
// returned; "malformed" answers "getBuffer" with the size asked and no bytes after it.
#include <parlex/binder.h>

#include <atomic>
#include <future>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "parlex/TrackProtocol.h"
#include "support/RawArgs.h"
#include "support/Say.h"

namespace {

using orv::test::Raw;
using orv::test::say;

std::atomic<int> bufferBytes{-1};
std::atomic<bool> holdFirst{false};
std::promise<void> release;
const std::shared_future<void> released = release.get_future().share();

}  // namespace

int main(int argc, char** argv) {
    using namespace orv::protocol;
    const std::string mode = argc > 2 ? argv[2] : "";
    holdFirst = mode.find("hold") != std::string::npos;
    const bool destroys = mode.find("destroy") != std::string::npos;
    const bool malformed = mode.find("malformed") != std::string::npos;
    parlex::AndroidClient client(kServiceName);
    std::vector<std::unique_ptr<parlex::AndroidProxy>> proxies;
    for (int i = 0; i < std::stoi(argv[1]); ++i) {
        proxies.push_back(std::make_unique<parlex::AndroidProxy>(&client, kObjectType));
        parlex::AndroidProxy* proxy = proxies.back().get();
        const std::string who = std::to_string(i);
        for (const orv::test::EventRow& row : orv::test::eventRows()) {
            proxy->bind(row.name, [who, name = row.name, proxy, destroys](Raw args) {
                say("event " + who + " " + name + " " + args.hex());
                if (holdFirst.exchange(false)) released.wait();
                if (!destroys) return;
                proxy->call(kDestroy);
                say("destroyed");
            });
        }
        if (malformed) {
            proxy->bind(kGetBuffer, [](int size) { return Raw::encoding(size); });
            continue;
        }
        proxy->bind(kGetBuffer, [who](int size) {
            say("getBuffer " + who + " " + std::to_string(size));
            const int count = bufferBytes < 0 ? size : bufferBytes.load();
            std::vector<uint8_t> bytes(static_cast<size_t>(count));
            for (size_t k = 0; k < bytes.size(); ++k) bytes[k] = static_cast<uint8_t>(k % 251);
            return parlex::AndroidBuffer(static_cast<unsigned int>(count), bytes.data(), true);
        });
    }
    say("ready");
    for (std::string line; std::getline(std::cin, line);) {
        std::string first, name, args;
        std::istringstream(line) >> first >> name >> args;
        if (first == "buffer") {
            bufferBytes = std::stoi(name);
            say("ok");
        } else if (first == "release") {
            release.set_value();
        } else {
            try {
                say("reply " +
                    proxies.at(std::stoul(first))->call(name, Raw::of(args)).as<Raw>().hex());
            } catch (const std::exception& error) {
                say(std::string("error ") + error.what());
            }
        }
    }
    client.stop();
    return 0;
}
