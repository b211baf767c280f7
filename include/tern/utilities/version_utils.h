#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <cstdint>
#include <string>

namespace mwl::Utilities {

/// Versions written as text. Thread-safe; nothing is logged.
///
///     VersionUtils::ComparisonResult result{};
///     if (VersionUtils::Compare(installed, offered, VersionUtils::VersionType::MajorMinorPatch, result) ==
///             StatusCode::Ok && result == VersionUtils::ComparisonResult::Lower) {
///         // the offered version is newer
///     }
class TERN_API VersionUtils {
public:
    /// How a version is written.
    enum class VersionType : int {
        MajorMinorPatch = 0  ///< three numbers with a dot between them
    };

    /// How a first version relates to a second.
    enum class ComparisonResult : int {
        Equal = 0,
        Lower = 1,   ///< the first is older
        Greater = 2  ///< the first is newer
    };

    /// A version of three numbers.
    struct TERN_API VersionMajorMinorPatch {
        /// First number.
        std::int32_t major = 0;
        /// Second number.
        std::int32_t minor = 0;
        /// Third number.
        std::int32_t patch = 0;

        /// Reads exactly three parts with a dot between them, each as strtol(3) does in base 10: leading
        /// white space and a sign are accepted, and text after the digits is ignored, so "1.2.3-rc1" is 1, 2,
        /// 3. `Ok`; `InvalidArgument` for any other text or a number beyond 32 bits, and then `version` is
        /// untouched.
        static StatusCode Parse(const std::string& text, VersionMajorMinorPatch& version);

        /// All three numbers are equal.
        bool operator==(const VersionMajorMinorPatch& other) const;
        /// Older: by major, then minor, then patch.
        bool operator<(const VersionMajorMinorPatch& other) const;
    };

    /// Compares two versions by their numbers. `Ok`; `InvalidArgument` for another type or a text that does
    /// not parse, and then `result` is untouched.
    static StatusCode Compare(const std::string& first, const std::string& second, VersionType type,
                              ComparisonResult& result);
};

}  // namespace mwl::Utilities
