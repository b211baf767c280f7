#include "stage.h"

#include "limits.h"

namespace tern::test {

namespace {

class Switched {
public:
    Switched() {
        Shortage::Switch(true);
        Intercept::Switch(true);
    }
    ~Switched() {
        Intercept::Switch(false);
        Shortage::Switch(false);
    }
    Switched(const Switched&) = delete;
    Switched& operator=(const Switched&) = delete;
};

}  // namespace

bool Stage::Accept(unsigned int status, const std::string& what) {
    if (status != 0 && mRefused.empty()) {
        mRefused =
            what + ": " + mw::tern::ConvertStatusCodeToString(static_cast<mw::tern::StatusCode>(status));
    }
    return status == 0;
}

bool Stage::Expect(bool done, const std::string& what) {
    if (!done && mMissing.empty()) {
        mMissing = what;
    }
    return done;
}

bool Stage::Demand(bool done, const std::string& what) {
    if (!done && mViolated.empty()) {
        mViolated = what;
    }
    return done;
}

void Stage::Sweep(const std::function<void()>& step) {
    const Switched on;
    step();
}

}  // namespace tern::test
