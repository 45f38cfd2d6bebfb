// Whether a client could read a file itself. The service may be able to read files that its
// clients may not (it may run as another user, or as root), so a file a client names is played
// only when that client could have opened it for reading without the service's help.
//
// The check follows the mode bits the way the kernel applies them: the owner's bits when the
// client owns the inode, else the group's bits when the inode's group is one of the client's,
// else the others' bits; root may read everything. ACLs and capabilities other than root's are
// not considered, so the check may refuse a file that an ACL would grant, never the reverse.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace zem {

struct PeerIdentity {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // supplementary groups
};

// The identity of the client process `pid`, whose uid and gid the transport reported. Its
// supplementary groups come from /proc/<pid>/status; when that cannot be read, or names other
// ids (the process is gone and its pid reused), it has none.
PeerIdentity peerIdentity(pid_t pid, uid_t uid, gid_t gid);

// Opens `path` for reading, as a regular file only, without blocking on a FIFO or a device.
// With a `peer`, only when that peer could read it itself: every directory on the resolved path
// must grant it search and the file read permission, and the file that was opened must be the
// one checked. -1 with `error` set otherwise; `denied` tells a refusal for the peer's rights
// apart from a file that cannot be opened at all. The descriptor is the caller's to close.
int openReadableBy(const std::string& path, const std::optional<PeerIdentity>& peer,
                   std::string& error, bool* denied = nullptr);

}  // namespace zem
