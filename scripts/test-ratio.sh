#!/usr/bin/env bash
# Prints the size of the tests against the code they cover: non-blank lines of
# sources, build files and scripts under tests/ (fuzz corpora left out)
# against the same under the library, platform, tool and binding folders.
# Fails when the tests pass a third of the code.
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
  find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.hpp' -o -name '*.py' -o -name '*.sh' \
    -o -name '*.cmake' -o -name 'CMakeLists.txt' \) -not -path '*/corpus/*' -print0 | xargs -0 cat | grep -cv '^\s*$'
}
tests=$(count tests)
code=$(count $(ls -d platform TrieLib RouteTable tools python src include 2>/dev/null))
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.2f", t / c }')
echo "test size: $tests non-blank lines of tests, $code of code, ratio $ratio (at most 0.33)"
awk -v t="$tests" -v c="$code" 'BEGIN { exit !(t <= c / 3) }'
