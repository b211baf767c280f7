#pragma once

#include <expat.h>

#include <string>

namespace mwl::Typed {

/// libexpat's functions, as far as they are needed. The library is loaded when a text is first read: most
/// services never read one, and should neither have it loaded at every start nor need it installed.
///
/// Immutable; any thread.
struct Expat {
    decltype(&XML_ParserCreate) create = nullptr;
    decltype(&XML_ParserFree) free = nullptr;
    decltype(&XML_SetUserData) setUserData = nullptr;
    decltype(&XML_SetElementHandler) setElementHandler = nullptr;
    decltype(&XML_SetStartDoctypeDeclHandler) setStartDoctypeHandler = nullptr;
    decltype(&XML_Parse) parse = nullptr;
    decltype(&XML_StopParser) stop = nullptr;
    decltype(&XML_GetErrorCode) getErrorCode = nullptr;
    decltype(&XML_ErrorString) errorString = nullptr;
    // Written out: newer headers warn of these three, and older libraries do not have what they name instead.
    XML_Size (*getLine)(XML_Parser) = nullptr;
    XML_Index (*getByteIndex)(XML_Parser) = nullptr;
    int (*getByteCount)(XML_Parser) = nullptr;

    /// Loads it unless it is there already. Null when it cannot be loaded or lacks a function; `fault` then
    /// says why. The next call tries again. Throws std::bad_alloc.
    static const Expat* Load(std::string& fault);

private:
    const char* Find(void* library);
};

}  // namespace mwl::Typed
