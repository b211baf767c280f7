#pragma once

// D-Bus's own types. Include <tern/typed/codec.h>, which has all of the codecs.

#include <tern/typed/basic.h>

#include <compare>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

namespace mwl::Typed {

/// Whether `text` is an object path: "/", or elements of ASCII letters, digits and '_', each behind a '/'; at
/// most 64 KiB, as sd-bus has it.
constexpr bool IsObjectPath(std::string_view text) {
    if (text.empty() || text.front() != '/' || text.size() > std::size_t{64} * 1024) {
        return false;
    }
    if (text.size() > 1 && text.back() == '/') {
        return false;
    }
    for (std::size_t i = 1; i < text.size(); ++i) {
        const char c = text[i];
        const bool isElement =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        if (!isElement && (c != '/' || text[i - 1] == '/')) {
            return false;
        }
    }
    return true;
}

namespace Detail {

constexpr bool IsBasicCode(char code) {
    return std::string_view("ybnqiuxtdsogh").find(code) != std::string_view::npos;
}

/// The end of the complete type that begins at `at`; 0 when there is none.
constexpr std::size_t EndOfType(std::string_view text, std::size_t at, unsigned arrays = 0,
                                unsigned structures = 0) {
    constexpr unsigned DEEPEST = 32;  // of arrays, and of structures and entries
    if (at >= text.size()) {
        return 0;
    }
    if (IsBasicCode(text[at]) || text[at] == 'v') {
        return at + 1;
    }
    if (text[at] == 'a' && arrays < DEEPEST) {
        if (at + 1 >= text.size() || text[at + 1] != '{') {
            return EndOfType(text, at + 1, arrays + 1, structures);
        }
        if (structures >= DEEPEST || at + 2 >= text.size() || !IsBasicCode(text[at + 2])) {
            return 0;
        }
        const std::size_t end = EndOfType(text, at + 3, arrays + 1, structures + 1);
        return end != 0 && end < text.size() && text[end] == '}' ? end + 1 : 0;
    }
    if (text[at] == '(' && structures < DEEPEST) {
        std::size_t end = at + 1;
        do {
            end = EndOfType(text, end, arrays, structures + 1);
        } while (end != 0 && end < text.size() && text[end] != ')');
        return end != 0 && end < text.size() ? end + 1 : 0;
    }
    return 0;
}

/// Exactly one complete type; also what types without a codec have, which has been reported already.
constexpr bool IsOneType(std::string_view text) {
    return text.find('?') != std::string_view::npos || (!text.empty() && EndOfType(text, 0) == text.size());
}

}  // namespace Detail

/// Whether `text` is a D-Bus signature: any number of complete types, also none; at most 255 characters, 32
/// arrays and 32 structures inside each other.
constexpr bool IsSignature(std::string_view text) {
    std::size_t at = 0;
    while (at < text.size()) {
        at = Detail::EndOfType(text, at);
        if (at == 0) {
            return false;
        }
    }
    return text.size() <= 255;
}

/// Text that has been checked to be of the D-Bus type CODE, 'o' or 'g'. Use ObjectPath and Signature.
///
/// A literal is checked by the compiler: `ObjectPath("/com/example")` compiles, `ObjectPath("com/example")`
/// does not. A text that is known only at run time is checked by From, which gives nothing for a wrong text.
/// Values from a message were checked by sd-bus. One thread at a time, like std::string.
template <char CODE>
class CheckedText {
public:
    static_assert(CODE == 'o' || CODE == 'g');

    /// A literal of the right form; every other one is an error of the compiler.
    struct Literal {
        /// Implicit, because a literal is to be passed here.
        consteval Literal(const char* literal) : text(literal) {
            if (!Check(text)) {
                throw "this literal is no object path, or no signature";  // never reached: the compiler stops
                                                                          // here
            }
        }
        std::string_view text;  ///< the literal
    };

    /// "/", or the empty signature.
    CheckedText() : mText(CODE == 'o' ? "/" : "") {}
    /// From a literal.
    explicit CheckedText(Literal literal) : mText(literal.text) {}
    /// Nothing when `text` is not of the right form. std::bad_alloc when memory is short.
    // NOLINTNEXTLINE(performance-unnecessary-value-param): it is moved into the result
    static std::optional<CheckedText> From(std::string text) {
        if (!Check(text)) {
            return std::nullopt;
        }
        CheckedText checked;
        checked.mText = std::move(text);
        return checked;
    }
    /// Whether `text` is of the right form.
    static constexpr bool Check(std::string_view text) {
        return CODE == 'o' ? IsObjectPath(text) : IsSignature(text);
    }

    /// Empty as a path after the object was moved from; it is then refused when sent.
    const std::string& GetText() const { return mText; }

