// zem-play on a terminal: the keys it reads from stdin, the mode stdin is in meanwhile, and the
// one progress line it redraws in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zem::play {

enum class Key { PauseResume, SeekBack, SeekForward, VolumeUp, VolumeDown, Quit };

// The keys in `pending`, the bytes read from the terminal so far. An escape sequence cut off at
// the end stays in `pending` for the next read; bytes that are no key are dropped.
std::vector<Key> decodeKeys(std::string& pending);

struct Progress {
    int64_t offsetMs = 0;
    int64_t durationMs = -1;  // unknown below 0
    std::string state;
    double sourceDb = 0;  // the source's own level; NaN when unknown
    float volume = 1.0f;  // the meter shows the level after it
};

// The progress line for a terminal `width` columns wide. It stays below the last column, so that
// it never wraps: what does not fit goes, the meter first, then the volume, the level, the state.
std::string progressLine(const Progress& progress, size_t width);

// The width of the terminal on `fd`; 80 when it does not say.
size_t terminalWidth(int fd);

// Puts the terminal on stdin into character-at-a-time mode without echo for as long as it
// lives. Ctrl-C still raises SIGINT. The saved mode is kept where restoreTerminal() can reach it,
// so that a path that leaves without unwinding (the signal watchdog) restores it too.
class RawTerminal {
public:
    RawTerminal();
    ~RawTerminal();
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

    bool active() const { return active_; }

private:
    bool active_ = false;
};

// Restores the terminal's saved mode, when one was changed; safe from any thread, at any time.
void restoreTerminal();
// Back into character-at-a-time mode after restoreTerminal(), while a RawTerminal lives: after
// zem-play was stopped (Ctrl-Z) and continued.
void reenterRawMode();

}  // namespace zem::play
