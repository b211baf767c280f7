#include <tern/typed/containers.h>

namespace mwl::Typed::Detail {

namespace {

int ReadSwapped(sd_bus_message* message, char code, std::size_t elementSize, std::string& swapped,
                Fault& fault) {
    const char contents[] = {code, '\0'};
    int result = sd_bus_message_enter_container(message, 'a', contents);
    if (result <= 0) {
        return result;
    }
    for (;;) {
        char element[sizeof(std::uint64_t)];
        result = sd_bus_message_read_basic(message, code, element);
        if (result <= 0) {
            return result < 0 ? result : sd_bus_message_exit_container(message);
        }
        if (swapped.size() / elementSize >= MAX_ELEMENTS) {
            return fault.TooMany();
        }
        swapped.append(element, elementSize);
    }
}

}  // namespace

int ReadBulk(sd_bus_message* message, char code, std::size_t elementSize, const void*& data,
             std::size_t& size, std::string* swapped, Fault& fault) {
    const void* read = nullptr;
    std::size_t length = 0;
    int result = sd_bus_message_read_array(message, code, &read, &length);
    if (result == -EOPNOTSUPP) {
        if (swapped == nullptr) {
            return fault.Refuse("an array of the other byte order cannot be borrowed", -EOPNOTSUPP);
        }
        result = ReadSwapped(message, code, elementSize, *swapped, fault);
        read = swapped->data();
        length = swapped->size();
    }
    if (result <= 0) {
        return result;
    }
    if (length % elementSize != 0) {
        return -EBADMSG;  // sd-bus hands out the part of an element at the end, too
    }
    if (length / elementSize > MAX_ELEMENTS) {
        return fault.TooMany();
    }
    data = read;
    size = length;
    return result;
}

int WriteBulk(sd_bus_message* message, char code, std::size_t elementSize, const void* data,
              std::size_t count) {
    if (count > MAX_ELEMENTS) {
        return -E2BIG;
    }
    return sd_bus_message_append_array(message, code, data, count * elementSize);
}

int OpenArray(sd_bus_message* message, const char* contents, std::size_t count) {
    if (count > MAX_ELEMENTS) {
        return -E2BIG;
    }
    return sd_bus_message_open_container(message, 'a', contents);
}

}  // namespace mwl::Typed::Detail
