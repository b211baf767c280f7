#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>

#include <string_view>

namespace mwl::Typed {
TERN_API int AppendText(sd_bus_message* message, char code, std::string_view text);
int AppendText(sd_bus_message* message, char code, std::string_view text) {
    return sd_bus_message_append_basic(message, code, text.data());
}
}  // namespace mwl::Typed
