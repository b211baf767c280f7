#include "gallery_server.h"

#include <memory>

#include "gallery.h"

using mw::tern::StatusCode;

namespace type_gallery {

StatusCode GalleryServer::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    StatusCode status = mBus.Open(manager, loop);
    if (status == StatusCode::Ok) {
        status = mBus.AddObjectManager(Items::ROOT);
    }
    if (status == StatusCode::Ok) {
        mGallery = mBus.Export("/com/example/TypeGallery", std::make_unique<Gallery>(mItems, mPool));
        status = mGallery.GetStatus();
    }
    return status;
}

void GalleryServer::Stop() {
    // The end of the loop has closed the bus already; after a failed start it is still open.
    mBus.Close();
    mItems.Clear();
    mGallery.Reset();
}

}  // namespace type_gallery
