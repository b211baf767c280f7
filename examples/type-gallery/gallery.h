#pragma once

#include <tern/threading/thread_pool.h>
#include <tern/typed/bus.h>
#include <tern/typed/implements.h>
#include <tern/typed/reply.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "contract.h"
#include "items.h"

namespace type_gallery {

/// The object: what it answers to each member of the contract. D-Bus thread only.
class Gallery final : public Typed::Implements<Gallery, TypeGallery1> {
public:
    /// Both outlive the object. The pool answers what Later takes.
    Gallery(Items& items, mwl::Threading::ThreadPool::ThreadPool& pool) : mItems(items), mPool(pool) {}

    /// Binds functions and data members to the members of the contract. A forgotten or mismatched binding
    /// does not compile.
    static constexpr auto Describe() {
        using Typed::Bind;
        using C = TypeGallery1;
        return Typed::Bindings<
            Bind<C::EchoByte, &Gallery::Echo<C::GotByte>>,
            Bind<C::Byte, &Gallery::mByte, &Gallery::Set<&Gallery::mByte>>,
            Bind<C::EchoInt16, &Gallery::Echo<C::GotInt16>>,
            Bind<C::Int16, &Gallery::mInt16, &Gallery::Set<&Gallery::mInt16>>,
            Bind<C::EchoUInt16, &Gallery::Echo<C::GotUInt16>>,
            Bind<C::UInt16, &Gallery::mUInt16, &Gallery::Set<&Gallery::mUInt16>>,
            Bind<C::EchoInt32, &Gallery::Echo<C::GotInt32>>,
            Bind<C::Int32, &Gallery::mInt32, &Gallery::Set<&Gallery::mInt32>>,
            Bind<C::EchoUInt32, &Gallery::Echo<C::GotUInt32>>,
            Bind<C::UInt32, &Gallery::mUInt32, &Gallery::Set<&Gallery::mUInt32>>,
            Bind<C::EchoInt64, &Gallery::Echo<C::GotInt64>>,
            Bind<C::Int64, &Gallery::mInt64, &Gallery::Set<&Gallery::mInt64>>,
            Bind<C::EchoUInt64, &Gallery::Echo<C::GotUInt64>>,
            Bind<C::UInt64, &Gallery::mUInt64, &Gallery::Set<&Gallery::mUInt64>>,
            Bind<C::EchoDouble, &Gallery::Echo<C::GotDouble>>,
            Bind<C::Double, &Gallery::mDouble, &Gallery::Set<&Gallery::mDouble>>,
            Bind<C::EchoBoolean, &Gallery::Echo<C::GotBoolean>>,
            Bind<C::Boolean, &Gallery::mBoolean, &Gallery::Set<&Gallery::mBoolean>>,
            Bind<C::EchoString, &Gallery::Echo<C::GotString>>,
            Bind<C::String, &Gallery::mString, &Gallery::Set<&Gallery::mString>>,
            Bind<C::EchoObjectPath, &Gallery::Echo<C::GotObjectPath>>,
            Bind<C::ObjectPath, &Gallery::mObjectPath, &Gallery::Set<&Gallery::mObjectPath>>,
            Bind<C::EchoSignature, &Gallery::Echo<C::GotSignature>>,
            Bind<C::Signature, &Gallery::mSignature, &Gallery::Set<&Gallery::mSignature>>,
            Bind<C::EchoDescriptor, &Gallery::Echo<C::GotDescriptor>>,
            Bind<C::EchoBytes, &Gallery::Echo<C::GotBytes>>,
            Bind<C::Bytes, &Gallery::mBytes, &Gallery::Set<&Gallery::mBytes>>,
            Bind<C::EchoDoubles, &Gallery::Echo<C::GotDoubles>>,
            Bind<C::Doubles, &Gallery::mDoubles, &Gallery::Set<&Gallery::mDoubles>>,
            Bind<C::EchoStrings, &Gallery::Echo<C::GotStrings>>,
            Bind<C::Strings, &Gallery::mStrings, &Gallery::Set<&Gallery::mStrings>>,
            Bind<C::EchoBooleans, &Gallery::Echo<C::GotBooleans>>,
            Bind<C::Booleans, &Gallery::mBooleans, &Gallery::Set<&Gallery::mBooleans>>,
            Bind<C::EchoTriple, &Gallery::Echo<C::GotTriple>>,
            Bind<C::Triple, &Gallery::mTriple, &Gallery::Set<&Gallery::mTriple>>,
            Bind<C::EchoPairs, &Gallery::Echo<C::GotPairs>>,
            Bind<C::Pairs, &Gallery::mPairs, &Gallery::Set<&Gallery::mPairs>>,
            Bind<C::EchoMatrix, &Gallery::Echo<C::GotMatrix>>,
            Bind<C::Matrix, &Gallery::mMatrix, &Gallery::Set<&Gallery::mMatrix>>,
            Bind<C::EchoTexts, &Gallery::Echo<C::GotTexts>>,
            Bind<C::Texts, &Gallery::mTexts, &Gallery::Set<&Gallery::mTexts>>,
            Bind<C::EchoNumbers, &Gallery::Echo<C::GotNumbers>>,
            Bind<C::Numbers, &Gallery::mNumbers, &Gallery::Set<&Gallery::mNumbers>>,
            Bind<C::EchoStructure, &Gallery::Echo<C::GotStructure>>,
            Bind<C::Structure, &Gallery::mStructure, &Gallery::Set<&Gallery::mStructure>>,
            Bind<C::EchoNested, &Gallery::Echo<C::GotNested>>,
            Bind<C::Nested, &Gallery::mNested, &Gallery::Set<&Gallery::mNested>>,
            Bind<C::EchoOptions, &Gallery::Echo<C::GotOptions>>,
            Bind<C::Options, &Gallery::mOptions, &Gallery::Set<&Gallery::mOptions>>,
            Bind<C::EchoStrictOptions, &Gallery::Echo<C::GotStrictOptions>>,
            Bind<C::StrictOptions, &Gallery::mStrictOptions, &Gallery::Set<&Gallery::mStrictOptions>>,
            Bind<C::EchoAnything, &Gallery::Echo<C::GotAnything>>,
            Bind<C::Anything, &Gallery::mAnything, &Gallery::Set<&Gallery::mAnything>>,
            Bind<C::EchoDictAny, &Gallery::Echo<C::GotDictAny>>,
            Bind<C::DictAny, &Gallery::mDictAny, &Gallery::Set<&Gallery::mDictAny>>,
            Bind<C::EchoChoice, &Gallery::Echo<C::GotChoice>>,
            Bind<C::Choice, &Gallery::mChoice, &Gallery::Set<&Gallery::mChoice>>,
            Bind<C::EchoColor, &Gallery::Echo<C::GotColor>>,
            Bind<C::Color, &Gallery::mColor, &Gallery::Set<&Gallery::mColor>>,
            Bind<C::EchoMode, &Gallery::Echo<C::GotMode>>,
            Bind<C::Mode, &Gallery::mMode, &Gallery::Set<&Gallery::mMode>>, Bind<C::Fail, &Gallery::Fail>,
            Bind<C::Throw, &Gallery::Throw>, Bind<C::Later, &Gallery::Later>, Bind<C::Drop, &Gallery::Drop>,
            Bind<C::Add, &Gallery::Add>, Bind<C::Remove, &Gallery::Remove>,
            Bind<C::Closed, &Gallery::Closed>>();
    }

private:
    /// The value of a signal with one argument.
    template <const auto& GOT>
    using ValueOf = std::tuple_element_t<0, typename Typed::MemberType<GOT>::Arguments>;
    /// The type of a data member.
    template <auto MEMBER>
    using TypeOf = std::remove_reference_t<decltype(std::declval<Gallery&>().*MEMBER)>;

