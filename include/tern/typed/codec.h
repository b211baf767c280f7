#pragma once

/// Which C++ type is which D-Bus type. Including this is what a file that passes values needs.
///
/// | C++                                         | D-Bus          |                                        |
/// |---------------------------------------------|----------------|----------------------------------------|
/// | std::uint8_t, std::int16_t to std::uint64_t | y n q i u x t  | by size and sign, so also long         |
/// | double, bool                                | d b            |                                        |
/// | std::string                                 | s              | UTF-8 without a null character         |
/// | std::string_view                            | s              | read: points into the message          |
/// | const char*, a literal                      | s              | sent only                              |
/// | ObjectPath, Signature                       | o g            | checked when made                      |
/// | OwnedFd                                     | h              | read: a duplicate of its own           |
/// | BorrowedFd                                  | h              | read: the message's                    |
/// | std::vector<T>                              | aT             |                                        |
/// | std::array<T, N>                            | aT             | exactly N                              |
/// | std::span<const T>                          | aT             | numbers; read: points into the message |
/// | std::map<K, V>, std::unordered_map<K, V>    | a{KV}          | K is a basic type                      |
/// | std::tuple, std::pair, an aggregate         | (...)          | 1 to 16 fields of an aggregate         |
/// | an aggregate with DBusFields()              | a{sv}          | Fields, StrictFields                   |
/// | an enumeration with DBusEnum()              | its integer, s | EnumText for text                      |
/// | std::variant<T...>                          | v              | one of these types                     |
/// | Any                                         | v              | every type but h                       |
/// | Borrow<T>                                   | as T           | the handler knows that T is borrowed   |
/// | Results<T...>                               | several        | of a method only                       |
/// | with a Codec<T> of one's own                | its SIGNATURE  |                                        |
///
/// A value that points into the message is valid until the handler returns; BORROWS<T> says of which types
/// that is true. A container has at most MAX_ELEMENTS elements, a signature 255 characters, 32 arrays and 32
/// structures inside each other; an Any is at most 32 containers deep.
///
/// A message bus ends the connection, and so the service, of whoever sends an array of more than 64 MiB or a
/// message that is larger than it takes: dbus-daemon's system bus 32 MiB, unless it is configured otherwise,
/// and 128 MiB at most. sd-bus sends them, and nothing here counts bytes: what may become so large goes
/// through a descriptor.

#include <tern/typed/any.h>
#include <tern/typed/basic.h>
#include <tern/typed/containers.h>
#include <tern/typed/enums.h>
#include <tern/typed/fault.h>
#include <tern/typed/fields.h>
#include <tern/typed/structures.h>
#include <tern/typed/text.h>
#include <tern/typed/types.h>
#include <tern/typed/variants.h>
