#include <tern/typed/blocking_untyped_proxy.h>

#include <tern/typed/decode.h>

#include <optional>
#include <utility>

#include "typed/untyped_calls.h"

namespace mwl::Typed {

namespace {

template <class R>
Outcome<R> Finish(const Outcome<Detail::OwnedMessage>& reply,
                  Outcome<R> (*decoder)(sd_bus_message* reply, const Remote* remote) = &Decode<R>) {
    return reply.IsOk() ? decoder(reply->get(), nullptr) : Outcome<R>(reply.GetError());
}

}  // namespace

BlockingUntypedProxy::BlockingUntypedProxy(std::string destination, std::string path)
    : BlockingUntypedProxy(std::make_shared<BlockingBus>(), std::move(destination), std::move(path)) {}

BlockingUntypedProxy::BlockingUntypedProxy(std::shared_ptr<BlockingBus> bus, std::string destination,
                                           std::string path)
    : mBus(std::move(bus)), mDestination(std::move(destination)), mPath(std::move(path)) {}

Outcome<Detail::OwnedMessage> BlockingUntypedProxy::Ask(const char* interface, const char* member,
                                                        const Detail::ArgumentsWriter& write) const {
    return mBus->Ask({mDestination.c_str(), mPath.c_str(), interface, member, mLimit}, write);
}

Outcome<std::vector<Any>> BlockingUntypedProxy::Call(const std::string& interface, const std::string& member,
                                                     std::string_view signature,
                                                     const std::vector<Any>& arguments) const {
    if (std::optional<Error> wrong = FindWrongCall(interface, member, signature, arguments)) {
        return *std::move(wrong);
    }
    return Finish<std::vector<Any>>(Ask(interface.c_str(), member.c_str(),
                                        [&](sd_bus_message* message, unsigned& index) {
                                            return WriteArguments(message, index, signature, arguments);
                                        }),
                                    &DecodeAnyEach);
}

Outcome<Any> BlockingUntypedProxy::Get(const std::string& interface, const std::string& property) const {
    if (std::optional<Error> wrong = FindWrongGet(interface, property)) {
        return *std::move(wrong);
    }
    return Finish<Any>(Ask(PROPERTIES_INTERFACE, "Get", [&](sd_bus_message* message, unsigned& index) {
        return WriteGet(message, index, interface, property);
    }));
}

Outcome<std::map<std::string, Any>> BlockingUntypedProxy::GetAll(const std::string& interface) const {
    if (std::optional<Error> wrong = FindWrongGetAll(interface)) {
        return *std::move(wrong);
    }
    return Finish<std::map<std::string, Any>>(Ask(
        PROPERTIES_INTERFACE, "GetAll",
        [&](sd_bus_message* message, unsigned&) { return Codec<std::string>::Write(message, interface); }));
}

Outcome<void> BlockingUntypedProxy::Set(const std::string& interface, const std::string& property,
                                        const Any& value) const {
    if (std::optional<Error> wrong = FindWrongSet(interface, property, value)) {
        return *std::move(wrong);
    }
    return Finish<void>(Ask(PROPERTIES_INTERFACE, "Set", [&](sd_bus_message* message, unsigned& index) {
        return WriteSet(message, index, interface, property, value);
    }));
}

Outcome<Introspection::Node> BlockingUntypedProxy::Introspect() const {
    return Finish<Introspection::Node>(
        Ask(INTROSPECTABLE_INTERFACE, "Introspect", [](sd_bus_message*, unsigned&) { return 0; }),
        &DecodeIntrospection);
}

BlockingUntypedProxy BlockingUntypedProxy::Within(std::chrono::milliseconds limit) const {
    BlockingUntypedProxy other(*this);
    other.SetTimeout(limit);
    return other;
}

}  // namespace mwl::Typed
