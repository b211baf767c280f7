#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/component_runtime_interface.h>

#include <cstddef>
#include <initializer_list>
#include <vector>

namespace mw::tern {

/// Runs a group of components as one: initialises and starts them in order, stops and destroys them in
/// reverse order, and undoes only what succeeded. It is a component itself, so groups nest.
///
///     CompositeRuntime group{&database, &dbusThread, &worker};
///     if (group.Initialize() == StatusCode::Ok && group.Start() == StatusCode::Ok) { ... }
///     // leaving the block stops and destroys what was started and initialised
///
/// A member may call the group while it is called itself. Its own operation has not succeeded by then, so the
/// group may call it once more; what the inner call did is not done again. REQUIRES: a member that takes the
/// group back from its Initialize or Start returns a failure.
///
/// Thread-safety: one thread at a time. The members belong to the caller and must outlive the group. The
/// destructor calls them, so one that throws there ends the process.
class TERN_API CompositeRuntime : public ComponentRuntimeInterface {
public:
    /// The members in this order. A null one is left out, with an error line, and has no number.
    CompositeRuntime(std::initializer_list<ComponentRuntimeInterface*> members);
    /// Stops, then destroys; a failing member ends the one pass, and the other pass runs all the same.
    ~CompositeRuntime() override;
    CompositeRuntime(const CompositeRuntime&) = delete;
    CompositeRuntime& operator=(const CompositeRuntime&) = delete;

    /// Initialises, in order, the members that are not initialised yet. The first failure is logged
    /// (critical) with the member's number, counted from 1, and its status returned; another call resumes at
    /// that member. Ok when all are initialised, also when there was nothing to do.
    StatusCode Initialize() override;
    /// Destroys the initialised members, last first. The first failure ends the pass and its status is
    /// returned without a message; the member stays counted, and another call tries it again.
    StatusCode Destroy() override;
    /// As Initialize, for starting. It does not check whether the members were initialised: the caller keeps
    /// this order.
    StatusCode Start() override;
    /// As Destroy, for stopping.
    StatusCode Stop() override;

    /// Appends a member, which the next Initialize and the next Start take in. A null one is refused with an
    /// error line, and nothing has changed.
    void Add(ComponentRuntimeInterface* member);
    /// Members of the group.
    std::size_t Count() const;
    /// Members, counted from the first, that are initialised and not destroyed since.
    std::size_t GetSuccessInitializeCount() const;
    /// Members, counted from the first, that are started and not stopped since.
    std::size_t GetSuccessStartCount() const;

private:
    using Operation = StatusCode (ComponentRuntimeInterface::*)();

    StatusCode Advance(std::size_t& count, Operation operation);
    StatusCode Retreat(std::size_t& count, Operation operation);

    std::size_t mSuccessInitializeCount = 0;
    std::size_t mSuccessStartCount = 0;
    std::vector<ComponentRuntimeInterface*> mMembers;
};

}  // namespace mw::tern
