#pragma once

#include <tern/foundation/api.h>

#include <cstdint>

namespace mwl::tern::Synchronizer {

/// Names a kind of notification. The values are the application's.
enum class NotificationIdentifier : std::int32_t {};

/// What a Subject passes to its observers. Derive from it to carry data; immutable here.
class TERN_API NotificationInterface {
public:
    explicit NotificationInterface(NotificationIdentifier identifier) : mIdentifier(identifier) {}
    virtual ~NotificationInterface() = default;
    NotificationInterface(const NotificationInterface&) = default;
    NotificationInterface& operator=(const NotificationInterface&) = default;

    NotificationIdentifier GetIdentifier() const { return mIdentifier; }

private:
    NotificationIdentifier mIdentifier;
};

}  // namespace mwl::tern::Synchronizer
