#include "typed/bus_core.h"

#include <tern/foundation/log.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "foundation/error_text.h"
#include "platform/static_text.h"
#include "service/message_batch.h"
#include "typed/contained.h"
#include "typed/task_thread.h"

namespace mwl::Typed {

using mw::tern::MakeStatusCodeFromReturnCode;

namespace {

const StaticText LOGGER("Typed");

/// Before the frame's flush of the connection, and before sd-bus closes it.
constexpr int BEFORE_FLUSH = SD_EVENT_PRIORITY_NORMAL - 10;

}  // namespace

BusCore::Session::Session(BusCore& core, sd_event* event)
    : loop(event),
      departures(
          core.mBus, event,
          [&core](const char* name) {
              core.mReplies->calls.MarkLeft(name);
              core.mSession->credentials.Forget(name);
              if (core.mReplies->calls.IsEmpty()) {
                  core.OnNoCallOpen();
              }
          },
          [&core] {
              std::set<std::string> names = core.mReplies->calls.GetSenders();
              core.mSession->credentials.AddSenders(names);
              return names;
          }),
      credentials(core.mBus, [this] { departures.Need(); }),
      checks(*core.mReplies, credentials) {}

BusCore::BusCore() : mReplies(std::make_shared<ReplyState>()), mChanges([this] { WakeTurn(); }) {
    mReplies->core = this;
}

BusCore::~BusCore() {
    Close();
    // An object that dies from now on finds nothing to be removed from.
    mReplies->core = nullptr;
    ClearGraves();
    while (!mObjects.empty()) {
        Objects dying;
        dying.splice(dying.end(), mObjects, mObjects.begin());
    }
}

StatusCode BusCore::Open(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    if (mPhase == Phase::Closed) {
        return StatusCode::NotInitialized;
    }
    if (mPhase == Phase::Open || Credentials::Of(nullptr) != nullptr) {
        return StatusCode::Busy;
    }
    if (manager.GetBus() == nullptr || loop.GetEvent() == nullptr) {
        return StatusCode::InvalidArgument;
    }
    mBus = manager.GetBus();
    mSession.emplace(*this, loop.GetEvent());
    StatusCode status = MakeStatusCodeFromReturnCode(AddSources(loop.GetEvent()));
    if (status == StatusCode::Ok) {
        status = mReplies->dispatcher.Open(loop);
    }
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "Failed to open the typed bus, status=%u", status);
        mSession.reset();
        mBus = nullptr;
        return status;
    }
    mPhase = Phase::Open;
    TaskThread::Open(mSession->loop);
    return StatusCode::Ok;
}

int BusCore::AddSources(sd_event* loop) {
    sd_event_source* source = nullptr;
    // At the connection's own priority: lower, it would wait as long as calls keep coming.
    int r = sd_event_add_defer(loop, &source, OnEndOfTurn, this);
    mSession->turn.reset(source);
    if (r >= 0) {
        r = sd_event_source_set_enabled(source, SD_EVENT_OFF);
    }
    source = nullptr;
    if (r >= 0) {
        r = sd_event_add_exit(loop, &source, OnExit, this);
    }
    mSession->exit.reset(source);
    if (r >= 0) {
        r = sd_event_source_set_priority(source, BEFORE_FLUSH);
    }
    return r;
}

void BusCore::Close() noexcept {
    if (mPhase != Phase::Open) {
        return;
    }
    // On a lost connection nobody hears.
    const bool isConnected = sd_bus_is_open(mBus) > 0;
    if (isConnected) {
        RunContained([this] { Flush(); }, mSession->loop);
    }
    mChanges.Close();
    const PendingCalls::Calls open = mReplies->calls.Close();
    if (isConnected) {
        for (const auto& [id, call] : open) {
            mReplies->SendError(call, SD_BUS_ERROR_NO_REPLY, "the service is stopping");
        }
    }
    // While jobs may still be posted: what ends now may give its result to another thread.
    TaskThread::BeginStop();
    mStoppables.StopAll();
    while (!mPostponed.IsEmpty()) {
        --mLastTurns;
        mPostponed.TellAll();
    }
    mLastTurns = 0;
    mReplies->dispatcher.Close();
    mPhase = Phase::Closed;
    for (InterfaceBase* const interface : mAdopted) {
        interface->Detach();
    }
    mAdopted.clear();
    for (auto next = mObjects.begin(); next != mObjects.end();) {
        TakeOff(*next);
        // A coroutine that ended there may have held the object, which lies in its grave now.
        next = mById.count(next->id) > 0 ? std::next(next) : mObjects.begin();
    }
    mAsked = mSession->credentials.GetAsked();
    TaskThread::Close();
    mSession.reset();
    mBus = nullptr;
    ClearGraves();
}

