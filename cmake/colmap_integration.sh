#!/bin/sh
# Blocks through COLMAP itself: `make test-integration`.
#
# 1. The checked-in COLMAP model goes through `colmap model_converter` to the
#    binary model and back to text; imported, the converted model must give
#    the same block as the original (their exports are compared).
# 2. The hand-written sample project is imported, triangulated and exported;
#    COLMAP converts the export to binary and back; imported again (with the
#    control file, which COLMAP cannot carry) and exported, it must give the
#    same files as the first export (numbers to 1e-9: the block keeps
#    orientation angles, so a pose comes back to the last bits).
# Usage: colmap_integration.sh EPHO_BINARY SOURCE_DIR. Without `colmap` on
# the PATH it says so and exits 0.
set -eu
EPHO=$1
SRC=$2
if ! command -v colmap >/dev/null 2>&1; then
  echo "colmap integration: skipped, the colmap program is not installed"
  exit 0
fi
WORK=$(mktemp -d "${TMPDIR:-/tmp}/colmap_integration.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
DATA=$SRC/testdata/interchange

convert() {  # text model $1 -> binary -> text model $2, by COLMAP
  mkdir -p "$2.bin" "$2"
  colmap model_converter --input_path "$1" --output_path "$2.bin" --output_type BIN >"$WORK/colmap.log" 2>&1 ||
    { cat "$WORK/colmap.log"; exit 1; }
  colmap model_converter --input_path "$2.bin" --output_path "$2" --output_type TXT >"$WORK/colmap.log" 2>&1 ||
    { cat "$WORK/colmap.log"; exit 1; }
}

same() {  # the three files of two text models agree: words equal, numbers to 1e-9
  for f in cameras.txt images.txt points3D.txt; do
    if ! /usr/bin/python3 - "$1/$f" "$2/$f" <<'PY'
import sys
a, b = (open(p).read().split("\n") for p in sys.argv[1:3])
def same(x, y):
    if x == y:
        return True
    try:
        u, v = float(x), float(y)
    except ValueError:
        return False
    return abs(u - v) <= 1e-9 * max(1.0, abs(u))
bad = [n + 1 for n, (x, y) in enumerate(zip(a, b))
       if len(x.split()) != len(y.split()) or not all(map(same, x.split(), y.split()))]
if len(a) != len(b) or bad:
    print("lines differ:", bad[:10] if bad else "line counts %d, %d" % (len(a), len(b)))
    sys.exit(1)
PY
    then
      echo "colmap integration: $3: $f differs"
      exit 1
    fi
  done
}

# 1. COLMAP's own files.
convert "$DATA/colmap" "$WORK/sample"
"$EPHO" block import "$WORK/original.blk" --colmap "$DATA/colmap"
"$EPHO" block import "$WORK/converted.blk" --colmap "$WORK/sample"
"$EPHO" block export "$WORK/original.blk" --colmap "$WORK/original.out"
"$EPHO" block export "$WORK/converted.blk" --colmap "$WORK/converted.out"
same "$WORK/original.out" "$WORK/converted.out" "the sample converted by COLMAP"

# 2. A block of ours.
"$EPHO" block import "$WORK/strip.blk" --project "$DATA/project/project.txt"
"$EPHO" triangulate "$WORK/strip.blk" --report "$WORK/report.txt"
"$EPHO" block export "$WORK/strip.blk" --colmap "$WORK/strip.out"
convert "$WORK/strip.out" "$WORK/strip.colmap"
"$EPHO" block import "$WORK/again.blk" --colmap "$WORK/strip.colmap" --control "$DATA/project/control.txt"
"$EPHO" block export "$WORK/again.blk" --colmap "$WORK/again.out"
same "$WORK/strip.out" "$WORK/again.out" "an exported block converted by COLMAP"
echo "colmap integration: passed (COLMAP $(colmap -h 2>/dev/null | sed -n '1s/^COLMAP \([^ ]*\).*/\1/p'))"
