// The transport's frame decoder over a socketpair: an arbitrary record with arbitrary
// descriptors attached (memfds sealed or not, of any size, pipes, sockets, /dev/null) and a
// hang-up of the sending end at a random point. A frame the decoder accepts is turned into a
// parcel and its request header read, as a server would. Nothing may crash, block or leak a
// descriptor, and a hung-up channel reads as closed once its records are taken.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "parlex/Frame.h"
#include "parlex/Messages.h"

namespace {

using orv::fuzz::FuzzInput;
using namespace parlex::transport;

size_t openDescriptors() {
    std::filesystem::directory_iterator fds("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(fds), end(fds)));
}

int memfdOf(const std::vector<uint8_t>& bytes, size_t size, unsigned seals) {
    const int fd = ::memfd_create("fuzz-frame", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(size)) != 0) std::abort();
    if (!bytes.empty() && ::pwrite(fd, bytes.data(), bytes.size(), 0) < 0) std::abort();
    if (seals != 0 && ::fcntl(fd, F_ADD_SEALS, seals) != 0) std::abort();
    return fd;
}

// One descriptor of the kind the input picks; ours to close once sent.
int descriptor(FuzzInput& input) {
    const size_t kind = input.pick(6);
    const size_t size = input.byte();
    switch (kind) {
        case 0:  // the payload or a blob: sealed, holding bytes of the input
            return memfdOf(input.take(size * 4), size * 4, F_SEAL_SHRINK | F_SEAL_GROW);
        case 1:  // a blob the sender could still shrink under the receiver's mapping
            return memfdOf({}, size * 4, 0);
        case 2:  // larger than any message may be
            return memfdOf({}, size * 16 * 1024, F_SEAL_SHRINK | F_SEAL_GROW);
        case 3: {
            int ends[2];
            if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
            ::close(ends[1]);
            return ends[0];
        }
        case 4:
            return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        default: {
            int ends[2];
            if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
            ::close(ends[1]);
            return ends[0];
        }
    }
}

void sendRecord(int fd, const std::vector<uint8_t>& bytes, const std::vector<int>& fds) {
    iovec io{const_cast<uint8_t*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    std::vector<uint8_t> control(CMSG_SPACE(sizeof(int) * fds.size()));
    if (!fds.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        std::memcpy(CMSG_DATA(header), fds.data(), sizeof(int) * fds.size());
    }
    // May fail (too many descriptors for the kernel, a record above the socket's buffer): the
    // decoder then simply sees no record or a hang-up.
    static_cast<void>(::sendmsg(fd, &message, MSG_NOSIGNAL));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const size_t before = openDescriptors();
    FuzzInput input(data, size);
    // bit 0: a header with the right magic, size and descriptor count; bit 1: send no record;
    // bit 2: hang up after sending (always when no record is sent).
    const uint8_t mode = input.byte();
    const bool sendNothing = (mode & 2u) != 0;
    const bool hangUp = sendNothing || (mode & 4u) != 0;
    std::vector<int> fds;
    for (size_t k = input.pick(5); k > 0; --k) fds.push_back(descriptor(input));
    std::vector<uint8_t> record = input.rest();
    if ((mode & 1u) != 0 && record.size() >= sizeof(FrameHeader)) {
        FrameHeader header;
        std::memcpy(&header, record.data(), sizeof header);
        header.magic = kFrameMagic;
        header.size = static_cast<uint32_t>(record.size() - sizeof header);
        header.fdCount = static_cast<uint32_t>(fds.size());
        std::memcpy(record.data(), &header, sizeof header);
    }

    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    if (!sendNothing) sendRecord(ends[1], record, fds);
    for (int fd : fds) ::close(fd);
    if (hangUp) ::close(ends[1]);

    Frame frame;
    std::string error;
    RecvStatus status = RecvStatus::Closed;
    // Without a hang-up a record that the kernel refused would leave nothing to read.
    bool readable = hangUp;
    if (!readable) {
        char peek;
        readable = ::recv(ends[0], &peek, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
    }
    if (readable) status = recvFrame(ends[0], frame, error);
    if (status == RecvStatus::Ok) {
        parlex::AndroidParcel parcel = parcelFromFrame(frame);
        std::string objectId, method;
        readRequestHeader(parcel, objectId, method);
        if (hangUp && recvFrame(ends[0], frame, error) != RecvStatus::Closed) std::abort();
    } else if (status == RecvStatus::Malformed && error.empty()) {
        std::abort();  // a refusal must say why
    }
    frame.fds.clear();
    ::close(ends[0]);
    if (!hangUp) ::close(ends[1]);
    if (openDescriptors() != before) std::abort();
    return 0;
}
