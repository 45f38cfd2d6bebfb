#include "ConnectFailure.h"

#include <cstring>

namespace zem {

namespace {

// The text between `before` and `after` (or the end), searched from the right, so that a path
// holding either marker still comes out whole; empty when `before` is missing.
std::string between(const std::string& text, const std::string& before, const std::string& after) {
    const size_t start = text.find(before);
    if (start == std::string::npos) return "";
    const size_t from = start + before.size();
    const size_t end = after.empty() ? std::string::npos : text.rfind(after);
    return text.substr(from,
                       end == std::string::npos || end < from ? std::string::npos : end - from);
}

}  // namespace

ConnectFailure ConnectFailure::parse(const std::string& text) {
    ConnectFailure failure;
    failure.text = text;
    if (text.find("permission denied on the socket of service '") != std::string::npos) {
        failure.kind = PermissionDenied;
        failure.path = between(text, "' at ", "");
    } else if (text.find("' is not running (nothing listens at ") != std::string::npos) {
        failure.kind = NotRunning;
        failure.path = between(text, "nothing listens at ", ")");
    } else if (const size_t refused = text.rfind(" refused the connection");
               refused != std::string::npos) {
        failure.kind = Refused;
        failure.path = between(text.substr(0, refused), "' at ", "");
        failure.detail = between(text.substr(refused), "refused the connection: ", "");
    } else if (const size_t silent = text.rfind(" did not answer within ");
               silent != std::string::npos) {
        failure.kind = NoAnswer;
        failure.path = between(text.substr(0, silent), "' at ", "");
        failure.detail = between(text.substr(silent), " did not answer within ", " ms");
    }
    return failure;
}

std::string ConnectFailure::explain() const {
    switch (kind) {
        case PermissionDenied:
            return "permission denied on the audio service's socket " + path +
                   ": the service belongs to another user. Ask whoever runs zem-audiod to let "
                   "you in (PARLEX_SOCKET_MODE and --allow-uid), or start your own with another "
                   "PARLEX_RUNTIME_DIR.";
        case NotRunning:
            return "no audio service is running (nothing listens at " + path +
                   "). Start it with `zem-audiod &` (with the same PARLEX_RUNTIME_DIR) and try "
                   "again.";
        case Refused:
            return "the audio service" + at() + " refused the connection" +
                   (detail.empty() ? "" : ": " + detail) +
                   ". It serves only the users it allows and a limited number of connections.";
        case NoAnswer:
            return "the audio service" + at() + " did not answer within " + detail +
                   " ms: it is stalled or overloaded.";
        case Unknown:
            break;
    }
    return "cannot reach the audio service" + (text.empty() ? std::string(".") : ": " + text) +
           " Is it running? Start it with `zem-audiod &` (with the same PARLEX_RUNTIME_DIR).";
}

void ConnectFailureRecorder::logMessage(orv::LogLevel level, const char* tag, const char* message) {
    if (level == orv::LOG_ERROR && tag && message && std::strcmp(tag, "ClientTrackImpl") == 0) {
        std::lock_guard<std::mutex> lock(mutex_);
        last_ = message;
    }
    if (next_) next_->logMessage(level, tag, message);
}

std::string ConnectFailureRecorder::last() {
    std::lock_guard<std::mutex> lock(mutex_);
    return last_;
}

}  // namespace zem
