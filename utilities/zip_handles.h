#pragma once

#include <zip.h>

#include "foundation/handle.h"

namespace mwl::Utilities {

/// An open archive; what was not closed by zip_close(3) is discarded, unwritten.
using ZipArchive = Handle<zip_t, zip_discard>;
using ZipSource = Handle<zip_source_t, zip_source_free>;
using ZipEntry = Handle<zip_file_t, zip_fclose>;

}  // namespace mwl::Utilities
