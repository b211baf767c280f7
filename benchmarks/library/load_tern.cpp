// A program that links this library and uses it as little as the linker lets it, see library_comparison.cpp.

#include <tern/service/service_main_loop.h>

int main() {
    return mw::tern::ServiceMainLoop::BlockSignalsForRunningThread() == mw::tern::StatusCode::Ok ? 0 : 1;
}
