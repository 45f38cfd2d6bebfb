#include "Terminal.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>

#include "Arguments.h"

namespace zem::play {

namespace {

// The terminal's mode before zem-play changed it: written once before `gSaved` is set, then
// only read, so that restoreTerminal() needs no lock and may run on the watchdog's path.
termios gSavedMode{};
std::atomic<bool> gSaved{false};

constexpr size_t kLongestBar = 20;
constexpr size_t kShortestBar = 5;

std::string levelText(double db) {
    if (std::isnan(db)) return "--- dB";
    char text[16];
    std::snprintf(text, sizeof text, "%.1f dB", std::max(db, -99.9));
    return text;
}

std::string bar(double db, size_t length) {
    const double full = std::isnan(db) ? 0 : std::clamp((db + 60) / 60, 0.0, 1.0);
    const size_t filled = static_cast<size_t>(std::lround(full * static_cast<double>(length)));
    return "[" + std::string(filled, '#') + std::string(length - filled, '-') + "]";
}

}  // namespace

std::vector<Key> decodeKeys(std::string& pending) {
    std::vector<Key> keys;
    size_t i = 0;
    while (i < pending.size()) {
        const char c = pending[i];
        if (c != '\033') {
            if (c == ' ') keys.push_back(Key::PauseResume);
            if (c == 'q' || c == 'Q') keys.push_back(Key::Quit);
            if (c == '+' || c == '=') keys.push_back(Key::VolumeUp);
            if (c == '-' || c == '_') keys.push_back(Key::VolumeDown);
            ++i;
            continue;
        }
        if (i + 1 >= pending.size()) break;  // the rest of the sequence is still to come
        if (pending[i + 1] != '[' && pending[i + 1] != 'O') {
            ++i;  // a lone escape
            continue;
        }
        // CSI or SS3: parameters, then one final byte from '@' to '~'.
        size_t end = i + 2;
        while (end < pending.size() && !(pending[end] >= '@' && pending[end] <= '~')) ++end;
        if (end >= pending.size()) break;
        if (pending[end] == 'C') keys.push_back(Key::SeekForward);
        if (pending[end] == 'D') keys.push_back(Key::SeekBack);
        i = end + 1;
    }
    pending.erase(0, i);
    return keys;
}

std::string progressLine(const Progress& progress, size_t width) {
    const size_t room = width > 1 ? width - 1 : 0;
    const std::string time =
        "  " + formatPosition(progress.offsetMs) + " / " +
        (progress.durationMs >= 0 ? formatPosition(progress.durationMs) : std::string("?:??.?"));
    char state[16];
    std::snprintf(state, sizeof state, "  %-9s", progress.state.c_str());
    const double db =
        progress.volume > 0 ? progress.sourceDb + 20 * std::log10(progress.volume) : -INFINITY;
    const std::string level = " " + levelText(std::isnan(progress.sourceDb) ? NAN : db);
    const std::string volume =
        progress.volume < 1.0f
            ? "  vol " + std::to_string(std::lround(progress.volume * 100.0f)) + "%"
            : std::string();
    struct Layout {
        bool state, meter, level, volume;
    };
    const Layout layouts[] = {{true, true, true, true},
                              {true, false, true, true},
                              {true, false, true, false},
                              {true, false, false, false},
                              {false, false, false, false}};
    for (const Layout& layout : layouts) {
        std::string line = time + (layout.state ? state : "");
        const std::string tail = (layout.level ? level : "") + (layout.volume ? volume : "");
        if (layout.meter) {
            const size_t fixed = line.size() + tail.size() + 2;  // the brackets
            if (fixed + kShortestBar > room) continue;
            line += bar(db, std::min(kLongestBar, room - fixed));
        }
        line += tail;
        if (line.size() <= room) return line;
    }
    return time.substr(0, room);
}

size_t terminalWidth(int fd) {
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 80;
}

RawTerminal::RawTerminal() {
    termios mode{};
    if (!::isatty(STDIN_FILENO) || ::tcgetattr(STDIN_FILENO, &mode) != 0) return;
    gSavedMode = mode;
    gSaved = true;
    active_ = true;
    reenterRawMode();
}

RawTerminal::~RawTerminal() {
    if (!active_) return;
    restoreTerminal();
    gSaved = false;
}

void reenterRawMode() {
    if (!gSaved) return;
    termios mode = gSavedMode;
    mode.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
    mode.c_cc[VMIN] = 0;
    mode.c_cc[VTIME] = 0;
    ::tcsetattr(STDIN_FILENO, TCSANOW, &mode);
}

void restoreTerminal() {
    if (gSaved) ::tcsetattr(STDIN_FILENO, TCSANOW, &gSavedMode);
}

}  // namespace zem::play
