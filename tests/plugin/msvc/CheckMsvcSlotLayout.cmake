# Checks the slot of every operation of ICloudPluginInterface under the MSVC
# C++ ABI, overloads included.
#
# MSVC groups a set of overloads at the first one's place, in reverse
# declaration order; the header declares adjacent overloads reversed under
# _MSC_VER so that the table comes out in the binding order. Debian's clang
# lays out a class the way MSVC does when it targets x86_64-pc-windows-msvc,
# and -fdump-vtable-layouts prints the vftable indices it assigned. The probe
# is compiled so, and the printed indices are compared with BindingOrder.txt.
#
# The C++ standard headers are those of the MinGW-w64 cross compiler that
# builds the Windows DLL (its libstdc++ and its Windows C runtime headers):
# there is no MSVC STL here, and these are real Windows headers of the LLP64
# data model, so the standard types mean on the probe what they mean to a
# Windows host. They expect a GNU compiler and the MinGW macros, hence
# -fgnuc-version, __MINGW32__, __MINGW64__ and __STRICT_ANSI__; none of these
# changes the C++ ABI, which the target triple alone decides. jni.h comes from
# the JDK, with the project's win32 jni_md.h in front of it.
#
# Variables: CLANGXX, MINGW_CXX, PROJECT_DIR, JNI_H_DIR, WORK_DIR.
cmake_minimum_required(VERSION 3.22)

foreach(variable CLANGXX MINGW_CXX PROJECT_DIR JNI_H_DIR WORK_DIR)
  if(NOT DEFINED ${variable} OR "${${variable}}" STREQUAL "" OR "${${variable}}" MATCHES "-NOTFOUND$")
    message(FATAL_ERROR "${variable} is not set: the MSVC slot check needs clang (apt-get install clang), "
                        "the MinGW-w64 compiler and the JDK's jni.h")
  endif()
endforeach()
set(here ${CMAKE_CURRENT_LIST_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

# The MinGW-w64 C++ and C runtime header folders, as its compiler searches them
# (its own intrinsic headers left out: clang brings its own).
file(WRITE ${WORK_DIR}/empty.cpp "")
execute_process(COMMAND ${MINGW_CXX} -xc++ -E -v ${WORK_DIR}/empty.cpp
                OUTPUT_QUIET ERROR_VARIABLE search RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${MINGW_CXX} did not list its include folders:\n${search}")
endif()
string(REGEX REPLACE ".*#include <...> search starts here:\n(.*)End of search list.*" "\\1" search "${search}")
string(REPLACE "\n" ";" search "${search}")
set(windows_headers)
foreach(folder IN LISTS search)
  string(STRIP "${folder}" folder)
  if(folder STREQUAL "")
    continue()
  endif()
  file(REAL_PATH "${folder}" folder)
  if(folder MATCHES "/include/c\\+\\+" OR NOT folder MATCHES "/lib/gcc/")
    list(APPEND windows_headers -isystem ${folder})
  endif()
endforeach()
if(NOT windows_headers MATCHES "/include/c\\+\\+")
  message(FATAL_ERROR "no C++ standard headers found among ${MINGW_CXX}'s include folders: ${search}")
endif()

execute_process(
  COMMAND ${CLANGXX} --target=x86_64-pc-windows-msvc -fms-compatibility-version=19.30
          -fgnuc-version=12 -D__MINGW32__ -D__MINGW64__ -D__STRICT_ANSI__
          -std=c++17 -nostdinc++ ${windows_headers}
          -I${PROJECT_DIR}/include -I${PROJECT_DIR}/cmake/win32 -isystem ${JNI_H_DIR}
          -Xclang -fdump-vtable-layouts -S -o ${WORK_DIR}/SlotLayoutProbe.s ${here}/SlotLayoutProbe.cpp
  OUTPUT_VARIABLE dump ERROR_VARIABLE errors RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "clang could not compile the probe for the MSVC ABI:\n${errors}")
endif()

# "VFTable indices for 'ICloudPluginInterface' (58 entries)." and its lines "   N | signature".
string(FIND "${dump}" "VFTable indices for 'ICloudPluginInterface'" start)
if(start EQUAL -1)
  message(FATAL_ERROR "clang printed no vftable indices for ICloudPluginInterface:\n${dump}")
endif()
string(SUBSTRING "${dump}" ${start} -1 dump)
string(REPLACE "\n" ";" dump "${dump}")
set(actual)
foreach(line IN LISTS dump)
  if(line MATCHES "^ *([0-9]+ \\| .*)$")
    list(APPEND actual "${CMAKE_MATCH_1}")
  elseif(actual AND line STREQUAL "")
    break()
  endif()
endforeach()

file(STRINGS ${here}/BindingOrder.txt expected REGEX "^[0-9]+ \\| ")
list(LENGTH expected expectedCount)
list(LENGTH actual actualCount)
if(NOT expectedCount EQUAL 58)
  message(FATAL_ERROR "BindingOrder.txt lists ${expectedCount} slots, not 58")
endif()
set(problems)
if(NOT actualCount EQUAL expectedCount)
  string(APPEND problems "MSVC lays out ${actualCount} slots, the binding order has ${expectedCount}\n")
endif()
math(EXPR last "${expectedCount} - 1")
foreach(slot RANGE ${last})
  list(GET expected ${slot} want)
  if(slot LESS actualCount)
    list(GET actual ${slot} got)
  else()
    set(got "(none)")
  endif()
  if(NOT got STREQUAL want)
    string(APPEND problems "  slot ${slot}: expected \"${want}\", MSVC gives \"${got}\"\n")
  endif()
endforeach()
if(problems)
  message(FATAL_ERROR "ICloudPluginInterface is out of its binding order under the MSVC ABI:\n${problems}")
endif()
message(STATUS "All ${actualCount} operations of ICloudPluginInterface sit in their slots under the MSVC ABI")
