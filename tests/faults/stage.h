#pragma once

#include <tern/foundation/status_code.h>

#include <functional>
#include <string>

#include "intercept.h"

namespace tern::test {

/// What a scenario is given for one run, and where it tells what came of it.
class Stage {
public:
    /// `folder` is an empty one, `number` differs for each run of all processes.
    Stage(std::string folder, std::string number) : mFolder(std::move(folder)), mNumber(std::move(number)) {}
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    /// A result that the library gave its caller; true when it is success. The first failure is kept.
    bool Accept(unsigned int status, const std::string& what);
    /// Something that the library was to do; the first one that was not done is kept.
    bool Expect(bool done, const std::string& what);

    /// Something that has to be so whatever fails, and whatever is told; the first one that was not is kept.
    bool Demand(bool done, const std::string& what);

    /// Runs `step` with the calls of our libraries counted, and one of them failing, or with
    /// little to spare.
    void Sweep(const std::function<void()>& step);

    const std::string& Folder() const { return mFolder; }
    /// A path in the folder.
    std::string operator/(const std::string& name) const { return mFolder + "/" + name; }
    /// A bus name that no other run has.
    std::string BusName() const { return "com.example.Faults.n" + mNumber; }

    const std::string& Refused() const { return mRefused; }
    const std::string& Missing() const { return mMissing; }
    const std::string& Violated() const { return mViolated; }

private:
    const std::string mFolder;
    const std::string mNumber;
    std::string mRefused;
    std::string mMissing;
    std::string mViolated;
};

/// One thing that an extension does with the library.
struct Scenario {
    const char* name;
    void (*run)(Stage& stage);
    bool isLoggers = false;  ///< the logger's calls fail, not the framework's
};

}  // namespace tern::test
