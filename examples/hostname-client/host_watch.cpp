#include "host_watch.h"

#include <cstdio>
#include <utility>

using mw::tern::StatusCode;
using mwl::Typed::Outcome;
using mwl::Typed::PropertyChanges;

namespace hostname_client {

StatusCode HostWatch::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    if (const StatusCode status = mBus.Open(manager, loop); status != StatusCode::Ok) {
        return status;
    }
    mHost.emplace(mBus, "org.freedesktop.hostname1", "/org/freedesktop/hostname1");
    // Listens, and keeps what it hears. It does not start hostnamed, which ends when it has nothing to do ...
    mProperties.emplace(*mHost);
    mProperties->OnChange([this](const PropertyChanges<Hostname1>& changes) {
        const auto& name = mProperties->Get<Hostname1::Hostname>();
        if (changes.Has<Hostname1::Hostname>() && name.has_value()) {
            Show(*name);
        }
    });
    // ... but a call does.
    mAsked = mHost->GetHostname().Then([this](Outcome<std::string> name) {
        if (name.IsOk()) {
            Show(*name);
        } else if (name.GetError().GetStatus() != StatusCode::Stopping) {
            std::fprintf(stderr, "hostname-client: hostnamed does not answer: %s\n",
                         name.GetError().GetText().c_str());
        }
    });
    return StatusCode::Ok;
}

void HostWatch::Stop() {
    mProperties.reset();
    mBus.Close();
}

void HostWatch::Show(const std::string& name) {
    if (name != mShown) {
        mShown = name;
        std::printf("%s\n", name.c_str());
        std::fflush(stdout);
    }
}

}  // namespace hostname_client
