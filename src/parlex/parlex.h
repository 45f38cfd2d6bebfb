// The named-method RPC core: a proxy in one process and a remote object in another exchange
// parcels that name the target object and a method by strings, followed by the method's
// arguments in declaration order:
//
//   String8 object identifier | String8 method name | argument 0 | argument 1 | ...
//
// A reply carries only the handler's result (nothing for a handler without result). Each side
// keeps a table of handlers by method name; the transport (parlex/binder.h) routes an incoming
// parcel to the object it names and calls dispatch() with the parcel positioned after the
// method name.
#pragma once

#include <cstddef>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "parlex/AndroidParcel.h"

namespace parlex {

// The identifier of a service's root object. No message of the track protocol carries it.
inline const std::string kRootObjectId = "IRoot-0";

template <typename Parcel>
using Handler = std::function<void(const Parcel& request, Parcel* reply)>;
template <typename Parcel>
using HandlerTable = std::map<std::string, Handler<Parcel>>;

// Result and plain argument types of a callable: a lambda, a std::function or a function pointer.
template <typename F>
struct func_traits : func_traits<decltype(&F::operator())> {};
template <typename R, typename... A>
struct func_traits<R (*)(A...)> {
    using result = R;
    using args = std::tuple<std::decay_t<A>...>;
};
template <typename C, typename R, typename... A>
struct func_traits<R (C::*)(A...)> : func_traits<R (*)(A...)> {};
template <typename C, typename R, typename... A>
struct func_traits<R (C::*)(A...) const> : func_traits<R (*)(A...)> {};

namespace detail {
template <typename Parcel, typename T, typename = void>
struct is_writable : std::false_type {};
template <typename Parcel, typename T>
struct is_writable<Parcel, T,
                   std::void_t<decltype(std::declval<Parcel&>() << std::declval<const T&>())>>
    : std::true_type {};

template <typename Parcel, typename T, typename = void>
struct is_readable : std::false_type {};
template <typename Parcel, typename T>
struct is_readable<Parcel, T,
                   std::void_t<decltype(std::declval<const Parcel&>() >> std::declval<T&>())>>
    : std::true_type {};

template <typename Parcel, typename T>
void writeArgument(Parcel& parcel, const T& value) {
    static_assert(is_writable<Parcel, T>::value,
                  "no parcel encoding for this argument type: add a codec or convert the "
                  "argument to one of the protocol's types");
    parcel << value;
}

template <typename Parcel, typename T>
void readArgument(const Parcel& parcel, T& value) {
    static_assert(is_readable<Parcel, T>::value,
                  "no parcel decoding for this handler parameter type");
    parcel >> value;
}
}  // namespace detail

// Writes the method name, then each argument in declaration order.
template <typename Parcel, typename... Args>
void pack_impl(Parcel& parcel, const std::string& name, const Args&... args) {
    parcel.write(name);
    (detail::writeArgument(parcel, args), ...);
}

// Reads the tuple's elements in order, element 0 first.
template <typename Parcel, typename Tuple, size_t... I>
void unpack_impl(const Parcel& parcel, Tuple& values, std::index_sequence<I...>) {
    (detail::readArgument(parcel, std::get<I>(values)), ...);
}

// Reads `values` from `request`, once, and refuses a request whose arguments do not fill it
// exactly: throws std::runtime_error "<what>: arguments cut short" when a read ran past the end,
// or "<what>: N bytes after the arguments" when bytes remain.
template <typename Parcel, typename Tuple>
void unpack_exactly(const Parcel& request, Tuple& values, const char* what) {
    unpack_impl(request, values, std::make_index_sequence<std::tuple_size<Tuple>::value>{});
    if (const size_t left = request->dataAvail(); left != 0) {
        throw std::runtime_error(std::string(what) + ": " + std::to_string(left) +
                                 " bytes after the arguments");
    }
    if (request.overrun()) throw std::runtime_error(std::string(what) + ": arguments cut short");
}

template <typename F, typename Tuple, size_t... I>
typename func_traits<F>::result call_impl(F& f, Tuple& values, std::index_sequence<I...>) {
    return f(std::move(std::get<I>(values))...);
}

// Calls `f` with the elements of `values`, which are moved into parameters taken by value.
template <typename F, typename Tuple>
typename func_traits<F>::result call(F& f, Tuple& values) {
    return call_impl(f, values, std::make_index_sequence<std::tuple_size<Tuple>::value>{});
}

namespace detail {
// Wraps `f` into a handler that unpacks its arguments, calls it and, when `WithResult`, writes
// its result into the reply. `CheckReply` drops the result when there is no reply parcel.
template <typename Parcel, int WithResult, bool CheckReply, typename F>
Handler<Parcel> makeHandler(F f) {
    using Traits = func_traits<F>;
    using Args = typename Traits::args;
    static_assert(WithResult == 0 || !std::is_void<typename Traits::result>::value,
                  "a handler bound with result must return a value");
    return [f = std::move(f)](const Parcel& request, Parcel* reply) mutable {
        Args values{};
        unpack_impl(request, values, std::make_index_sequence<std::tuple_size<Args>::value>{});
        if constexpr (WithResult != 0) {
            auto result = call(f, values);
            if constexpr (CheckReply) {
                if (reply == nullptr) return;
            }
            writeArgument(*reply, result);
        } else {
            call(f, values);
        }
    };
}

template <typename F>
constexpr int hasResult() {
    return std::is_void<typename func_traits<F>::result>::value ? 0 : 1;
}

template <typename Parcel>
bool dispatchTo(const HandlerTable<Parcel>& handlers, const std::string& name,
                const Parcel& request, Parcel* reply) {
    auto it = handlers.find(name);
    if (it == handlers.end()) return false;
    it->second(request, reply);
    return true;
}
}  // namespace detail

// The proxy side: sends requests to its remote object and receives the object's events and
// callbacks through its handler table.
template <typename Client, typename Parcel>
class ProxyBase {
public:
    ProxyBase(Client* client, std::string objectId)
        : client_(client), objectId_(std::move(objectId)) {}

