#pragma once

#include <cstddef>
#include <string_view>

namespace mwl::Typed {

/// A text of N characters that the compiler computes: how D-Bus signatures are put together. Ends with a null
/// character, which N does not count. Immutable once created.
///
///     constexpr auto entry = Text("{") + Text("sv") + Text("}");   // entry.text is "{sv}", entry.SIZE is 4
template <std::size_t N>
struct Text {
    /// Number of characters.
    static constexpr std::size_t SIZE = N;

    char text[N + 1]{};  ///< public, so that a Text can be a template argument

    constexpr Text() = default;
    /// Implicit: a codec writes `static constexpr Text<1> SIGNATURE = "u";`.
    constexpr Text(const char (&literal)[N + 1]) {
        for (std::size_t i = 0; i < N; ++i) {
            text[i] = literal[i];
        }
    }

    /// The characters, valid as long as this.
    constexpr std::string_view View() const { return {text, N}; }  // NOLINT(bugprone-string-constructor)
};

/// So that `Text("sv")` does without the length.
template <std::size_t N>
Text(const char (&)[N]) -> Text<N - 1>;

/// One text after the other.
template <std::size_t A, std::size_t B>
constexpr Text<A + B> operator+(const Text<A>& first, const Text<B>& second) {
    Text<A + B> sum;
    for (std::size_t i = 0; i < A; ++i) {
        sum.text[i] = first.text[i];
    }
    for (std::size_t i = 0; i < B; ++i) {
        sum.text[A + i] = second.text[i];
    }
    return sum;
}

/// The characters are the same.
template <std::size_t A, std::size_t B>
constexpr bool operator==(const Text<A>& first, const Text<B>& second) {
    return first.View() == second.View();
}

}  // namespace mwl::Typed
