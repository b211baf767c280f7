#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <map>
#include <string>

namespace mwl::Parser {

/// Reads a small configuration file of attribute=value lines into a map.
///
///     [network]          a section: logged, but no part of the keys
///     address=10.0.0.1
///     options=a=b        everything after the first "=" is the value
///
/// Deliberately minimal: nothing is trimmed (spaces and a carriage return stay), there is no comment syntax
/// and no quoting, and an empty line is an error. A line that holds a "[" anywhere is taken for a section, so
/// neither an attribute nor a value may contain one.
///
/// Threads: only static operations without shared state; usable from any thread. Both block while the file is
/// read. Repeating them is harmless. No program started meanwhile inherits the file.
class TERN_API IniParser {
public:
    /// Reads the file at `path` into `values`: a new attribute is inserted; an attribute already there, from
    /// the caller, from an earlier line or section, is overwritten. Attributes that were stored before a
    /// failure stay.
    ///
    /// Ok: read to its end; an empty file holds nothing. NotFound: there is no such file, or it cannot be
    /// reached (stat(2) fails, for whatever reason). OpenFailed: it could not be opened for reading. IoError:
    /// it could not be read (a directory, for example). InvalidArgument: a line holds "[" without a later
    /// "]", or has neither "[" nor "="; it is logged and reading stops there.
    static mw::tern::StatusCode Parse(const std::string& path, std::map<std::string, std::string>& values);

    /// Splits one line at its first "=" and returns 1; 0 when there is none (logged), and then both outputs
    /// are empty. REQUIRES: the three strings are different objects.
    static int ParseAttributeValue(const std::string& line, std::string& attribute, std::string& value);
};

}  // namespace mwl::Parser
