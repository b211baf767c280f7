#include <gtest/gtest.h>
#include <stdio.h>
#include <tern/typed/contract.h>
#include <tern/typed/introspection_model.h>

#include <array>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/interpose.h"
#include "typed/sample_contract.h"

TERN_INTERPOSE(void*, dlopen, (const char* file, int flags), (file, flags))

namespace {

using namespace mwl::Typed;
using Introspection::Access;
using Introspection::Argument;
using Introspection::Direction;
using Introspection::FindAnnotation;
using Introspection::Interface;
using Introspection::MAX_NESTING;
using Introspection::MAX_SIZE;
using Introspection::Node;
using Introspection::Parse;
using tern::test::FaultScope;

/// What is wrong with the text; empty when nothing is.
std::string FaultOf(std::string_view xml) {
    const Outcome<Node> node = Parse(xml);
    if (node.IsOk()) {
        return "";
    }
    EXPECT_EQ(node.GetError().GetStatus(), StatusCode::InvalidArgument);
    return node.GetError().GetText();
}

Node Read(std::string_view xml) {
    Outcome<Node> node = Parse(xml);
    EXPECT_TRUE(node.IsOk()) << node.GetError().GetText();
    return node.IsOk() ? *std::move(node) : Node();
}

std::string Repeat(const std::string& text, std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

constexpr const char* DOCTYPE =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    "\"https://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";

}  // namespace

// First, as they want a process in which nobody has read a text yet.

TEST(IntrospectionModel, LibraryThatIsNotThereIsTold) {
    FaultScope fault(fault_dlopen);
    fault_dlopen.Fail(nullptr);
    const Outcome<Node> node = Parse("<node/>");
    ASSERT_FALSE(node.IsOk());
    EXPECT_EQ(node.GetError().GetStatus(), StatusCode::NotSupported);
    EXPECT_EQ(node.GetError().GetText().find("introspection data cannot be read: "), 0U);
}

TEST(IntrospectionModel, LibraryWithoutAFunctionIsTold) {
    const auto result = tern::test::RunInChild([] {
        // Another library in its place, which has none of them.
        FaultScope fault(fault_dlopen);
        fault_dlopen.Replace([](const char*, int flags) { return fault_dlopen.Real("libm.so.6", flags); }, 2);
        const Outcome<Node> node = Parse("<node/>");
        EXPECT_EQ(node.GetError().GetStatus(), StatusCode::NotSupported);
        EXPECT_NE(node.GetError().GetText().find(" has no function XML_ParserCreate"), std::string::npos)
            << node.GetError().GetText();
        // Nor is it used by the next call.
        return node.IsOk() || Parse("<node/>").IsOk() || testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(result.exitCode, 0) << result.error;
}

TEST(IntrospectionModel, LibraryIsLoadedByTheFirstText) {
    EXPECT_EQ(dlopen("libexpat.so.1", RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_TRUE(Parse("<node/>").IsOk());
    void* const loaded = dlopen("libexpat.so.1", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(loaded, nullptr);
    dlclose(loaded);
}

TEST(IntrospectionModel, WhatWeWriteIsReadBack) {
    using Contract = tern::test::SampleContract;
    const Node node = Read(tern::test::WriteIntrospectionToText<Contract>());

    ASSERT_EQ(node.interfaces.size(), 1U);
    const Interface& interface = node.interfaces[0];
    EXPECT_EQ(interface.name, Contract::NAME);
    EXPECT_EQ(*FindAnnotation(interface.annotations, "org.gtk.GDBus.DocString"), Contract::DOCUMENTATION);
    ASSERT_EQ(interface.methods.size(), 5U) << "all but the hidden one";
    ASSERT_EQ(interface.properties.size(), 5U);
    ASSERT_EQ(interface.signals.size(), 2U);

    const Introspection::Method& named = interface.methods[1];
    EXPECT_EQ(named.name, "Named");
    EXPECT_EQ(named.arguments, (std::vector<Argument>{{"text", "s", Direction::In, {}},
                                                      {"values", "ad", Direction::In, {}},
                                                      {"count", "u", Direction::Out, {}}}));
    EXPECT_EQ(named.GetInSignature(), Contract::Named.IN.View());
    EXPECT_EQ(named.GetOutSignature(), Contract::Named.OUT.View());
    EXPECT_EQ(*FindAnnotation(named.annotations, "org.freedesktop.DBus.Deprecated"), "true");
    EXPECT_EQ(*FindAnnotation(named.annotations, "org.gtk.GDBus.DocString"),
              "Counts \"a\" & <b>,\nthen 'c'\t?.")
        << "but for what XML cannot hold";
    EXPECT_EQ(FindAnnotation(named.annotations, "org.freedesktop.DBus.Method.NoReply"), nullptr);

    EXPECT_EQ(interface.FindMethod("Plain")->arguments.size(), 0U);
    EXPECT_EQ(interface.FindMethod("Several")->GetInSignature(), "a{sv}");
    EXPECT_EQ(interface.FindMethod("Several")->GetOutSignature(), "s(ib)");
    EXPECT_EQ(interface.FindMethod("Nameless")->arguments[0].name, "");
    EXPECT_EQ(interface.FindMethod("Missing"), nullptr);
    EXPECT_EQ(interface.FindProperty("Level")->type, "d");
    EXPECT_EQ(interface.FindProperty("Level")->access, Access::Read);
    EXPECT_EQ(interface.FindProperty("Target")->access, Access::ReadWrite);
    EXPECT_EQ(*FindAnnotation(interface.FindProperty("Serial")->annotations,
                              "org.freedesktop.DBus.Property.EmitsChangedSignal"),
              "const");
    EXPECT_EQ(interface.FindSignal("Measured")->GetSignature(), "ds");
    EXPECT_EQ(interface.FindSignal("Measured")->arguments[1].direction, Direction::Out);
    EXPECT_EQ(interface.FindSignal("Over")->GetSignature(), "");
}

TEST(IntrospectionModel, ReadsWhatServicesOfSystemdTell) {
    const Node node = Read(std::string(DOCTYPE) + R"xml(<node>
 <interface name="org.freedesktop.DBus.Peer">
  <method name="Ping"/>
  <method name="GetMachineId">
   <arg type="s" name="machine_uuid" direction="out"/>
  </method>
 </interface>
 <interface name="org.freedesktop.systemd1.Manager">
  <property name="Version" type="s" access="read">
   <annotation name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="const"/>
  </property>
  <property name="LogLevel" type="s" access="readwrite">
   <annotation name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="false"/>
   <annotation name="org.freedesktop.systemd1.Privileged" value="true"/>
  </property>
  <method name="StartTransientUnit">
   <arg type="s" name="name" direction="in"/>
   <arg type="s" name="mode" direction="in"/>
   <arg type="a(sv)" name="properties" direction="in"/>
   <arg type="a(sa(sv))" name="aux" direction="in"/>
   <arg type="o" name="job" direction="out"/>
  </method>
  <signal name="JobRemoved">
   <arg type="u" name="id"/>
   <arg type="o" name="job"/>
  </signal>
 </interface>
 <node name="unit"/>
 <node name="job"/>
</node>)xml");
    EXPECT_EQ(node.name, "");
    ASSERT_EQ(node.children.size(), 2U);
    EXPECT_EQ(node.children[1].name, "job");
    const Interface* const manager = node.FindInterface("org.freedesktop.systemd1.Manager");
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(manager->FindMethod("StartTransientUnit")->GetInSignature(), "ssa(sv)a(sa(sv))");
    EXPECT_EQ(manager->FindSignal("JobRemoved")->GetSignature(), "uo");
    EXPECT_EQ(manager->FindProperty("LogLevel")->annotations.size(), 2U);
    EXPECT_EQ(node.FindInterface("org.freedesktop.DBus.Peer")->methods.size(), 2U);
    EXPECT_EQ(node.FindInterface("org.freedesktop.DBus.Peers"), nullptr);
}

TEST(IntrospectionModel, ReadsWhatServicesOfGLibAndOthersTell) {
    const Node node = Read(R"(<?xml version='1.0' encoding='utf-8'?>
<!-- made by hand --><!DOCTYPE node PUBLIC '-//freedesktop//DTD D-BUS Object Introspection 1.0//EN'
                      'http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd'>
<?a processing instruction?>
<node name='/com/example/Room' xmlns:doc="http://www.freedesktop.org/dbus/1.0/doc.dtd">
  <doc:doc><doc:description>Of <node name="not a path"/> no concern&nbsp;here.</doc:description></doc:doc>
  <interface name='com.example.Room' version='2'>
    <annotation name='org.gtk.GDBus.C.Name' value='Room'/>
    <method name='Frob'>
      <annotation name='org.gtk.GDBus.Since' value=''/>
      <arg type='h' name='fd'>
        <annotation name='com.trolltech.QtDBus.QtTypeName.In0' value='QList&lt;int&gt;'/>
      </arg>
      <arg name='out&#x2d;1' type='a{ou}' direction='out'/>
    </method>
    <method name='Frob'><arg type='s' direction='in'/></method>
    <signal name='Frobbed'><arg type='v' name='Größe' direction='out'/></signal>
    <property type='y' name='Only' access='write'/>
  </interface>
  <node name='inner'><interface name='com.example.Inner'/><node name='a/b'/></node>
</node>
)");
    EXPECT_EQ(node.name, "/com/example/Room");
    ASSERT_EQ(node.interfaces.size(), 1U);
    const Interface& room = node.interfaces[0];
    EXPECT_EQ(room.annotations, (std::vector<Introspection::Annotation>{{"org.gtk.GDBus.C.Name", "Room"}}));
    ASSERT_EQ(room.methods.size(), 2U);
    EXPECT_EQ(room.FindMethod("Frob"), room.methods.data());
    EXPECT_EQ(room.methods[0].GetInSignature(), "h");
    EXPECT_EQ(*FindAnnotation(room.methods[0].annotations, "org.gtk.GDBus.Since"), "");
    EXPECT_EQ(room.methods[0].arguments[0].annotations[0].value, "QList<int>");
    EXPECT_EQ(room.methods[0].arguments[1].name, "out-1");
    EXPECT_EQ(room.signals[0].arguments[0].name, "Größe");
    EXPECT_EQ(room.properties[0].access, Access::Write);
    ASSERT_EQ(node.children.size(), 1U);
    EXPECT_EQ(node.children[0].interfaces[0].name, "com.example.Inner");
    EXPECT_EQ(node.children[0].children[0].name, "a/b");
}

TEST(IntrospectionModel, RefusesWhatIsWrongWithItsLine) {
    struct Row {
        const char* xml;  ///< within <node>, an <interface> of the name a.b and, on line 3, a method M
        const char* fault;
    };
    constexpr std::array IN_METHOD{
        Row{"<arg type='ii'/>", "line 4: 'ii' is not one complete type"},
        Row{"<arg type=''/>", "line 4: '' is not one complete type"},
        Row{"<arg type='a{vs}'/>", "line 4: 'a{vs}' is no signature"},
        Row{"<arg type='X'/>", "line 4: 'X' is no signature"},
        Row{"<arg/>", "line 4: <arg> has no attribute 'type'"},
        Row{"\n<arg type='i' direction='inout'/>", "line 5: 'inout' is no direction: in or out"},
        Row{"<annotation value='x'/>", "line 4: <annotation> has no attribute 'name'"},
        Row{"<annotation name='' value='x'/>", "line 4: '' is no name of an annotation"},
        Row{"<annotation name='a b'/>", "line 4: 'a b' is no name of an annotation"},
        Row{"<method name='N'/>", "line 4: <method> does not belong into <method>"},
        Row{"<node name='N'/>", "line 4: <node> does not belong into <method>"},
        Row{"<arg type='i'><arg type='i'/></arg>", "line 4: <arg> does not belong into <arg>"},
        Row{"<arg type='i' type='i'/>", "line 4: duplicate attribute"},
        Row{"</interface>", "line 4: mismatched tag"},
        Row{"<arg type=i/>", "line 4: not well-formed (invalid token)"},
        Row{"<arg type='i' name='&nbsp;'/>", "line 4: undefined entity"},
        Row{"&nbsp;", "line 4: undefined entity"},
        Row{"<arg type='i' name='\x01'/>", "line 4: not well-formed (invalid token)"},
        Row{"<arg type='i' name='\xff'/>", "line 4: not well-formed (invalid token)"},
        Row{"<arg type='i' name='&#0;'/>", "line 4: reference to invalid character number"},
        Row{"</method><method name='1st'>", "line 4: '1st' is no member name"},
        Row{"</method><method name=''>", "line 4: '' is no member name"},
        Row{"</method><method name='a&#10;b'>", "line 4: 'a?b' is no member name"},
        Row{"</method><method>", "line 4: <method> has no attribute 'name'"},
        Row{"</method><signal name='a.b'/><method name='N'>", "line 4: 'a.b' is no member name"},
        Row{"</method><signal name='S'><arg type='i' direction='in'/></signal><method name='N'>",
            "line 4: 'in' is no direction of a signal's argument: out"},
        Row{"</method><property name='P' type='i'/><method name='N'>",
            "line 4: <property> has no attribute 'access'"},
        Row{"</method><property name='P' type='i' access='all'/><method name='N'>",
            "line 4: 'all' is no access: read, write or readwrite"},
        Row{"</method><property name='P' type='ss' access='read'/><method name='N'>",
            "line 4: 'ss' is not one complete type"},
        Row{"</method><property name='P' access='read'/><method name='N'>",
            "line 4: <property> has no attribute 'type'"},
        Row{"</method><property name='P' type='i' access='read'><arg type='i'/></property><method name='N'>",
            "line 4: <arg> does not belong into <property>"},
        Row{"</method></interface><interface name='a'><method name='N'>", "line 4: 'a' is no interface name"},
        Row{"</method></interface><interface><method name='N'>",
            "line 4: <interface> has no attribute 'name'"},
        Row{"</method></interface><node/><interface name='c.d'><method name='N'>",
            "line 4: <node> has no attribute 'name'"},
        Row{"</method></interface><node name='/x'/><interface name='c.d'><method name='N'>",
            "line 4: '/x' is no object path below the node's"},
        Row{"</method></interface><method name='N'/><interface name='c.d'><method name='N'>",
            "line 4: <method> does not belong into <node>"},
    };
    for (const Row& row : IN_METHOD) {
        const std::string xml = std::string("<node>\n<interface name='a.b'>\n<method name='M'>\n") + row.xml +
                                "\n</method></interface></node>";
        EXPECT_EQ(FaultOf(xml), row.fault) << row.xml;
    }
    constexpr std::array WHOLE{
        Row{"", "line 1: no element found"},
        Row{"\n\n", "line 3: no element found"},
        Row{"text", "line 1: syntax error"},
        Row{"<html/>", "line 1: <html> where <node> is wanted"},
        Row{"<interface name='a.b'/>", "line 1: <interface> where <node> is wanted"},
        Row{"<node>", "line 1: no element found"},
        Row{"<node/>\n<node/>", "line 2: junk after document element"},
        Row{"<node name='room'/>", "line 1: 'room' is no object path"},
        Row{"<!DOCTYPE node [<!ELEMENT node ANY>]><node/>",
            "line 1: the document has declarations of its own"},
    };
    for (const Row& row : WHOLE) {
        EXPECT_EQ(FaultOf(row.xml), row.fault) << row.xml;
    }
    EXPECT_EQ(FaultOf(std::string_view("<node>\0</node>", 14)), "line 1: not well-formed (invalid token)");
}

TEST(IntrospectionModel, LimitsOfNamesHold) {
    const auto member = [](const std::string& name) {
        return FaultOf("<node><interface name='a.b'><method name='" + name + "'/></interface></node>");
    };
    EXPECT_EQ(member(std::string(255, 'M')), "");
    EXPECT_EQ(member(std::string(256, 'M')), "line 1: '" + std::string(60, 'M') + "...' is no member name");
    // No character is cut in two.
    EXPECT_EQ(member(std::string(59, '1') + "\xc3\xa4" + "2"),
              "line 1: '" + std::string(59, '1') + "...' is no member name");
    EXPECT_EQ(member(std::string(59, '1') + "\xc3\xa5" + "2"),
              "line 1: '" + std::string(59, '1') + "...' is no member name");
    EXPECT_EQ(member(std::string(57, '1') + "\xf0\x9d\x84\x9f" + "2"),
              "line 1: '" + std::string(57, '1') + "...' is no member name");
    const auto type = [](const std::string& text) {
        return FaultOf("<node><interface name='a.b'><property name='P' access='read' type='" + text +
                       "'/></interface></node>");
    };
    EXPECT_EQ(type(std::string(32, 'a') + "y"), "");
    EXPECT_EQ(type(std::string(33, 'a') + "y"), "line 1: '" + std::string(33, 'a') + "y' is no signature");
}

TEST(IntrospectionModel, EntitiesAreNotExpanded) {
    // A short text that would become a billion of them.
    std::string laughs = "<!DOCTYPE node [\n<!ENTITY a0 \"ha\">\n";
    for (int i = 1; i < 10; ++i) {
        const std::string inner = "&a" + std::to_string(i - 1) + ";";
        laughs += "<!ENTITY a" + std::to_string(i) + " \"" + Repeat(inner, 10) + "\">\n";
    }
    laughs += "]>\n<node><annotation name='a.b' value='&a9;'/></node>";
    EXPECT_EQ(FaultOf(laughs), "line 1: the document has declarations of its own");
    EXPECT_EQ(FaultOf("<!DOCTYPE node [<!ENTITY % p SYSTEM 'file:///etc/passwd'> %p;]><node/>"),
              "line 1: the document has declarations of its own");
    // A value that every element would have.
    EXPECT_EQ(FaultOf("<!DOCTYPE node SYSTEM 'x' [<!ATTLIST arg name CDATA '" + std::string(1000, 'x') +
                      "'>]><node/>"),
              "line 1: the document has declarations of its own");
}

TEST(IntrospectionModel, EntitiesOfADocumentTypeThatIsNotFetchedAreRefused) {
    EXPECT_EQ(
        FaultOf(std::string(DOCTYPE) + "<node>\n<annotation name='a.b' value='1 &lt; &two; &gt;'/></node>"),
        "line 4: the entity 'two' is not declared");
    EXPECT_EQ(
        FaultOf(std::string(DOCTYPE) + "<node>\n<annotation name='a.b' value='&amp;two; &#65;'/></node>"),
        "");
    // In text, which means nothing here, it may stay.
    EXPECT_EQ(FaultOf(std::string(DOCTYPE) + "<node>&two;</node>"), "");
}

TEST(IntrospectionModel, NestingIsLimited) {
    const auto nested = [](const std::string& begin, const std::string& end, std::size_t count) {
        return FaultOf("<node>" + Repeat(begin, count) + Repeat(end, count) + "</node>");
    };
    EXPECT_EQ(nested("<node name='n'>", "</node>", MAX_NESTING - 1), "");
    EXPECT_EQ(nested("<node name='n'>", "</node>", MAX_NESTING),
              "line 1: more than 64 elements inside each other");
    EXPECT_EQ(nested("<x>", "</x>", MAX_NESTING - 1), "");
    EXPECT_EQ(nested("<x>", "</x>", MAX_NESTING), "line 1: more than 64 elements inside each other");
    EXPECT_EQ(nested("<x>", "</x>", 100000), "line 1: more than 64 elements inside each other");
    // Those beside each other do not count.
    EXPECT_EQ(FaultOf("<node>" + Repeat("<x><y/></x><node name='n'/>", 1000) + "</node>"), "");
}

TEST(IntrospectionModel, SizeIsLimited) {
    const auto padded = [](std::size_t size) {
        const std::string rest = "<node></node>";
        return FaultOf("<node>" + std::string(size - rest.size(), ' ') + "</node>");
    };
    EXPECT_EQ(padded(MAX_SIZE), "");
    EXPECT_EQ(padded(MAX_SIZE + 1), "more than 4194304 bytes");
}

TEST(IntrospectionModel, AHundredThousandObjectsAreRead) {
    std::string xml = "<node>";
    for (int i = 0; i < 100000; ++i) {
        xml += "<node name=\"item" + std::to_string(i) + "\"/>\n";
    }
    const Node node = Read(xml + "</node>");
    ASSERT_EQ(node.children.size(), 100000U);
    EXPECT_EQ(node.children.back().name, "item99999");
}
