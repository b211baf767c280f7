#include <tern/typed/any.h>

#include <array>
#include <charconv>
#include <cstring>

#include "foundation/handle.h"

namespace mwl::Typed {

namespace {

/// Bytes of an element of an array that is kept as it lies in the message; 0 of every other code.
std::size_t SizeOfFixed(char code) {
    switch (code) {
        case 'y':
            return 1;
        case 'n':
        case 'q':
            return 2;
        case 'i':
        case 'u':
            return 4;
        case 'x':
        case 't':
        case 'd':
            return 8;
        default:
            return 0;
    }
}

/// As above, of an array's signature.
std::size_t SizeOfElement(std::string_view signature) {
    return signature.size() == 2 && signature[0] == 'a' ? SizeOfFixed(signature[1]) : 0;
}

/// sd-bus's name of the container that a signature begins; '\0' for basic types.
char ContainerOf(char first) {
    switch (first) {
        case 'a':
        case 'v':
            return first;
        case '(':
            return 'r';
        case '{':
            return 'e';
        default:
            return '\0';
    }
}

/// As sd-bus passes a value of basic type.
union Basic {
    std::uint8_t y;
    std::int16_t n;
    std::uint16_t q;
    std::int32_t i;
    std::uint32_t u;
    std::int64_t x;
    std::uint64_t t;
    double d;
};

/// The value as Any keeps it.
template <class Value>
Value FromBasic(char code, const Basic& basic) {
    switch (code) {
        case 'y':
            return std::uint64_t{basic.y};
        case 'n':
            return std::int64_t{basic.n};
        case 'q':
            return std::uint64_t{basic.q};
        case 'i':
            return std::int64_t{basic.i};
        case 'b':
        case 'u':
            return std::uint64_t{basic.u};
        case 'x':
            return basic.x;
        case 't':
            return basic.t;
        default:
            return basic.d;
    }
}

Basic ToBasic(char code, std::uint64_t number) {
    Basic basic{};
    switch (code) {
        case 'y':
            basic.y = static_cast<std::uint8_t>(number);
            break;
        case 'n':
        case 'q':
            basic.q = static_cast<std::uint16_t>(number);
            break;
        case 'b':
        case 'i':
        case 'u':
            basic.u = static_cast<std::uint32_t>(number);
            break;
        default:
            basic.t = number;
            break;
    }
    return basic;
}

using Message = Handle<sd_bus_message, sd_bus_message_unref>;

/// A message of nobody's; null when memory is short. sd-bus wants a connection that has been one: a closed
/// one does, and needs no descriptor.
Message MakeScratch() {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) {
        return nullptr;
    }
    sd_bus_close(bus);
    sd_bus_message* message = nullptr;
    const int result = sd_bus_message_new_method_call(bus, &message, nullptr, "/", "mwl.Typed", "Any");
    static_cast<void>(sd_bus_unref(bus));
    return Message(result < 0 ? nullptr : message);
}

/// Makes a written message a readable one.
bool Turn(const Message& message) {
    return sd_bus_message_seal(message.get(), 1, 0) >= 0 && sd_bus_message_rewind(message.get(), 1) >= 0;
}

}  // namespace

/// Reads the content of one variant, what is inside it included.
class Any::Reader {
public:
    Reader(sd_bus_message* message, Fault& fault) : mMessage(message), mFault(fault) {}

    /// `depth` containers are around it. Outcomes: as Typed::Read; 0 also at the end of a structure or
    /// variant.
    int Read(Any& any, unsigned depth) {
        char type = '\0';
        const char* contents = nullptr;
        int result = sd_bus_message_peek_type(mMessage, &type, &contents);
        if (result <= 0) {
            return result;
        }
        if (mLeft == 0) {
            return mFault.TooMany();
        }
        --mLeft;
        switch (type) {
            case 'h':
                return mFault.Refuse("a file descriptor where none can be kept");
            case 's':
            case 'o':
            case 'g': {
                std::string text;
                result = Detail::ReadText(mMessage, type, text);
                any = Any(std::string(1, type), std::move(text));
                return result;
            }
            case 'a':
            case 'r':
            case 'e':
            case 'v':
                return depth < MAX_NESTING ? ReadContainer(any, type, contents, depth)
                                           : mFault.Refuse("more than 32 containers inside each other");
            default: {
                Basic basic{};
                result = sd_bus_message_read_basic(mMessage, type, &basic);
                any = Any(std::string(1, type), FromBasic<Value>(type, basic));
                return result;
            }
        }
    }

private:
    int ReadContainer(Any& any, char type, const char* contents, unsigned depth) {
        static_assert(MAX_NESTING == 32);  // as the text above says
        std::string signature;
        switch (type) {
            case 'a':
                signature = std::string("a") + contents;
                break;
            case 'r':
                signature = std::string("(") + contents + ")";
                break;
            case 'e':
                signature = std::string("{") + contents + "}";
                break;
            default:
                signature = "v";
                break;
        }
        if (SizeOfElement(signature) != 0) {
            return ReadNumbers(any, std::move(signature));
        }
        int result = sd_bus_message_enter_container(mMessage, type, contents);
        if (result <= 0) {
            return result;
        }
        std::vector<Any> children;
        for (;;) {
            Any child;
            result = Read(child, depth + 1);
            if (result <= 0) {
                break;
            }
            children.push_back(std::move(child));
        }
        if (result < 0) {
            return result;
        }
        any = Any(std::move(signature), std::move(children));
        return sd_bus_message_exit_container(mMessage);
    }

