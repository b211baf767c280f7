// fails with: the arguments of the handler are not the values of the signal
#include <tern/typed/subscription.h>

#include "two_contracts.h"

Subscription Listen(const std::shared_ptr<Remote>& room) {
#ifdef MENDED
    return SubscribeTo(room, Room1::NAME, Room1::Hot, [](double) {});
#else
    return SubscribeTo(room, Room1::NAME, Room1::Hot, [](int) {});
#endif
}
