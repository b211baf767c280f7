#include "session.h"

#include <algorithm>

#include "message_bus.h"

namespace ternctl {

using std::chrono::milliseconds;
using Typed::BlockingBus;
using Typed::BlockingProxy;
using Typed::Outcome;

namespace {

/// ssh may have to ask for a password.
constexpr milliseconds TIME_FOR_SSH{60000};
constexpr const char* THE_BUS = "the message bus";

std::shared_ptr<BlockingBus> MakeBus(const Options& options) {
    if (options.host) {
        return BlockingBus::OnHost(*options.host);
    }
    if (options.address) {
        return std::make_shared<BlockingBus>(*options.address);
    }
    return std::make_shared<BlockingBus>(options.isUserBus ? BlockingBus::Which::User
                                                           : BlockingBus::Which::System);
}

BlockingProxy<MessageBus> ProxyOf(const Session& session) {
    return BlockingProxy<MessageBus>(session.GetBus(), MessageBus::NAME, MessageBus::PATH)
        .Within(session.GetLimit());
}

}  // namespace

Session::Session(const Options& options)
    : mBus(MakeBus(options)),
      mLimit(options.limit.value_or(LIMIT)),
      mIsLimitGiven(options.limit.has_value()) {
    const milliseconds limit = options.host ? std::max(mLimit, TIME_FOR_SSH) : mLimit;
    if (const Outcome<void> connected = mBus->Connect(limit); !connected.IsOk()) {
        throw Failure(connected.GetError().GetText());
    }
}

milliseconds Session::GetLimit(milliseconds most) const {
    return mIsLimitGiven ? mLimit : std::min(mLimit, most);
}

std::string Session::FindOwner(const std::string& name) const {
    Outcome<std::string> owner = ProxyOf(*this).Call(MessageBus::GetNameOwner, std::string_view(name));
    if (owner.IsOk()) {
        return *std::move(owner);
    }
    // The bus refuses what is no name at all.
    throw owner.GetError().GetName() == SD_BUS_ERROR_INVALID_ARGS
        ? WrongUse("'" + name + "' is no name on a bus")
        : Explain(owner.GetError(),
                  owner.GetError().GetName() == SD_BUS_ERROR_NAME_HAS_NO_OWNER ? name : THE_BUS, mLimit);
}

std::vector<std::string> Session::ListNames() const {
    Outcome<std::vector<std::string>> names = ProxyOf(*this).Call(MessageBus::ListNames);
    if (!names.IsOk()) {
        throw Explain(names.GetError(), THE_BUS, mLimit);
    }
    std::erase_if(*names, [](const std::string& name) { return name.starts_with(':'); });
    std::sort(names->begin(), names->end());
    return *std::move(names);
}

}  // namespace ternctl
