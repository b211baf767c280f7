#include <gmock/gmock.h>
#include <tern/threading/common.h>
#include <tern/threading/lock.h>
#include <tern/threading/mutex.h>

#include <cerrno>
#include <climits>
#include <type_traits>

#include "support/interpose.h"
#include "support/log_capture.h"

TERN_INTERPOSE(int, pthread_mutex_destroy, (pthread_mutex_t * mutex), (mutex))
TERN_INTERPOSE(int, pthread_mutexattr_init, (pthread_mutexattr_t * attributes), (attributes))
TERN_INTERPOSE(int, pthread_mutexattr_setprotocol, (pthread_mutexattr_t * attributes, int protocol),
               (attributes, protocol))

namespace mwl::Threading {
namespace {

using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::Warning;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(Common, LoggerNameIsThreading) {
    EXPECT_EQ(Common::mLogger, "Threading");
}

TEST(Mutex, IsNeitherCopiedNorPolymorphic) {
    EXPECT_FALSE(std::is_copy_constructible_v<Mutex>);
    EXPECT_FALSE(std::is_copy_assignable_v<Mutex>);
    EXPECT_FALSE(std::is_polymorphic_v<Mutex>);
    EXPECT_EQ(sizeof(Mutex), sizeof(pthread_mutex_t));
}

TEST(Mutex, IsRecursiveWithPriorityInheritanceToo) {
    LogCapture log;
    for (const Mutex::Protocol protocol : {Mutex::Protocol::None, Mutex::Protocol::PriorityInheritance}) {
        Mutex mutex(protocol);
        const Lock outer(mutex);
        const Lock inner(mutex);
    }
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(Mutex, WithoutPriorityInheritanceInTheSystemItIsAMutexWithout) {
    LogCapture log;
    FaultScope init(fault_pthread_mutexattr_init);
    FaultScope setProtocol(fault_pthread_mutexattr_setprotocol);
    const auto use = [] {
        Mutex mutex(Mutex::Protocol::PriorityInheritance);
        const Lock outer(mutex);
        const Lock inner(mutex);
    };
    fault_pthread_mutexattr_init.Fail(ENOMEM);
    use();
    EXPECT_EQ(fault_pthread_mutexattr_init.Calls(), 1);
    fault_pthread_mutexattr_setprotocol.Fail(ENOTSUP);
    use();
    EXPECT_EQ(fault_pthread_mutexattr_setprotocol.Calls(), 1);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(Mutex, GetStatusCodeMapsMutexErrors) {
    EXPECT_EQ(Mutex::GetStatusCode(0), StatusCode::Ok);
    EXPECT_EQ(Mutex::GetStatusCode(EPERM), StatusCode::NotPermitted);
    EXPECT_EQ(Mutex::GetStatusCode(EBUSY), StatusCode::Busy);
    EXPECT_EQ(Mutex::GetStatusCode(EINVAL), StatusCode::InvalidArgument);
    EXPECT_EQ(Mutex::GetStatusCode(35), StatusCode::Deadlock);
}

TEST(Mutex, GetStatusCodeOfEveryOtherNumberIsFailure) {
    for (int error = -200; error <= 200; ++error) {
        if (error != 0 && error != EPERM && error != EBUSY && error != EINVAL && error != EDEADLK) {
            EXPECT_EQ(Mutex::GetStatusCode(error), StatusCode::Failure) << error;
        }
    }
    EXPECT_EQ(Mutex::GetStatusCode(110), StatusCode::Failure);
    EXPECT_EQ(Mutex::GetStatusCode(INT_MIN), StatusCode::Failure);
    EXPECT_EQ(Mutex::GetStatusCode(INT_MAX), StatusCode::Failure);
}

TEST(Mutex, DestroysThePosixMutexSilently) {
    LogCapture log;
    FaultScope scope(fault_pthread_mutex_destroy);
    fault_pthread_mutex_destroy.Fail(EBUSY, 0, 0);  // counts only
    {
        Mutex mutex;
        const Lock lock(mutex);
    }
    EXPECT_EQ(fault_pthread_mutex_destroy.Calls(), 1);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST(Mutex, FailingDestroyIsLogged) {
    LogCapture log;
    FaultScope scope(fault_pthread_mutex_destroy);
    for (const int error : {EBUSY, EINVAL, ENOMEM}) {
        fault_pthread_mutex_destroy.Fail(error);
        const Mutex mutex;
    }
    EXPECT_THAT(log.Entries(),
                ElementsAre(Warning("Threading", "~Mutex: pthread_mutex_destroy FAILED (Busy)"),
                            Warning("Threading", "~Mutex: pthread_mutex_destroy FAILED (InvalidArgument)"),
                            Warning("Threading", "~Mutex: pthread_mutex_destroy FAILED (Failure)")));
}

}  // namespace
}  // namespace mwl::Threading
