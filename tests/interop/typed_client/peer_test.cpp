#include "peer_test.h"

#include <sys/wait.h>

#include <fstream>
#include <iterator>

namespace tern::test {

bool PeerTest::sIsSkipped = false;

bool PeerTest::StartPeer(const std::vector<std::string>& command, const std::string& name) {
    mPeer.Start(command, mFolder / "peer.log");
    const mwl::Typed::PeerWatch watch(*mIt.bus, name, nullptr, nullptr);
    std::optional<int> ended;
    RunUntil([&] {
        ended = mPeer.WaitForEnd(std::chrono::milliseconds(0));
        return ended.has_value() || watch.IsPresent();
    });
    if (ended.has_value() && WIFEXITED(*ended) && WEXITSTATUS(*ended) == SKIPPED) {
        sIsSkipped = true;
        return false;
    }
    EXPECT_TRUE(watch.IsPresent()) << name << " has not come, its service "
                                   << (ended ? "ended with wait status " + std::to_string(*ended) : "runs")
                                   << ": " << GetPeersLog();
    return watch.IsPresent();
}

std::string PeerTest::GetPeersLog() const {
    std::ifstream file(mFolder / "peer.log");
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace tern::test
