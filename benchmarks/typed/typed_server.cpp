// The server of the typed comparison, by a contract.

#include <tern/typed/implements.h>

#include <span>
#include <string_view>
#include <vector>

#include "bench_loop.h"

namespace {

using namespace mwl::Typed;

struct Bench1 {
    static constexpr const char* NAME = bench::INTERFACE;

    static constexpr Method<void()> Empty{"Empty", {}, OPEN};
    static constexpr Method<std::uint32_t(std::uint32_t)> Number{"Number", {"number", "next"}, OPEN};
    static constexpr Method<std::string(std::string_view)> Text{"Text", {"text", "copy"}, OPEN};
    static constexpr Method<void(std::uint32_t, double, bool, std::string_view)> Four{
        "Four", {"number", "value", "flag", "text"}, OPEN};
    static constexpr Method<std::uint32_t(std::vector<bench::Item>)> Items{"Items", {"items", "count"}, OPEN};
    static constexpr Method<std::uint32_t(bench::Options)> Options{"Options", {"options", "seconds"}, OPEN};
    static constexpr Method<std::uint32_t(std::span<const std::uint8_t>)> Bytes{
        "Bytes", {"bytes", "count"}, OPEN};
    static constexpr WritableProperty<double> Value{"Value", OPEN | EMITS};

    static constexpr Members<Empty, Number, Text, Four, Items, Options, Bytes, Value> ALL{};
};

class Bench final : public Implements<Bench, Bench1> {
public:
    static constexpr auto Describe() {
        return Bindings<Bind<Bench1::Empty, &Bench::Empty>, Bind<Bench1::Number, &Bench::Number>,
                        Bind<Bench1::Text, &Bench::Text>, Bind<Bench1::Four, &Bench::Four>,
                        Bind<Bench1::Items, &Bench::Items>, Bind<Bench1::Options, &Bench::TakeOptions>,
                        Bind<Bench1::Bytes, &Bench::Bytes>,
                        Bind<Bench1::Value, &Bench::mValue, &Bench::SetValue>>();
    }

private:
    void Empty() {}
    std::uint32_t Number(std::uint32_t number) { return number + 1; }
    std::string Text(std::string_view text) { return std::string(text); }
    void Four(std::uint32_t number, double value, bool flag, std::string_view text) {
        mValue = number + value + flag + static_cast<double>(text.size());
    }
    std::uint32_t Items(const std::vector<bench::Item>& items) {
        return static_cast<std::uint32_t>(items.size());
    }
    std::uint32_t TakeOptions(const bench::Options& options) { return options.seconds; }
    std::uint32_t Bytes(std::span<const std::uint8_t> bytes) {
        return static_cast<std::uint32_t>(bytes.size());
    }
    void SetValue(double value) { mValue = value; }

    double mValue = 1.0;
};

}  // namespace

int main() {
    Bench object;
    bench::Serve(object.GetVtable(), object.GetUserData());
}
