#!/bin/bash
# What a place that tells costs while nobody listens, in the compiler's own code: one load and one branch.
#   tell_cost_test.sh SOURCE_FOLDER COMPILER
set -eu
source_folder=$1 compiler=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

cat >"$folder/place.cpp" <<'END'
#ifdef TELLS
#include "foundation/tell.h"
#else
#define TERN_TELL(event, probe, object, value) static_cast<void>(0)
#endif
// As the library's own places: between two calls, so that registers are saved anyway.
struct Queue {
    void Work(unsigned long size);
    unsigned long a = 0;
};
void Lock(Queue* queue);
void Unlock(Queue* queue);
void Queue::Work(unsigned long size) {
    Lock(this);
    a += size;
    TERN_TELL(JobQueued, job_queued, this, a * 3);
    Unlock(this);
}
// With further places, as a function of one place is put there anyway.
void Begin(Queue* queue) { Lock(queue); TERN_TELL(JobBegan, job_began, queue, queue->a); Unlock(queue); }
void Finish(Queue* queue) { Lock(queue); TERN_TELL(JobEnded, job_ended, queue, 0); Unlock(queue); }
END
# count FLAGS...: instructions of the function up to its first way out: what runs while nobody listens.
count() {
    "$compiler" -std=c++20 $optimise -fPIC -fvisibility=hidden -I"$source_folder" -I"$source_folder/include" "$@" -c \
        "$folder/place.cpp" -o "$folder/place.o"
    objdump -d --no-show-raw-insn "$folder/place.o" | sed -n '/<_ZN5Queue4WorkEm>:/,/\(ret\|jmp\)/p' | grep -P '^\s*[0-9a-f]+:\t' |
        cut -f2- >"$folder/code"
    wc -l <"$folder/code"
}
# show FLAG WITHOUT WITH
show() {
    cat "$folder/code"
    reads=$(grep -c '(%rip)' "$folder/code")
    branches=$(grep -cE '^j[a-ln-z]' "$folder/code")
    echo "$1: without: $2 instructions, with: $3, of these $reads reads of the listener, $branches branches"
    [ "$2" -ge 3 ] && [ "$reads" -eq 1 ] && [ "$branches" -eq 1 ]
}
optimise=-O2
without=$(count)
with=$(count -DTELLS)
show -O2 "$without" "$with"
# The load, the test and the branch; clang++ needs one more, as it does not add to memory in one instruction then.
[ $((with - without)) -le 4 ] && [ $((with - without)) -ge 2 ]
# Much of the library is made small. What is done for a listener may stand within the way then, and be jumped over; but
# nothing is called to find out whether there is one.
optimise=-Os
without=$(count)
with=$(count -DTELLS)
show -Os "$without" "$with"
! nm -C "$folder/place.o" | grep 'IsOn'
