// The audio service's handle on the server half: it owns the server, which runs from
// construction to destruction.
#include <orv/AudioServerImpl.h>
#include <orv/ZEMAudioServer.h>

#include <utility>

#include "parlex/TrackProtocol.h"

namespace orv {

ZEMAudioServer::ZEMAudioServer(std::shared_ptr<OrvServerHandlerInterface> handler,
                               std::shared_ptr<LoggingDelegate> logger)
    : impl(std::make_unique<AudioServerImpl>(std::move(handler), std::move(logger),
                                             protocol::kServiceName)) {}

ZEMAudioServer::ZEMAudioServer(std::shared_ptr<OrvServerHandlerInterface> handler,
                               std::shared_ptr<LoggingDelegate> logger,
                               const parlex::ServerLimits& limits)
    : impl(std::make_unique<AudioServerImpl>(std::move(handler), std::move(logger),
                                             protocol::kServiceName, limits)) {}

// reset() empties `impl` before the server is deleted.
ZEMAudioServer::~ZEMAudioServer() { impl.reset(); }

}  // namespace orv
