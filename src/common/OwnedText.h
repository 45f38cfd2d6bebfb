// The owned texts of the records (and of the server's SourceConfig): each field holds a private
// array-new copy of its text or null, and a null source stays null (never becomes "").
#pragma once

#include <cstring>

namespace orv {

inline char* copyString(const char* text) {
    if (text == nullptr) return nullptr;
    const size_t size = std::strlen(text) + 1;
    char* copy = new char[size];
    std::memcpy(copy, text, size);
    return copy;
}

// Copies before it frees, so that a field may be set from its own value.
inline void assignString(char*& field, const char* text) {
    char* copy = copyString(text);
    delete[] field;
    field = copy;
}

}  // namespace orv
