// libzip's functions, under their own names but inside this library only. Each finds the real one when it is
// first called, and the library itself is loaded when an archive is first opened: libzip brings a
// cryptography library with more relocations than all the rest of a service, and a service that never sees an
// archive should not pay for it at every start.

#define ZIP_EXTERN __attribute__((visibility("hidden")))  // else other libraries would be led here

#include "utilities/libzip.h"

#include <dlfcn.h>
#include <zip.h>

#include <string>

#include "foundation/dlopen_note.h"
#include "platform/static_text.h"

/// Every function that is called: result, name, parameters, arguments. libzip has them all since version 1.7.
#define TERN_LIBZIP_FUNCTIONS(DO)                                                                            \
    DO(int, zip_close, (zip_t * archive), (archive))                                                         \
    DO(int, zip_delete, (zip_t * archive, zip_uint64_t index), (archive, index))                             \
    DO(void, zip_discard, (zip_t * archive), (archive))                                                      \
    DO(int, zip_encryption_method_supported, (zip_uint16_t method, int encode), (method, encode))            \
    DO(int, zip_error_code_zip, (const zip_error_t* error), (error))                                         \
    DO(void, zip_error_fini, (zip_error_t * error), (error))                                                 \
    DO(void, zip_error_init_with_code, (zip_error_t * error, int code), (error, code))                       \
    DO(void, zip_error_set, (zip_error_t * error, int zip, int system), (error, zip, system))                \
    DO(const char*, zip_error_strerror, (zip_error_t * error), (error))                                      \
    DO(int, zip_fclose, (zip_file_t * entry), (entry))                                                       \
    DO(zip_int64_t, zip_file_add,                                                                            \
       (zip_t * archive, const char* name, zip_source_t* source, zip_flags_t flags),                         \
       (archive, name, source, flags))                                                                       \
    DO(zip_error_t*, zip_file_get_error, (zip_file_t * entry), (entry))                                      \
    DO(int, zip_file_set_encryption,                                                                         \
       (zip_t * archive, zip_uint64_t index, zip_uint16_t method, const char* password),                     \
       (archive, index, method, password))                                                                   \
    DO(zip_file_t*, zip_fopen_index, (zip_t * archive, zip_uint64_t index, zip_flags_t flags),               \
       (archive, index, flags))                                                                              \
    DO(zip_file_t*, zip_fopen_index_encrypted,                                                               \
       (zip_t * archive, zip_uint64_t index, zip_flags_t flags, const char* password),                       \
       (archive, index, flags, password))                                                                    \
    DO(zip_int64_t, zip_fread, (zip_file_t * entry, void* buffer, zip_uint64_t size), (entry, buffer, size)) \
    DO(zip_error_t*, zip_get_error, (zip_t * archive), (archive))                                            \
    DO(zip_int64_t, zip_get_num_entries, (zip_t * archive, zip_flags_t flags), (archive, flags))             \
    DO(zip_t*, zip_open, (const char* path, int flags, int* error), (path, flags, error))                    \
    DO(zip_t*, zip_open_from_source, (zip_source_t * source, int flags, zip_error_t* error),                 \
       (source, flags, error))                                                                               \
    DO(zip_source_t*, zip_source_buffer_fragment_create,                                                     \
       (const zip_buffer_fragment_t* fragments, zip_uint64_t count, int isOwned, zip_error_t* error),        \
       (fragments, count, isOwned, error))                                                                   \
    DO(zip_source_t*, zip_source_file,                                                                       \
       (zip_t * archive, const char* path, zip_uint64_t start, zip_int64_t length),                          \
       (archive, path, start, length))                                                                       \
    DO(void, zip_source_free, (zip_source_t * source), (source))                                             \
    DO(int, zip_stat_index, (zip_t * archive, zip_uint64_t index, zip_flags_t flags, zip_stat_t * stat),     \
       (archive, index, flags, stat))                                                                        \
    DO(void, zip_stat_init, (zip_stat_t * stat), (stat))                                                     \
    DO(const char*, zip_strerror, (zip_t * archive), (archive))

namespace mwl::Utilities {

namespace {

TERN_DLOPEN_NOTE constexpr auto NOTE = MakeDlopenNote(
    R"([{"feature":"archive","description":"Packing and unpacking of zip archives","priority":"recommended",)"
    R"("soname":[")" TERN_LIBZIP R"("]}])");

/// The first function of this name in the process, as with a library that is linked: a test can step in.
template <typename Function>
Function* Find(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
}

#define TERN_LIBZIP_NAME(result, name, parameters, arguments) #name,
constexpr const char* NAMES[] = {TERN_LIBZIP_FUNCTIONS(TERN_LIBZIP_NAME)};

/// Why the loaded library cannot serve; empty when it can. An older one may have the same soname.
std::string FindFault() {
    for (const char* const name : NAMES) {
        if (Find<void()>(name) == nullptr) {
            return std::string(TERN_LIBZIP) + " has no function " + name;
        }
    }
    return "";
}

}  // namespace

const char* LoadLibzip() {
    // Never closed: once needed it stays, as if linked. Further calls only count.
    if (dlopen(TERN_LIBZIP, RTLD_NOW | RTLD_GLOBAL) == nullptr) {
        const char* const reason = dlerror();  // NOLINT(concurrency-mt-unsafe): one for each thread
        return reason != nullptr ? reason : TERN_LIBZIP;
    }
    static const StaticText fault(FindFault());
    return fault.Get().empty() ? nullptr : fault.c_str();
}

}  // namespace mwl::Utilities

#define TERN_LIBZIP_DEFINE(result, name, parameters, arguments)                       \
    result name parameters {                                                          \
        static auto* const function = mwl::Utilities::Find<result parameters>(#name); \
        return function arguments;                                                    \
    }
TERN_LIBZIP_FUNCTIONS(TERN_LIBZIP_DEFINE)
