// The blob reservation that the transport provides to the parcel wrapper. It lives with the
// platform code because where the bytes go (in place or in shared memory) is the parcel's
// decision, not the RPC layer's.
#include <parlex/AndroidParcel.h>

namespace parlex {

android::status_t AndroidParcel::writeBlob(unsigned int size, android::Parcel::WritableBlob* blob) {
    // The region is written once by us and only read by the peer.
    return parcel()->writeBlob(size, false, blob);
}

}  // namespace parlex
