// A typed client of services that others' libraries serve: every type of the gallery there and back, what a
// peer refuses, what does not keep the contract, objects and peers that come and go.
//     gallery_client COMMAND [ARGUMENT...]     the service; 77 where it cannot run

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/typed/blocking_proxy.h>
#include <tern/typed/object_mirror.h>
#include <tern/typed/property_cache.h>
#include <tern/typed/proxy.h>
#include <tern/typed/untyped_proxy.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <future>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "contracts.h"
#include "peer_test.h"

namespace tern::test {

namespace {

using namespace mwl::Typed;
using namespace std::chrono_literals;
using mwl::StatusCode;
using testing::ElementsAre;
using type_gallery::TypeGallery1;
using type_gallery::TypeGalleryItem1;
namespace values = type_gallery::values;

constexpr const char* NAME = "com.example.TypeGallery";
constexpr const char* PATH = "/com/example/TypeGallery";
constexpr const char* ROOT = "/com/example";

std::vector<std::string> gCommand;  // NOLINT(cert-err58-cpp): the program's own arguments

/// Text that is easily broken.
std::vector<std::string> Texts() {
    return {"",
            " ",
            "'\"\\`$(x)",
            "\t two\nlines\r\n",
            "\x01\x1f\x7f",
            "é ß 中文 🙂",
            std::string(3000, 'a')};
}

template <class T>
std::vector<T> Numbers() {
    using Limits = std::numeric_limits<T>;
    return {T{0}, T{1}, Limits::lowest(), Limits::max(), static_cast<T>(Limits::max() / 3)};
}

class GalleryClient : public PeerTest {
protected:
    GalleryClient()
        : mGallery(*mIt.bus, NAME, PATH), mOdd(mGallery.GetRemote()), mIsThere(StartPeer(gCommand, NAME)) {
        mGallery.SetTimeout(20s);
    }

    void SetUp() override {
        if (IsSkipped()) {
            GTEST_SKIP() << "the service cannot run here";
        }
        ASSERT_TRUE(mIsThere);
    }
    void TearDown() override {
        if (HasFailure()) {
            printf("the service said: %s\n", GetPeersLog().c_str());
        }
    }

    /// Each value by the method, which sends it back as the signal, and by the property, whose change is
    /// announced.
    template <const auto& ECHO, const auto& PROPERTY, const auto& GOT>
    void Try(const std::vector<typename MemberType<PROPERTY>::Type>& sent) {
        using T = typename MemberType<PROPERTY>::Type;
        if (HasFailure()) {
            return;  // each of the others would wait in vain
        }
        std::optional<T> heard;
        const Subscription subscription = mGallery.On(GOT, [&](const T& value) { heard = value; });
        std::size_t told = 0;
        if (!mCache.has_value()) {
            mCache.emplace(mGallery);
        }
        mCache->OnChange(
            [&](const PropertyChanges<TypeGallery1>& changes) { told += changes.Has<PROPERTY>() ? 1 : 0; });
        ASSERT_TRUE(
            RunUntil([&] { return subscription.GetStatus() == StatusCode::Ok && mCache->IsReady(); }));
        for (std::size_t i = 0; i < sent.size() && !HasFailure(); ++i) {
            SCOPED_TRACE(std::string(PROPERTY.name) + ", value " + std::to_string(i));
            const T& value = sent[i];
            heard.reset();
            const Outcome<T> back = Await(mGallery.Call(ECHO, value));
            EXPECT_TRUE(back.IsOk() && *back == value) << TextOf(back);
            EXPECT_TRUE(RunUntil([&] { return heard.has_value(); })) << "no signal";
            EXPECT_TRUE(heard == value) << "another signal";
            const std::size_t before = told;
            const Outcome<void> set = Await(mGallery.Set(PROPERTY, value));
            EXPECT_TRUE(set.IsOk()) << TextOf(set);
            const Outcome<T> read = Await(mGallery.Get(PROPERTY));
            EXPECT_TRUE(read.IsOk() && *read == value) << TextOf(read);
            EXPECT_TRUE(RunUntil([&] { return told > before; })) << "no change is told";
            EXPECT_TRUE(mCache->Get<PROPERTY>() == value) << "the cache has another value";
        }
        mCache->OnChange(nullptr);
    }

