#include <tern/typed/introspection_model.h>

#include <tern/typed/contract.h>
#include <tern/typed/types.h>

#include <algorithm>
#include <array>
#include <exception>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>

#include "foundation/handle.h"
#include "typed/expat.h"

namespace mwl::Typed::Introspection {

namespace {

enum class Element { Node, Interface, Method, Signal, Property, Argument, Annotation, Other };

struct NamedElement {
    std::string_view name;
    Element element;
    /// Where it may stand.
    std::initializer_list<Element> parents;
};

constexpr std::initializer_list<Element> IN_NODE{Element::Node};
constexpr std::initializer_list<Element> IN_INTERFACE{Element::Interface};
constexpr std::initializer_list<Element> IN_CALLABLE{Element::Method, Element::Signal};
constexpr std::initializer_list<Element> IN_ANY{Element::Node,   Element::Interface, Element::Method,
                                                Element::Signal, Element::Property,  Element::Argument};

constexpr std::array ELEMENTS{
    NamedElement{"node", Element::Node, IN_NODE},
    NamedElement{"interface", Element::Interface, IN_NODE},
    NamedElement{"method", Element::Method, IN_INTERFACE},
    NamedElement{"signal", Element::Signal, IN_INTERFACE},
    NamedElement{"property", Element::Property, IN_INTERFACE},
    NamedElement{"arg", Element::Argument, IN_CALLABLE},
    NamedElement{"annotation", Element::Annotation, IN_ANY},
};

const NamedElement* FindElement(std::string_view name) {
    const auto* const found = std::find_if(ELEMENTS.begin(), ELEMENTS.end(),
                                           [name](const NamedElement& one) { return one.name == name; });
    return found != ELEMENTS.end() ? found : nullptr;
}

const NamedElement& Describe(Element element) {
    return ELEMENTS[static_cast<std::size_t>(element)];  // of Other there is none, and nobody asks
}

/// A peer's text, as an error shows it: its beginning, without control characters.
std::string Shown(std::string_view text) {
    constexpr std::size_t LONGEST = 60;
    std::string shown(text.substr(0, LONGEST));
    if (text.size() > LONGEST) {
        std::size_t end = LONGEST;
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0) == 0x80) {
            --end;
        }
        shown.resize(end);
        shown += "...";
    }
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; },
        '?');
    return shown;
}

bool IsAnyMemberName(const std::string& name) {
    return IsMemberName(name.c_str());
}
bool IsAnyInterfaceName(const std::string& name) {
    return IsInterfaceName(name.c_str());
}
bool IsRelativePath(const std::string& name) {
    return IsObjectPath("/" + name) && !name.empty();
}
/// The annotations in use are named like interfaces, except for their '-'.
bool IsAnnotationName(const std::string& name) {
    return !name.empty() && name.size() <= 255 && name.find_first_of(" \t\r\n") == std::string::npos;
}
bool IsCompleteType(const std::string& type) {
    return !type.empty() && Detail::EndOfType(type, 0) == type.size();
}

/// The reading of one text. The result stands in `mRoot`, where a place, once taken, stays until its element
/// ends.
class Reader {
public:
    Reader(const Expat& expat, std::string_view xml) : mExpat(expat), mXml(xml) {}

    Outcome<Node> Read() {
        const Parser parser{mExpat.create("UTF-8"), mExpat.free};
        if (parser.get() == nullptr) {
            throw std::bad_alloc();
        }
        mParser = parser.get();
        mExpat.setUserData(mParser, this);
        mExpat.setElementHandler(mParser, OnStart, OnEnd);
        mExpat.setStartDoctypeHandler(mParser, OnDoctype);
        const XML_Status status = mExpat.parse(mParser, mXml.data(), static_cast<int>(mXml.size()), 1);
        if (mThrown) {
            std::rethrow_exception(mThrown);
        }
        if (mFault.empty() && status != XML_STATUS_OK) {
            const XML_Error error = mExpat.getErrorCode(mParser);
            if (error == XML_ERROR_NO_MEMORY) {
                throw std::bad_alloc();
            }
            Refuse(mExpat.errorString(error));
        }
        if (!mFault.empty()) {
            return Error::InvalidArgs(mFault);
        }
        return std::move(mRoot);
    }

private:
    using Parser = std::unique_ptr<XML_ParserStruct, decltype(Expat::free)>;

    /// An element that has not ended yet.
    struct Open {
        Element element;
        /// The innermost ones; null where there is none.
        Node* node;
        Interface* interface;
        std::vector<Argument>* arguments;
        std::vector<Annotation>* annotations;
    };

    static void XMLCALL OnStart(void* self, const XML_Char* name, const XML_Char** attributes) {
        static_cast<Reader*>(self)->Guard([&](Reader& reader) { reader.Start(name, attributes); });
    }
    static void XMLCALL OnEnd(void* self, const XML_Char*) {
        static_cast<Reader*>(self)->Guard([](Reader& reader) { reader.End(); });
    }
    static void XMLCALL OnDoctype(void* self, const XML_Char*, const XML_Char*, const XML_Char*,
                                  int hasDeclarations) {
        if (hasDeclarations != 0) {
            // Entities and default values in them make a short text a long one.
            static_cast<Reader*>(self)->Guard(
                [](Reader& reader) { reader.Refuse("the document has declarations of its own"); });
        }
    }

