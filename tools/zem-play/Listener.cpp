#include "Listener.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace zem {

// Runs a listener callback's body. The callbacks run on the library's threads, where nothing
// may escape: whatever `body` throws is reported on stderr and the callback returns.
template <typename Body>
void Listener::guard(const char* callback, Body body) noexcept {
    try {
        body();
    } catch (const std::exception& error) {
        report(callback, error.what());
    } catch (...) {
        report(callback, "unknown exception");
    }
}

void Listener::report(const char* callback, const char* what) noexcept {
    char line[256];
    const int length =
        std::snprintf(line, sizeof line, "zem-play: %s failed: %s\n", callback, what);
    if (length > 0) {
        const size_t size = std::min(static_cast<size_t>(length), sizeof line - 1);
        if (::write(STDERR_FILENO, line, size) < 0) {
        }
    }
}

void Listener::push(PlayEvent event) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(event));
    }
    added_.notify_one();
}

std::optional<PlayEvent> Listener::next(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!added_.wait_until(lock, deadline, [this] { return !events_.empty(); })) {
        return std::nullopt;
    }
    PlayEvent event = std::move(events_.front());
    events_.pop_front();
    return event;
}

void Listener::at(PlayEvent::Kind kind, const char* what, const orv::MediaPlayerStateV2& state) {
    push({kind, state.offsetMs, std::string(what) + " at " + std::to_string(state.offsetMs) + " ms",
          ""});
}

int Listener::getBuffer(uint8_t* buffer, int size) {
    int filled = 0;
    guard("getBuffer", [&] { filled = feed_ ? feed_->fill(buffer, size) : 0; });
    return filled;
}

void Listener::closeAudioSource() {
    guard("closeAudioSource", [&] {
        push({PlayEvent::Note, 0, "the service closed the source", ""});
    });
}

void Listener::onStopRequested(long long) {
    guard("onStopRequested", [&] {
        push({PlayEvent::StopRequested, 0, "the audio service asks to stop: it is shutting down",
              ""});
    });
}

void Listener::onReportMetric(const char* first, const char* second) {
    guard("onReportMetric", [&] {
        push({PlayEvent::Note, 0,
              std::string("metric ") + (first ? first : "") + " = " + (second ? second : ""), ""});
    });
}

void Listener::onServerDeath() {
    guard("onServerDeath", [&] {
        push({PlayEvent::Death, 0, "the audio service went away during playback", ""});
    });
}

// The events that only report what happened, and where.
#define POSITION_EVENT(name, kind, what)                                   \
    void Listener::name(long long, const orv::MediaPlayerStateV2& state) { \
        guard(#name, [&] { at(PlayEvent::kind, what, state); });           \
    }
POSITION_EVENT(onFirstByteRead, Note, "first byte read")
POSITION_EVENT(onPlaybackStarted, Started, "playback started")
POSITION_EVENT(onPlaybackFinished, Finished, "playback finished")
POSITION_EVENT(onPlaybackPaused, Paused, "paused")
POSITION_EVENT(onPlaybackResumed, Resumed, "resumed")
POSITION_EVENT(onPlaybackStopped, Stopped, "stopped")
POSITION_EVENT(onBufferUnderrun, Underrun, "buffer underrun")
POSITION_EVENT(onBufferRefilled, Refilled, "buffer refilled")
POSITION_EVENT(onBufferingComplete, Note, "buffering complete")
#undef POSITION_EVENT

void Listener::onPlaybackError(long long, orv::ErrorType type, const char* error,
                               const orv::MediaPlayerStateV2& state) {
    guard("onPlaybackError", [&] {
        push({PlayEvent::Error, state.offsetMs,
              "playback error " + std::to_string(type) + " at " + std::to_string(state.offsetMs) +
                  " ms: " + (error ? error : "(no text)"),
              ""});
    });
}

void Listener::onStreamMetadataExtracted(long long, const orv::MediaPlayerStateV2&,
                                         const orv::MetadataKeyValuePairs& metadata) {
    guard("onStreamMetadataExtracted", [&] { pushMetadata(metadata); });
}

void Listener::pushMetadata(const orv::MetadataKeyValuePairs& metadata) {
    PlayEvent event{PlayEvent::Metadata, 0, "metadata:", ""};
    const uint32_t count = std::min(metadata.count, orv::MetadataKeyValuePairs::kCapacity);
    for (uint32_t i = 0; i < count; ++i) {
        const char* key = metadata.pairs[i].key ? metadata.pairs[i].key : "";
        const char* value = metadata.pairs[i].value ? metadata.pairs[i].value : "";
        event.text += std::string(i == 0 ? " " : ", ") + key + "=" + value;
        if (std::string(key) == "duration-ms") event.durationMs = value;
    }
    push(std::move(event));
}

void Listener::onSeeked(long long, const orv::MediaPlayerStateV2& before,
                        const orv::MediaPlayerStateV2& after) {
    guard("onSeeked", [&] {
        push({PlayEvent::Note, after.offsetMs,
              "seeked from " + std::to_string(before.offsetMs) + " ms to " +
                  std::to_string(after.offsetMs) + " ms",
              ""});
    });
}

void Listener::onLicenseAvailable(long long) {}

void Listener::onFirstDataSegmentAvailable(long long) {}

}  // namespace zem
