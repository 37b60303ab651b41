# Modules: one folder (or a few tightly bound ones), one object library, one
# test program. A module sees only the headers of itself and of the modules it
# declares (transitively), so the layering is checked by the compiler:
#
#   epho_add_module(matching LIBRARY kzdvpholibu DIRS epho/matching
#                   HEADERS include/epho/matching.h DEPS core kernel)
#
# Three kinds of header, told apart by place and name:
#   - public (HEADERS): installed, included by their installed name
#     ("eerr.h", "epho/matching.h");
#   - module interface: any other .h/.hpp in the module's folders, included by
#     its full source path ("platform/efio/atomic_file.h"); visible to the
#     modules that depend on this one, never installed;
#   - private: "*_internal.h", visible to the module itself (and its tests).
#
# The headers a module may see are linked into build/module_include/<name>/,
# which is the module's only include directory of our own. Modules must be
# declared after the modules they depend on.

set(EPHO_PUBLIC_ROOTS platform/include modlib/include include)

function(_epho_include_name out path)
  set(name ${path})
  foreach(root ${EPHO_PUBLIC_ROOTS})
    if(path MATCHES "^${root}/")
      string(LENGTH "${root}/" n)
      string(SUBSTRING ${path} ${n} -1 name)
      break()
    endif()
  endforeach()
  set(${out} ${name} PARENT_SCOPE)
endfunction()

function(_epho_stage_headers dir)
  foreach(path ${ARGN})
    _epho_include_name(name ${path})
    get_filename_component(parent ${dir}/${name} DIRECTORY)
    file(MAKE_DIRECTORY ${parent})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${path} ${dir}/${name} SYMBOLIC)
  endforeach()
endfunction()

# External libraries every module may use.
set(EPHO_EXTERNAL_LINKS GDAL::GDAL PROJ::proj Eigen3::Eigen Boost::headers Threads::Threads)

