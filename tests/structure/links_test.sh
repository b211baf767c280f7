#!/bin/bash
# What the documents point at exists: their links and the files of the project that they name; every page of docs/ is
# linked from the README; the change log begins with the version that is built; CI's command is CI's.
#   links_test.sh SOURCE_FOLDER
set -u
cd "$1" || exit 1
failures=0
checked=0
fail() {
    echo "$*"
    failures=$((failures + 1))
}

for page in README.md CONTRIBUTING.md CHANGELOG.md docs/*.md; do
    folder=$(dirname "$page")
    while IFS= read -r target; do
        case $target in http://* | https://* | '') continue ;; esac
        checked=$((checked + 1))
        [ -e "$folder/${target%%#*}" ] || fail "$page: nothing at $target"
    done < <(grep -oE '\]\([^)# ]+[^) ]*\)' "$page" | sed 's/^](//; s/)$//')
    # Names in code marks; what a build writes, and what is only shown, is not in the project.
    while IFS= read -r name; do
        case $name in *[\*\<\{]* | *FOLDER* | *CLASS* | *PRESET* | *NAME* | *ARCH* | build/*) continue ;; esac
        checked=$((checked + 1))
        [ -e "$name" ] || [ -e "$folder/$name" ] || fail "$page: there is no $name"
    done < <(grep -oE '`[^` ]+[` ]' "$page" | tr -d '` ' |
        grep -E '^(docs|scripts|tests|examples|cmake|packaging|abi|include|fuzz|benchmarks|\.ci)/.')
done
for page in docs/*.md; do
    grep -qF "]($page)" README.md || fail "README.md does not link $page"
done
# Every option of the build is explained.
for option in $(grep -hoE '^(option|set)\(TERN_[A-Z_]+ .*' CMakeLists.txt cmake/*.cmake | grep -E '^option|CACHE' |
    grep -oE 'TERN_[A-Z_]+' | sort -u | grep -vE '^TERN_(EXPORTS|PACKAGE_DIR)$'); do
    grep -qF "| \`$option\` |" docs/installing.md || fail "docs/installing.md does not explain $option"
done
# What the README calls CI's command is that.
grep -qF "(\`$(tail -n 1 .ci/run)\`, which is what CI" README.md || fail "README.md: CI ends with another command: $(tail -n 1 .ci/run)"
# The version stands in CMakeLists.txt; the change log begins with it.
version=$(sed -n 's/^project(.*VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
grep -m1 '^## ' CHANGELOG.md | grep -qE "^## ${version//./\\.} \(" || fail "CHANGELOG.md does not begin with $version"
echo "$checked links and names checked, $failures failures"
[ "$failures" -eq 0 ] && [ "$checked" -gt 20 ]
