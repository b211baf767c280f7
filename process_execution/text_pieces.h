#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace mwl::ProcessExecution {

/// Collects a long text of unknown length from a descriptor, in pieces that stay where they are: a string
/// that grows is moved each time, and gets new pages each time, in the end twice as much as its text is long.
/// One thread at a time.
class TextPieces {
public:
    TextPieces() = default;
    TextPieces(const TextPieces&) = delete;
    TextPieces& operator=(const TextPieces&) = delete;

    /// Sees to it that there is room to read to; false without memory for it.
    bool MakeRoom();
    /// read(2) of up to `limit` bytes, as far as there is room, with its results. REQUIRES: room.
    ssize_t Read(int fd, std::size_t limit);
    /// Bytes collected since the last MoveTo.
    std::size_t GetSize() const { return mSize; }
    /// Appends what was collected to `text`; each piece is released as soon as it is. Without memory for the
    /// whole std::bad_alloc passes through and both stay as they are.
    void MoveTo(std::string& text);

private:
    /// Memory of its own, given back to the system when it is destroyed.
    class Piece {
    public:
        explicit Piece(char* memory) : mMemory(memory) {}
        Piece(Piece&& other) noexcept;
        Piece& operator=(Piece&&) = delete;
        ~Piece();

        std::size_t GetRoom() const;
        ssize_t Read(int fd, std::size_t limit);
        void AppendTo(std::string& text) const;

    private:
        char* mMemory;
        std::size_t mSize = 0;
    };

    std::vector<Piece> mPieces;
    std::size_t mSize = 0;
};

}  // namespace mwl::ProcessExecution
