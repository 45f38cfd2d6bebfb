// Parcel encoding of the value records.
//
// Contract (every process that exchanges these records depends on it; it must never change):
//  - a record is the plain sequence of its fields in declaration order, with no version tag,
//    length prefix or padding of its own; the method name says which record follows;
//  - 32-bit integers and enumerations are one int32, 64-bit integers one int64, floats one
//    float (its bits unchanged); a flag is an int32 of 0 or 1, read back as true when non-zero;
//    a 16-bit field travels as a sign-extended int32 and is truncated to 16 bits on reading;
//  - a text is an int32 length, -1 for null (and nothing after it), otherwise the length then
//    the bytes as a C string with its terminating zero, padded to 4 bytes. The length must be
//    the true strlen: the reader sizes its copy from it;
//  - the two values of PlaybackAttributes are raw 4-byte copies of their 32-bit fields;
//  - a DescriptionMap, MetadataKeyValuePairs, PlaybackReportArray and PlaybackReports send an
//    int32 count and then that many entries (MetadataKeyValuePairs too sends its count first,
//    although the record keeps it after the pairs);
//  - the capacities DescriptionMap::kCapacity (20), MetadataKeyValuePairs::kCapacity (20) and
//    PlaybackReportArray::kCapacity (50) are part of the protocol.
//
// Readers do not stop at a short parcel: every number starts from zero and every text from null
// before it is read, so a truncated parcel yields zeros and nulls and is marked as overrun
// (AndroidParcel::overrun), which whoever needs the whole record checks once at the end. Counts
// come from the peer and are checked before anything is stored or allocated: above the capacity, or
// (PlaybackReports) more reports than the bytes left could hold, the reader throws
// parlex::impl::runtime_error and leaves its target as it was. Writers refuse a count above the
// capacity the same way.
//
// The operators live in namespace orv so that argument-dependent lookup finds them from the
// argument packing templates of the RPC layer.
#pragma once

#include <orv/Records.h>
#include <parlex/AndroidParcel.h>

namespace orv {

parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const ZEMAudioFormat& format);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        ZEMAudioFormat& format);

parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const ZEMAudioSource& source);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        ZEMAudioSource& source);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const ZEMAudioSourceV2& source);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        ZEMAudioSourceV2& source);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const ZEMAudioSourceV3& source);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        ZEMAudioSourceV3& source);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const ZEMAudioSourceV4& source);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        ZEMAudioSourceV4& source);

parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const CaptionData& caption);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel, CaptionData& caption);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const DescriptionPair& pair);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel, DescriptionPair& pair);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const DescriptionMap& map);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel, DescriptionMap& map);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel,
                                  const MediaDescription& description);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        MediaDescription& description);

parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel,
                                  const MediaPlayerProtection& protection);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        MediaPlayerProtection& protection);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const MediaPlayerState& state);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        MediaPlayerState& state);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const MediaPlayerStateV2& state);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        MediaPlayerStateV2& state);

parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const MetadataKeyValuePair& pair);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        MetadataKeyValuePair& pair);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel,
                                  const MetadataKeyValuePairs& pairs);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        MetadataKeyValuePairs& pairs);

parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel,
                                  const PlaybackAttributes& attributes);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        PlaybackAttributes& attributes);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const PlaybackReport& report);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        PlaybackReport& report);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const PlaybackReports& reports);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        PlaybackReports& reports);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel,
                                  const PlaybackReportArray& reports);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        PlaybackReportArray& reports);
parlex::AndroidParcel& operator<<(parlex::AndroidParcel& parcel, const Fingerprint& fingerprint);
const parlex::AndroidParcel& operator>>(const parlex::AndroidParcel& parcel,
                                        Fingerprint& fingerprint);

}  // namespace orv