    int ReadNumbers(Any& any, std::string signature) {
        const char code = signature[1];
        const std::size_t size = SizeOfFixed(code);
        const void* data = nullptr;
        std::size_t length = 0;
        std::string bytes;
        const int result = Detail::ReadBulk(mMessage, code, size, data, length, &bytes, mFault);
        if (result < 0) {
            return result;
        }
        if (bytes.empty() && length > 0) {
            bytes.assign(static_cast<const char*>(data), length);
        }
        any = Any(std::move(signature), std::move(bytes));
        return result;
    }

    sd_bus_message* mMessage;
    Fault& mFault;
    std::size_t mLeft = MAX_ELEMENTS;
};

/// Appends what Reader read.
class Any::Writer {
public:
    explicit Writer(sd_bus_message* message) : mMessage(message) {}

    /// As one of the type.
    int WriteAs(std::string_view type, const Any& any, Fault& fault) {
        if (any.IsEmpty()) {
            return fault.Refuse("no value");
        }
        if (any.mSignature == type) {
            return Write(any);
        }
        if (type != "v") {
            return fault.WrongType(any.mSignature.c_str(), std::string(type).c_str());
        }
        return any.mSignature[0] == '{' ? fault.WrongType(any.mSignature.c_str(), "v") : WriteVariant(any);
    }

    /// As a variant.
    int WriteVariant(const Any& any) {
        int result = sd_bus_message_open_container(mMessage, 'v', any.mSignature.c_str());
        if (result >= 0) {
            result = Write(any);
        }
        return result < 0 ? result : sd_bus_message_close_container(mMessage);
    }

private:
    int Write(const Any& any) {
        const char code = any.mSignature[0];
        if (const auto* const text = std::get_if<std::string>(&any.mValue)) {
            if (SizeOfElement(any.mSignature) != 0) {
                return sd_bus_message_append_array(mMessage, any.mSignature[1], text->data(), text->size());
            }
            // Paths and signatures are left to sd-bus, which takes some that IsSignature does not.
            return code == 's' ? AppendText(mMessage, code, *text)
                               : sd_bus_message_append_basic(mMessage, code, text->c_str());
        }
        if (const auto* const children = std::get_if<std::vector<Any>>(&any.mValue)) {
            return code == 'v' ? WriteVariant(children->front()) : WriteContainer(any.mSignature, *children);
        }
        Basic basic{};
        if (const auto* const number = std::get_if<std::uint64_t>(&any.mValue)) {
            basic = ToBasic(code, *number);
        } else if (const auto* const signedNumber = std::get_if<std::int64_t>(&any.mValue)) {
            basic = ToBasic(code, static_cast<std::uint64_t>(*signedNumber));
        } else {
            basic.d = std::get<double>(any.mValue);
        }
        return sd_bus_message_append_basic(mMessage, code, &basic);
    }

    int WriteContainer(const std::string& signature, const std::vector<Any>& children) {
        const std::string contents =
            signature[0] == 'a' ? signature.substr(1) : signature.substr(1, signature.size() - 2);
        int result = sd_bus_message_open_container(mMessage, ContainerOf(signature[0]), contents.c_str());
        for (auto child = children.begin(); result >= 0 && child != children.end(); ++child) {
            result = Write(*child);
        }
        return result < 0 ? result : sd_bus_message_close_container(mMessage);
    }

    sd_bus_message* mMessage;
};

