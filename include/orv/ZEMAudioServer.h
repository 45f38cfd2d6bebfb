// The audio service's entry to the server half. Constructing a ZEMAudioServer hands the server
// to the player (OrvServerHandlerInterface::setMediaClientDelegate) and then publishes the track
// service, so the player may be called from then on; deleting it stops the service. The player
// must stop calling the delegate before the ZEMAudioServer is deleted.
#pragma once

#include <orv/Export.h>
#include <orv/Logging.h>
#include <orv/OrvServerHandlerInterface.h>

#include <memory>

namespace orv {

class AudioServerImpl;

class ORV_EXPORT ZEMAudioServer {
public:
    // Throws std::runtime_error when the service cannot be published (another audio service
    // already runs under the service's name, for one).
    ZEMAudioServer(std::shared_ptr<OrvServerHandlerInterface> handler,
                   std::shared_ptr<LoggingDelegate> logger);
    virtual ~ZEMAudioServer();
    ZEMAudioServer(const ZEMAudioServer&) = delete;
    ZEMAudioServer& operator=(const ZEMAudioServer&) = delete;

private:
    std::unique_ptr<AudioServerImpl> impl;
};

}  // namespace orv
