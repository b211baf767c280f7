#!/bin/bash
# Attacks a service of the library with messages of N MiB (32 unless said otherwise) and prints, for each attack, how
# much the service's memory grew, how much it logged, and how long another client waited. Builds what it needs, without
# debugging aids, in build/release.
#   tests/hostile/measure.sh [N]
set -euo pipefail
cd "$(dirname "$0")/../.."
log=$(mktemp)
trap 'rm -f "$log"' EXIT
{ cmake --preset release -G Ninja && ninja -C build/release tern-hostile tern-hostile-service; } >"$log" 2>&1 ||
    { cat "$log"; exit 1; }
build/release/tests/hostile/tern-hostile --mib "${1:-32}" build/release/tests/hostile/tern-hostile-service
