#pragma once

#include <zip.h>

#include <cstddef>
#include <cstdlib>

#include "foundation/handle.h"

namespace mwl::Utilities {

/// Memory for the content of entries, one after the other. It is kept from one to the next, because making
/// its pages takes a tenth of the time of unpacking. One thread at a time; owns its memory.
class EntryBuffer {
public:
    /// Makes room for `size` bytes, whatever an archive claims; what was there is lost. False when there is
    /// no such memory.
    bool Reserve(zip_uint64_t size);

    /// Reads into the whole room and returns what zip_fread(3) returns. Where the entry ends before the room
    /// does, zeros follow: nothing of another entry or of this process's old memory gets into a file.
    zip_int64_t Fill(zip_file_t* entry);

    /// The room.
    char* Get() const { return mBytes.get(); }
    /// Bytes of room.
    std::size_t GetSize() const { return mSize; }

private:
    Handle<char, free> mBytes;
    std::size_t mCapacity = 0;
    std::size_t mSize = 0;
    std::size_t mUsed = 0;  ///< what lies behind is zero, and its pages need not be there
};

}  // namespace mwl::Utilities
