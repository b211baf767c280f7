#pragma once

#include <tern/typed/proxy.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void(std::uint32_t)> Heat{"Heat"};
    static constexpr Method<void(std::vector<std::string>)> Name{"Name"};
    static constexpr Property<int> Level{"Level"};
    static constexpr WritableProperty<double> Target{"Target"};
    static constexpr Members<Heat, Name, Level, Target> ALL{};
};

/// With members of the same types, and one of the same name.
struct Other1 {
    static constexpr const char* NAME = "com.example.Other1";
    static constexpr Method<void(std::uint32_t)> Heat{"Heat"};
    static constexpr Method<void(std::uint32_t)> Cool{"Cool"};
    static constexpr Members<Heat, Cool> ALL{};
};
