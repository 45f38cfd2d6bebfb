// Every value record of the public interface.
#pragma once

#include <orv/AudioSource.h>
#include <orv/MediaDescription.h>
#include <orv/MediaPlayerState.h>
#include <orv/Metadata.h>
#include <orv/Playback.h>