function(epho_add_module name)
  cmake_parse_arguments(A "" "LIBRARY" "DIRS;HEADERS;DEPS;TEST_DEPS" ${ARGN})
  foreach(d ${A_DEPS} ${A_TEST_DEPS})
    get_property(known GLOBAL PROPERTY EPHO_MODULE_${d}_CLOSURE SET)
    if(NOT known)
      message(FATAL_ERROR "Module ${name} depends on ${d}, which is not declared before it")
    endif()
  endforeach()

  # What this module shows to its dependents, and what it keeps to itself.
  set(interface ${A_HEADERS})
  set(private "")
  foreach(dir ${A_DIRS})
    file(GLOB hs RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
         ${PROJECT_SOURCE_DIR}/${dir}/*.h ${PROJECT_SOURCE_DIR}/${dir}/*.hpp)
    foreach(h ${hs})
      if(h MATCHES "_internal\\.h$")
        list(APPEND private ${h})
      else()
        list(APPEND interface ${h})
      endif()
    endforeach()
  endforeach()
  set_property(GLOBAL PROPERTY EPHO_MODULE_${name}_INTERFACE ${interface})

  set(closure ${name})
  foreach(d ${A_DEPS})
    get_property(c GLOBAL PROPERTY EPHO_MODULE_${d}_CLOSURE)
    list(APPEND closure ${c})
  endforeach()
  list(REMOVE_DUPLICATES closure)
  set_property(GLOBAL PROPERTY EPHO_MODULE_${name}_CLOSURE ${closure})

  set(stage ${CMAKE_BINARY_DIR}/module_include/${name})
  file(REMOVE_RECURSE ${stage})
  foreach(m ${closure})
    get_property(hs GLOBAL PROPERTY EPHO_MODULE_${m}_INTERFACE)
    _epho_stage_headers(${stage} ${hs})
  endforeach()
  _epho_stage_headers(${stage} ${private})

  epho_sources_in(srcs ${A_DIRS})
  add_library(module_${name} OBJECT ${srcs})
  target_include_directories(module_${name} PRIVATE ${stage})
  target_link_libraries(module_${name} PRIVATE ${EPHO_EXTERNAL_LINKS})
  set_property(GLOBAL APPEND PROPERTY EPHO_LIBRARY_${A_LIBRARY}_MODULES ${name})

  if(EPHO_TESTS)
    set(test_stage ${stage})
    if(A_TEST_DEPS)
      set(test_stage ${CMAKE_BINARY_DIR}/module_include/${name}_test)
      file(REMOVE_RECURSE ${test_stage})
      set(tclosure ${closure})
      foreach(d ${A_TEST_DEPS})
        get_property(c GLOBAL PROPERTY EPHO_MODULE_${d}_CLOSURE)
        list(APPEND tclosure ${c})
      endforeach()
      list(REMOVE_DUPLICATES tclosure)
      foreach(m ${tclosure})
        get_property(hs GLOBAL PROPERTY EPHO_MODULE_${m}_INTERFACE)
        _epho_stage_headers(${test_stage} ${hs})
      endforeach()
      _epho_stage_headers(${test_stage} ${private})
    endif()
    set(tests "")
    set(fuzzers "")
    foreach(dir ${A_DIRS})
      file(GLOB t CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${dir}/*_test.cpp)
      file(GLOB f CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${dir}/*_fuzz.cpp)
      list(APPEND tests ${t})
      list(APPEND fuzzers ${f})
    endforeach()
    if(tests)
      epho_add_test_program(test_${name} SOURCES ${tests} INCLUDES ${test_stage})
    endif()
    foreach(f ${fuzzers})
      epho_add_fuzzer(${f} ${test_stage})
    endforeach()
  endif()
endfunction()

# The shipped libraries, assembled from their modules' objects: `name` is
# shared (hidden visibility), `name_static` is what tests, fuzzers,
# benchmarks and the tool link to reach internals.
function(epho_add_library name)
  cmake_parse_arguments(A "" "" "LINKS;HIDDEN" ${ARGN})
  get_property(modules GLOBAL PROPERTY EPHO_LIBRARY_${name}_MODULES)
  set(objects "")
  foreach(m ${modules})
    list(APPEND objects $<TARGET_OBJECTS:module_${m}>)
  endforeach()

  # HIDDEN: object libraries of stateless internal helpers that the shared
  # library carries as its own hidden copy (the static libraries get them from
  # the library below).
  set(hidden "")
  foreach(h ${A_HIDDEN})
    list(APPEND hidden $<TARGET_OBJECTS:${h}>)
  endforeach()
  add_library(${name} SHARED ${objects} ${hidden})
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 0)
  if(NOT EPHO_SANITIZE)
    # Every symbol a shipped library uses must resolve at link time: a hidden
    # symbol of another library fails here, not in a consumer.
    target_link_options(${name} PRIVATE -Wl,-z,defs)
  endif()
  target_link_libraries(${name} PUBLIC ${A_LINKS} ${EPHO_EXTERNAL_LINKS})
  set(build_includes "")
  foreach(root ${EPHO_PUBLIC_ROOTS})
    list(APPEND build_includes ${PROJECT_SOURCE_DIR}/${root})
  endforeach()
  target_include_directories(${name} INTERFACE
    $<BUILD_INTERFACE:${build_includes}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/kzdvrasteru>)

  set(static_links "")
  foreach(l ${A_LINKS})
    list(APPEND static_links ${l}_static)
  endforeach()
  add_library(${name}_static STATIC ${objects})
  target_link_libraries(${name}_static PUBLIC ${static_links} ${EPHO_EXTERNAL_LINKS})
endfunction()

# Programs above every module (the tool, benchmarks) see every header.
function(epho_add_all_headers_target)
  add_library(epho_all_headers INTERFACE)
  set(dirs ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/testsupport)
  foreach(root ${EPHO_PUBLIC_ROOTS})
    list(APPEND dirs ${PROJECT_SOURCE_DIR}/${root})
  endforeach()
  target_include_directories(epho_all_headers INTERFACE ${dirs})
endfunction()
