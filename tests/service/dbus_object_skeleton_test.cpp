#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/service/dbus_object_skeleton.h>

#include <vector>

using mw::tern::DBusInterface;
using mw::tern::DBusObjectSkeleton;

namespace {

class Interface : public DBusInterface {
public:
    Interface(std::string name, std::vector<std::string>& deleted)
        : DBusInterface(std::move(name)), mDeleted(deleted) {}
    ~Interface() override { mDeleted.push_back(GetName()); }
    const sd_bus_vtable* GetVtable() const override { return nullptr; }
    void* GetUserData() override { return this; }

private:
    std::vector<std::string>& mDeleted;
};

}  // namespace

TEST(DBusObjectSkeleton, KeepsPathAndInterfacesInTheOrderAdded) {
    std::vector<std::string> deleted;
    DBusObjectSkeleton object("/com/example/Thing");
    EXPECT_EQ(object.GetPath(), "/com/example/Thing");
    EXPECT_THAT(object.GetInterfaces(), testing::IsEmpty());
    auto* const second = new Interface("b", deleted);
    auto* const first = new Interface("a", deleted);
    auto* const same = new Interface("a", deleted);
    object.AddInterface(first);
    object.AddInterface(second);
    object.AddInterface(same);
    EXPECT_THAT(object.GetInterfaces(), testing::ElementsAre(first, second, same))
        << "no check for duplicates";
}

TEST(DBusObjectSkeleton, DeletesItsInterfacesOnceEach) {
    std::vector<std::string> deleted;
    {
        DBusObjectSkeleton object("/");
        object.AddInterface(new Interface("a", deleted));
        object.AddInterface(new Interface("b", deleted));
        EXPECT_THAT(deleted, testing::IsEmpty());
    }
    EXPECT_THAT(deleted, testing::UnorderedElementsAre("a", "b"));
}
