#include "dbus_message/message_walk.h"

#include <tern/foundation/log.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>

#include "dbus_message/skip_content.h"
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
    [[gnu::noinline]] PathStep(std::string& path, std::string_view name) : mPath(path), mLength(path.size()) {
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

/// Of a basic type: what it is read into and stored as, and how it is logged.
template <char Type>
struct BasicType;

// The operation, and the two messages, whole except for its name, so that a logged line is found here.
// `shown` is the value as the second one takes it. The log calls are not inlined: they hold texts, and
// readers call each other.
#define TERN_BASIC_TYPE(letter, operation, Wire, Stored, failureFormat, LEVEL, valueFormat, shown)    \
    template <>                                                                                       \
    struct BasicType<letter> {                                                                        \
        using WireType = Wire;                                                                        \
        using StoredType = Stored;                                                                    \
        static constexpr const char* OPERATION = operation;                                           \
        [[gnu::noinline]] static void LogFailure(ParseLog& log, int result) {                         \
            TERN_PARSE_LOG(log, ERROR, LOGGER, failureFormat, OPERATION, result, ErrorText(-result)); \
        }                                                                                             \
        template <typename Shown>                                                                     \
        static void LogValue(ParseLog& log, const char* keyName, Shown value) {                       \
            if (log.Admits(ParseLog::LEVEL)) {                                                        \
                WriteValue(log, keyName, value);                                                      \
            }                                                                                         \
        }                                                                                             \
        template <typename Shown>                                                                     \
        [[gnu::noinline]] static void WriteValue(ParseLog& log, const char* keyName, Shown value) {   \
            TERN_LOG_##LEVEL(LOGGER, valueFormat, OPERATION, log.Text(keyName).Get(), shown);         \
        }                                                                                             \
    };

// Fixed by the interface: a byte is shown in octal, and an INT16 at info level.
TERN_BASIC_TYPE('s', "ReadString", const char*, ValueString,
                "[%s] Failed to read SD_BUS_TYPE_STRING (%d, %s)", TRACE, "[%s] keyName=%s, value=%s",
                log.Text(value).Get())
TERN_BASIC_TYPE('b', "ReadBoolean", int, ValueBool, "[%s] Failed to read SD_BUS_TYPE_BOOLEAN (%d, %s)", TRACE,
                "[%s] keyName=%s, value=%d", value)
TERN_BASIC_TYPE('n', "ReadINT16", std::int16_t, ValueInt16, "[%s] Failed to read SD_BUS_TYPE_INT16 (%d, %s)",
                INFO, "[%s] keyName=%s, value=%hd", value)
TERN_BASIC_TYPE('q', "ReadUINT16", std::uint16_t, ValueUint16,
                "[%s] Failed to read SD_BUS_TYPE_UINT16 (%d, %s)", TRACE, "[%s] keyName=%s, value=%u", value)
TERN_BASIC_TYPE('i', "ReadINT32", std::int32_t, ValueInt32, "[%s] Failed to read SD_BUS_TYPE_INT32 (%d, %s)",
                TRACE, "[%s] keyName=%s, value=%d", value)
TERN_BASIC_TYPE('u', "ReadUINT32", std::uint32_t, ValueUint32,
                "[%s] Failed to read SD_BUS_TYPE_UINT32 (%d, %s)", TRACE, "[%s] keyName=%s, value=%u", value)
TERN_BASIC_TYPE('x', "ReadINT64", std::int64_t, ValueInt64, "[%s] Failed to read SD_BUS_TYPE_INT64 (%d, %s)",
                TRACE, "[%s] keyName=%s, value=%lld", value)
TERN_BASIC_TYPE('t', "ReadUINT64", std::uint64_t, ValueUint64,
                "[%s] Failed to read SD_BUS_TYPE_UINT64 (%d, %s)", TRACE, "[%s] keyName=%s, value=%llu",
                value)
TERN_BASIC_TYPE('d', "ReadDouble", double, ValueDouble, "[%s] Failed to read SD_BUS_TYPE_DOUBLE (%d, %s)",
                TRACE, "[%s] keyName=%s, value=%f", log.Shown(value))
TERN_BASIC_TYPE('y', "ReadByte", std::uint8_t, ValueUint8, "[%s] Failed to read SD_BUS_TYPE_BYTE (%d, %s)",
                TRACE, "[%s] keyName=%s, value=%o", value)
TERN_BASIC_TYPE('h', "ReadFileDescriptor", int, ValueFD, "[%s] Failed to read SD_BUS_TYPE_UNIX_FD (%d, %s)",
                TRACE, "[%s] keyName=%s, value=%d", value)

#undef TERN_BASIC_TYPE

}  // namespace

