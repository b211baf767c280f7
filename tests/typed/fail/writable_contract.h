#pragma once

// A contract of one writable property, and what a program here includes.

#include <tern/typed/caller.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <memory>
#include <string>

using namespace mwl::Typed;

struct Room1 {
    static constexpr const char* NAME = "com.example.Room1";
    static constexpr WritableProperty<int> Level{"Level"};
    static constexpr Members<Level> ALL{};
};
