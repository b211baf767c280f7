// fails with: a handler takes its arguments by value or by const reference
#include <tern/typed/subscription.h>

#include "two_contracts.h"

Subscription Listen(const std::shared_ptr<Remote>& room) {
#ifdef MENDED
    return SubscribeTo(room, Room1::NAME, Room1::Hot, [](const double&) {});
#else
    return SubscribeTo(room, Room1::NAME, Room1::Hot, [](double&) {});
#endif
}
