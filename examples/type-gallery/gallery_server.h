#pragma once

#include <tern/service/ipc_server.h>
#include <tern/threading/thread_pool.h>
#include <tern/typed/bus.h>

#include "items.h"

namespace type_gallery {

/// Puts the gallery on the bus when the D-Bus thread is ready for it.
class GalleryServer : public mwl::DBusService::IpcServer {
public:
    /// The pool outlives the server.
    explicit GalleryServer(mwl::Threading::ThreadPool::ThreadPool& pool) : mPool(pool), mItems(mBus) {}

    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override;

private:
    mwl::Threading::ThreadPool::ThreadPool& mPool;
    Typed::Bus mBus;
    Items mItems;
    Typed::Exported mGallery;
};

}  // namespace type_gallery
