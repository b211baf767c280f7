#pragma once

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/threading/unique_function.h>
#include <tern/typed/codec.h>
#include <tern/typed/contract.h>
#include <tern/typed/owned.h>
#include <tern/typed/remote.h>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

namespace Detail {

/// A property as the library sees it.
struct CachedProperty {
    const char* name;
    const char* signature;
    /// Reads the content of a variant, whose signature is right, into the values. Negative: it cannot be
    /// read, and the value is as it was. Exceptions of a codec of one's own, except std::bad_alloc, pass
    /// through.
    int (*read)(sd_bus_message* message, void* values);
    /// Whether there was a value; there is none now.
    bool (*clear)(void* values);
};

/// The part of a PropertyCache that does not depend on types. A property is known by its place in the table,
/// a set of properties by bits.
class TERN_API CachedProperties {
public:
    struct State;
    /// Called with what has changed.
    using OnChange = UniqueFunction<void(std::uint64_t changed)>;

    /// `interface` and `table` stay where they are; `values` is given to the table's functions.
    CachedProperties(const std::shared_ptr<Remote>& remote, const char* interface,
                     const CachedProperty* table, std::size_t count, std::shared_ptr<void> values);
    CachedProperties(const CachedProperties&) = delete;
    CachedProperties& operator=(const CachedProperties&) = delete;
    ~CachedProperties();

    StatusCode GetStatus() const noexcept;
    void SetHandler(OnChange handler);
    void Refresh();

private:
    const std::shared_ptr<State> mState;
};

/// Whether a PropertyCache keeps the member: a property that is sent with all others.
template <const auto& M>
inline constexpr bool IS_CACHED = MemberType<M>::KIND == Kind::Property && !M.flags.Has(EXPLICIT);

/// The values of a contract's properties, and how they are read.
template <class List>
struct CacheLayout;
template <const auto&... M>
struct CacheLayout<Members<M...>> {
    static constexpr std::size_t COUNT = (std::size_t{0} + ... + std::size_t{IS_CACHED<M>});

    /// How many come before a member.
    template <const auto& Wanted>
    static constexpr std::size_t PlaceOf() {
        std::size_t place = 0;
        bool isFound = false;
        static_cast<void>(((isFound = std::is_same_v<Tag<M>, Tag<Wanted>>,
                            place += !isFound && IS_CACHED<M> ? 1U : 0U, isFound) ||
                           ...));
        return place;
    }
    template <const auto& Member>
    static auto ValueOf() {
        if constexpr (IS_CACHED<Member>) {
            return std::tuple<std::optional<Owned<typename MemberType<Member>::Type>>>();
        } else {
            return std::tuple<>();
        }
    }
    using Values = decltype(std::tuple_cat(ValueOf<M>()...));

