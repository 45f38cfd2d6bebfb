// The audio service's entry to the server half. Constructing a ZEMAudioServer hands the server
// to the player (OrvServerHandlerInterface::setMediaClientDelegate) and then publishes the track
// service, so the player may be called from then on; deleting it stops the service. The player
// must stop calling the delegate before the ZEMAudioServer is deleted.
#pragma once

#include <orv/Export.h>
#include <orv/Logging.h>
#include <orv/OrvServerHandlerInterface.h>
#include <parlex/binder.h>

#include <memory>

namespace orv {

class AudioServerImpl;

class ORV_EXPORT ZEMAudioServer {
public:
    // Throws std::runtime_error when the service cannot be published (another audio service
    // already runs under the service's name, for one).
    ZEMAudioServer(std::shared_ptr<OrvServerHandlerInterface> handler,
                   std::shared_ptr<LoggingDelegate> logger);
    // As above, with the deadlines and caps that the service grants its clients (who may
    // connect, how long a client may take to answer, how much one peer may hold).
    ZEMAudioServer(std::shared_ptr<OrvServerHandlerInterface> handler,
                   std::shared_ptr<LoggingDelegate> logger, const parlex::ServerLimits& limits);
    virtual ~ZEMAudioServer();
    ZEMAudioServer(const ZEMAudioServer&) = delete;
    ZEMAudioServer& operator=(const ZEMAudioServer&) = delete;

private:
    std::unique_ptr<AudioServerImpl> impl;
};

}  // namespace orv
