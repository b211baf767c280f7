#include <tern/foundation/lifecycle_interface.h>

#include <algorithm>

namespace mwl {

namespace {

constexpr int NOT_EXECUTED = 0;
constexpr int SUCCEEDED = 1;
constexpr int FAILED = 2;

constexpr LifecycleStep NO_STEP{0};

}  // namespace

LifecycleInterface::LifecycleInterface()
    : mStatus{{LifecycleStep::Configure, NOT_EXECUTED},
              {LifecycleStep::Initialize, NOT_EXECUTED},
              {LifecycleStep::Start, NOT_EXECUTED},
              {LifecycleStep::Stop, NOT_EXECUTED}} {}

void LifecycleInterface::Configure() {
    if (GetLastContinuousSuccessfulStep() == NO_STEP) {
        Execute(LifecycleStep::Configure, &LifecycleInterface::OnConfigure);
    }
}

void LifecycleInterface::Initialize() {
    if (GetLastContinuousSuccessfulStep() == LifecycleStep::Configure) {
        Execute(LifecycleStep::Initialize, &LifecycleInterface::OnInitialize);
    }
}

void LifecycleInterface::Start() {
    if (GetLastContinuousSuccessfulStep() == LifecycleStep::Initialize) {
        Execute(LifecycleStep::Start, &LifecycleInterface::OnStart);
    }
}

// Fixed by the interface: with a failure on record a repeated Stop runs again, and without one nothing but a
// Start allows it.
void LifecycleInterface::Stop() {
    if (GetLastExecutedStep().first == LifecycleStep::Start || HasError()) {
        Execute(LifecycleStep::Stop, &LifecycleInterface::OnStop);
    }
}

bool LifecycleInterface::HasError() const {
    return std::any_of(mStatus.begin(), mStatus.end(),
                       [](const auto& entry) { return entry.second == FAILED; });
}

LifecycleStep LifecycleInterface::GetLastContinuousSuccessfulStep() const {
    LifecycleStep last = NO_STEP;
    for (const auto& [step, status] : mStatus) {
        if (status != SUCCEEDED) {
            break;
        }
        last = step;
    }
    return last;
}

std::pair<LifecycleStep, int> LifecycleInterface::GetLastExecutedStep() const {
    std::pair<LifecycleStep, int> last{NO_STEP, NOT_EXECUTED};
    for (const auto& [step, status] : mStatus) {
        if (status == NOT_EXECUTED) {
            break;
        }
        last = {step, status};
    }
    return last;
}

int LifecycleInterface::GetStepStatus(LifecycleStep step) const {
    const auto found = mStatus.find(step);
    return found == mStatus.end() ? NOT_EXECUTED : found->second;
}

void LifecycleInterface::Execute(LifecycleStep step, StatusCode (LifecycleInterface::*work)()) {
    mStatus[step] = (this->*work)() == StatusCode::Ok ? SUCCEEDED : FAILED;
}

}  // namespace mwl
