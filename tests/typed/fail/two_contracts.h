#pragma once

// Two contracts with members of the same names, and what a program here includes.

#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <memory>
#include <string>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr Method<void(int)> Heat{"Heat", {"seconds"}};
    static constexpr Property<int> Serial{"Serial", CONSTANT};
    static constexpr Property<int> Level{"Level"};
    static constexpr Signal<double> Hot{"Hot", {"value"}};
    static constexpr Members<Heat, Serial, Level, Hot> ALL{};
};

struct Other1 {
    static constexpr const char* NAME = "com.example.Other1";
    static constexpr Method<void(int)> Heat{"Heat", {"seconds"}};
    static constexpr Signal<int> Hot{"Hot", {"value"}};
    static constexpr Property<int> Level{"Level"};
    static constexpr Members<Heat, Hot, Level> ALL{};
};
