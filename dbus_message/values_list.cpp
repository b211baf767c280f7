#include <tern/dbus_message/values_list.h>

#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include "dbus_message/values_list_writer.h"

namespace mw::tern::DBusMessage {

namespace {

template <typename T, ValueType Tag>
const T& ContentOf(const TypedValue<T, Tag>& value) {
    return value.value;
}

/// The structure is its own content.
const ValueISI& ContentOf(const ValueISI& value) {
    return value;
}

template <typename ConcreteValue, typename Out>
StatusCode Get(const std::map<std::string, Value*>& values, const char* getter, const std::string& key,
               Out& out) {
    const auto found = values.find(key);
    if (found == values.end() || found->second == nullptr ||
        found->second->GetType() != ConcreteValue::TYPE) {
        TERN_LOG_TRACE(ServiceCommon::mLogger, "%s: key:'%s' not found", getter, key.c_str());
        return StatusCode::KeyNotFound;
    }
    out = ContentOf(static_cast<const ConcreteValue&>(*found->second));
    return StatusCode::Ok;
}

}  // namespace

ValuesList::ValuesList() = default;

ValuesList::~ValuesList() {
    for (const auto& entry : mValues) {
        delete entry.second;
    }
}

// The adder and the getter of one type. `Passed` is how the adder takes the value.
#define TERN_VALUES_LIST_TYPE(Name, Held, Passed)                               \
    void ValuesList::AddValue##Name(const std::string& key, Passed value) {     \
        ValuesListWriter::Add<Value##Name>(*this, key, value);                  \
    }                                                                           \
    StatusCode ValuesList::Get##Name(const std::string& key, Held& out) const { \
        return Get<Value##Name>(mValues, "Get" #Name, key, out);                \
    }

TERN_VALUES_LIST_TYPE(Uint8, unsigned char, unsigned char)
TERN_VALUES_LIST_TYPE(Bool, int, int)
TERN_VALUES_LIST_TYPE(Int16, short, short)
TERN_VALUES_LIST_TYPE(Uint16, unsigned short, unsigned short)
TERN_VALUES_LIST_TYPE(Int32, int, int)
TERN_VALUES_LIST_TYPE(Uint32, unsigned int, unsigned int)
TERN_VALUES_LIST_TYPE(Int64, long long, long long)
TERN_VALUES_LIST_TYPE(Uint64, unsigned long long, unsigned long long)
TERN_VALUES_LIST_TYPE(Double, double, double)
TERN_VALUES_LIST_TYPE(String, std::string, const std::string&)
TERN_VALUES_LIST_TYPE(FD, unsigned int, unsigned int)
TERN_VALUES_LIST_TYPE(ISI, ValueISI, const ValueISI&)

#undef TERN_VALUES_LIST_TYPE

bool ValuesList::Contains(const std::string& key) const {
    return mValues.find(key) != mValues.end();
}

std::size_t ValuesList::Size() const {
    return mValues.size();
}

std::vector<std::string> ValuesList::Keys() const {
    std::vector<std::string> keys;
    keys.reserve(mValues.size());
    for (const auto& entry : mValues) {
        keys.push_back(entry.first);
    }
    return keys;
}

}  // namespace mw::tern::DBusMessage
