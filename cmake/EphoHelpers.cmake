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

# One GoogleTest program; each TEST is a CTest test. INCLUDES are the include
# directories of our own the tests may use (the module's staged headers).
function(epho_add_test_program exe)
  cmake_parse_arguments(A "" "" "SOURCES;INCLUDES" ${ARGN})
  add_executable(${exe} ${A_SOURCES})
  target_include_directories(${exe} PRIVATE ${A_INCLUDES} ${PROJECT_SOURCE_DIR}/testsupport)
  target_compile_definitions(${exe} PRIVATE
    EPHO_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    EPHO_BINARY_DIR="${CMAKE_BINARY_DIR}")
  target_link_libraries(${exe} PRIVATE ${EPHO_STATIC_LIBS} GTest::gtest_main GTest::gmock
                        ${EPHO_EXTERNAL_LINKS})
  gtest_discover_tests(${exe} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT 900 ENVIRONMENT "EPHO_TEST_TMP=${CMAKE_BINARY_DIR}/testtmp"
                       FIXTURES_REQUIRED epho_suite_tmp)
endfunction()

# The suite's temporary folder (test_util.h points TMPDIR there): emptied of
# DEM proxies before the tests, and checked to hold none after them.
function(epho_add_suite_tmp_checks)
  set(dir ${CMAKE_BINARY_DIR}/testtmp)
  add_test(NAME suite_tmp_setup COMMAND ${CMAKE_COMMAND} -DDIR=${dir} -DMODE=clean
           -P ${PROJECT_SOURCE_DIR}/cmake/suite_tmp.cmake)
  add_test(NAME suite_leaves_no_dem_proxies COMMAND ${CMAKE_COMMAND} -DDIR=${dir} -DMODE=check
           -P ${PROJECT_SOURCE_DIR}/cmake/suite_tmp.cmake)
  set_tests_properties(suite_tmp_setup PROPERTIES FIXTURES_SETUP epho_suite_tmp)
  set_tests_properties(suite_leaves_no_dem_proxies PROPERTIES FIXTURES_CLEANUP epho_suite_tmp)
endfunction()

# A *_fuzz.cpp defines LLVMFuzzerTestOneInput. Normal builds link a standalone
# driver and replay testdata/fuzz/<name>/ as a test; EPHO_FUZZ builds libFuzzer.
function(epho_add_fuzzer source includes)
  get_filename_component(stem ${source} NAME_WE)
  if(EPHO_FUZZ)
    add_executable(fuzz_${stem} ${source})
    target_compile_options(fuzz_${stem} PRIVATE -fsanitize=fuzzer)
    target_link_options(fuzz_${stem} PRIVATE -fsanitize=fuzzer)
  else()
    add_executable(fuzz_${stem} ${source} ${PROJECT_SOURCE_DIR}/cmake/fuzz_replay_main.cpp)
    add_test(NAME fuzz_corpus_${stem}
             COMMAND fuzz_${stem} ${PROJECT_SOURCE_DIR}/testdata/fuzz/${stem})
  endif()
  target_include_directories(fuzz_${stem} PRIVATE ${includes})
  target_link_libraries(fuzz_${stem} PRIVATE ${EPHO_STATIC_LIBS} ${EPHO_EXTERNAL_LINKS})
  if(NOT TARGET fuzzers)
    add_custom_target(fuzzers)
  endif()
  add_dependencies(fuzzers fuzz_${stem})
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
  add_test(NAME module_layering_check
           COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cmake/check_module_layering.sh ${CMAKE_CXX_COMPILER}
                   ${CMAKE_BINARY_DIR})
  if(NOT EPHO_SANITIZE)  # the consumer is built without the sanitizer runtime
    add_test(NAME postinstall_consumer
             COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cmake/postinstall/run.sh ${CMAKE_BINARY_DIR}
                     ${CMAKE_CURRENT_SOURCE_DIR})
  endif()
  # No exception crosses an exported C function; the planted pair proves the
  # check refuses a bare throwing function and accepts the sealed one.
  find_program(EPHO_CLANG_TIDY NAMES clang-tidy-14 clang-tidy)
  if(EPHO_CLANG_TIDY)
    set(check ${CMAKE_CURRENT_SOURCE_DIR}/cmake/check_exception_escape.sh)
    set(planted ${CMAKE_CURRENT_SOURCE_DIR}/cmake/exception_escape_planted.cpp)
    add_test(NAME exception_escape_check
             COMMAND ${check} ${CMAKE_BINARY_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
    add_test(NAME exception_escape_planted_throw
             COMMAND ${check} ${CMAKE_BINARY_DIR} ${CMAKE_CURRENT_SOURCE_DIR} --expect-escape
                     ${planted})
    add_test(NAME exception_escape_planted_sealed
             COMMAND ${check} ${CMAKE_BINARY_DIR} ${CMAKE_CURRENT_SOURCE_DIR} ${planted} -DSEALED)
  else()
    message(WARNING "clang-tidy not found: the exception-escape check is not run")
  endif()
  foreach(lib kzdvrasteru kzdvmodlibu kzdvpholibu)
    add_test(NAME exported_symbols_${lib}
             COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cmake/check_symbols.sh $<TARGET_FILE:${lib}>
                     ${CMAKE_CURRENT_SOURCE_DIR}/cmake/exported_symbols/${lib}.txt)
  endforeach()
endfunction()
