#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/tell.h"

namespace tern::test {

/// What the library tells while this lives. One at a time.
class Told {
public:
    struct Entry {
        mwl::Tell::Event event;
        const void* object;
        std::uint64_t value;
        std::string name;
    };

    Told() {
        Store().clear();
        mwl::Tell::SetListener(&LISTENER);
    }
    ~Told() { mwl::Tell::SetListener(nullptr); }
    Told(const Told&) = delete;
    Told& operator=(const Told&) = delete;

    static std::vector<Entry> All() {
        const std::lock_guard lock(Mutex());
        return Store();
    }
    static std::vector<Entry> Of(mwl::Tell::Event event) {
        std::vector<Entry> found;
        for (const Entry& entry : All()) {
            if (entry.event == event) {
                found.push_back(entry);
            }
        }
        return found;
    }
    static std::size_t Count(mwl::Tell::Event event) { return Of(event).size(); }
    static std::vector<std::string> NamesOf(mwl::Tell::Event event) {
        std::vector<std::string> names;
        for (const Entry& entry : Of(event)) {
            names.push_back(entry.name);
        }
        return names;
    }

private:
    static std::mutex& Mutex() {
        static std::mutex& mutex = *new std::mutex;
        return mutex;
    }
    static std::vector<Entry>& Store() {
        static std::vector<Entry>& store = *new std::vector<Entry>;
        return store;
    }
    static void OnEvent(mwl::Tell::Event event, const void* object, std::uint64_t value,
                        const char* name) noexcept {
        const std::lock_guard lock(Mutex());
        Store().push_back({event, object, value, name == nullptr ? "" : name});
    }

    static constexpr mwl::Tell::Listener LISTENER{mwl::Tell::Listener::VERSION, &OnEvent};
};

}  // namespace tern::test
