// The engine: threads, their begin and end.

#include <cerrno>

#include "engine.h"
#include "engine_parts.h"
#include "real.h"

namespace tern::schedules {

int Engine::StartThread(Thread& thread, pthread_t* handle, const pthread_attr_t* attributes) {
    return Real::Get().create(handle, attributes, &Engine::Begin, &thread);
}

int Engine::Create(pthread_t* handle, const pthread_attr_t* attributes, void* (*body)(void*), void* argument,
                   const void* caller) {
    Thread& thread = Add();
    thread.mask = Me().mask;
    thread.body = body;
    thread.argument = argument;
    int state = PTHREAD_CREATE_JOINABLE;
    if (attributes != nullptr) {
        static_cast<void>(pthread_attr_getdetachstate(attributes, &state));
    }
    thread.isDetached = state == PTHREAD_CREATE_DETACHED;
    pthread_t made{};
    if (const int error = StartThread(thread, &made, attributes); error != 0) {
        thread.hasEnded = true;
        thread.isJoined = true;
        return error;
    }
    thread.handle = made;
    *handle = made;
    Point(Action::Create, AsObject(static_cast<long>(thread.number)), caller);
    return 0;
}

int Engine::Join(pthread_t handle, void** result, const void* caller) {
    Thread& me = Me();
    Thread* const other = Find(handle);
    if (other == nullptr || other->isDetached) {
        Fail(Record::Fault::Misuse, "a thread is joined that has been joined or detached");
    }
    if (other == &me) {
        return EDEADLK;
    }
    Note(Step::Kind::Reaches, Action::Join, me, AsObject(static_cast<long>(other->number)), caller);
    me.wait = Thread::Wait::Join;
    me.other = other;
    Block();
    RunHandlers();
    if (other->isJoined || other->isDetached) {
        Fail(Record::Fault::Misuse, "a thread is joined that has been joined or detached meanwhile");
    }
    other->isJoined = true;
    return Real::Get().join(handle, result);
}

int Engine::Detach(pthread_t handle, const void* caller) {
    Point(Action::Detach, nullptr, caller);
    Thread* const other = Find(handle);
    if (other == nullptr || other->isDetached) {
        Fail(Record::Fault::Misuse, "a thread is detached that has been joined or detached");
    }
    other->isDetached = true;
    return Real::Get().detach(handle);
}

}  // namespace tern::schedules
