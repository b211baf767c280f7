#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/dbus_client/command.h>
#include <tern/dbus_client/icommand.h>
#include <tern/dbus_client/interface_properties_get_all.h>
#include <tern/dbus_client/reboot_system.h>
#include <tern/dbus_message/aoasv_signature_parser.h>
#include <tern/dbus_message/asasv_signature_parser.h>
#include <tern/foundation/component_runtime_interface.h>
#include <tern/foundation/composite_runtime.h>
#include <tern/foundation/lifecycle_interface.h>
#include <tern/queued_processings/component.h>
#include <tern/queued_processings/component_interface.h>
#include <tern/queued_processings/executor_interface.h>
#include <tern/queued_processings/thread_manager.h>
#include <tern/service/component.h>
#include <tern/service/component_interface.h>
#include <tern/service/dbus_interface.h>
#include <tern/service/ipc_server.h>
#include <tern/synchronizer/observer.h>
#include <tern/synchronizer/observer_interface.h>
#include <tern/synchronizer/subject.h>
#include <tern/synchronizer/subject_interface.h>
#include <tern/threading/condition_variable.h>
#include <tern/threading/signals.h>
#include <tern/threading/signals_interface.h>
#include <tern/threading/thread_manager.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_monitor_interface.h>
#include <tern/threading/threads_watcher.h>
#include <tern/threading/threads_watcher_interface.h>
#include <tern/timer/short_period_timer.h>
#include <tern/timer/timer.h>
#include <tern/timer/timer_interface.h>
#include <tern/utilities/file_system.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

// Extensions in the field call these operations by their place in the virtual table, and are not rebuilt when
// the library is: no operation may change its place. A new one goes last.

namespace {

using mw::tern::ComponentRuntimeInterface;
using mwl::LifecycleInterface;
using mwl::StatusCode;
using mwl::tern::Synchronizer::NotificationIdentifier;
using mwl::tern::Synchronizer::NotificationInterface;
using mwl::tern::Synchronizer::Observer;
using mwl::tern::Synchronizer::ObserverInterface;
using mwl::tern::Synchronizer::Subject;
using mwl::tern::Synchronizer::SubjectInterface;
using testing::ElementsAre;

constexpr int NOT_VIRTUAL = -1;

/// The place in the primary virtual table, from 0, as the Itanium C++ ABI writes it into a pointer to member.
template <typename Function>
int SlotOf(Function function) {
    struct {
        std::uintptr_t pointer;
        std::intptr_t adjustment;
    } words{};
    static_assert(sizeof words == sizeof function);
    std::memcpy(&words, &function, sizeof words);
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = (words.adjustment & 1) != 0;
    const std::uintptr_t offset = words.pointer;
    const std::intptr_t adjustment = words.adjustment >> 1;
#else
    const bool isVirtual = (words.pointer & 1) != 0;
    const std::uintptr_t offset = words.pointer - 1;
    const std::intptr_t adjustment = words.adjustment;
#endif
    return isVirtual && adjustment == 0 ? static_cast<int>(offset / sizeof(void*)) : NOT_VIRTUAL;
}

struct Row {
    const char* name;
    int slot;
    int expected;
};

#define TERN_SLOT(function, expected)          \
    Row {                                      \
#function, SlotOf(&function), expected \
    }
/// Of the overload with this type.
#define TERN_SLOT_AS(type, function, expected)                               \
    Row {                                                                    \
#function " " #type, SlotOf(static_cast <type>(&function)), expected \
    }

/// Gives access to the names of the protected operations.
struct LifecycleNames : LifecycleInterface {
    using LifecycleInterface::OnConfigure;
    using LifecycleInterface::OnInitialize;
    using LifecycleInterface::OnStart;
    using LifecycleInterface::OnStop;
};

/// Calls what stands in the slot of the object's virtual table.
template <typename Result, typename... Arguments>
Result CallSlot(void* object, std::size_t slot, Arguments... arguments) {
    using Function = Result (*)(void*, Arguments...);
    Function* table = nullptr;
    std::memcpy(&table, object, sizeof table);
    return table[slot](object, arguments...);
}

/// Destroys the object, which was made by new, as a delete expression of the field does.
template <typename Interface>
void DeleteBySlot(Interface* object) {
    CallSlot<void>(object, 1);
}

std::vector<std::string> gCalls;

StatusCode Note(const char* call) {
    gCalls.emplace_back(call);
    return StatusCode::Ok;
}

class VirtualTable : public testing::Test {
protected:
    VirtualTable() { gCalls.clear(); }
};

}  // namespace