/// Of a bus that has closed. Harmless to repeat.
void BusCore::TakeOff(Object& object) noexcept {
    object.slots.clear();
    for (const auto& interface : object.interfaces) {
        interface->Detach();
    }
}

StatusCode BusCore::AddObjectManager(const std::string& path) {
    if (!IsOpen()) {
        return StatusCode::NotInitialized;
    }
    if (IsRoot(path)) {
        return StatusCode::Ok;
    }
    mSession->managers.reserve(mSession->managers.size() + 1);
    const auto root = mRoots.insert(path).first;
    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_add_object_manager(mBus, &slot, path.c_str());
    if (r < 0) {
        TERN_LOG_ERROR(LOGGER, "Failed to add an object manager at %s (%d, %s)", path.c_str(), r,
                       ErrorText(-r));
        mRoots.erase(root);
    } else {
        mSession->managers.emplace_back(slot);
    }
    return MakeStatusCodeFromReturnCode(r);
}

std::uint64_t BusCore::Export(std::string path, std::vector<std::unique_ptr<InterfaceBase>> interfaces,
                              StatusCode& status) {
    if (!IsOpen()) {
        status = StatusCode::NotInitialized;
        return 0;
    }
    if (interfaces.empty() || std::count(interfaces.begin(), interfaces.end(), nullptr) > 0) {
        TERN_LOG_ERROR(LOGGER, "Refused to export %s without an interface, or with a null one", path.c_str());
        status = StatusCode::InvalidArgument;
        return 0;
    }
    Objects added;
    Object& object = added.emplace_back();
    object.id = mNextId++;  // where memory fails below, nobody has it
    object.path = std::move(path);
    object.interfaces = std::move(interfaces);
    object.slots.reserve(object.interfaces.size());
    for (const auto& interface : object.interfaces) {
        object.names.push_back(const_cast<char*>(interface->GetName().c_str()));
    }
    object.names.push_back(nullptr);
    int r = Register(object);
    if (r == -EEXIST && IsLeaving(object)) {
        object.state = Object::State::Waiting;
        r = 0;
    }
    if (r < 0) {
        status = MakeStatusCodeFromReturnCode(r);
        return 0;
    }
    // The steps that need memory; where one fails, the object goes with its slots, and nothing knows of it.
    std::vector<std::string> paths(object.interfaces.size(), object.path);
    mChanges.ReserveInterfaces(object.interfaces.size());
    mNew.push_back(object.id);
    mById.emplace(object.id, added.begin());
    // The steps that need none.
    for (std::size_t i = 0; i < paths.size(); ++i) {
        mChanges.AddInterface();
        object.interfaces[i]->Attach(*this, std::move(paths[i]));
    }
    mObjects.splice(mObjects.end(), added);
    WakeTurn();
    status = StatusCode::Ok;
    return object.id;
}

/// All of its interfaces, or none.
int BusCore::Register(Object& object) {
    for (const auto& interface : object.interfaces) {
        sd_bus_slot* slot = nullptr;
        const int r = sd_bus_add_object_vtable(mBus, &slot, object.path.c_str(), interface->GetName().c_str(),
                                               interface->GetVtable(), interface->GetUserData());
        if (r < 0) {
            object.slots.clear();
            if (r != -EEXIST || !IsLeaving(object)) {
                TERN_LOG_ERROR(LOGGER, "Failed to export %s of %s (%d, %s)", interface->GetName().c_str(),
                               object.path.c_str(), r, ErrorText(-r));
            }
            return r;
        }
        object.slots.emplace_back(slot);
    }
    return 0;
}

/// Whether one with the same interface at the same path was removed in this turn, and nobody has taken the
/// place since.
bool BusCore::IsLeaving(const Object& object) const {
    const auto isRival = [&object](const Object& other) {
        return &other != &object && other.path == object.path &&
               std::any_of(other.interfaces.begin(), other.interfaces.end(), [&object](const auto& its) {
                   return std::any_of(object.interfaces.begin(), object.interfaces.end(),
                                      [&its](const auto& own) { return own->GetName() == its->GetName(); });
               });
    };
    return std::any_of(mGraves.begin(), mGraves.end(), isRival) &&
           std::none_of(mObjects.begin(), mObjects.end(), isRival);
}

