#!/bin/bash
# Doxygen over the public headers: without a single warning, an undocumented member is one.
#   reference_test.sh SOURCE_FOLDER
set -u
cd "$1" || exit 1
command -v doxygen >/dev/null || { echo "SKIPPED: the package doxygen is missing"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
reference() { { cat docs/Doxyfile; echo "OUTPUT_DIRECTORY = $work/$1"; shift; printf '%s\n' "$@"; } | doxygen - 2>&1; }

warnings=$(reference out)
pages=$(find "$work/out/html" -name '*.html' | wc -l)
missing=$(find include -name '*.h' | while read -r header; do
    grep -qE '^(class|struct) TERN_API' "$header" || continue
    grep -qF "$(basename "$header")" "$work"/out/html/files.html || echo "$header"
done)
# A header with a mistake has to be noticed, else this test proves nothing.
printf '/// Tested.\nclass Tested {\npublic:\n    void Undocumented();\n};\n' >"$work/tested.h"
control=$(reference control "INPUT += $work/tested.h")

failures=0
[ -z "$warnings" ] || { echo "$warnings"; failures=1; }
[ "$pages" -gt 100 ] || { echo "only $pages pages"; failures=1; }
[ -z "$missing" ] || { echo "not in the reference: $missing"; failures=1; }
grep -q 'Undocumented.*is not documented' <<<"$control" || { echo "a mistake is not noticed: $control"; failures=1; }
echo "$pages pages, failed: $failures"
exit $failures
