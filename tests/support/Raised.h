// What a transport call raised, as one line that a test compares or a peer prints.
#pragma once

#include <parlex/binder.h>

#include <exception>
#include <functional>
#include <string>

namespace parlex::test {

// "dead_object", "error: <what>" for any other exception, or "" for nothing raised.
inline std::string errorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const dead_object&) {
        return "dead_object";
    } catch (const std::exception& error) {
        return std::string("error: ") + error.what();
    }
    return "";
}

}  // namespace parlex::test
