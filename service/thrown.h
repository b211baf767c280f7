#pragma once

#include <cxxabi.h>
#include <tern/foundation/api.h>

#include <cstdlib>

#include "foundation/handle.h"

namespace mw::tern {

/// A thrown exception, for a line of the log. Created where there is a current exception: in a catch block or
/// a terminate handler; the texts live as long as that exception and this object.
class Thrown {
public:
    Thrown();

    /// As it is written in C++, for example "std::runtime_error".
    const char* Type() const { return mType; }
    /// The text of std::exception::what, or the text itself where a text was thrown; "no text" for everything
    /// else.
    const char* Text() const { return mText; }

private:
    mwl::Handle<char, free> mReadable;
    const char* mType = "a foreign exception";
    const char* mText = "no text";
};

/// Reports to the library's listener (foundation/tell.h) that it ends the service.
TERN_API void TellThrown(const Thrown& thrown) noexcept;

/// The result of `body`. An exception of it ends here: `report` is called with it, and the result is
/// `failure`. The unwinding by which pthread_cancel(3) and pthread_exit(3) end a thread passes through,
/// because it must.
template <typename Result, typename Body, typename Report>
Result Contain(Result failure, Body body, Report report) {
    try {
        return body();
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        report(Thrown());
        return failure;
    }
}

}  // namespace mw::tern
