#include <tern/foundation/log.h>
#include <tern/utilities/version_utils.h>

#include <string>

int main() {
    TERN_LOG_INFO(std::string("TestPackage"), "%s",
                  mw::tern::ConvertStatusCodeToString(mw::tern::StatusCode::Ok).c_str());
}
