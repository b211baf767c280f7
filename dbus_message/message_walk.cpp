#include "dbus_message/message_walk.h"

#include <tern/foundation/log.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>
#include <utility>

#include "dbus_message/message_position.h"
#include "dbus_message/values_list_writer.h"
#include "foundation/error_text.h"
#include "platform/static_text.h"

namespace mw::tern::DBusMessage {

namespace {

using mwl::ErrorText;
using namespace std::string_view_literals;

const mwl::StaticText LOGGER("Parser");

/// Lengthens the path by one name for the life of a block.
class PathStep {
public:
    // Not inlined: the readers of the basic types are eleven.
    [[gnu::noinline]] PathStep(std::string& path, const char* name) : mPath(path), mLength(path.size()) {
        mPath.push_back(SEPARATOR);
        mPath.append(name);
    }
    ~PathStep() { mPath.erase(mLength); }
    PathStep(const PathStep&) = delete;
    PathStep& operator=(const PathStep&) = delete;

private:
    std::string& mPath;
    const std::size_t mLength;
};

/// What a basic type is called, read into, stored as, and how it is logged.
template <char Type>
struct BasicType;

#define TERN_BASIC_TYPE(letter, operation, word, Wire, Stored, TERN_LOG_LEVEL, conversion)                 \
    template <>                                                                                            \
    struct BasicType<letter> {                                                                             \
        using WireType = Wire;                                                                             \
        using StoredType = Stored;                                                                         \
        static constexpr const char* OPERATION = operation;                                                \
        static void LogFailure(int result) {                                                               \
            TERN_LOG_ERROR(LOGGER, "[%s] Failed to read SD_BUS_TYPE_" word " (%d, %s)", OPERATION, result, \
                           ErrorText(-result));                                                            \
        }                                                                                                  \
        template <typename Shown>                                                                          \
        static void LogValue(const char* keyName, Shown value) {                                           \
            TERN_LOG_LEVEL(LOGGER, "[%s] keyName=%s, value=" conversion, OPERATION, keyName, value);       \
        }                                                                                                  \
    };

// A byte is shown in octal and an INT16 at info level: both are meant.
TERN_BASIC_TYPE('s', "ReadString", "STRING", const char*, ValueString, TERN_LOG_TRACE, "%s")
TERN_BASIC_TYPE('b', "ReadBoolean", "BOOLEAN", int, ValueBool, TERN_LOG_TRACE, "%d")
TERN_BASIC_TYPE('n', "ReadINT16", "INT16", std::int16_t, ValueInt16, TERN_LOG_INFO, "%hd")
TERN_BASIC_TYPE('q', "ReadUINT16", "UINT16", std::uint16_t, ValueUint16, TERN_LOG_TRACE, "%u")
TERN_BASIC_TYPE('i', "ReadINT32", "INT32", std::int32_t, ValueInt32, TERN_LOG_TRACE, "%d")
TERN_BASIC_TYPE('u', "ReadUINT32", "UINT32", std::uint32_t, ValueUint32, TERN_LOG_TRACE, "%u")
TERN_BASIC_TYPE('x', "ReadINT64", "INT64", std::int64_t, ValueInt64, TERN_LOG_TRACE, "%lld")
TERN_BASIC_TYPE('t', "ReadUINT64", "UINT64", std::uint64_t, ValueUint64, TERN_LOG_TRACE, "%llu")
TERN_BASIC_TYPE('d', "ReadDouble", "DOUBLE", double, ValueDouble, TERN_LOG_TRACE, "%f")
TERN_BASIC_TYPE('y', "ReadByte", "BYTE", std::uint8_t, ValueUint8, TERN_LOG_TRACE, "%o")
TERN_BASIC_TYPE('h', "ReadFileDescriptor", "UNIX_FD", int, ValueFD, TERN_LOG_TRACE, "%d")

#undef TERN_BASIC_TYPE

/// Whether the signature is one basic type that a list can keep.
bool IsBasic(const char* signature) {
    switch (signature[0]) {
        case 's':
        case 'b':
        case 'i':
        case 'u':
        case 'n':
        case 'q':
        case 'x':
        case 't':
        case 'd':
        case 'y':
        case 'h':
            return signature[1] == '\0';
        default:
            return false;
    }
}

}  // namespace

template <typename ConcreteValue, typename... Arguments>
bool MessageWalk::Store(const char* operation, Arguments&&... arguments) {
    if (!PayForKey(operation)) {
        return false;
    }
    ValuesListWriter::Add<ConcreteValue>(mValues, mPath, std::forward<Arguments>(arguments)...);
    return true;
}

bool MessageWalk::PayForKey(const char* operation) {
    // A key that is there already is paid for too: looking it up costs as much as its length.
    if (!mBudget.Take(mPath.size())) {
        TERN_LOG_ERROR(LOGGER, "[%s] Keys of one message exceed %zu bytes", operation, KeyBudget::LIMIT);
        return false;
    }
    return true;
}

template <char Type>
int MessageWalk::ReadBasicAs(const char* keyName) {
    using Basic = BasicType<Type>;
    typename Basic::WireType wire{};
    const int r = sd_bus_message_read_basic(mMessage, Type, &wire);
    if (r < 0) {
        Basic::LogFailure(r);
    }
    if (r <= 0) {
        return r;
    }
    using Stored = typename Basic::StoredType;
    const PathStep step(mPath, keyName);
    if constexpr (std::is_same_v<Stored, ValueString>) {
        Basic::LogValue(keyName, wire);
        return Store<Stored>(Basic::OPERATION, wire) ? r : -ENOBUFS;
    } else {
        const auto value = static_cast<decltype(Stored::value)>(wire);
        Basic::LogValue(keyName, value);
        return Store<Stored>(Basic::OPERATION, value) ? r : -ENOBUFS;
    }
}

int MessageWalk::ReadBasic(char type, const char* keyName) {
    switch (type) {
        case 's':
            return ReadBasicAs<'s'>(keyName);
        case 'b':
            return ReadBasicAs<'b'>(keyName);
        case 'i':
            return ReadBasicAs<'i'>(keyName);
        case 'u':
            return ReadBasicAs<'u'>(keyName);
        case 'n':
            return ReadBasicAs<'n'>(keyName);
        case 'q':
            return ReadBasicAs<'q'>(keyName);
        case 'x':
            return ReadBasicAs<'x'>(keyName);
        case 't':
            return ReadBasicAs<'t'>(keyName);
        case 'd':
            return ReadBasicAs<'d'>(keyName);
        case 'y':
            return ReadBasicAs<'y'>(keyName);
        case 'h':
            return ReadBasicAs<'h'>(keyName);
        // GCOVR_EXCL_START: callers ask for the types above only
        default:
            return -EINVAL;
            // GCOVR_EXCL_STOP
    }
}

int MessageWalk::ReadISI(const char* keyName) {
    static constexpr const char* OPERATION = "ReadISI";
    const int entered = sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_STRUCT, "isi");
    if (entered < 0) {
        // The text of another type, as it is everywhere known.
        TERN_LOG_ERROR(LOGGER, "[%s] Failed to read SD_BUS_TYPE_UNIX_FD (%d, %s)", OPERATION, entered,
                       ErrorText(-entered));
    }
    if (entered <= 0) {
        return entered;
    }
    const auto readInteger = [&](std::int32_t& value) {
        if (sd_bus_message_read_basic(mMessage, SD_BUS_TYPE_INT32, &value) <= 0) {
            return false;
        }
        TERN_LOG_TRACE(LOGGER, "[%s] keyName=%s, Int, value=%d", OPERATION, keyName, value);
        return true;
    };
    const auto readText = [&](const char*& value) {
        if (sd_bus_message_read_basic(mMessage, SD_BUS_TYPE_STRING, &value) <= 0) {
            return false;
        }
        TERN_LOG_TRACE(LOGGER, "[%s] keyName=%s, String, value=%s", OPERATION, keyName, value);
        return true;
    };
    std::int32_t first = 0;
    const char* text = nullptr;
    std::int32_t second = 0;
    int result = entered;
    if (readInteger(first) && readText(text) && readInteger(second)) {
        const PathStep step(mPath, keyName);
        result = Store<ValueISI>(OPERATION, first, text, second) ? entered : -ENOBUFS;
    }
    LeaveContainer(mMessage);
    return result;
}

