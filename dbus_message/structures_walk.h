#pragma once

#include <systemd/sd-bus.h>
#include <tern/dbus_message/values_list.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "dbus_message/message_walk.h"
#include "dbus_message/parse_budget.h"
#include "dbus_message/skip_content.h"
#include "foundation/error_text.h"

namespace mw::tern::DBusMessage {

/// One walk over an array of structures, each a name and an a{sv}. `Form` gives the signature and logs what
/// is different; `Receiver` has the callback OnEntry.
template <typename Form, typename Receiver>
class StructuresWalk {
public:
    StructuresWalk(sd_bus_message* message, Receiver& receiver) : mMessage(message), mReceiver(receiver) {}

    int ReadArray() {
        const int entered = sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_ARRAY, Form::STRUCTURE);
        if (entered < 0) {
            Form::LogEnterFailure(mBudget.Log(), entered);
        }
        if (entered <= 0) {
            return entered;
        }
        const int r = ParseArrayOfStructures();
        LeaveContainer(mMessage);
        return r;
    }

    int ParseArrayOfStructures() {
        int r = 0;
        // A structure that fails does not stop the others, unless what all have in common is used up.
        while (r != -ENOBUFS &&
               sd_bus_message_enter_container(mMessage, SD_BUS_TYPE_STRUCT, Form::FIELDS) >= 1) {
            r = ReadStructure();
            LeaveContainer(mMessage);
        }
        return r;
    }

    int ReadStructure() {
        const char* name = nullptr;
        int r = sd_bus_message_read_basic(mMessage, Form::NAME_TYPE, &name);
        if (r < 0) {
            Form::LogNameFailure(mBudget.Log(), r);
        }
        if (r <= 0) {
            return r;
        }
        // As it is handed out.
        if (!mBudget.Take(MemoryBudget::Text(strlen(name)), Form::OPERATION)) {
            return -ENOBUFS;
        }
        ValuesList values;
        r = MessageWalk(mMessage, values, mBudget, std::string()).ReadArrayOfDictionaries();
        if (r < 0) {
            TERN_PARSE_LOG(mBudget.Log(), ERROR, ServiceCommon::mLogger,
                           "Failure ASVsignatureParser, ret=(%d, %s)", r, mwl::ErrorText(-r));
            return r;
        }
        Form::LogName(mBudget.Log(), name);
        mReceiver.OnEntry(name, values);
        return r;
    }

private:
    sd_bus_message* const mMessage;
    Receiver& mReceiver;
    ParseBudget mBudget;  ///< of all structures together
};

}  // namespace mw::tern::DBusMessage
