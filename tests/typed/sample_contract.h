#pragma once

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <stdio.h>
#include <tern/typed/contract.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace tern::test {

namespace samples {

using namespace mwl::Typed;

/// Members of each kind, with each flag.
struct SampleContract {
    static constexpr const char* NAME = "com.example.Contract1";
    static constexpr const char* DOCUMENTATION = "All there is.";

    static constexpr Method<void()> Plain{"Plain"};
    static constexpr Method<std::uint32_t(std::string_view, const std::vector<double>&)> Named{
        "Named", {"text", "values", "count"}, OPEN | DEPRECATED, "Counts \"a\" & <b>,\nthen 'c'\t\x01."};
    static constexpr Method<Results<std::string, std::tuple<int, bool>>(std::map<std::string, Any>)> Several{
        "Several", {"in", "first", "second"}, SENSITIVE | Needs(CAP_SYS_TIME)};
    static constexpr Method<void(bool)> Nameless{"Nameless", {}, NO_REPLY | OPEN};
    static constexpr Method<void()> Secret{"Secret", {}, HIDDEN};
    static constexpr Method<void()> Guarded{"Guarded", {}, Checked(Needs(CAP_KILL))};
    static constexpr Property<double> Level{"Level"};
    static constexpr Property<std::string> Serial{"Serial", CONSTANT};
    static constexpr Property<bool> Silent{"Silent", Flags{}, "Nobody is told."};
    static constexpr WritableProperty<std::int64_t> Target{"Target", EMITS | OPEN};
    static constexpr WritableProperty<std::uint8_t> Large{"Large", INVALIDATES | EXPLICIT};
    static constexpr Signal<double, std::string> Measured{"Measured", {"celsius", "where"}};
    static constexpr Signal<> Over{"Over", {}, DEPRECATED};
    static constexpr Members<Plain, Named, Several, Nameless, Secret, Guarded, Level, Serial, Silent, Target,
                             Large, Measured, Over>
        ALL{};
};

}  // namespace samples

using samples::SampleContract;

/// What a contract writes of itself.
template <class Contract>
std::string WriteIntrospectionToText() {
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const file = open_memstream(&text, &size);
    EXPECT_EQ(mwl::Typed::WriteIntrospection<Contract>(file), mwl::StatusCode::Ok);
    fclose(file);
    std::string result(text, size);
    free(text);
    return result;
}

}  // namespace tern::test
