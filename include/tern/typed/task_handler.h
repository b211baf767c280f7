#pragma once

/// Handlers that are coroutines: to be included by who binds one.
///
///     Task<Outcome<double>> Measure(std::uint32_t times) {
///         double sum = 0.0;
///         for (std::uint32_t i = 0; i < times; ++i) {
///             if (co_await Sleep(mBus, 100ms) != StatusCode::Ok) {
///                 co_return StatusCode::Stopping;
///             }
///             sum += Read();
///         }
///         co_return sum / times;
///     }
///
/// The call is answered when the coroutine is done, with what it returns or throws, as for a handler that
/// answers immediately. Until then it is an open call, like one with a Reply, and counts against
/// Bus::SetOpenCalls.
///
/// It takes its arguments by value, and no views: it goes on when the call has returned, and the message has
/// gone. It may use the object's members: when the object leaves the bus its coroutines end where they wait,
/// before it is destroyed, and their callers are answered "org.freedesktop.DBus.Error.Failed", "the service
/// dropped the call". One that takes its own object from the bus goes on to its next co_await. When the bus
/// closes, the calls are answered "org.freedesktop.DBus.Error.NoReply", "the service is stopping", then the
/// coroutines are resumed with `Stopping`, and those that still wait end. What they hold may be objects of
/// the bus (Exported), their own as well.
///
/// Costs two allocations more than a handler with a Reply.

#include <tern/typed/handler.h>
#include <tern/typed/handling.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>
#include <tern/typed/task.h>

#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

namespace mwl::Typed::Detail {

template <class Self, auto F>
struct TaskHandler {
    using S = typename HandlerShape<decltype(F)>::Type;
    using Answer = Reply<typename S::Value>;

    /// The body of the method. Throws nothing.
    static int Run(Handling& call, typename S::Arguments& arguments) noexcept {
        std::shared_ptr<ReplyState> replies;
        const std::uint64_t id = call.Defer(replies);
        if (id == 0) {
            return Handling::REFUSED;
        }
        Answer reply(std::move(replies), id);
        try {
            call.Keep(Work(SelfOf<Self>(call), reply, arguments));
        } catch (...) {
            // There is no memory for the coroutine.
            Handling::RefuseExceptionLater(reply, call.GetInterface());
        }
        return Handling::DONE;
    }

private:
    /// It begins immediately and takes over what it is given before it waits.
    static Task<void> Work(Self& self, Answer& given, typename S::Arguments& arguments) {
        Answer reply(std::move(given));
        try {
            using Content = typename S::Content;
            typename S::Result task = CallWith<F>(self, arguments, std::make_index_sequence<S::COUNT>());
            if constexpr (std::is_void_v<Content>) {
                co_await task;
                reply.Return();
            } else {
                Give(self, reply, co_await task);
            }
        } catch (...) {
            Handling::RefuseExceptionLater(reply, self);
        }
    }
    template <class Content>
    static void Give(Self& self, Answer& reply, Content content) {
        if constexpr (std::is_same_v<Content, StatusCode>) {
            if (content == StatusCode::Ok) {
                reply.Return();
            } else {
                Handling::RefuseLater(reply, self, Error(content));
            }
        } else if constexpr (!ResultOf<Content>::MAY_FAIL) {
            reply.Return(std::move(content));
        } else if (!content.IsOk()) {
            Handling::RefuseLater(reply, self, content.GetError());
        } else if constexpr (std::is_void_v<typename S::Value>) {
            reply.Return();
        } else {
            reply.Return(std::move(*content));
        }
    }
};

}  // namespace mwl::Typed::Detail
