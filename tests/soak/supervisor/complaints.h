#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace soak {

/// What went wrong, in words. Any thread.
class Complaints {
public:
    /// Of a flood only the beginning is kept; the tally counts all.
    void Add(const std::string& complaint) {
        const std::lock_guard lock(mMutex);
        if (mTexts.size() < MOST) {
            mTexts.push_back(complaint);
        }
    }
    std::vector<std::string> Get() const {
        const std::lock_guard lock(mMutex);
        return mTexts;
    }

private:
    static constexpr std::size_t MOST = 100;

    mutable std::mutex mMutex;
    std::vector<std::string> mTexts;
};

}  // namespace soak
