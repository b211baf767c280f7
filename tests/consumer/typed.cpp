#include <tern/typed/codec.h>

#include <cstdint>
#include <string>
#include <vector>

struct Reading {
    std::string room;
    double celsius;
};

int main() {
    using mwl::Typed::Any;
    const auto number = Any::From(std::uint32_t{5}).As<std::uint32_t>();
    const bool isDescribed = mwl::Typed::SIGNATURE<std::vector<Reading>>.View() == "a(sd)";
    return number == 5U && isDescribed ? 0 : 1;
}
