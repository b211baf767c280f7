#include "items.h"

#include <memory>
#include <string>

using mwl::StatusCode;

namespace type_gallery {

Typed::Outcome<void> Items::Add(const std::string& path) {
    if (!Typed::IsObjectPath(path) || !path.starts_with(std::string(ROOT) + "/")) {
        return Typed::Error::InvalidArgs("'" + path + "' is no object path below " + ROOT);
    }
    Typed::Exported item = mBus.Export(path, std::make_unique<Item>(path));
    if (!item) {
        return item.GetStatus();
    }
    mItems.emplace(path, std::move(item));
    return {};
}

Typed::Outcome<void> Items::Remove(const std::string& path) {
    if (mItems.erase(path) == 0) {
        return StatusCode::NotFound;
    }
    return {};
}

}  // namespace type_gallery