TEST(VirtualSlots, AreWhereTheyWere) {
    namespace Client = mw::tern::DBusCommand;
    namespace Message = mw::tern::DBusMessage;
    namespace Processings = mwl::QueuedProcessings;
    namespace Threads = mwl::Threading;
    using mwl::Utilities::FileSystem;
    using AttachTo = void (SubjectInterface::*)(ObserverInterface&, NotificationInterface&);
    using DetachOne = void (SubjectInterface::*)(const ObserverInterface&, NotificationInterface&);
    using DetachAll = void (SubjectInterface::*)(const ObserverInterface&);
    using DetachOneHere = void (Subject::*)(const ObserverInterface&, NotificationInterface&);
    using DetachAllHere = void (Subject::*)(const ObserverInterface&);
    using TimerStart = StatusCode (mwl::Timer::Timer::*)();
    using TimedWait = StatusCode (Threads::ConditionVariable::*)(Threads::Lock&, int);
    // 0 and 1 are the two forms of the destructor.
    const Row rows[] = {
        TERN_SLOT(LifecycleNames::OnConfigure, 2),
        TERN_SLOT(LifecycleNames::OnInitialize, 3),
        TERN_SLOT(LifecycleNames::OnStart, 4),
        TERN_SLOT(LifecycleNames::OnStop, 5),

        TERN_SLOT(ComponentRuntimeInterface::Initialize, 2),
        TERN_SLOT(ComponentRuntimeInterface::Destroy, 3),
        TERN_SLOT(ComponentRuntimeInterface::Start, 4),
        TERN_SLOT(ComponentRuntimeInterface::Stop, 5),
        TERN_SLOT(mw::tern::CompositeRuntime::Initialize, 2),
        TERN_SLOT(mw::tern::CompositeRuntime::Destroy, 3),
        TERN_SLOT(mw::tern::CompositeRuntime::Start, 4),
        TERN_SLOT(mw::tern::CompositeRuntime::Stop, 5),

        TERN_SLOT(mw::tern::DBusInterface::GetVtable, 2),
        TERN_SLOT(mw::tern::DBusInterface::GetUserData, 3),
        TERN_SLOT(mwl::DBusService::ComponentInterface::Initialize, 2),
        TERN_SLOT(mwl::DBusService::ComponentInterface::Start, 3),
        TERN_SLOT(mwl::DBusService::ComponentInterface::JoinThread, 4),
        TERN_SLOT(mwl::DBusService::Component::Initialize, 2),
        TERN_SLOT(mwl::DBusService::Component::Start, 3),
        TERN_SLOT(mwl::DBusService::Component::JoinThread, 4),
        TERN_SLOT(mwl::DBusService::IpcServer::Stop, 2),
        TERN_SLOT(mwl::DBusService::IpcServer::Start, 3),

        TERN_SLOT(mwl::Timer::TimerInterface::Start, 2),
        TERN_SLOT(mwl::Timer::TimerInterface::Stop, 3),
        TERN_SLOT_AS(TimerStart, mwl::Timer::Timer::Start, 2),
        TERN_SLOT(mwl::Timer::Timer::Stop, 3),
        TERN_SLOT(mwl::Timer::ShortPeriodTimer::Start, 2),
        TERN_SLOT(mwl::Timer::ShortPeriodTimer::Stop, 3),

        TERN_SLOT(Message::AOASVsignatureParser::OnEntry, 2),
        TERN_SLOT(Message::ASASVsignatureParser::OnEntry, 2),

        TERN_SLOT(Client::ICommand::Execute, 2),
        TERN_SLOT(Client::ICommand::CallMethod, 3),
        TERN_SLOT(Client::Command::Execute, 2),
        TERN_SLOT(Client::Command::CallMethod, 3),
        TERN_SLOT(Client::InterfacePropertiesGetAll::CallMethod, 3),
        TERN_SLOT(Client::RebootSystem::CallMethod, 3),

        TERN_SLOT_AS(AttachTo, SubjectInterface::Attach, 2),
        TERN_SLOT_AS(DetachOne, SubjectInterface::Detach, 3),
        TERN_SLOT_AS(DetachAll, SubjectInterface::Detach, 4),
        TERN_SLOT(SubjectInterface::Notify, 5),
        TERN_SLOT(Subject::Attach, 2),
        TERN_SLOT_AS(DetachOneHere, Subject::Detach, 3),
        TERN_SLOT_AS(DetachAllHere, Subject::Detach, 4),
        TERN_SLOT(Subject::Notify, 5),
        TERN_SLOT(ObserverInterface::OnNotify, 2),
        TERN_SLOT(Observer::OnNotify, 2),
        TERN_SLOT(Observer::Init, 3),

        TERN_SLOT(Threads::ConditionVariable::NotifyOne, 2),
        TERN_SLOT(Threads::ConditionVariable::NotifyAll, 3),
        TERN_SLOT(Threads::ConditionVariable::Wait, 4),
        TERN_SLOT_AS(TimedWait, Threads::ConditionVariable::WaitFor, 5),
        TERN_SLOT(Threads::SignalsInterface::SendSignal, 2),
        TERN_SLOT(Threads::Signals::SendSignal, 2),
        TERN_SLOT(Threads::ThreadManager::Stop, 2),
        TERN_SLOT(Threads::ThreadsMonitorInterface::AddWorkerThread, 2),
        TERN_SLOT(Threads::ThreadsMonitorInterface::RemoveWorkerThread, 3),
        TERN_SLOT(Threads::ThreadsMonitorInterface::SetDBusThreadId, 4),
        TERN_SLOT(Threads::ThreadsMonitorInterface::StopWorkerThreads, 5),
        TERN_SLOT(Threads::ThreadsMonitorInterface::NotifyDBusThreadToStop, 6),
        TERN_SLOT(Threads::ThreadsMonitorInterface::NotifyDBusThreadToStopOnFailure, 7),
        TERN_SLOT(Threads::ThreadsMonitorInterface::HasFailure, 8),
        TERN_SLOT(Threads::ThreadsMonitor::AddWorkerThread, 2),
        TERN_SLOT(Threads::ThreadsMonitor::RemoveWorkerThread, 3),
        TERN_SLOT(Threads::ThreadsMonitor::SetDBusThreadId, 4),
        TERN_SLOT(Threads::ThreadsMonitor::StopWorkerThreads, 5),
        TERN_SLOT(Threads::ThreadsMonitor::NotifyDBusThreadToStop, 6),
        TERN_SLOT(Threads::ThreadsMonitor::NotifyDBusThreadToStopOnFailure, 7),
        TERN_SLOT(Threads::ThreadsMonitor::HasFailure, 8),
        TERN_SLOT(Threads::ThreadsWatcherInterface::Register, 2),
        TERN_SLOT(Threads::ThreadsWatcherInterface::Unregister, 3),
        TERN_SLOT(Threads::ThreadsWatcherInterface::TaskWatch, 4),
        TERN_SLOT(Threads::ThreadsWatcherInterface::Stop, 5),
        // Its table begins as ThreadManager's.
        TERN_SLOT(Threads::ThreadsWatcher::Stop, 2),
        TERN_SLOT(Threads::ThreadsWatcher::Register, 3),
        TERN_SLOT(Threads::ThreadsWatcher::Unregister, 4),
        TERN_SLOT(Threads::ThreadsWatcher::TaskWatch, 5),
        TERN_SLOT(Threads::ThreadsWatcher::Start, 6),

        TERN_SLOT(Processings::ExecutorInterface::Initialize, 2),
        TERN_SLOT(Processings::ExecutorInterface::Execute, 3),
        TERN_SLOT(Processings::ExecutorInterface::Stop, 4),
        TERN_SLOT(Processings::ComponentInterface::Start, 2),
        TERN_SLOT(Processings::ComponentInterface::Stop, 3),
        TERN_SLOT(Processings::ComponentInterface::Join, 4),
        TERN_SLOT(Processings::ComponentInterface::WakeUp, 5),
        TERN_SLOT(Processings::Component::Start, 2),
        TERN_SLOT(Processings::Component::Stop, 3),
        TERN_SLOT(Processings::Component::Join, 4),
        TERN_SLOT(Processings::Component::WakeUp, 5),
        TERN_SLOT(Processings::ThreadManager::Stop, 2),

        TERN_SLOT(FileSystem::ListFilesWithFileNameExtension, 2),
        TERN_SLOT(FileSystem::ListFiles, 3),
        TERN_SLOT(FileSystem::ListDirectories, 4),
        TERN_SLOT(FileSystem::FileExists, 5),
        TERN_SLOT(FileSystem::RemoveFile, 6),
        TERN_SLOT(FileSystem::IsFolderEmpty, 7),
        TERN_SLOT(FileSystem::RenameFile, 8),
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.slot, row.expected) << row.name;
    }
}

