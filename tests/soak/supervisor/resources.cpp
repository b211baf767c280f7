#include "resources.h"

#include <filesystem>
#include <fstream>
#include <string>

namespace soak {

namespace {

/// The number behind "KEY:" in a file of /proc; 0 when there is none.
std::uint64_t Number(const std::string& path, const std::string& key) {
    std::ifstream file(path);
    std::string word;
    while (file >> word) {
        if (word == key + ":") {
            std::uint64_t number = 0;
            file >> number;
            return number;
        }
    }
    return 0;
}

unsigned int CountEntries(const std::string& folder) {
    std::error_code error;
    unsigned int count = 0;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        ++count;
    }
    return count;
}

}  // namespace

std::optional<Resources> Resources::Of(pid_t pid) {
    const std::string folder = "/proc/" + std::to_string(pid);
    Resources resources;
    resources.rssKib = Number(folder + "/smaps_rollup", "Rss");
    resources.pssKib = Number(folder + "/smaps_rollup", "Pss");
    resources.anonKib = Number(folder + "/smaps_rollup", "Anonymous");
    resources.descriptors = CountEntries(folder + "/fd");
    resources.threads = static_cast<unsigned int>(Number(folder + "/status", "Threads"));
    if (resources.rssKib == 0 || resources.descriptors == 0 || resources.threads == 0) {
        return std::nullopt;
    }
    return resources;
}

}  // namespace soak
