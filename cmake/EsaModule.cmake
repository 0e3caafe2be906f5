# One static library per subsystem folder. Sources are the folder's *.cpp files;
# *_test.cpp files are that module's unit tests and *_main.cpp files hold program
# entry points, so neither goes into the library.
#
# The system's layers call each other both ways through singletons (the system
# manager drives every manager, and the managers report back to it), and every
# subsystem registers its console commands, traces and fault points through
# global objects that nothing else references. So modules are object libraries
# and every program links all their objects: esa_stack.
set(ESA_MODULES "" CACHE INTERNAL "")

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
  add_library(${name} OBJECT ${srcs})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC Threads::Threads nlohmann_json::nlohmann_json)
  set(ESA_MODULES ${ESA_MODULES} ${name} CACHE INTERNAL "")
  set(ESA_TESTS_OF_${name} "${tests}" CACHE INTERNAL "")
endfunction()

function(esa_finish_modules)
  add_library(esa_stack INTERFACE)
  foreach(m ${ESA_MODULES})
    target_sources(esa_stack INTERFACE $<TARGET_OBJECTS:${m}>)
  endforeach()
  target_include_directories(esa_stack INTERFACE ${CMAKE_SOURCE_DIR})
  target_link_libraries(esa_stack INTERFACE Threads::Threads nlohmann_json::nlohmann_json rt)
  if(NOT ESA_TESTS)
    return()
  endif()
  foreach(name ${ESA_MODULES})
    if(NOT ESA_TESTS_OF_${name})
      continue()
    endif()
    add_executable(${name}_tests ${ESA_TESTS_OF_${name}})
    target_link_libraries(${name}_tests PRIVATE esa_stack esa_testsupport esa_unittest_main GTest::gtest GTest::gmock)
    gtest_discover_tests(${name}_tests DISCOVERY_MODE PRE_TEST
      PROPERTIES LABELS unit ENVIRONMENT "ESA_BIN_DIR=${CMAKE_BINARY_DIR}/bin")
  endforeach()
endfunction()
