// Framing of the host transport. Every message is one SOCK_SEQPACKET record:
//
//   FrameHeader (24 bytes) | payload (`size` bytes, absent when out of line)
//
// with `fdCount` descriptors attached as SCM_RIGHTS. A payload above kInlineLimit travels out of
// line: the first descriptor is a memfd holding exactly `size` bytes. The remaining
// descriptors belong to the parcel in the payload (its shared-memory blobs), in index order;
// each is a memfd sealed against shrinking and growing, and the payload plus their sizes stay
// within kMaxMessageSize. A record without bytes is never sent.
//
// A connection is two socket pairs: channel A carries the client's requests (Hello, Create,
// Release, Call) and the server's answers (HelloAck, Reply, Error); channel B, whose server end
// travels with the Hello, carries the server's events and callbacks (Call) and the client's
// answers. Each side therefore reads only answers on one channel and only requests on the
// other, and a thread waiting for an answer never has to run a request.
//
// Payloads: Call and Reply carry parcel bytes; Create carries the type name, Release the object
// identifier, a Reply to Create the new object's identifier, Error the message text.
// These numbers are shared by every process that speaks the protocol and must never change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "UniqueFd.h"

namespace parlex::transport {

constexpr uint32_t kFrameMagic = 0x31584c50;  // "PLX1"
constexpr size_t kInlineLimit = 64 * 1024;
constexpr size_t kMaxFds = 72;

enum class FrameKind : uint16_t {
    Hello = 1,
    HelloAck = 2,
    Create = 3,
    Release = 4,
    Call = 5,
    Reply = 6,
    Error = 7,
};

enum FrameFlags : uint16_t {
    kOutOfLine = 1,
};

struct FrameHeader {
    uint32_t magic;
    uint16_t kind;
    uint16_t flags;
    uint32_t txn;
    uint32_t size;
    uint32_t fdCount;
    uint32_t reserved;
};
static_assert(sizeof(FrameHeader) == 24, "the header layout is part of the protocol");

struct Frame {
    FrameKind kind = FrameKind::Call;
    uint32_t txn = 0;
    std::vector<uint8_t> payload;
    std::vector<UniqueFd> fds;  // the parcel's descriptors (never the out-of-line memfd)
};

// Unreadable: a well-formed frame whose descriptors this process could not take (it is at its
// descriptor limit); `frame` holds only its kind and txn, so that it can be answered.
enum class RecvStatus { Ok, Closed, Malformed, Unreadable };

// Bytes that `fds` add to a message: the sizes of the regular files among them.
size_t attachedBytes(const std::vector<int>& fds);

// Sends one frame; the descriptors are duplicated into the peer, ours stay open. Returns 0 or
// a negative errno: EMSGSIZE when the payload and the attached files exceed the limit, a
// local failure (EMFILE, ENOMEM, ...) that leaves the channel usable, or one for which
// peerGone() holds (ETIMEDOUT: the socket's send time-out passed while the peer read nothing).
int sendFrame(int fd, FrameKind kind, uint32_t txn, const void* payload, size_t size,
              const std::vector<int>& fds);

// Whether sendFrame's result means that the channel is closed, or its peer stuck, for good.
bool peerGone(int sendResult);

// Receives one frame, validating it before anything is trusted. On Malformed and Unreadable,
// `error` says why and every descriptor received with it has been closed.
RecvStatus recvFrame(int fd, Frame& frame, std::string& error);

}  // namespace parlex::transport
