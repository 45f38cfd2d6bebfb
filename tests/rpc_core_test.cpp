// The named-method RPC core without a transport: a fake client and a fake remote object record
// every parcel they are asked to send and answer at once with an empty reply, so that the tests
// see the bytes that would go on the wire and drive the handler tables as the transport does.
#include <gtest/gtest.h>
#include <parlex/parlex.h>

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "common/RecordCodec.h"

namespace parlex {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const android::Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

class FakeSender {
public:
    std::future<AndroidParcel> send(std::unique_ptr<AndroidParcel> parcel) {
        sent.push_back(bytesOf(*parcel->parcel()));
        std::promise<AndroidParcel> answer;
        answer.set_value(AndroidParcel());
        return answer.get_future();
    }

    std::vector<Bytes> sent;
};

using Proxy = ProxyBase<FakeSender, AndroidParcel>;

class FakeImpl : public ImplBase<FakeImpl, AndroidParcel>, public FakeSender {
public:
    FakeImpl() { objectId_ = "Track#3"; }
    using FakeSender::send;
};

// The bytes a parcel holds after `write` fills it through the raw parcel interface.
Bytes expectedBytes(const std::function<void(android::Parcel&)>& write) {
    android::Parcel parcel;
    write(parcel);
    return bytesOf(parcel);
}

// What call, event and callback put on the wire for `name` with `args`.
template <typename... Args>
std::vector<Bytes> requestsFor(const std::string& name, Args... args) {
    FakeSender client;
    Proxy proxy(&client, "Track#3");
    FakeImpl impl;
    proxy.call(name, args...);
    impl.event(name, args...);
    impl.callback(name, args...);
    client.sent.insert(client.sent.end(), impl.sent.begin(), impl.sent.end());
    return client.sent;
}

// Each of call, event and callback sends one request carrying exactly the object identifier, the
// name and the arguments in declaration order, each in its own encoding, with nothing before,
// between or after.
TEST(RpcCoreTest, RequestIsObjectIdentifierNameAndArgumentsOnly) {
    const Bytes bare = expectedBytes([](android::Parcel& parcel) {
        parcel.writeString8("Track#3", 7);
        parcel.writeString8("play", 4);
    });
    EXPECT_EQ(requestsFor("play"), std::vector<Bytes>(3, bare));

    const Bytes every = expectedBytes([](android::Parcel& parcel) {
        parcel.writeString8("Track#3", 7);
        parcel.writeString8("every", 5);
        parcel.writeInt32(-7);
        parcel.writeUint32(4000000000u);
        parcel.writeInt32(1);
        parcel.writeInt64(-(1LL << 40));
        parcel.writeFloat(1.5f);
        parcel.writeString8("a\0b", 3);
        parcel.writeInt32(1);
        parcel.writeCString("c");
        parcel.writeInt32(-1);
    });
    EXPECT_EQ(requestsFor("every", -7, 4000000000u, true, -(1LL << 40), 1.5f,
                          std::string("a\0b", 3), "c", static_cast<const char*>(nullptr)),
              std::vector<Bytes>(3, every));
}

// A name bound again runs only its second handler. A handler's result is the whole reply; a
// proxy's handler may be dispatched without a reply parcel, and then runs and drops its result.
TEST(RpcCoreTest, SecondBindingRunsAndItsResultIsTheWholeReplyOrDroppedWithoutReplyParcel) {
    FakeImpl impl;
    FakeSender client;
    Proxy proxy(&client, "Track#1");
    impl.bind("getSourceId", [] { return 1LL; });
    impl.bind("getSourceId", [] { return 77LL; });
    int asked = 0;
    proxy.bind("getBuffer", [](int) -> AndroidBuffer { throw std::logic_error("replaced"); });
    proxy.bind("getBuffer", [&](int bytes) {
        asked = bytes;
        return AndroidBuffer(4, "abcd", true);
    });
    AndroidParcel request;
    AndroidParcel reply;
    ASSERT_TRUE(impl.dispatch("getSourceId", request, &reply));
    EXPECT_EQ(bytesOf(*reply.parcel()),
              expectedBytes([](android::Parcel& parcel) { parcel.writeInt64(77); }));
    request->writeInt32(12288);
    request->setDataPosition(0);
    EXPECT_TRUE(proxy.dispatch("getBuffer", request, nullptr));
    EXPECT_EQ(asked, 12288);
}

// What reading `args` back from their own image says, then from the image one byte short, then
// from it with one byte too many.
template <typename... Args>
std::vector<std::string> verdicts(const Args&... args) {
    AndroidParcel sent;
    (sent << ... << args);
    Bytes image = bytesOf(*sent.parcel());
    std::vector<std::string> said;
    for (size_t size : {image.size(), image.size() - 1, image.size() + 1}) {
        image.resize(size, 0);
        AndroidParcel request;
        request->setData(image.data(), size);
        std::tuple<Args...> values;
        try {
            unpack_exactly(request, values, "track request");
            AndroidParcel back;
            std::apply([&](const auto&... value) { (back << ... << value); }, values);
            said.push_back(bytesOf(*back.parcel()) == image ? "whole" : "changed");
        } catch (const std::runtime_error& error) {
            said.push_back(error.what());
        }
    }
    return said;
}

// A request is read once and checked once: one byte less or one byte more than its arguments is
// refused, whichever kind of value the last byte belongs to. A value that could not be read is
// left unread, so a cut usually shows as bytes left over; a text inside a record that lost only
// its padding is read to the end, and only the reading itself can tell.
TEST(RpcCoreTest, ArgumentsCutShortByOneByteOrFollowedByOneAreRefused) {
    const orv::Fingerprint padded("fp", "", "ab");     // the last byte is padding
    const orv::Fingerprint unpadded("fp", "", "abc");  // the last byte is the terminator
    const std::string text = "hi";
    const auto expect = [](const std::string& cut) {
        return std::vector<std::string>{"whole", "track request: " + cut,
                                        "track request: 1 bytes after the arguments"};
    };
    EXPECT_EQ(verdicts(text, 7, padded), expect("arguments cut short"));
    EXPECT_EQ(verdicts(text, 7, unpadded), expect("3 bytes after the arguments"));
    EXPECT_EQ(verdicts(padded, 7, text), expect("7 bytes after the arguments"));
    EXPECT_EQ(verdicts(padded, text, 7LL), expect("7 bytes after the arguments"));
}

}  // namespace
}  // namespace parlex
