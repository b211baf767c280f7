#include <tern/dbus_message/parser.h>

#include <stdexcept>

#include "dbus_message/message_walk.h"
#include "platform/static_text.h"

namespace mw::tern::DBusMessage {

namespace {

/// The name, after making sure that there is one.
const char* Required(const char* name) {
    if (name == nullptr) {
        throw std::logic_error("a key of a values list needs a name");
    }
    return name;
}

/// One call of a reader: a walk with a budget of its own.
class Walk {
public:
    // Not inlined: each of the seventeen readers would hold a copy.
    [[gnu::noinline]] Walk(sd_bus_message* message, ValuesList& values, const std::string& prefix)
        : mWalk(message, values, mBudget, prefix) {}
    MessageWalk* operator->() { return &mWalk; }

private:
    ParseBudget mBudget;
    MessageWalk mWalk;
};

}  // namespace

Parser::Parser() : Parser(nullptr) {}

Parser::Parser(sd_bus_message* message) : mMessage(message) {}

Parser::~Parser() = default;

void Parser::SetMessage(sd_bus_message* message) {
    mMessage = message;
}

const ValuesList& Parser::GetValuesList() const {
    return mValuesList;
}

ValuesList& Parser::GetValuesList() {
    return mValuesList;
}

#define TERN_PARSER_BASIC_READER(Operation, type)                                        \
    int Parser::Operation(const std::string& prefix, const char* keyName) {              \
        return *Walk(mMessage, mValuesList, prefix)->ReadBasic(type, Required(keyName)); \
    }

TERN_PARSER_BASIC_READER(ReadString, 's')
TERN_PARSER_BASIC_READER(ReadBoolean, 'b')
TERN_PARSER_BASIC_READER(ReadINT16, 'n')
TERN_PARSER_BASIC_READER(ReadUINT16, 'q')
TERN_PARSER_BASIC_READER(ReadINT32, 'i')
TERN_PARSER_BASIC_READER(ReadUINT32, 'u')
TERN_PARSER_BASIC_READER(ReadINT64, 'x')
TERN_PARSER_BASIC_READER(ReadUINT64, 't')
TERN_PARSER_BASIC_READER(ReadDouble, 'd')
TERN_PARSER_BASIC_READER(ReadByte, 'y')
TERN_PARSER_BASIC_READER(ReadFileDescriptor, 'h')

#undef TERN_PARSER_BASIC_READER

int Parser::ReadISI(const std::string& prefix, const char* keyName) {
    return Walk(mMessage, mValuesList, prefix)->ReadISI(Required(keyName));
}

int Parser::ReadArrayOfStrings(const std::string& prefix, const char* keyName) {
    return Walk(mMessage, mValuesList, prefix)->ReadArrayOfStrings(Required(keyName));
}

int Parser::ReadVariant(const std::string& prefix, const char* keyName) {
    return Walk(mMessage, mValuesList, prefix)->ReadVariant(Required(keyName));
}

int Parser::ReadVariantContent(const std::string& prefix, const char* keyName, const char* contents) {
    return Walk(mMessage, mValuesList, prefix)->ReadVariantContent(Required(keyName), contents);
}

int Parser::ReadArrayOfDictionaries(const std::string& prefix) {
    return Walk(mMessage, mValuesList, prefix)->ReadArrayOfDictionaries();
}

int Parser::ParseArrayOfDictionaries(const std::string& prefix) {
    return Walk(mMessage, mValuesList, prefix)->ParseArrayOfDictionaries();
}

std::string Parser::CreatePrefix(const std::string& prefix, const char* name) {
    std::string key = prefix;
    key += KEY_SEPARATOR;
    key += Required(name);
    return key;
}

}  // namespace mw::tern::DBusMessage

TERN_STATIC_TEXT(mw::tern::DBusMessage::Parser::KEY_SEPARATOR, _ZN2mw4tern11DBusMessage6Parser13KEY_SEPARATOR,
                 std::string(1, mw::tern::DBusMessage::SEPARATOR));
