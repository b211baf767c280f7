#include <tern/typed/codec.h>
#include <tern/typed/contract.h>
#include <tern/typed/introspection_model.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

// Reads arbitrary text as introspection data. A text that was read is sound: no name, type or depth in it
// that D-Bus does not have. A refusal has a text that can be sent as an error.

namespace {

using namespace mwl::Typed;
using Introspection::Direction;
using Introspection::Node;

void Require(bool held) {
    if (!held) {
        std::abort();
    }
}

void CheckArguments(const std::vector<Introspection::Argument>& arguments) {
    for (const Introspection::Argument& argument : arguments) {
        Require(IsSignature(argument.type) && Detail::IsOneType(argument.type) && IsText(argument.name));
    }
}

void CheckNode(const Node& node, std::size_t depth) {
    Require(depth <= Introspection::MAX_NESTING);
    Require(node.name.empty() || IsObjectPath((depth > 1 ? "/" : "") + node.name));
    for (const Introspection::Interface& interface : node.interfaces) {
        Require(IsInterfaceName(interface.name.c_str()));
        for (const Introspection::Method& method : interface.methods) {
            Require(IsMemberName(method.name.c_str()) && interface.FindMethod(method.name) != nullptr);
            Require(method.GetInSignature().size() + method.GetOutSignature().size() >=
                    method.arguments.size());
            CheckArguments(method.arguments);
        }
        for (const Introspection::Signal& signal : interface.signals) {
            Require(IsMemberName(signal.name.c_str()));
            CheckArguments(signal.arguments);
            for (const Introspection::Argument& argument : signal.arguments) {
                Require(argument.direction == Direction::Out);
            }
        }
        for (const Introspection::Property& property : interface.properties) {
            Require(IsMemberName(property.name.c_str()));
            Require(IsSignature(property.type) && Detail::IsOneType(property.type));
        }
    }
    for (const Node& child : node.children) {
        Require(!child.name.empty());
        CheckNode(child, depth + 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Outcome<Node> node = Introspection::Parse({reinterpret_cast<const char*>(data), size});
    if (node.IsOk()) {
        CheckNode(*node, 1);
        Require(Node(*node) == *node);
    } else {
        Require(node.GetError().GetStatus() == StatusCode::InvalidArgument);
        Require(IsText(node.GetError().GetText()) && !node.GetError().GetText().empty());
    }
    return 0;
}
