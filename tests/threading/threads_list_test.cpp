#include <tern/threading/threads_list.h>

#include <string>
#include <type_traits>

#include "support/log_capture.h"
#include "threading/supervision_doubles.h"

namespace mwl::Threading {
namespace {

using tern::test::Error;
using tern::test::LogCapture;
using tern::test::Trace;
using ::testing::ElementsAre;
using ::testing::InSequence;
using ::testing::IsEmpty;
using ::testing::NiceMock;
using ::testing::StrictMock;

const std::string LOGGER = "Threading::ThreadsList";

class ThreadsListTest : public ::testing::Test {
protected:
    NiceMock<MockMonitor> mMonitor;
    StrictMock<MockWorker> mFirst{mMonitor, 11};
    StrictMock<MockWorker> mSecond{mMonitor, 22};
    StrictMock<MockWorker> mThird{mMonitor, 33};
    ThreadsList mList;
    LogCapture mLog;
};

TEST_F(ThreadsListTest, IsEmptyAtFirstAndStopsNobody) {
    EXPECT_EQ(mList.Size(), 0U);
    mList.StopAll();
    EXPECT_THAT(mLog.Entries(), IsEmpty());
    EXPECT_TRUE(std::has_virtual_destructor_v<ThreadsList>);
}

TEST_F(ThreadsListTest, StopsInTheOrderOfRegistration) {
    mList.Add(mThird);
    mList.Add(mFirst);
    mList.Add(mSecond);
    InSequence order;
    EXPECT_CALL(mThird, Stop());
    EXPECT_CALL(mFirst, Stop());
    EXPECT_CALL(mSecond, Stop());
    const ThreadsList& list = mList;
    list.StopAll();
    EXPECT_EQ(list.Size(), 3U);
}

TEST_F(ThreadsListTest, RemoveKeepsTheOrderOfTheRest) {
    mList.Add(mFirst);
    mList.Add(mSecond);
    mList.Add(mThird);
    mList.Remove(mSecond);
    EXPECT_THAT(mLog.Entries(), ElementsAre(Trace(LOGGER, "Thread [22] removed from list")));
    InSequence order;
    EXPECT_CALL(mFirst, Stop());
    EXPECT_CALL(mThird, Stop());
    mList.StopAll();
}

TEST_F(ThreadsListTest, RemovingAStrangerIsAnErrorAndChangesNothing) {
    mList.Add(mFirst);
    StrictMock<MockWorker> sameId(mMonitor, 11);  // identity counts, not the id
    mList.Remove(sameId);
    EXPECT_THAT(mLog.Entries(), ElementsAre(Error(LOGGER, "Failed to remove thread [11] from list")));
    EXPECT_EQ(mList.Size(), 1U);
}

TEST_F(ThreadsListTest, DuplicateIsRemovedOnceACallFirstOccurrenceFirst) {
    mList.Add(mFirst);
    mList.Add(mSecond);
    mList.Add(mFirst);
    mList.Remove(mFirst);
    {
        InSequence order;
        EXPECT_CALL(mSecond, Stop());
        EXPECT_CALL(mFirst, Stop());
        mList.StopAll();
    }
    mList.Remove(mFirst);
    mList.Remove(mFirst);
    EXPECT_EQ(mList.Size(), 1U);
    EXPECT_THAT(mLog.Entries(), ElementsAre(Trace(LOGGER, "Thread [11] removed from list"),
                                            Trace(LOGGER, "Thread [11] removed from list"),
                                            Error(LOGGER, "Failed to remove thread [11] from list")));
}

}  // namespace
}  // namespace mwl::Threading
