#include "typed/sending.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <string>

#include "foundation/error_text.h"

namespace mwl::Typed {

StatusCode StatusOfSending(int error) noexcept {
    switch (-error) {
        case ENOTCONN:
        case ECONNRESET:
        case ESHUTDOWN:
            return StatusCode::IoError;
        case ENOBUFS:
            return StatusCode::ResourceUnavailable;
        default:
            return mw::tern::MakeStatusCodeFromReturnCode(error);
    }
}

Error ErrorOfSending(int error) {
    return {StatusOfSending(error), std::string("the call cannot be sent: ") + ErrorText(-error)};
}

Error ErrorOfArgument(int error, const char* name, unsigned index, const Fault& fault) {
    std::string text = "argument ";
    text += name != nullptr ? "'" + std::string(name) + "'" : std::to_string(index + 1);
    text.append(fault.where).append(fault.text[0] != '\0' ? ": " : " cannot be sent: ");
    text.append(fault.text[0] != '\0' ? fault.text : ErrorText(-error));
    return error == -ENOMEM ? Error::NoMemory(text) : Error::InvalidArgs(text);
}

std::optional<Error> FindWrongName(const char* destination, const char* path, const char* interface,
                                   const char* member) {
    const auto wrong = [](const char* name, const char* complaint) {
        return Error::InvalidArgs("'" + std::string(name) + "' is no " + complaint);
    };
    if (destination != nullptr && sd_bus_service_name_is_valid(destination) <= 0) {
        return wrong(destination, "name of a service");
    }
    if (path != nullptr && sd_bus_object_path_is_valid(path) <= 0) {
        return wrong(path, "path of an object");
    }
    if (interface != nullptr && sd_bus_interface_name_is_valid(interface) <= 0) {
        return wrong(interface, "name of an interface");
    }
    if (member != nullptr && sd_bus_member_name_is_valid(member) <= 0) {
        return wrong(member, "name of a member");
    }
    return std::nullopt;
}

Error ErrorOfMessage(int error, const char* destination, const char* path, const char* interface,
                     const char* member) {
    if (const std::optional<Error> wrong = FindWrongName(destination, path, interface, member)) {
        return *wrong;
    }
    return ErrorOfSending(error);
}

}  // namespace mwl::Typed
