// Faults of a value that is put in and taken.

#include <thread>

#include "../scenario.h"
#include "toys.h"

namespace tern::schedules {

namespace {

/// One who takes, one who puts.
template <Flaw FLAW>
void TakeOne() {
    Box<FLAW> box;
    std::thread taker([&] {
        Call("taker");
        Promise(box.Take(), "there was a value");
    });
    box.Put(1);
    taker.join();
}

/// Two who take, one who puts in both.
template <Flaw FLAW>
void TakeTwo() {
    Box<FLAW> box;
    const auto take = [&] {
        Call("taker");
        Promise(box.Take(), "there was a value");
    };
    std::thread one(take);
    std::thread other(take);
    box.Put(2);
    one.join();
    other.join();
}

/// Two who take, and two values that come one by one.
template <Flaw FLAW>
void TakeEach() {
    Box<FLAW> box;
    const auto take = [&] {
        Call("taker");
        Promise(box.Take(), "there was a value");
    };
    std::thread one(take);
    std::thread other(take);
    box.Put(1);
    box.Put(1);
    one.join();
    other.join();
}

}  // namespace

TERN_SCENARIO(self_no_notify, "a value is put in and nobody told", .expected = {Record::Fault::LostWakeUp}) {
    TakeOne<Flaw::NoNotify>();
}
TERN_SCENARIO(self_flag_outside_lock, "a flag is set between another's test and wait",
              .expected = {Record::Fault::LostWakeUp}) {
    TakeOne<Flaw::FlagOutsideLock>();
}
TERN_SCENARIO(self_notify_one, "one is told where two have to know",
              .expected = {Record::Fault::LostWakeUp}) {
    TakeTwo<Flaw::NotifyOne>();
}
TERN_SCENARIO(self_if_instead_of_while, "a wait for no reason", .expected = {Record::Fault::Promise}) {
    TakeOne<Flaw::IfInsteadOfWhile>();
}
TERN_SCENARIO(self_checked_outside_lock, "looked at, let go, taken", .expected = {Record::Fault::Promise}) {
    TakeEach<Flaw::CheckedOutsideLock>();
}
TERN_SCENARIO(self_time_out_is_success, "what a wait says is taken for the condition",
              .expected = {Record::Fault::Promise}) {
    TakeOne<Flaw::TimeOutIsSuccess>();
}
TERN_SCENARIO(self_take_one_sound, "the same without a fault") {
    TakeOne<Flaw::None>();
}
TERN_SCENARIO(self_take_two_sound, "the same without a fault") {
    TakeTwo<Flaw::None>();
}
TERN_SCENARIO(self_take_each_sound, "the same without a fault") {
    TakeEach<Flaw::None>();
}

}  // namespace tern::schedules
