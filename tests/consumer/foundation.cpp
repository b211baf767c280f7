#include <tern-foundation/status_code.h>
#include <tern-foundation/unit_path.h>

int main() {
    const bool named =
        mw::tern::ConvertStatusCodeToString(mw::tern::StatusCode::KeyNotFound) == "KeyNotFound";
    return named && !mwl::Unit::Path::MWL_LIB.empty() ? 0 : 1;
}
