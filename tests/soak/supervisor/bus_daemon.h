#pragma once

#include <string>

#include "child_process.h"
#include "support/temp_folder.h"

namespace soak {

/// A message bus that is killed and comes back at the same address. One thread.
class BusDaemon {
public:
    /// Throws std::runtime_error when the program is missing.
    explicit BusDaemon(std::string log);

    const std::string& GetAddress() const { return mAddress; }
    /// Returns when it takes connections. Throws std::runtime_error when it does not within half a minute.
    void Start();
    /// As a crash would end it.
    void Kill();

private:
    tern::test::TempFolder mFolder;
    const std::string mLog;
    const std::string mSocket;
    const std::string mAddress;
    std::string mProgram;
    ChildProcess mDaemon;
};

}  // namespace soak
