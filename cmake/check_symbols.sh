#!/bin/sh
# Compares the symbols a shared library exports with the checked-in list, so
# that an accidental export or a lost one fails a test. Refresh the lists with
# `make symbols` after a deliberate change of the interface.
lib="$1"; ref="$2"
actual=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBR]$/ {print $3}' \
  | grep -vE '^(__bss_start|_edata|_end|_init|_fini)$|^__(a|ub|t|l)san|^__sanitizer|^__odr_asan' | sort -u)
if [ "$3" = "--write" ]; then printf '%s\n' "$actual" > "$ref"; exit 0; fi
[ -f "$ref" ] || { echo "missing reference list $ref"; exit 1; }
if ! printf '%s\n' "$actual" | diff -u "$ref" - ; then
  echo "exported symbols of $(basename "$lib") differ from $ref (run 'make symbols' if intended)"
  exit 1
fi
echo "exported symbols match ($(printf '%s\n' "$actual" | wc -l))"
