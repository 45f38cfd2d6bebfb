// Construction, copying and destruction of the value records.
//
// Every text field owns a private array-new copy of its text or is null; a null source stays
// null (never becomes ""). Assignment copies a text before it frees the old one, so a record may
// be assigned to itself or a field set from its own value.
#include <orv/Records.h>

#include <cstring>
#include <type_traits>
#include <utility>

#include "common/OwnedText.h"

namespace orv {

namespace {

// Frees `field` and hands it the text of `from`, which is left null.
void takeString(char*& field, char*& from) {
    char* text = std::exchange(from, nullptr);
    delete[] field;
    field = text;
}

// The four source versions share their text fields; only the numbers differ between them.
template <typename Source>
void assignSourceStrings(Source& to, const Source& from) {
    assignString(to.url, from.url);
    assignString(to.clusterId, from.clusterId);
    assignString(to.playbackContextHeadersJSON, from.playbackContextHeadersJSON);
}

// Copies the numbers of a source into another of the same version: the fields all versions
// share, then those each later version adds.
template <typename Source>
void assignSourceNumbers(Source& to, const Source& from) {
    to.type = from.type;
    to.format = from.format;
    to.param1 = from.param1;
    to.param2 = from.param2;
    if constexpr (!std::is_same_v<Source, ZEMAudioSource>) to.param3 = from.param3;
    to.param4 = from.param4;
    to.param5 = from.param5;
    if constexpr (std::is_same_v<Source, ZEMAudioSourceV3> ||
                  std::is_same_v<Source, ZEMAudioSourceV4>) {
        to.param7 = from.param7;
        to.param8 = from.param8;
        to.param9 = from.param9;
        to.param10 = from.param10;
        to.param11 = from.param11;
        to.param12 = from.param12;
        to.param13 = from.param13;
    }
    if constexpr (std::is_same_v<Source, ZEMAudioSourceV4>) to.volumeGain = from.volumeGain;
}

template <typename Source>
Source& assignSource(Source& to, const Source& from) {
    if (&to == &from) return to;
    assignSourceNumbers(to, from);
    assignSourceStrings(to, from);
    return to;
}

// As assignSource, taking the texts of `from`, which is left with none.
template <typename Source>
Source& moveSource(Source& to, Source& from) {
    if (&to == &from) return to;
    assignSourceNumbers(to, from);
    takeString(to.url, from.url);
    takeString(to.clusterId, from.clusterId);
    takeString(to.playbackContextHeadersJSON, from.playbackContextHeadersJSON);
    return to;
}

template <typename Source>
void freeSourceStrings(Source& source) {
    delete[] source.url;
    delete[] source.clusterId;
    delete[] source.playbackContextHeadersJSON;
}

}  // namespace

// ---- sources

// The four versions differ only in their numeric fields, which assignSource tells apart.
#define ORV_DEFINE_SOURCE_MEMBERS(Source)                                                   \
    Source::Source() = default;                                                             \
    Source::Source(const Source& other) { *this = other; }                                  \
    Source& Source::operator=(const Source& other) { return assignSource(*this, other); }   \
    Source::Source(Source&& other) noexcept { moveSource(*this, other); }                   \
    Source& Source::operator=(Source&& other) noexcept { return moveSource(*this, other); } \
    Source::~Source() { freeSourceStrings(*this); }                                         \
    void Source::setUrl(const char* text) { assignString(url, text); }                      \
    void Source::setClusterId(const char* text) { assignString(clusterId, text); }          \
    void Source::setPlaybackContextHeadersJSON(const char* text) {                          \
        assignString(playbackContextHeadersJSON, text);                                     \
    }

ORV_DEFINE_SOURCE_MEMBERS(ZEMAudioSource)
ORV_DEFINE_SOURCE_MEMBERS(ZEMAudioSourceV2)
ORV_DEFINE_SOURCE_MEMBERS(ZEMAudioSourceV3)
ORV_DEFINE_SOURCE_MEMBERS(ZEMAudioSourceV4)
#undef ORV_DEFINE_SOURCE_MEMBERS

// ---- media description

// CaptionData, DescriptionPair and MetadataKeyValuePair have the same form: two owned texts.
#define ORV_DEFINE_TEXT_PAIR_MEMBERS(Pair, a, b)                                      \
    Pair::Pair() = default;                                                           \
    Pair::Pair(const char* a##Text, const char* b##Text)                              \
        : a(copyString(a##Text)), b(copyString(b##Text)) {}                           \
    Pair::Pair(const Pair& other) : a(copyString(other.a)), b(copyString(other.b)) {} \
    Pair& Pair::operator=(const Pair& other) {                                        \
        if (this != &other) {                                                         \
            assignString(a, other.a);                                                 \
            assignString(b, other.b);                                                 \
        }                                                                             \
        return *this;                                                                 \
    }                                                                                 \
    Pair::Pair(Pair&& other) noexcept                                                 \
        : a(std::exchange(other.a, nullptr)), b(std::exchange(other.b, nullptr)) {}   \
    Pair& Pair::operator=(Pair&& other) noexcept {                                    \
        if (this != &other) {                                                         \
            takeString(a, other.a);                                                   \
            takeString(b, other.b);                                                   \
        }                                                                             \
        return *this;                                                                 \
    }                                                                                 \
    Pair::~Pair() {                                                                   \
        delete[] a;                                                                   \
        delete[] b;                                                                   \
    }

ORV_DEFINE_TEXT_PAIR_MEMBERS(CaptionData, first, second)
ORV_DEFINE_TEXT_PAIR_MEMBERS(DescriptionPair, first, second)
ORV_DEFINE_TEXT_PAIR_MEMBERS(MetadataKeyValuePair, key, value)
#undef ORV_DEFINE_TEXT_PAIR_MEMBERS

MediaDescription::MediaDescription() = default;

MediaDescription::MediaDescription(const char* firstText, InterruptedBehavior interruptedBehavior,
                                   const char* secondText, const char* thirdText,
                                   CaptionData caption, DescriptionMap firstMap,
                                   DescriptionMap secondMap, bool flag)
    : firstText(copyString(firstText)),
      interruptedBehavior(interruptedBehavior),
      secondText(copyString(secondText)),
      thirdText(copyString(thirdText)),
      caption(std::move(caption)),
      firstMap(std::move(firstMap)),
      secondMap(std::move(secondMap)),
      flag(flag) {}

MediaDescription::MediaDescription(const MediaDescription& other)
    : firstText(copyString(other.firstText)),
      interruptedBehavior(other.interruptedBehavior),
      secondText(copyString(other.secondText)),
      thirdText(copyString(other.thirdText)),
      caption(other.caption),
      firstMap(other.firstMap),
      secondMap(other.secondMap),
      flag(other.flag) {}

MediaDescription& MediaDescription::operator=(const MediaDescription& other) {
    if (this != &other) {
        assignString(firstText, other.firstText);
        interruptedBehavior = other.interruptedBehavior;
        assignString(secondText, other.secondText);
        assignString(thirdText, other.thirdText);
        caption = other.caption;
        firstMap = other.firstMap;
        secondMap = other.secondMap;
        flag = other.flag;
    }
    return *this;
}

MediaDescription::MediaDescription(MediaDescription&& other) noexcept
    : firstText(std::exchange(other.firstText, nullptr)),
      interruptedBehavior(other.interruptedBehavior),
      secondText(std::exchange(other.secondText, nullptr)),
      thirdText(std::exchange(other.thirdText, nullptr)),
      caption(std::move(other.caption)),
      firstMap(std::move(other.firstMap)),
      secondMap(std::move(other.secondMap)),
      flag(other.flag) {}

MediaDescription& MediaDescription::operator=(MediaDescription&& other) noexcept {
    if (this != &other) {
        takeString(firstText, other.firstText);
        interruptedBehavior = other.interruptedBehavior;
        takeString(secondText, other.secondText);
        takeString(thirdText, other.thirdText);
        caption = std::move(other.caption);
        firstMap = std::move(other.firstMap);
        secondMap = std::move(other.secondMap);
        flag = other.flag;
    }
    return *this;
}

MediaDescription::~MediaDescription() {
    delete[] firstText;
    delete[] secondText;
    delete[] thirdText;
}

// ---- player state

MediaPlayerProtection::MediaPlayerProtection() = default;

MediaPlayerProtection::MediaPlayerProtection(const char* protection, bool isProtected)
    : protection(copyString(protection)), isProtected(isProtected) {}

MediaPlayerProtection::MediaPlayerProtection(const MediaPlayerProtection& other)
    : protection(copyString(other.protection)), isProtected(other.isProtected) {}

MediaPlayerProtection& MediaPlayerProtection::operator=(const MediaPlayerProtection& other) {
    if (this != &other) {
        assignString(protection, other.protection);
        isProtected = other.isProtected;
    }
    return *this;
}

MediaPlayerProtection::MediaPlayerProtection(MediaPlayerProtection&& other) noexcept
    : protection(std::exchange(other.protection, nullptr)), isProtected(other.isProtected) {}

MediaPlayerProtection& MediaPlayerProtection::operator=(MediaPlayerProtection&& other) noexcept {
    if (this != &other) {
        takeString(protection, other.protection);
        isProtected = other.isProtected;
    }
    return *this;
}

MediaPlayerProtection::~MediaPlayerProtection() { delete[] protection; }

MediaPlayerStateV2::MediaPlayerStateV2() = default;

MediaPlayerStateV2::MediaPlayerStateV2(int offsetMs, int stateCode,
                                       MediaPlayerProtection protection, const char* playlistType)
    : offsetMs(offsetMs),
      stateCode(stateCode),
      protection(std::move(protection)),
      playlistType(copyString(playlistType)) {}

MediaPlayerStateV2::MediaPlayerStateV2(const MediaPlayerStateV2& other)
    : offsetMs(other.offsetMs),
      stateCode(other.stateCode),
      protection(other.protection),
      playlistType(copyString(other.playlistType)) {}

MediaPlayerStateV2& MediaPlayerStateV2::operator=(const MediaPlayerStateV2& other) {
    if (this != &other) {
        offsetMs = other.offsetMs;
        stateCode = other.stateCode;
        protection = other.protection;
        assignString(playlistType, other.playlistType);
    }
    return *this;
}

MediaPlayerStateV2::MediaPlayerStateV2(MediaPlayerStateV2&& other) noexcept
    : offsetMs(other.offsetMs),
      stateCode(other.stateCode),
      protection(std::move(other.protection)),
      playlistType(std::exchange(other.playlistType, nullptr)) {}

MediaPlayerStateV2& MediaPlayerStateV2::operator=(MediaPlayerStateV2&& other) noexcept {
    if (this != &other) {
        offsetMs = other.offsetMs;
        stateCode = other.stateCode;
        protection = std::move(other.protection);
        takeString(playlistType, other.playlistType);
    }
    return *this;
}

MediaPlayerStateV2::~MediaPlayerStateV2() { delete[] playlistType; }

// ---- playback

PlaybackAttributes::PlaybackAttributes() = default;

PlaybackAttributes::PlaybackAttributes(const char* firstText, const char* secondText,
                                       long firstValue, long secondValue)
    : firstText(copyString(firstText)),
      secondText(copyString(secondText)),
      firstValue(static_cast<int32_t>(firstValue)),
      secondValue(static_cast<int32_t>(secondValue)) {}

PlaybackAttributes::PlaybackAttributes(const PlaybackAttributes& other)
    : firstText(copyString(other.firstText)),
      secondText(copyString(other.secondText)),
      firstValue(other.firstValue),
      secondValue(other.secondValue) {}

PlaybackAttributes& PlaybackAttributes::operator=(const PlaybackAttributes& other) {
    if (this != &other) {
        assignString(firstText, other.firstText);
        assignString(secondText, other.secondText);
        firstValue = other.firstValue;
        secondValue = other.secondValue;
    }
    return *this;
}

PlaybackAttributes::PlaybackAttributes(PlaybackAttributes&& other) noexcept
    : firstText(std::exchange(other.firstText, nullptr)),
      secondText(std::exchange(other.secondText, nullptr)),
      firstValue(other.firstValue),
      secondValue(other.secondValue) {}

PlaybackAttributes& PlaybackAttributes::operator=(PlaybackAttributes&& other) noexcept {
    if (this != &other) {
        takeString(firstText, other.firstText);
        takeString(secondText, other.secondText);
        firstValue = other.firstValue;
        secondValue = other.secondValue;
    }
    return *this;
}

PlaybackAttributes::~PlaybackAttributes() {
    delete[] firstText;
    delete[] secondText;
}

PlaybackReports::PlaybackReports() = default;

PlaybackReports::PlaybackReports(uint32_t count) { reset(count); }

PlaybackReports::PlaybackReports(const PlaybackReports& other) { *this = other; }

PlaybackReports& PlaybackReports::operator=(const PlaybackReports& other) {
    if (this != &other) {
        // Build the copy completely before giving up the old array.
        PlaybackReport* copy = other.count == 0 ? nullptr : new PlaybackReport[other.count];
        for (uint32_t i = 0; i < other.count; ++i) {
            copy[i] = other.reports[i];
        }
        delete[] reports;
        reports = copy;
        count = other.count;
    }
    return *this;
}

PlaybackReports::PlaybackReports(PlaybackReports&& other) noexcept
    : count(std::exchange(other.count, 0)), reports(std::exchange(other.reports, nullptr)) {}

PlaybackReports& PlaybackReports::operator=(PlaybackReports&& other) noexcept {
    if (this != &other) {
        delete[] reports;
        count = std::exchange(other.count, 0);
        reports = std::exchange(other.reports, nullptr);
    }
    return *this;
}

PlaybackReports::~PlaybackReports() { delete[] reports; }

void PlaybackReports::reset(uint32_t newCount) {
    PlaybackReport* fresh = newCount == 0 ? nullptr : new PlaybackReport[newCount];
    delete[] reports;
    reports = fresh;
    count = newCount;
}

Fingerprint::Fingerprint() = default;

Fingerprint::Fingerprint(const char* first, const char* second, const char* third)
    : first(copyString(first)), second(copyString(second)), third(copyString(third)) {}

Fingerprint::Fingerprint(const Fingerprint& other)
    : first(copyString(other.first)),
      second(copyString(other.second)),
      third(copyString(other.third)) {}

Fingerprint& Fingerprint::operator=(const Fingerprint& other) {
    if (this != &other) {
        assignString(first, other.first);
        assignString(second, other.second);
        assignString(third, other.third);
    }
    return *this;
}

Fingerprint::Fingerprint(Fingerprint&& other) noexcept
    : first(std::exchange(other.first, nullptr)),
      second(std::exchange(other.second, nullptr)),
      third(std::exchange(other.third, nullptr)) {}

Fingerprint& Fingerprint::operator=(Fingerprint&& other) noexcept {
    if (this != &other) {
        takeString(first, other.first);
        takeString(second, other.second);
        takeString(third, other.third);
    }
    return *this;
}

Fingerprint::~Fingerprint() {
    delete[] first;
    delete[] second;
    delete[] third;
}

}  // namespace orv
