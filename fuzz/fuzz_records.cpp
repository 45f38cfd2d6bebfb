// Every record reader, every scalar reader and the message header reader over arbitrary parcel
// bytes, with shared-memory blobs among the parcel's descriptors. The first byte picks the
// reader, the second the descriptors to attach; the rest is the parcel. A reader may refuse
// (parlex::impl::runtime_error) but must not read out of bounds, overflow or leak. A record
// that was read is written back and read again: a second round trip must give the same bytes,
// or a writer and its reader disagree on the encoding.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "common/RecordCodec.h"
#include "parlex/Messages.h"

namespace {

using orv::fuzz::FuzzInput;
using parlex::AndroidParcel;

// A memfd of `size` bytes, sealed against shrinking and growing unless `sealed` is false, so
// that the reader meets both the blobs it must accept and those it must refuse.
int sharedMemory(size_t size, bool sealed) {
    const int fd = ::memfd_create("fuzz-blob", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) std::abort();
    if (::ftruncate(fd, static_cast<off_t>(size)) != 0) std::abort();
    if (sealed && ::fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0) std::abort();
    return fd;
}

std::vector<uint8_t> bytesOf(const AndroidParcel& parcel) {
    return {parcel->data(), parcel->data() + parcel->dataSize()};
}

template <typename T>
void roundTrip(const AndroidParcel& input) {
    T value{};
    try {
        input >> value;
    } catch (const parlex::impl::runtime_error&) {
        return;  // refused
    }
    AndroidParcel first;
    first << value;
    T again{};
    first->setDataPosition(0);
    first >> again;
    AndroidParcel second;
    second << again;
    if (bytesOf(first) != bytesOf(second)) std::abort();
}

template <typename T>
void readOnly(const AndroidParcel& input) {
    T value{};
    try {
        input >> value;
    } catch (const parlex::impl::runtime_error&) {
    }
}

void readHeader(const AndroidParcel& input) {
    std::string objectId, method;
    parlex::transport::readRequestHeader(input, objectId, method);
}

using Reader = void (*)(const AndroidParcel&);
const Reader kReaders[] = {
    roundTrip<orv::ZEMAudioFormat>,
    roundTrip<orv::ZEMAudioSource>,
    roundTrip<orv::ZEMAudioSourceV2>,
    roundTrip<orv::ZEMAudioSourceV3>,
    roundTrip<orv::ZEMAudioSourceV4>,
    roundTrip<orv::CaptionData>,
    roundTrip<orv::DescriptionPair>,
    roundTrip<orv::DescriptionMap>,
    roundTrip<orv::MediaDescription>,
    roundTrip<orv::MediaPlayerProtection>,
    roundTrip<orv::MediaPlayerState>,
    roundTrip<orv::MediaPlayerStateV2>,
    roundTrip<orv::MetadataKeyValuePair>,
    roundTrip<orv::MetadataKeyValuePairs>,
    roundTrip<orv::PlaybackAttributes>,
    roundTrip<orv::PlaybackReport>,
    roundTrip<orv::PlaybackReports>,
    roundTrip<orv::PlaybackReportArray>,
    roundTrip<orv::Fingerprint>,
    readOnly<bool>,
    readOnly<int>,
    readOnly<unsigned int>,
    readOnly<long long>,
    readOnly<float>,
    readOnly<std::string>,
    readOnly<const char*>,
    readOnly<parlex::AndroidBuffer>,
    readHeader,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const Reader read = kReaders[input.pick(std::size(kReaders))];
    // Up to two descriptors: bits 0-1 how many, bit 2 and 3 whether each is sealed, the next
    // byte each one's size in KiB.
    const uint8_t attach = input.byte();
    std::vector<int> fds;
    for (size_t k = 0; k < (attach & 3u) % 3; ++k) {
        fds.push_back(sharedMemory(size_t{input.byte()} * 1024, (attach >> (2 + k) & 1u) == 0));
    }
    const std::vector<uint8_t> bytes = input.rest();
    AndroidParcel parcel;
    parcel->setData(bytes.data(), bytes.size(), fds);
    read(parcel);
    return 0;
}