    /// Nothing that is thrown crosses libexpat.
    template <typename Work>
    void Guard(Work work) noexcept {
        if (mThrown || !mFault.empty()) {
            return;  // libexpat ends an empty element that it was stopped in
        }
        try {
            work(*this);
        } catch (...) {
            mThrown = std::current_exception();
            mExpat.stop(mParser, XML_FALSE);
        }
    }

    void Refuse(const std::string& what) {
        mFault = "line " + std::to_string(mExpat.getLine(mParser)) + ": " + what;
        mExpat.stop(mParser, XML_FALSE);
    }

    void Start(std::string_view name, const XML_Char** attributes) {
        if (mDepth >= MAX_NESTING) {
            return Refuse("more than " + std::to_string(MAX_NESTING) + " elements inside each other");
        }
        ++mDepth;
        if (mOther > 0) {
            ++mOther;
            return;
        }
        const NamedElement* const known = FindElement(name);
        if (mOpen.empty() && (known == nullptr || known->element != Element::Node)) {
            return Refuse("<" + Shown(name) + "> where <node> is wanted");
        }
        if (known == nullptr) {
            mOther = 1;
            return;
        }
        if (!mOpen.empty()) {
            const Element parent = mOpen.back().element;
            if (std::find(known->parents.begin(), known->parents.end(), parent) == known->parents.end()) {
                return Refuse("<" + std::string(name) + "> does not belong into <" +
                              std::string(Describe(parent).name) + ">");
            }
        }
        if (const std::optional<std::string> entity = FindEntity()) {
            return Refuse("the entity '" + Shown(*entity) + "' is not declared");
        }
        mAttributes = attributes;
        mElement = known->element;
        Open open = mOpen.empty() ? Open{} : mOpen.back();
        open.element = mElement;
        switch (mElement) {
            case Element::Node:
                return StartNode(open);
            case Element::Interface:
                return StartInterface(open);
            case Element::Method:
                return StartCallable(open, open.interface->methods);
            case Element::Signal:
                return StartCallable(open, open.interface->signals);
            case Element::Property:
                return StartProperty(open);
            case Element::Argument:
                return StartArgument(open);
            default:
                return StartAnnotation(open);
        }
    }

    void End() {
        --mDepth;
        if (mOther > 0) {
            --mOther;
        } else {
            mOpen.pop_back();
        }
    }

    void StartNode(Open& open) {
        Node node;
        if (mOpen.empty()) {
            node.name = Get("name").value_or("");
            if (!node.name.empty() && !IsObjectPath(node.name)) {
                return RefuseValue(node.name, "is no object path");
            }
            mRoot = std::move(node);
            open.node = &mRoot;
        } else {
            if (!GetChecked("name", node.name, IsRelativePath, "is no object path below the node's")) {
                return;
            }
            open.node = &open.node->children.emplace_back(std::move(node));
        }
        open.annotations = &open.node->annotations;
        mOpen.push_back(open);
    }

    void StartInterface(Open& open) {
        Interface interface;
        if (GetChecked("name", interface.name, IsAnyInterfaceName, "is no interface name")) {
            open.interface = &open.node->interfaces.emplace_back(std::move(interface));
            open.annotations = &open.interface->annotations;
            mOpen.push_back(open);
        }
    }

    template <typename Callable>
    void StartCallable(Open& open, std::vector<Callable>& all) {
        Callable callable;
        if (GetChecked("name", callable.name, IsAnyMemberName, "is no member name")) {
            Callable& added = all.emplace_back(std::move(callable));
            open.arguments = &added.arguments;
            open.annotations = &added.annotations;
            mOpen.push_back(open);
        }
    }

    void StartProperty(Open& open) {
        Property property;
        std::string access;
        if (!GetChecked("name", property.name, IsAnyMemberName, "is no member name") ||
            !GetType(property.type) ||
            !GetChecked(
                "access", access,
                [](const std::string& text) {
                    return text == "read" || text == "write" || text == "readwrite";
                },
                "is no access: read, write or readwrite")) {
            return;
        }
        property.access = access == "read"    ? Access::Read
                          : access == "write" ? Access::Write
                                              : Access::ReadWrite;
        Property& added = open.interface->properties.emplace_back(std::move(property));
        open.annotations = &added.annotations;
        mOpen.push_back(open);
    }

    void StartArgument(Open& open) {
        const bool isOfSignal = mOpen.back().element == Element::Signal;
        Argument argument;
        argument.name = Get("name").value_or("");
        if (!GetType(argument.type)) {
            return;
        }
        const std::string direction = Get("direction").value_or(isOfSignal ? "out" : "in");
        if (direction != "out" && (isOfSignal || direction != "in")) {
            return RefuseValue(direction, isOfSignal ? "is no direction of a signal's argument: out"
                                                     : "is no direction: in or out");
        }
        argument.direction = direction == "in" ? Direction::In : Direction::Out;
        open.annotations = &open.arguments->emplace_back(std::move(argument)).annotations;
        mOpen.push_back(open);
    }

