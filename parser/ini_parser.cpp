#include <tern/parser/ini_parser.h>

#include <tern/foundation/log.h>
#include <tern/utilities/file_system.h>

#include <fstream>

#include "platform/static_text.h"

namespace mwl::Parser {

namespace {

const StaticText LOGGER("mwl::Parser");
const StaticText SECTION_OPENER("[");
const StaticText SECTION_CLOSER("]");

}  // namespace

mw::tern::StatusCode IniParser::Parse(const std::string& path, std::map<std::string, std::string>& values) {
    const StatusCode exists = mwl::Utilities::FileSystem::CheckFileExist(path);
    if (exists != StatusCode::Ok) {
        return exists;
    }
    std::ifstream file(path);
    if (!file.is_open()) {
        TERN_LOG_ERROR(LOGGER, "Error opening file [%s]", path.c_str());
        return StatusCode::OpenFailed;
    }
    std::string line;
    std::string attribute;
    std::string value;
    while (std::getline(file, line)) {
        // Fixed by the interface: anywhere in the line, a value included. The header says so.
        const std::size_t opener = line.find(SECTION_OPENER);
        if (opener != std::string::npos) {
            if (line.find(SECTION_CLOSER, opener) == std::string::npos) {
                TERN_LOG_ERROR(LOGGER, "Section badly defined --> %s", line.c_str());
                return StatusCode::InvalidArgument;
            }
            TERN_LOG_INFO(LOGGER, "Find section %s", line.c_str());
            continue;
        }
        if (ParseAttributeValue(line, attribute, value) == 0) {
            return StatusCode::InvalidArgument;
        }
        values.insert_or_assign(attribute, value);
    }
    // A read error ends the lines as the end of the file does: a folder, which opens like a file, would pass
    // for an empty one, and a file that broke off for a whole one.
    if (file.bad()) {
        TERN_LOG_ERROR(LOGGER, "Error reading file [%s]", path.c_str());
        return StatusCode::IoError;
    }
    return StatusCode::Ok;
}

int IniParser::ParseAttributeValue(const std::string& line, std::string& attribute, std::string& value) {
    attribute.clear();
    value.clear();
    const std::size_t separator = line.find('=');
    if (separator == std::string::npos) {
        TERN_LOG_ERROR(LOGGER, "Attribute and value badly defined --> %s", line.c_str());
        return 0;
    }
    attribute.assign(line, 0, separator);
    value.assign(line, separator + 1);
    TERN_LOG_INFO(LOGGER, "attribute: %s ---- value: %s", attribute.c_str(), value.c_str());
    return 1;
}

}  // namespace mwl::Parser
