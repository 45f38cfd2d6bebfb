// The implementation behind the exported track: it owns the connection to the audio service and
// the track proxy, connects on init, and tears both down on destroy and on deletion. It keeps no
// playback state; every request goes to the proxy as it is.
#pragma once

#include <orv/EventListener.h>
#include <orv/Logging.h>
#include <parlex/binder.h>

#include <memory>
#include <string>

#include "client/ZEMAudioTrackClient.h"

namespace orv {

class ClientTrackImpl {
public:
    ClientTrackImpl() = default;
    // Deletes the proxy, then the connection. Sends nothing: no "destroy", no stop first.
    ~ClientTrackImpl();
    ClientTrackImpl(const ClientTrackImpl&) = delete;
    ClientTrackImpl& operator=(const ClientTrackImpl&) = delete;

    // Connects to `serviceName` with a new connection and a new proxy and registers `listener`
    // in it. False, with one line to `logger` (which must not be null), when the service cannot
    // be reached or refuses the track; the listener is then not registered.
    bool init(std::shared_ptr<EventListener> listener, std::shared_ptr<LoggingDelegate> logger,
              const std::string& serviceName);
    bool init(std::shared_ptr<EventListenerV2> listener, std::shared_ptr<LoggingDelegate> logger,
              const std::string& serviceName);
    bool init(std::shared_ptr<EventListenerV3> listener, std::shared_ptr<LoggingDelegate> logger,
              const std::string& serviceName);

    bool createZEMAudioTrackClient(const std::shared_ptr<LoggingDelegate>& logger,
                                   const std::string& serviceName);

    // Sends "destroy" and closes the connection. Both objects stay until deletion.
    void destroy();

    // Null until an init has succeeded.
    ZEMAudioTrackClient* proxy() const { return proxy_.get(); }

private:
    template <typename Listener>
    bool connectWith(std::shared_ptr<Listener> listener, std::shared_ptr<LoggingDelegate> logger,
                     const std::string& serviceName);

    std::unique_ptr<parlex::AndroidClient> client_;
    std::unique_ptr<ZEMAudioTrackClient> proxy_;
};

}  // namespace orv
