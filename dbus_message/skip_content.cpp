#include "dbus_message/skip_content.h"

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>

namespace mw::tern::DBusMessage {

namespace {

/// Bytes of a value of a type that sd_bus_message_read_array(3) takes; 0 for every other type. A boolean and
/// a descriptor have a fixed size too, but sd-bus looks at each of them.
std::size_t SizeOfNumber(char type) {
    switch (type) {
        case SD_BUS_TYPE_BYTE:
            return 1;
        case SD_BUS_TYPE_INT16:
        case SD_BUS_TYPE_UINT16:
            return 2;
        case SD_BUS_TYPE_INT32:
        case SD_BUS_TYPE_UINT32:
            return 4;
        case SD_BUS_TYPE_INT64:
        case SD_BUS_TYPE_UINT64:
        case SD_BUS_TYPE_DOUBLE:
            return 8;
        default:
            return 0;
    }
}

/// Whether something of this signature is an array of numbers, or may have one in it.
bool CanHoldNumbers(std::string_view contents) {
    for (std::size_t i = 0; i < contents.size(); ++i) {
        if (contents[i] == SD_BUS_TYPE_VARIANT ||
            (contents[i] == SD_BUS_TYPE_ARRAY && i + 1 < contents.size() &&
             SizeOfNumber(contents[i + 1]) != 0)) {
            return true;
        }
    }
    return false;
}

/// Over an array of numbers.
int SkipNumbers(sd_bus_message* message, char type) {
    const void* numbers = nullptr;
    std::size_t bytes = 0;
    const int r = sd_bus_message_read_array(message, type, &numbers, &bytes);
    // Half a number at the end: refused as if they were read one by one.
    return r > 0 && bytes % SizeOfNumber(type) != 0 ? -EBADMSG : r;
}

// Not deeper than sd-bus lets containers be inside each other.
// NOLINTNEXTLINE(misc-no-recursion)
int SkipOne(sd_bus_message* message) {
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(message, &type, &contents);
    if (r <= 0) {
        return r;
    }
    const bool isArray = type == SD_BUS_TYPE_ARRAY;
    if (isArray && contents[1] == '\0' && SizeOfNumber(contents[0]) != 0) {
        return SkipNumbers(message, contents[0]);
    }
    // Where there is nothing to be gained sd-bus goes on alone; into a variant it would look once more.
    const bool isWorthEntering = contents != nullptr && CanHoldNumbers(contents);
    if (!isWorthEntering && type != SD_BUS_TYPE_VARIANT) {
        return sd_bus_message_skip(message, nullptr);
    }
    r = sd_bus_message_enter_container(message, type, contents);
    if (r <= 0) {
        return r;
    }
    if (isWorthEntering) {
        do {
            r = SkipOne(message);
        } while (r > 0);
    } else {
        r = sd_bus_message_skip(message, contents);
    }
    return r < 0 ? r : sd_bus_message_exit_container(message);
}

/// The signature of what stands next, as far as it is a container; empty otherwise.
std::string SignatureOfContainer(sd_bus_message* message) {
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(message, &type, &contents) <= 0) {
        return {};
    }
    switch (type) {
        case SD_BUS_TYPE_ARRAY:
            return std::string(1, type) + contents;
        case SD_BUS_TYPE_VARIANT:
            return std::string(1, type);
        case SD_BUS_TYPE_STRUCT:
            return std::string("(") + contents + ")";
        default:
            return {};
    }
}

}  // namespace

int SkipContent(sd_bus_message* message, const char* contents) {
    if (contents == nullptr) {
        return SkipOne(message);
    }
    // One complete type, as a variant has it. For everything else, a signature that is not there included,
    // sd-bus knows the answer.
    return *contents != '\0' && SignatureOfContainer(message) == contents
               ? SkipOne(message)
               : sd_bus_message_skip(message, contents);
}

void LeaveContainer(sd_bus_message* message) {
    while (sd_bus_message_exit_container(message) == -EBUSY && SkipOne(message) > 0) {
    }
}

}  // namespace mw::tern::DBusMessage
