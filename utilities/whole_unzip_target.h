#pragma once

#include "foundation/unique_fd.h"
#include "utilities/unzip_target.h"

namespace mwl::Utilities {

/// As described for Zipper::UnzipWhole: nothing is lost without a word, and nothing is written outside the
/// folder.
class WholeUnzipTarget final : public UnzipTarget {
public:
    explicit WholeUnzipTarget(const std::string& folder);

    StatusCode Undescribed(zip_t* archive, zip_uint64_t index) override;
    bool TakesShortEntries() const override { return false; }
    StatusCode Write(const char* name, const char* buffer, std::size_t size) override;
    /// Brings all files onto their medium in one call, because one by one takes many times as long.
    StatusCode Finish() override;

private:
    /// The entry's file, empty; none with `errno`. Folders on the way and the file itself are no links, and
    /// the file is a regular one.
    UniqueFd Open(const char* name) const;

    const UniqueFd mFolder;
    const int mError;  ///< why there is no folder
};

}  // namespace mwl::Utilities
