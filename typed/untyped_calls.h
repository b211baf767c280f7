#pragma once

#include <systemd/sd-bus.h>
#include <tern/typed/any.h>
#include <tern/typed/error.h>
#include <tern/typed/introspection_model.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mwl::Typed {

class Remote;

inline constexpr const char* PROPERTIES_INTERFACE = "org.freedesktop.DBus.Properties";
inline constexpr const char* INTROSPECTABLE_INTERFACE = "org.freedesktop.DBus.Introspectable";

/// Why a call of an untyped proxy cannot be: names that are none, or arguments that do not fit.
std::optional<Error> FindWrongCall(const std::string& interface, const std::string& member,
                                   std::string_view signature, const std::vector<Any>& arguments);
/// The same of the operations on properties.
std::optional<Error> FindWrongGet(const std::string& interface, const std::string& property);
std::optional<Error> FindWrongGetAll(const std::string& interface);
std::optional<Error> FindWrongSet(const std::string& interface, const std::string& property,
                                  const Any& value);

/// Append the arguments of what was found to be right; `index` is that of the one that could not be.
int WriteArguments(sd_bus_message* message, unsigned& index, std::string_view signature,
                   const std::vector<Any>& arguments);
int WriteGet(sd_bus_message* message, unsigned& index, const std::string& interface,
             const std::string& property);
int WriteSet(sd_bus_message* message, unsigned& index, const std::string& interface,
             const std::string& property, const Any& value);

/// The content of a reply, like Decode.
Outcome<std::vector<Any>> DecodeAnyEach(sd_bus_message* reply, const Remote* remote);
Outcome<Introspection::Node> DecodeIntrospection(sd_bus_message* reply, const Remote* remote);

}  // namespace mwl::Typed
