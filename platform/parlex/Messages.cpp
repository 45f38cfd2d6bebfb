#include "Messages.h"

#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "parlex/binder.h"

namespace parlex::transport {

AndroidParcel parcelFromFrame(Frame& frame) {
    std::vector<int> fds;
    fds.reserve(frame.fds.size());
    for (UniqueFd& fd : frame.fds) fds.push_back(fd.release());
    frame.fds.clear();
    AndroidParcel parcel;
    parcel->adoptData(std::move(frame.payload), std::move(fds));
    return parcel;
}

bool readRequestHeader(const AndroidParcel& request, std::string& objectId, std::string& method) {
    android::String8 id, name;
    if (request->readString8(&id) != android::OK || request->readString8(&name) != android::OK) {
        return false;
    }
    objectId.assign(id.c_str(), id.size());
    method.assign(name.c_str(), name.size());
    return true;
}

std::string runHandler(const std::string& method,
                       const std::function<bool(AndroidParcel& reply)>& dispatch,
                       AndroidParcel& reply) {
    try {
        if (!dispatch(reply)) return "parlex: no handler for method '" + method + "'";
        return {};
    } catch (const std::exception& e) {
        std::string what = e.what();
        return what.empty() ? "parlex: handler failed" : what;
    } catch (...) {
        return "parlex: unknown exception in handler for '" + method + "'";
    }
}

int sendAnswer(int fd, uint32_t txn, const std::string& error, const AndroidParcel& reply) {
    int rc = -EPIPE;
    if (error.empty()) {
        rc = sendFrame(fd, FrameKind::Reply, txn, reply->data(), reply->dataSize(),
                       reply->fileDescriptors());
        if (rc == 0 || peerGone(rc)) return rc;
    }
    // An error text, or a reply that cannot go for a reason of its own (too large, no
    // descriptor left for its memfd): the caller still gets an answer, one that needs no
    // descriptor. When even that fails the peer is gone, and its reader notices the closed
    // channel.
    std::string text = error;
    if (rc == -EMSGSIZE) {
        text = "parlex: reply of " + std::to_string(reply->dataSize()) +
               " bytes, blobs included, exceeds the message limit";
    } else if (text.empty()) {
        text = std::string("parlex: reply could not be sent: ") + std::strerror(-rc);
    }
    return sendFrame(fd, FrameKind::Error, txn, text.data(), std::min(text.size(), kInlineLimit),
                     {});
}

int answerCall(int fd, Frame& frame,
               const std::function<Dispatch(const std::string& objectId)>& resolve) {
    AndroidParcel request = parcelFromFrame(frame);
    AndroidParcel reply;
    std::string objectId, method, error;
    if (!readRequestHeader(request, objectId, method)) {
        error = "parlex: malformed request";
    } else if (Dispatch dispatch = resolve(objectId)) {
        error = dispatch(method, request, reply);
    } else {
        error = "parlex: no object '" + objectId + "'";
    }
    return sendAnswer(fd, frame.txn, error, reply);
}

namespace {
AndroidParcel answerToParcel(Frame& frame) {
    if (frame.kind == FrameKind::Error) {
        throw std::runtime_error(std::string(frame.payload.begin(), frame.payload.end()));
    }
    return parcelFromFrame(frame);
}
}  // namespace

std::future<AndroidParcel> sendCall(std::shared_ptr<void> keepAlive, Caller& caller,
                                    const AndroidParcel& parcel) {
    try {
        auto slot = caller.send(FrameKind::Call, parcel->data(), parcel->dataSize(),
                                parcel->fileDescriptors());
        // Deferred: the thread that asks for the reply waits for it, and reads the channel
        // itself when nobody else does, which saves a thread hand-off per call.
        return std::async(std::launch::deferred,
                          [keepAlive = std::move(keepAlive), &caller, slot]() {
                              Frame answer = caller.wait(slot);
                              return answerToParcel(answer);
                          });
    } catch (...) {
        return failedFuture(std::current_exception());
    }
}

std::future<AndroidParcel> failedFuture(std::exception_ptr error) {
    std::promise<AndroidParcel> failed;
    failed.set_exception(std::move(error));
    return failed.get_future();
}

std::string runtimeDir() {
    if (const char* dir = std::getenv("PARLEX_RUNTIME_DIR"); dir != nullptr && *dir != '\0') {
        return dir;
    }
    if (const char* xdg = std::getenv("XDG_RUNTIME_DIR"); xdg != nullptr && *xdg != '\0') {
        return std::string(xdg) + "/parlex";
    }
    return "/tmp/parlex-" + std::to_string(::getuid());
}

std::string socketPath(const std::string& serviceName) {
    if (serviceName.empty() || serviceName.find('/') != std::string::npos || serviceName == "." ||
        serviceName == "..") {
        throw std::runtime_error("parlex: invalid service name '" + serviceName + "'");
    }
    std::string path = runtimeDir() + "/" + serviceName;
    if (path.size() >= sizeof(sockaddr_un::sun_path)) {
        throw std::runtime_error("parlex: socket path too long: " + path);
    }
    return path;
}

}  // namespace parlex::transport
