#!/bin/bash
# What a further method of a typed interface costs in code and data at -Os: an interface with 30 methods less one with 6,
# of three signatures in turn, by the method. The same by hand, with sd_bus_message_read, is shown beside it.
#   method_size_test.sh LIMIT CXX [FLAGS...]     LIMIT: bytes
set -eu
limit=$1
shift
compiler=("$@" -std=c++20 -Os -fPIC)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# write_typed COUNT
write_typed() {
    echo '#include <tern/typed/implements.h>
using namespace mwl::Typed;
struct C {
    static constexpr const char* NAME = "com.example.C";'
    local all="" bindings="" code=""
    for ((i = 0; i < $1; ++i)); do
        case $((i % 3)) in
            0) type='void(std::uint32_t)' names='{"a"}'
                code+="void M$i(std::uint32_t a) { sink = a + $i; }" ;;
            1) type='std::string(std::string_view)' names='{"a", "b"}'
                code+="std::string M$i(std::string_view a) { sink = a.size() + $i; return std::string(a); }" ;;
            2) type='std::uint32_t(std::uint32_t, std::string_view, double)' names='{"a", "b", "c", "d"}'
                code+="std::uint32_t M$i(std::uint32_t a, std::string_view b, double c) {
                    sink = a + b.size() + $i; return static_cast<std::uint32_t>(c); }" ;;
        esac
        echo "static constexpr Method<$type> M$i{\"M$i\", $names, OPEN};"
        all+="${all:+, }M$i" bindings+="${bindings:+, }Bind<C::M$i, &Object::M$i>"
    done
    echo "static constexpr Members<$all> ALL{};
};
struct Object final : Implements<Object, C> {
    std::size_t sink = 0;
    $code
    static constexpr auto Describe() { return Bindings<$bindings>(); }
};
InterfaceBase* Make() { return new Object; }"
}

# write_by_hand COUNT
write_by_hand() {
    echo '#include <tern/service/dbus_interface.h>
#include <systemd/sd-bus.h>
#include <cstring>
#include <string>
struct Object final : mw::tern::DBusInterface {
    Object() : DBusInterface("com.example.C") {}
    const sd_bus_vtable* GetVtable() const override;
    void* GetUserData() override { return this; }
    std::size_t sink = 0;
};'
    local table=""
    for ((i = 0; i < $1; ++i)); do
        echo "static int M$i(sd_bus_message* m, void* u, sd_bus_error*) {"
        case $((i % 3)) in
            0) echo "unsigned a; const int r = sd_bus_message_read(m, \"u\", &a); if (r < 0) return r;
                static_cast<Object*>(u)->sink = a + $i; return sd_bus_reply_method_return(m, \"\"); }"
                in=u out= ;;
            1) echo "const char* a; const int r = sd_bus_message_read(m, \"s\", &a); if (r < 0) return r;
                static_cast<Object*>(u)->sink = std::strlen(a) + $i; const std::string t(a);
                return sd_bus_reply_method_return(m, \"s\", t.c_str()); }"
                in=s out=s ;;
            2) echo "unsigned a; const char* b; double c; const int r = sd_bus_message_read(m, \"usd\", &a, &b, &c);
                if (r < 0) return r; static_cast<Object*>(u)->sink = a + std::strlen(b) + $i;
                return sd_bus_reply_method_return(m, \"u\", static_cast<unsigned>(c)); }"
                in=usd out=u ;;
        esac
        table+="SD_BUS_METHOD(\"M$i\", \"$in\", \"$out\", &M$i, SD_BUS_VTABLE_UNPRIVILEGED),"
    done
    echo "const sd_bus_vtable* Object::GetVtable() const {
    static const sd_bus_vtable table[] = {SD_BUS_VTABLE_START(0), $table SD_BUS_VTABLE_END};
    return table;
}
mw::tern::DBusInterface* Make() { return new Object; }"
}

# size_of KIND COUNT: what of the object file is loaded
size_of() {
    "write_$1" "$2" >"$work/$1$2.cpp"
    "${compiler[@]}" -c "$work/$1$2.cpp" -o "$work/$1$2.o"
    size -A "$work/$1$2.o" | awk '$1 ~ /^\.(text|rodata|data|eh_frame|gcc_except|init_array|bss)/ { sum += $2 } END { print sum }'
}

# bytes_of KIND: for a further method
bytes_of() {
    local few many
    few=$(size_of "$1" 6)
    many=$(size_of "$1" 30)
    echo $(((many - few) / 24))
}

typed=$(bytes_of typed)
hand=$(bytes_of by_hand)
echo "a further method: $typed bytes, by hand $hand, limit $limit"
[ "$typed" -le "$limit" ] && [ "$hand" -gt 50 ] && [ "$typed" -gt 50 ]
