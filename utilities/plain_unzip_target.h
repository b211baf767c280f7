#pragma once

#include "utilities/unzip_target.h"

namespace mwl::Utilities {

/// As described for Zipper::Unzip, what may be lost included.
class PlainUnzipTarget final : public UnzipTarget {
public:
    using UnzipTarget::UnzipTarget;

    StatusCode Undescribed(zip_t* /*archive*/, zip_uint64_t /*index*/) override { return StatusCode::Ok; }
    bool TakesShortEntries() const override { return true; }
    StatusCode Write(const char* name, const char* buffer, std::size_t size) override;
    StatusCode Finish() override { return StatusCode::Ok; }
};

}  // namespace mwl::Utilities
