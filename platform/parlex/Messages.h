// What the client and the server connection share: turning frames into parcels and back,
// running a request against a handler table, and the futures handed to senders.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <string>

#include "Channel.h"
#include "parlex/AndroidParcel.h"

namespace parlex::transport {

// A parcel holding the frame's payload and descriptors (taken from the frame).
AndroidParcel parcelFromFrame(Frame& frame);

// Reads the object identifier and the method name that open every request.
bool readRequestHeader(const AndroidParcel& request, std::string& objectId, std::string& method);

// Runs `dispatch` (which returns false when no handler is bound), turning a missing handler or
// an exception into the error text for the caller. Empty on success.
std::string runHandler(const std::string& method,
                       const std::function<bool(AndroidParcel& reply)>& dispatch,
                       AndroidParcel& reply);

// Answers request `txn` on `fd`: the reply parcel, or `error` when it is not empty. Returns
// what sendFrame returned for the frame that went last.
int sendAnswer(int fd, uint32_t txn, const std::string& error, const AndroidParcel& reply);

// Runs one method of one object; returns the error text for the caller, empty on success.
using Dispatch = std::function<std::string(const std::string& method, const AndroidParcel& request,
                                           AndroidParcel& reply)>;

// Answers the Call `frame` on `fd`: reads which object and method it names, runs it through
// what `resolve` returns for that object (an empty Dispatch when there is no such object).
// Returns what sendAnswer returned.
int answerCall(int fd, Frame& frame,
               const std::function<Dispatch(const std::string& objectId)>& resolve);

// Sends `parcel` as a call through `caller`; the future waits for the answer when asked. Any
// failure is stored in the future. `keepAlive` keeps the caller's owner alive meanwhile.
std::future<AndroidParcel> sendCall(std::shared_ptr<void> keepAlive, Caller& caller,
                                    const AndroidParcel& parcel);

// A future that holds `error` instead of a reply.
std::future<AndroidParcel> failedFuture(std::exception_ptr error);

// Resolves a runtime directory and socket path for a service name (see binder.h).
std::string runtimeDir();
std::string socketPath(const std::string& serviceName);

}  // namespace parlex::transport
