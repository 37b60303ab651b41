#!/bin/sh
# Installs the build into a scratch prefix, then builds a consumer with
# find_package(kzdvpholibu) and another with pkg-config, and runs both.
set -eu
build="$1"; src="$2"
prefix="$build/postinstall/prefix"
rm -rf "$build/postinstall"
cmake --install "$build" --prefix "$prefix" >/dev/null
# The installed headers are the C interface and the exported classes, never
# the libraries' internal C++ helpers.
if grep -rlE 'namespace kzdv|ErrorFrame|platform/' "$prefix/include"; then
  echo "internal headers or helpers were installed" >&2
  exit 1
fi
cmake -S "$src/cmake/postinstall" -B "$build/postinstall/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$build/postinstall/cmake" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$build/postinstall/cmake/consumer"
libdir=$(ls -d "$prefix"/lib*/pkgconfig | head -n1)
PKG_CONFIG_PATH="$libdir" c++ -std=c++17 "$src/cmake/postinstall/consumer.cpp" \
  -o "$build/postinstall/consumer_pc" $(PKG_CONFIG_PATH="$libdir" pkg-config --define-prefix --cflags --libs kzdvpholibu)
LD_LIBRARY_PATH="$(dirname "$libdir")" "$build/postinstall/consumer_pc"
# The Python package, when it was built: imported from the installed tree
# alone (its RPATH finds the installed libraries, no LD_LIBRARY_PATH).
pkg="$prefix/lib/python3/dist-packages"
if [ -d "$pkg/kzdvpholibu" ]; then
  env -u LD_LIBRARY_PATH PYTHONPATH="$pkg" /usr/bin/python3 -c '
import os, sys, numpy as np, kzdvpholibu as k
assert k.__file__.startswith(sys.argv[1]), k.__file__
r = k.rotation_matrix(np.zeros(3))
assert np.array_equal(r, np.eye(3)), r
try:
    k.read_camera_file("/nonexistent/camera.cam")
except k.Error:
    pass
else:
    raise SystemExit("no error raised")
' "$pkg"
fi
