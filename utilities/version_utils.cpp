#include <tern/utilities/version_utils.h>

#include <tern/utilities/string_utils.h>

#include <exception>
#include <tuple>
#include <vector>

namespace mwl::Utilities {

namespace {

constexpr char PART_SEPARATOR = '.';
constexpr std::size_t PARTS = 3;

}  // namespace

StatusCode VersionUtils::VersionMajorMinorPatch::Parse(const std::string& text,
                                                       VersionMajorMinorPatch& version) {
    const std::vector<std::string> parts = StringUtils::Split(text, PART_SEPARATOR);
    if (parts.size() != PARTS) {
        return StatusCode::InvalidArgument;
    }
    try {
        // Fixed by the interface: std::stoi stops at the first character that is no digit.
        version = VersionMajorMinorPatch{std::stoi(parts[0]), std::stoi(parts[1]), std::stoi(parts[2])};
    } catch (const std::exception&) {
        return StatusCode::InvalidArgument;
    }
    return StatusCode::Ok;
}

bool VersionUtils::VersionMajorMinorPatch::operator==(const VersionMajorMinorPatch& other) const {
    return std::tie(major, minor, patch) == std::tie(other.major, other.minor, other.patch);
}

bool VersionUtils::VersionMajorMinorPatch::operator<(const VersionMajorMinorPatch& other) const {
    return std::tie(major, minor, patch) < std::tie(other.major, other.minor, other.patch);
}

StatusCode VersionUtils::Compare(const std::string& first, const std::string& second, VersionType type,
                                 ComparisonResult& result) {
    if (type != VersionType::MajorMinorPatch) {
        return StatusCode::InvalidArgument;
    }
    VersionMajorMinorPatch firstVersion;
    VersionMajorMinorPatch secondVersion;
    StatusCode status = VersionMajorMinorPatch::Parse(first, firstVersion);
    if (status == StatusCode::Ok) {
        status = VersionMajorMinorPatch::Parse(second, secondVersion);
    }
    if (status != StatusCode::Ok) {
        return status;
    }
    if (firstVersion == secondVersion) {
        result = ComparisonResult::Equal;
    } else {
        result = firstVersion < secondVersion ? ComparisonResult::Lower : ComparisonResult::Greater;
    }
    return StatusCode::Ok;
}

}  // namespace mwl::Utilities
