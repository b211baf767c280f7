#pragma once

namespace tern::test {

/// Blocks of the process's heap that are in use: malloc(3) and its family are counted in this program. Under
/// AddressSanitizer, whose own leak check is used there, always 0.
long CountBlocks();

}  // namespace tern::test
