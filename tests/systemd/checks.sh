# To be sourced: what the tests of a box share. `failures` counts what failed.
failures=0

ok() { echo "ok $*"; }
fail() {
    echo "FAILED $*"
    failures=$((failures + 1))
}
# is WHAT EXPECTED ACTUAL
is() { [ "$2" = "$3" ] && ok "$1" || fail "$1: '$3' instead of '$2'"; }
# wait_for SECONDS COMMAND...: until the command succeeds; fails when it has not within the time.
wait_for() {
    local seconds=$1
    shift
    for _ in $(seq $((seconds * 20))); do
        "$@" && return 0
        sleep 0.05
    done
    return 1
}
