// The named-method RPC core without a transport. A fake client and a fake remote object record
// every parcel they are asked to send and answer at once, so these tests see exactly the bytes
// that would go on the wire, and drive the handler tables the way the transport does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <parlex/parlex.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "parlex/binder.h"

namespace parlex {
namespace {

using Bytes = std::vector<uint8_t>;

// Records what it sends and answers with `reply`, or with `failure` when one is set.
class FakeSender {
public:
    std::future<AndroidParcel> send(std::unique_ptr<AndroidParcel> parcel) {
        sent.push_back(std::move(parcel));
        std::promise<AndroidParcel> answer;
        if (failure) {
            answer.set_exception(failure);
        } else {
            answer.set_value(std::move(reply));
        }
        return answer.get_future();
    }

    std::vector<std::unique_ptr<AndroidParcel>> sent;
    AndroidParcel reply;
    std::exception_ptr failure;
};

class FakeClient : public FakeSender {};
using Proxy = ProxyBase<FakeClient, AndroidParcel>;

class FakeImpl : public ImplBase<FakeImpl, AndroidParcel>, public FakeSender {
public:
    explicit FakeImpl(std::string objectId) { objectId_ = std::move(objectId); }
    using FakeSender::send;
};

Bytes bytesOf(const AndroidParcel& parcel) {
    return Bytes(parcel->data(), parcel->data() + parcel->dataSize());
}

// The bytes a parcel holds after `write` fills it through the raw parcel interface.
Bytes expectedBytes(const std::function<void(android::Parcel&)>& write) {
    android::Parcel parcel;
    write(parcel);
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

// A request parcel as the transport hands it to a handler: positioned after the method name.
std::unique_ptr<AndroidParcel> requestAfterName(
    const std::function<void(android::Parcel&)>& write) {
    auto request = std::make_unique<AndroidParcel>();
    write(*request->parcel());
    request->parcel()->setDataPosition(0);
    return request;
}

TEST(RpcCoreTest, RootObjectIdentifierIsFixed) { EXPECT_EQ(kRootObjectId, "IRoot-0"); }

// call, event and callback build their parcels the same way; each must carry exactly the
// object identifier, the name and the arguments, with nothing before, between or after.
struct Sender {
    const char* name;
    std::function<Bytes(const std::string& objectId)> requestWithoutArguments;
    std::function<Bytes(const std::string& objectId)> requestWithEveryKind;
};

AndroidParcel sendEveryKind(
    const std::function<AndroidParcel(int, unsigned int, bool, long long, float, std::string,
                                      const char*, const char*)>& send) {
    return send(-7, 4000000000u, true, -(1LL << 40), 1.5f, std::string("a\0b", 3), "c", nullptr);
}

const Sender kSenders[] = {
    {"ProxyBase::call",
     [](const std::string& id) {
         FakeClient client;
         Proxy proxy(&client, id);
         proxy.call("play");
         return bytesOf(*client.sent.at(0));
     },
     [](const std::string& id) {
         FakeClient client;
         Proxy proxy(&client, id);
         sendEveryKind([&](auto... args) { return proxy.call("every", args...); });
         return bytesOf(*client.sent.at(0));
     }},
    {"ImplBase::event",
     [](const std::string& id) {
         FakeImpl impl(id);
         impl.event("play");
         return bytesOf(*impl.sent.at(0));
     },
     [](const std::string& id) {
         FakeImpl impl(id);
         sendEveryKind([&](auto... args) {
             impl.event("every", args...);
             return AndroidParcel();
         });
         return bytesOf(*impl.sent.at(0));
     }},
    {"ImplBase::callback",
     [](const std::string& id) {
         FakeImpl impl(id);
         impl.callback("play");
         return bytesOf(*impl.sent.at(0));
     },
     [](const std::string& id) {
         FakeImpl impl(id);
         sendEveryKind([&](auto... args) { return impl.callback("every", args...); });
         return bytesOf(*impl.sent.at(0));
     }},
};

TEST(RpcCoreTest, RequestWithoutArgumentsIsObjectIdentifierAndNameOnly) {
    const Bytes expected = expectedBytes([](android::Parcel& parcel) {
        parcel.writeString8("Track#3", 7);
        parcel.writeString8("play", 4);
    });
    for (const Sender& sender : kSenders) {
        SCOPED_TRACE(sender.name);
        EXPECT_EQ(sender.requestWithoutArguments("Track#3"), expected);
    }
}

TEST(RpcCoreTest, ArgumentsArePackedInDeclarationOrderWithTheirOwnEncodings) {
    const Bytes expected = expectedBytes([](android::Parcel& parcel) {
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
    for (const Sender& sender : kSenders) {
        SCOPED_TRACE(sender.name);
        EXPECT_EQ(sender.requestWithEveryKind("Track#3"), expected);
    }
}

TEST(RpcCoreTest, ReplyParcelAndTransportFailuresReachTheCaller) {
    FakeClient client;
    Proxy proxy(&client, "Track#1");
    client.reply->writeInt64(1234567890123LL);
    client.reply->setDataPosition(0);
    EXPECT_EQ(proxy.call("getSourceId").as<long long>(), 1234567890123LL);

    client.failure = std::make_exception_ptr(dead_object());
    EXPECT_THROW(proxy.call("play"), dead_object);

    FakeImpl impl("Track#1");
    impl.failure = std::make_exception_ptr(std::runtime_error("no handler"));
    EXPECT_THROW(impl.event("onPlaybackStarted", 5LL), std::runtime_error);
    EXPECT_THROW(impl.callback("getBuffer", 16), std::runtime_error);
}

TEST(RpcCoreTest, HandlerReadsArgumentsInDeclarationOrder) {
    FakeImpl impl("Track#1");
    std::string seen;
    impl.bind("every", [&](int i, unsigned int u, bool b, long long ll, float f, std::string s,
                           const char* c, const char* none) {
        seen = std::to_string(i) + "|" + std::to_string(u) + "|" + std::to_string(b) + "|" +
               std::to_string(ll) + "|" + std::to_string(f) + "|" + s + "|" + c + "|" +
               (none == nullptr ? "null" : "set");
    });
    auto request = requestAfterName([](android::Parcel& parcel) {
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
    AndroidParcel reply;
    ASSERT_TRUE(impl.dispatch("every", *request, &reply));
    EXPECT_EQ(seen,
              "-7|4000000000|1|-1099511627776|1.500000|" + std::string("a\0b", 3) + "|c|null");
    EXPECT_EQ(reply->dataSize(), 0u) << "a handler without result must leave the reply empty";
}

TEST(RpcCoreTest, ImplHandlerWritesItsResultAsTheWholeReply) {
    FakeImpl impl("Track#1");
    impl.bind("getSourceId", [] { return 77LL; });
    AndroidParcel request;
    AndroidParcel reply;
    ASSERT_TRUE(impl.dispatch("getSourceId", request, &reply));
    EXPECT_EQ(bytesOf(reply),
              expectedBytes([](android::Parcel& parcel) { parcel.writeInt64(77); }));
}

TEST(RpcCoreTest, BindingANameAgainLeavesTheSecondHandlerInForce) {
    FakeClient client;
    Proxy proxy(&client, "Track#1");
    FakeImpl impl("Track#1");
    std::vector<std::string> ran;
    proxy.bind("onPlaybackStopped", [&] { ran.push_back("proxy first"); });
    proxy.bind("onPlaybackStopped", [&] { ran.push_back("proxy second"); });
    impl.bind("stop", [&] { ran.push_back("impl first"); });
    impl.bind("stop", [&] { ran.push_back("impl second"); });

    AndroidParcel request;
    AndroidParcel reply;
    EXPECT_TRUE(proxy.dispatch("onPlaybackStopped", request, &reply));
    EXPECT_TRUE(impl.dispatch("stop", request, &reply));
    EXPECT_EQ(ran, (std::vector<std::string>{"proxy second", "impl second"}));
}

TEST(RpcCoreTest, ProxyHandlerWithResultRunsAndDropsItWithoutReplyParcel) {
    FakeClient client;
    Proxy proxy(&client, "Track#1");
    int asked = 0;
    proxy.bind("getBuffer", [&](int bytes) {
        asked = bytes;
        return AndroidBuffer(4, "abcd", true);
    });
    auto request = requestAfterName([](android::Parcel& parcel) { parcel.writeInt32(12288); });
    EXPECT_TRUE(proxy.dispatch("getBuffer", *request, nullptr));
    EXPECT_EQ(asked, 12288);
}

// The transport turns `false` into the error reply for a method nobody bound.
TEST(RpcCoreTest, DispatchOfAnUnboundNameReportsItWithoutRunningAnything) {
    FakeClient client;
    Proxy proxy(&client, "Track#1");
    FakeImpl impl("Track#1");
    bool ran = false;
    proxy.bind("death", [&] { ran = true; });
    impl.bind("play", [&] {
        ran = true;
        return 1;
    });
    AndroidParcel request;
    AndroidParcel reply;
    EXPECT_FALSE(proxy.dispatch("reportMetric", request, &reply));
    EXPECT_FALSE(impl.dispatch("onReportMetric", request, &reply));
    EXPECT_FALSE(ran);
    EXPECT_EQ(reply->dataSize(), 0u);
}

}  // namespace
}  // namespace parlex
