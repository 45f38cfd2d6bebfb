// Sending and receiving one frame. The receiver trusts nothing in a header until it has checked
// it against what actually arrived; descriptors that came with a bad frame are closed.
#include "Frame.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "parlex/binder.h"

namespace parlex::transport {

namespace {

bool writeAll(int fd, const void* bytes, size_t size) {
    auto* p = static_cast<const uint8_t*>(bytes);
    while (size > 0) {
        ssize_t n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool readAllAt(int fd, void* bytes, size_t size) {
    auto* p = static_cast<uint8_t*>(bytes);
    off_t offset = 0;
    while (size > 0) {
        ssize_t n = ::pread(fd, p, size, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        offset += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// The out-of-line payload: a memfd holding exactly the payload bytes. Returns 0 or -errno.
int makePayloadFd(const void* payload, size_t size, UniqueFd& out) {
    UniqueFd fd(::memfd_create("parlex-frame", MFD_CLOEXEC));
    if (!fd.valid() || !writeAll(fd.get(), payload, size)) return errno != 0 ? -errno : -EIO;
    out = std::move(fd);
    return 0;
}

// Adds a file's size to a byte count without wrapping: past the limit is all that matters.
size_t addCapped(size_t total, off_t size) {
    const size_t over = kMaxMessageSize + 1;
    return size < 0 || static_cast<uint64_t>(size) >= over ? over
                                                           : std::min(over, total + size_t(size));
}

// Space for the largest descriptor set we accept, and one more so that an excess shows up as
// truncation rather than silently going missing.
constexpr size_t kControlSpace = CMSG_SPACE(sizeof(int) * (kMaxFds + 1));

// One receive buffer per thread, sized for the largest inline frame plus one byte so that a
// longer record is detected.
uint8_t* receiveBuffer() {
    thread_local std::vector<uint8_t> buffer(sizeof(FrameHeader) + kInlineLimit + 1);
    return buffer.data();
}

RecvStatus malformed(std::string& error, const char* why) {
    error = why;
    return RecvStatus::Malformed;
}

// The parcel's descriptors are blobs that the receiver maps: each must be a memfd that can
// neither shrink nor grow under the mapping, and their bytes count towards the message limit.
bool blobsWithinLimit(const std::vector<UniqueFd>& blobs, size_t payloadSize, std::string& error) {
    constexpr int kFixedSize = F_SEAL_SHRINK | F_SEAL_GROW;
    size_t total = payloadSize;
    for (const UniqueFd& blob : blobs) {
        struct stat st;
        const int seals = ::fcntl(blob.get(), F_GET_SEALS);
        if (seals < 0 || (seals & kFixedSize) != kFixedSize || ::fstat(blob.get(), &st) != 0) {
            error = "a descriptor that is not a sealed blob";
            return false;
        }
        total = addCapped(total, st.st_size);
    }
    if (total > kMaxMessageSize) error = "blobs above the message limit";
    return total <= kMaxMessageSize;
}

}  // namespace

size_t attachedBytes(const std::vector<int>& fds) {
    size_t total = 0;
    for (int fd : fds) {
        struct stat st;
        if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) total = addCapped(total, st.st_size);
    }
    return total;
}

bool peerGone(int sendResult) {
    return sendResult == -EPIPE || sendResult == -ECONNRESET || sendResult == -ENOTCONN ||
           sendResult == -ETIMEDOUT;
}

int sendFrame(int fd, FrameKind kind, uint32_t txn, const void* payload, size_t size,
              const std::vector<int>& fds) {
    if (size > kMaxMessageSize || fds.size() + 1 > kMaxFds ||
        size + attachedBytes(fds) > kMaxMessageSize) {
        return -EMSGSIZE;
    }

    FrameHeader header{
        kFrameMagic, static_cast<uint16_t>(kind), 0, txn, static_cast<uint32_t>(size), 0, 0};
    UniqueFd payloadFd;
    std::vector<int> attached;
    attached.reserve(fds.size() + 1);
    iovec iov[2] = {{&header, sizeof(header)}, {const_cast<void*>(payload), size}};
    int iovCount = size > 0 ? 2 : 1;
    if (size > kInlineLimit) {
        if (int rc = makePayloadFd(payload, size, payloadFd); rc != 0) return rc;
        header.flags = kOutOfLine;
        attached.push_back(payloadFd.get());
        iovCount = 1;
    }
    attached.insert(attached.end(), fds.begin(), fds.end());
    header.fdCount = static_cast<uint32_t>(attached.size());

    alignas(cmsghdr) uint8_t control[kControlSpace];
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = iovCount;
    if (!attached.empty()) {
        size_t length = sizeof(int) * attached.size();
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(length);
        cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(length);
        std::memcpy(CMSG_DATA(cmsg), attached.data(), length);
    }
    while (true) {
        ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
        if (n >= 0) return 0;
        // Our sockets block: EAGAIN is a send time-out, a peer that does not read.
        if (errno == EAGAIN || errno == EWOULDBLOCK) return -ETIMEDOUT;
        if (errno != EINTR) return -errno;
    }
}

RecvStatus recvFrame(int fd, Frame& frame, std::string& error) {
    uint8_t* buffer = receiveBuffer();
    alignas(cmsghdr) uint8_t control[kControlSpace];
    iovec iov{buffer, sizeof(FrameHeader) + kInlineLimit + 1};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);

    ssize_t n;
    do {
        n = ::recvmsg(fd, &msg, MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return RecvStatus::Closed;

    // Take ownership of every descriptor first, so that each early return closes them. A record
    // of no bytes may carry descriptors too.
    std::vector<UniqueFd> fds;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int received;
            std::memcpy(&received, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            fds.emplace_back(received);
        }
    }
    const bool rightsTruncated = (msg.msg_flags & MSG_CTRUNC) != 0;
    if (n == 0) {
        // The end of the connection reads as an empty record; one that brings descriptors is not.
        if (fds.empty() && !rightsTruncated) return RecvStatus::Closed;
        return malformed(error, "empty record with descriptors");
    }
    if (fds.size() > kMaxFds) return malformed(error, "too many descriptors");
    if (msg.msg_flags & MSG_TRUNC) return malformed(error, "frame larger than the inline limit");
    if (static_cast<size_t>(n) < sizeof(FrameHeader)) return malformed(error, "short frame");

    FrameHeader header;
    std::memcpy(&header, buffer, sizeof(header));
    size_t inlineBytes = static_cast<size_t>(n) - sizeof(header);
    if (header.magic != kFrameMagic) return malformed(error, "bad magic");
    if (header.kind < static_cast<uint16_t>(FrameKind::Hello) ||
        header.kind > static_cast<uint16_t>(FrameKind::Error)) {
        return malformed(error, "unknown frame kind");
    }
    if ((header.flags & ~kOutOfLine) != 0) return malformed(error, "unknown flags");
    if (rightsTruncated) {
        // The kernel drops descriptors that overflow the control space, and those this process
        // has no room for. Only the latter leaves fewer than a well-formed header announces.
        if (header.fdCount > kMaxFds || fds.size() >= header.fdCount) {
            return malformed(error, "too many descriptors");
        }
        frame.kind = static_cast<FrameKind>(header.kind);
        frame.txn = header.txn;
        error = "out of descriptors";
        return RecvStatus::Unreadable;
    }
    if (header.fdCount != fds.size()) return malformed(error, "descriptor count mismatch");
    if (header.size > kMaxMessageSize) return malformed(error, "frame above the size limit");

    frame.kind = static_cast<FrameKind>(header.kind);
    frame.txn = header.txn;
    if (header.flags & kOutOfLine) {
        if (inlineBytes != 0 || fds.empty()) return malformed(error, "bad out-of-line frame");
        struct stat st;
        if (::fstat(fds[0].get(), &st) != 0 || !S_ISREG(st.st_mode) ||
            static_cast<uint64_t>(st.st_size) < header.size) {
            return malformed(error, "bad out-of-line payload");
        }
        frame.payload.resize(header.size);
        if (!readAllAt(fds[0].get(), frame.payload.data(), header.size)) {
            return malformed(error, "unreadable out-of-line payload");
        }
        fds.erase(fds.begin());
    } else {
        if (inlineBytes != header.size) return malformed(error, "payload size mismatch");
        frame.payload.assign(buffer + sizeof(header), buffer + n);
    }
    // The greeting's descriptor is a socket; every other frame's belong to its parcel.
    if (frame.kind != FrameKind::Hello && !blobsWithinLimit(fds, header.size, error)) {
        return RecvStatus::Malformed;
    }
    frame.fds = std::move(fds);
    return RecvStatus::Ok;
}

}  // namespace parlex::transport
