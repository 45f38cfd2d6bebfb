// The host String8 keeps its bytes in a std::string, which already guarantees the terminating
// zero after them and allows zero bytes inside.
#include <utils/String8.h>

namespace android {

String8::String8(const char* text) : bytes_(text != nullptr ? text : "") {}

String8::String8(const char* bytes, size_t length) {
    if (bytes != nullptr) bytes_.assign(bytes, length);
}

}  // namespace android
