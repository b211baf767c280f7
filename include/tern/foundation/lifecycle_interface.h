#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <map>
#include <utility>

namespace mwl {

/// The steps of a lifecycle, in the order in which they run. `static_cast<LifecycleStep>(0)` stands for
/// "none".
enum class LifecycleStep : int { Configure = 1, Initialize, Start, Stop };

/// Base of an object that is configured, initialised, started and stopped, each step in its turn.
///
/// The derived class supplies the work of each step; this class decides whether a step may run and records
/// how it ended. A step that is not allowed does nothing and says nothing: ask the queries. Nothing is
/// logged.
///
/// | operation  | runs when                                                                            |
/// |------------|--------------------------------------------------------------------------------------|
/// | Configure  | Configure has not succeeded: a failed one may be tried again                         |
/// | Initialize | Configure is the last step of the unbroken run of successes                           |
/// | Start      | Initialize is the last step of that run                                               |
/// | Stop       | Start was the last executed step, however it ended, or any step has failed            |
///
/// So an object that was configured and initialised without failure, but never started, is not stopped. This
/// is intended: an object that has not started has nothing to stop. The record of a step is only ever
/// overwritten by that step itself. A Stop that ran after a failure therefore stays recorded; once the failed
/// step and the rest then succeed, the object counts as stopped already, and Stop is refused: use a new
/// object instead of resuming one that was stopped.
///
/// Thread-safety: one thread at a time. A work operation may use the queries; its own step is recorded only
/// when it returns. An exception thrown by a work operation passes through, and the record stays as it was.
class TERN_API LifecycleInterface {
public:
    /// Every step is recorded as not executed.
    LifecycleInterface();
    virtual ~LifecycleInterface() = default;
    /// With the record as it is.
    LifecycleInterface(const LifecycleInterface&) = default;
    /// Takes over the other record.
    LifecycleInterface& operator=(const LifecycleInterface&) = default;

protected:
    /// The work of the steps. StatusCode::Ok counts as success, everything else as failure.
    virtual StatusCode OnConfigure() = 0;
    /// As OnConfigure.
    virtual StatusCode OnInitialize() = 0;
    /// As OnConfigure.
    virtual StatusCode OnStart() = 0;
    /// As OnConfigure.
    virtual StatusCode OnStop() = 0;

public:
    /// Each runs its step if the table above allows it, and blocks for as long as the work takes.
    void Configure();
    /// As Configure.
    void Initialize();
    /// As Configure.
    void Start();
    /// As Configure.
    void Stop();

    /// Whether the recorded outcome of any step is a failure.
    bool HasError() const;
    /// The last step of the unbroken run of successes that begins with Configure; step 0 when Configure has
    /// not succeeded.
    LifecycleStep GetLastContinuousSuccessfulStep() const;
    /// The last step of the unbroken run of executed steps that begins with Configure, and its status
    /// (see GetStepStatus); (step 0, 0) when Configure has not run. A Stop that ran without a Start is not
    /// seen here.
    std::pair<LifecycleStep, int> GetLastExecutedStep() const;
    /// 0 not executed, 1 succeeded, 2 failed; 0 for a value that is no step.
    int GetStepStatus(LifecycleStep step) const;

private:
    void Execute(LifecycleStep step, StatusCode (LifecycleInterface::*work)());

    std::map<LifecycleStep, int> mStatus;
};

}  // namespace mwl
