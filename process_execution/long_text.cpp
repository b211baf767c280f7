#include "process_execution/long_text.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <utility>

namespace mwl::ProcessExecution {

namespace {

constexpr std::size_t MIB = std::size_t{1024} * 1024;
/// Up to here a text grows as any string.
constexpr std::size_t SHORT = MIB;
/// The first two rooms of a longer one; then they double.
constexpr std::size_t WIDE = 16 * MIB;
constexpr std::size_t WIDEST = 256 * MIB;
/// So much is moved, and so many pages are made, at a time.
constexpr std::size_t STEP = MIB;

/// madvise(2) for all pages that lie wholly within this memory; without it everything is slower only.
void Advise(char* begin, std::size_t size, int advice) {
    static const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t skipped = (page - reinterpret_cast<std::uintptr_t>(begin) % page) % page;
    const std::size_t length = size > skipped ? (size - skipped) / page * page : 0;
    if (length > 0) {
        static_cast<void>(madvise(begin + skipped, length, advice));
    }
}

/// Has those pages made now, rather than one by one at the first write to each.
void MakePagesOf(char* begin, std::size_t size) {
#ifdef MADV_POPULATE_WRITE
    Advise(begin, size, MADV_POPULATE_WRITE);
#else
    static_cast<void>(begin);
    static_cast<void>(size);
#endif
}

}  // namespace

void LongText::Append(const char* bytes, std::size_t size) {
    if (mText.size() >= SHORT) {
        if (mText.capacity() - mText.size() < size) {
            Widen();
        }
        if (mText.size() + size > mMade) {
            MakePages();
        }
    }
    mText.append(bytes, size);
}

void LongText::Widen() {
    const std::size_t room = mText.capacity();
    std::string wider;
    try {
        wider.reserve(room < WIDE ? WIDE : std::max(WIDEST, 2 * room));
    } catch (const std::exception&) {
        return;  // no such room, or longer than a string may be
    }
    for (std::size_t begin = 0; begin < mText.size(); begin += STEP) {
        const std::size_t size = std::min(STEP, mText.size() - begin);
        MakePagesOf(wider.data() + begin, size);
        wider.append(mText, begin, size);
        // What is in them is not needed again.
        Advise(mText.data() + begin, size, MADV_DONTNEED);
    }
    mText = std::move(wider);
    mMade = mText.size();
}

void LongText::MakePages() {
    const std::size_t begin = mText.size();
    mMade = std::min(begin + STEP, mText.capacity());
    MakePagesOf(mText.data() + begin, mMade - begin);
}

}  // namespace mwl::ProcessExecution
