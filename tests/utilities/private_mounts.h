#pragma once

#include <string>

namespace tern::test {

/// Whether a child may have mounts of its own here; what needs them is skipped otherwise.
bool CanMountPrivately();

/// In a child of RunInChild: mounts from here on are seen by that process alone and vanish with it. False
/// when the system does not permit it.
bool EnterPrivateMounts();

/// Puts a file with that content over an existing one. REQUIRES: EnterPrivateMounts; `store` is a path at
/// which the content is kept.
bool CoverFile(const std::string& path, const std::string& store, const std::string& content);

/// Puts an empty file system of that size, in memory, over a folder. REQUIRES: EnterPrivateMounts.
bool CoverWithSmallDisk(const std::string& folder, int kibibytes);

/// Lets the content of `folder` be seen in `place` as well. REQUIRES: EnterPrivateMounts.
bool ShowIn(const std::string& place, const std::string& folder);

}  // namespace tern::test
