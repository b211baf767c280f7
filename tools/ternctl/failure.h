#pragma once

#include <tern/typed/error.h>

#include <chrono>
#include <stdexcept>
#include <string>

namespace ternctl {

namespace Typed = mwl::Typed;

/// The exit status of the program.
enum class ExitStatus {
    Done = 0,
    Failed = 1,
    WrongUse = 2,
    NobodyThere = 3  ///< the name is not on the bus, or there are no diagnostics at it
};

/// The cause of a failure, for callers that tolerate some.
enum class Cause {
    Other,
    WrongUse,
    NotThere,  ///< the name is not on the bus
    NoDiagnostics,
    Left,  ///< without an answer
    Late   ///< no answer within the limit
};

/// Why a command cannot go on: the text for the person, without the program's name.
class Failure : public std::runtime_error {
public:
    Failure(Cause cause, const std::string& text) : std::runtime_error(text), mCause(cause) {}
    explicit Failure(const std::string& text) : Failure(Cause::Other, text) {}

    Cause GetCause() const noexcept { return mCause; }
    ExitStatus GetStatus() const noexcept {
        switch (mCause) {
            case Cause::WrongUse:
                return ExitStatus::WrongUse;
            case Cause::NotThere:
            case Cause::NoDiagnostics:
                return ExitStatus::NobodyThere;
            default:
                return ExitStatus::Failed;
        }
    }

private:
    Cause mCause;
};

/// The failure of a call to `name` that was waited for at most for `limit`: what a person can act on.
Failure Explain(const Typed::Error& error, const std::string& name, std::chrono::milliseconds limit);

/// "WHAT: the system's text for `error`".
Failure SystemFailure(const std::string& what, int error);

}  // namespace ternctl
