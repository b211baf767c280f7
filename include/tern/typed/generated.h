#pragma once

/// Used by headers that tern-dbus-codegen generates, so that a header of another version is noticed instead
/// of being misunderstood. Applications do not need it.

namespace mwl::Typed {

/// Whether headers of this format of tern-dbus-codegen fit this library.
constexpr bool IsFormatOfGenerator(int format) {
    return format == 1;
}

}  // namespace mwl::Typed
