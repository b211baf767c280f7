#include <tern/dbus_message/values_list.h>

#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include <type_traits>
#include <utility>

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

/// The type that an accessor of the class hands out, and the type that its adder takes.
template <typename ConcreteValue>
using HeldBy = std::remove_cvref_t<decltype(ContentOf(std::declval<const ConcreteValue&>()))>;
template <typename ConcreteValue>
using PassedTo = std::conditional_t<std::is_scalar_v<HeldBy<ConcreteValue>>, HeldBy<ConcreteValue>,
                                    const HeldBy<ConcreteValue>&>;

template <typename ConcreteValue>
StatusCode Get(const std::map<std::string, Value*>& values, const char* getter, const std::string& key,
               HeldBy<ConcreteValue>& out) {
    const auto found = values.lower_bound(key);
    if (found == values.end() || found->first != key || found->second == nullptr ||
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

// The adder and the getter of one type.
#define TERN_VALUES_LIST_TYPE(Name)                                                            \
    void ValuesList::AddValue##Name(const std::string& key, PassedTo<Value##Name> value) {     \
        ValuesListWriter::Add<Value##Name>(*this, key, value);                                 \
    }                                                                                          \
    StatusCode ValuesList::Get##Name(const std::string& key, HeldBy<Value##Name>& out) const { \
        return Get<Value##Name>(mValues, "Get" #Name, key, out);                               \
    }

TERN_VALUES_LIST_TYPE(Uint8)
TERN_VALUES_LIST_TYPE(Bool)
TERN_VALUES_LIST_TYPE(Int16)
TERN_VALUES_LIST_TYPE(Uint16)
TERN_VALUES_LIST_TYPE(Int32)
TERN_VALUES_LIST_TYPE(Uint32)
TERN_VALUES_LIST_TYPE(Int64)
TERN_VALUES_LIST_TYPE(Uint64)
TERN_VALUES_LIST_TYPE(Double)
TERN_VALUES_LIST_TYPE(String)
TERN_VALUES_LIST_TYPE(FD)
TERN_VALUES_LIST_TYPE(ISI)

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
