# cmake -DDIR=<suite temp folder> -DMODE=clean|check -P suite_tmp.cmake
# clean: removes DEM proxies (*.uai) left by earlier runs; check: fails when
# the tests left any.
file(MAKE_DIRECTORY ${DIR})
file(GLOB_RECURSE proxies ${DIR}/*.uai)
if(MODE STREQUAL "clean")
  if(proxies)
    file(REMOVE ${proxies})
  endif()
elseif(proxies)
  message(FATAL_ERROR "The tests left DEM proxies behind: ${proxies}")
endif()
