#include <tern/typed/variants.h>

#include <string_view>

namespace mwl::Typed::Detail {

int PeekVariant(sd_bus_message* message, const char*& contents) {
    char type = '\0';
    const char* found = nullptr;
    const int result = sd_bus_message_peek_type(message, &type, &found);
    if (result == 0) {
        // At an end. Entering finds out of what: 0 of an array, -ENXIO of anything else. Nothing is there to
        // enter.
        return sd_bus_message_enter_container(message, 'v', "y");
    }
    if (result < 0) {
        return result;
    }
    if (type != 'v') {
        return -ENXIO;
    }
    contents = found;
    return result;
}

int EnterVariant(sd_bus_message* message, const char* wanted, Fault& fault) {
    const char* contents = "";
    const int result = PeekVariant(message, contents);
    if (result <= 0) {
        return result;
    }
    if (std::string_view(contents) != wanted) {
        return fault.WrongType(contents, wanted);
    }
    return sd_bus_message_enter_container(message, 'v', wanted);
}

}  // namespace mwl::Typed::Detail
