#include "failure.h"

#include <string_view>

namespace tern::test {

std::string PlainName(const std::string& name) {
    // The same function with a newer C's idea of a number.
    for (const std::string_view newer : {"__isoc99_", "__isoc23_"}) {
        if (name.starts_with(newer)) {
            return name.substr(newer.size());
        }
    }
    if (name.starts_with("_Z") || !name.ends_with("64")) {
        return name;
    }
    std::string plain = name.substr(0, name.size() - 2);
    constexpr const char* TIME = "_time";
    if (plain.ends_with(TIME)) {
        plain.resize(plain.size() - 5);
    }
    return plain.starts_with("__") ? plain.substr(2) : plain;
}

}  // namespace tern::test
