#include <gtest/gtest.h>
#include <stdio.h>
#include <tern/typed/contract.h>

#include <string>

#include "typed/sample_contract.h"

using namespace mwl::Typed;
using tern::test::WriteIntrospectionToText;
using Contract = tern::test::SampleContract;

namespace {

struct Empty {
    static constexpr const char* NAME = "a.b";
    static constexpr Members<> ALL{};
};

}  // namespace

TEST(Contract, MembersKnowTheirSignatures) {
    EXPECT_STREQ(decltype(Contract::Plain)::IN.text, "");
    EXPECT_STREQ(decltype(Contract::Plain)::OUT.text, "");
    EXPECT_STREQ(decltype(Contract::Named)::IN.text, "sad");
    EXPECT_STREQ(decltype(Contract::Named)::OUT.text, "u");
    EXPECT_STREQ(decltype(Contract::Several)::IN.text, "a{sv}");
    EXPECT_STREQ(decltype(Contract::Several)::OUT.text, "s(ib)");
    EXPECT_STREQ(decltype(Contract::Target)::IN.text, "x");
    EXPECT_STREQ(decltype(Contract::Measured)::IN.text, "ds");
}

TEST(Contract, NamesOfArgumentsAreOneTextWithNullCharacters) {
    const auto text = [](const auto& names) { return std::string(names.data(), names.size()); };
    EXPECT_EQ(text(NAMES<Contract::Plain>), std::string("\0", 1));
    EXPECT_EQ(text(NAMES<Contract::Nameless>), std::string("\0", 1));
    EXPECT_EQ(text(NAMES<Contract::Named>), std::string("text\0values\0count\0\0", 19));
    EXPECT_EQ(text(NAMES<Contract::Measured>), std::string("celsius\0where\0\0", 15));
}

TEST(Contract, FlagsArePutTogether) {
    constexpr Flags FLAGS = OPEN | DEPRECATED;
    EXPECT_TRUE(FLAGS.Has(OPEN));
    EXPECT_TRUE(FLAGS.Has(DEPRECATED | HIDDEN));
    EXPECT_FALSE(FLAGS.Has(HIDDEN));
    EXPECT_EQ(FLAGS.bits, static_cast<std::uint64_t>(SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_DEPRECATED));

    EXPECT_EQ((HIDDEN | Needs(CAP_CHOWN)).capability, CAP_CHOWN);
    EXPECT_EQ((Needs(CAP_KILL) | HIDDEN).capability, CAP_KILL);
    EXPECT_EQ(Needs(CAP_KILL).bits, SD_BUS_VTABLE_CAPABILITY(CAP_KILL));
    EXPECT_FALSE((Needs(CAP_KILL) | Needs(CAP_KILL)).isTwofold);
    EXPECT_TRUE((Needs(CAP_KILL) | Needs(CAP_CHOWN)).isTwofold);

    EXPECT_TRUE(Checked().isChecked);
    EXPECT_EQ(Checked().capability, CAP_SYS_ADMIN);
    EXPECT_EQ(Checked(Needs(CAP_CHOWN)).capability, CAP_CHOWN);
    EXPECT_TRUE((DEPRECATED | Checked(Needs(CAP_CHOWN))).isChecked);
}