    template <class R>
    static std::string TextOf(const Outcome<R>& outcome) {
        return outcome.IsOk() ? "it came back otherwise"
                              : outcome.GetError().GetName() + ": " + outcome.GetError().GetText();
    }

    Proxy<TypeGallery1> mGallery;
    Proxy<Odd1> mOdd;
    std::optional<PropertyCache<TypeGallery1>> mCache;
    const bool mIsThere;
};

TEST_F(GalleryClient, EveryTypeGoesThereAndBack) {
    using C = TypeGallery1;
    Try<C::EchoByte, C::Byte, C::GotByte>(Numbers<std::uint8_t>());
    Try<C::EchoInt16, C::Int16, C::GotInt16>(Numbers<std::int16_t>());
    Try<C::EchoUInt16, C::UInt16, C::GotUInt16>(Numbers<std::uint16_t>());
    Try<C::EchoInt32, C::Int32, C::GotInt32>(Numbers<std::int32_t>());
    Try<C::EchoUInt32, C::UInt32, C::GotUInt32>(Numbers<std::uint32_t>());
    Try<C::EchoInt64, C::Int64, C::GotInt64>(Numbers<std::int64_t>());
    Try<C::EchoUInt64, C::UInt64, C::GotUInt64>(Numbers<std::uint64_t>());
    std::vector<double> doubles = Numbers<double>();
    doubles.insert(doubles.end(), {0.1, 5e-324, std::numeric_limits<double>::infinity()});
    Try<C::EchoDouble, C::Double, C::GotDouble>(doubles);
    Try<C::EchoBoolean, C::Boolean, C::GotBoolean>({true, false});
    Try<C::EchoString, C::String, C::GotString>(Texts());
    Try<C::EchoObjectPath, C::ObjectPath, C::GotObjectPath>({ObjectPath("/"), ObjectPath("/a/_1/Z9")});
    Try<C::EchoSignature, C::Signature, C::GotSignature>({Signature(""), Signature("a{sv}(i(sad))v")});
    Try<C::EchoBytes, C::Bytes, C::GotBytes>({{}, {0, 255, 7}, values::Bytes(100000, 8)});
    Try<C::EchoDoubles, C::Doubles, C::GotDoubles>({{}, doubles});
    Try<C::EchoStrings, C::Strings, C::GotStrings>({{}, {""}, Texts()});
    Try<C::EchoBooleans, C::Booleans, C::GotBooleans>({{}, {true, false, true}});
    Try<C::EchoTriple, C::Triple, C::GotTriple>({{0.1, -0.5, 1e300}});
    Try<C::EchoPairs, C::Pairs, C::GotPairs>({{}, {{0.5, "half"}, {-1.0, ""}}});
    Try<C::EchoMatrix, C::Matrix, C::GotMatrix>({{}, {{}, {1.0}, {2.0, 3.0}}});
    Try<C::EchoTexts, C::Texts, C::GotTexts>({{}, {{"", "empty"}, {"é", "\n"}}});
    Try<C::EchoNumbers, C::Numbers, C::GotNumbers>({{}, {{0, "none"}, {4294967295U, ""}}});
    Try<C::EchoStructure, C::Structure, C::GotStructure>({{-7, "text", 0.1}, {0, "", -1e-300}});
    Try<C::EchoNested, C::Nested, C::GotNested>({{-7, {"series", {0.5, 1.5}}}, {1, {"", {}}}});
    Try<C::EchoOptions, C::Options, C::GotOptions>({{5, std::nullopt}, {4294967295U, "a note"}});
    Try<C::EchoStrictOptions, C::StrictOptions, C::GotStrictOptions>({{5, std::nullopt}, {0, "a note"}});
    const Any level = Any::From(std::uint32_t{5});
    const Any structure = Any::From(std::tuple<std::int32_t, std::string>(-1, "in a variant"));
    const Any deep = Any::Compose("v", {Any::Compose("v", {level})});
    Try<C::EchoAnything, C::Anything, C::GotAnything>(
        {level, Any::From(std::string("text")), structure, deep, Any::From(values::Bytes{0, 255})});
    Try<C::EchoDictAny, C::DictAny, C::GotDictAny>({{}, {{"Level", level}, {"", structure}}});
    Try<C::EchoChoice, C::Choice, C::GotChoice>(
        {std::uint32_t{0}, std::string("text"), values::Strings{"a", ""}, values::Strings{}});
    Try<C::EchoColor, C::Color, C::GotColor>({values::Color::Red, values::Color::Blue});
    Try<C::EchoMode, C::Mode, C::GotMode>({values::Mode::Off, values::Mode::Eco, values::Mode::Full});
    const Outcome<double> nan = Await(mGallery.Call(C::EchoDouble, std::nan("")));
    EXPECT_TRUE(nan.IsOk() && std::isnan(*nan)) << TextOf(nan);
    const Bus::Counters counters = mIt.bus->GetCounters();
    EXPECT_EQ(counters.wrongReplies + counters.wrongSignals + counters.wrongProperties, 0U);
    EXPECT_EQ(counters.unsentCalls, 0U);
}

TEST_F(GalleryClient, ADescriptorGoesThereAndBack) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    std::optional<OwnedFd> heard;
    const Subscription subscription =
        mGallery.On(TypeGallery1::GotDescriptor, [&](OwnedFd descriptor) { heard = std::move(descriptor); });
    EXPECT_TRUE(RunUntil([&] { return subscription.GetStatus() == StatusCode::Ok; }));
    Outcome<OwnedFd> back = Await(mGallery.Call(TypeGallery1::EchoDescriptor, OwnedFd(ends[1])));
    ASSERT_TRUE(back.IsOk()) << TextOf(back);
    EXPECT_TRUE(RunUntil([&] { return heard.has_value(); }));
    ASSERT_EQ(write(back->Get(), "reply", 5), 5);
    ASSERT_TRUE(heard.has_value());
    ASSERT_EQ(write(heard->Get(), ",signal", 7), 7);
    std::array<char, 32> read{};
    EXPECT_EQ(::read(ends[0], read.data(), read.size()), 12);
    EXPECT_STREQ(read.data(), "reply,signal");
    close(ends[0]);
}

TEST_F(GalleryClient, ThePeersOwnErrorArrives) {
    const Outcome<void> failed =
        Await(mGallery.Call(TypeGallery1::Fail, "com.example.Error.TooHot", "it is too hot: 中文"));
    ASSERT_FALSE(failed.IsOk());
    EXPECT_EQ(failed.GetError(), Error("com.example.Error.TooHot", "it is too hot: 中文"));
    EXPECT_EQ(failed.GetError().GetStatus(), StatusCode::Failure);

    const Outcome<void> busy = Await(mGallery.Call(TypeGallery1::Fail, "mwl.StatusCode.Busy", "not now"));
    ASSERT_FALSE(busy.IsOk());
    EXPECT_EQ(busy.GetError().GetStatus(), StatusCode::Busy);

    const Outcome<void> wrong = Await(mOdd.Call(Odd1::Take, "text"));
    ASSERT_FALSE(wrong.IsOk());
    EXPECT_EQ(wrong.GetError().GetName(), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(wrong.GetError().GetStatus(), StatusCode::InvalidArgument);
    EXPECT_FALSE(wrong.GetError().GetText().empty());

    const Outcome<void> missing = Await(mOdd.Call(Odd1::Missing));
    ASSERT_FALSE(missing.IsOk());
    EXPECT_EQ(missing.GetError().GetStatus(), StatusCode::NotSupported) << TextOf(missing);

    const Outcome<std::string> nowhere =
        Await(Proxy<TypeGallery1>(*mIt.bus, NAME, "/nowhere").Call(TypeGallery1::EchoString, "x"));
    ASSERT_FALSE(nowhere.IsOk());
    // GLib knows an object by its interfaces only.
    EXPECT_THAT(nowhere.GetError().GetStatus(),
                testing::AnyOf(StatusCode::NotFound, StatusCode::NotSupported))
        << TextOf(nowhere);
}

TEST_F(GalleryClient, WhatDoesNotKeepTheContractIsTold) {
    const Outcome<std::uint32_t> number = Await(mOdd.Call(Odd1::Number));
    ASSERT_FALSE(number.IsOk());
    EXPECT_EQ(number.GetError().GetName(), "mwl.Typed.Error.WrongReply") << TextOf(number);
    EXPECT_EQ(number.GetError().GetText(), "a reply of 's' where 'u' is wanted");

    const Outcome<std::uint32_t> level = Await(mOdd.Get(Odd1::Level));
    ASSERT_FALSE(level.IsOk());
    EXPECT_EQ(level.GetError().GetName(), "mwl.Typed.Error.WrongReply") << TextOf(level);

    bool isHeard = false;
    const Subscription said = mOdd.On(Odd1::Said, [&](std::uint32_t) { isHeard = true; });
    EXPECT_TRUE(RunUntil([&] { return said.GetStatus() == StatusCode::Ok; }));
    EXPECT_TRUE(Await(mOdd.Call(Odd1::Say)).IsOk());
    EXPECT_TRUE(RunUntil([&] { return mIt.bus->GetCounters().wrongSignals == 1; }));
    EXPECT_FALSE(isHeard);

    const PropertyCache<Odd1> cache(mOdd);
    EXPECT_TRUE(RunUntil([&] { return cache.IsReady(); }));
    EXPECT_FALSE(cache.Get<Odd1::Level>().has_value());
    EXPECT_EQ(cache.Get<Odd1::Mood>(), 1U);
    const Bus::Counters counters = mIt.bus->GetCounters();
    EXPECT_EQ(counters.wrongReplies, 2U);
    EXPECT_EQ(counters.wrongProperties, 1U);

    // Nothing is wrong with the object itself.
    EXPECT_TRUE(Await(mGallery.Call(TypeGallery1::EchoString, "still there")).IsOk());
}

TEST_F(GalleryClient, AChangeWithoutItsValueIsAskedFor) {
    PropertyCache<Odd1> cache(mOdd);
    EXPECT_TRUE(RunUntil([&] { return cache.Get<Odd1::Mood>() == 1U; }));
    for (std::uint32_t mood = 2; mood < 5; ++mood) {
        EXPECT_TRUE(Await(mOdd.Call(Odd1::Turn)).IsOk());
        EXPECT_TRUE(RunUntil([&] { return cache.Get<Odd1::Mood>() == mood; })) << mood;
    }
    // Announced for that interface alone.
    EXPECT_TRUE(cache.IsReady());
}

TEST_F(GalleryClient, AnswersComeLaterInTimeOrNotAtAll) {
    const Outcome<std::string> late = Await(mGallery.Call(TypeGallery1::Later, 30U, "later"));
    EXPECT_TRUE(late.IsOk() && *late == "later") << TextOf(late);

    const Outcome<std::string> tooLate =
        Await(mGallery.Call(TypeGallery1::Later, 300U, "too late").Within(50ms));
    ASSERT_FALSE(tooLate.IsOk());
    EXPECT_EQ(tooLate.GetError().GetStatus(), StatusCode::Timeout) << TextOf(tooLate);

    const Outcome<void> never = Await(mGallery.Call(TypeGallery1::Drop).Within(50ms));
    ASSERT_FALSE(never.IsOk());
    EXPECT_EQ(never.GetError().GetStatus(), StatusCode::Timeout) << TextOf(never);

    // The reply that was too late goes to nobody; those of others come in another order than the calls.
    constexpr std::uint32_t CALLS = 40;
    std::vector<Pending> pending;
    std::vector<std::string> answers;
    for (std::uint32_t i = 0; i < CALLS; ++i) {
        const std::string text = std::to_string(i);
        pending.push_back(mGallery.Call(TypeGallery1::Later, 10 * (CALLS - i), text)
                              .Then([&answers, text](Outcome<std::string> answer) {
                                  EXPECT_TRUE(answer.IsOk() && *answer == text) << TextOf(answer);
                                  answers.push_back(text);
                              }));
    }
    EXPECT_TRUE(RunUntil([&] { return answers.size() == CALLS; }));
    EXPECT_EQ(mIt.bus->GetCounters().pendingCalls, 0U);
}

TEST_F(GalleryClient, ObjectsThatComeAndGoAreFollowed) {
    std::vector<std::string> told;
    const ObjectMirror mirror(
        *mIt.bus, NAME, ROOT,
        [&](const std::string& path, const std::string& interface, const ObjectMirror::Properties& all) {
            const auto label = all.find("Label");
            if (interface == TypeGalleryItem1::NAME) {
                told.push_back("+" + path + "=" +
                               (label != all.end() ? label->second.As<std::string>().value_or("") : ""));
            }
        },
        [&](const std::string& path, const std::string&) { told.push_back("-" + path); });
    EXPECT_TRUE(Await(mGallery.Call(TypeGallery1::Add, "/com/example/before")).IsOk());
    EXPECT_TRUE(RunUntil([&] { return mirror.GetStatus() == StatusCode::Ok && told.size() == 1; }));
    EXPECT_EQ(mirror.GetObjects().count(PATH), 1U);
    EXPECT_TRUE(Await(mGallery.Call(TypeGallery1::Add, "/com/example/item")).IsOk());
    EXPECT_TRUE(RunUntil([&] { return told.size() == 2; }));
    EXPECT_EQ(mirror.GetObjects().at("/com/example/item").count(TypeGalleryItem1::NAME), 1U);
    const Outcome<void> again = Await(mGallery.Call(TypeGallery1::Add, "/com/example/item"));
    EXPECT_TRUE(!again.IsOk() && again.GetError().GetStatus() == StatusCode::AlreadyExists);
    const Proxy<TypeGalleryItem1> item(*mIt.bus, NAME, "/com/example/item");
    const Outcome<std::string> label = Await(item.Get(TypeGalleryItem1::Label));
    EXPECT_TRUE(label.IsOk() && *label == "/com/example/item") << TextOf(label);
    EXPECT_TRUE(Await(mGallery.Call(TypeGallery1::Remove, "/com/example/item")).IsOk());
    EXPECT_TRUE(RunUntil([&] { return told.size() == 3; }));
    EXPECT_THAT(told, ElementsAre("+/com/example/before=/com/example/before",
                                  "+/com/example/item=/com/example/item", "-/com/example/item"));
    EXPECT_EQ(mirror.GetObjects().count("/com/example/item"), 0U);
    EXPECT_EQ(mirror.GetOmitted(), 0U);
}

TEST_F(GalleryClient, APeerThatLeavesInTheMiddleOfACallIsSeen) {
    std::vector<std::string> told;
    const PeerWatch watch(
        *mIt.bus, NAME, [&](const std::string&) { told.emplace_back("there"); },
        [&] { told.emplace_back("gone"); });
    PropertyCache<TypeGallery1> cache(mGallery);
    const ObjectMirror mirror(*mIt.bus, NAME, ROOT, nullptr, nullptr);
    std::size_t heard = 0;
    const Subscription subscription =
        mGallery.On(TypeGallery1::GotString, [&](const std::string&) { ++heard; });
    EXPECT_TRUE(RunUntil([&] {
        return cache.IsReady() && mirror.GetStatus() == StatusCode::Ok &&
               subscription.GetStatus() == StatusCode::Ok;
    }));
    EXPECT_TRUE(Await(mGallery.Set(TypeGallery1::String, "before")).IsOk());
    EXPECT_TRUE(RunUntil([&] { return cache.Get<TypeGallery1::String>() == "before"; }));

    std::optional<StatusCode> waiting;
    const Pending pending = mGallery.Call(TypeGallery1::Drop).Then([&](Outcome<void> outcome) {
        waiting = outcome.IsOk() ? StatusCode::Ok : outcome.GetError().GetStatus();
    });
    const Outcome<void> left = Await(mOdd.Call(Odd1::Leave));
    ASSERT_FALSE(left.IsOk());
    EXPECT_EQ(left.GetError().GetName(), "org.freedesktop.DBus.Error.NoReply") << TextOf(left);
    EXPECT_EQ(left.GetError().GetStatus(), StatusCode::NotFound);
    EXPECT_TRUE(RunUntil([&] { return told.size() == 2 && waiting.has_value(); }));
    EXPECT_EQ(waiting, StatusCode::NotFound);
    EXPECT_TRUE(RunUntil([&] { return cache.GetStatus() == StatusCode::NotFound; }));
    EXPECT_FALSE(cache.Get<TypeGallery1::String>().has_value());
    EXPECT_TRUE(RunUntil([&] { return mirror.GetStatus() == StatusCode::NotFound; }));
    EXPECT_TRUE(mirror.GetObjects().empty());
    const Outcome<std::string> nobody = Await(mGallery.Call(TypeGallery1::EchoString, "anybody?"));
    ASSERT_FALSE(nobody.IsOk());
    EXPECT_EQ(nobody.GetError().GetStatus(), StatusCode::NotFound) << TextOf(nobody);

    // It comes back, as another connection.
    EXPECT_TRUE(mPeer.WaitForEnd(GENEROUS_LIMIT).has_value());
    ASSERT_TRUE(StartPeer(gCommand, NAME));
    EXPECT_TRUE(RunUntil([&] { return cache.IsReady() && mirror.GetStatus() == StatusCode::Ok; }));
    EXPECT_EQ(cache.Get<TypeGallery1::String>(), "");
    EXPECT_EQ(mirror.GetObjects().count(PATH), 1U);
    EXPECT_TRUE(Await(mGallery.Call(TypeGallery1::EchoString, "welcome")).IsOk());
    EXPECT_TRUE(RunUntil([&] { return heard == 1; }));
    EXPECT_THAT(told, ElementsAre("there", "gone", "there"));
}

TEST_F(GalleryClient, WorkersAndToolsCallIt) {
    std::future<Outcome<std::string>> worker = std::async(std::launch::async, [this] {
        return mGallery.CallFromWorker(TypeGallery1::EchoString, "from a worker").Wait(20s);
    });
    EXPECT_TRUE(RunUntil([&] { return worker.wait_for(0s) == std::future_status::ready; }));
    const Outcome<std::string> answer = worker.get();
    EXPECT_TRUE(answer.IsOk() && *answer == "from a worker") << TextOf(answer);

    std::future<void> tool = std::async(std::launch::async, [] {
        const BlockingProxy<TypeGallery1> gallery(NAME, PATH);
        auto told = gallery.Listen(TypeGallery1::GotStructure);
        const Outcome<values::Structure> back =
            gallery.Call(TypeGallery1::EchoStructure, values::Structure{7, "from a tool", 0.5});
        EXPECT_TRUE(back.IsOk() && *back == (values::Structure{7, "from a tool", 0.5})) << TextOf(back);
        const Outcome<std::tuple<values::Structure>> heard = told.Next(20s);
        EXPECT_TRUE(heard.IsOk() && std::get<0>(*heard).text == "from a tool") << TextOf(heard);
        const Outcome<void> set = gallery.Set(TypeGallery1::Texts, values::Texts{{"a", "b"}});
        EXPECT_TRUE(set.IsOk()) << TextOf(set);
        const Outcome<values::Texts> got = gallery.Get(TypeGallery1::Texts);
        EXPECT_TRUE(got.IsOk() && *got == (values::Texts{{"a", "b"}})) << TextOf(got);
        const Outcome<void> failed = gallery.Call(TypeGallery1::Fail, "com.example.Error.Own", "its text");
        EXPECT_TRUE(!failed.IsOk() && failed.GetError() == Error("com.example.Error.Own", "its text"));
        EXPECT_EQ(BlockingProxy<Odd1>(NAME, PATH).Call(Odd1::Number).IsOk(), false);
    });
    EXPECT_TRUE(RunUntil([&] { return tool.wait_for(0s) == std::future_status::ready; }));
}

TEST_F(GalleryClient, ItsInterfacesAreLearntWhileTheProgramRuns) {
    const UntypedProxy object(*mIt.bus, NAME, PATH);
    const Outcome<Introspection::Node> node = Await(object.Introspect());
    ASSERT_TRUE(node.IsOk()) << TextOf(node);
    const Introspection::Interface* const interface = node->FindInterface(TypeGallery1::NAME);
    ASSERT_NE(interface, nullptr);
    for (const auto& [member, signature] : std::map<std::string, std::string>{
             {"EchoNested", "(i(sad))"}, {"EchoDictAny", "a{sv}"}, {"EchoDescriptor", "h"}}) {
        const Introspection::Method* const method = interface->FindMethod(member);
        ASSERT_NE(method, nullptr) << member;
        EXPECT_EQ(method->GetInSignature(), signature);
        EXPECT_EQ(method->GetOutSignature(), signature);
    }
    ASSERT_NE(interface->FindProperty("Matrix"), nullptr);
    EXPECT_EQ(interface->FindProperty("Matrix")->type, "aad");
    EXPECT_EQ(interface->FindProperty("Matrix")->access, Introspection::Access::ReadWrite);
    ASSERT_NE(interface->FindSignal("GotPairs"), nullptr);
    EXPECT_EQ(interface->FindSignal("GotPairs")->GetSignature(), "a(ds)");

    const Any nested = Any::From(values::Nested{-7, {"series", {0.5}}});
    const Outcome<std::vector<Any>> back =
        Await(object.Call(TypeGallery1::NAME, "EchoNested", "(i(sad))", {nested}));
    EXPECT_TRUE(back.IsOk() && back->size() == 1 && back->front() == nested) << TextOf(back);
    const Outcome<void> set = Await(object.Set(TypeGallery1::NAME, "Anything", Any::Compose("v", {nested})));
    EXPECT_TRUE(set.IsOk()) << TextOf(set);
    const Outcome<std::map<std::string, Any>> all = Await(object.GetAll(TypeGallery1::NAME));
    ASSERT_TRUE(all.IsOk()) << TextOf(all);
    EXPECT_EQ(all->size(), 30U);
    EXPECT_EQ(all->at("Anything").At(0), nested);
}

}  // namespace

}  // namespace tern::test

int main(int argc, char* argv[]) {
    testing::InitGoogleMock(&argc, argv);
    tern::test::gCommand.assign(argv + 1, argv + argc);
    if (tern::test::gCommand.empty()) {
        return 2;
    }
    const int status = RUN_ALL_TESTS();
    return status == 0 && tern::test::PeerTest::IsSkipped() ? tern::test::PeerTest::SKIPPED : status;
}