/// Makes the text of ToText.
class Any::Printer {
public:
    void Print(const Any& any) {
        const char code = any.IsEmpty() ? '\0' : any.mSignature[0];
        switch (code) {
            case 'a': {
                const bool isDictionary = any.mSignature[1] == '{';
                PrintAll(any, isDictionary ? '{' : '[', ", ", isDictionary ? '}' : ']');
                break;
            }
            case '(':
                PrintAll(any, '(', ", ", ')');
                break;
            case '{':
                PrintAll(any, '\0', ": ", '\0');
                break;
            case 'v':
                PrintAll(any, '<', "", '>');
                break;
            default:
                std::visit([this, code](const auto& value) { PrintBasic(code, value); }, any.mValue);
                break;
        }
    }

    std::string Take() { return std::move(mText); }

private:
    void PrintAll(const Any& any, char open, const char* between, char close) {
        if (open != '\0') {
            mText += open;
        }
        const std::size_t size = any.Size();
        for (std::size_t i = 0; i < size; ++i) {
            if (i > 0) {
                mText += between;
            }
            if (const auto* const children = std::get_if<std::vector<Any>>(&any.mValue)) {
                Print((*children)[i]);
            } else {
                Print(any.At(i));
            }
        }
        if (close != '\0') {
            mText += close;
        }
    }

    void PrintBasic(char, std::monostate) {}
    void PrintBasic(char, const std::vector<Any>&) {}
    void PrintBasic(char code, std::uint64_t value) {
        if (code == 'b') {
            mText += value != 0 ? "true" : "false";
        } else {
            PrintNumber(value);
        }
    }
    void PrintBasic(char, std::int64_t value) { PrintNumber(value); }
    void PrintBasic(char, double value) { PrintNumber(value); }
    void PrintBasic(char, const std::string& text) {
        mText += '"';
        for (const char c : text) {
            const auto byte = static_cast<unsigned char>(c);
            if (byte < 0x20 || byte == 0x7f) {
                constexpr char DIGITS[] = "0123456789abcdef";
                mText += "\\x";
                mText += DIGITS[byte >> 4];
                mText += DIGITS[byte & 0xf];
                continue;
            }
            if (c == '"' || c == '\\') {
                mText += '\\';
            }
            mText += c;
        }
        mText += '"';
    }

    template <class T>
    void PrintNumber(T value) {
        std::array<char, 32> text;  // the shortest text of a double has at most 24 characters
        const std::to_chars_result result = std::to_chars(text.data(), text.data() + text.size(), value);
        mText.append(text.data(), result.ptr);
    }

    std::string mText;
};

Any::Any() noexcept = default;
Any::Any(const Any& other) : mSignature(other.mSignature) {
    // Assigned: when the copy of a variant of texts and vectors throws, the library of g++ destroys a value
    // that was never made, as it takes such a variant to have one always.
    mValue = other.mValue;
}
Any::Any(Any&& other) noexcept = default;
Any& Any::operator=(const Any& other) {
    Any copy(other);  // or signature and value would not fit together, where memory is short
    *this = std::move(copy);
    return *this;
}
Any& Any::operator=(Any&& other) noexcept = default;
Any::~Any() = default;

Any::Any(std::string signature, Value value) : mSignature(std::move(signature)), mValue(std::move(value)) {}

int WriteAny(sd_bus_message* message, const Any& any) {
    return any.IsEmpty() ? -EINVAL : Any::Writer(message).WriteVariant(any);
}

int ReadAny(sd_bus_message* message, Any& any, Fault& fault) {
    const char* contents = nullptr;
    int result = Detail::PeekVariant(message, contents);
    if (result > 0) {
        result = sd_bus_message_enter_container(message, 'v', contents);
    }
    if (result <= 0) {
        return result;
    }
    Any read;
    result = Any::Reader(message, fault).Read(read, 0);
    if (result >= 0) {
        result = sd_bus_message_exit_container(message);
    }
    if (result >= 0) {
        any = std::move(read);
    }
    return result;
}

int WriteAnyAs(sd_bus_message* message, std::string_view type, const Any& any, Fault& fault) {
    return Any::Writer(message).WriteAs(type, any, fault);
}

int ReadAnyEach(sd_bus_message* message, std::vector<Any>& values, Fault& fault, unsigned& index) {
    Any::Reader reader(message, fault);
    std::vector<Any> all;
    for (;;) {
        Any value;
        const int result = reader.Read(value, 0);
        if (result < 0) {
            index = static_cast<unsigned>(all.size());
            return result;
        }
        if (result == 0) {
            values = std::move(all);
            return 0;
        }
        all.push_back(std::move(value));
    }
}