TEST(Contract, NamesAreCheckedAsDBusHasIt) {
    struct {
        const char* name;
        bool isMember;
        bool isInterface;
    } const table[] = {{"A", true, false},     {"a_9", true, false},       {"9a", false, false},
                       {"", false, false},     {"a.b", false, true},       {"a.9b", false, false},
                       {"a..b", false, false}, {".a.b", false, false},     {"a.b.", false, false},
                       {"a-b", false, false},  {"a.b-c", false, false},    {"_a._b", false, true},
                       {"a b", false, false},  {"\xC3\xA4", false, false}, {nullptr, false, false}};
    for (const auto& row : table) {
        EXPECT_EQ(IsMemberName(row.name), row.isMember) << row.name;
        EXPECT_EQ(IsInterfaceName(row.name), row.isInterface) << row.name;
        if (row.name != nullptr) {
            // sd-bus lets a digit pass at the beginning of a member name, a message bus does not.
            const bool isKnownSlip = *row.name == '9';
            EXPECT_EQ(sd_bus_member_name_is_valid(row.name) > 0, row.isMember || isKnownSlip) << row.name;
            EXPECT_EQ(sd_bus_interface_name_is_valid(row.name) > 0, row.isInterface) << row.name;
        }
    }
    EXPECT_TRUE(IsMemberName(std::string(255, 'a').c_str()));
    EXPECT_FALSE(IsMemberName(std::string(256, 'a').c_str()));
    EXPECT_TRUE(IsInterfaceName(("a." + std::string(253, 'a')).c_str()));
    EXPECT_FALSE(IsInterfaceName(("a." + std::string(254, 'a')).c_str()));
}

TEST(Contract, IntrospectionTellsEverythingButHiddenMembers) {
    EXPECT_EQ(WriteIntrospectionToText<Contract>(),
              R"XML(<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"
"https://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<node>
 <interface name="com.example.Contract1">
  <annotation name="org.gtk.GDBus.DocString" value="All there is."/>
  <method name="Plain">
   <annotation name="org.freedesktop.systemd1.Privileged" value="true"/>
  </method>
  <method name="Named">
   <arg type="s" name="text" direction="in"/>
   <arg type="ad" name="values" direction="in"/>
   <arg type="u" name="count" direction="out"/>
   <annotation name="org.freedesktop.DBus.Deprecated" value="true"/>
   <annotation name="org.gtk.GDBus.DocString" value="Counts &quot;a&quot; &amp; &lt;b&gt;,&#10;then 'c'&#9;?."/>
  </method>
  <method name="Several">
   <arg type="a{sv}" name="in" direction="in"/>
   <arg type="s" name="first" direction="out"/>
   <arg type="(ib)" name="second" direction="out"/>
   <annotation name="org.freedesktop.systemd1.Privileged" value="true"/>
   <annotation name="mwl.Typed.Sensitive" value="true"/>
  </method>
  <method name="Nameless">
   <arg type="b" direction="in"/>
   <annotation name="org.freedesktop.DBus.Method.NoReply" value="true"/>
  </method>
  <method name="Guarded">
   <annotation name="org.freedesktop.systemd1.Privileged" value="true"/>
  </method>
  <property name="Level" type="d" access="read">
  </property>
  <property name="Serial" type="s" access="read">
   <annotation name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="const"/>
  </property>
  <property name="Silent" type="b" access="read">
   <annotation name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="false"/>
   <annotation name="org.gtk.GDBus.DocString" value="Nobody is told."/>
  </property>
  <property name="Target" type="x" access="readwrite">
  </property>
  <property name="Large" type="y" access="readwrite">
   <annotation name="org.freedesktop.systemd1.Explicit" value="true"/>
   <annotation name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="invalidates"/>
   <annotation name="org.freedesktop.systemd1.Privileged" value="true"/>
  </property>
  <signal name="Measured">
   <arg type="d" name="celsius"/>
   <arg type="s" name="where"/>
  </signal>
  <signal name="Over">
   <annotation name="org.freedesktop.DBus.Deprecated" value="true"/>
  </signal>
 </interface>
</node>
)XML");
}

TEST(Contract, WithoutMembersIsIntrospectedAsWell) {
    EXPECT_EQ(WriteIntrospectionToText<Empty>(),
              R"XML(<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"
"https://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<node>
 <interface name="a.b">
 </interface>
</node>
)XML");
}

TEST(Contract, IntrospectionThatCannotBeWrittenIsAnIoError) {
    FILE* const full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_EQ(WriteIntrospection<Contract>(full), StatusCode::IoError);
    fclose(full);
}
