#include "catalogue.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>
#include <zip.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <set>

#include "imports.h"
#include "stand_in.h"

namespace tern::test {

namespace {

using Way = Failure::Way;

#define TERN_ERRNO(error)         \
    Failure {                     \
        Way::Errno, error, #error \
    }
#define TERN_NUMBER(error)         \
    Failure {                      \
        Way::Number, error, #error \
    }
#define TERN_NEGATIVE(error)             \
    Failure {                            \
        Way::Negative, error, "-" #error \
    }
#define TERN_ZIP(error)         \
    Failure {                   \
        Way::Zip, error, #error \
    }
#define TERN_CLOSED(error)                          \
    Failure {                                       \
        Way::AfterCall, error, #error "-after-call" \
    }

const Failure NOTHING{Way::Nothing, 0, "nothing"};
const Failure PARTIAL{Way::Partial, 0, "partial"};
const Failure BAD_ALLOC{Way::BadAlloc, 0, "bad_alloc"};
const Failure NO_THREAD{Way::SystemError, EAGAIN, "system_error"};
const Failure STREAM_ERROR{Way::Nothing, EIO, "EIO"};
const Failure STREAM_FULL{Way::Nothing, ENOSPC, "ENOSPC"};

/// As the code passes them: signatures of functions with variable arguments, and of those whose own would
/// name types that cannot be passed on.
using Open = int (*)(const char*, int, mode_t);
using OpenAt = int (*)(int, const char*, int, mode_t);
using Control = int (*)(int, int, long);
/// What an optimised getline(3) calls.
using GetDelimited = ssize_t (*)(char**, std::size_t*, int, FILE*);
using DeviceControl = int (*)(int, unsigned long, void*);
using CallMethod = int (*)(sd_bus*, const char*, const char*, const char*, const char*, sd_bus_error*,
                           sd_bus_message**, const char*, const char*);
/// A call of the message bus, with one text.
using CallMethodLater = int (*)(sd_bus*, sd_bus_slot**, const char*, const char*, const char*, const char*,
                                sd_bus_message_handler_t, void*, const char*, const char*);
/// With two texts.
using SetError = int (*)(sd_bus_error*, const char*, const char*, const char*, const char*);
/// A variant of a number.
/// As many values as our libraries read at once.
using ReadMessage = int (*)(sd_bus_message*, const char*, void*, void*, void*);
using CreateParser = void* (*)(const char*);
using New = void* (*)(std::size_t);
using NewWithoutThrow = void* (*)(std::size_t, const void*);
/// std::thread's own start: this, the address of the state's owner, a function of no interest here.
using StartThread = void (*)(void*, void*, void (*)());

#if __SIZEOF_POINTER__ == 8
#define TERN_OPERATOR_NEW "_Znwm"
#define TERN_OPERATOR_NEW_ARRAY "_Znam"
#define TERN_OPERATOR_NEW_NOTHROW "_ZnwmRKSt9nothrow_t"
#else
#define TERN_OPERATOR_NEW "_Znwj"
#define TERN_OPERATOR_NEW_ARRAY "_Znaj"
#define TERN_OPERATOR_NEW_NOTHROW "_ZnwjRKSt9nothrow_t"
#endif

std::vector<Faultable> MakeCatalogue() {
    return {
        // Memory and threads of C++.
        MakeFaultable<TERN_OPERATOR_NEW>(New{}, {BAD_ALLOC}),
        MakeFaultable<TERN_OPERATOR_NEW_ARRAY>(New{}, {BAD_ALLOC}),
        MakeFaultable<TERN_OPERATOR_NEW_NOTHROW>(NewWithoutThrow{}, {TERN_ERRNO(ENOMEM)}),
        MakeFaultable<
            "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE">(
            StartThread{}, {NO_THREAD}),
        MakeFaultable<"calloc">(&::calloc, {TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"malloc">(&::malloc, {TERN_ERRNO(ENOMEM)}),

        MakeFaultable<"dlopen">(&::dlopen, {TERN_ERRNO(ENOENT), TERN_ERRNO(ENOMEM)}),

        // Descriptors.
        MakeFaultable<"close">(&::close, {TERN_CLOSED(EINTR), TERN_CLOSED(EIO)}),
        MakeFaultable<"connect">(&::connect,
                                 {TERN_ERRNO(EINTR), TERN_ERRNO(EAGAIN), TERN_ERRNO(ECONNREFUSED)}),
        MakeFaultable<"dup2">(&::dup2, {TERN_ERRNO(EMFILE), TERN_ERRNO(EBUSY), TERN_ERRNO(EINTR)}),
        MakeFaultable<"dup3">(&::dup3, {TERN_ERRNO(EBUSY), TERN_ERRNO(EINTR)}),
        MakeFaultable<"eventfd">(&::eventfd, {TERN_ERRNO(EMFILE), TERN_ERRNO(ENFILE), TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"fcntl">(Control{}, {TERN_ERRNO(EINVAL), TERN_ERRNO(EMFILE), TERN_ERRNO(EINTR)}),
        MakeFaultable<"ioctl">(DeviceControl{}, {TERN_ERRNO(EINVAL), TERN_ERRNO(ENOTTY)}),
        MakeFaultable<"memfd_create">(&::memfd_create, {TERN_ERRNO(EMFILE), TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"open">(Open{}, {TERN_ERRNO(ENOENT), TERN_ERRNO(EACCES), TERN_ERRNO(EMFILE),
                                       TERN_ERRNO(EINTR), TERN_ERRNO(ENOSPC)}),
        MakeFaultable<"openat">(OpenAt{}, {TERN_ERRNO(ENOENT), TERN_ERRNO(EACCES), TERN_ERRNO(EMFILE),
                                           TERN_ERRNO(EINTR), TERN_ERRNO(ENOSPC)}),
        MakeFaultable<"pipe2">(&::pipe2, {TERN_ERRNO(EMFILE), TERN_ERRNO(ENFILE)}),
        MakeFaultable<"poll">(&::poll, {TERN_ERRNO(EINTR), TERN_ERRNO(ENOMEM), NOTHING}),
        MakeFaultable<"pwritev64v2">(
            &::pwritev2, {TERN_ERRNO(EINTR), TERN_ERRNO(EAGAIN), TERN_ERRNO(EOPNOTSUPP), TERN_ERRNO(EPIPE)}),
        MakeFaultable<"signalfd">(&::signalfd, {TERN_ERRNO(EMFILE), TERN_ERRNO(ENFILE), TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"read">(&::read,
                              {TERN_ERRNO(EINTR), TERN_ERRNO(EIO), TERN_ERRNO(EAGAIN), NOTHING, PARTIAL}),
        MakeFaultable<"send">(&::send, {TERN_ERRNO(EINTR), TERN_ERRNO(EAGAIN), TERN_ERRNO(EPIPE),
                                        TERN_ERRNO(ENOTSOCK), PARTIAL}),
        MakeFaultable<"sendfile">(&::sendfile,
                                  {TERN_ERRNO(EIO), TERN_ERRNO(ENOMEM), TERN_ERRNO(EINTR), NOTHING, PARTIAL}),
        MakeFaultable<"sendmsg">(&::sendmsg, {TERN_ERRNO(EINTR), TERN_ERRNO(EAGAIN), TERN_ERRNO(ENOBUFS),
                                              TERN_ERRNO(ECONNREFUSED)}),
        MakeFaultable<"socket">(&::socket, {TERN_ERRNO(EMFILE), TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"write">(&::write, {TERN_ERRNO(EINTR), TERN_ERRNO(EIO), TERN_ERRNO(EAGAIN),
                                          TERN_ERRNO(EPIPE), TERN_ERRNO(ENOSPC), PARTIAL}),
        MakeFaultable<"writev">(&::writev, {TERN_ERRNO(EIO), TERN_ERRNO(ENOMEM)}),

        // Streams.
        MakeFaultable<"fclose">(&::fclose, {TERN_CLOSED(ENOSPC), TERN_CLOSED(EIO)}),
        MakeFaultable<"fdopen">(&::fdopen, {TERN_ERRNO(ENOMEM), TERN_ERRNO(EINVAL)}),
        MakeFaultable<"fileno">(&::fileno, {TERN_ERRNO(EBADF)}),
        MakeFaultable<"fopen">(&::fopen, {TERN_ERRNO(ENOENT), TERN_ERRNO(EACCES), TERN_ERRNO(EMFILE)}),
        MakeFaultable<"fwrite">(&::fwrite, {STREAM_FULL, STREAM_ERROR}),
        MakeFaultable<"__getdelim">(GetDelimited{}, {TERN_ERRNO(EIO), TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"getline">(&::getline, {TERN_ERRNO(EIO), TERN_ERRNO(ENOMEM)}),

        // Files and folders.
        MakeFaultable<"chmod">(&::chmod, {TERN_ERRNO(EPERM), TERN_ERRNO(EROFS), TERN_ERRNO(EIO)}),
        MakeFaultable<"chown">(&::chown, {TERN_ERRNO(EPERM), TERN_ERRNO(EROFS)}),
        MakeFaultable<"closedir">(&::closedir, {TERN_CLOSED(EIO)}),
        MakeFaultable<"fchmod">(&::fchmod, {TERN_ERRNO(EPERM), TERN_ERRNO(EROFS), TERN_ERRNO(EIO)}),
        MakeFaultable<"fchown">(&::fchown, {TERN_ERRNO(EPERM), TERN_ERRNO(EROFS)}),
        MakeFaultable<"fchownat">(&::fchownat, {TERN_ERRNO(EPERM), TERN_ERRNO(EROFS)}),
        MakeFaultable<"fdopendir">(&::fdopendir, {TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"fstat">(&::fstat, {TERN_ERRNO(EIO), TERN_ERRNO(EOVERFLOW)}),
        MakeFaultable<"fstatat">(&::fstatat, {TERN_ERRNO(EIO), TERN_ERRNO(EACCES), TERN_ERRNO(ENOENT)}),
        MakeFaultable<"fsync">(&::fsync, {TERN_ERRNO(EIO), TERN_ERRNO(ENOSPC)}),
        MakeFaultable<"ftruncate">(&::ftruncate, {TERN_ERRNO(EIO), TERN_ERRNO(EINTR)}),
        MakeFaultable<"inotify_add_watch">(&::inotify_add_watch,
                                           {TERN_ERRNO(ENOSPC), TERN_ERRNO(ENOENT), TERN_ERRNO(EACCES)}),
        MakeFaultable<"inotify_init1">(&::inotify_init1, {TERN_ERRNO(EMFILE), TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"inotify_rm_watch">(&::inotify_rm_watch, {TERN_ERRNO(EINVAL)}),
        MakeFaultable<"mkdirat">(&::mkdirat, {TERN_ERRNO(EACCES), TERN_ERRNO(ENOSPC), TERN_ERRNO(EROFS)}),
        MakeFaultable<"opendir">(&::opendir, {TERN_ERRNO(ENOENT), TERN_ERRNO(EACCES), TERN_ERRNO(EMFILE)}),
        MakeFaultable<"readdir">(&::readdir, {TERN_ERRNO(EIO), TERN_ERRNO(ENOENT)}),
        MakeFaultable<"readlink">(&::readlink, {TERN_ERRNO(ENOENT), TERN_ERRNO(EINVAL), TERN_ERRNO(EIO)}),
        MakeFaultable<"readlinkat">(&::readlinkat, {TERN_ERRNO(ENOENT), TERN_ERRNO(EIO)}),
        MakeFaultable<"remove">(&::remove, {TERN_ERRNO(ENOENT), TERN_ERRNO(EACCES), TERN_ERRNO(EBUSY)}),
        MakeFaultable<"rename">(&::rename, {TERN_ERRNO(ENOENT), TERN_ERRNO(EXDEV), TERN_ERRNO(ENOSPC)}),
        MakeFaultable<"stat">(&::stat, {TERN_ERRNO(EIO), TERN_ERRNO(EACCES), TERN_ERRNO(ENOENT)}),
        MakeFaultable<"statx">(&::statx, {TERN_ERRNO(EIO), TERN_ERRNO(EACCES), TERN_ERRNO(ENOENT)}),
        MakeFaultable<"symlink">(&::symlink, {TERN_ERRNO(EEXIST), TERN_ERRNO(ENOSPC)}),
        MakeFaultable<"syncfs">(&::syncfs, {TERN_ERRNO(EIO), TERN_ERRNO(ENOSPC)}),
        MakeFaultable<"unlink">(&::unlink, {TERN_ERRNO(EBUSY), TERN_ERRNO(EACCES)}),
        MakeFaultable<"unlinkat">(&::unlinkat, {TERN_ERRNO(EBUSY), TERN_ERRNO(EACCES)}),

        // Names of users and of the machine.
        MakeFaultable<"getgrnam_r">(&::getgrnam_r, {TERN_NUMBER(ERANGE), TERN_NUMBER(EIO), NOTHING}),
        MakeFaultable<"getpwnam_r">(&::getpwnam_r, {TERN_NUMBER(ERANGE), TERN_NUMBER(EMFILE), NOTHING}),
        MakeFaultable<"getpwuid_r">(&::getpwuid_r, {TERN_NUMBER(ERANGE), TERN_NUMBER(EMFILE), NOTHING}),
        MakeFaultable<"gethostname">(&::gethostname, {TERN_ERRNO(ENAMETOOLONG)}),
        MakeFaultable<"sethostname">(&::sethostname, {TERN_ERRNO(EPERM)}),

        // Processes and signals.
        MakeFaultable<"execv">(
            &::execv, {TERN_ERRNO(ENOENT), TERN_ERRNO(EACCES), TERN_ERRNO(ENOMEM), TERN_ERRNO(ETXTBSY)}),
        MakeFaultable<"clone">(CloneCall{}, {TERN_ERRNO(EAGAIN), TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"mmap">(&::mmap, {TERN_ERRNO(ENOMEM), TERN_ERRNO(EAGAIN)}),
        MakeFaultable<"mprotect">(&::mprotect, {TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"kill">(&::kill, {TERN_ERRNO(ESRCH), TERN_ERRNO(EPERM)}),
        MakeFaultable<"nanosleep">(&::nanosleep, {TERN_ERRNO(EINTR)}),
        MakeFaultable<"pthread_kill">(&::pthread_kill, {TERN_NUMBER(ESRCH), TERN_NUMBER(EAGAIN)}),
        MakeFaultable<"pthread_sigmask">(&::pthread_sigmask, {TERN_NUMBER(EINVAL)}),
        MakeFaultable<"sigaction">(&::sigaction, {TERN_ERRNO(EINVAL)}),
        MakeFaultable<"sigpending">(&::sigpending, {TERN_ERRNO(EFAULT)}),
        MakeFaultable<"sigprocmask">(&::sigprocmask, {TERN_ERRNO(EINVAL)}),
        MakeFaultable<"sigtimedwait">(&::sigtimedwait, {TERN_ERRNO(EINTR), TERN_ERRNO(EAGAIN)}),
        MakeFaultable<"sigwait">(&::sigwait, {TERN_NUMBER(EINTR)}),
        MakeFaultable<"syscall">(RawCall{}, {TERN_ERRNO(ENOSYS), TERN_ERRNO(EMFILE)}),
        MakeFaultable<"waitpid">(&::waitpid, {TERN_ERRNO(ECHILD), NOTHING}),

        // Threads.
        MakeFaultable<"pthread_cond_clockwait">(&::pthread_cond_clockwait, {TERN_NUMBER(ETIMEDOUT), NOTHING}),
        MakeFaultable<"pthread_cond_timedwait">(&::pthread_cond_timedwait, {TERN_NUMBER(ETIMEDOUT), NOTHING}),
        MakeFaultable<"pthread_cond_wait">(&::pthread_cond_wait, {NOTHING}),
        MakeFaultable<"pthread_condattr_init">(&::pthread_condattr_init, {TERN_NUMBER(ENOMEM)}),
        MakeFaultable<"pthread_mutexattr_init">(&::pthread_mutexattr_init, {TERN_NUMBER(ENOMEM)}),
        MakeFaultable<"pthread_create">(&::pthread_create, {TERN_NUMBER(EAGAIN)}),
        MakeFaultable<"pthread_setname_np">(&::pthread_setname_np, {TERN_NUMBER(ERANGE)}),

        // Timers.
        MakeFaultable<"timer_create">(&::timer_create, {TERN_ERRNO(EAGAIN), TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"timer_delete">(&::timer_delete, {TERN_ERRNO(EINVAL)}),
        MakeFaultable<"timer_gettime">(&::timer_gettime, {TERN_ERRNO(EINVAL)}),
        MakeFaultable<"timer_settime">(&::timer_settime, {TERN_ERRNO(EINVAL)}),

        // sd-bus.
        MakeFaultable<"sd_bus_add_filter">(&::sd_bus_add_filter, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_add_match">(&::sd_bus_add_match,
                                          {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ETIMEDOUT)}),
        MakeFaultable<"sd_bus_add_match_async">(&::sd_bus_add_match_async,
                                                {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENOTCONN)}),
        MakeFaultable<"sd_bus_add_object_manager">(&::sd_bus_add_object_manager, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_add_object_vtable">(&::sd_bus_add_object_vtable,
                                                  {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EEXIST)}),
        MakeFaultable<"sd_bus_attach_event">(&::sd_bus_attach_event,
                                             {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EBUSY)}),
        MakeFaultable<"sd_bus_call_async">(&::sd_bus_call_async,
                                           {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENOTCONN)}),
        MakeFaultable<"sd_bus_call_method">(CallMethod{}, {TERN_NEGATIVE(ETIMEDOUT), TERN_NEGATIVE(ENOTCONN),
                                                           TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EACCES)}),
        MakeFaultable<"sd_bus_call_method_async">(CallMethodLater{},
                                                  {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENOTCONN)}),
        MakeFaultable<"sd_bus_creds_get_euid">(&::sd_bus_creds_get_euid, {TERN_NEGATIVE(ENODATA)}),
        MakeFaultable<"sd_bus_creds_get_pid">(&::sd_bus_creds_get_pid, {TERN_NEGATIVE(ENODATA)}),
        MakeFaultable<"sd_bus_default_system">(&::sd_bus_default_system,
                                               {TERN_NEGATIVE(ECONNREFUSED), TERN_NEGATIVE(ENOENT),
                                                TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EMFILE)}),
        MakeFaultable<"sd_bus_emit_interfaces_added_strv">(&::sd_bus_emit_interfaces_added_strv,
                                                           {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENOTCONN)}),
        MakeFaultable<"sd_bus_emit_interfaces_removed_strv">(
            &::sd_bus_emit_interfaces_removed_strv, {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENOTCONN)}),
        MakeFaultable<"sd_bus_emit_properties_changed_strv">(
            &::sd_bus_emit_properties_changed_strv, {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENOTCONN)}),
        MakeFaultable<"sd_bus_error_set">(&::sd_bus_error_set, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_error_setf">(SetError{}, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_get_property_string">(
            &::sd_bus_get_property_string,
            {TERN_NEGATIVE(ETIMEDOUT), TERN_NEGATIVE(ENOTCONN), TERN_NEGATIVE(ENXIO)}),
        MakeFaultable<"sd_bus_list_names">(&::sd_bus_list_names,
                                           {TERN_NEGATIVE(ETIMEDOUT), TERN_NEGATIVE(ENOTCONN)}),
        MakeFaultable<"sd_bus_match_signal_async">(&::sd_bus_match_signal_async,
                                                   {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENOTCONN)}),
        MakeFaultable<"sd_bus_message_append_array">(&::sd_bus_message_append_array, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_message_append_basic">(&::sd_bus_message_append_basic,
                                                     {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EINVAL)}),
        MakeFaultable<"sd_bus_message_append_string_space">(&::sd_bus_message_append_string_space,
                                                            {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_message_close_container">(&::sd_bus_message_close_container,
                                                        {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_message_copy">(&::sd_bus_message_copy,
                                             {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EBADMSG)}),
        MakeFaultable<"sd_bus_message_enter_container">(
            &::sd_bus_message_enter_container,
            {TERN_NEGATIVE(ENXIO), TERN_NEGATIVE(EBADMSG), TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_message_exit_container">(&::sd_bus_message_exit_container,
                                                       {TERN_NEGATIVE(EBUSY), TERN_NEGATIVE(EBADMSG)}),
        MakeFaultable<"sd_bus_message_new_method_call">(&::sd_bus_message_new_method_call,
                                                        {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_message_new_method_return">(&::sd_bus_message_new_method_return,
                                                          {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_message_new_signal">(&::sd_bus_message_new_signal, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_message_open_container">(&::sd_bus_message_open_container,
                                                       {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_message_peek_type">(&::sd_bus_message_peek_type, {TERN_NEGATIVE(EBADMSG)}),
        MakeFaultable<"sd_bus_message_read">(ReadMessage{}, {TERN_NEGATIVE(EBADMSG), TERN_NEGATIVE(ENXIO)}),
        MakeFaultable<"sd_bus_message_read_array">(&::sd_bus_message_read_array, {TERN_NEGATIVE(EBADMSG)}),
        MakeFaultable<"sd_bus_message_read_basic">(&::sd_bus_message_read_basic,
                                                   {TERN_NEGATIVE(EBADMSG), TERN_NEGATIVE(ENXIO)}),
        MakeFaultable<"sd_bus_message_seal">(&::sd_bus_message_seal, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_message_skip">(&::sd_bus_message_skip, {TERN_NEGATIVE(EBADMSG)}),
        MakeFaultable<"sd_bus_new">(&::sd_bus_new, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_open_system">(
            &::sd_bus_open_system, {TERN_NEGATIVE(ECONNREFUSED), TERN_NEGATIVE(ENOENT), TERN_NEGATIVE(ENOMEM),
                                    TERN_NEGATIVE(EMFILE)}),
        MakeFaultable<"sd_bus_open_system_remote">(
            &::sd_bus_open_system_remote,
            {TERN_NEGATIVE(EINVAL), TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EMFILE)}),
        MakeFaultable<"sd_bus_open_user">(
            &::sd_bus_open_user, {TERN_NEGATIVE(ECONNREFUSED), TERN_NEGATIVE(ENOENT), TERN_NEGATIVE(ENOMEM),
                                  TERN_NEGATIVE(EMFILE)}),
        MakeFaultable<"sd_bus_process">(&::sd_bus_process,
                                        {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ECONNRESET)}),
        MakeFaultable<"sd_bus_query_sender_creds">(
            &::sd_bus_query_sender_creds,
            {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENXIO), TERN_NEGATIVE(ETIMEDOUT)}),
        MakeFaultable<"sd_bus_query_sender_privilege">(
            &::sd_bus_query_sender_privilege,
            {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENXIO), TERN_NEGATIVE(ETIMEDOUT)}),
        MakeFaultable<"sd_bus_reply_method_errno">(&::sd_bus_reply_method_errno,
                                                   {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENOBUFS)}),
        MakeFaultable<"sd_bus_reply_method_error">(&::sd_bus_reply_method_error,
                                                   {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENOBUFS)}),
        MakeFaultable<"sd_bus_request_name">(
            &::sd_bus_request_name, {TERN_NEGATIVE(EEXIST), TERN_NEGATIVE(EPERM), TERN_NEGATIVE(ETIMEDOUT)}),
        MakeFaultable<"sd_bus_send">(&::sd_bus_send, {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(ENOBUFS)}),
        MakeFaultable<"sd_bus_set_address">(&::sd_bus_set_address, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_bus_start">(&::sd_bus_start, {TERN_NEGATIVE(ECONNREFUSED), TERN_NEGATIVE(ENOENT),
                                                        TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EMFILE)}),
        MakeFaultable<"sd_bus_wait">(&::sd_bus_wait, {TERN_NEGATIVE(ENOTCONN), NOTHING}),

        // sd-event and the notification.
        MakeFaultable<"sd_event_add_defer">(&::sd_event_add_defer, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_event_add_post">(&::sd_event_add_post, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_event_add_exit">(&::sd_event_add_exit, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_event_add_io">(&::sd_event_add_io, {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EPERM)}),
        MakeFaultable<"sd_event_add_signal">(&::sd_event_add_signal,
                                             {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EBUSY)}),
        MakeFaultable<"sd_event_add_time">(&::sd_event_add_time,
                                           {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EMFILE)}),
        MakeFaultable<"sd_event_add_time_relative">(&::sd_event_add_time_relative,
                                                    {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EMFILE)}),
        MakeFaultable<"sd_event_default">(&::sd_event_default,
                                          {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EMFILE)}),
        MakeFaultable<"sd_event_loop">(&::sd_event_loop, {TERN_NEGATIVE(ENOMEM), TERN_NEGATIVE(EIO)}),
        MakeFaultable<"sd_event_set_watchdog">(&::sd_event_set_watchdog,
                                               {TERN_NEGATIVE(EINVAL), TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_event_source_set_enabled">(&::sd_event_source_set_enabled, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_event_source_set_priority">(&::sd_event_source_set_priority,
                                                      {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_event_source_set_prepare">(&::sd_event_source_set_prepare, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_event_source_set_time">(&::sd_event_source_set_time, {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_event_source_set_time_relative">(&::sd_event_source_set_time_relative,
                                                           {TERN_NEGATIVE(ENOMEM)}),
        MakeFaultable<"sd_notify">(&::sd_notify, {TERN_NEGATIVE(ECONNREFUSED), TERN_NEGATIVE(EAGAIN)}),

        // libexpat.
        MakeFaultable<"XML_ParserCreate">(CreateParser{}, {TERN_ERRNO(ENOMEM)}),

        // libzip.
        MakeFaultable<"zip_close">(
            &::zip_close, {TERN_ZIP(ZIP_ER_WRITE), TERN_ZIP(ZIP_ER_RENAME), TERN_ZIP(ZIP_ER_MEMORY)}),
        MakeFaultable<"zip_delete">(&::zip_delete, {TERN_ZIP(ZIP_ER_MEMORY)}),
        MakeFaultable<"zip_encryption_method_supported">(&::zip_encryption_method_supported, {NOTHING}),
        MakeFaultable<"zip_fclose">(&::zip_fclose, {{Way::AfterNumber, ZIP_ER_READ, "ZIP_ER_READ"}}),
        MakeFaultable<"zip_file_add">(&::zip_file_add, {TERN_ZIP(ZIP_ER_MEMORY), TERN_ZIP(ZIP_ER_EXISTS)}),
        MakeFaultable<"zip_file_set_encryption">(&::zip_file_set_encryption,
                                                 {TERN_ZIP(ZIP_ER_MEMORY), TERN_ZIP(ZIP_ER_ENCRNOTSUPP)}),
        MakeFaultable<"zip_fopen_index">(&::zip_fopen_index,
                                         {TERN_ZIP(ZIP_ER_MEMORY), TERN_ZIP(ZIP_ER_READ)}),
        MakeFaultable<"zip_fopen_index_encrypted">(&::zip_fopen_index_encrypted,
                                                   {TERN_ZIP(ZIP_ER_WRONGPASSWD), TERN_ZIP(ZIP_ER_MEMORY)}),
        MakeFaultable<"zip_fread">(&::zip_fread,
                                   {TERN_ZIP(ZIP_ER_READ), TERN_ZIP(ZIP_ER_CRC), NOTHING, PARTIAL}),
        MakeFaultable<"zip_get_num_entries">(&::zip_get_num_entries, {TERN_ZIP(ZIP_ER_INVAL)}),
        MakeFaultable<"zip_open">(&::zip_open,
                                  {TERN_ZIP(ZIP_ER_OPEN), TERN_ZIP(ZIP_ER_MEMORY), TERN_ZIP(ZIP_ER_NOZIP)}),
        MakeFaultable<"zip_open_from_source">(&::zip_open_from_source, {TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"zip_source_buffer_fragment_create">(&::zip_source_buffer_fragment_create,
                                                           {TERN_ERRNO(ENOMEM)}),
        MakeFaultable<"zip_source_file">(&::zip_source_file,
                                         {TERN_ZIP(ZIP_ER_MEMORY), TERN_ZIP(ZIP_ER_OPEN)}),
        MakeFaultable<"zip_stat_index">(&::zip_stat_index, {TERN_ZIP(ZIP_ER_MEMORY)}),
    };
}

const char* const ONLY_MEMORY = "works on memory only";
const char* const CANNOT_FAIL = "has no way to fail";
const char* const VALID_ARGUMENT = "fails only for an argument that is not valid, and these always are";
const char* const GOES_AWAY = "releases; nothing is told and nothing could be done";
const char* const RUNTIME = "the compiler's own";

const std::map<std::string, const char*>& Exemptions() {
    static const std::map<std::string, const char*> exemptions = {
        {"_exit", CANNOT_FAIL},
        {"munmap", GOES_AWAY},
        {"madvise", "only an advice: what follows does what it advises"},
        {"sysconf", VALID_ARGUMENT},
        {"abort", CANNOT_FAIL},
        {"clock_gettime", VALID_ARGUMENT},
        {"geteuid", CANNOT_FAIL},
        {"gettid", CANNOT_FAIL},
        {"getpid", CANNOT_FAIL},
        {"getuid", CANNOT_FAIL},
        {"time", CANNOT_FAIL},
        {"dirfd", VALID_ARGUMENT},
        {"dlerror", ONLY_MEMORY},
        {"dlsym", "asked for functions whose absence has its own test; what it finds is in the catalogue"},
        {"clearerr", ONLY_MEMORY},
        {"feof", ONLY_MEMORY},
        {"ferror", ONLY_MEMORY},
        {"free", ONLY_MEMORY},
        {"getenv", ONLY_MEMORY},
        {"isatty", "its answer is no error: both are tested with real streams"},
        {"sd_bus_close", GOES_AWAY},
        {"sd_bus_close_unref", GOES_AWAY},
        {"sd_bus_error_has_name", ONLY_MEMORY},
        {"sd_bus_member_name_is_valid", ONLY_MEMORY},
        {"sd_bus_message_get_signature", VALID_ARGUMENT},
        {"sd_bus_message_has_signature", VALID_ARGUMENT},
        {"sd_bus_message_is_signal", VALID_ARGUMENT},
        {"sd_bus_message_sensitive", VALID_ARGUMENT},
        {"sd_bus_message_set_expect_reply", VALID_ARGUMENT},
        {"sd_bus_object_path_is_valid", ONLY_MEMORY},
        {"sd_bus_ref", CANNOT_FAIL},
        {"sd_bus_service_name_is_valid", ONLY_MEMORY},
        {"sd_bus_set_bus_client", VALID_ARGUMENT},
        {"sd_bus_get_current_message", VALID_ARGUMENT},
        {"sd_bus_get_event", VALID_ARGUMENT},
        {"sd_bus_get_method_call_timeout", VALID_ARGUMENT},
        {"sd_bus_set_method_call_timeout", VALID_ARGUMENT},
        {"sched_yield", CANNOT_FAIL},
        {"sd_bus_message_get_interface", VALID_ARGUMENT},
        {"sd_bus_message_get_member", VALID_ARGUMENT},
        {"sd_bus_message_get_path", VALID_ARGUMENT},
        {"sd_bus_message_get_type", VALID_ARGUMENT},
        {"sd_bus_creds_unref", GOES_AWAY},
        {"sd_bus_error_get_errno", ONLY_MEMORY},
        {"sd_bus_error_is_set", ONLY_MEMORY},
        {"sd_bus_error_set_const", "its memory is the caller's"},
        {"sd_bus_error_set_errno", "gives an error whatever happens"},
        {"sd_bus_interface_name_is_valid", ONLY_MEMORY},
        {"sd_bus_is_trusted", VALID_ARGUMENT},
        {"sd_bus_message_get_bus", VALID_ARGUMENT},
        {"sd_bus_message_get_cookie", "its one error, for a message without one, has its own test"},
        {"sd_bus_message_get_error", VALID_ARGUMENT},
        {"sd_bus_message_get_expect_reply", VALID_ARGUMENT},
        {"sd_bus_message_get_sender", VALID_ARGUMENT},
        {"sd_bus_message_is_method_error", VALID_ARGUMENT},
        {"sd_bus_message_ref", VALID_ARGUMENT},
        {"sd_event_now", VALID_ARGUMENT},
        {"eventfd_read", "there is something in it"},
        {"sd_bus_object_vtable_format", "a variable"},
        {"sd_bus_message_rewind",
         "refuses a message that is still being written, and what is handled is not"},
        {"localtime_r", "fails for years beyond an int only"},
        {"memchr", ONLY_MEMORY},
        {"memcmp", ONLY_MEMORY},
        {"memcpy", ONLY_MEMORY},
        {"memmove", ONLY_MEMORY},
        {"memset", ONLY_MEMORY},
        {"snprintf", ONLY_MEMORY},
        {"vsnprintf", ONLY_MEMORY},
        {"sscanf", ONLY_MEMORY},
        {"strcasecmp", ONLY_MEMORY},
        {"strcmp", ONLY_MEMORY},
        {"strerror_r", ONLY_MEMORY},
        {"strlen", ONLY_MEMORY},
        {"strncpy", ONLY_MEMORY},
        {"strnlen", ONLY_MEMORY},
        {"strstr", ONLY_MEMORY},
        {"strtol", ONLY_MEMORY},
        {"program_invocation_short_name", "a variable"},
        {"__progname", "a variable"},
        {"__libc_current_sigrtmin", CANNOT_FAIL},
        {"__register_atfork",
         "when the library is loaded, and by the first timer and D-Bus thread, which do without"},
        {"pthread_cond_broadcast", VALID_ARGUMENT},
        {"pthread_cond_destroy", VALID_ARGUMENT},
        {"pthread_cond_init", "never fails in the C library"},
        {"pthread_cond_signal", VALID_ARGUMENT},
        {"pthread_condattr_destroy", VALID_ARGUMENT},
        {"pthread_condattr_setclock", VALID_ARGUMENT},
        {"pthread_detach", VALID_ARGUMENT},
        {"pthread_equal", CANNOT_FAIL},
        {"pthread_mutex_destroy", VALID_ARGUMENT},
        {"pthread_mutex_init", VALID_ARGUMENT},
        {"pthread_mutex_lock", VALID_ARGUMENT},
        {"pthread_mutex_trylock", "its one answer for a valid mutex, that it is locked, is no failure"},
        {"pthread_mutex_unlock", VALID_ARGUMENT},
        {"pthread_mutexattr_destroy", VALID_ARGUMENT},
        {"pthread_mutexattr_setprotocol",
         "without priority inheritance it is a mutex as ever, which its test provokes"},
        {"pthread_mutexattr_settype", VALID_ARGUMENT},
        {"pthread_once", VALID_ARGUMENT},
        {"pthread_self", CANNOT_FAIL},
        {"pthread_setcancelstate", VALID_ARGUMENT},
        {"sigaddset", VALID_ARGUMENT},
        {"sigemptyset", VALID_ARGUMENT},
        {"sigfillset", VALID_ARGUMENT},
        {"sigismember", VALID_ARGUMENT},
        {"eventfd_write", VALID_ARGUMENT},
        {"shutdown", "of a connection that is given up: one that is lost already comes to the same"},
        {"sd_bus_close", GOES_AWAY},
        {"sd_bus_flush", "called at the end only, with something queued; its failure has its own test"},
        {"sd_bus_get_fd", VALID_ARGUMENT},
        {"sd_bus_get_n_queued_write", VALID_ARGUMENT},
        {"sd_bus_is_open", VALID_ARGUMENT},
        {"sd_bus_is_ready", VALID_ARGUMENT},
        {"sd_bus_error_free", GOES_AWAY},
        {"sd_bus_flush_close_unref", GOES_AWAY},
        {"sd_bus_message_unref", GOES_AWAY},
        {"sd_bus_slot_get_bus", VALID_ARGUMENT},
        {"sd_bus_slot_set_floating", VALID_ARGUMENT},
        {"sd_bus_slot_unref", GOES_AWAY},
        {"sd_bus_unref", GOES_AWAY},
        {"sd_event_get_exit_code", VALID_ARGUMENT},
        {"sd_event_get_watchdog", VALID_ARGUMENT},
        {"sd_watchdog_enabled", "a watchdog that is not announced well is none: the time-out stays"},
        {"sd_event_exit", "refuses a loop that has ended, and a forked child, only"},
        {"sd_event_source_disable_unref", GOES_AWAY},
        {"sd_event_source_get_event", VALID_ARGUMENT},
        {"sd_event_source_unref", GOES_AWAY},
        {"sd_event_unref", GOES_AWAY},
        {"XML_ParserFree", GOES_AWAY},
        {"XML_SetUserData", ONLY_MEMORY},
        {"XML_SetElementHandler", ONLY_MEMORY},
        {"XML_SetStartDoctypeDeclHandler", ONLY_MEMORY},
        {"XML_Parse", "what it refuses has its own tests"},
        {"XML_StopParser", VALID_ARGUMENT},
        {"XML_GetErrorCode", ONLY_MEMORY},
        {"XML_ErrorString", ONLY_MEMORY},
        {"XML_GetCurrentLineNumber", ONLY_MEMORY},
        {"XML_GetCurrentByteIndex", ONLY_MEMORY},
        {"XML_GetCurrentByteCount", ONLY_MEMORY},
        {"zip_discard", GOES_AWAY},
        {"zip_error_code_zip", ONLY_MEMORY},
        {"zip_error_fini", GOES_AWAY},
        {"zip_error_init_with_code", ONLY_MEMORY},
        {"zip_error_set", ONLY_MEMORY},
        {"zip_error_strerror", ONLY_MEMORY},
        {"zip_file_get_error", ONLY_MEMORY},
        {"zip_get_error", ONLY_MEMORY},
        {"zip_source_free", GOES_AWAY},
        {"zip_stat_init", ONLY_MEMORY},
        {"zip_strerror", ONLY_MEMORY},
    };
    return exemptions;
}

bool IsInCatalogue(const std::string& plain) {
    for (const Faultable& function : Catalogue()) {
        if (plain == function.name) {
            return true;
        }
    }
    return false;
}

}  // namespace

const std::vector<Faultable>& Catalogue() {
    static const std::vector<Faultable> catalogue = MakeCatalogue();
    return catalogue;
}

const char* ReasonForExemption(const std::string& name) {
    const auto found = Exemptions().find(PlainName(name));
    if (found != Exemptions().end()) {
        return found->second;
    }
    if (name.starts_with("_Z")) {
        return "of the C++ library, which reports by exceptions; what it asks the system for, memory and "
               "threads, is in the catalogue";
    }
    for (const char* const prefix :
         {"__cxa_", "__popcount", "__asan_", "__ubsan_", "__sanitizer_", "__gcov_", "__once_proxy", "_ITM_",
          "_Unwind_", "__gmon_start__", "__gxx_personality", "__errno_location", "__libc_single_threaded",
          "__assert_fail", "__tls_get_addr", "___tls_get_addr", "__stack_chk_fail"}) {
        if (name.starts_with(prefix)) {
            return RUNTIME;
        }
    }
    return nullptr;
}

bool CatalogueIsComplete() {
    bool complete = true;
    std::set<std::string> imported;
    for (const std::string& library : OUR_LIBRARIES) {
        ForEachImport(library, [&](const Import& import) {
            const std::string plain = PlainName(import.name);
            imported.insert(plain);
            if (!IsInCatalogue(plain) && ReasonForExemption(import.name) == nullptr) {
                printf("%s imports %s, which is neither in the catalogue nor exempt\n", library.c_str(),
                       import.name);
                complete = false;
            }
        });
    }
    for (const Faultable& function : Catalogue()) {
        // libzip and libexpat are loaded when they are needed, and their functions are looked up by name.
        const std::string name = function.name;
        const bool isLookedUp = name.starts_with("zip_") || name.starts_with("XML_");
        const bool isCompilersChoice = name == "getline" || name == "__getdelim";
        if (!isLookedUp && !isCompilersChoice && !imported.contains(name)) {
            printf("%s is in the catalogue, but no library imports it\n", function.name);
            complete = false;
        }
    }
    printf("%zu functions imported, %zu in the catalogue\n", imported.size(), Catalogue().size());
    return complete && !imported.empty();
}

}  // namespace tern::test
