#!/bin/bash
# Gets dbus-next from npm, once, and runs it against the type gallery; 77 where it cannot be got.
#   peer.sh FOLDER_TO_INSTALL_IN
set -u
source=$(cd "$(dirname "$0")" && pwd)
folder=$1
for program in node npm python3; do
    command -v "$program" >/dev/null || { echo "dbus-next is not tried: there is no $program"; exit 77; }
done
mkdir -p "$folder"
if ! cmp -s "$source/package-lock.json" "$folder/installed"; then
    cp "$source"/package.json "$source"/package-lock.json "$folder/"
    # No program of the packages is run. Without the optional one it sends no descriptors.
    if ! (cd "$folder" && timeout 60 npm ci --ignore-scripts --omit=optional --no-audit --no-fund >npm.log 2>&1); then
        echo "dbus-next is not tried: npm cannot get it:"
        tail -3 "$folder/npm.log"
        exit 77
    fi
    cp "$source/package-lock.json" "$folder/installed"
fi
NODE_PATH=$folder/node_modules exec node "$source/peer.js"
