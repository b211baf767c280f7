#pragma once

/// An object of another service for programs that wait and learn its interfaces while they run:
/// `BlockingUntypedProxy`.

#include <tern/foundation/api.h>
#include <tern/typed/any.h>
#include <tern/typed/blocking_bus.h>
#include <tern/typed/error.h>
#include <tern/typed/introspection_model.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace mwl::Typed {

/// The UntypedProxy of command-line tools, main programs and workers: each operation waits for its answer.
/// Its operations, with their arguments and errors, are those of UntypedProxy; its connection, threads and
/// limits are those of BlockingProxy.
///
///     const BlockingUntypedProxy room("com.example.Thermostat", "/com/example/Thermostat");
///     const Outcome<Introspection::Node> what = room.Introspect();
///
/// Nothing but std::bad_alloc is thrown.
class TERN_API BlockingUntypedProxy {
public:
    /// On the system bus, with a connection of its own, which the first call makes.
    BlockingUntypedProxy(std::string destination, std::string path);
    /// On another bus, or with a connection that others use too. REQUIRES: not null.
    BlockingUntypedProxy(std::shared_ptr<BlockingBus> bus, std::string destination, std::string path);

    /// As UntypedProxy::Call.
    Outcome<std::vector<Any>> Call(const std::string& interface, const std::string& member,
                                   std::string_view signature, const std::vector<Any>& arguments = {}) const;
    /// As UntypedProxy::Get.
    Outcome<Any> Get(const std::string& interface, const std::string& property) const;
    /// As UntypedProxy::GetAll.
    Outcome<std::map<std::string, Any>> GetAll(const std::string& interface) const;
    /// As UntypedProxy::Set.
    Outcome<void> Set(const std::string& interface, const std::string& property, const Any& value) const;
    /// As UntypedProxy::Introspect.
    Outcome<Introspection::Node> Introspect() const;

    /// The same with another limit for each of its operations; initially Remote::TIMEOUT, 5 s. 0 or less
    /// counts as the shortest time there is, Remote::NO_LIMIT as none.
    [[nodiscard]] BlockingUntypedProxy Within(std::chrono::milliseconds limit) const;
    /// The limit of this one's operations from now on.
    void SetTimeout(std::chrono::milliseconds limit) noexcept { mLimit = limit; }
    /// Its connection.
    const std::shared_ptr<BlockingBus>& GetBus() const noexcept { return mBus; }

private:
    Outcome<Detail::OwnedMessage> Ask(const char* interface, const char* member,
                                      const Detail::ArgumentsWriter& write) const;

    std::shared_ptr<BlockingBus> mBus;
    std::string mDestination;
    std::string mPath;
    std::chrono::milliseconds mLimit = Remote::TIMEOUT;
};

}  // namespace mwl::Typed