    Client* client() const { return client_; }
    const std::string& objectId() const { return objectId_; }

    // Sends `name` with `args` and blocks until the reply arrives; rethrows whatever the
    // transport stored instead of a reply (a dead peer, an error the remote handler raised).
    // The arguments are written straight from the caller's values, never copied.
    template <typename... Args>
    Parcel call(const std::string& name, const Args&... args) {
        auto parcel = std::make_unique<Parcel>();
        parcel->write(objectId_);
        pack_impl(*parcel, name, args...);
        std::future<Parcel> reply = client_->send(std::move(parcel));
        return reply.get();
    }

    // Binds `f` under `name`; binding a name again replaces the earlier handler. R is 1 for a
    // handler whose result goes into the reply, 0 for one without result.
    template <typename F, int R = detail::hasResult<F>()>
    void bind(const std::string& name, F f) {
        bindParcels(name, detail::makeHandler<Parcel, R, true>(std::move(f)));
    }

    // Binds a handler that reads its request and writes its reply (which may be null) itself:
    // for a method whose reply is built where it lies.
    void bindParcels(const std::string& name, Handler<Parcel> handler) {
        std::lock_guard<std::mutex> lock(handlersMutex_);
        handlers_[name] = std::move(handler);
    }

    // Called by the transport; false when nothing is bound under `name`. The proxy is reachable
    // from the transport as soon as its base is built, while the derived class may still be
    // binding its handlers, so the lookup is guarded and the handler runs on a copy.
    bool dispatch(const std::string& name, const Parcel& request, Parcel* reply) const {
        Handler<Parcel> handler;
        {
            std::lock_guard<std::mutex> lock(handlersMutex_);
            auto it = handlers_.find(name);
            if (it == handlers_.end()) return false;
            handler = it->second;
        }
        handler(request, reply);
        return true;
    }

private:
    Client* client_;
    std::string objectId_;
    mutable std::mutex handlersMutex_;  // guards: handlers_
    HandlerTable<Parcel> handlers_;
};

// The remote-object side: receives requests through its handler table and sends events and
// callbacks to the proxy that owns it. `Impl` provides send(std::unique_ptr<Parcel>).
template <typename Impl, typename Parcel>
class ImplBase {
public:
    ImplBase() = default;

    const std::string& objectId() const { return objectId_; }

    // Sends an event and returns once the peer has handled it.
    template <typename... Args>
    void event(const std::string& name, const Args&... args) {
        transmit(name, args...).get();
    }

    // Sends an event and returns at once; the future's get() waits until the peer has handled
    // it, and throws what event() would have thrown.
    template <typename... Args>
    std::future<Parcel> post(const std::string& name, const Args&... args) {
        return transmit(name, args...);
    }

    // Sends a callback and returns the peer's reply.
    template <typename... Args>
    Parcel callback(const std::string& name, const Args&... args) {
        return transmit(name, args...).get();
    }

    // As ProxyBase::bind. The transport always hands these handlers a reply parcel. An object
    // becomes reachable only once its factory has returned it, so its table needs no guard.
    template <typename F, int R = detail::hasResult<F>()>
    void bind(const std::string& name, F f) {
        handlers_[name] = detail::makeHandler<Parcel, R, false>(std::move(f));
    }

    bool dispatch(const std::string& name, const Parcel& request, Parcel* reply) const {
        return detail::dispatchTo(handlers_, name, request, reply);
    }

protected:
    std::string objectId_;

private:
    template <typename... Args>
    std::future<Parcel> transmit(const std::string& name, const Args&... args) {
        auto parcel = std::make_unique<Parcel>();
        parcel->write(objectId_);
        pack_impl(*parcel, name, args...);
        return static_cast<Impl*>(this)->send(std::move(parcel));
    }

    HandlerTable<Parcel> handlers_;
};

// The service side: the table of object factories by type name.
template <typename Server, typename Impl, typename Parcel>
class ServerBase {
public:
    using Factory = std::function<std::shared_ptr<Impl>()>;

    // Registers `factory` for objects of `type`, replacing an earlier registration.
    void registerFactory(const std::string& type, Factory factory) {
        std::lock_guard<std::mutex> lock(factoriesMutex_);
        factories_[type] = std::move(factory);
    }

    // A new object of `type`; empty when no factory is registered or the factory made none.
    std::shared_ptr<Impl> createObject(const std::string& type) {
        Factory factory;
        {
            std::lock_guard<std::mutex> lock(factoriesMutex_);
            auto it = factories_.find(type);
            if (it == factories_.end()) return nullptr;
            factory = it->second;
        }
        return factory ? factory() : nullptr;
    }

private:
    std::mutex factoriesMutex_;  // guards: factories_
    std::map<std::string, Factory> factories_;
};

}  // namespace parlex
