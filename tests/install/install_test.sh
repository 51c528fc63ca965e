#!/usr/bin/env bash
# Installs a build into a scratch prefix and checks the installed copy: files, SONAME, exported symbols, headers, the
# tool, and examples/writer_reader.cpp built out of tree through find_package (consumer/) and through pkg-config,
# linking libDepotTrie and fmt (which the headers use) and nothing else.
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
so=$lib/libDepotTrie.so.$version
export DEPOT_ROOT=$work/root

fail() { echo "install test: $*" >&2; exit 1; }

# Fails unless a link line (one word a line) names libDepotTrie and no other library but fmt.
linksOnlyTheLibrary() {
  libs=$(grep -E '^-l|\.a$|\.so(\.[0-9]+)*$' <<<"$2" || true)
  grep -qE '^-lDepotTrie$|/libDepotTrie\.so' <<<"$libs" || fail "$1 does not link libDepotTrie:"$'\n'"$libs"
  ! grep -vE '^-lDepotTrie$|/libDepotTrie\.so|^-lfmt$|/libfmt\.so' <<<"$libs" ||
    fail "$1 links more than libDepotTrie and fmt:"$'\n'"$libs"
}

# Runs a program built against the installed copy: it must load the installed
# library, and the writer/reader exchange must come out as it does in the tree.
runExample() {
  local program=$1 out loaded
  loaded=$(ldd "$program" | sed -n 's/^\s*libDepotTrie\.so\S* => \(\S*\) .*/\1/p')
  [ "$(realpath "${loaded:-/}")" = "$(realpath "$so")" ] ||
    fail "$program does not load the installed libDepotTrie: $(ldd "$program" | grep DepotTrie)"
  out=$("$program" installed) || fail "$program failed:"$'\n'"$out"
  grep -qx '  walk: 10.0.0.0/8 10.1.0.0/16 10.200.0.0/16 192.0.2.0/24 2001:db8::/32 2001:db8:1::/48' <<<"$out" ||
    fail "$program: the reader did not see the writer's changes:"$'\n'"$out"
  grep -qx 'writer: dropped installed' <<<"$out" || fail "$program did not drop its trie:"$'\n'"$out"
  [ ! -e "$DEPOT_ROOT/installed/trieNode" ] || fail "$program left its tables behind"
}

cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "cmake --install failed"; }

for f in "$lib/depottrie" "$prefix/include/Depot/SharedTable.h" "$prefix/include/TrieLib/TrieFamily.h"; do [ ! -e "$f" ] || fail "$f installed"; done
for f in "$prefix/share/man/man1/depottrie.1" "$prefix/share/bash-completion/completions/depottrie"; do [ -f "$f" ] || fail "missing $f"; done
IFS=. read -r major minor _ <<<"$version"
soname=libDepotTrie.so.$major && [ "$major" != 0 ] || soname=libDepotTrie.so.0.$minor
[ "$(readlink "$lib/$soname")" = "libDepotTrie.so.$version" ] || fail "$soname does not link to the versioned library"
[ "$(readlink "$lib/libDepotTrie.so")" = "$soname" ] || fail "libDepotTrie.so does not link to $soname"
objdump -p "$so" | grep -q "SONAME *$soname\$" || fail "the library's SONAME is not $soname"

echo "== exported symbols: the installed headers' namespaces and names only"
exported=$(nm -DC --defined-only "$so" | sed -E 's/^\S+ \S+ //')
! grep -vE '^((typeinfo|typeinfo name|vtable) for )?(Routing|Addrkit|Basis|Beat|Depot|Kiln|KilnDepot|depottrie)::' \
  <<<"$exported" || fail "the library exports symbols outside its public namespaces"
while read -r name; do
  grep -rqwF -- "$name" "$prefix/include" || fail "the library exports $name, which no installed header names"
done < <(sed -E 's/^(typeinfo name|typeinfo|vtable) for //; s/\[abi:cxx11\]//g; s/[ (].*//; s/.*::~?//' <<<"$exported" | sort -u)
echo "$(wc -l <<<"$exported") symbols exported"

