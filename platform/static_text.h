#pragma once

#include <cstddef>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

// Texts of static storage that live for ever: loading builds them, nothing destroys them. A thread that still
// runs while exit(3) or the unloading runs, and a destructor of a static object, thus never meet a dead text.
// No destructor is registered, not even one that does nothing.

namespace mwl {

/// A text of one source file, a logger name above all: `const StaticText LOGGER("Threading::ThreadPool");`
/// Immutable; any thread. For static storage only: memory of a long text is given back by nobody.
class StaticText {
public:
    explicit StaticText(std::string text) noexcept { new (mStorage) std::string(std::move(text)); }
    StaticText(const StaticText&) = delete;
    StaticText& operator=(const StaticText&) = delete;

    const std::string& Get() const noexcept {
        return *std::launder(reinterpret_cast<const std::string*>(mStorage));
    }
    operator const std::string&() const noexcept { return Get(); }  // NOLINT(google-explicit-constructor)
    const char* c_str() const noexcept { return Get().c_str(); }

private:
    alignas(std::string) std::byte mStorage[sizeof(std::string)];
};

}  // namespace mwl

/// Defines `object`, a static or namespace-scope `const std::string` that a public header declares, so that
/// its type would have it destroyed. Stands outside of every namespace. `symbol` is the object's name as the
/// linker knows it, without the tag and the E at its end: plain storage takes that name, and the text is
/// built there by its public name, because a program that is not position-independent holds the one copy
/// itself. A wrong symbol does not link.
///
///     TERN_STATIC_TEXT(mwl::Threading::Common::mLogger, _ZN3mwl9Threading6Common7mLogger, "Threading");
// NOLINTBEGIN(bugprone-reserved-identifier)
#define TERN_STATIC_TEXT(object, symbol, text)                                                              \
    extern "C" {                                                                                            \
    alignas(std::string) std::byte ternStatic##symbol[sizeof(std::string)]                                  \
        __attribute__((visibility("hidden")));                                                              \
    __attribute__((visibility("default"),                                                                   \
                   alias("ternStatic" #symbol))) extern const std::string TERN_STATIC_TEXT_SYMBOL_(symbol); \
    }                                                                                                       \
    namespace {                                                                                             \
    [[maybe_unused]] const bool ternBuilt##symbol =                                                         \
        (new (const_cast<std::string*>(&(object))) std::string(text)) != nullptr;                           \
    }                                                                                                       \
    static_assert(std::is_same_v<decltype(object), const std::string>)
#if defined(_GLIBCXX_USE_CXX11_ABI) && _GLIBCXX_USE_CXX11_ABI
#define TERN_STATIC_TEXT_SYMBOL_(symbol) symbol##B5cxx11E
#else
#define TERN_STATIC_TEXT_SYMBOL_(symbol) symbol##E
#endif
// NOLINTEND(bugprone-reserved-identifier)
