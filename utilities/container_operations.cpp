#include <tern/utilities/container_operations.h>

#include <algorithm>
#include <iterator>

namespace mwl::Utilities {

namespace {

std::set<std::string> ToSet(const std::vector<std::string>& items) {
    return {items.begin(), items.end()};
}

}  // namespace

StatusCode ContainerOperations::FindValueByKeyInMap(const std::map<std::string, std::string>& map,
                                                    const std::string& key, std::string& value) {
    const auto found = map.find(key);
    if (found == map.end()) {
        return StatusCode::NotFound;
    }
    value = found->second;
    return StatusCode::Ok;
}

void ContainerOperations::ItemsCommonInSet(const std::set<std::string>& a, const std::set<std::string>& b,
                                           std::set<std::string>& common) {
    std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::inserter(common, common.end()));
}

void ContainerOperations::ItemsRemovedInSet(const std::set<std::string>& before,
                                            const std::set<std::string>& after,
                                            std::set<std::string>& removed) {
    std::set_difference(before.begin(), before.end(), after.begin(), after.end(),
                        std::inserter(removed, removed.end()));
}

void ContainerOperations::ItemsRemovedInVector(const std::vector<std::string>& before,
                                               const std::vector<std::string>& after,
                                               std::set<std::string>& removed) {
    ItemsRemovedInSet(ToSet(before), ToSet(after), removed);
}

void ContainerOperations::ItemsCommonInVector(const std::vector<std::string>& a,
                                              const std::vector<std::string>& b,
                                              std::set<std::string>& common) {
    ItemsCommonInSet(ToSet(a), ToSet(b), common);
}

}  // namespace mwl::Utilities
