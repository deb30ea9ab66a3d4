# qv_add_gtest_shards(TARGET SHARDS)
#
# Registers a GoogleTest program with ctest as SHARDS tests, each running
# its share of the program's tests in one process (GoogleTest's own
# sharding: GTEST_TOTAL_SHARDS, GTEST_SHARD_INDEX), named
# TARGET.shard<i>of<SHARDS>. A process per test (gtest_discover_tests) pays
# the program's start-up once per test: for the JVM-backed suites that is a
# JVM for each of nearly a thousand tests, and under Wine a Windows process
# for each; in shards it is paid a few times.
#
# With QV_TEST_PROCESS_PER_TEST=ON every test is a ctest test of its own
# instead, in a process of its own (ctest -R picks single tests; a test
# that leans on another's leftovers shows). A shard's output names each
# failed test; run one alone with TARGET --gtest_filter=NAME.
option(QV_TEST_PROCESS_PER_TEST "Run each GoogleTest test in a ctest test and process of its own" OFF)

function(qv_add_gtest_shards target shards)
  if(QV_TEST_PROCESS_PER_TEST)
    gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120 ${ARGN})
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "PROPERTIES")
  math(EXPR last "${shards} - 1")
  foreach(index RANGE ${last})
    math(EXPR number "${index} + 1")
    set(name ${target}.shard${number}of${shards})
    # --gtest_brief: a passing shard prints one line, a failing one its failures.
    add_test(NAME ${name} COMMAND ${target} --gtest_brief=1)
    set_tests_properties(${name} PROPERTIES
      ENVIRONMENT "GTEST_TOTAL_SHARDS=${shards};GTEST_SHARD_INDEX=${index}" ${arg_PROPERTIES})
  endforeach()
endfunction()
