#pragma once

#include <tern/dbus_message/values_list.h>
#include <tern/foundation/api.h>

#include <string>

struct sd_bus_message;

namespace mw::tern::DBusMessage {

/// Reads a sealed sd-bus message and flattens its values into a ValuesList; base of the signature parsers,
/// which read a whole body in one call and suit most code.
///
/// Every value's key is the names on the way to it, each behind KEY_SEPARATOR: an entry "Volume" of a
/// top-level a{sv} is stored as "_Volume", an entry "Port" of a dictionary in the entry "Network" as
/// "_Network_Port". The strings of an "as" have their index, from 0, right behind the name: "_Names0",
/// "_Names1". When two ways give one key the first value stays.
///
/// One thread at a time, on a message that nobody else reads meanwhile. The message is borrowed: it outlives
/// the reading, and longer while descriptors from it are used. It is read from its current position and never
/// rewound. Readers may be combined, each goes on where the last one stopped, all of them fill the same list.
///
/// Outcomes, of every reader: the sd-bus result as it is, 0 or more for success, a negative errno for
/// failure. Without a message (null) that is -EINVAL, with one that is not sealed -EPERM, with another type
/// at this position -ENXIO (-EINVAL when a variant is asked for where a structure of several fields stands, a
/// dictionary entry or an array of those), with malformed content -EBADMSG, with more than 128 containers
/// inside each other -EBADMSG. At the end of an array 0, and nothing is stored or logged. At the end of the
/// body, of a structure or of a variant -ENXIO; there ReadVariant alone returns 0 and logs nothing. Failures
/// are logged with the logger name "Parser", except for those of entering an array "as" or an entry "{sv}".
/// Values that were stored before a failure stay. std::logic_error for a null name, before anything is read;
/// std::bad_alloc when memory is short.
///
/// Limits of one call, what it reads inside other containers included, far above honest use:
/// - The keys and values that it stores, as they are allocated, total at most 64 MiB; beyond, it returns
///   -ENOBUFS and logs an error. A list that many calls fill grows with each of them.
/// - It writes at most 512 lines or about 64 KiB of log, the last 128 lines and 16 KiB of which are kept for
///   errors. Further lines are counted, and summed up in one line when the call ends.
/// - A text from the message is logged up to 1024 bytes, then cut, with "..." in place of the rest. A stored
///   text is never cut.
class TERN_API Parser {
public:
    /// The text before each name in a key: "_".
    static const std::string KEY_SEPARATOR;

    /// Without a message; see SetMessage.
    Parser();
    /// Of this message, which is borrowed.
    explicit Parser(sd_bus_message* message);
    virtual ~Parser();
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    /// Reads another message, or the first one. Values that were read before stay in the list.
    void SetMessage(sd_bus_message* message);

    /// The values read so far; the parser owns them.
    const ValuesList& GetValuesList() const;
    /// As above, to be changed.
    ValuesList& GetValuesList();

    /// @name Basic types
    /// One sd_bus_message_read_basic(3) each; the value is stored under CreatePrefix(prefix, keyName).
    /// @{
    int ReadString(const std::string& prefix, const char* keyName);          ///< "s", GetString
    int ReadBoolean(const std::string& prefix, const char* keyName);         ///< "b", GetBool
    int ReadINT16(const std::string& prefix, const char* keyName);           ///< "n", GetInt16
    int ReadUINT16(const std::string& prefix, const char* keyName);          ///< "q", GetUint16
    int ReadINT32(const std::string& prefix, const char* keyName);           ///< "i", GetInt32
    int ReadUINT32(const std::string& prefix, const char* keyName);          ///< "u", GetUint32
    int ReadINT64(const std::string& prefix, const char* keyName);           ///< "x", GetInt64
    int ReadUINT64(const std::string& prefix, const char* keyName);          ///< "t", GetUint64
    int ReadDouble(const std::string& prefix, const char* keyName);          ///< "d", GetDouble
    int ReadByte(const std::string& prefix, const char* keyName);            ///< "y", GetUint8
    int ReadFileDescriptor(const std::string& prefix, const char* keyName);  ///< "h", GetFD
    /// @}

    /// A structure "(isi)", for GetISI. Stored only when all three fields could be read. Returns the result
    /// of entering the structure, also when a field was malformed.
    int ReadISI(const std::string& prefix, const char* keyName);

    /// An array "as": each string under CreatePrefix(prefix, keyName) and its index. Returns the result of
    /// entering the array; a malformed string ends it early and is not reported.
    int ReadArrayOfStrings(const std::string& prefix, const char* keyName);

    /// A variant with any content that ReadVariantContent takes.
    int ReadVariant(const std::string& prefix, const char* keyName);

    /// The content of a variant that has been entered, `contents` being its signature: one of the basic types
    /// above, "(isi)", "as" or "a{sv}", whose entries get the prefix CreatePrefix(prefix, keyName). Any other
    /// content is stepped over with a message at info level: nothing is stored, 0 is returned.
    int ReadVariantContent(const std::string& prefix, const char* keyName, const char* contents);

    /// An array "a{sv}", dictionaries inside dictionaries included. Returns 0 when all was read. The first
    /// entry that fails ends it.
    int ReadArrayOfDictionaries(const std::string& prefix);

    /// The entries "{sv}" of an array that has been entered; otherwise as ReadArrayOfDictionaries.
    int ParseArrayOfDictionaries(const std::string& prefix);

    /// The key of `name` below `prefix`: prefix, KEY_SEPARATOR, name. std::logic_error when name is null.
    static std::string CreatePrefix(const std::string& prefix, const char* name);

private:
    sd_bus_message* mMessage;  ///< borrowed
    ValuesList mValuesList;
};

}  // namespace mw::tern::DBusMessage