    /// The texts are the same.
    friend bool operator==(const CheckedText&, const CheckedText&) = default;
    /// By bytes.
    friend std::strong_ordering operator<=>(const CheckedText& a, const CheckedText& b) {
        return a.mText.compare(b.mText) <=> 0;
    }

private:
    friend struct Codec<CheckedText>;
    std::string mText;
};

/// Type 'o'.
using ObjectPath = CheckedText<'o'>;
/// Type 'g'.
using Signature = CheckedText<'g'>;

template <char CODE>
struct Codec<CheckedText<CODE>> : Detail::OfCode<CODE> {
    static int Write(sd_bus_message* message, const CheckedText<CODE>& value) {
        return sd_bus_message_append_basic(message, CODE, value.mText.c_str());
    }
    static int Read(sd_bus_message* message, CheckedText<CODE>& value, Fault&) {
        return Detail::ReadText(message, CODE, value.mText);
    }
};

/// A file descriptor of one's own, closed with the object; -1 is none.
///
/// Read from a message it is a duplicate, close-on-exec and at least 3, so that it stays when the message
/// goes and never becomes standard input or output by chance. When it is sent, sd-bus duplicates it: the
/// object keeps its own. One thread at a time.
class OwnedFd {
public:
    OwnedFd() noexcept = default;
    /// Takes the descriptor over.
    explicit OwnedFd(int fd) noexcept : mFd(fd) {}
    /// Takes the descriptor over; `other` has none then.
    OwnedFd(OwnedFd&& other) noexcept : mFd(other.Release()) {}
    /// The one held before is closed.
    OwnedFd& operator=(OwnedFd&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    ~OwnedFd() { Reset(); }

    /// A duplicate, close-on-exec and at least 3; none when that fails, `errno` says why (fcntl(2)).
    TERN_API static OwnedFd Duplicate(int fd) noexcept;

    /// The descriptor; -1 for none.
    int Get() const noexcept { return mFd; }
    /// Whether there is one.
    explicit operator bool() const noexcept { return mFd >= 0; }
    /// Gives the descriptor away; the caller closes it.
    [[nodiscard]] int Release() noexcept { return std::exchange(mFd, -1); }
    /// Closes the descriptor, if there is one, and takes `fd` over. `errno` is preserved.
    void Reset(int fd = -1) noexcept {
        const int old = std::exchange(mFd, fd);
        if (old >= 0) {
            Close(old);
        }
    }

private:
    TERN_API static void Close(int fd) noexcept;

    int mFd = -1;
};

/// A file descriptor of somebody else, who keeps it open: the message that it was read from, so that it is
/// valid while the handler runs, or the caller that sends it. -1 is none and cannot be sent.
struct BorrowedFd {
    int fd = -1;  ///< the message's; not to be closed
};

template <>
struct Codec<OwnedFd> : Detail::OfCode<'h'> {
    TERN_API static int Write(sd_bus_message* message, const OwnedFd& value);
    /// Also -EMFILE and other errors of fcntl(2).
    TERN_API static int Read(sd_bus_message* message, OwnedFd& value, Fault& fault);
};

template <>
struct Codec<BorrowedFd> : Detail::OfCode<'h'> {
    static int Write(sd_bus_message* message, BorrowedFd value) {
        return sd_bus_message_append_basic(message, 'h', &value.fd);
    }
    static int Read(sd_bus_message* message, BorrowedFd& value, Fault&) {
        return sd_bus_message_read_basic(message, 'h', &value.fd);
    }
};
/// The descriptor is the message's.
template <>
inline constexpr bool BORROWS<BorrowedFd> = true;

/// Several output arguments of a method, in order. It is a result only: for an argument, or in a container,
/// use std::tuple, which is one structure.
template <class... T>
struct Results : std::tuple<T...> {
    using std::tuple<T...>::tuple;
};
/// So that `Results(path, size)` does without the types.
template <class... T>
Results(T...) -> Results<T...>;

/// Says of an argument that points into its message (BORROWS) that the handler knows it: `value` must not be
/// used once the handler has returned. On the bus it is a T.
template <class T>
struct Borrow {
    T value{};  ///< as the type T has it

    /// The value.
    const T& operator*() const { return value; }
    /// The value's members.
    const T* operator->() const { return &value; }
};

template <class T>
struct Codec<Borrow<T>> {
    static constexpr auto SIGNATURE = Codec<T>::SIGNATURE;
    static int Write(sd_bus_message* message, const Borrow<T>& value) {
        return Codec<T>::Write(message, value.value);
    }
    static int Read(sd_bus_message* message, Borrow<T>& value, Fault& fault) {
        return Codec<T>::Read(message, value.value, fault);
    }
};

/// The handler knows, and has said so.
template <class T>
inline constexpr bool BORROWS<Borrow<T>> = false;

/// The signature of values one after the other, as a Text; references and const do not count. Does not
/// compile when a Codec of one's own has a SIGNATURE that is not one complete type, or all together are no
/// signature.
template <class... T>
constexpr auto MakeSignature() {
    constexpr auto sum = (Text<0>() + ... + Codec<std::remove_cvref_t<T>>::SIGNATURE);
    static_assert((Detail::IsOneType(Codec<std::remove_cvref_t<T>>::SIGNATURE.View()) && ...),
                  "the SIGNATURE of a Codec is not one complete D-Bus type of at most 32 levels");
    static_assert(sum.SIZE <= 255, "a D-Bus signature has at most 255 characters");
    return sum;
}

/// As MakeSignature: `SIGNATURE<std::uint32_t, std::string>.text` is "us".
template <class... T>
inline constexpr auto SIGNATURE = MakeSignature<T...>();

}  // namespace mwl::Typed

template <char CODE>
struct std::hash<mwl::Typed::CheckedText<CODE>> {
    std::size_t operator()(const mwl::Typed::CheckedText<CODE>& value) const noexcept {
        return std::hash<std::string>()(value.GetText());
    }
};

// Results decompose like the tuples that they are.
template <class... T>
struct std::tuple_size<mwl::Typed::Results<T...>> : std::tuple_size<std::tuple<T...>> {};
template <std::size_t I, class... T>
struct std::tuple_element<I, mwl::Typed::Results<T...>> : std::tuple_element<I, std::tuple<T...>> {};
