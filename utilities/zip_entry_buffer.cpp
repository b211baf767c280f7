#include "utilities/zip_entry_buffer.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace mwl::Utilities {

bool EntryBuffer::Reserve(zip_uint64_t size) {
    if (size > SIZE_MAX) {
        return false;
    }
    mSize = static_cast<std::size_t>(size);
    if (mBytes != nullptr && mSize <= mCapacity) {
        return true;
    }
    mBytes.reset();  // before there is more, so that there are never two
    mUsed = 0;
    mCapacity = std::max<std::size_t>(mSize, 1);
    mBytes.reset(static_cast<char*>(calloc(mCapacity, 1)));
    return mBytes != nullptr;
}

zip_int64_t EntryBuffer::Fill(zip_file_t* entry) {
    const zip_int64_t count = zip_fread(entry, mBytes.get(), mSize);
    const std::size_t filled = count < 0 ? mSize : static_cast<std::size_t>(count);
    if (const std::size_t end = std::min(mUsed, mSize); filled < end) {
        memset(mBytes.get() + filled, 0, end - filled);
    }
    mUsed = std::max(mUsed, filled);
    return count;
}

}  // namespace mwl::Utilities
