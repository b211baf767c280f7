#include <tern/typed/containers.h>

namespace mwl::Typed::Detail {

int ReadBulk(sd_bus_message* message, char code, std::size_t elementSize, const void*& data,
             std::size_t& size, Fault& fault) {
    const void* read = nullptr;
    std::size_t length = 0;
    const int result = sd_bus_message_read_array(message, code, &read, &length);
    if (result <= 0) {
        return result;
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

int CannotBorrow(Fault& fault) {
    return fault.Refuse("an array of the other byte order cannot be borrowed", -EOPNOTSUPP);
}

}  // namespace mwl::Typed::Detail
