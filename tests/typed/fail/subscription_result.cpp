// fails with: the handler of a signal returns nothing: nobody waits for it
#include <tern/typed/subscription.h>

#include "two_contracts.h"

Subscription Listen(const std::shared_ptr<Remote>& room) {
#ifdef MENDED
    return SubscribeTo(room, Room1::NAME, Room1::Hot, [](double) {});
#else
    return SubscribeTo(room, Room1::NAME, Room1::Hot, [](double) { return 1; });
#endif
}
