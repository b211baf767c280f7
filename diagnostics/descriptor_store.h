#pragma once

#include <vector>

namespace mwl::Diagnostics {

/// systemd's descriptor store as the flight recorder uses it: descriptors named "tern-flight"
/// (sd_pid_notify_with_fds(3)).
class DescriptorStore {
public:
    DescriptorStore() = delete;

    /// Those that systemd has handed on to this process: borrowed, as the application may go through all that
    /// was handed on. Empty without systemd. A number that is of no memfd (any more) is left out.
    static std::vector<int> FindHandedOn();
    /// Puts what `fd` is of in the place of a descriptor that was handed on, which is needed no more: whoever
    /// goes through all of them meets nothing strange there. 0 or the error number.
    static int Replace(int handedOn, int fd);
    /// Sends systemd the descriptor, to be kept instead of those of this name that it has. Positive: sent; 0:
    /// there is nobody to send it to; else the negative error number. Whether systemd keeps it, it does not
    /// tell.
    static int Store(int fd);
    /// Whether Store has sent one.
    static bool HasStored() noexcept;
};

}  // namespace mwl::Diagnostics
