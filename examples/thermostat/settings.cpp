#include "settings.h"

#include <tern/foundation/log.h>
#include <tern/parser/ini_parser.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>

#include "names.h"

using mw::tern::StatusCode;

namespace thermostat {

namespace {

/// The whole text as a number within the limits.
bool ReadNumber(const std::string& text, double low, double high, double& number) {
    char* end = nullptr;
    const double read = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(read >= low && read <= high)) {
        return false;
    }
    number = read;
    return true;
}

bool TakeFolder(const std::string& text, std::string& folder) {
    // Relative ones would depend on where the service is started.
    if (text.empty() || text.front() != '/') {
        return false;
    }
    folder = text;
    return true;
}

struct Setting {
    const char* name;
    const char* range;  ///< for the person who wrote the file
    bool (*take)(const std::string& value, Settings& settings);
};

constexpr Setting SETTINGS[] = {
    {"target", "a number from 5 to 30",
     [](const std::string& value, Settings& settings) {
         return ReadNumber(value, MIN_TARGET, MAX_TARGET, settings.target);
     }},
    {"sampling_ms", "a whole number from 10 to 1000",
     [](const std::string& value, Settings& settings) {
         double number = 0.0;
         if (!ReadNumber(value, 10, 1000, number) || number != std::floor(number)) {
             return false;
         }
         settings.samplingMs = static_cast<unsigned int>(number);
         return true;
     }},
    {"state_folder", "an absolute path",
     [](const std::string& value, Settings& settings) { return TakeFolder(value, settings.stateFolder); }},
    {"log_folder", "an absolute path",
     [](const std::string& value, Settings& settings) { return TakeFolder(value, settings.logFolder); }},
    {"debug", "0 or 1",
     [](const std::string& value, Settings& settings) {
         settings.debug = value == "1";
         return value == "0" || value == "1";
     }},
};

const Setting* Find(const std::string& name) {
    for (const Setting& setting : SETTINGS) {
        if (name == setting.name) {
            return &setting;
        }
    }
    return nullptr;
}

/// The number of the last line that sets `name`, which is the one that counts.
unsigned int LineOf(const std::string& path, const std::string& name) {
    std::ifstream file(path);
    std::string line;
    unsigned int found = 0;
    for (unsigned int number = 1; std::getline(file, line); ++number) {
        if (line.starts_with(name + "=")) {
            found = number;
        }
    }
    return found;
}

}  // namespace

StatusCode LoadSettings(const std::string& path, Settings& settings) {
    std::map<std::string, std::string> values;
    const StatusCode status = mwl::Parser::IniParser::Parse(path, values);
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "%s cannot be read: %s", path.c_str(),
                       mw::tern::ConvertStatusCodeToString(status).c_str());
        return status;
    }
    for (const auto& [name, value] : values) {
        const Setting* const setting = Find(name);
        if (setting == nullptr) {
            TERN_LOG_ERROR(
                LOGGER,
                "%s:%u: there is no setting '%s', only target, sampling_ms, state_folder, log_folder "
                "and debug",
                path.c_str(), LineOf(path, name), name.c_str());
            return StatusCode::InvalidArgument;
        }
        if (!setting->take(value, settings)) {
            TERN_LOG_ERROR(LOGGER, "%s:%u: '%s' is '%s' and has to be %s", path.c_str(), LineOf(path, name),
                           name.c_str(), value.c_str(), setting->range);
            return StatusCode::InvalidArgument;
        }
    }
    return StatusCode::Ok;
}

}  // namespace thermostat
