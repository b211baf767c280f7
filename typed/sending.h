#pragma once

#include <tern/typed/error.h>
#include <tern/typed/fault.h>

#include <optional>

namespace mwl::Typed {

/// A failure of sd-bus with a message or a connection, a negative error number.
StatusCode StatusOfSending(int error) noexcept;
/// The call could not be sent; `error` says why.
Error ErrorOfSending(int error);
/// The argument number `index`, beginning with 0, could not be written. `name` may be null.
Error ErrorOfArgument(int error, const char* name, unsigned index, const Fault& fault);
/// Which of the names cannot be one; null is not looked at.
std::optional<Error> FindWrongName(const char* destination, const char* path, const char* interface,
                                   const char* member);
/// The message of a call could not be created.
Error ErrorOfMessage(int error, const char* destination, const char* path, const char* interface,
                     const char* member);

}  // namespace mwl::Typed