// What is not virtual must not become so: it would move what stands behind it.
TEST(VirtualSlots, OthersAreNone) {
    namespace Threads = mwl::Threading;
    using PredicateWait =
        StatusCode (Threads::ConditionVariable::*)(Threads::Lock&, int, std::function<bool()>);
    const Row rows[] = {
        TERN_SLOT(LifecycleInterface::Configure, NOT_VIRTUAL),
        TERN_SLOT(LifecycleInterface::Stop, NOT_VIRTUAL),
        TERN_SLOT(Subject::Exist, NOT_VIRTUAL),
        TERN_SLOT_AS(PredicateWait, Threads::ConditionVariable::WaitFor, NOT_VIRTUAL),
        TERN_SLOT(mw::tern::DBusMessage::AOASVsignatureParser::ParseMessage, NOT_VIRTUAL),
        TERN_SLOT(mw::tern::DBusMessage::ASASVsignatureParser::ParseMessage, NOT_VIRTUAL),
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.slot, row.expected) << row.name;
    }
}

TEST_F(VirtualTable, OfALifecycleHoldsItsWork) {
    struct Machine : LifecycleInterface {
        ~Machine() override { Note("destructor"); }
        StatusCode OnConfigure() override { return Note("configure"); }
        StatusCode OnInitialize() override { return Note("initialize"); }
        StatusCode OnStart() override { return Note("start"); }
        StatusCode OnStop() override { return Note("stop"); }
    };
    LifecycleInterface* const machine = new Machine;
    for (std::size_t slot = 2; slot < 6; ++slot) {
        EXPECT_EQ(CallSlot<StatusCode>(machine, slot), StatusCode::Ok);
    }
    DeleteBySlot(machine);
    EXPECT_THAT(gCalls, ElementsAre("configure", "initialize", "start", "stop", "destructor"));
}

