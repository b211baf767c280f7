#!/bin/bash
# Checks who includes whom: each folder may include itself and those of the ranks below its own.
set -u
cd "$1" || exit 1

declare -A rank=([platform]=0 [foundation]=1 [threading]=2 [utilities]=2 [dbus_message]=2 [synchronizer]=2 [timer]=2
    [parser]=3 [process_execution]=3 [queued_processings]=3 [dbus_client]=3 [service]=4 [typed]=5 [diagnostics]=6)
failures=0
checked=0
for folder in "${!rank[@]}"; do
    [ "$folder" = platform ] && continue
    while IFS=: read -r file line included; do
        checked=$((checked + 1))
        [ "$included" = "$folder" ] && continue
        if [ -z "${rank[$included]:-}" ]; then
            echo "$file:$line: includes the unknown folder $included"
            failures=$((failures + 1))
        elif [ "${rank[$included]}" -ge "${rank[$folder]}" ]; then
            echo "$file:$line: $folder may not include $included"
            failures=$((failures + 1))
        fi
    done < <(grep -rnE '^#include (<tern/|")[a-z_]+/' "$folder" "include/tern/$folder" --include='*.h' --include='*.cpp' |
        sed -nE 's!^([^:]+):([0-9]+):#include (<tern/|")([a-z_]+)/.*!\1:\2:\4!p')
done
while IFS= read -r hit; do
    echo "$hit: the platform includes nothing of the framework"
    failures=$((failures + 1))
done < <(grep -rnE '#include <tern/' platform)
echo "$checked includes checked, $failures failures"
[ "$failures" -eq 0 ] && [ "$checked" -gt 20 ]