    /// The handler of every Echo method: gives the value back and sends it as the signal GOT.
    template <const auto& GOT>
    ValueOf<GOT> Echo(ValueOf<GOT> x) {
        // A value that could not be sent is logged; it came from a message a moment ago.
        static_cast<void>(Emit<GOT>(x));
        return x;
    }
    /// The setter of every property. It says nothing of a change, so each writing is announced, also that of
    /// the same value.
    template <auto MEMBER>
    void Set(TypeOf<MEMBER> x) {
        this->*MEMBER = std::move(x);
    }

    /// An error of one's own is returned like a value.
    Typed::Outcome<void> Fail(const std::string& name, std::string_view text) {
        return Typed::Error(name, text);
    }
    /// Whatever a handler throws, the caller gets an error and the service goes on.
    Typed::Outcome<void> Throw(std::string_view kind);
    /// Answered later: the reply goes along with the work. More than ten seconds are refused.
    void Later(Typed::Reply<std::string> reply, std::uint32_t ms, std::string text);
    /// A reply that is destroyed unanswered answers an error.
    void Drop(Typed::Reply<void>) {}
    Typed::Outcome<void> Add(const std::string& path) { return mItems.Add(path); }
    Typed::Outcome<void> Remove(const std::string& path) { return mItems.Remove(path); }
    void Closed() {}

    Items& mItems;
    mwl::Threading::ThreadPool::ThreadPool& mPool;

    // The properties' values.
    std::uint8_t mByte = 0;
    std::int16_t mInt16 = 0;
    std::uint16_t mUInt16 = 0;
    std::int32_t mInt32 = 0;
    std::uint32_t mUInt32 = 0;
    std::int64_t mInt64 = 0;
    std::uint64_t mUInt64 = 0;
    double mDouble = 0.0;
    bool mBoolean = false;
    std::string mString;
    values::ObjectPath mObjectPath;
    values::Signature mSignature;
    values::Bytes mBytes;
    values::Doubles mDoubles;
    values::Strings mStrings;
    values::Booleans mBooleans;
    values::Triple mTriple{};
    values::Pairs mPairs;
    values::Matrix mMatrix;
    values::Texts mTexts;
    values::Numbers mNumbers;
    values::Structure mStructure;
    values::Nested mNested;
    values::Options mOptions;
    values::StrictOptions mStrictOptions;
    values::Anything mAnything = Typed::Any::From(std::string("nothing yet"));
    values::DictAny mDictAny;
    values::Choice mChoice;
    values::Color mColor = values::Color::Red;
    values::Mode mMode = values::Mode::Off;
};

}  // namespace type_gallery
