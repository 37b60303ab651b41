#!/usr/bin/env bash
# A module sees only the headers of the modules it declares. Compile a line
# that includes a declared header (must build) and one that reaches across the
# layering (must not), each against a module's staged include directory.
#   check_module_layering.sh CXX BUILD_DIR
set -u
cxx=$1 build=$2
status=0
expect() {  # expect ok|fail module header
  local want=$1 module=$2 header=$3
  if echo "#include \"$header\"" | "$cxx" -std=c++17 -fsyntax-only -x c++ \
       -I "$build/module_include/$module" - 2>/dev/null; then got=ok; else got=fail; fi
  if [ "$got" != "$want" ]; then
    echo "module $module including $header: expected $want, got $got"; status=1
  fi
}
expect ok   kernel   epho/angles.h
expect fail kernel   epho/matching.h            # the kernel sits below matching
expect fail kernel   eimg.h                     # and does not read rasters
expect ok   matching epho/matching/ncc_internal.h
expect fail pyramid  epho/matching/ncc_internal.h   # another module's private header
expect fail core     ehfa.h                     # the toolkit core depends on nothing
expect ok   ehfa     platform/emif/object_codec.h    # a module interface of a declared module
expect fail eimg     platform/emif/object_codec.h    # ... but not of an undeclared one
expect fail ehfa     platform/emif/design_internal.h # nor the layouts private to emif
[ $status = 0 ] && echo "module layering holds"
exit $status