TEST_F(VirtualTable, OfAComponentHoldsItsLifecycle) {
    struct Member : ComponentRuntimeInterface {
        ~Member() override { Note("destructor"); }
        StatusCode Initialize() override { return Note("initialize"); }
        StatusCode Destroy() override { return Note("destroy"); }
        StatusCode Start() override { return Note("start"); }
        StatusCode Stop() override { return Note("stop"); }
    };
    ComponentRuntimeInterface* const member = new Member;
    for (std::size_t slot = 2; slot < 6; ++slot) {
        EXPECT_EQ(CallSlot<StatusCode>(member, slot), StatusCode::Ok);
    }
    DeleteBySlot(member);
    EXPECT_THAT(gCalls, ElementsAre("initialize", "destroy", "start", "stop", "destructor"));
}

TEST_F(VirtualTable, OfASubjectHoldsItsRegistrationsAndNotify) {
    struct Recorder : ObserverInterface {
        void OnNotify(NotificationInterface*) override { Note("notified"); }
    };
    Recorder observer;
    NotificationInterface one{NotificationIdentifier{1}};
    NotificationInterface two{NotificationIdentifier{2}};
    auto* const subject = new Subject;
    SubjectInterface* const interface = subject;
    for (NotificationInterface* const notification : {&one, &two}) {
        CallSlot<void, ObserverInterface&, NotificationInterface&>(interface, 2, observer, *notification);
        EXPECT_TRUE(subject->Exist({notification->GetIdentifier(), &observer}));
    }
    CallSlot<void, NotificationInterface&>(interface, 5, one);
    EXPECT_THAT(gCalls, ElementsAre("notified"));
    CallSlot<void, const ObserverInterface&, NotificationInterface&>(interface, 3, observer, one);
    EXPECT_FALSE(subject->Exist({one.GetIdentifier(), &observer}));
    EXPECT_TRUE(subject->Exist({two.GetIdentifier(), &observer}));
    CallSlot<void, const ObserverInterface&>(interface, 4, observer);
    EXPECT_FALSE(subject->Exist({two.GetIdentifier(), &observer}));
    DeleteBySlot(interface);
}

TEST_F(VirtualTable, OfAnObserverHoldsOnNotifyAndInit) {
    struct Listener : Observer {
        using Observer::Observer;
        ~Listener() override { Note("destructor"); }
        void OnNotify(NotificationInterface*) override { Note("notified"); }
        void Init() override { Note("init"); }
    };
    Subject subject;
    NotificationInterface notification{NotificationIdentifier{1}};
    Observer* const observer = new Listener(subject);
    subject.Attach(*observer, notification);
    CallSlot<void, NotificationInterface*>(observer, 2, &notification);
    CallSlot<void>(observer, 3);
    DeleteBySlot(observer);
    EXPECT_THAT(gCalls, ElementsAre("notified", "init", "destructor"));
    subject.Notify(notification);
    EXPECT_EQ(gCalls.size(), 3U) << "the destructor of Observer has not run";
}
