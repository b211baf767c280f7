#include "service/thrown.h"

#include <cstdlib>
#include <exception>
#include <string>
#include <typeinfo>

namespace mw::tern {

Thrown::Thrown() {
    if (const std::type_info* const type = abi::__cxa_current_exception_type()) {
        int status = 0;
        mReadable.reset(abi::__cxa_demangle(type->name(), nullptr, nullptr, &status));
        mType = mReadable != nullptr ? mReadable.get() : type->name();
    }
    const char* text = nullptr;
    try {
        throw;
    } catch (const std::exception& exception) {
        text = exception.what();
    } catch (const std::string& thrown) {
        text = thrown.c_str();
    } catch (const char* thrown) {
        text = thrown;
    } catch (...) {
        text = nullptr;
    }
    if (text != nullptr) {
        mText = text;
    }
}

}  // namespace mw::tern