Any Any::FromNumber(const char* signature, std::uint64_t number) {
    return Any(signature, number);
}

Any Any::FromNumber(const char* signature, std::int64_t number) {
    return Any(signature, number);
}

Any Any::FromNumber(const char* signature, double number) {
    return Any(signature, number);
}

Any Any::FromText(std::string_view text) {
    return IsText(text) ? Any("s", std::string(text)) : Any();
}

Any Any::FromMessage(const char* signature, const void* value,
                     int (*write)(sd_bus_message* message, const void* value)) {
    const Message message = MakeScratch();
    Any any;
    Fault fault;
    if (message == nullptr || sd_bus_message_open_container(message.get(), 'v', signature) < 0 ||
        write(message.get(), value) < 0 || sd_bus_message_close_container(message.get()) < 0 ||
        !Turn(message) || ReadAny(message.get(), any, fault) <= 0) {
        return Any();
    }
    return any;
}

Any Any::Compose(std::string_view signature, const std::vector<Any>& parts) {
    const char container = signature.empty() ? '\0' : ContainerOf(signature[0]);
    const std::string whole(container == 'e' ? "a" + std::string(signature) : signature);
    if (container == '\0' || Detail::EndOfType(whole, 0) != whole.size() ||
        (container == 'v' && parts.size() != 1)) {
        return Any();
    }
    const std::string contents(container == 'v'   ? parts[0].mSignature
                               : container == 'a' ? signature.substr(1)
                                                  : signature.substr(1, signature.size() - 2));
    struct Given {
        char container;
        const std::string& contents;
        const std::vector<Any>& parts;
    };
    const Given given{container, contents, parts};
    // An entry is written as a structure, because there is no entry without its array.
    const std::string written = container == 'e' ? "(" + contents + ")" : whole;
    Any made = FromMessage(written.c_str(), &given, [](sd_bus_message* message, const void* value) {
        const Given& its = *static_cast<const Given*>(value);
        int result = sd_bus_message_open_container(message, its.container == 'e' ? 'r' : its.container,
                                                   its.contents.c_str());
        const bool isOfFields = its.container == 'r' || its.container == 'e';
        Fault fault;
        std::string_view rest = its.contents;
        for (auto part = its.parts.begin(); result >= 0 && part != its.parts.end(); ++part) {
            // Behind the last field 0, which nothing fits.
            const std::size_t size = isOfFields ? Detail::EndOfType(rest, 0) : rest.size();
            result = Writer(message).WriteAs(rest.substr(0, size), *part, fault);
            rest.remove_prefix(isOfFields ? size : 0);
        }
        return result < 0 ? result : sd_bus_message_close_container(message);
    });
    if (container == 'e' && !made.IsEmpty()) {
        made.mSignature = signature;
    }
    return made;
}

bool Any::ToMessage(void* value, int (*read)(sd_bus_message* message, void* value)) const {
    const Message message = MakeScratch();
    return message != nullptr && WriteAny(message.get(), *this) >= 0 && Turn(message) &&
           sd_bus_message_enter_container(message.get(), 'v', mSignature.c_str()) > 0 &&
           read(message.get(), value) > 0;
}

std::size_t Any::Size() const {
    if (const auto* const children = std::get_if<std::vector<Any>>(&mValue)) {
        return children->size();
    }
    const std::size_t size = SizeOfElement(mSignature);
    return size == 0 ? 0 : std::get<std::string>(mValue).size() / size;
}

Any Any::At(std::size_t index) const {
    if (index >= Size()) {
        return Any();
    }
    if (const auto* const children = std::get_if<std::vector<Any>>(&mValue)) {
        return (*children)[index];
    }
    const std::size_t size = SizeOfElement(mSignature);
    Basic basic{};
    std::memcpy(&basic, std::get<std::string>(mValue).data() + index * size, size);
    return Any(mSignature.substr(1), FromBasic<Value>(mSignature[1], basic));
}

std::string Any::ToText() const {
    Printer printer;
    printer.Print(*this);
    return printer.Take();
}

bool Any::operator==(const Any& other) const {
    if (mSignature != other.mSignature) {
        return false;
    }
    if (mSignature != "ad") {
        return mValue == other.mValue;
    }
    const std::size_t size = Size();
    if (size != other.Size()) {
        return false;
    }
    for (std::size_t i = 0; i < size; ++i) {
        if (At(i) != other.At(i)) {
            return false;
        }
    }
    return true;
}

}  // namespace mwl::Typed
