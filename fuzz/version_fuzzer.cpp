// Version texts beside a reading of their digits one by one. The input holds two versions, a line each.
#include <tern/utilities/string_utils.h>
#include <tern/utilities/version_utils.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

using mwl::StatusCode;
using mwl::Utilities::StringUtils;
using mwl::Utilities::VersionUtils;
using Version = VersionUtils::VersionMajorMinorPatch;
using Numbers = std::array<std::int64_t, 3>;

namespace {

void Require(bool held) {
    if (!held) {
        std::abort();
    }
}

/// A number at `position`, which moves behind its digits; stops counting beyond any range of interest.
std::optional<std::int64_t> ReadNumber(const std::string& text, std::size_t& position) {
    while (position < text.size() && std::string(" \t\n\v\f\r").find(text[position]) != std::string::npos) {
        ++position;
    }
    bool negative = false;
    if (position < text.size() && (text[position] == '-' || text[position] == '+')) {
        negative = text[position] == '-';
        ++position;
    }
    std::optional<std::int64_t> number;
    while (position < text.size() && text[position] >= '0' && text[position] <= '9') {
        const std::int64_t former = number.value_or(0);
        number = former > INT64_C(1000000000000) ? former : former * 10 + (text[position] - '0');
        ++position;
    }
    if (number && negative) {
        number = -*number;
    }
    return number;
}

std::optional<Numbers> ReadVersion(const std::string& text) {
    Numbers numbers{};
    std::size_t position = 0;
    for (std::size_t part = 0; part < numbers.size(); ++part) {
        const std::optional<std::int64_t> number = ReadNumber(text, position);
        if (!number || *number < INT32_MIN || *number > INT32_MAX) {
            return std::nullopt;
        }
        numbers[part] = *number;
        while (position < text.size() && text[position] != '.') {
            ++position;
        }
        const bool dotFollows = position < text.size();
        const bool lastPart = part + 1 == numbers.size();
        if (dotFollows == lastPart) {
            return std::nullopt;
        }
        ++position;
    }
    return numbers;
}

void CheckParse(const std::string& text) {
    const std::optional<Numbers> expected = ReadVersion(text);
    Version version{7, 8, 9};
    const StatusCode status = Version::Parse(text, version);
    Require(status == (expected ? StatusCode::Ok : StatusCode::InvalidArgument));
    Require(Numbers{version.major, version.minor, version.patch} == expected.value_or(Numbers{7, 8, 9}));
}

void CheckCompare(const std::string& first, const std::string& second) {
    using Result = VersionUtils::ComparisonResult;
    const std::optional<Numbers> a = ReadVersion(first);
    const std::optional<Numbers> b = ReadVersion(second);
    Result result{-1};
    const StatusCode status =
        VersionUtils::Compare(first, second, VersionUtils::VersionType::MajorMinorPatch, result);
    if (!a || !b) {
        Require(status == StatusCode::InvalidArgument && result == Result{-1});
        return;
    }
    Require(status == StatusCode::Ok);
    Require(result == (*a == *b ? Result::Equal : *a < *b ? Result::Lower : Result::Greater));
}

void CheckNumber(const std::string& text) {
    std::size_t position = 0;
    const std::optional<std::int64_t> number = ReadNumber(text, position);
    constexpr unsigned int DEFAULT = 777;
    unsigned int expected = DEFAULT;
    if (number && *number <= UINT32_MAX && *number >= -std::int64_t{UINT32_MAX}) {
        expected = static_cast<std::uint32_t>(*number);
    }
    Require(StringUtils::ToUint32(text, DEFAULT) == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = input.find('\n');
    const std::string first = input.substr(0, end);
    const std::string second = end == std::string::npos ? "1.2.3" : input.substr(end + 1);
    CheckParse(first);
    CheckParse(second);
    CheckCompare(first, second);
    CheckNumber(first);
    return 0;
}