    void StartAnnotation(Open& open) {
        Annotation annotation;
        if (GetChecked("name", annotation.name, IsAnnotationName, "is no name of an annotation")) {
            annotation.value = Get("value").value_or("");
            open.annotations->push_back(std::move(annotation));
            mOpen.push_back(open);
        }
    }

    /// An attribute's value.
    std::optional<std::string> Get(std::string_view name) const {
        for (const XML_Char** at = mAttributes; *at != nullptr; at += 2) {
            if (*at == name) {
                return at[1];
            }
        }
        return std::nullopt;
    }

    /// The same of one that has to be there and to be sound; refuses otherwise.
    template <typename Check>
    bool GetChecked(const char* name, std::string& value, Check isSound, const char* complaint) {
        std::optional<std::string> given = Get(name);
        if (!given) {
            Refuse("<" + std::string(Describe(mElement).name) + "> has no attribute '" + name + "'");
            return false;
        }
        if (!isSound(*given)) {
            RefuseValue(*given, complaint);
            return false;
        }
        value = std::move(*given);
        return true;
    }

    bool GetType(std::string& type) {
        return GetChecked("type", type, IsSignature, "is no signature") &&
               (IsCompleteType(type) || (RefuseValue(type, "is not one complete type"), false));
    }

    void RefuseValue(const std::string& value, const char* complaint) {
        Refuse("'" + Shown(value) + "' " + complaint);
    }

    /// An entity in the attributes that XML itself does not know. libexpat leaves it out of an attribute
    /// without a word, because it might be declared in the document type, which is not fetched.
    std::optional<std::string> FindEntity() const {
        const auto from = static_cast<std::size_t>(mExpat.getByteIndex(mParser));
        std::string_view tag = mXml.substr(from, static_cast<std::size_t>(mExpat.getByteCount(mParser)));
        for (std::size_t at = tag.find('&'); at != std::string_view::npos; at = tag.find('&')) {
            tag.remove_prefix(at + 1);
            const std::string_view name = tag.substr(0, tag.find(';'));
            constexpr std::array<std::string_view, 5> KNOWN{"amp", "lt", "gt", "quot", "apos"};
            if (!name.starts_with('#') && std::find(KNOWN.begin(), KNOWN.end(), name) == KNOWN.end()) {
                return std::string(name);
            }
        }
        return std::nullopt;
    }

    const Expat& mExpat;
    const std::string_view mXml;
    XML_Parser mParser = nullptr;
    Node mRoot;
    std::vector<Open> mOpen;
    /// Elements that have begun; those of them that are left out.
    std::size_t mDepth = 0;
    std::size_t mOther = 0;
    /// The one that begins.
    Element mElement = Element::Other;
    const XML_Char** mAttributes = nullptr;
    std::string mFault;
    std::exception_ptr mThrown;
};

template <typename Named>
const Named* FindNamed(const std::vector<Named>& all, std::string_view name) {
    const auto found =
        std::find_if(all.begin(), all.end(), [name](const Named& one) { return one.name == name; });
    return found != all.end() ? &*found : nullptr;
}

std::string Join(const std::vector<Argument>& arguments, Direction direction) {
    std::string joined;
    for (const Argument& argument : arguments) {
        if (argument.direction == direction) {
            joined += argument.type;
        }
    }
    return joined;
}

}  // namespace

const std::string* FindAnnotation(const std::vector<Annotation>& annotations, std::string_view name) {
    const Annotation* const found = FindNamed(annotations, name);
    return found != nullptr ? &found->value : nullptr;
}

std::string Method::GetInSignature() const {
    return Join(arguments, Direction::In);
}

std::string Method::GetOutSignature() const {
    return Join(arguments, Direction::Out);
}

std::string Signal::GetSignature() const {
    return Join(arguments, Direction::Out);
}

const Method* Interface::FindMethod(std::string_view wanted) const {
    return FindNamed(methods, wanted);
}

const Signal* Interface::FindSignal(std::string_view wanted) const {
    return FindNamed(signals, wanted);
}

const Property* Interface::FindProperty(std::string_view wanted) const {
    return FindNamed(properties, wanted);
}

const Interface* Node::FindInterface(std::string_view wanted) const {
    return FindNamed(interfaces, wanted);
}

Outcome<Node> Parse(std::string_view xml) {
    if (xml.size() > MAX_SIZE) {
        return Error::InvalidArgs("more than " + std::to_string(MAX_SIZE) + " bytes");
    }
    std::string fault;
    const Expat* const expat = Expat::Load(fault);
    if (expat == nullptr) {
        return Error::NotSupported("introspection data cannot be read: " + fault);
    }
    return Reader(*expat, xml).Read();
}

}  // namespace mwl::Typed::Introspection
