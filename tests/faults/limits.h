#pragma once

#include <string>
#include <vector>

namespace tern::test {

/// A resource of which a run has little to spare while its steps are swept.
struct Limit {
    const char* name;
    /// Once in the process that runs the case, which has no other thread yet. May give another folder to work
    /// in. False when the system does not permit it.
    bool (*prepare)(std::string& folder);
    /// From now on so much more than what is in use now is to be had.
    void (*tighten)(unsigned spare);
    void (*lift)();
    /// What is not to be had is not refused: the kernel kills somebody. Null where it is refused. Afterwards,
    /// in another process: whether it was so, and what `prepare` has made is removed.
    bool (*hasKilled)(int pid) = nullptr;
};

/// Threads, queued signals, descriptors, addresses, memory of a control group, pages of a file system.
const std::vector<Limit>& Limits();

/// Which limit holds in this process while the steps of a scenario are swept.
class Shortage {
public:
    /// Null for none.
    static void Arm(const Limit* limit, unsigned spare);
    static void Switch(bool on);

    /// What the test itself does in the midst of it takes nothing of what is spare: descriptors, above all.
    class Aside {
    public:
        Aside();
        ~Aside();
        Aside(const Aside&) = delete;
        Aside& operator=(const Aside&) = delete;
    };
};

}  // namespace tern::test
