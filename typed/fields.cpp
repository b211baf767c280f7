#include <tern/typed/fields.h>

#include <cstdint>

namespace mwl::Typed::Detail {

namespace {

int WriteEntry(sd_bus_message* message, const void* aggregate, const FieldRow& row) {
    int result = sd_bus_message_open_container(message, 'e', "sv");
    if (result >= 0) {
        result = AppendText(message, 's', row.name);
    }
    if (result >= 0 && row.signature != nullptr) {
        result = sd_bus_message_open_container(message, 'v', row.signature);
    }
    if (result >= 0) {
        result = row.write(message, aggregate);
    }
    if (result >= 0 && row.signature != nullptr) {
        result = sd_bus_message_close_container(message);
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

/// The value of an entry, whose key has been read.
int ReadValue(sd_bus_message* message, void* aggregate, const FieldRow& row, Fault& fault) {
    int result = 0;
    if (row.signature != nullptr) {
        result = EnterVariant(message, row.signature, fault);
    }
    if (result >= 0) {
        result = row.read(message, aggregate, fault);
    }
    if (result >= 0 && row.signature != nullptr) {
        result = sd_bus_message_exit_container(message);
    }
    return result < 0 ? fault.Below(row.name, result) : result;
}

}  // namespace

int WriteFields(sd_bus_message* message, const void* aggregate, const FieldRow* rows, std::size_t count) {
    int result = sd_bus_message_open_container(message, 'a', "{sv}");
    for (std::size_t i = 0; i < count && result >= 0; ++i) {
        if (rows[i].isSet == nullptr || rows[i].isSet(aggregate)) {
            result = WriteEntry(message, aggregate, rows[i]);
        }
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

int ReadFields(sd_bus_message* message, void* aggregate, const FieldRow* rows, std::size_t count,
               bool isStrict, Fault& fault) {
    int result = sd_bus_message_enter_container(message, 'a', "{sv}");
    if (result <= 0) {
        return result;
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (rows[i].clear != nullptr) {
            rows[i].clear(aggregate);
        }
    }
    std::uint64_t seen = 0;
    for (std::size_t entry = 0;; ++entry) {
        result = sd_bus_message_enter_container(message, 'e', "sv");
        if (result <= 0) {
            break;
        }
        if (entry >= MAX_ELEMENTS) {
            return fault.TooMany();
        }
        std::string_view key;
        result = ReadText(message, 's', key);
        if (result < 0) {
            return result;
        }
        std::size_t index = 0;
        while (index < count && key != rows[index].name) {
            ++index;
        }
        if (index < count) {
            seen |= std::uint64_t{1} << index;
            result = ReadValue(message, aggregate, rows[index], fault);
        } else if (isStrict) {
            result = fault.Unknown(key);
        } else {
            result = sd_bus_message_skip(message, "v");
        }
        if (result >= 0) {
            result = sd_bus_message_exit_container(message);
        }
        if (result < 0) {
            return result;
        }
    }
    for (std::size_t i = 0; i < count && result >= 0; ++i) {
        if (rows[i].isSet == nullptr && (seen >> i & 1) == 0) {
            return fault.Missing(rows[i].name);
        }
    }
    return result < 0 ? result : sd_bus_message_exit_container(message);
}

}  // namespace mwl::Typed::Detail
