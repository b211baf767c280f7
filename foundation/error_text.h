#pragma once

namespace mwl {

/// strerror(3) of an error number, without its shared buffer: the text of a known number is a constant of the
/// C library, that of an unknown one lives in a buffer of the calling thread until its next call. `errno` is
/// preserved.
const char* ErrorText(int error) noexcept;

}  // namespace mwl