    template <std::size_t PLACE>
    static int Read(sd_bus_message* message, void* values) try {
        auto& kept = std::get<PLACE>(*static_cast<Values*>(values));
        typename std::remove_reference_t<decltype(kept)>::value_type value{};
        Fault fault;
        using Type = std::remove_cvref_t<decltype(value)>;
        const int r = Codec<Type>::Read(message, value, fault);
        if (r >= 0) {
            kept.emplace(std::move(value));
        }
        return r;
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
    template <std::size_t PLACE>
    static bool Clear(void* values) {
        auto& kept = std::get<PLACE>(*static_cast<Values*>(values));
        const bool wasThere = kept.has_value();
        kept.reset();
        return wasThere;
    }
    static constexpr std::array<CachedProperty, COUNT> MakeTable() {
        std::array<CachedProperty, COUNT> table{};
        static_cast<void>((Add<M>(table), ...));
        return table;
    }
    static constexpr std::array<CachedProperty, COUNT> TABLE = MakeTable();

private:
    template <const auto& Member>
    static constexpr int Add(std::array<CachedProperty, COUNT>& table) {
        if constexpr (IS_CACHED<Member>) {
            constexpr std::size_t PLACE = PlaceOf<Member>();
            table[PLACE] = {Member.name, MemberType<Member>::IN.text, &Read<PLACE>, &Clear<PLACE>};
        }
        return 0;
    }
};

template <class P>
concept HasRemote = requires(const P& proxy) {
    { proxy.GetRemote() } -> std::convertible_to<const std::shared_ptr<Remote>&>;
};

}  // namespace Detail

/// Which properties of a contract have changed.
template <class Contract>
class PropertyChanges {
public:
    /// From bits by place; created by PropertyCache.
    explicit PropertyChanges(std::uint64_t bits) noexcept : mBits(bits) {}
    /// Whether a value of the property has come, be it the same as before, or it has none any more.
    template <const auto& M>
    bool Has() const noexcept {
        static_assert(Detail::IsIn<M>(Contract::ALL), "this is not a member of the contract");
        static_assert(MemberType<M>::KIND == Kind::Property, "this member is not a property");
        if constexpr (Detail::IS_CACHED<M>) {
            using Layout = Detail::CacheLayout<std::remove_cvref_t<decltype(Contract::ALL)>>;
            return (mBits >> Layout::template PlaceOf<M>() & 1U) != 0;
        } else {
            return false;
        }
    }
    /// Whether none has: it was the status alone.
    bool IsEmpty() const noexcept { return mBits == 0; }

private:
    std::uint64_t mBits;
};

/// The properties of an object of a peer, kept here and up to date as far as the peer announces their
/// changes.
///
///     mCache.emplace(mRoom);   // std::optional<PropertyCache<Thermostat1>>
///     mCache->OnChange([this](const PropertyChanges<Thermostat1>& changes) {
///         if (changes.Has<Thermostat1::Temperature>()) {
///             Show(mCache->Get<Thermostat1::Temperature>());   // std::optional<double>
///         }
///     });
///
/// It listens to changes first and asks for all values then, so that none is missed; changes that come
/// before the answer count, not what the answer says of those properties. A property that is announced
/// as changed without its value has none until it has been asked for. When the owner of the peer's name
/// goes, all values go; when it comes back, or another comes, they are asked for again, and what the former
/// owner still says does not count. The peer is not started.
///
/// Properties that the contract does not have are skipped; EXPLICIT ones are not kept. A value of another
/// type than the contract's, or none of that type's, counts as none; it is counted
/// (Bus::Counters::wrongProperties) and logged (warning, logger name "Typed", ten in ten seconds).
///
/// When the peer refuses to send its properties, or does not answer within the time-out of the Remote, it is
/// logged once for each owner (error, ten in ten seconds), GetStatus says so, and it is asked again after 1,
/// 2, 4 and so on to 64 seconds, until it answers. Values that it announces meanwhile count.
///
/// Memory: one value for each property of the contract, of at most a message's size. At most one question
/// for all properties and one for each is under way, however often the peer announces.
///
/// When the bus closes, and when the connection is lost, the values go, and nothing is reported.
///
/// D-Bus thread only; once the bus has closed any thread. Debug builds check that.
template <class Contract>
class PropertyCache {
    static_assert(CheckedContract<Contract>::IS_SOUND);
    using Layout = Detail::CacheLayout<std::remove_cvref_t<decltype(Contract::ALL)>>;
    static_assert(Layout::COUNT > 0, "the contract has no properties to keep; EXPLICIT ones are not kept");
    static_assert(Layout::COUNT <= 64, "a PropertyCache keeps at most 64 properties");

public:
    /// Sends, and does not wait. Throws std::bad_alloc.
    explicit PropertyCache(const std::shared_ptr<Remote>& remote)
        : mValues(std::make_shared<typename Layout::Values>()),
          mProperties(remote, Contract::NAME, Layout::TABLE.data(), Layout::COUNT, mValues) {}
    /// The same for the object of a proxy; the cache does not need the proxy any more.
    template <Detail::HasRemote Proxy>
    explicit PropertyCache(const Proxy& proxy) : PropertyCache(proxy.GetRemote()) {}
    PropertyCache(const PropertyCache&) = delete;
    PropertyCache& operator=(const PropertyCache&) = delete;
    ~PropertyCache() = default;

    /// The value; nothing when it is not known. Valid until the next event of the D-Bus thread.
    template <const auto& M>
    const std::optional<Owned<typename MemberType<M>::Type>>& Get() const noexcept {
        static_assert(Detail::IsIn<M>(Contract::ALL), "this is not a member of the contract");
        static_assert(MemberType<M>::KIND == Kind::Property, "this member is not a property");
        static_assert(!M.flags.Has(EXPLICIT),
                      "an EXPLICIT property is not sent with the others: call for it");
        return std::get<Layout::template PlaceOf<M>()>(*mValues);
    }

    /// Has the handler called after each message that changed values or GetStatus: when all values have come,
    /// when some change or go, when the peer goes. Never within a function of this class. It takes the place
    /// of the one before.
    ///
    /// It runs on the D-Bus thread. It may destroy the cache, and is destroyed after it has returned. An
    /// exception of it ends the loop in order, see Dispatcher; so does an exception of a codec of one's own.
    void OnChange(UniqueFunction<void(const PropertyChanges<Contract>&)> handler) {
        if (handler) {
            mProperties.SetHandler([own = std::move(handler)](std::uint64_t changed) mutable {
                own(PropertyChanges<Contract>(changed));
            });
        } else {
            mProperties.SetHandler(nullptr);
        }
    }

    /// Ok: the peer has sent all its properties, and its changes are heard. Busy: it has been asked, or it is
    /// not known yet whether it is there. NotFound: it is not there. NotInitialized: created when the bus was
    /// not open. Stopping: the bus has closed. Otherwise what listening or asking failed with; what could not
    /// be listened to stays so until a new cache is created.
    StatusCode GetStatus() const noexcept { return mProperties.GetStatus(); }
    /// Whether GetStatus is Ok.
    bool IsReady() const noexcept { return GetStatus() == StatusCode::Ok; }
    /// Asks for all values now, for properties that change without being announced. The values stay until the
    /// answer comes. Nothing when the peer is not there.
    void Refresh() { mProperties.Refresh(); }

private:
    const std::shared_ptr<typename Layout::Values> mValues;
    Detail::CachedProperties mProperties;
};

}  // namespace mwl::Typed
