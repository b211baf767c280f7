#pragma once

#include <string>
#include <vector>

namespace tern::test {

/// One way in which a call fails.
struct Failure {
    enum class Way {
        Errno,        ///< not called; -1, a null pointer or MAP_FAILED, and `errno`
        Number,       ///< not called; the error number itself, as the pthread functions have it
        Negative,     ///< not called; the negative error number, as sd-bus and sd-event have it
        Zip,          ///< not called; -1 or a null pointer, and libzip's code in the archive or entry
        Nothing,      ///< not called; 0, as if there were nothing to do, and `errno`
        AfterCall,    ///< called; then told as failed by -1 and `errno`: closing fails so
        AfterNumber,  ///< called; then told as failed by the error number itself
        Partial,      ///< called for half of the amount
        BadAlloc,     ///< not called; throws std::bad_alloc
        SystemError,  ///< not called; throws std::system_error
    };

    Way way;
    int error;
    const char* name;  ///< of the error, for reports
};

/// A function whose calls fail when told to; made by the catalogue.
struct Faultable {
    const char* name;  ///< without the decoration that the platform's C library gives it
    void* standIn;
    void** real;       ///< where the stand-in finds the function; to be set before it is called
    unsigned* number;  ///< by which the stand-in names itself; to be set before it is called
    std::vector<Failure> failures;
};

/// `name` without what the C library adds on some platforms to tell large files, wide times and a newer C:
/// "open64", "__stat64_time64" and "__isoc23_strtol" are "open", "stat" and "strtol".
std::string PlainName(const std::string& name);

}  // namespace tern::test
