# Makes the build tree's packages with cpack and checks that each holds
# exactly the files a host engineer needs (see cmake/Packaging.cmake).
#
# Variables: CPACK (the cpack program), BINARY_DIR (the build tree), WORK_DIR,
# PLATFORM (windows or linux), DPKG_DEB (dpkg-deb, to list the DEB; may be
# empty, then the DEB is made but not listed).
cmake_minimum_required(VERSION 3.22)

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

# Makes the packages of `generator` and answers the files of the one package made.
function(make_package generator out)
  execute_process(COMMAND ${CPACK} --config ${BINARY_DIR}/CPackConfig.cmake -G ${generator} -B ${WORK_DIR}/${generator}
                  OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "cpack -G ${generator} failed:\n${output}")
  endif()
  file(GLOB made LIST_DIRECTORIES false ${WORK_DIR}/${generator}/*.zip ${WORK_DIR}/${generator}/*.tar.gz
       ${WORK_DIR}/${generator}/*.deb)
  list(LENGTH made count)
  if(NOT count EQUAL 1)
    message(FATAL_ERROR "cpack -G ${generator} made ${count} packages: ${made}")
  endif()
  set(${out} ${made} PARENT_SCOPE)
endfunction()

# The files (not folders) of an archive, sorted, with `strip` removed from the front of each.
function(list_archive archive strip out)
  execute_process(COMMAND ${CMAKE_COMMAND} -E tar tf ${archive} OUTPUT_VARIABLE listing RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "cannot list ${archive}")
  endif()
  string(REPLACE "\n" ";" listing "${listing}")
  set(files)
  foreach(entry IN LISTS listing)
    if(entry STREQUAL "" OR entry MATCHES "/$")
      continue()
    endif()
    if(NOT strip STREQUAL "")
      string(REGEX REPLACE "^${strip}" "" entry "${entry}")
    endif()
    list(APPEND files "${entry}")
  endforeach()
  list(SORT files)
  set(${out} "${files}" PARENT_SCOPE)
endfunction()

function(expect_files what actual expected)
  list(SORT expected)
  if(NOT "${actual}" STREQUAL "${expected}")
    string(REPLACE ";" "\n  " actual "${actual}")
    string(REPLACE ";" "\n  " expected "${expected}")
    message(FATAL_ERROR "${what} holds\n  ${actual}\nbut should hold\n  ${expected}")
  endif()
  string(REPLACE ";" ", " shown "${actual}")
  message(STATUS "${what}: ${shown}")
endfunction()

if(PLATFORM STREQUAL "windows")
  make_package(ZIP zip)
  list_archive(${zip} "" files)
  expect_files("the ZIP" "${files}" "Plugin/Azure/QVAzurePlugin.dll;Plugin/Azure/XNAzurePlugIn.jar")
else()
  set(linux_files bin/cloudplugin-host Plugin/Azure/libQVAzurePlugin.so Plugin/Azure/XNAzurePlugIn.jar
      share/man/man1/cloudplugin-host.1 share/bash-completion/completions/cloudplugin-host
      share/zsh/site-functions/_cloudplugin-host)
  make_package(TGZ tgz)
  get_filename_component(top ${tgz} NAME)
  string(REGEX REPLACE "\\.tar\\.gz$" "/" top "${top}")
  list_archive(${tgz} "${top}" files)
  expect_files("the TGZ" "${files}" "${linux_files}")

  make_package(DEB deb)
  if(DPKG_DEB)
    execute_process(COMMAND ${DPKG_DEB} -c ${deb} OUTPUT_VARIABLE listing RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
      message(FATAL_ERROR "cannot list ${deb}")
    endif()
    string(REPLACE "\n" ";" listing "${listing}")
    set(files)
    foreach(line IN LISTS listing)
      # "-rwxr-xr-x root/root 1234 2024-01-01 12:00 ./opt/qvazureplugin/bin/cloudplugin-host"; folders start with d.
      if(line MATCHES "^-.* \\./opt/qvazureplugin/(.*)$")
        list(APPEND files "${CMAKE_MATCH_1}")
      elseif(line MATCHES "^[^d]")
        message(FATAL_ERROR "the DEB holds a file outside /opt/qvazureplugin: ${line}")
      endif()
    endforeach()
    list(SORT files)
    expect_files("the DEB (under /opt/qvazureplugin)" "${files}" "${linux_files}")
  endif()
endif()
