#include "typed/expat.h"

#include <dlfcn.h>

#include "foundation/dlopen_note.h"

namespace mwl::Typed {

namespace {

TERN_DLOPEN_NOTE constexpr auto NOTE = MakeDlopenNote(
    R"([{"feature":"introspection","description":"Reading of introspection data","priority":"recommended",)"
    R"("soname":[")" TERN_LIBEXPAT R"("]}])");

template <typename Function>
bool FindOne(void* library, const char* name, Function*& function) {
    function = reinterpret_cast<Function*>(dlsym(library, name));
    return function != nullptr;
}

}  // namespace

/// The name of the first function that is not there; null when all are.
const char* Expat::Find(void* library) {
#define TERN_FIND(member, name)             \
    if (!FindOne(library, #name, member)) { \
        return #name;                       \
    }
    TERN_FIND(create, XML_ParserCreate)
    TERN_FIND(free, XML_ParserFree)
    TERN_FIND(setUserData, XML_SetUserData)
    TERN_FIND(setElementHandler, XML_SetElementHandler)
    TERN_FIND(setStartDoctypeHandler, XML_SetStartDoctypeDeclHandler)
    TERN_FIND(parse, XML_Parse)
    TERN_FIND(stop, XML_StopParser)
    TERN_FIND(getErrorCode, XML_GetErrorCode)
    TERN_FIND(errorString, XML_ErrorString)
    TERN_FIND(getLine, XML_GetCurrentLineNumber)
    TERN_FIND(getByteIndex, XML_GetCurrentByteIndex)
    TERN_FIND(getByteCount, XML_GetCurrentByteCount)
#undef TERN_FIND
    return nullptr;
}

const Expat* Expat::Load(std::string& fault) {
    // Never closed: once needed it stays, as if linked. Further calls only count.
    void* const library = dlopen(TERN_LIBEXPAT, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* const reason = dlerror();  // NOLINT(concurrency-mt-unsafe): one for each thread
        fault = reason != nullptr ? reason : TERN_LIBEXPAT;
        return nullptr;
    }
    struct Loaded {
        Expat functions;
        const char* missing;
    };
    static const Loaded loaded = [library] {
        Loaded found{};
        found.missing = found.functions.Find(library);
        return found;
    }();
    if (loaded.missing != nullptr) {
        fault = std::string(TERN_LIBEXPAT) + " has no function " + loaded.missing;
        return nullptr;
    }
    return &loaded.functions;
}

}  // namespace mwl::Typed
