# One static library per subsystem folder. Sources are the folder's *.cpp files;
# *_test.cpp files are that module's unit tests and *_main.cpp files hold program
# entry points, so neither goes into the library.
#
# The system's layers call each other both ways through singletons (the system
# manager drives every manager, and the managers report back to it), so programs
# link the whole stack as one rescanned group: ESA_STACK.
set(ESA_MODULES "" CACHE INTERNAL "")
set(ESA_TEST_SOURCES "" CACHE INTERNAL "")

function(esa_module name)
  cmake_parse_arguments(M "" "" "DIRS" ${ARGN})
  set(srcs "")
  set(tests "")
  foreach(dir ${M_DIRS})
    file(GLOB found CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${dir}/*.cpp ${CMAKE_SOURCE_DIR}/${dir}/*.c)
    foreach(f ${found})
      if(f MATCHES "_test\\.cpp$")
        list(APPEND tests ${f})
      elseif(NOT f MATCHES "_main\\.cpp$")
        list(APPEND srcs ${f})
      endif()
    endforeach()
  endforeach()
  if(NOT srcs)
    set(stub ${CMAKE_BINARY_DIR}/empty_${name}.cpp)
    file(WRITE ${stub} "// ${name} has no sources yet\n")
    list(APPEND srcs ${stub})
  endif()
  add_library(${name} STATIC ${srcs})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC Threads::Threads nlohmann_json::nlohmann_json)
  set(ESA_MODULES ${ESA_MODULES} ${name} CACHE INTERNAL "")
  if(tests)
    string(REPLACE ";" "|" joined "${tests}")  # one list entry per module, whatever its test count
    set(ESA_TEST_SOURCES ${ESA_TEST_SOURCES} "${name}|${joined}" CACHE INTERNAL "")
  endif()
endfunction()

function(esa_finish_modules)
  string(REPLACE ";" "," group "${ESA_MODULES}")
  add_library(esa_stack INTERFACE)
  target_link_libraries(esa_stack INTERFACE "$<LINK_GROUP:RESCAN,${group}>" Threads::Threads rt)
  if(NOT ESA_TESTS)
    return()
  endif()
  foreach(entry ${ESA_TEST_SOURCES})
    string(REPLACE "|" ";" parts "${entry}")
    list(GET parts 0 name)
    list(REMOVE_AT parts 0)
    add_executable(${name}_tests ${parts})
    target_link_libraries(${name}_tests PRIVATE esa_stack esa_testsupport esa_unittest_main GTest::gtest GTest::gmock)
    gtest_discover_tests(${name}_tests DISCOVERY_MODE PRE_TEST
      PROPERTIES LABELS unit ENVIRONMENT "ESA_BIN_DIR=${CMAKE_BINARY_DIR}/bin")
  endforeach()
endfunction()
