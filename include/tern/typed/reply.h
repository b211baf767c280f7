#pragma once

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/threading/unique_function.h>
#include <tern/typed/codec.h>
#include <tern/typed/dispatcher.h>
#include <tern/typed/error.h>
#include <tern/typed/write_result.h>

#include <cstdint>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

/// The state that the bus and the tokens of its calls share; outlives the bus. Opaque.
struct ReplyState;

/// Takes over a call that is to be answered later: the message is kept on the D-Bus thread until a Reply with
/// the number answers it, or until the bus closes and answers it itself. For handlers of one's own; those of
/// `Implements` do it for every handler with a Reply.
///
/// D-Bus thread, in the handler of `call`, which returns 1 then. Makes a Reply from what is returned, once.
///
/// Positive: the number. 0: not taken over, and `error` is set, "org.freedesktop.DBus.Error.LimitsExceeded"
/// when too many calls are open, "org.freedesktop.DBus.Error.NoReply" once the bus has closed,
/// "org.freedesktop.DBus.Error.NoMemory".
TERN_API std::uint64_t TakeOver(ReplyState& state, sd_bus_message* call, sd_bus_error* error) noexcept;

namespace Detail {

template <class R>
inline constexpr bool ANSWER_BORROWS = BORROWS<R>;
template <>
inline constexpr bool ANSWER_BORROWS<void> = false;
template <class... T>
inline constexpr bool ANSWER_BORROWS<Results<T...>> = (BORROWS<T> || ...);

}  // namespace Detail

/// The part of a Reply that does not depend on its type; see there.
class TERN_API ReplyToken {
public:
    ReplyToken(const ReplyToken&) = delete;
    ReplyToken& operator=(const ReplyToken&) = delete;

    /// Answers with the error. Outcomes as of Return.
    void Fail(Error error);

    /// Whether somebody still waits for the answer: it has not been given, the caller asked for one (a call
    /// may say that it wants none, see sd_bus_message_get_expect_reply(3)), it has not left the bus as far as
    /// that is known by now, and the bus has not closed. A long job calls this now and then, and stops when
    /// it works for nobody.
    bool IsWanted() const noexcept;

protected:
    /// Fills a reply and returns a negative error number when it could not.
    using Writer = UniqueFunction<int(sd_bus_message* reply)>;

    /// REQUIRES: `id` is from TakeOver with this state, and no token has been created from it yet.
    ReplyToken(std::shared_ptr<ReplyState> state, std::uint64_t id) noexcept;
    /// Takes the call over; `other` has none then.
    ReplyToken(ReplyToken&& other) noexcept;
    /// A call that was held unanswered is answered as if destroyed.
    ReplyToken& operator=(ReplyToken&& other) noexcept;
    ~ReplyToken();

    /// Answers with what `writer` appends; see Reply::Return.
    void Answer(Writer writer);

private:
    friend class Handling;
    void Drop() noexcept;

    std::shared_ptr<ReplyState> mState;
    std::uint64_t mId;
    /// By which the answer reaches the D-Bus thread, whatever happens.
    Dispatcher::Place mPlace;
};

/// The right, and the duty, to answer one call: the first parameter of a handler whose answer comes later.
///
///     void ExportLog(Reply<std::string> reply, std::string password) {
///         mPool.QueueUnique([reply = std::move(reply), password = std::move(password)]() mutable {
///             reply.Return(Pack(password));
///         });
///     }
///
/// It answers once: the first of Return and Fail counts, a second one does nothing. A Reply that is destroyed
/// unanswered answers "org.freedesktop.DBus.Error.Failed", "the service dropped the call", so that no caller
/// waits for nothing. When the loop ends, the bus answers open calls with
/// "org.freedesktop.DBus.Error.NoReply", "the service is stopping"; a later answer does nothing. An answer to
/// a call that wants none, or whose caller has left, sends nothing.
///
/// Any thread, one at a time; moved, never copied. On the D-Bus thread the answer is sent immediately, from
/// another it is sent after what that thread posted before (Bus::Post), and no limit refuses it. The answer's
/// value is encoded on the D-Bus thread; a value that cannot be sent, such as text that is not UTF-8, is
/// answered with "org.freedesktop.DBus.Error.Failed", "the service failed internally", and logged. Where an
/// answer, or an error, is not sent for want of memory or room, the same is sent in its place, with
/// "org.freedesktop.DBus.Error.NoMemory" for memory; where that fails too, the log and Bus::Counters say so.
template <class R>
class [[nodiscard]] Reply : public ReplyToken {
    static_assert(
        !Detail::ANSWER_BORROWS<R>,
        "the answer is sent later: its value must own what it holds, std::string for std::string_view");

public:
    /// REQUIRES: `id` is from TakeOver with this state, and no Reply has been created from it yet.
    Reply(std::shared_ptr<ReplyState> state, std::uint64_t id) noexcept : ReplyToken(std::move(state), id) {}
    /// Takes the call over; `other` has none then.
    Reply(Reply&& other) noexcept = default;
    /// A call held unanswered before is answered as if dropped.
    Reply& operator=(Reply&& other) noexcept = default;
    ~Reply() = default;

    /// Answers with the value. Throws std::bad_alloc when there is no memory to take it along; the call is
    /// still open then.
    template <class V = R>
    requires(!std::is_void_v<R> && std::is_convertible_v<V, R>) void Return(V&& value) {
        Answer([result = R(std::forward<V>(value))](sd_bus_message* reply) {
            return Detail::WriteResult(reply, result);
        });
    }
    /// Answers a call without a result.
    void Return() requires std::is_void_v<R> {
        Answer([](sd_bus_message*) { return 0; });
    }
};

}  // namespace mwl::Typed
