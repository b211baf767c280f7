#include <tern/typed/text.h>

using mwl::Typed::Text;

namespace {

// Computed by the compiler: used as a template argument it has to be.
template <Text T>
struct Holder {
    static constexpr auto CONTENT = T;
};

TEST(Text, IsPutTogetherByTheCompiler) {
    constexpr auto entry = Text("{") + Text("sv") + Text("}");
    static_assert(entry.SIZE == 4);
    EXPECT_STREQ(entry.text, "{sv}");
    EXPECT_EQ(entry.View(), "{sv}");
    EXPECT_STREQ(Holder<entry>::CONTENT.text, "{sv}");
}

TEST(Text, OfNothingIsEmpty) {
    constexpr auto nothing = Text<0>() + Text("");
    static_assert(nothing.SIZE == 0);
    EXPECT_STREQ(nothing.text, "");
}

TEST(Text, IsEqualByContent) {
    static_assert(Text("as") == Text("a") + Text("s"));
    static_assert(Text("as") != Text("au"));
    static_assert(Text("as") != Text("a"));
}

}  // namespace
