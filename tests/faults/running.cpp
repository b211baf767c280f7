#include "running.h"

#include <signal.h>
#include <unistd.h>

namespace tern::test {

void SendStop() {
    kill(getpid(), SIGTERM);
}

void DropStop() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    const timespec now{};
    while (sigtimedwait(&stop, nullptr, &now) > 0) {
    }
}

}  // namespace tern::test
