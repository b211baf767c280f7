#include "diagnostics/ring.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

namespace mwl::Diagnostics {

namespace {

using namespace Format;

/// FNV-1a: good enough for some hundred names.
std::uint32_t HashOf(std::string_view text) noexcept {
    std::uint32_t hash = 2166136261U;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    }
    return hash;
}

template <std::size_t N>
void SetText(std::array<char, N>& field, std::string_view text) noexcept {
    field.fill('\0');
    text.copy(field.data(), FittingLength(text, N - 1));
}

void Now(Instant& instant, std::uint64_t ticks) noexcept {
    const std::uint64_t monotonicNs = NanosecondsOf(CLOCK_MONOTONIC);
    const std::uint64_t realtimeNs = NanosecondsOf(CLOCK_REALTIME);
    // At a stretch: who reads it between two of them, or finds it so as its writer was killed, takes times
    // that are as far apart as this instant and the last one for the same.
    instant.ticks.store(ticks, std::memory_order_relaxed);
    instant.monotonicNs.store(monotonicNs, std::memory_order_relaxed);
    instant.realtimeNs.store(realtimeNs, std::memory_order_relaxed);
}

}  // namespace

std::size_t FittingLength(std::string_view text, std::size_t room) noexcept {
    std::size_t length = std::min(text.size(), room);
    while (length > 0 && length < text.size() &&
           (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) {
        --length;
    }
    return length;
}

StatusCode Ring::Create(std::size_t eventBytes, const Identity& identity, int& error) {
    const std::size_t kept = std::bit_ceil(std::clamp(eventBytes, LEAST_EVENT_BYTES, MOST_EVENT_BYTES));
    const std::size_t bytes = EVENTS_AT + kept;
    UniqueFd fd(memfd_create("tern-flight", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    void* memory = MAP_FAILED;
    if (fd && ftruncate(fd.Get(), static_cast<off_t>(bytes)) == 0 &&
        fcntl(fd.Get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
        memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd.Get(), 0);
    }
    if (memory == MAP_FAILED || madvise(memory, bytes, MADV_DONTFORK) != 0) {
        error = errno;
        if (memory != MAP_FAILED) {
            static_cast<void>(munmap(memory, bytes));
        }
        return mw::tern::MakeStatusCodeFromErrno(error);
    }
    // All zero as it comes: every entry is free or empty.
    auto* const base = static_cast<std::byte*>(memory);
    mNames = reinterpret_cast<Name*>(base + NAMES_AT);
    mThreads = reinterpret_cast<Thread*>(base + THREADS_AT);
    mMessages = reinterpret_cast<Message*>(base + MESSAGES_AT);
    mEvents = reinterpret_cast<Event*>(base + EVENTS_AT);
    for (std::atomic<std::uint16_t>& place : mPlaces) {
        place.store(NO_NAME, std::memory_order_relaxed);
    }
    mNamesTaken.store(0, std::memory_order_relaxed);
    mMask = kept / sizeof(Event) - 1;
    mBytes = bytes;
    mIsCounter = HasConstantCounter();
    mFd = fd.Release();

    mHeader = reinterpret_cast<Header*>(base);
    Header& header = *mHeader;
    header.version = VERSION;
    header.totalBytes = bytes;
    header.names = NAMES;
    header.threads = THREADS;
    header.messages = MESSAGES;
    header.events = static_cast<std::uint32_t>(mMask + 1);
    header.pid = static_cast<std::uint32_t>(getpid());
    header.restarts = identity.restarts;
    header.tickSource = mIsCounter ? TICKS_ARE_COUNTS : TICKS_ARE_NANOSECONDS;
    header.processStartedNs = identity.processStartedNs;
    header.watchdogNs = identity.watchdogNs;
    SetText(header.bootId, identity.bootId);
    SetText(header.program, identity.program);
    SetText(header.serviceVersion, identity.serviceVersion);
    header.eventNames = static_cast<std::uint32_t>(Tell::EVENTS);
    for (std::size_t i = 0; i < Tell::EVENTS; ++i) {
        SetText(header.eventNameList[i], Tell::EVENT_NAMES[i]);
    }
    Now(header.first, Ticks());
    // So long that the rate is known to a ten-thousandth, until Calibrate makes it better and better.
    constexpr std::uint64_t FIRST_MEASUREMENT_NS = 500000;
    const std::uint64_t begin = header.first.monotonicNs;
    while (mIsCounter && NanosecondsOf(CLOCK_MONOTONIC) - begin < FIRST_MEASUREMENT_NS) {
    }
    Now(header.last, Ticks());
    header.magic = MAGIC;
    return StatusCode::Ok;
}

void Ring::Forget() noexcept {
    if (mFd >= 0) {
        static_cast<void>(close(mFd));
    }
    mHeader = nullptr;
    mFd = -1;
}

std::uint64_t Ring::ToNanoseconds(std::uint64_t ticks) const noexcept {
    const std::uint64_t counted = mHeader->last.ticks - mHeader->first.ticks;
    const std::uint64_t elapsed = mHeader->last.monotonicNs - mHeader->first.monotonicNs;
    if (!mIsCounter || counted == 0) {
        return ticks;
    }
    return static_cast<std::uint64_t>(static_cast<double>(ticks) *
                                      (static_cast<double>(elapsed) / static_cast<double>(counted)));
}

std::uint16_t Ring::Intern(std::string_view text) noexcept {
    text = text.substr(0, FittingLength(text, Name::LONGEST));
    const std::uint32_t hash = HashOf(text);
    std::uint16_t added = NO_NAME;
    for (std::size_t place = hash % PLACES;; place = (place + 1) % PLACES) {
        std::uint16_t number = mPlaces[place].load(std::memory_order_acquire);
        if (number == NO_NAME) {
            added = added == NO_NAME ? AddName(text, hash) : added;
            if (added == OTHERS) {
                mHeader->namesLost.fetch_add(1, std::memory_order_relaxed);
                return OTHERS;
            }
            if (mPlaces[place].compare_exchange_strong(number, added, std::memory_order_acq_rel,
                                                       std::memory_order_acquire)) {
                return added;
            }
            // Another thread has just put a name here. Where it is the same one, it stands in the table
            // twice, which does no harm.
        }
        const Name& name = mNames[number - 1];
        if (name.hash == hash && text == name.text.data()) {
            return number;
        }
    }
}

/// OTHERS when the table is full.
std::uint16_t Ring::AddName(std::string_view text, std::uint32_t hash) noexcept {
    std::uint32_t taken = mNamesTaken.load(std::memory_order_relaxed);
    do {
        if (taken == NAMES) {
            return OTHERS;
        }
    } while (!mNamesTaken.compare_exchange_weak(taken, taken + 1, std::memory_order_relaxed));
    Name& name = mNames[taken];
    name.hash = hash;
    SetText(name.text, text);
    name.state.store(READY, std::memory_order_release);
    return static_cast<std::uint16_t>(taken + 1);
}

std::uint16_t Ring::ClaimThread(std::uint32_t id, std::string_view name) noexcept {
    for (std::uint16_t number = 0; number < THREADS; ++number) {
        Thread& thread = mThreads[number];
        std::uint32_t state = FREE;
        if (thread.state.load(std::memory_order_relaxed) != FREE ||
            !thread.state.compare_exchange_strong(state, CLAIMED, std::memory_order_acquire)) {
            continue;
        }
        std::array<std::uint64_t, 2> words{};
        std::memcpy(words.data(), name.data(), std::min(name.size(), sizeof words - 1));
        thread.name[0].store(words[0], std::memory_order_relaxed);
        thread.name[1].store(words[1], std::memory_order_relaxed);
        thread.id.store(id, std::memory_order_relaxed);
        thread.depth.store(0, std::memory_order_relaxed);
        thread.watchName.store(NO_NAME, std::memory_order_relaxed);
        thread.state.store(READY, std::memory_order_release);
        return number;
    }
    mHeader->threadsLost.fetch_add(1, std::memory_order_relaxed);
    return NO_THREAD;
}

void Ring::ReleaseThread(std::uint16_t number) noexcept {
    // Whoever takes the entry next is another thread.
    std::uint32_t busThread = number + 1U;
    mHeader->busThread.compare_exchange_strong(busThread, 0, std::memory_order_relaxed);
    mThreads[number].state.store(FREE, std::memory_order_release);
}

void Ring::SetBusThread(std::uint16_t number) noexcept {
    mHeader->busThread.store(number == NO_THREAD ? 0U : number + 1U, std::memory_order_relaxed);
}

void Ring::WriteMessage(unsigned level, std::string_view text, bool isException,
                        std::uint32_t threadId) noexcept {
    const std::size_t length = FittingLength(text, Message::LONGEST);
    const std::uint64_t index = mHeader->messageHead.fetch_add(1, std::memory_order_relaxed);
    Message& entry = mMessages[index % MESSAGES];
    entry.sequence.store(0, std::memory_order_relaxed);
    std::array<std::uint64_t, Message::LONGEST / 8> words{};
    std::memcpy(words.data(), text.data(), length);
    for (std::size_t i = 0; i < words.size(); ++i) {
        entry.text[i].store(words[i], std::memory_order_release);
    }
    entry.realtimeNs.store(NanosecondsOf(CLOCK_REALTIME), std::memory_order_release);
    entry.what.store(std::uint64_t{level} | std::uint64_t{length} << 8U |
                         std::uint64_t{length < text.size()} << 24U | std::uint64_t{isException} << 25U,
                     std::memory_order_release);
    entry.thread.store(threadId, std::memory_order_release);
    entry.sequence.store(index + 1, std::memory_order_release);
}

void Ring::Calibrate() noexcept {
    Now(mHeader->last, Ticks());
}

void Ring::MarkEnd(Format::End end) noexcept {
    Calibrate();
    mHeader->endedNs.store(NanosecondsOf(CLOCK_MONOTONIC), std::memory_order_relaxed);
    mHeader->end.store(static_cast<std::uint32_t>(end), std::memory_order_release);
}

}  // namespace mwl::Diagnostics
