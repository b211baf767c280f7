#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/threading/unique_function.h>
#include <tern/typed/bus.h>
#include <tern/typed/codec.h>

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace mwl::Typed {

/// The objects below an object manager of a peer, as they come and go with their interfaces.
///
///     mRooms = ObjectMirror(
///         mBus, "com.example.House", "/com/example",
///         [this](const std::string& path, const std::string& interface, const auto& properties) {
///             if (interface == Room1::NAME) {
///                 mProxies.emplace(path, Proxy<Room1>(mBus, "com.example.House", path));
///             }
///         },
///         [this](const std::string& path, const std::string& interface) { mProxies.erase(path); });
///
/// It listens first and asks for the objects then, so that none is missed, and each is reported once. When
/// the owner of the peer's name goes, all go; when it comes back, or another comes, they are asked for again,
/// and what the former owner still says does not count. The peer is not started.
///
/// The interfaces that every object has, those of D-Bus itself (org.freedesktop.DBus.Peer, .Introspectable,
/// .Properties, .ObjectManager), are left out. An object is there as long as it has another one.
///
/// The list is not what a peer makes of it: beyond OBJECTS objects, INTERFACES interfaces or NAME_BYTES
/// characters of names, and what is not below the root, is left out, counted (GetOmitted) and, once for each
/// owner, logged (error, logger name "Typed", ten in ten seconds). Values are handed over and not kept.
///
/// When the peer refuses to send its objects, does not answer within 5 seconds, or its answer cannot be read
/// to the end, for example because descriptors run out, it is logged once for each owner, GetStatus says so,
/// and it is asked again after 1, 2, 4 and so on to 64 seconds, until it answers. Objects that were read are
/// there, and are not reported again. A signal of the peer that cannot be read is counted
/// (Bus::Counters::wrongSignals) and logged, see Subscription.
///
/// Handlers run on the D-Bus thread, never within the constructor. A handler may destroy its own mirror, and
/// is destroyed itself once it has returned. An exception of a handler ends the loop in order, see
/// Dispatcher.
///
/// When the bus closes, and when the connection is lost, the list is emptied, and nothing is reported.
///
/// D-Bus thread only; once the bus has closed any thread. Debug builds check that.
class TERN_API ObjectMirror {
public:
    /// The most objects.
    static constexpr std::size_t OBJECTS = 4096;
    /// The most interfaces, of all objects together.
    static constexpr std::size_t INTERFACES = 16384;
    /// The most characters of paths and names of interfaces, of all objects together.
    static constexpr std::size_t NAME_BYTES = std::size_t{4} * 1024 * 1024;

    /// The values of an interface when it comes, by name. A value that an Any cannot keep, such as a
    /// descriptor, is missing. Changes are not followed: a PropertyCache does that.
    using Properties = std::map<std::string, Any>;
    /// The interfaces of each object by its path.
    using Objects = std::map<std::string, std::set<std::string>>;
    /// Called for each interface that is there now.
    using OnAdded = UniqueFunction<void(const std::string& path, const std::string& interface,
                                        const Properties& properties)>;
    /// Called for each interface that has gone.
    using OnRemoved = UniqueFunction<void(const std::string& path, const std::string& interface)>;
    /// Called when all that the peer has was reported.
    using OnReady = UniqueFunction<void()>;

    /// None; GetStatus is NotInitialized.
    ObjectMirror() noexcept;
    /// Sends, and does not wait. `root` is the path of the object manager. A handler may be empty. Throws
    /// std::bad_alloc.
    ObjectMirror(const Bus& bus, std::string destination, std::string root, OnAdded onAdded,
                 OnRemoved onRemoved, OnReady onReady = nullptr);
    /// Takes the mirror over; `other` is none then.
    ObjectMirror(ObjectMirror&& other) noexcept;
    /// The mirror held before ends.
    ObjectMirror& operator=(ObjectMirror&& other) noexcept;
    /// Nothing is reported any more.
    ~ObjectMirror();

    /// The present objects; in a handler with the object that is reported, or without it. Valid until the
    /// next event of the D-Bus thread.
    const Objects& GetObjects() const noexcept;
    /// How many interfaces were left out since this owner came, as often as they were reported.
    std::size_t GetOmitted() const noexcept;
    /// Ok: the peer has sent its objects, and what comes and goes is heard. Busy: it has been asked, or it is
    /// not known yet whether it is there. NotFound: it is not there. NotInitialized: none, or created when
    /// the bus was not open. Stopping: the bus has closed. Otherwise what listening or asking failed with;
    /// what could not be listened to stays so until a new mirror is created.
    StatusCode GetStatus() const noexcept;
    /// Ends it, as if it were destroyed.
    void Reset() noexcept;

private:
    struct State;
    std::shared_ptr<State> mState;
};

}  // namespace mwl::Typed
