#pragma once

#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <string>

#include "support/temp_folder.h"

namespace tern::test {

/// TMPDIR as given.
class TemporaryPlace {
public:
    explicit TemporaryPlace(const std::string& place) {
        const char* const former = getenv("TMPDIR");
        mFormer = former == nullptr ? std::nullopt : std::optional<std::string>(former);
        setenv("TMPDIR", place.c_str(), 1);
    }
    ~TemporaryPlace() {
        if (mFormer) {
            setenv("TMPDIR", mFormer->c_str(), 1);
        } else {
            unsetenv("TMPDIR");
        }
    }
    TemporaryPlace(const TemporaryPlace&) = delete;
    TemporaryPlace& operator=(const TemporaryPlace&) = delete;

private:
    std::optional<std::string> mFormer;
};

/// Names of folders that are hard to put into an address or a configuration.
inline const char* const ODD_NAMES[] = {
    "a b",  "a&b",   "a&amp;b",  "a,b",      "a;b",     "a=b",    "a:b", "a%20b",    "<a>", "a\"b'c",
    "a\\b", "a#b?c", "\xff\xfe", "\xc3\xa9", "a\nb\tc", "a$(b)`", "*",   "@a{b}[c]", "-a",  "~"};

/// Makes a folder of this name in `folder`.
inline std::string MakePlace(const TempFolder& folder, const std::string& name) {
    const std::string place = folder / name;
    std::filesystem::create_directories(place);
    return place;
}

/// A name that makes a path in `folder` exactly `size` bytes long.
inline std::string NameOfSize(const TempFolder& folder, std::size_t size) {
    return std::string(size - folder.Path().size() - 1, 'x');
}

}  // namespace tern::test
