#include <tern/typed/untyped_proxy.h>

#include <cerrno>
#include <new>
#include <optional>
#include <utility>

#include "typed/untyped_calls.h"

namespace mwl::Typed {

namespace {

/// Takes whatever values a signal has.
class AnySignal final : public Detail::SignalHandler {
public:
    explicit AnySignal(std::function<void(const std::vector<Any>& values)> handler)
        : mHandler(std::move(handler)) {}

    int Run(sd_bus_message* signal) override {
        std::vector<Any> values;
        if (const int r = Read(signal, values); r < 0) {
            return r;
        }
        mHandler(values);
        return 0;
    }

private:
    static int Read(sd_bus_message* signal, std::vector<Any>& values) try {
        Fault fault;
        unsigned index = 0;
        return ReadAnyEach(signal, values, fault, index);
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }

    const std::function<void(const std::vector<Any>& values)> mHandler;
};

/// A call with its arguments, or with the reason why it is none. `write` returns what sd-bus does.
template <class R, typename Write>
Call<R> Make(const std::shared_ptr<Remote>& remote, const char* interface, const char* member,
             std::optional<Error> wrong, Write write, typename Call<R>::Decoder decoder = &Decode<R>) {
    Call<R> call(remote, interface, member, decoder);
    if (wrong) {
        call.Refuse(*std::move(wrong));
    } else if (sd_bus_message* const message = call.GetMessage()) {
        unsigned index = 0;
        if (const int r = write(message, index); r < 0) {
            call.RefuseArgument(index, nullptr, r);
        }
    }
    return call;
}

}  // namespace

UntypedProxy::UntypedProxy(const Bus& bus, std::string destination, std::string path)
    : mRemote(std::make_shared<Remote>(bus, std::move(destination), std::move(path))) {}

UntypedProxy::UntypedProxy(std::shared_ptr<Remote> remote) noexcept : mRemote(std::move(remote)) {}

Call<std::vector<Any>> UntypedProxy::Call(const std::string& interface, const std::string& member,
                                          std::string_view signature,
                                          const std::vector<Any>& arguments) const {
    return Make<std::vector<Any>>(
        mRemote, interface.c_str(), member.c_str(), FindWrongCall(interface, member, signature, arguments),
        [&](sd_bus_message* message, unsigned& index) {
            return WriteArguments(message, index, signature, arguments);
        },
        &DecodeAnyEach);
}

Call<Any> UntypedProxy::Get(const std::string& interface, const std::string& property) const {
    return Make<Any>(mRemote, PROPERTIES_INTERFACE, "Get", FindWrongGet(interface, property),
                     [&](sd_bus_message* message, unsigned& index) {
                         return WriteGet(message, index, interface, property);
                     });
}

Call<std::map<std::string, Any>> UntypedProxy::GetAll(const std::string& interface) const {
    return Make<std::map<std::string, Any>>(
        mRemote, PROPERTIES_INTERFACE, "GetAll", FindWrongGetAll(interface),
        [&](sd_bus_message* message, unsigned&) { return Codec<std::string>::Write(message, interface); });
}

Call<void> UntypedProxy::Set(const std::string& interface, const std::string& property,
                             const Any& value) const {
    return Make<void>(mRemote, PROPERTIES_INTERFACE, "Set", FindWrongSet(interface, property, value),
                      [&](sd_bus_message* message, unsigned& index) {
                          return WriteSet(message, index, interface, property, value);
                      });
}

Call<Introspection::Node> UntypedProxy::Introspect() const {
    return Make<Introspection::Node>(
        mRemote, INTROSPECTABLE_INTERFACE, "Introspect", std::nullopt,
        [](sd_bus_message*, unsigned&) { return 0; }, &DecodeIntrospection);
}

Subscription UntypedProxy::On(const std::string& interface, const std::string& signal,
                              std::function<void(const std::vector<Any>& values)> handler) const {
    return Subscribe(*mRemote, interface.c_str(), signal.c_str(), nullptr,
                     std::make_unique<AnySignal>(std::move(handler)));
}

}  // namespace mwl::Typed
