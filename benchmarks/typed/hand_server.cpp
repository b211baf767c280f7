// The server of the typed comparison, as a careful author writes it by hand.

#include <cstring>
#include <vector>

#include "bench_loop.h"

namespace {

using bench::Item;
using bench::Options;

double gValue = 1.0;

int OnEmpty(sd_bus_message* message, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(message, "");
}

int OnNumber(sd_bus_message* message, void*, sd_bus_error*) {
    std::uint32_t number = 0;
    const int r = sd_bus_message_read(message, "u", &number);
    return r < 0 ? r : sd_bus_reply_method_return(message, "u", number + 1);
}

int OnText(sd_bus_message* message, void*, sd_bus_error*) {
    const char* text = nullptr;
    const int r = sd_bus_message_read(message, "s", &text);
    if (r < 0) {
        return r;
    }
    const std::string copy(text);
    return sd_bus_reply_method_return(message, "s", copy.c_str());
}

int OnFour(sd_bus_message* message, void*, sd_bus_error*) {
    std::uint32_t number = 0;
    double value = 0.0;
    int flag = 0;
    const char* text = nullptr;
    const int r = sd_bus_message_read(message, "udbs", &number, &value, &flag, &text);
    if (r < 0) {
        return r;
    }
    gValue = number + value + flag + static_cast<double>(std::strlen(text));
    return sd_bus_reply_method_return(message, "");
}

int OnItems(sd_bus_message* message, void*, sd_bus_error*) {
    std::vector<Item> items;
    double value = 0.0;
    const char* name = nullptr;
    int r = sd_bus_message_enter_container(message, 'a', "(ds)");
    if (r < 0) {
        return r;
    }
    while ((r = sd_bus_message_read(message, "(ds)", &value, &name)) > 0) {
        items.push_back({value, name});
    }
    r = r < 0 ? r : sd_bus_message_exit_container(message);
    return r < 0 ? r : sd_bus_reply_method_return(message, "u", static_cast<std::uint32_t>(items.size()));
}

int OnOptions(sd_bus_message* message, void*, sd_bus_error*) {
    Options options;
    int r = sd_bus_message_enter_container(message, 'a', "{sv}");
    if (r < 0) {
        return r;
    }
    while ((r = sd_bus_message_enter_container(message, 'e', "sv")) > 0) {
        const char* key = nullptr;
        r = sd_bus_message_read(message, "s", &key);
        if (r < 0) {
            return r;
        }
        if (std::strcmp(key, "Seconds") == 0) {
            r = sd_bus_message_read(message, "v", "u", &options.seconds);
        } else if (std::strcmp(key, "Note") == 0) {
            const char* note = nullptr;
            r = sd_bus_message_read(message, "v", "s", &note);
            if (r >= 0) {
                options.note = note;
            }
        } else {
            r = sd_bus_message_skip(message, "v");
        }
        r = r < 0 ? r : sd_bus_message_exit_container(message);
        if (r < 0) {
            return r;
        }
    }
    r = r < 0 ? r : sd_bus_message_exit_container(message);
    return r < 0 ? r : sd_bus_reply_method_return(message, "u", options.seconds);
}

int OnBytes(sd_bus_message* message, void*, sd_bus_error*) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    const int r = sd_bus_message_read_array(message, 'y', &bytes, &size);
    return r < 0 ? r : sd_bus_reply_method_return(message, "u", static_cast<std::uint32_t>(size));
}

int GetValue(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*) {
    return sd_bus_message_append(reply, "d", gValue);
}

int SetValue(sd_bus* bus, const char* path, const char* interface, const char* property,
             sd_bus_message* value, void*, sd_bus_error*) {
    const int r = sd_bus_message_read(value, "d", &gValue);
    return r < 0 ? r : sd_bus_emit_properties_changed(bus, path, interface, property, nullptr);
}

const sd_bus_vtable TABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Empty", "", "", OnEmpty, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Number", "u", "u", OnNumber, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Text", "s", "s", OnText, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Four", "udbs", "", OnFour, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Items", "a(ds)", "u", OnItems, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Options", "a{sv}", "u", OnOptions, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Bytes", "ay", "u", OnBytes, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_WRITABLE_PROPERTY("Value", "d", GetValue, SetValue, 0,
                             SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END};

}  // namespace

int main() {
    bench::Serve(TABLE, nullptr);
}
