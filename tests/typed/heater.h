#pragma once

#include <tern/typed/implements.h>

#include <cstdint>

namespace guide {

using namespace mwl::Typed;

// What the parts of docs/typed.md about callers call: the contract of its beginning, which guide_test.cpp has
// word for word, and a service that keeps it.

struct Heater1 {
    static constexpr const char* NAME = "com.example.Heater1";

    static constexpr Method<void(std::uint32_t)> Boost{"Boost", {"seconds"}, OPEN, "Heats for a while."};
    static constexpr Property<double> Temperature{"Temperature", EMITS, "Degrees Celsius."};
    static constexpr WritableProperty<double> Target{"Target", EMITS | OPEN, "Degrees Celsius."};
    static constexpr Signal<double> Measured{"Measured", {"celsius"}};

    static constexpr Members<Boost, Temperature, Target, Measured> ALL{};
};

class Heater final : public Implements<Heater, Heater1> {
public:
    static constexpr auto Describe() {
        return Bindings<Bind<Heater1::Boost, &Heater::Boost>, Bind<Heater1::Temperature, &Heater::mTarget>,
                        Bind<Heater1::Target, &Heater::mTarget, &Heater::SetTarget>>();
    }

private:
    /// Measures at once.
    Outcome<void> Boost(std::uint32_t seconds) {
        if (seconds > 3600) {
            return Error::InvalidArgs("more than an hour");
        }
        Emit<Heater1::Measured>(mTarget);
        return {};
    }
    void SetTarget(double celsius) { mTarget = celsius; }

    double mTarget = 20.0;
};

}  // namespace guide
