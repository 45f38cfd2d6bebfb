// Every exported header of the library: the client track and its listeners, the server with the
// player's interfaces, the records and the log sink.
#pragma once

#include <orv/AudioServerImpl.h>
#include <orv/EventListener.h>
#include <orv/Export.h>
#include <orv/Logging.h>
#include <orv/MediaClientDelegate.h>
#include <orv/OrvServerHandlerInterface.h>
#include <orv/Records.h>
#include <orv/SourceConfig.h>
#include <orv/ZEMAudioServer.h>
#include <orv/ZEMAudioTrack.h>
