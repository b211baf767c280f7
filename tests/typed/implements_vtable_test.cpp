// The vtable that the compiler makes, beside one written by hand.

#include "typed/implements_fixture.h"

namespace {

using namespace mwl::Typed::Tests;

struct Small1 {
    static constexpr const char* NAME = "com.example.Small1";
    static constexpr Method<void()> Bare{"Bare"};
    static constexpr Method<Results<std::string, bool>(std::uint32_t, std::string_view)> Full{
        "Full", {"count", "text", "result", "isDone"}, OPEN | DEPRECATED | SENSITIVE};
    static constexpr Method<void(bool)> Lost{"Lost", {"value"}, NO_REPLY | HIDDEN | Needs(CAP_SYS_TIME)};
    static constexpr Method<void()> Guarded{"Guarded", {}, Checked(Needs(CAP_SYS_TIME)) | DEPRECATED};
    static constexpr Property<double> Level{"Level"};
    static constexpr Property<std::vector<std::string>> Fixed{"Fixed", CONSTANT | HIDDEN};
    static constexpr WritableProperty<std::int64_t> Target{"Target", EMITS | OPEN};
    static constexpr WritableProperty<bool> Large{"Large", INVALIDATES | EXPLICIT | SENSITIVE};
    static constexpr Signal<double, std::string> Measured{"Measured", {"celsius", "where"}};
    static constexpr Signal<> Over{"Over", {}, DEPRECATED};
    static constexpr Members<Bare, Full, Lost, Guarded, Level, Fixed, Target, Large, Measured, Over> ALL{};
};

struct Small final : Implements<Small, Small1> {
    void Bare() {}
    Results<std::string, bool> Full(std::uint32_t, std::string) { return {"", true}; }
    void Lost(bool) {}
    void SetTarget(std::int64_t) {}
    void SetLarge(bool) {}
    double level = 0.0;
    std::vector<std::string> fixed;
    std::int64_t target = 0;
    bool large = false;
    static constexpr auto Describe() {
        return Bindings<Bind<Small1::Bare, &Small::Bare>, Bind<Small1::Full, &Small::Full>,
                        Bind<Small1::Lost, &Small::Lost>, Bind<Small1::Guarded, &Small::Bare>,
                        Bind<Small1::Level, &Small::level>, Bind<Small1::Fixed, &Small::fixed>,
                        Bind<Small1::Target, &Small::target, &Small::SetTarget>,
                        Bind<Small1::Large, &Small::large, &Small::SetLarge>>();
    }
};

constexpr auto ON_LEVEL = &Detail::OnGet<Small, &Small::level>;
const sd_bus_vtable BY_HAND[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Bare", "", "", (&Detail::OnMethod<Small, Small1::Bare, &Small::Bare>), 0),
    SD_BUS_METHOD_WITH_NAMES("Full", "us", SD_BUS_PARAM(count) SD_BUS_PARAM(text), "sb",
                             SD_BUS_PARAM(result) SD_BUS_PARAM(isDone),
                             (&Detail::OnMethod<Small, Small1::Full, &Small::Full>),
                             SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_DEPRECATED | SD_BUS_VTABLE_SENSITIVE),
    SD_BUS_METHOD_WITH_NAMES(
        "Lost", "b", SD_BUS_PARAM(value), "", "", (&Detail::OnMethod<Small, Small1::Lost, &Small::Lost>),
        SD_BUS_VTABLE_METHOD_NO_REPLY | SD_BUS_VTABLE_HIDDEN | SD_BUS_VTABLE_CAPABILITY(CAP_SYS_TIME)),
    SD_BUS_METHOD("Guarded", "", "", (&Detail::OnMethod<Small, Small1::Guarded, &Small::Bare>),
                  SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_DEPRECATED),
    SD_BUS_PROPERTY("Level", "d", ON_LEVEL, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Fixed", "as", (&Detail::OnGet<Small, &Small::fixed>), 0,
                    SD_BUS_VTABLE_PROPERTY_CONST | SD_BUS_VTABLE_HIDDEN),
    SD_BUS_WRITABLE_PROPERTY("Target", "x", (&Detail::OnGet<Small, &Small::target>),
                             (&Detail::OnSet<Small, &Small::SetTarget, 2>), 0,
                             SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE | SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_WRITABLE_PROPERTY("Large", "b", (&Detail::OnGet<Small, &Small::large>),
                             (&Detail::OnSet<Small, &Small::SetLarge, 4>), 0,
                             SD_BUS_VTABLE_PROPERTY_EMITS_INVALIDATION | SD_BUS_VTABLE_PROPERTY_EXPLICIT |
                                 SD_BUS_VTABLE_SENSITIVE),
    SD_BUS_SIGNAL_WITH_NAMES("Measured", "ds", SD_BUS_PARAM(celsius) SD_BUS_PARAM(where), 0),
    SD_BUS_SIGNAL("Over", "", SD_BUS_VTABLE_DEPRECATED),
    SD_BUS_VTABLE_END};

/// Each with its null character, and the one behind the last.
std::string NamesIn(const char* names) {
    const char* end = names;
    while (*end != '\0') {
        end += std::strlen(end) + 1;
    }
    return {names, end + 1};
}

/// All bytes, but texts by their content.
void ExpectSame(const sd_bus_vtable& made, const sd_bus_vtable& byHand) {
    ASSERT_EQ(made.type, byHand.type);
    EXPECT_EQ(made.flags, byHand.flags);
    switch (made.type) {
        case _SD_BUS_VTABLE_START:
            EXPECT_EQ(made.x.start.element_size, byHand.x.start.element_size);
            EXPECT_EQ(made.x.start.features, byHand.x.start.features);
            EXPECT_EQ(made.x.start.vtable_format_reference, byHand.x.start.vtable_format_reference);
            break;
        case _SD_BUS_VTABLE_METHOD:
            EXPECT_STREQ(made.x.method.member, byHand.x.method.member);
            EXPECT_STREQ(made.x.method.signature, byHand.x.method.signature);
            EXPECT_STREQ(made.x.method.result, byHand.x.method.result);
            EXPECT_EQ(made.x.method.handler, byHand.x.method.handler);
            EXPECT_EQ(made.x.method.offset, byHand.x.method.offset);
            EXPECT_EQ(NamesIn(made.x.method.names), NamesIn(byHand.x.method.names));
            break;
        case _SD_BUS_VTABLE_PROPERTY:
        case _SD_BUS_VTABLE_WRITABLE_PROPERTY:
            EXPECT_STREQ(made.x.property.member, byHand.x.property.member);
            EXPECT_STREQ(made.x.property.signature, byHand.x.property.signature);
            EXPECT_EQ(made.x.property.get, byHand.x.property.get);
            EXPECT_EQ(made.x.property.set, byHand.x.property.set);
            EXPECT_EQ(made.x.property.offset, byHand.x.property.offset);
            break;
        case _SD_BUS_VTABLE_SIGNAL:
            EXPECT_STREQ(made.x.signal.member, byHand.x.signal.member);
            EXPECT_STREQ(made.x.signal.signature, byHand.x.signal.signature);
            EXPECT_EQ(NamesIn(made.x.signal.names), NamesIn(byHand.x.signal.names));
            break;
        default:
            EXPECT_EQ(made.type, _SD_BUS_VTABLE_END);
            EXPECT_EQ(made.x.end._reserved, byHand.x.end._reserved);
    }
}

/// From which byte of an entry on nothing is used.
std::size_t UsedSize(const sd_bus_vtable& entry) {
    switch (entry.type) {
        case _SD_BUS_VTABLE_START:
            return offsetof(sd_bus_vtable, x) + sizeof entry.x.start;
        case _SD_BUS_VTABLE_METHOD:
            return offsetof(sd_bus_vtable, x) + sizeof entry.x.method;
        case _SD_BUS_VTABLE_SIGNAL:
            return offsetof(sd_bus_vtable, x) + sizeof entry.x.signal;
        case _SD_BUS_VTABLE_END:
            return offsetof(sd_bus_vtable, x) + sizeof entry.x.end;
        default:
            return offsetof(sd_bus_vtable, x) + sizeof entry.x.property;
    }
}

TEST(ImplementsVtable, IsTheOneThatIsWrittenByHand) {
    const Small small;
    const sd_bus_vtable* const made = small.GetVtable();
    for (std::size_t i = 0; i < std::size(BY_HAND); ++i) {
        SCOPED_TRACE("entry " + std::to_string(i));
        ExpectSame(made[i], BY_HAND[i]);
        unsigned char bytes[sizeof made[i]];
        std::memcpy(bytes, &made[i], sizeof bytes);
        for (std::size_t at = UsedSize(made[i]); at < sizeof bytes; ++at) {
            EXPECT_EQ(bytes[at], 0) << "byte " << at;
        }
    }
}

TEST(ImplementsVtable, IsOneForAllObjectsOfAClass) {
    const Small one;
    const Small other;
    EXPECT_EQ(one.GetVtable(), other.GetVtable());
    EXPECT_EQ(one.GetName(), "com.example.Small1");
}

}  // namespace
