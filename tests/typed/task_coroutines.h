#pragma once

// Small coroutines of which the tests of Task make larger ones.

#include <gtest/gtest.h>
#include <tern/typed/sleep.h>
#include <tern/typed/task.h>
#include <tern/typed/task_set.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/allocations.h"
#include "support/log_capture.h"
#include "typed/task_bus.h"

namespace mwl::Typed {

using tern::test::AllocationCount;
using tern::test::Critical;
using tern::test::Foreign;
using tern::test::Gate;
using tern::test::LogCapture;
using tern::test::PrivateBus;
using tern::test::TaskBus;
using tern::test::Witness;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

inline Task<int> Give(int value) {
    co_return value;
}
inline Task<> Pass(Gate& gate) {
    co_await gate;
}
inline Task<int> GiveBehind(Gate& gate, int value) {
    co_await gate;
    co_return value;
}
inline Task<> Hold(Gate& gate, int& alive) {
    const Witness witness(alive);
    co_await gate;
}
inline Task<> Throw(const char* text) {
    throw std::runtime_error(text);
    co_return;
}
inline Task<> ThrowBehind(Gate& gate, const char* text) {
    co_await gate;
    throw std::runtime_error(text);
}
template <class R>
inline Task<> Note(Task<R> task, std::vector<std::string>& notes) {
    try {
        if constexpr (std::is_void_v<R>) {
            co_await task;
            notes.emplace_back("done");
        } else {
            notes.push_back(std::to_string(co_await task));
        }
    } catch (const std::exception& error) {
        notes.emplace_back(error.what());
    }
}

}  // namespace mwl::Typed
