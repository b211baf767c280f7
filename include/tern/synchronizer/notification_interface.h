#pragma once

#include <tern/foundation/api.h>

#include <cstdint>

namespace mwl::tern::Synchronizer {

/// Names a kind of notification. The values are the application's.
enum class NotificationIdentifier : std::int32_t {};

/// The object that a Subject passes to its observers. Derive from it to carry data. Its kind changes only
/// when another notification is assigned to it.
class TERN_API NotificationInterface {
public:
    /// Of this kind.
    explicit NotificationInterface(NotificationIdentifier identifier) : mIdentifier(identifier) {}
    virtual ~NotificationInterface() = default;
    /// Of the same kind.
    NotificationInterface(const NotificationInterface&) = default;
    /// Becomes of the other kind.
    NotificationInterface& operator=(const NotificationInterface&) = default;

    /// The kind.
    NotificationIdentifier GetIdentifier() const { return mIdentifier; }

private:
    NotificationIdentifier mIdentifier;
};

}  // namespace mwl::tern::Synchronizer
