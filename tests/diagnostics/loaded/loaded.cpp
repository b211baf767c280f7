// Loaded by recorder_test.cpp: its initialisation calls back, with the dynamic loader's lock held.

extern "C" void OnLoaded();

namespace {

__attribute__((constructor)) void CallBack() {
    OnLoaded();
}

}  // namespace
