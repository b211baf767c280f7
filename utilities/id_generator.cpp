#include <tern/utilities/id_generator.h>

#include <cstdint>
#include <ctime>

namespace mwl::Utilities {

namespace {

// 32-bit FNV-1a.
constexpr std::uint32_t OFFSET_BASIS = 0x811C9DC5U;
constexpr std::uint32_t PRIME = 0x01000193U;

/// Fixed by the interface: up to the first NUL byte only.
std::uint32_t Hash(const char* text) {
    std::uint32_t hash = OFFSET_BASIS;
    for (; *text != '\0'; ++text) {
        hash = (hash ^ static_cast<unsigned char>(*text)) * PRIME;
    }
    return hash;
}

}  // namespace

std::string IdGenerator::Get(const std::string& seed) {
    const std::string text = seed + std::to_string(static_cast<std::int64_t>(std::time(nullptr)));
    return std::to_string(Hash(text.c_str()));
}

}  // namespace mwl::Utilities
