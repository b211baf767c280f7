#pragma once

#include <cstddef>
#include <cstdint>

namespace mwl {

/// Reports to those who make packages and images what a library loads while it runs. Its list of linked
/// libraries does not name that. It is a note of the ELF file in the form that systemd's own libraries use
/// (readelf --notes shows it). `content` is a JSON array.
///
///     TERN_DLOPEN_NOTE constexpr auto NOTE =
///     MakeDlopenNote(R"([{"feature":...,"soname":["libzip.so.4"]}])");
template <std::size_t SIZE>
struct DlopenNote {
    std::uint32_t nameSize = sizeof name;
    std::uint32_t contentSize = sizeof content;
    std::uint32_t type = 0x407c0c0a;
    char name[4] = {'F', 'D', 'O', '\0'};
    alignas(4) char content[SIZE] = {};
};

/// The note of this content.
template <std::size_t SIZE>
constexpr DlopenNote<SIZE> MakeDlopenNote(const char (&content)[SIZE]) {
    DlopenNote<SIZE> note;
    for (std::size_t i = 0; i < SIZE; ++i) {
        note.content[i] = content[i];
    }
    return note;
}

}  // namespace mwl

/// Puts a DlopenNote where notes of its kind lie, although nothing refers to it.
#define TERN_DLOPEN_NOTE __attribute__((used, aligned(4), section(".note.dlopen")))
