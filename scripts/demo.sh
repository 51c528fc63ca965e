#!/usr/bin/env bash
# Loads the sample route tables into a shared trie, answers lookups and a
# timed run of random lookups from separate reader processes, prints a short
# report and drops the trie. Usage: scripts/demo.sh BUILD_DIR
set -euo pipefail

build=${1:?usage: scripts/demo.sh BUILD_DIR}
tool="$build/tools/depottrie/depottrie"
top=$(cd "$(dirname "$0")/.." && pwd)
[ -x "$tool" ] || { echo "demo: $tool is not built" >&2; exit 1; }

# A private root unless the caller chose one.
own_root=
if [ -z "${DEPOT_ROOT:-}" ]; then
  base=/dev/shm
  [ -d "$base" ] && [ -w "$base" ] || base=${TMPDIR:-/tmp}
  DEPOT_ROOT=$(mktemp -d "$base/depottrie-demo.XXXXXX")
  own_root=1
fi
export DEPOT_ROOT
cleanup() {
  "$tool" drop --name demo >/dev/null 2>&1 || true
  if [ -n "$own_root" ]; then rm -rf "$DEPOT_ROOT"; fi
}
trap cleanup EXIT

echo "== loading data/routes-v4.txt.xz and data/routes-v6.txt.xz into trie 'demo' under $DEPOT_ROOT"
load_out=$("$tool" load --name demo "$top/data/routes-v4.txt.xz" "$top/data/routes-v6.txt.xz")
echo "$load_out"

echo
echo "== sample lookups (a separate reader process)"
"$tool" lookup --name demo 8.8.8.8 1.1.1.1 193.0.14.129 10.1.2.3 2001:4860:4860::8888 2606:4700:4700::1111 2001:db8::1

echo
echo "== the stored prefixes under 1.0.0.0/22"
"$tool" list --name demo --under 1.0.0.0/22

echo
echo "== one million random lookups per family (a separate reader process)"
bench_out=$("$tool" bench --name demo --count 1000000)
echo "$bench_out"

echo
echo "== structure check"
check_out=$("$tool" check --name demo)
echo "$check_out"

echo
echo "== report"
echo "$load_out" | sed 's/^/  /'
echo "$bench_out" | sed 's/^/  /'
echo "  $check_out"

"$tool" drop --name demo