template <typename ConcreteValue, typename... Arguments>
bool MessageWalk::Store(const char* operation, const Arguments&... arguments) {
    return ValuesListWriter::AddWithin<ConcreteValue>(mBudget, operation, mValues, mPath, arguments...);
}

bool MessageWalk::GrowPath(const char* operation, std::size_t length) {
    const std::size_t room = std::max(length, 2 * mPath.capacity());
    const std::size_t cost = room > FREE_ROOM ? MemoryBudget::Allocation(room + 1) : 0;
    // While the path moves it has both rooms.
    if (!mBudget.Take(cost, operation)) {
        return false;
    }
    mPath.reserve(room);
    mBudget.GiveBack(mPathCost);
    mPathCost = cost;
    return true;
}

template <char Type>
int MessageWalk::ReadBasicAs(const char* keyName) {
    using Basic = BasicType<Type>;
    typename Basic::WireType wire{};
    const int r = sd_bus_message_read_basic(mMessage, Type, &wire);
    if (r < 0) {
        Basic::LogFailure(mBudget.Log(), r);
    }
    if (r <= 0) {
        return r;
    }
    using Stored = typename Basic::StoredType;
    using Held =
        std::conditional_t<std::is_same_v<Stored, ValueString>, const char*, decltype(Stored::value)>;
    const auto value = static_cast<Held>(wire);
    Basic::LogValue(mBudget.Log(), keyName, value);
    const std::string_view name(keyName);
    if (!MakeRoom(Basic::OPERATION, name)) {
        return -ENOBUFS;
    }
    const PathStep step(mPath, name);
    return Store<Stored>(Basic::OPERATION, value) ? r : -ENOBUFS;
}

std::optional<int> MessageWalk::ReadBasic(char type, const char* keyName) {
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
        default:
            return std::nullopt;
    }
}

int MessageWalk::ReadISI(const char* keyName) {
    static constexpr const char* OPERATION = "ReadISI";
    ParseLog& log = mBudget.Log();
    const int entered = sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_STRUCT, "isi");
    if (entered < 0) {
        // Fixed by the interface: the text of another type.
        TERN_PARSE_LOG(log, ERROR, LOGGER, "[%s] Failed to read SD_BUS_TYPE_UNIX_FD (%d, %s)", "ReadISI",
                       entered, ErrorText(-entered));
    }
    if (entered <= 0) {
        return entered;
    }
    const auto readInteger = [&](std::int32_t& value) {
        if (sd_bus_message_read_basic(mMessage, SD_BUS_TYPE_INT32, &value) <= 0) {
            return false;
        }
        TERN_PARSE_LOG(log, TRACE, LOGGER, "[%s] keyName=%s, Int, value=%d", "ReadISI",
                       log.Text(keyName).Get(), value);
        return true;
    };
    const auto readText = [&](const char*& value) {
        if (sd_bus_message_read_basic(mMessage, SD_BUS_TYPE_STRING, &value) <= 0) {
            return false;
        }
        TERN_PARSE_LOG(log, TRACE, LOGGER, "[%s] keyName=%s, String, value=%s", "ReadISI",
                       log.Text(keyName).Get(), log.Text(value).Get());
        return true;
    };
    std::int32_t first = 0;
    const char* text = nullptr;
    std::int32_t second = 0;
    int result = entered;
    if (readInteger(first) && readText(text) && readInteger(second)) {
        const std::string_view name(keyName);
        result = -ENOBUFS;
        if (MakeRoom(OPERATION, name)) {
            const PathStep step(mPath, name);
            if (Store<ValueISI>(OPERATION, first, text, second)) {
                result = entered;
            }
        }
    }
    LeaveContainer(mMessage);
    return result;
}

