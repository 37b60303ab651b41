#!/bin/sh
# No C++ exception may leave an exported C function: each is noexcept and
# ends in the error frame's EERR_BOUNDARY (or cannot throw at all). This runs
# clang-tidy's bugprone-exception-escape, which follows every throw it can see
# through the translation unit, over the sources that define exported
# functions (those carrying KZDV_NOEXCEPT), with the build's compile commands.
#
#   check_exception_escape.sh <build dir> <source dir>            the tree
#   check_exception_escape.sh <build dir> <source dir> [--expect-escape] <file> [compiler args]
#       one file outside the build (the planted test), compiled with the args;
#       --expect-escape: succeed only when the check refuses the file
set -eu
build="$1"; src="$2"; shift 2
tidy=$(command -v clang-tidy-14 || command -v clang-tidy || true)
if [ -z "$tidy" ]; then
  echo "clang-tidy is not installed" >&2
  exit 1
fi
# -w: the compiler's own warnings are the build's business, not this check's.
run() {
  "$tidy" --quiet --checks='-*,bugprone-exception-escape' --warnings-as-errors='*' \
    --extra-arg=-w "$@"
}
if [ $# -gt 0 ]; then
  expect=""
  if [ "$1" = "--expect-escape" ]; then expect=1; shift; fi
  file="$1"; shift
  status=0
  out=$(run "$file" -- -std=c++17 -I"$src" -I"$src/platform/include" "$@" 2>&1) || status=$?
  printf '%s\n' "$out"
  [ -z "$expect" ] && exit $status
  # Refused for the right reason, not because the file did not compile.
  if [ $status -ne 0 ] && printf '%s' "$out" | grep -q 'bugprone-exception-escape' &&
     ! printf '%s' "$out" | grep -q 'clang-diagnostic-error'; then
    echo "the planted escape was refused"
    exit 0
  fi
  echo "the planted escape was NOT refused" >&2
  exit 1
fi
files=$(cd "$src" && { git ls-files 'platform/*.cpp' 'epho/*.cpp' 'modlib/*.cpp' 2>/dev/null ||
                        find platform epho modlib -name '*.cpp'; })
list=""
for f in $files; do
  case "$f" in *_test.cpp|*_fuzz.cpp) continue ;; esac
  grep -q KZDV_NOEXCEPT "$src/$f" && list="$list $src/$f"
done
[ -n "$list" ] || { echo "no sources with exported functions found" >&2; exit 1; }
jobs=$(nproc 2>/dev/null || echo 2)
# One clang-tidy per file, two at a time; any finding fails the check.
printf '%s\n' $list | xargs -P "$jobs" -n 4 sh -c 'b=$1; shift
  "$0" --quiet --checks="-*,bugprone-exception-escape" --warnings-as-errors="*" \
       --extra-arg=-w -p "$b" "$@"' "$tidy" "$build" >"$build/exception_escape.log" 2>&1 || {
  cat "$build/exception_escape.log"
  exit 1
}
echo "exception-escape: $(printf '%s\n' $list | wc -l) files clean"
