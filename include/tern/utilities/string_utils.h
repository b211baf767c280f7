#pragma once

#include <tern/foundation/api.h>

#include <string>
#include <vector>

namespace mwl::Utilities {

/// Helpers for text. Text is bytes: no locale has a say. Thread-safe; nothing is logged; nothing but
/// std::bad_alloc and std::length_error is thrown.
class TERN_API StringUtils {
public:
    /// Replaces in `text` the first, with `all` every, occurrence of `from` by `to`. Returns `text`.
    ///
    /// Each search begins one character after the start of the last replacement, not after its end. So a `to`
    /// that holds `from` after its first character is found again and again: such a call with `all` ends only
    /// when memory is used up ("a" by "aa" is one). With an empty `to` the character after each gap is passed
    /// over ("aaaa" without "a" leaves "aa").
    ///
    /// An empty `from` inserts `to` before every character and once at the end; without `all` at the start
    /// only.
    static std::string& Replace(std::string& text, const std::string& from, const std::string& to, bool all);
    /// Removes every `c` at the end of `text`. Returns `text`.
    static std::string& Rtrim(std::string& text, char c);
    /// The items in their order with `separator` between neighbours; "" for no items.
    static std::string Join(const std::vector<std::string>& items, const std::string& separator);
    /// Whether the bytes of `text` from `index` on begin with a whole UTF-8 sequence: a lead byte and as many
    /// continuation bytes as it announces. Overlong forms, surrogates and lead bytes up to 0xF7 are accepted.
    /// `length` becomes the number of bytes that the lead byte announces, also when they are not there, and 1
    /// when it is none. REQUIRES: `index` lies in `text`; otherwise false with length 1. `index` is not
    /// changed.
    static bool IsValidUtf8(const std::string& text, unsigned int& index, unsigned int& length);
    /// Whether `text` consists of sequences that IsValidUtf8 accepts; an empty text does.
    static bool ValidateUTF8Sequence(const std::string& text);
    /// The number at the start of `text`, as strtoul(3) reads it in base 10: leading white space and a sign
    /// are accepted, text after the digits is ignored, a negative number wraps ("-1" is 4294967295).
    /// `defaultValue` when there are no digits or the number without its sign is above 4294967295.
    static unsigned int ToUint32(const std::string& text, unsigned int defaultValue);
    /// Whether `text` begins with `prefix`; an empty one always does.
    static bool StartsWith(const std::string& text, const std::string& prefix);
    /// The parts of `text` between the delimiters, empty ones included; so always one more than there are
    /// delimiters, and one empty part for an empty text.
    static std::vector<std::string> Split(const std::string& text, char delimiter);
};

}  // namespace mwl::Utilities
