#pragma once

#include <sys/mman.h>
#include <sys/syscall.h>
#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <new>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "failure.h"
#include "intercept.h"

namespace tern::test {

/// A function's name as a template argument: each name has a stand-in of its own.
template <std::size_t Size>
struct FunctionName {
    // Not explicit: a literal is what it is made from.
    consteval FunctionName(const char (&literal)[Size]) { std::copy_n(literal, Size, text); }
    char text[Size];
};

/// syscall(2) with its most arguments.
using RawCall = long (*)(long, long, long, long, long, long, long);
/// clone(2) without the arguments that our flags do not need.
using CloneCall = int (*)(int (*)(void*), void*, int, void*);

/// Takes the place of one function in the import tables: asks whether this call is to happen.
template <FunctionName NAME, typename Result, typename... Arguments>
class StandIn {
public:
    using Function = Result (*)(Arguments...);

    static Result Call(Arguments... arguments) {
        const auto function = reinterpret_cast<Function>(real);
        if constexpr (std::is_same_v<Function, RawCall>) {
            // The waiting inside std::future: no call of the code's own, and of no errors.
            if (std::get<0>(std::tie(arguments...)) == SYS_futex) {
                return function(arguments...);
            }
        }
        const Failure* const failure = Intercept::Take(number, __builtin_return_address(0));
        return failure == nullptr ? function(arguments...) : Fail(*failure, function, arguments...);
    }

    static inline void* real = nullptr;
    static inline unsigned number = 0;

private:
    static Result Failed() {
        if constexpr (std::is_same_v<Function, decltype(&::mmap)>) {
            return MAP_FAILED;
        } else if constexpr (std::is_pointer_v<Result>) {
            return nullptr;
        } else {
            return static_cast<Result>(-1);
        }
    }

    static Result Fail(const Failure& failure, Function function, Arguments... arguments) {
        switch (failure.way) {
            case Failure::Way::BadAlloc:
                throw std::bad_alloc();
            case Failure::Way::SystemError:
                throw std::system_error(failure.error, std::generic_category());
            case Failure::Way::Partial:
                (Halve(arguments), ...);
                return function(arguments...);
            case Failure::Way::AfterCall:
            case Failure::Way::AfterNumber:
                static_cast<void>(function(arguments...));
                break;
            case Failure::Way::Zip:
                (SetZipError(arguments, failure.error), ...);
                break;
            case Failure::Way::Nothing:
                if (failure.error != 0) {
                    (SetStreamError(arguments), ...);
                }
                break;
            default:
                break;
        }
        if constexpr (std::is_void_v<Result>) {
            return;
        } else {
            return MakeResult(failure);
        }
    }

    static Result MakeResult(const Failure& failure) {
        if constexpr (std::is_integral_v<Result>) {
            if (failure.way == Failure::Way::Number || failure.way == Failure::Way::AfterNumber) {
                return static_cast<Result>(failure.error);
            }
            if (failure.way == Failure::Way::Negative) {
                return static_cast<Result>(-failure.error);
            }
        }
        if (failure.way != Failure::Way::Zip) {
            errno = failure.error;
        }
        return failure.way == Failure::Way::Nothing ? Result{} : Failed();
    }

    /// The amount of a transfer is its only argument of this type.
    template <typename Argument>
    static void Halve(Argument& argument) {
        if constexpr (std::is_same_v<Argument, std::size_t> || std::is_same_v<Argument, zip_uint64_t>) {
            argument = argument > 1 ? argument / 2 : argument;
        }
    }

    template <typename Argument>
    static void SetZipError(Argument argument, int code) {
        if constexpr (std::is_same_v<Argument, zip_t*>) {
            zip_error_set(zip_get_error(argument), code, 0);
        } else if constexpr (std::is_same_v<Argument, zip_file_t*>) {
            zip_error_set(zip_file_get_error(argument), code, 0);
        } else if constexpr (std::is_same_v<Argument, int*>) {
            *argument = code;
        }
    }

    /// What a reading or writing function of the C library leaves in the stream with its error; ferror(3)
    /// sees it. The flag's value is part of that library's interface to programs.
    template <typename Argument>
    static void SetStreamError(Argument argument) {
        if constexpr (std::is_same_v<Argument, FILE*>) {
            argument->_flags |= 0x20;
        }
    }
};

/// The table's line for a function of fixed arguments; for others name the signature by which it is called.
template <FunctionName NAME, typename Result, typename... Arguments>
Faultable MakeFaultable(Result (* /*signature*/)(Arguments...), std::vector<Failure> failures) {
    using Stand = StandIn<NAME, Result, Arguments...>;
    return {NAME.text, reinterpret_cast<void*>(&Stand::Call), &Stand::real, &Stand::number,
            std::move(failures)};
}

}  // namespace tern::test
