#include "gallery.h"

#include <poll.h>

#include <new>
#include <stdexcept>
#include <utility>

using mwl::StatusCode;

namespace type_gallery {

namespace {

constexpr std::uint32_t LONGEST_MS = 10'000;

constexpr StatusCode STATUSES[] = {StatusCode::Ok,           StatusCode::Failure,
                                   StatusCode::AccessDenied, StatusCode::StreamError,
                                   StatusCode::Busy,         StatusCode::Stopping,
                                   StatusCode::Deadlock,     StatusCode::AlreadyExists,
                                   StatusCode::Interrupted,  StatusCode::InvalidArgument,
                                   StatusCode::IoError,      StatusCode::KeyNotFound,
                                   StatusCode::NotFound,     StatusCode::ResourceUnavailable,
                                   StatusCode::OutOfMemory,  StatusCode::OpenFailed,
                                   StatusCode::NotSupported, StatusCode::NotInitialized,
                                   StatusCode::NotPermitted, StatusCode::Timeout};

}  // namespace

Typed::Outcome<void> Gallery::Throw(std::string_view kind) {
    if (kind == "bad_alloc") {
        throw std::bad_alloc();
    }
    if (kind == "runtime_error") {
        throw std::runtime_error("a text for the log, not for the caller");
    }
    if (kind == "int") {
        throw 1;
    }
    for (const StatusCode status : STATUSES) {
        if (mw::tern::ConvertStatusCodeToString(status) == kind) {
            return status;
        }
    }
    return Typed::Error::InvalidArgs("'" + std::string(kind) + "' is neither thrown nor a StatusCode");
}

void Gallery::Later(Typed::Reply<std::string> reply, std::uint32_t ms, std::string text) {
    if (ms > LONGEST_MS) {
        reply.Fail(Typed::Error::InvalidArgs("more than ten seconds"));
        return;
    }
    mPool.QueueUnique([reply = std::move(reply), ms, text = std::move(text)]() mutable {
        // The work. It ends early when the pool is stopped.
        static_cast<void>(poll(nullptr, 0, static_cast<int>(ms)));
        reply.Return(std::move(text));
    });
}

}  // namespace type_gallery
