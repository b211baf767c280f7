#include "typed/untyped_calls.h"

#include <tern/typed/decode.h>
#include <tern/typed/types.h>

#include <cerrno>
#include <new>

#include "typed/sending.h"

namespace mwl::Typed {

namespace {

std::string CountOf(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " argument" : " arguments");
}

/// The complete type at the beginning of a signature, which is sound; taken off it.
std::string_view TakeType(std::string_view& signature) {
    const std::string_view type = signature.substr(0, Detail::EndOfType(signature, 0));
    signature.remove_prefix(type.size());
    return type;
}

std::size_t CountTypes(std::string_view signature) {
    std::size_t count = 0;
    while (!TakeType(signature).empty()) {
        ++count;
    }
    return count;
}

}  // namespace

std::optional<Error> FindWrongCall(const std::string& interface, const std::string& member,
                                   std::string_view signature, const std::vector<Any>& arguments) {
    if (std::optional<Error> wrong = FindWrongGet(interface, member)) {
        return wrong;
    }
    if (!IsSignature(signature)) {
        return Error::InvalidArgs("'" + std::string(signature) + "' is no signature");
    }
    if (const std::size_t count = CountTypes(signature); count != arguments.size()) {
        return Error::InvalidArgs(CountOf(arguments.size()) + " where " + std::to_string(count) +
                                  (count == 1 ? " is wanted" : " are wanted"));
    }
    unsigned index = 0;
    for (const Any& argument : arguments) {
        const std::string_view type = TakeType(signature);
        Fault fault;
        if (argument.IsEmpty()) {
            fault.Refuse("no value");
        } else if (argument.GetSignature() != type && type != "v") {
            fault.WrongType(argument.GetSignature().c_str(), std::string(type).c_str());
        }
        if (fault.text[0] != '\0') {
            return ErrorOfArgument(-EINVAL, nullptr, index, fault);
        }
        ++index;
    }
    return std::nullopt;
}

// Properties and methods are called alike.
std::optional<Error> FindWrongGet(const std::string& interface, const std::string& property) {
    return FindWrongName(nullptr, nullptr, interface.c_str(), property.c_str());
}

std::optional<Error> FindWrongGetAll(const std::string& interface) {
    return interface.empty() ? std::nullopt : FindWrongName(nullptr, nullptr, interface.c_str(), nullptr);
}

std::optional<Error> FindWrongSet(const std::string& interface, const std::string& property,
                                  const Any& value) {
    if (std::optional<Error> wrong = FindWrongGet(interface, property)) {
        return wrong;
    }
    return value.IsEmpty() ? std::optional(Error::InvalidArgs("no value")) : std::nullopt;
}

int WriteGet(sd_bus_message* message, unsigned& index, const std::string& interface,
             const std::string& property) {
    const int r = Codec<std::string>::Write(message, interface);
    index += r >= 0 ? 1U : 0U;
    return r < 0 ? r : Codec<std::string>::Write(message, property);
}

int WriteSet(sd_bus_message* message, unsigned& index, const std::string& interface,
             const std::string& property, const Any& value) {
    const int r = WriteGet(message, index, interface, property);
    index += r >= 0 ? 1U : 0U;
    return r < 0 ? r : WriteAny(message, value);
}

int WriteArguments(sd_bus_message* message, unsigned& index, std::string_view signature,
                   const std::vector<Any>& arguments) {
    Fault fault;
    for (const Any& argument : arguments) {
        if (const int r = WriteAnyAs(message, TakeType(signature), argument, fault); r < 0) {
            return r;
        }
        ++index;
    }
    return 0;
}

Outcome<std::vector<Any>> DecodeAnyEach(sd_bus_message* reply, const Remote* remote) {
    if (sd_bus_message_is_method_error(reply, nullptr) > 0) {
        return Error::FromReply(reply);
    }
    std::vector<Any> values;
    Fault fault;
    unsigned index = 0;
    int r = 0;
    try {
        r = ReadAnyEach(reply, values, fault, index);
    } catch (const std::bad_alloc&) {
        r = -ENOMEM;
    }
    if (r < 0) {
        const char* const signature = sd_bus_message_get_signature(reply, 1);
        const auto count = static_cast<unsigned>(CountTypes(signature != nullptr ? signature : ""));
        return Detail::ErrorOfReading(r, fault, index, count, remote);
    }
    return values;
}

Outcome<Introspection::Node> DecodeIntrospection(sd_bus_message* reply, const Remote* remote) {
    const Outcome<std::string> text = Decode<std::string>(reply, remote);
    if (!text.IsOk()) {
        return text.GetError();
    }
    Outcome<Introspection::Node> node = Introspection::Parse(*text);
    if (!node.IsOk() && node.GetError().GetStatus() == StatusCode::InvalidArgument) {
        Fault fault;
        fault.Refuse(node.GetError().GetText());
        return Detail::ErrorOfReading(-EINVAL, fault, 0, 1, remote);
    }
    return node;
}

}  // namespace mwl::Typed
