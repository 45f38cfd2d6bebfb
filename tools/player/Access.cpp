#include "Access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

namespace zem {

namespace {

constexpr mode_t kRead = 4;
constexpr mode_t kSearch = 1;

bool grants(const PeerIdentity& peer, const struct stat& status, mode_t wanted) {
    if (peer.uid == 0) return true;
    mode_t bits = status.st_mode & 7;
    if (status.st_uid == peer.uid) {
        bits = (status.st_mode >> 6) & 7;
    } else if (status.st_gid == peer.gid || std::find(peer.groups.begin(), peer.groups.end(),
                                                      status.st_gid) != peer.groups.end()) {
        bits = (status.st_mode >> 3) & 7;
    }
    return (bits & wanted) == wanted;
}

// Whether `peer` may search every directory from the root down to `directory`, which is
// absolute and free of symbolic links.
bool maySearch(const PeerIdentity& peer, const std::string& directory) {
    if (directory.empty() || directory[0] != '/') return false;
    std::vector<std::string> prefixes{"/"};
    for (size_t at = directory.find('/', 1);; at = directory.find('/', at + 1)) {
        prefixes.push_back(directory.substr(0, at));
        if (at == std::string::npos) break;
    }
    for (const std::string& prefix : prefixes) {
        struct stat status {};
        if (::stat(prefix.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
            !grants(peer, status, kSearch)) {
            return false;
        }
    }
    return true;
}

std::string resolved(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> full(::realpath(path.c_str(), nullptr),
                                                           &std::free);
    return full ? full.get() : "";
}

std::string parentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Whether the peer could read the file that `fd` holds through `path`.
bool mayRead(const PeerIdentity& peer, const std::string& path, int fd) {
    const std::string full = resolved(path);
    struct stat opened {};
    struct stat named {};
    if (full.empty() || ::fstat(fd, &opened) != 0 || ::stat(full.c_str(), &named) != 0) {
        return false;
    }
    // A link swapped between the open and the check leads to another inode than the one opened.
    if (named.st_dev != opened.st_dev || named.st_ino != opened.st_ino) return false;
    return maySearch(peer, parentOf(full)) && grants(peer, named, kRead);
}

}  // namespace

PeerIdentity peerIdentity(pid_t pid, uid_t uid, gid_t gid) {
    PeerIdentity identity{uid, gid, {}};
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::vector<gid_t> groups;
    bool sameIds = false;
    for (std::string line; std::getline(status, line);) {
        std::istringstream fields(line);
        std::string key;
        fields >> key;
        unsigned long real = 0;
        unsigned long effective = 0;
        if (key == "Uid:" && fields >> real >> effective) {
            sameIds = effective == uid;
        } else if (key == "Gid:" && fields >> real >> effective) {
            sameIds = sameIds && effective == gid;
        } else if (key == "Groups:") {
            for (unsigned long group = 0; fields >> group;) groups.push_back(group);
        }
    }
    if (sameIds) identity.groups = std::move(groups);
    return identity;
}

int openReadableBy(const std::string& path, const std::optional<PeerIdentity>& peer,
                   std::string& error, bool* denied) {
    if (denied) *denied = false;
    const bool checked = peer && peer->uid != 0;
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int openErrno = errno;
    // A peer learns why a file cannot be opened only when it may look into its directory, so
    // that it cannot probe for names it could not see.
    if (checked && (fd < 0 || !mayRead(*peer, path, fd)) &&
        (fd >= 0 || !maySearch(*peer, resolved(parentOf(path))))) {
        if (fd >= 0) ::close(fd);
        error = "permission denied";
        if (denied) *denied = true;
        return -1;
    }
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        error = fd < 0 ? std::strerror(openErrno) : "not a regular file";
        if (fd >= 0) ::close(fd);
        return -1;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

}  // namespace zem
