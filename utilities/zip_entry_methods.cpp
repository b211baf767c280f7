#include "utilities/zip_entry_methods.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace mwl::Utilities {

ZipEntryMethods GetZipEntryMethods(const zip_stat_t& stat) {
    static const std::size_t shift = [] {
        zip_stat_t fresh{};
        zip_stat_init(&fresh);  // sets `mtime` to -1, as wide as libzip knows it
        return fresh.mtime == -1 ? std::size_t{0} : sizeof(std::int32_t);
    }();
    const char* const bytes = reinterpret_cast<const char*>(&stat) - shift;
    ZipEntryMethods methods{};
    memcpy(&methods.compression, bytes + offsetof(zip_stat_t, comp_method), sizeof methods.compression);
    memcpy(&methods.encryption, bytes + offsetof(zip_stat_t, encryption_method), sizeof methods.encryption);
    return methods;
}

}  // namespace mwl::Utilities
