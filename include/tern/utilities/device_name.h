#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <string>

namespace mwl::Utilities {

/// The device's host name: built from product code and MAC address, applied to the running kernel, and kept
/// in the host-name file (the platform's library folder, its configuration folder, "/hostname": by default
/// /var/lib/mwl/etc/hostname), so that it survives a restart. The folder of that file is not created here.
///
/// All operations are static and synchronous and log under "mwl::Utilities::DeviceName". Thread-safe; the
/// file is not locked against concurrent writers. Output arguments stay untouched on failure.
///
///     std::string hostname;
///     if (DeviceName::Create("abc12", "00a0c91e2f3d", hostname) == StatusCode::Ok &&  // ABC12-1E2F3D
///         DeviceName::StoreHostname(hostname, false) == StatusCode::Ok) {
///         DeviceName::SetHostname(hostname);
///     }
class TERN_API DeviceName {
public:
    /// Makes the name in upper case (ASCII): product code, "-", and of the MAC address, 12 hexadecimal digits
    /// without separators, the last 6: the at most 6 characters from the seventh on. The address is taken as
    /// it is: separators stay in the name. `Ok`; `Failure` when either is empty. Throws std::out_of_range for
    /// an address of fewer than 6 characters.
    static StatusCode Create(const std::string& productCode, const std::string& mac, std::string& hostname);
    /// The kernel's name (gethostname(2)), at most 63 characters. `Ok`, or `Failure` when it cannot be read
    /// or is longer.
    static StatusCode GetHostname(std::string& hostname);
    /// Sets the kernel's name (sethostname(2)), at most 64 characters; needs CAP_SYS_ADMIN. `Ok` or
    /// `Failure`.
    static StatusCode SetHostname(const std::string& hostname);
    /// The first line of the host-name file, without its newline; empty for an empty file. `Ok`; `IoError`
    /// when the file cannot be opened, or opens but cannot be read, like a folder in its place: a disk error
    /// would otherwise look like an empty name.
    static StatusCode ReadHostname(std::string& hostname);
    /// Writes the name to the host-name file, with no newline after it. Without `force` a file that can be
    /// opened for reading, even an empty one, is left alone with `AlreadyExists`; one that cannot be is
    /// replaced as if there were none. `Ok`; `IoError` when the file cannot be created or written, and then
    /// its content is lost.
    static StatusCode StoreHostname(const std::string& hostname, bool force);
};

}  // namespace mwl::Utilities
