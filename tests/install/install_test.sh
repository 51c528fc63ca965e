#!/usr/bin/env bash
# Installs a build into a scratch prefix and uses only the installed copy:
# checks the installed files, runs the installed depottrie, and builds and runs
# examples/writer_reader.cpp outside the tree, once through
# find_package(DepotTrie) (the project in consumer/) and once with the flags
# pkg-config gives for depottrie.
#
#   install_test.sh BUILD_DIR LIBDIR VERSION CXX [EXTRA_CXXFLAGS]
set -euo pipefail

build=$1 libdir=$2 version=$3 cxx=$4 extra=${5:-}
here=$(cd "$(dirname "$0")" && pwd)
example=$here/../../examples/writer_reader.cpp
work=$(mktemp -d "${TMPDIR:-/tmp}/depottrie-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
lib=$prefix/$libdir
export DEPOT_ROOT=$work/root

fail() {
  echo "install test: $*" >&2
  exit 1
}

# Fails unless the program loads libDepotTrie from the installed copy.
loadsInstalledLibrary() {
  local loaded
  loaded=$(ldd "$1" | sed -n 's/^\s*libDepotTrie\.so\S* => \(\S*\) .*/\1/p')
  if [ -z "$loaded" ] || [ "$(realpath "$loaded")" != "$(realpath "$lib/libDepotTrie.so.$version")" ]; then
    fail "$1 does not load the installed libDepotTrie: $(ldd "$1" | grep DepotTrie)"
  fi
}

# Runs a program built against the installed copy: the writer/reader exchange
# must come out as it does in the tree.
runExample() {
  local program=$1 out
  loadsInstalledLibrary "$program"
  out=$("$program" installed) || fail "$program failed:"$'\n'"$out"
  grep -qx '  walk: 10.0.0.0/8 10.1.0.0/16 10.200.0.0/16 192.0.2.0/24 2001:db8::/32 2001:db8:1::/48' <<<"$out" ||
    fail "$program: the reader did not see the writer's changes:"$'\n'"$out"
  grep -qx 'writer: dropped installed' <<<"$out" || fail "$program did not drop its trie:"$'\n'"$out"
  [ ! -e "$DEPOT_ROOT/installed/trieNode" ] || fail "$program left its tables behind"
}

echo "== cmake --install $build --prefix $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "cmake --install failed"; }

echo "== installed files"
for f in "$lib/libDepotTrie.so.$version" "$lib/depottrie/libBasis.a" "$lib/depottrie/libKilnDepot.a" \
         "$prefix/include/TrieLib/DepotTrie.h" "$prefix/include/TrieLib/TrieMount.h" "$prefix/include/Basis/Ptr.h" \
         "$prefix/include/Addrkit/Prefix.h" "$lib/cmake/DepotTrie/DepotTrieConfig.cmake" \
         "$lib/cmake/DepotTrie/DepotTrieConfigVersion.cmake" "$lib/pkgconfig/depottrie.pc" \
         "$prefix/share/man/man1/depottrie.1" "$prefix/share/bash-completion/completions/depottrie"; do
  [ -f "$f" ] || fail "missing $f"
done
soname=libDepotTrie.so.${version%%.*}
[ "$(readlink "$lib/$soname")" = "libDepotTrie.so.$version" ] || fail "$soname does not link to the versioned library"
[ "$(readlink "$lib/libDepotTrie.so")" = "$soname" ] || fail "libDepotTrie.so does not link to $soname"
objdump -p "$lib/libDepotTrie.so.$version" | grep -q "SONAME *$soname\$" || fail "the library's SONAME is not $soname"

echo "== the installed depottrie"
[ -x "$prefix/bin/depottrie" ] || fail "missing $prefix/bin/depottrie"
loadsInstalledLibrary "$prefix/bin/depottrie"
answers=$(printf 'add 10.0.0.0/8\nadd 2001:db8::/32\nlpm 10.1.2.3/32\nlpm 2001:db8::1/128\n' |
          "$prefix/bin/depottrie" batch --local)
[ "$answers" = $'10.0.0.0/8\n2001:db8::/32' ] || fail "depottrie batch answered:"$'\n'"$answers"

echo "== find_package(DepotTrie): configure, build and run the example out of tree"
cmake -S "$here/consumer" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$extra" -DDEPOT_EXAMPLE="$example" >"$work/consumer.log" ||
  { cat "$work/consumer.log"; fail "configuring the consumer project failed"; }
cmake --build "$work/consumer" || fail "building the example against the installed package failed"
runExample "$work/consumer/writer_reader"

echo "== pkg-config depottrie: compile and run the example"
export PKG_CONFIG_PATH=$lib/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}
[ "$(pkg-config --modversion depottrie)" = "$version" ] || fail "pkg-config reports version $(pkg-config --modversion depottrie)"
# shellcheck disable=SC2046,SC2086  # the flags are meant to split into words
"$cxx" -std=c++20 -Wall -Wextra $extra $(pkg-config --cflags depottrie) "$example" -o "$work/writer_reader_pc" \
       $(pkg-config --libs depottrie) -Wl,-rpath,"$lib" || fail "compiling with pkg-config flags failed"
runExample "$work/writer_reader_pc"

echo "install test: passed"
