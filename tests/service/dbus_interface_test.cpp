#include <gtest/gtest.h>
#include <tern/service/dbus_interface.h>

#include <cstring>

using mw::tern::DBusInterface;

namespace {

int OnCall(sd_bus_message*, void*, sd_bus_error*) {
    return 0;
}
int OnGet(sd_bus*, const char*, const char*, const char*, sd_bus_message*, void*, sd_bus_error*) {
    return 0;
}
int OnSet(sd_bus*, const char*, const char*, const char*, sd_bus_message*, void*, sd_bus_error*) {
    return 0;
}

constexpr unsigned long long ALL_FLAGS = (1ULL << 56) - 1;

class Interface : public DBusInterface {
public:
    explicit Interface(bool* deleted) : DBusInterface("com.example.Thing"), mDeleted(deleted) {}
    ~Interface() override { *mDeleted = true; }
    const sd_bus_vtable* GetVtable() const override { return nullptr; }
    void* GetUserData() override { return this; }

private:
    bool* mDeleted;
};

}  // namespace

TEST(DBusInterface, KeepsItsNameAndIsDeletedThroughTheBase) {
    bool deleted = false;
    DBusInterface* const interface = new Interface(&deleted);
    EXPECT_EQ(interface->GetName(), "com.example.Thing");
    delete interface;
    EXPECT_TRUE(deleted);
}

TEST(DBusInterface, StartEntryHasTheEntrySizeAndNoFeatures) {
    const sd_bus_vtable entry = DBusInterface::SdBusVtableStart(SD_BUS_VTABLE_UNPRIVILEGED);
    EXPECT_EQ(static_cast<char>(entry.type), '<');
    EXPECT_EQ(entry.flags, static_cast<unsigned long long>(SD_BUS_VTABLE_UNPRIVILEGED));
    EXPECT_EQ(entry.x.start.element_size, sizeof(sd_bus_vtable));
    EXPECT_EQ(entry.x.start.features, 0U);
    EXPECT_EQ(entry.x.start.vtable_format_reference, nullptr);
}

TEST(DBusInterface, MethodEntryHoldsItsMembers) {
    const sd_bus_vtable entry = DBusInterface::SdBusMethod("Do", "su", "b", &OnCall, ALL_FLAGS);
    EXPECT_EQ(static_cast<char>(entry.type), 'M');
    EXPECT_EQ(entry.flags, ALL_FLAGS);
    EXPECT_STREQ(entry.x.method.member, "Do");
    EXPECT_STREQ(entry.x.method.signature, "su");
    EXPECT_STREQ(entry.x.method.result, "b");
    EXPECT_EQ(entry.x.method.handler, &OnCall);
    EXPECT_EQ(entry.x.method.offset, 0U);
    EXPECT_EQ(entry.x.method.names, nullptr);
}

TEST(DBusInterface, MethodEntryWithOffsetHoldsTheOffset) {
    const sd_bus_vtable entry = DBusInterface::SdBusMethodWithOffset("Do", "", nullptr, &OnCall, 24, 0);
    EXPECT_EQ(static_cast<char>(entry.type), 'M');
    EXPECT_EQ(entry.flags, 0U);
    EXPECT_STREQ(entry.x.method.signature, "");
    EXPECT_EQ(entry.x.method.result, nullptr);
    EXPECT_EQ(entry.x.method.offset, 24U);
    EXPECT_EQ(entry.x.method.names, nullptr);
}

TEST(DBusInterface, SignalEntryHoldsItsMembers) {
    const sd_bus_vtable entry = DBusInterface::SdBusSignal("Happened", "d", SD_BUS_VTABLE_DEPRECATED);
    EXPECT_EQ(static_cast<char>(entry.type), 'S');
    EXPECT_EQ(entry.flags, static_cast<unsigned long long>(SD_BUS_VTABLE_DEPRECATED));
    EXPECT_STREQ(entry.x.signal.member, "Happened");
    EXPECT_STREQ(entry.x.signal.signature, "d");
    EXPECT_EQ(entry.x.signal.names, nullptr);
}

TEST(DBusInterface, PropertyEntriesHoldTheirMembers) {
    const sd_bus_vtable readable =
        DBusInterface::SdBusProperty("Level", "u", &OnGet, 8, SD_BUS_VTABLE_PROPERTY_CONST);
    EXPECT_EQ(static_cast<char>(readable.type), 'P');
    EXPECT_EQ(readable.flags, static_cast<unsigned long long>(SD_BUS_VTABLE_PROPERTY_CONST));
    EXPECT_STREQ(readable.x.property.member, "Level");
    EXPECT_STREQ(readable.x.property.signature, "u");
    EXPECT_EQ(readable.x.property.get, &OnGet);
    EXPECT_EQ(readable.x.property.set, nullptr);
    EXPECT_EQ(readable.x.property.offset, 8U);

    const sd_bus_vtable writable = DBusInterface::SdBusWritableProperty("Level", "u", &OnGet, &OnSet, 16, 0);
    EXPECT_EQ(static_cast<char>(writable.type), 'W');
    EXPECT_STREQ(writable.x.property.member, "Level");
    EXPECT_STREQ(writable.x.property.signature, "u");
    EXPECT_EQ(writable.x.property.get, &OnGet);
    EXPECT_EQ(writable.x.property.set, &OnSet);
    EXPECT_EQ(writable.x.property.offset, 16U);
}

TEST(DBusInterface, EndEntryIsZeroButForItsType) {
    sd_bus_vtable expected;
    std::memset(&expected, 0, sizeof expected);
    expected.type = '>';
    const sd_bus_vtable entry = DBusInterface::SdBusVtableEnd();
    EXPECT_EQ(std::memcmp(&entry, &expected, sizeof expected), 0);
}

TEST(DBusInterface, UnusedPartsOfAnEntryAreZero) {
    const sd_bus_vtable entry = DBusInterface::SdBusSignal("Happened", "d", 0);
    unsigned char bytes[sizeof entry];
    std::memcpy(bytes, &entry, sizeof entry);
    for (std::size_t i = offsetof(sd_bus_vtable, x) + sizeof entry.x.signal; i < sizeof entry; ++i) {
        EXPECT_EQ(bytes[i], 0) << i;
    }
}
