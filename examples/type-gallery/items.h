#pragma once

#include <tern/typed/bus.h>
#include <tern/typed/implements.h>

#include <map>
#include <string>

#include "contract.h"

namespace type_gallery {

/// An object that Add has created.
class Item final : public Typed::Implements<Item, TypeGalleryItem1> {
public:
    explicit Item(std::string label) : mLabel(std::move(label)) {}

    static constexpr auto Describe() {
        return Typed::Bindings<Typed::Bind<TypeGalleryItem1::Label, &Item::mLabel, &Item::SetLabel>>();
    }

private:
    /// A setter that returns whether the value is another one: only then a change is announced.
    bool SetLabel(const std::string& label) {
        const bool isOther = label != mLabel;
        mLabel = label;
        return isOther;
    }

    std::string mLabel;
};

/// The objects that come and go below the object manager. D-Bus thread only.
class Items {
public:
    /// Where the object manager is.
    static constexpr const char* ROOT = "/com/example";

    /// `bus` outlives the items.
    explicit Items(Typed::Bus& bus) : mBus(bus) {}

    /// Ok; InvalidArgs for what is no object path below ROOT; otherwise why the bus refused the object,
    /// AlreadyExists for a second one at a path.
    Typed::Outcome<void> Add(const std::string& path);
    /// Ok, or NotFound.
    Typed::Outcome<void> Remove(const std::string& path);
    /// All objects go.
    void Clear() { mItems.clear(); }

private:
    Typed::Bus& mBus;
    std::map<std::string, Typed::Exported> mItems;
};

}  // namespace type_gallery
