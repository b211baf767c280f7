#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace mwl::Utilities {

/// Look-ups and comparisons of collections of text. Results are inserted into the given set, whose earlier
/// content stays. Thread-safe; nothing is logged.
class TERN_API ContainerOperations {
public:
    /// `Ok` with the mapped value in `value`; `NotFound` with `value` untouched.
    static StatusCode FindValueByKeyInMap(const std::map<std::string, std::string>& map,
                                          const std::string& key, std::string& value);
    /// The items that are in both sets.
    static void ItemsCommonInSet(const std::set<std::string>& a, const std::set<std::string>& b,
                                 std::set<std::string>& common);
    /// The items of `before` that are missing from `after`.
    static void ItemsRemovedInSet(const std::set<std::string>& before, const std::set<std::string>& after,
                                  std::set<std::string>& removed);
    /// As ItemsRemovedInSet. Order and repeated items make no difference.
    static void ItemsRemovedInVector(const std::vector<std::string>& before,
                                     const std::vector<std::string>& after, std::set<std::string>& removed);
    /// As ItemsCommonInSet. Order and repeated items make no difference.
    static void ItemsCommonInVector(const std::vector<std::string>& a, const std::vector<std::string>& b,
                                    std::set<std::string>& common);
};

}  // namespace mwl::Utilities
