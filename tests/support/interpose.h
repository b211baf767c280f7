#pragma once

#include <dlfcn.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace tern::test {

/// Control of one interposed function; see TERN_INTERPOSE. Arm it on the test's thread; the calls may come
/// from any thread. Disarm with Reset, best through a FaultScope.
template <typename Signature>
class Fault;

/// Of a function with this signature.
template <typename Result, typename... Arguments>
class Fault<Result(Arguments...)> {
public:
    /// The interposed function.
    using Function = Result (*)(Arguments...);
    /// What takes its place.
    using Stand = std::function<Result(Arguments...)>;

    /// `name` is the function's; it outlives the fault.
    explicit constexpr Fault(const char* name) : mName(name) {}

    /// After `skip` more calls, `times` calls return `result` with `errno` set to `error` (if not 0) instead
    /// of happening.
    void Fail(Result result, int error = 0, int times = 1, int skip = 0) {
        Replace(
            [=](Arguments...) {
                if (error != 0) {
                    errno = error;
                }
                return result;
            },
            times, skip);
    }

    /// After `skip` more calls, `times` calls run `stand` instead; it may call Real().
    void Replace(Stand stand, int times = 1, int skip = 0) {
        const std::lock_guard lock(mMutex);
        mStand = std::make_shared<Stand>(std::move(stand));
        mSkip = skip;
        mTimes = times;
        mCalls = 0;
        mArmed.store(true, std::memory_order_release);
    }

    /// From now on the real function is called.
    void Reset() {
        const std::lock_guard lock(mMutex);
        mArmed.store(false, std::memory_order_release);
        mStand.reset();
    }

    /// Calls since it was armed, the ones that happened included.
    int Calls() {
        const std::lock_guard lock(mMutex);
        return mCalls;
    }

    /// The library's own function.
    Result Real(Arguments... arguments) { return GetReal()(arguments...); }

    /// The body of the interposed function.
    Result Call(Arguments... arguments) {
        if (mArmed.load(std::memory_order_acquire)) {
            if (const std::shared_ptr<Stand> stand = Take()) {
                return (*stand)(arguments...);
            }
        }
        return GetReal()(arguments...);
    }

private:
    std::shared_ptr<Stand> Take() {
        const std::lock_guard lock(mMutex);
        ++mCalls;
        if (mStand == nullptr || mTimes == 0) {
            return nullptr;
        }
        if (mSkip > 0) {
            --mSkip;
            return nullptr;
        }
        --mTimes;
        return mStand;
    }

    Function GetReal() {
        Function real = mReal.load(std::memory_order_relaxed);
        if (real == nullptr) {
            real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, mName));
            mReal.store(real, std::memory_order_relaxed);
        }
        return real;
    }

    const char* mName;
    std::atomic<Function> mReal{nullptr};
    std::atomic<bool> mArmed{false};
    std::mutex mMutex;
    std::shared_ptr<Stand> mStand;
    int mSkip = 0;
    int mTimes = 0;
    int mCalls = 0;
};

/// Disarms a fault at the end of its block.
template <typename Signature>
class FaultScope {
public:
    /// Arms nothing; the fault is reset when the scope ends.
    explicit FaultScope(Fault<Signature>& fault) : mFault(fault) {}
    ~FaultScope() { mFault.Reset(); }
    FaultScope(const FaultScope&) = delete;
    FaultScope& operator=(const FaultScope&) = delete;

private:
    Fault<Signature>& mFault;
};

}  // namespace tern::test

/// Puts a controllable stand-in before a C function, for every caller in the process (libraries included, as
/// far as they call it through their import table). At namespace scope of the test program, outside any
/// namespace:
///
///     TERN_INTERPOSE(int, pipe2, (int* fds, int flags), (fds, flags))
///     ...
///     tern::test::FaultScope scope(fault_pipe2);
///     fault_pipe2.Fail(-1, EMFILE);
///
/// The assembler name is given by hand, so that the C library's own declaration is not in the way. Not usable
/// for functions with variable arguments; give those the fixed arguments that the code passes.
#define TERN_INTERPOSE(result, name, parameters, arguments) \
    TERN_INTERPOSE_SYMBOL_(result, name, #name, parameters, arguments)

/// Defined where code with 64-bit time calls the C library by names of its own: the library's native time has
/// 32 bits there. (`__USE_TIME_BITS64` alone does not say it: newer C libraries define it wherever time has
/// 64 bits.)
#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
#define TERN_HAS_TIME64_NAMES
#endif

/// The same for a function that takes or gives a time: where TERN_HAS_TIME64_NAMES is defined it has a second
/// name, `name64`, by which code with 64-bit time calls it.
#ifdef TERN_HAS_TIME64_NAMES
#define TERN_INTERPOSE_TIME(result, name, name64, parameters, arguments) \
    TERN_INTERPOSE_SYMBOL_(result, name, #name64, parameters, arguments)
#else
#define TERN_INTERPOSE_TIME(result, name, name64, parameters, arguments) \
    TERN_INTERPOSE_SYMBOL_(result, name, #name, parameters, arguments)
#endif

#define TERN_INTERPOSE_SYMBOL_(result, name, symbol, parameters, arguments)                            \
    static constinit tern::test::Fault<result parameters> fault_##name{symbol};                        \
    extern "C" __attribute__((visibility("default"))) result interposed_##name parameters asm(symbol); \
    extern "C" result interposed_##name parameters {                                                   \
        return fault_##name.Call arguments;                                                            \
    }
