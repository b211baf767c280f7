#pragma once

#include <tern/typed/blocking_proxy.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "options.h"

namespace ternctl {

/// The bus that the options name, and how long its answers are waited for.
class Session {
public:
    /// Of each call, unless the person says something else.
    static constexpr std::chrono::milliseconds LIMIT{5000};

    /// Connects. Throws Failure.
    explicit Session(const Options& options);

    const std::shared_ptr<Typed::BlockingBus>& GetBus() const { return mBus; }
    std::chrono::milliseconds GetLimit() const { return mLimit; }
    /// The same, but no more than `most` unless the person has named a limit.
    std::chrono::milliseconds GetLimit(std::chrono::milliseconds most) const;

    /// The unique name of who has `name`; nobody is started. Throws Failure, NobodyThere when nobody has it.
    std::string FindOwner(const std::string& name) const;
    /// All names on the bus, unique ones left out. Throws Failure.
    std::vector<std::string> ListNames() const;

private:
    std::shared_ptr<Typed::BlockingBus> mBus;
    std::chrono::milliseconds mLimit;
    bool mIsLimitGiven;
};

}  // namespace ternctl
