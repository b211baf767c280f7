#include "process_execution/text_pieces.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace mwl::ProcessExecution {

namespace {

/// Length of a piece: sixteen times what a pipe holds by default.
constexpr std::size_t PIECE_BYTES = std::size_t{1024} * 1024;

/// Has all pages that lie within this memory created in one call rather than one by one at the first write to
/// each. A system that does not know this advice creates them one by one.
void MakePages(char* begin, std::size_t size) {
#ifdef MADV_POPULATE_WRITE
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t skipped = (page - reinterpret_cast<std::uintptr_t>(begin) % page) % page;
    const std::size_t length = size > skipped ? (size - skipped) / page * page : 0;
    if (length > 0) {
        static_cast<void>(madvise(begin + skipped, length, MADV_POPULATE_WRITE));
    }
#else
    static_cast<void>(begin);
    static_cast<void>(size);
#endif
}

}  // namespace

bool TextPieces::MakeRoom() {
    if (!mPieces.empty() && mPieces.back().GetRoom() > 0) {
        return true;
    }
    // Not from the allocator: what is released between other memory, it may keep.
    void* const memory =
        mmap(nullptr, PIECE_BYTES, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    mPieces.push_back(Piece(static_cast<char*>(memory)));
    return true;
}

ssize_t TextPieces::Read(int fd, std::size_t limit) {
    const ssize_t count = mPieces.back().Read(fd, limit);
    mSize += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    return count;
}

void TextPieces::MoveTo(std::string& text) {
    text.reserve(text.size() + mSize);
    mSize = 0;
    for (Piece& piece : std::exchange(mPieces, {})) {
        Piece(std::move(piece)).AppendTo(text);
    }
}

TextPieces::Piece::Piece(Piece&& other) noexcept
    : mMemory(std::exchange(other.mMemory, nullptr)), mSize(other.mSize) {}

TextPieces::Piece::~Piece() {
    if (mMemory != nullptr) {
        munmap(mMemory, PIECE_BYTES);
    }
}

std::size_t TextPieces::Piece::GetRoom() const {
    return PIECE_BYTES - mSize;
}

ssize_t TextPieces::Piece::Read(int fd, std::size_t limit) {
    const ssize_t count = read(fd, mMemory + mSize, std::min(limit, GetRoom()));
    mSize += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    return count;
}

void TextPieces::Piece::AppendTo(std::string& text) const {
    MakePages(text.data() + text.size(), mSize);
    text.append(mMemory, mSize);
}

}  // namespace mwl::ProcessExecution
