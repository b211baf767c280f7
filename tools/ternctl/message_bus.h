#pragma once

#include <tern/typed/contract.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ternctl {

/// Questions to the message bus itself.
struct MessageBus {
    static constexpr const char* NAME = "org.freedesktop.DBus";
    static constexpr const char* PATH = "/org/freedesktop/DBus";

    static constexpr mwl::Typed::Method<std::vector<std::string>()> ListNames{"ListNames", {"names"}};
    static constexpr mwl::Typed::Method<std::string(std::string_view)> GetNameOwner{"GetNameOwner",
                                                                                    {"name", "owner"}};
    static constexpr mwl::Typed::Method<std::uint32_t(std::string_view)> GetConnectionUnixProcessID{
        "GetConnectionUnixProcessID", {"name", "pid"}};

    static constexpr mwl::Typed::Members<ListNames, GetNameOwner, GetConnectionUnixProcessID> ALL{};
};

}  // namespace ternctl