StatusCode BusCore::Adopt(InterfaceBase& interface, std::string path) {
    if (!IsOpen()) {
        return StatusCode::NotInitialized;
    }
    if (interface.GetAttachment() != nullptr) {
        TERN_LOG_ERROR(LOGGER, "Refused to adopt %s of %s, it is on a typed bus already",
                       interface.GetName().c_str(), path.c_str());
        return StatusCode::InvalidArgument;
    }
    mChanges.ReserveInterfaces(1);
    mAdopted.insert(&interface);
    mChanges.AddInterface();
    interface.Attach(*this, std::move(path));
    return StatusCode::Ok;
}

void BusCore::Remove(std::uint64_t id) noexcept {
    const auto found = mById.find(id);
    if (found == mById.end()) {
        return;
    }
    Object& object = *found->second;
    mGraves.splice(mGraves.end(), mObjects, found->second);
    mById.erase(found);
    if (!IsOpen()) {
        TakeOff(object);
        // While the bus closes it may be one of its coroutines that ends.
        if (!mSession.has_value()) {
            ClearGraves();
        }
        return;
    }
    object.slots.clear();
    for (const auto& interface : object.interfaces) {
        mSession->checks.Forget(*interface);
        mChanges.RemoveInterface(*interface);
        interface->Detach();
    }
    if (object.state == Object::State::Announced && !IsRoot(object.path)) {
        const int r = sd_bus_emit_interfaces_removed_strv(mBus, object.path.c_str(), object.names.data());
        // Without an object manager above there is nobody to notify.
        if (r >= 0) {
            ++mRemoved;
        } else if (r != -ESRCH) {
            LogUnannounced(object.path, r);
        }
    }
    WakeTurn();
}

bool BusCore::AddPostponed(Stoppable& postponed) noexcept {
    if (!IsOpen() || mLastTurns == 0 || !mPostponed.Add(postponed)) {
        return false;
    }
    WakeTurn();
    return true;
}

void BusCore::OnCallOpen() noexcept {
    if (IsOpen()) {
        mSession->departures.Need();
    }
}

void BusCore::OnNoCallOpen() noexcept {
    if (IsOpen() && mSession->credentials.IsEmpty()) {
        mSession->departures.Release();
    }
}

int BusCore::CheckCaller(InterfaceBase& interface, sd_bus_message* call, int capability,
                         sd_bus_message_handler_t handler, void* userdata, sd_bus_error* error) noexcept {
    if (!IsOpen()) {
        return sd_bus_error_set_const(error, SD_BUS_ERROR_NO_REPLY, "the service is stopping");
    }
    return mSession->checks.Check(interface, call, capability, handler, userdata, error);
}

void BusCore::WakeTurn() noexcept {
    if (mSession.has_value() && mSession->turn != nullptr) {
        // Cannot fail: of this process, and valid.
        static_cast<void>(sd_event_source_set_enabled(mSession->turn.get(), SD_EVENT_ONESHOT));
        mw::tern::MessageBatch::EndAfterThisMessage();
    }
}

int BusCore::OnEndOfTurn(sd_event_source* source, void* userdata) {
    RunContained([&] { static_cast<BusCore*>(userdata)->EndTurn(); }, sd_event_source_get_event(source));
    return 0;
}

int BusCore::OnExit(sd_event_source*, void* userdata) {
    static_cast<BusCore*>(userdata)->Close();
    return 0;
}

void BusCore::EndTurn() {
    mPostponed.TellAll();
    // No handler runs any more.
    RegisterWaiting();
    ClearGraves();
    Announce(Changes::Which::Due);
}

/// Before anybody else can take the place: the destructors of the former ones may do anything.
void BusCore::RegisterWaiting() {
    // Not in their graves meanwhile, so that a refusal is one.
    Objects former;
    former.swap(mGraves);
    for (std::size_t i = 0; i < mNew.size(); ++i) {
        const auto found = mById.find(mNew[i]);
        if (found == mById.end() || found->second->state != Object::State::Waiting) {
            continue;
        }
        found->second->state = Object::State::New;
        if (Register(*found->second) < 0) {
            Remove(mNew[i]);
        }
    }
    mGraves.splice(mGraves.begin(), former);
}

