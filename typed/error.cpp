#include <tern/typed/error.h>

#include <tern/typed/basic.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>

#include "foundation/error_text.h"

namespace mwl::Typed {

namespace {

constexpr std::string_view STATUS_PREFIX = "mwl.StatusCode.";
constexpr std::string_view NUMBER_PREFIX = "Number";  // of a status outside the list
constexpr std::string_view SYSTEM_PREFIX = "System.Error.";

/// A reply that sd-bus itself makes, in place of one that did not come, has this number and the message bus
/// for its sender.
constexpr std::uint64_t COOKIE_OF_SD_BUS = 0xFFFFFFFF;

constexpr std::array STATUSES{StatusCode::Ok,           StatusCode::Failure,
                              StatusCode::AccessDenied, StatusCode::StreamError,
                              StatusCode::Busy,         StatusCode::Stopping,
                              StatusCode::Deadlock,     StatusCode::AlreadyExists,
                              StatusCode::Interrupted,  StatusCode::InvalidArgument,
                              StatusCode::IoError,      StatusCode::KeyNotFound,
                              StatusCode::NotFound,     StatusCode::ResourceUnavailable,
                              StatusCode::OutOfMemory,  StatusCode::OpenFailed,
                              StatusCode::NotSupported, StatusCode::NotInitialized,
                              StatusCode::NotPermitted, StatusCode::Timeout};

struct NamedStatus {
    std::string_view name;
    StatusCode status;
};

/// The meaning of other services' errors here.
constexpr std::array NAMED{
    NamedStatus{SD_BUS_ERROR_ACCESS_DENIED, StatusCode::AccessDenied},
    NamedStatus{SD_BUS_ERROR_AUTH_FAILED, StatusCode::AccessDenied},
    NamedStatus{SD_BUS_ERROR_INTERACTIVE_AUTHORIZATION_REQUIRED, StatusCode::AccessDenied},
    NamedStatus{SD_BUS_ERROR_INVALID_ARGS, StatusCode::InvalidArgument},
    NamedStatus{SD_BUS_ERROR_INVALID_SIGNATURE, StatusCode::InvalidArgument},
    NamedStatus{SD_BUS_ERROR_INCONSISTENT_MESSAGE, StatusCode::InvalidArgument},
    NamedStatus{SD_BUS_ERROR_BAD_ADDRESS, StatusCode::InvalidArgument},
    NamedStatus{SD_BUS_ERROR_MATCH_RULE_INVALID, StatusCode::InvalidArgument},
    NamedStatus{SD_BUS_ERROR_NOT_SUPPORTED, StatusCode::NotSupported},
    NamedStatus{SD_BUS_ERROR_UNKNOWN_METHOD, StatusCode::NotSupported},
    NamedStatus{SD_BUS_ERROR_UNKNOWN_INTERFACE, StatusCode::NotSupported},
    NamedStatus{SD_BUS_ERROR_UNKNOWN_PROPERTY, StatusCode::NotSupported},
    NamedStatus{SD_BUS_ERROR_PROPERTY_READ_ONLY, StatusCode::NotPermitted},
    NamedStatus{SD_BUS_ERROR_NO_MEMORY, StatusCode::OutOfMemory},
    NamedStatus{SD_BUS_ERROR_TIMEOUT, StatusCode::Timeout},
    NamedStatus{"org.freedesktop.DBus.Error.TimedOut", StatusCode::Timeout},
    NamedStatus{SD_BUS_ERROR_LIMITS_EXCEEDED, StatusCode::ResourceUnavailable},
    NamedStatus{SD_BUS_ERROR_SERVICE_UNKNOWN, StatusCode::NotFound},
    NamedStatus{SD_BUS_ERROR_NAME_HAS_NO_OWNER, StatusCode::NotFound},
    NamedStatus{SD_BUS_ERROR_UNKNOWN_OBJECT, StatusCode::NotFound},
    NamedStatus{SD_BUS_ERROR_FILE_NOT_FOUND, StatusCode::NotFound},
    NamedStatus{SD_BUS_ERROR_MATCH_RULE_NOT_FOUND, StatusCode::NotFound},
    NamedStatus{SD_BUS_ERROR_FILE_EXISTS, StatusCode::AlreadyExists},
    NamedStatus{SD_BUS_ERROR_ADDRESS_IN_USE, StatusCode::AlreadyExists},
    NamedStatus{"org.freedesktop.DBus.Error.ObjectPathInUse", StatusCode::AlreadyExists},
    NamedStatus{SD_BUS_ERROR_IO_ERROR, StatusCode::IoError},
    NamedStatus{SD_BUS_ERROR_DISCONNECTED, StatusCode::IoError},
    NamedStatus{SD_BUS_ERROR_NO_SERVER, StatusCode::IoError},
    NamedStatus{SD_BUS_ERROR_NO_NETWORK, StatusCode::IoError}};

std::string NameOf(StatusCode status) {
    switch (status) {
        case StatusCode::AccessDenied:
        case StatusCode::NotPermitted:
            return SD_BUS_ERROR_ACCESS_DENIED;
        case StatusCode::InvalidArgument:
            return SD_BUS_ERROR_INVALID_ARGS;
        case StatusCode::NotSupported:
            return SD_BUS_ERROR_NOT_SUPPORTED;
        case StatusCode::OutOfMemory:
            return SD_BUS_ERROR_NO_MEMORY;
        case StatusCode::Timeout:
            return SD_BUS_ERROR_TIMEOUT;
        case StatusCode::ResourceUnavailable:
            return SD_BUS_ERROR_LIMITS_EXCEEDED;
        default:
            break;
    }
    std::string name(STATUS_PREFIX);
    for (const StatusCode known : STATUSES) {
        if (known == status) {
            return name.append(mw::tern::ConvertStatusCodeToString(status));
        }
    }
    return name.append(NUMBER_PREFIX).append(std::to_string(static_cast<unsigned int>(status)));
}

/// The status whose own error is called STATUS_PREFIX and `name`. No error is Ok.
StatusCode StatusOf(std::string_view name) {
    for (const StatusCode known : STATUSES) {
        if (known != StatusCode::Ok && mw::tern::ConvertStatusCodeToString(known) == name) {
            return known;
        }
    }
    unsigned int number = 0;
    if (name.starts_with(NUMBER_PREFIX)) {
        name.remove_prefix(NUMBER_PREFIX.size());
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
        if (error == std::errc() && end == name.data() + name.size() && number != StatusCode::Ok) {
            return static_cast<StatusCode>(number);
        }
    }
    return StatusCode::Failure;
}

/// How many bytes the character at the beginning of `text` takes; 0 when it is none that can be sent.
std::size_t CharacterSize(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t size = first < 0xC0 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    return IsText(text.substr(0, size)) ? size : 0;
}

std::string MakeFit(std::string_view text) {
    if (IsText(text)) {
        return std::string(text);
    }
    std::string fit;
    fit.reserve(text.size());
    while (!text.empty()) {
        const std::size_t size = CharacterSize(text);
        size == 0 ? fit.append(1, '?') : fit.append(text.substr(0, size));
        text.remove_prefix(size == 0 ? 1 : size);
    }
    return fit;
}

StatusCode NotOk(StatusCode status) {
    return status == StatusCode::Ok ? StatusCode::Failure : status;
}

}  // namespace

Error::Error(std::string name, std::string_view text) : mName(std::move(name)), mText(MakeFit(text)) {
    // Error names follow the rules of interface names. One with a NUL inside would be cut on its way.
    if (mName.find('\0') != std::string::npos || sd_bus_interface_name_is_valid(mName.c_str()) <= 0) {
        mText.insert(0, ": ").insert(0, MakeFit(mName));
        mName = SD_BUS_ERROR_FAILED;
    }
}

Error::Error(StatusCode status) : Error(status, mw::tern::ConvertStatusCodeToString(NotOk(status))) {}
Error::Error(StatusCode status, std::string_view text) : Error(NameOf(NotOk(status)), text) {}

Error Error::InvalidArgs(std::string_view text) {
    return {SD_BUS_ERROR_INVALID_ARGS, text};
}
Error Error::AccessDenied(std::string_view text) {
    return {SD_BUS_ERROR_ACCESS_DENIED, text};
}
Error Error::NotSupported(std::string_view text) {
    return {SD_BUS_ERROR_NOT_SUPPORTED, text};
}
Error Error::NoMemory(std::string_view text) {
    return {SD_BUS_ERROR_NO_MEMORY, text};
}
Error Error::Timeout(std::string_view text) {
    return {SD_BUS_ERROR_TIMEOUT, text};
}
Error Error::LimitsExceeded(std::string_view text) {
    return {SD_BUS_ERROR_LIMITS_EXCEEDED, text};
}
Error Error::Failed(std::string_view text) {
    return {SD_BUS_ERROR_FAILED, text};
}
Error Error::NoReply(std::string_view text) {
    return {SD_BUS_ERROR_NO_REPLY, text};
}
Error Error::WrongReply(std::string_view text) {
    return {"mwl.Typed.Error.WrongReply", text};
}

Error Error::FromReply(sd_bus_message* reply) {
    const sd_bus_error* const error = sd_bus_message_get_error(reply);
    if (error == nullptr || error->name == nullptr) {
        return Failed("the reply is no error");
    }
    Error made(error->name, error->message != nullptr ? error->message : "");
    std::uint64_t cookie = 0;
    if (sd_bus_message_get_cookie(reply, &cookie) >= 0 && cookie == COOKIE_OF_SD_BUS) {
        const bool isOpen = sd_bus_is_open(sd_bus_message_get_bus(reply)) > 0;
        made.mNoReply = isOpen ? StatusCode::Timeout : StatusCode::IoError;
    }
    return made;
}

Error Error::FromBus(const sd_bus_error& error, int returned) {
    if (error.name == nullptr) {
        return {returned < 0 ? mw::tern::MakeStatusCodeFromReturnCode(returned) : StatusCode::Failure,
                ErrorText(returned < 0 ? -returned : EIO)};
    }
    Error made(error.name, error.message != nullptr ? error.message : "");
    if (returned == -ETIMEDOUT) {
        made.mNoReply = StatusCode::Timeout;
    }
    return made;
}

StatusCode Error::GetStatus() const {
    const std::string_view name = mName;
    if (name.starts_with(STATUS_PREFIX)) {
        return StatusOf(name.substr(STATUS_PREFIX.size()));
    }
    if (name == SD_BUS_ERROR_NO_REPLY) {
        return mNoReply;
    }
    for (const NamedStatus& known : NAMED) {
        if (known.name == name) {
            return known.status;
        }
    }
    if (name.starts_with(SYSTEM_PREFIX)) {
        const sd_bus_error error{mName.c_str(), nullptr, 0};
        return mw::tern::MakeStatusCodeFromErrno(sd_bus_error_get_errno(&error));
    }
    return StatusCode::Failure;
}

}  // namespace mwl::Typed
