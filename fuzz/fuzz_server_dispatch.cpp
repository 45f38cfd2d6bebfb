// The server's request dispatch: a sequence of arbitrary requests to one server track whose
// player records every call. Each request is a method of the track protocol (or an arbitrary
// name) and arbitrary argument bytes. A request the track refuses must leave its source id and
// the player as they were; when the track goes, every source the player opened for it has been
// released exactly once (the player aborts on a second release).
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "RecordingPlayer.h"
#include "parlex/TrackProtocol.h"
#include "server/ZEMServerTrack.h"

namespace {

using namespace orv::protocol;
using orv::fuzz::FuzzInput;

const char* const kRequests[] = {kSetSource,
                                 kSetZEMAudioSource,
                                 kSetZEMAudioSourceMediaDescription,
                                 kSetZEMAudioSourceV2MediaDescription,
                                 kSetZEMAudioSourceV3MediaDescription,
                                 kSetZEMAudioSourceV4MediaDescription,
                                 kPlay,
                                 kStop,
                                 kPause,
                                 kResume,
                                 kSeekTo,
                                 kGetOffset,
                                 kNewDecryptKey,
                                 kDestroy,
                                 kGetMediaPlayerState,
                                 kGetPlaybackAttributes,
                                 kGetPlaybackReports,
                                 kGetFingerprint,
                                 kGetPlaybackReportArray,
                                 kSetVolume,
                                 kSetFocusSessionId,
                                 kGetMediaPlayerStateV2};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    auto player = std::make_shared<orv::fuzz::RecordingPlayer>();
    {
        auto track = std::make_unique<orv::ZEMServerTrack>(
            player, std::make_shared<orv::fuzz::NullSink>(), nullptr, 1);
        for (int request = 0; request < 8; ++request) {
            const size_t which = input.pick(std::size(kRequests) + 1);
            const std::string method =
                which < std::size(kRequests) ? kRequests[which] : std::string("unknown");
            const std::vector<uint8_t> args = input.take(input.byte());
            parlex::AndroidParcel parcel;
            parcel->setData(args.data(), args.size());
            parlex::AndroidParcel reply;

            const long long callsBefore = player->callCount();
            const long long sourceBefore = track->sourceId();
            bool refused = false;
            try {
                refused = !track->dispatch(method, parcel, &reply);
            } catch (const std::exception&) {
                refused = true;
            }
            if (refused &&
                (player->callCount() != callsBefore || track->sourceId() != sourceBefore)) {
                std::abort();
            }
        }
    }
    if (player->openSources() != 0) std::abort();
    return 0;
}
