// fails with: this type points into the message that it comes with
#include "client_contracts.h"

struct Shown {
    std::string_view text;
};

struct Own1 {
    static constexpr const char* NAME = "com.example.Own1";
#ifdef MENDED
    static constexpr Method<std::string_view()> Get{"Get"};
#else
    static constexpr Method<Shown()> Get{"Get"};
#endif
    static constexpr Members<Get> ALL{};
};

void Ask(const Proxy<Own1>& own) {
    own.Call(Own1::Get).Detach();
}
