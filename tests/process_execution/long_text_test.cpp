#include "process_execution/long_text.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <new>
#include <string>

#include "support/interpose.h"

TERN_INTERPOSE(int, madvise, (void* begin, size_t size, int advice), (begin, size, advice))

namespace mwl::ProcessExecution {
namespace {

using tern::test::FaultScope;

constexpr std::size_t MIB = std::size_t{1024} * 1024;

/// No two parts of it are alike.
std::string Numbers(std::size_t size) {
    std::string text;
    text.reserve(size + 8);
    for (std::size_t number = 0; text.size() < size; ++number) {
        text += std::to_string(number);
    }
    text.resize(size);
    return text;
}

void AppendInParts(LongText& longText, const std::string& text, std::size_t part) {
    for (std::size_t begin = 0; begin < text.size(); begin += part) {
        longText.Append(text.data() + begin, std::min(part, text.size() - begin));
    }
}

struct Memory {
    std::size_t addresses = 0;
    std::size_t resident = 0;
};

/// Of this process, in bytes (/proc/PID/statm, proc(5)).
Memory GetMemory() {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    Memory memory;
    std::ifstream("/proc/self/statm") >> memory.addresses >> memory.resident;
    return {memory.addresses * page, memory.resident * page};
}

std::size_t GetResident() {
    return GetMemory().resident;
}

/// Lets the process have so many more bytes of addresses.
class AddressLimit {
public:
    explicit AddressLimit(std::size_t more) {
        EXPECT_EQ(getrlimit(RLIMIT_AS, &mFormer), 0);
        const rlimit limit{GetMemory().addresses + more, mFormer.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    }
    ~AddressLimit() { setrlimit(RLIMIT_AS, &mFormer); }
    AddressLimit(const AddressLimit&) = delete;
    AddressLimit& operator=(const AddressLimit&) = delete;

private:
    rlimit mFormer{};
};

TEST(LongTextTest, AppendsByteForByte) {
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, MIB - 1, MIB, MIB + 1, 16 * MIB - 1, 20 * MIB + 4711}) {
        for (const std::size_t part : {std::size_t{16384}, std::size_t{60001}}) {
            const std::string text = Numbers(size);
            std::string output = "before";
            LongText longText(output);
            AppendInParts(longText, text, part);
            EXPECT_TRUE(output == "before" + text) << size << " in parts of " << part;
        }
    }
}

TEST(LongTextTest, PartsLargerThanTheRoomAreTaken) {
    std::string output = Numbers(2 * MIB);
    const std::string all = output + Numbers(40 * MIB);
    LongText(output).Append(all.data() + 2 * MIB, 40 * MIB);
    EXPECT_TRUE(output == all);
}

TEST(LongTextTest, GoesOnFromALongOutputThatWasThere) {
    std::string output = Numbers(17 * MIB);
    const std::string all = output + Numbers(300000);
    LongText longText(output);
    AppendInParts(longText, all.substr(17 * MIB), 16384);
    EXPECT_TRUE(output == all);
}

TEST(LongTextTest, GivesPagesBackWhileItMoves) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers keep memory of their own for each page";
#endif
    // 17 MiB move from a room of 16 MiB; both at once would be 33.
    const std::string text = Numbers(64 * 1024);
    std::string output;
    LongText longText(output);
    malloc_trim(0);  // what earlier tests have left would be used without being noticed
    const std::size_t before = GetResident();
    std::size_t most = 0;
    const FaultScope scope(fault_madvise);
    fault_madvise.Replace(
        [&](void* begin, std::size_t size, int advice) {
            most = std::max(most, GetResident());
            return fault_madvise.Real(begin, size, advice);
        },
        1000000);
    for (int i = 0; i < 17 * 16; ++i) {
        longText.Append(text.data(), text.size());
    }
    EXPECT_EQ(output.size(), 17 * MIB);
    EXPECT_GT(output.capacity(), 200 * MIB);
    EXPECT_GT(most - before, 15 * MIB);
    EXPECT_LT(most - before, 21 * MIB);
    EXPECT_LT(GetResident() - before, 21 * MIB);
}

TEST(LongTextTest, GrowsAsAStringWhereSoMuchRoomIsRefused) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers need more addresses than any limit";
#endif
    const std::string text = Numbers(18 * MIB);
    std::string output;
    {
        const AddressLimit limit(100 * MIB);
        LongText longText(output);
        AppendInParts(longText, text, 16384);
        EXPECT_LT(output.capacity(), 100 * MIB);
    }
    EXPECT_TRUE(output == text);
}

TEST(LongTextTest, WithoutMemoryTheTextIsAsItWas) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers need more addresses than any limit";
#endif
    // So long that the allocator has no such room left over.
    std::string output(40 * MIB, 'x');
    const std::string former = output;
    {
        const AddressLimit limit(8 * MIB);
        LongText longText(output);
        EXPECT_THROW(AppendInParts(longText, former, 16384), std::bad_alloc);
    }
    EXPECT_TRUE(output == former);
}

TEST(LongTextTest, NeedsNoneOfTheAdvice) {
    const FaultScope scope(fault_madvise);
    int calls = 0;
    fault_madvise.Replace(
        [&](void*, std::size_t, int) {
            ++calls;
            errno = EINVAL;
            return -1;
        },
        1000000);
    const std::string text = Numbers(17 * MIB);
    std::string output;
    LongText longText(output);
    AppendInParts(longText, text, 16384);
    EXPECT_TRUE(output == text);
    EXPECT_GT(calls, 10);
}

}  // namespace
}  // namespace mwl::ProcessExecution