int MessageWalk::ReadArrayOfStrings(const char* keyName) {
    static constexpr const char* OPERATION = "ReadArrayOfStrings";
    const int entered = sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_ARRAY, "s");
    if (entered <= 0) {
        return entered;
    }
    const PathStep step(mPath, keyName);
    const std::size_t nameEnd = mPath.size();
    int result = entered;
    const char* text = nullptr;
    for (std::size_t index = 0; sd_bus_message_read_basic(mMessage, SD_BUS_TYPE_STRING, &text) == 1;
         ++index) {
        std::array<char, std::numeric_limits<std::size_t>::digits10 + 1> digits;
        char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), index).ptr;
        mPath.resize(nameEnd);
        mPath.append(digits.data(), end);
        TERN_LOG_TRACE(LOGGER, "[%s] key=%s, value=%s", OPERATION, mPath.c_str(), text);
        if (!Store<ValueString>(OPERATION, text)) {
            result = -ENOBUFS;
            break;
        }
    }
    LeaveContainer(mMessage);
    return result;
}

int MessageWalk::ReadVariant(const char* keyName) {
    static constexpr const char* OPERATION = "ReadVariant";
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(mMessage, nullptr, &contents);
    if (r < 0) {
        TERN_LOG_ERROR(LOGGER, "[%s] Failure sd_bus_message_peek_type, ret=(%d, %s)", OPERATION, r,
                       ErrorText(-r));
    }
    if (r <= 0) {
        return r;
    }
    r = sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_VARIANT, contents);
    if (r < 0) {
        TERN_LOG_ERROR(LOGGER, "[%s] Failure sd_bus_message_enter_container, ret=(%d, %s)", OPERATION, r,
                       ErrorText(-r));
    }
    if (r <= 0) {
        return r;
    }
    r = ReadVariantContent(keyName, contents);
    if (r < 0) {
        TERN_LOG_ERROR(LOGGER, "[%s] Failure ReadVariantContent prefix='%s' keyname='%s', ret=(%d, %s)",
                       OPERATION, mPath.c_str(), keyName, r, ErrorText(-r));
    }
    LeaveContainer(mMessage);
    return r;
}

