#include "typed/credentials.h"

#include <cerrno>
#include <utility>

#include "typed/contained.h"

namespace mwl::Typed {

namespace {

constexpr const char* BUS_NAME = "org.freedesktop.DBus";
constexpr const char* BUS_PATH = "/org/freedesktop/DBus";

/// One for a D-Bus thread, because there is one connection.
constinit thread_local Credentials* tCredentials = nullptr;

/// The entries of interest of "a{sv}"; false when it is something else.
bool Read(sd_bus_message* reply, Identity& identity) {
    if (sd_bus_message_is_method_error(reply, nullptr) > 0 ||
        sd_bus_message_enter_container(reply, 'a', "{sv}") <= 0) {
        return false;
    }
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
        const char* key = nullptr;
        if (sd_bus_message_read_basic(reply, 's', &key) <= 0) {
            return false;
        }
        const std::string_view name = key;
        std::uint32_t number = 0;
        if (name == "UnixUserID" || name == "ProcessID") {
            if (sd_bus_message_read(reply, "v", "u", &number) <= 0) {
                return false;
            }
            if (name == "ProcessID") {
                identity.pid = static_cast<pid_t>(number);
            } else {
                identity.uid = static_cast<uid_t>(number);
            }
        } else if (sd_bus_message_skip(reply, "v") < 0) {
            return false;
        }
        if (sd_bus_message_exit_container(reply) < 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

Credentials::Credentials(sd_bus* bus, std::function<void()> whenKept)
    : mBus(bus), mWhenKept(std::move(whenKept)) {
    tCredentials = this;
}

Credentials::~Credentials() {
    tCredentials = nullptr;
}

Credentials* Credentials::Of(sd_bus* bus) noexcept {
    return tCredentials != nullptr && (bus == nullptr || tCredentials->mBus == bus) ? tCredentials : nullptr;
}

const Identity* Credentials::Find(std::string_view sender) noexcept {
    const auto found = mBySender.find(sender);
    if (found == mBySender.end()) {
        return nullptr;
    }
    mKept.splice(mKept.begin(), mKept, found->second);
    return &found->second->identity;
}

const Identity* Credentials::Keep(std::string_view sender, const Identity& identity) {
    if (const Identity* const known = Find(sender)) {
        return known;
    }
    std::list<Entry> added;
    added.push_back({std::string(sender), identity});
    mBySender.emplace(added.front().sender, added.begin());
    mKept.splice(mKept.begin(), added);
    if (mKept.size() > LIMIT) {
        mBySender.erase(mKept.back().sender);
        mKept.pop_back();
    }
    mWhenKept();
    return &mKept.front().identity;
}

int Credentials::Ask(std::string_view sender, WhenKnown whenKnown) {
    const auto [found, isNew] = mQuestions.try_emplace(std::string(sender));
    Question& question = found->second;
    try {
        question.waiting.push_back(std::move(whenKnown));
    } catch (...) {
        if (isNew) {
            mQuestions.erase(found);
        }
        throw;
    }
    if (!isNew) {
        return 0;
    }
    question.owner = this;
    question.sender = found->first;
    sd_bus_slot* slot = nullptr;
    const int r =
        sd_bus_call_method_async(mBus, &slot, BUS_NAME, BUS_PATH, BUS_NAME, "GetConnectionCredentials",
                                 OnAnswer, &question, "s", question.sender.c_str());
    question.slot.reset(slot);
    if (r < 0) {
        mQuestions.erase(found);
        return r;
    }
    ++mAsked;
    return 0;
}

void Credentials::AddSenders(std::set<std::string>& names) const {
    for (const Entry& entry : mKept) {
        names.insert(entry.sender);
    }
}

void Credentials::Forget(std::string_view sender) noexcept {
    const auto found = mBySender.find(sender);
    if (found != mBySender.end()) {
        const auto entry = found->second;
        mBySender.erase(found);
        mKept.erase(entry);
    }
}

int Credentials::OnAnswer(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto& question = *static_cast<Question*>(userdata);
    Credentials& self = *question.owner;
    RunContained(
        [&] {
            // Taken out first, so that those who wait may ask again.
            const auto asked = self.mQuestions.extract(question.sender);
            std::vector<WhenKnown> waiting = std::move(asked.mapped().waiting);
            Identity identity;
            bool isKnown = Read(reply, identity);
            if (isKnown) {
                self.Keep(asked.key(), identity);
            } else if (const Identity* const kept = self.Find(asked.key())) {
                // Found out elsewhere meanwhile.
                identity = *kept;
                isKnown = true;
            }
            for (WhenKnown& whenKnown : waiting) {
                whenKnown(isKnown ? &identity : nullptr);
            }
        },
        reply);
    return 0;
}

}  // namespace mwl::Typed
