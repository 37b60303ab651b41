# One place that declares how our libraries, tests and fuzzers are built.

function(epho_set_warnings)
  add_compile_options(-Wall -Wextra)
  if(EPHO_WERROR)
    add_compile_options(-Werror)
  endif()
endfunction()

function(epho_set_sanitizers)
  if(EPHO_SANITIZE)
    string(REPLACE "," ";" _sans "${EPHO_SANITIZE}")
    foreach(s ${_sans})
      add_compile_options(-fsanitize=${s})
      add_link_options(-fsanitize=${s})
    endforeach()
    add_compile_options(-fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fno-sanitize-recover=undefined)
  endif()
endfunction()

# Sources of a folder: every .cpp that is not a test, a fuzzer or a benchmark.
function(epho_sources_in out)
  set(all "")
  foreach(dir ${ARGN})
    file(GLOB s CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp
                                  ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.c)
    list(FILTER s EXCLUDE REGEX "_(test|fuzz|bench)\\.(cpp|c)$")
    list(APPEND all ${s})
  endforeach()
  set(${out} ${all} PARENT_SCOPE)
endfunction()

# epho_add_library(name DIRS ... INCLUDES ... LINKS ...)
# Builds name_obj (objects), name (shared, hidden visibility) and name_static.
function(epho_add_library name)
  cmake_parse_arguments(A "" "" "DIRS;INCLUDES;LINKS" ${ARGN})
  epho_sources_in(srcs ${A_DIRS})
  if(NOT srcs)
    set(stub ${CMAKE_CURRENT_BINARY_DIR}/${name}_empty.cpp)
    file(WRITE ${stub} "// no sources yet\n")
    set(srcs ${stub})
  endif()
  add_library(${name}_obj OBJECT ${srcs})
  target_include_directories(${name}_obj PUBLIC
    $<BUILD_INTERFACE:${A_INCLUDES}>
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/platform/include>
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/modlib/include>
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>)
  set(objlinks "")
  foreach(l ${A_LINKS})
    if(TARGET ${l}_obj)
      list(APPEND objlinks ${l}_obj)
    else()
      list(APPEND objlinks ${l})
    endif()
  endforeach()
  target_link_libraries(${name}_obj PUBLIC ${objlinks})

  add_library(${name} SHARED $<TARGET_OBJECTS:${name}_obj>)
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 0)
  target_link_libraries(${name} PUBLIC ${A_LINKS})
  target_include_directories(${name} INTERFACE
    $<BUILD_INTERFACE:${A_INCLUDES}>
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/platform/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/kzdvrasteru>)

  set(staticlinks "")
  foreach(l ${A_LINKS})
    if(TARGET ${l}_static)
      list(APPEND staticlinks ${l}_static)
    else()
      list(APPEND staticlinks ${l})
    endif()
  endforeach()
  add_library(${name}_static STATIC $<TARGET_OBJECTS:${name}_obj>)
  target_link_libraries(${name}_static PUBLIC ${name}_obj ${staticlinks})
endfunction()

set(EPHO_STATIC_LIBS kzdvpholibu_static kzdvmodlibu_static kzdvrasteru_static)

# One test program per folder holding *_test.cpp files; each TEST is a CTest test.
function(epho_add_tests_in dir)
  file(GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*_test.cpp)
  if(NOT tests)
    return()
  endif()
  string(REPLACE "/" "_" tname "${dir}")
  set(exe test_${tname})
  set(extra "")
  if(dir STREQUAL "tools/epho")
    file(GLOB extra CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tools/epho/*.cpp)
    list(FILTER extra EXCLUDE REGEX "(_test|main)\\.cpp$")
  endif()
  add_executable(${exe} ${tests} ${extra})
  target_include_directories(${exe} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/testsupport
                                            ${CMAKE_CURRENT_SOURCE_DIR}/tools/epho)
  target_compile_definitions(${exe} PRIVATE
    EPHO_SOURCE_DIR="${CMAKE_CURRENT_SOURCE_DIR}"
    EPHO_BINARY_DIR="${CMAKE_BINARY_DIR}")
  target_link_libraries(${exe} PRIVATE ${EPHO_STATIC_LIBS} GTest::gtest_main GTest::gmock
                        GDAL::GDAL PROJ::proj Eigen3::Eigen Boost::headers Threads::Threads)
  gtest_discover_tests(${exe} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT 900 ENVIRONMENT "EPHO_TEST_TMP=${CMAKE_BINARY_DIR}/testtmp")
endfunction()

# *_fuzz.cpp defines LLVMFuzzerTestOneInput. Normal builds link a standalone
# driver and replay testdata/fuzz/<name>/ as a test; EPHO_FUZZ builds libFuzzer.
function(epho_add_fuzzers_in dir)
  file(GLOB fuzzers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*_fuzz.cpp)
  foreach(f ${fuzzers})
    get_filename_component(stem ${f} NAME_WE)
    if(EPHO_FUZZ)
      add_executable(fuzz_${stem} ${f})
      target_compile_options(fuzz_${stem} PRIVATE -fsanitize=fuzzer)
      target_link_options(fuzz_${stem} PRIVATE -fsanitize=fuzzer)
    else()
      add_executable(fuzz_${stem} ${f} ${CMAKE_CURRENT_SOURCE_DIR}/cmake/fuzz_replay_main.cpp)
      add_test(NAME fuzz_corpus_${stem}
               COMMAND fuzz_${stem} ${CMAKE_CURRENT_SOURCE_DIR}/testdata/fuzz/${stem})
    endif()
    target_link_libraries(fuzz_${stem} PRIVATE ${EPHO_STATIC_LIBS} GDAL::GDAL PROJ::proj
                          Eigen3::Eigen Boost::headers Threads::Threads)
    if(NOT TARGET fuzzers)
      add_custom_target(fuzzers)
    endif()
    add_dependencies(fuzzers fuzz_${stem})
  endforeach()
endfunction()

# The exported C headers must compile as C, and the shared libraries must
# export exactly the symbols listed in cmake/exported_symbols/<lib>.txt.
function(epho_add_symbol_and_c_header_checks)
  add_executable(c_header_check ${CMAKE_CURRENT_SOURCE_DIR}/cmake/c_header_check.c)
  target_include_directories(c_header_check PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/include
                             ${CMAKE_CURRENT_SOURCE_DIR}/platform/include
                             ${CMAKE_CURRENT_SOURCE_DIR}/modlib/include)
  target_link_libraries(c_header_check PRIVATE kzdvpholibu kzdvmodlibu kzdvrasteru)
  add_test(NAME c_header_check COMMAND c_header_check)
  if(NOT EPHO_SANITIZE)  # the consumer is built without the sanitizer runtime
    add_test(NAME postinstall_consumer
             COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cmake/postinstall/run.sh ${CMAKE_BINARY_DIR}
                     ${CMAKE_CURRENT_SOURCE_DIR})
  endif()
  foreach(lib kzdvrasteru kzdvmodlibu kzdvpholibu)
    add_test(NAME exported_symbols_${lib}
             COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cmake/check_symbols.sh $<TARGET_FILE:${lib}>
                     ${CMAKE_CURRENT_SOURCE_DIR}/cmake/exported_symbols/${lib}.txt)
  endforeach()
endfunction()
