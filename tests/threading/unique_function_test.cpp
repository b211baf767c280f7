#include <gtest/gtest.h>
#include <tern/threading/unique_function.h>

#include <array>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "support/allocations.h"

namespace mwl {
namespace {

using tern::test::AllocationCount;
using Job = UniqueFunction<void()>;

int Twice(int value) {
    return 2 * value;
}

/// Counts its lives.
class Probe {
public:
    explicit Probe(int& alive) : mAlive(&alive) { ++*mAlive; }
    Probe(Probe&& other) noexcept : mAlive(other.mAlive) { ++*mAlive; }
    Probe& operator=(Probe&&) = delete;
    ~Probe() { --*mAlive; }
    void operator()() const {}

private:
    int* mAlive;
};

/// The same, too large to lie in the object.
struct LargeProbe : Probe {
    using Probe::Probe;
    std::array<char, 200> ballast{};
};

template <typename Held>
class UniqueFunctionOf : public testing::Test {};
using Sizes = testing::Types<Probe, LargeProbe>;
TYPED_TEST_SUITE(UniqueFunctionOf, Sizes);

TYPED_TEST(UniqueFunctionOf, HoldsOneAndDestroysItOnce) {
    int alive = 0;
    {
        Job job = TypeParam(alive);
        EXPECT_EQ(alive, 1);
        Job other = std::move(job);
        EXPECT_EQ(alive, 1);
        EXPECT_FALSE(job);  // NOLINT(bugprone-use-after-move): the source is empty
        EXPECT_TRUE(other);
        other();
        other = Job(TypeParam(alive));
        EXPECT_EQ(alive, 1);
        other = nullptr;
        EXPECT_EQ(alive, 0);
        EXPECT_FALSE(other);
        other = TypeParam(alive);
        Job& same = other;
        other = std::move(same);
        EXPECT_EQ(alive, 1) << "moved into itself";
        EXPECT_TRUE(other);
    }
    EXPECT_EQ(alive, 0);
}

}  // namespace

TEST(UniqueFunction, IsMovedWithoutThrowingAndNeverCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<Job>);
    EXPECT_FALSE(std::is_copy_assignable_v<Job>);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<Job>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<Job>);
    EXPECT_FALSE((std::is_constructible_v<Job, int>)) << "what cannot be called";
    EXPECT_FALSE((std::is_constructible_v<Job, int (*)(int)>)) << "what wants arguments";
}

TEST(UniqueFunction, HoldsWhatCannotBeCopied) {
    UniqueFunction<int(int)> add = [base = std::make_unique<int>(40)](int value) { return *base + value; };
    EXPECT_EQ(add(2), 42);
    EXPECT_EQ(add(3), 43);
}

TEST(UniqueFunction, PassesArgumentsAndResultsThrough) {
    UniqueFunction<std::unique_ptr<int>(std::unique_ptr<int>, int&)> pass = [](std::unique_ptr<int> owned,
                                                                               int& seen) {
        seen = *owned;
        return owned;
    };
    int seen = 0;
    EXPECT_EQ(*pass(std::make_unique<int>(7), seen), 7);
    EXPECT_EQ(seen, 7);
    UniqueFunction<void(int)> dropsTheResult = Twice;
    dropsTheResult(1);
    UniqueFunction<std::size_t(const std::string&)> member = &std::string::size;
    EXPECT_EQ(member("four"), 4U);
}

TEST(UniqueFunction, KeepsTheStateOfWhatItHolds) {
    UniqueFunction<int()> count = [n = 0]() mutable { return ++n; };
    EXPECT_EQ(count(), 1);
    UniqueFunction<int()> moved = std::move(count);
    EXPECT_EQ(moved(), 2);
}

TEST(UniqueFunction, AnEmptyOneThrowsWhenCalled) {
    Job job;
    EXPECT_FALSE(job);
    EXPECT_THROW(job(), std::bad_function_call);
    EXPECT_FALSE(Job(nullptr));
    EXPECT_FALSE(Job(std::function<void()>()));
    EXPECT_FALSE(Job(static_cast<void (*)()>(nullptr)));
    EXPECT_FALSE((UniqueFunction<void(int)>(UniqueFunction<int(int)>())));
    EXPECT_TRUE((UniqueFunction<int(int)>(Twice)));
}

TEST(UniqueFunction, LetsThroughWhatIsThrown) {
    Job job = [] { throw std::runtime_error("full"); };
    EXPECT_THROW(job(), std::runtime_error);
    EXPECT_TRUE(job);
}

TEST(UniqueFunction, AllocatesOnlyForWhatIsLarge) {
    std::array<void*, 4> small{};
    std::array<void*, 5> large{};
    {
        const AllocationCount count;
        Job job = [small] { static_cast<void>(small); };
        Job other = std::move(job);
        other();
        EXPECT_EQ(count.Get(), 0U);
    }
    const AllocationCount count;
    Job job = [large] { static_cast<void>(large); };
    Job other = std::move(job);
    EXPECT_EQ(count.Get(), 1U);
}

TEST(UniqueFunction, NothingIsLostWhenThereIsNoMemory) {
    int alive = 0;
    {
        LargeProbe probe(alive);
        bool threw = false;
        {
            const tern::test::MemoryShortage shortage;
            try {
                const Job job(std::move(probe));
            } catch (const std::bad_alloc&) {
                threw = true;
            }
        }
        EXPECT_TRUE(threw);
        EXPECT_EQ(alive, 1);
    }
    EXPECT_EQ(alive, 0);
}

}  // namespace mwl