int MessageWalk::ReadArrayOfStrings(const char* keyName) {
    static constexpr const char* OPERATION = "ReadArrayOfStrings";
    ParseLog& log = mBudget.Log();
    const int entered = sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_ARRAY, "s");
    if (entered <= 0) {
        return entered;
    }
    constexpr std::size_t MOST_DIGITS = std::numeric_limits<std::size_t>::digits10 + 1;
    const std::string_view name(keyName);
    int result = -ENOBUFS;
    if (MakeRoom(OPERATION, name, MOST_DIGITS)) {
        const PathStep step(mPath, name);
        const std::size_t nameEnd = mPath.size();
        result = entered;
        const char* text = nullptr;
        for (std::size_t index = 0; sd_bus_message_read_basic(mMessage, SD_BUS_TYPE_STRING, &text) == 1;
             ++index) {
            std::array<char, MOST_DIGITS> digits;
            char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), index).ptr;
            mPath.resize(nameEnd);
            mPath.append(digits.data(), end);
            TERN_PARSE_LOG(log, TRACE, LOGGER, "[%s] key=%s, value=%s", "ReadArrayOfStrings",
                           log.Text(mPath.c_str()).Get(), log.Text(text).Get());
            if (!Store<ValueString>(OPERATION, text)) {
                result = -ENOBUFS;
                break;
            }
        }
    }
    LeaveContainer(mMessage);
    return result;
}

// Not inlined: it holds two texts, and variants are inside each other.
[[gnu::noinline]] void MessageWalk::LogContentFailure(const char* keyName, int r) {
    ParseLog& log = mBudget.Log();
    TERN_PARSE_LOG(log, ERROR, LOGGER,
                   "[%s] Failure ReadVariantContent prefix='%s' keyname='%s', ret=(%d, %s)", "ReadVariant",
                   log.Text(mPath.c_str()).Get(), log.Text(keyName).Get(), r, ErrorText(-r));
}

int MessageWalk::ReadVariant(const char* keyName) {
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(mMessage, nullptr, &contents);
    if (r < 0) {
        TERN_PARSE_LOG(mBudget.Log(), ERROR, LOGGER, "[%s] Failure sd_bus_message_peek_type, ret=(%d, %s)",
                       "ReadVariant", r, ErrorText(-r));
    }
    if (r <= 0) {
        return r;
    }
    r = sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_VARIANT, contents);
    if (r < 0) {
        TERN_PARSE_LOG(mBudget.Log(), ERROR, LOGGER,
                       "[%s] Failure sd_bus_message_enter_container, ret=(%d, %s)", "ReadVariant", r,
                       ErrorText(-r));
    }
    if (r <= 0) {
        return r;
    }
    r = ReadVariantContent(keyName, contents);
    if (r < 0) {
        LogContentFailure(keyName, r);
    }
    LeaveContainer(mMessage);
    return r;
}

int MessageWalk::ReadVariantContent(const char* keyName, const char* contents) {
    const std::string_view signature(contents == nullptr ? "" : contents);
    int r = 0;
    if (const std::optional<int> basic =
            signature.size() == 1 ? ReadBasic(signature.front(), keyName) : std::nullopt) {
        r = *basic;
    } else if (signature == "(isi)"sv) {
        r = ReadISI(keyName);
    } else if (signature == "as"sv) {
        r = ReadArrayOfStrings(keyName);
    } else if (signature == "a{sv}"sv) {
        const std::string_view name(keyName);
        r = -ENOBUFS;
        if (MakeRoom("ReadArrayOfDictionaries", name)) {
            const PathStep step(mPath, name);
            r = ReadArrayOfDictionaries();
        }
    } else {
        TERN_PARSE_LOG(mBudget.Log(), INFO, LOGGER, "[%s] Unsupported type, update this method",
                       "ReadVariantContent");
        // Stepped over, so that the entries behind it can be read.
        r = std::min(SkipContent(mMessage, contents), 0);
    }
    if (r < 0) {
        TERN_PARSE_LOG(mBudget.Log(), ERROR, LOGGER, "[%s] Failed to read ReadVariantContent (%d, %s)",
                       "ReadVariantContent", r, ErrorText(-r));
    }
    return r;
}

int MessageWalk::ReadArrayOfDictionaries() {
    const int entered = sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_ARRAY, "{sv}");
    if (entered < 0) {
        TERN_PARSE_LOG(mBudget.Log(), ERROR, LOGGER,
                       "[%s] Failure sd_bus_message_enter_container({sv}), ret=(%d, %s)",
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
            TERN_PARSE_LOG(mBudget.Log(), ERROR, LOGGER,
                           "[%s] Failure sd_bus_message_read_basic, ret=(%d, %s)", "ParseArrayOfDictionaries",
                           r, ErrorText(-r));
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
