// The client's incoming dispatch: arbitrary bytes as an event or a "getBuffer" callback to a
// live track proxy, connected to a service in this process whose player records its calls. The
// listener answers getBuffer with a count taken from the input, in range or not. Nothing may
// crash, and whatever the input, the proxy's next request still reaches the service.
#include <orv/EventListener.h>
#include <orv/ZEMAudioServer.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "RecordingPlayer.h"
#include "client/ZEMAudioTrackClient.h"
#include "parlex/TrackProtocol.h"

namespace {

using namespace orv::protocol;
using orv::fuzz::FuzzInput;

const char* const kIncoming[] = {kGetBuffer,
                                 kCloseAudioSource,
                                 kOnFirstByteRead,
                                 kOnPlaybackStarted,
                                 kOnPlaybackFinished,
                                 kOnPlaybackError,
                                 kOnPlaybackPaused,
                                 kOnPlaybackResumed,
                                 kOnPlaybackStopped,
                                 kOnBufferUnderrun,
                                 kOnBufferRefilled,
                                 kOnBufferingComplete,
                                 kOnStreamMetadataExtracted,
                                 kOnStopRequested,
                                 kOnSeeked,
                                 kOnLicenseAvailable,
                                 kOnFirstDataSegmentAvailable,
                                 kReportMetric,
                                 kOnReportMetric};

class Listener : public orv::EventListenerV3 {
public:
    int getBuffer(uint8_t* buffer, int size) override {
        for (int k = 0; k < size && k < 64; ++k) buffer[k] = static_cast<uint8_t>(k);
        return count;
    }
    void closeAudioSource() override {}
    void onStopRequested(long long) override {}
    void onReportMetric(const char*, const char*) override {}
    void onServerDeath() override { std::abort(); }  // the service lives as long as the fuzzer
    void onFirstByteRead(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackStarted(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackFinished(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackError(long long, orv::ErrorType, const char*,
                         const orv::MediaPlayerStateV2&) override {}
    void onPlaybackPaused(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackResumed(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackStopped(long long, const orv::MediaPlayerStateV2&) override {}
    void onBufferUnderrun(long long, const orv::MediaPlayerStateV2&) override {}
    void onBufferRefilled(long long, const orv::MediaPlayerStateV2&) override {}
    void onBufferingComplete(long long, const orv::MediaPlayerStateV2&) override {}
    void onStreamMetadataExtracted(long long, const orv::MediaPlayerStateV2&,
                                   const orv::MetadataKeyValuePairs&) override {}
    void onSeeked(long long, const orv::MediaPlayerStateV2&,
                  const orv::MediaPlayerStateV2&) override {}
    void onLicenseAvailable(long long) override {}
    void onFirstDataSegmentAvailable(long long) override {}

    int count = 0;  // set before each input; only the fuzzer's thread delivers here
};

struct Live {
    std::shared_ptr<orv::fuzz::RecordingPlayer> player =
        std::make_shared<orv::fuzz::RecordingPlayer>();
    std::unique_ptr<orv::ZEMAudioServer> server;
    std::unique_ptr<parlex::AndroidClient> client;
    std::unique_ptr<orv::ZEMAudioTrackClient> proxy;
    std::shared_ptr<Listener> listener = std::make_shared<Listener>();
};
Live* live = nullptr;  // kept for the life of the process

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // A runtime directory of this process's own, so that parallel runs cannot meet.
    static std::string dir = std::filesystem::temp_directory_path() / "zem-fuzz-XXXXXX";
    if (::mkdtemp(dir.data()) == nullptr) std::abort();
    ::setenv("PARLEX_RUNTIME_DIR", dir.c_str(), 1);
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    });
    live = new Live;
    auto sink = std::make_shared<orv::fuzz::NullSink>();
    live->server = std::make_unique<orv::ZEMAudioServer>(live->player, sink);
    live->client = std::make_unique<parlex::AndroidClient>(kServiceName);
    live->proxy = std::make_unique<orv::ZEMAudioTrackClient>(sink, live->client.get(), kObjectType);
    live->proxy->setListener(std::weak_ptr<orv::EventListenerV3>(live->listener));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const size_t which = input.pick(std::size(kIncoming) + 1);
    const std::string name = which < std::size(kIncoming) ? kIncoming[which] : "unknown";
    live->listener->count = static_cast<int>(input.u32());
    const std::vector<uint8_t> bytes = input.rest();
    parlex::AndroidParcel parcel;
    parcel->setData(bytes.data(), bytes.size());
    parlex::AndroidParcel reply;
    try {
        live->proxy->dispatch(name, parcel, &reply);
    } catch (const std::exception&) {
        // refused: the transport would answer with the error text
    }
    // Every 64th input, a request: the proxy still reaches the service.
    static unsigned inputs = 0;
    if (++inputs % 64 == 0) {
        const long long before = live->player->callCount();
        if (live->proxy->play() != 1 || live->player->callCount() != before + 1) std::abort();
    }
    return 0;
}
