// Status codes returned by the host stand-in of the platform's Parcel and utilities.
// The values are those the platform uses, so code that compares against them reads the same.
#pragma once

#include <cerrno>
#include <cstdint>

namespace android {

using status_t = int32_t;

enum : status_t {
    OK = 0,
    NO_ERROR = OK,
    UNKNOWN_ERROR = INT32_MIN,
    NO_MEMORY = -ENOMEM,
    INVALID_OPERATION = -ENOSYS,
    BAD_VALUE = -EINVAL,
    BAD_TYPE = UNKNOWN_ERROR + 1,
    NAME_NOT_FOUND = -ENOENT,
    DEAD_OBJECT = -EPIPE,
    BAD_INDEX = -EOVERFLOW,
    NOT_ENOUGH_DATA = -ENODATA,
    FDS_NOT_ALLOWED = UNKNOWN_ERROR + 7,
};

}  // namespace android