echo "== the installed headers compile together; no global type names, no unprefixed macros"
export PKG_CONFIG_PATH=$lib/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}
{ echo 'struct U8; struct U16; struct U32; struct U64; struct String;'; find "$prefix/include" -name '*.h' -printf '#include "%P"\n'
  echo "static_assert(DEPOTTRIE_VERSION_MAJOR == $major && std::string_view(DEPOTTRIE_VERSION) == \"$version\");"; } >"$work/headers.cpp"
# shellcheck disable=SC2046  # the flags are meant to split into words
"$cxx" -std=c++20 -Wall -Wextra -fsyntax-only $(pkg-config --cflags depottrie) "$work/headers.cpp" ||
  fail "the installed headers do not compile together"
macros=$(grep -rhoE '^\s*#\s*define\s+\w+' "$prefix/include" | awk '{print $NF}' | grep -v '^DEPOTTRIE_' || true)
[ -z "$macros" ] || fail "installed headers define macros without the DEPOTTRIE_ prefix: $macros"

answers=$(printf 'add 10.0.0.0/8\nadd 2001:db8::/32\nlpm 10.1.2.3/32\nlpm 2001:db8::1/128\n' | "$prefix/bin/depottrie" batch --local)
[ "$answers" = $'10.0.0.0/8\n2001:db8::/32' ] || fail "the installed depottrie answered:"$'\n'"$answers"

echo "== find_package(DepotTrie): configure, build and run the example out of tree"
cmake -S "$here/consumer" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$extra" -DDEPOT_EXAMPLE="$example" >"$work/consumer.log" ||
  { cat "$work/consumer.log"; fail "configuring the consumer project failed"; }
cmake --build "$work/consumer" || fail "building the example against the installed package failed"
linksOnlyTheLibrary "the find_package build" "$(ninja -C "$work/consumer" -t commands writer_reader | tail -n 1 | tr ' ' '\n')"
runExample "$work/consumer/writer_reader"

echo "== pkg-config depottrie: compile, and run with LD_LIBRARY_PATH"
[ "$(pkg-config --modversion depottrie)" = "$version" ] || fail "pkg-config reports version $(pkg-config --modversion depottrie)"
linksOnlyTheLibrary "pkg-config --libs depottrie" "$(pkg-config --libs depottrie | tr ' ' '\n')"
# shellcheck disable=SC2046,SC2086  # the flags are meant to split into words
"$cxx" -std=c++20 -Wall -Wextra $extra $(pkg-config --cflags depottrie) "$example" -o "$work/writer_reader_pc" \
       $(pkg-config --libs depottrie) || fail "compiling with pkg-config flags failed"
LD_LIBRARY_PATH=$lib runExample "$work/writer_reader_pc"

echo "== Debian packages: each one's files and dependencies"
cpack --config "$build/CPackConfig.cmake" -B "$work/deb" >"$work/cpack.log" || { cat "$work/cpack.log"; fail "cpack failed"; }
# debHas PACKAGE FIELD PATTERN...: every pattern matches a line of the package's file list (FIELD files) or field.
debHas() {
  local deb=("$work/deb/$1"_"$version"_*.deb) text pattern
  text=$([ "$2" = files ] && dpkg-deb -c "${deb[0]}" | awk '{print $6}' || dpkg-deb -f "${deb[0]}" "$2")
  for pattern in "${@:3}"; do grep -qE -- "$pattern" <<<"$text" || fail "package $1: no $2 matching $pattern in:"$'\n'"$text"; done
}
debHas depottrie files '/bin/depottrie$' "/libDepotTrie\\.so\\.$version\$" '/man1/depottrie\.1' '/completions/depottrie$'
debHas depottrie Depends 'libc6' 'libstdc\+\+6' 'libfmt[0-9]' 'liblzma5'
debHas depottrie-dev files '/include/RouteTable/RouteTable\.h$' '/libDepotTrie\.so$' '/DepotTrieConfig\.cmake$' '/depottrie\.pc$'
debHas depottrie-dev Depends "depottrie \\(= $version\\)" 'libfmt-dev'
! compgen -G "$build/python/depottrie*.so" >/dev/null || debHas python3-depottrie files '/dist-packages/depottrie\..*\.so$'
! dpkg-deb -c "$work/deb/depottrie_$version"_*.deb | grep -q '/include/' || fail "the runtime package holds headers"
echo "install test: passed"