void BusCore::Flush() {
    if (IsOpen()) {
        Announce(Changes::Which::All);
    }
}

/// Does nothing within itself: what a getter changed would be announced before its object.
void BusCore::Announce(Changes::Which which) {
    if (mIsAnnouncing) {
        return;
    }
    struct End {
        bool& isAnnouncing;
        ~End() { isAnnouncing = false; }
    };
    mIsAnnouncing = true;
    const End end{mIsAnnouncing};
    AnnounceNew();
    mChanges.Announce(mBus, mSession->loop, which,
                      [this](const InterfaceBase& interface) { return IsNotAnnounced(interface); });
}

/// Whether it is of an object that is still to be announced: one that came meanwhile, or one whose place
/// another one still has, whose values sd-bus would read.
bool BusCore::IsNotAnnounced(const InterfaceBase& interface) const {
    return std::any_of(mNew.begin(), mNew.end(), [&](std::uint64_t id) {
        const auto found = mById.find(id);
        return found != mById.end() &&
               std::any_of(found->second->interfaces.begin(), found->second->interfaces.end(),
                           [&](const auto& own) { return own.get() == &interface; });
    });
}

/// Getters run meanwhile, which may export and remove what they like.
void BusCore::AnnounceNew() {
    std::vector<std::uint64_t> added;
    added.swap(mNew);
    for (std::size_t i = 0; i < added.size(); ++i) {
        const auto found = mById.find(added[i]);
        if (found == mById.end()) {
            continue;
        }
        if (found->second->state == Object::State::Waiting) {
            mNew.push_back(added[i]);
            continue;
        }
        AnnounceOne(added[i]);
    }
}

void BusCore::AnnounceOne(std::uint64_t id) {
    const Object& object = *mById.at(id);
    const std::string path = object.path;
    int r = -ESRCH;
    if (!IsRoot(path)) {
        r = sd_bus_emit_interfaces_added_strv(mBus, path.c_str(), const_cast<char**>(object.names.data()));
    }
    const auto found = mById.find(id);
    if (found != mById.end()) {
        found->second->state = Object::State::Announced;
    }
    if (r >= 0) {
        ++mAdded;
        if (found != mById.end()) {
            for (const auto& interface : found->second->interfaces) {
                mChanges.Forget(*interface);
            }
        }
    } else if (r != -ESRCH) {
        LogUnannounced(path, r);
    }
}

void BusCore::LogUnannounced(const std::string& path, int error) noexcept {
    ++mUnannounced;
    unsigned long omitted = 0;
    if (mLimit.Allows(omitted)) {
        TERN_LOG_ERROR(LOGGER, "Failed to announce that %s comes or goes (%d, %s) (%lu like it not logged)",
                       path.c_str(), error, ErrorText(-error), omitted);
    }
}

/// Whose destructors may remove others.
void BusCore::ClearGraves() noexcept {
    while (!mGraves.empty()) {
        Objects dead;
        dead.splice(dead.end(), mGraves);
    }
}

Bus::Counters BusCore::GetCounters() const {
    Bus::Counters counters;
    counters.changes = mChanges.GetSent();
    counters.added = mAdded;
    counters.removed = mRemoved;
    counters.unannounced = mUnannounced + mChanges.GetUnsent();
    counters.deferred = mReplies->calls.GetAdded();
    counters.refusedCalls = mReplies->calls.GetRefused();
    counters.droppedCalls = mReplies->droppedCalls;
    counters.unsentReplies = mReplies->unsentReplies;
    counters.refusedJobs = mReplies->dispatcher.GetRefused();
    counters.askedCallers = mSession.has_value() ? mSession->credentials.GetAsked() : mAsked;
    counters.calls = mReplies->clients.sent;
    counters.unsentCalls = mReplies->clients.unsent;
    counters.wrongReplies = mReplies->clients.wrongReplies;
    counters.pendingCalls = mReplies->clients.waiting;
    counters.wrongSignals = mReplies->watching.wrongSignals;
    counters.wrongProperties = mReplies->watching.wrongProperties;
    counters.objects = mObjects.size();
    counters.openCalls = mReplies->calls.GetSize();
    counters.waitingJobs = mReplies->dispatcher.GetWaiting();
    counters.knownCallers = mSession.has_value() ? mSession->credentials.GetSize() : 0;
    return counters;
}

}  // namespace mwl::Typed
