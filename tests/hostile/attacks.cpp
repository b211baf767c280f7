#include "attacks.h"

#include "dbus_message/raw_messages.h"

namespace hostile {

namespace {

using tern::test::WireWriter;

void BeginEntry(WireWriter& writer, const std::string& name, const char* signature) {
    writer.Align(8);
    writer.String(name);
    writer.Signature(signature);
}

/// An "a{sv}" with one entry, which `write` writes, again and again.
template <typename Write>
std::string Repeated(std::size_t bytes, Write write) {
    constexpr std::size_t LONGEST = 64;
    WireWriter writer;
    const WireWriter::Array array = writer.BeginArray(8);
    for (std::size_t i = 0; writer.Bytes().size() + LONGEST < bytes; ++i) {
        write(writer, i);
    }
    writer.EndArray(array);
    return writer.Bytes();
}

/// An "a{sv}" with an entry that holds an array of what `write` writes, again and again.
template <typename Write>
std::string OneArray(std::size_t bytes, const char* signature, Write write) {
    constexpr std::size_t AROUND = 64;
    WireWriter writer;
    const WireWriter::Array array = writer.BeginArray(8);
    BeginEntry(writer, "A", signature);
    const WireWriter::Array inner = writer.BeginArray(4);
    while (writer.Bytes().size() + AROUND < bytes) {
        write(writer);
    }
    writer.EndArray(inner);
    writer.EndArray(array);
    return writer.Bytes();
}

std::string OneText(std::size_t bytes) {
    constexpr std::size_t AROUND = 64;
    WireWriter writer;
    const WireWriter::Array array = writer.BeginArray(8);
    BeginEntry(writer, "T", "s");
    writer.String(std::string(bytes - AROUND, 't'));
    writer.EndArray(array);
    return writer.Bytes();
}

std::string EmptyStrings(std::size_t bytes) {
    return OneArray(bytes, "as", [](WireWriter& writer) { writer.String(""); });
}

std::string DistinctBytes(std::size_t bytes) {
    return Repeated(bytes, [](WireWriter& writer, std::size_t i) {
        BeginEntry(writer, std::to_string(i), "y");
        writer.Byte(1);
    });
}

std::string Int16s(std::size_t bytes) {
    return Repeated(bytes, [](WireWriter& writer, std::size_t) {
        BeginEntry(writer, "", "n");
        writer.Byte(1);
        writer.Byte(0);
    });
}

std::string Int32s(std::size_t bytes) {
    return Repeated(bytes, [](WireWriter& writer, std::size_t) {
        BeginEntry(writer, "", "i");
        writer.Uint32(1);
    });
}

std::string Unsupported(std::size_t bytes) {
    return Repeated(bytes, [](WireWriter& writer, std::size_t) {
        BeginEntry(writer, "", "g");
        writer.Signature("");
    });
}

/// As deep as the message bus lets pass, with entries at the bottom whose keys do not fit.
std::string Levels(std::size_t bytes) {
    constexpr std::size_t DEPTH = 20;
    WireWriter writer;
    std::vector<WireWriter::Array> arrays{writer.BeginArray(8)};
    for (std::size_t level = 1; level < DEPTH; ++level) {
        BeginEntry(writer, std::string(bytes / DEPTH, 'n'), "a{sv}");
        arrays.push_back(writer.BeginArray(8));
    }
    for (int i = 0; i < 100; ++i) {
        BeginEntry(writer, std::to_string(i), "y");
        writer.Byte(1);
    }
    for (auto array = arrays.rbegin(); array != arrays.rend(); ++array) {
        writer.EndArray(*array);
    }
    return writer.Bytes();
}

std::string Bytes(std::size_t bytes) {
    return OneArray(bytes, "ay", [](WireWriter& writer) { writer.Byte(1); });
}

std::string Booleans(std::size_t bytes) {
    return OneArray(bytes, "ab", [](WireWriter& writer) { writer.Uint32(1); });
}

std::string Variants(std::size_t bytes) {
    return OneArray(bytes, "av", [](WireWriter& writer) {
        writer.Signature("y");
        writer.Byte(1);
    });
}

std::string Structures(std::size_t bytes) {
    return Repeated(bytes, [](WireWriter& writer, std::size_t) {
        writer.Align(8);
        writer.String("");
        writer.EndArray(writer.BeginArray(8));
    });
}

}  // namespace

const std::vector<Attack>& Attacks() {
    static const char* const DICTIONARY = "ParseDictionary";
    static const std::vector<Attack> attacks = {
        {"one-text", "one text, for comparison", DICTIONARY, "a{sv}", OneText},
        {"empty-strings", "an array of empty strings", DICTIONARY, "a{sv}", EmptyStrings},
        {"bytes", "bytes, each with a name of its own", DICTIONARY, "a{sv}", DistinctBytes},
        {"int16", "INT16, which are logged at info level", DICTIONARY, "a{sv}", Int16s},
        {"int32-debug", "INT32, with the service at debug level", DICTIONARY, "a{sv}", Int32s, "debug"},
        {"unsupported", "variants of a type that no list keeps", DICTIONARY, "a{sv}", Unsupported},
        {"structures", "structures, whose names are logged at info level", "ParseStructures", "a(sa{sv})",
         Structures},
        {"levels", "20 levels of long names that end in an error", DICTIONARY, "a{sv}", Levels},
        {"skip-bytes", "an array of bytes, which no list keeps", DICTIONARY, "a{sv}", Bytes},
        {"skip-booleans", "an array of booleans, the same", DICTIONARY, "a{sv}", Booleans},
        {"skip-variants", "an array of variants, the same", DICTIONARY, "a{sv}", Variants},
    };
    return attacks;
}

}  // namespace hostile