int MessageWalk::ReadVariantContent(const char* keyName, const char* contents) {
    static constexpr const char* OPERATION = "ReadVariantContent";
    const char* const signature = contents == nullptr ? "" : contents;
    int r = 0;
    if (IsBasic(signature)) {
        r = ReadBasic(*signature, keyName);
    } else if (signature == "(isi)"sv) {
        r = ReadISI(keyName);
    } else if (signature == "as"sv) {
        r = ReadArrayOfStrings(keyName);
    } else if (signature == "a{sv}"sv) {
        const PathStep step(mPath, keyName);
        r = ReadArrayOfDictionaries();
    } else {
        TERN_LOG_INFO(LOGGER, "[%s] Unsupported type, update this method", OPERATION);
        // Stepped over, so that the entries behind it can be read.
        r = std::min(SkipContent(mMessage, contents), 0);
    }
    if (r < 0) {
        TERN_LOG_ERROR(LOGGER, "[%s] Failed to read ReadVariantContent (%d, %s)", OPERATION, r,
                       ErrorText(-r));
    }
    return r;
}

int MessageWalk::ReadArrayOfDictionaries() {
    const int entered = sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_ARRAY, "{sv}");
    if (entered < 0) {
        TERN_LOG_ERROR(LOGGER, "[%s] Failure sd_bus_message_enter_container({sv}), ret=(%d, %s)",
                       "ReadArrayOfDictionaries", entered, ErrorText(-entered));
    }
    if (entered <= 0) {
        return entered;
    }
    const int r = ParseArrayOfDictionaries();
    LeaveContainer(mMessage);
    return r;
}

int MessageWalk::ParseArrayOfDictionaries() {
    for (;;) {
        int r = sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_DICT_ENTRY, "sv");
        if (r < 1) {
            return r;
        }
        const char* name = "";
        r = sd_bus_message_read_basic(mMessage, SD_BUS_TYPE_STRING, &name);
        if (r < 0) {
            TERN_LOG_ERROR(LOGGER, "[%s] Failure sd_bus_message_read_basic, ret=(%d, %s)",
                           "ParseArrayOfDictionaries", r, ErrorText(-r));
        } else {
            r = ReadVariant(name);
        }
        LeaveContainer(mMessage);
        if (r < 0) {
            return r;
        }
    }
}

}  // namespace mw::tern::DBusMessage
