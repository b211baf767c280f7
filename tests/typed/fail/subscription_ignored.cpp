// fails with: nodiscard
#include <tern/typed/subscription.h>

#include "two_contracts.h"

void Listen(const std::shared_ptr<Remote>& room) {
#ifdef MENDED
    const Subscription kept = SubscribeTo(room, Room1::NAME, Room1::Hot, [](double) {});
#else
    SubscribeTo(room, Room1::NAME, Room1::Hot, [](double) {});
#endif
}
