// Arguments and replies as raw bytes, for the peers that play a client or a service of any
// behaviour: the bytes a test encoded, or whatever an event, a request or a reply carries.
#pragma once

#include <parlex/binder.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/TrackCases.h"

namespace orv::test {

struct Raw {
    std::vector<uint8_t> bytes;

    // In hex, "-" for none: how the server tests and their peers write wire bytes.
    std::string hex() const {
        std::string text;
        for (uint8_t byte : bytes)
            text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
        return text.empty() ? "-" : text;
    }
    // The bytes of `hex`, as hex() writes them ("-": none).
    static Raw of(const std::string& hex) {
        Raw raw;
        for (size_t k = 0; hex != "-" && k + 1 < hex.size(); k += 2)
            raw.bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(k, 2), nullptr, 16)));
        return raw;
    }
    // The wire bytes of `values`.
    template <typename... T>
    static Raw encoding(const T&... values) {
        parlex::AndroidParcel parcel;
        ((parcel << values), ...);
        Raw raw;
        raw.bytes.assign(parcel->data(), parcel->data() + parcel->dataSize());
        return raw;
    }
};

inline parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const Raw& raw) {
    parcel->write(raw.bytes.data(), raw.bytes.size());
    return parcel;
}
inline const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel, Raw& raw) {
    const android::Parcel& data = *parcel.parcel();
    raw.bytes.assign(data.data() + data.dataPosition(), data.data() + data.dataSize());
    data.setDataPosition(data.dataSize());
    return parcel;
}

}  // namespace orv::test
