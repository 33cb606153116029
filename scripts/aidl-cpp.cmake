# cmake -DAIDL=TOOL -DSRC=DIR -DPACKAGE=PATH -DOUT=DIR -P scripts/aidl-cpp.cmake
#
# Generates the C++-backend (libbinder) classes of the .aidl files of one
# package (SRC/PACKAGE) with the platform's aidl tool: headers into
# OUT/include, sources into OUT/src. It also writes OUT/aidl_methods.inc, one
# AIDL_METHOD(descriptor, code, name) line per method of each interface, read
# out of the generated stubs themselves, so that the names the caller policy
# uses are the generated code's own numbering.
#
# The host's aidl (the Android 10 tool) predates @VintfStability: it reads
# copies without it, as scripts/aidl-api.sh does.
cmake_minimum_required(VERSION 3.16)
foreach(var AIDL SRC PACKAGE OUT)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "aidl-cpp.cmake: ${var} is not set")
  endif()
endforeach()

file(GLOB files RELATIVE ${SRC}/${PACKAGE} ${SRC}/${PACKAGE}/*.aidl)
set(stage ${OUT}/stage)
file(REMOVE_RECURSE ${stage})
foreach(file ${files})
  file(READ ${SRC}/${PACKAGE}/${file} text)
  string(REGEX REPLACE "(^|\n)@VintfStability\n" "\\1" text "${text}")
  file(WRITE ${stage}/${PACKAGE}/${file} "${text}")
endforeach()

set(methods "")
foreach(file ${files})
  execute_process(COMMAND ${AIDL} --lang=cpp -I ${stage} -h ${OUT}/include -o ${OUT}/src
    ${stage}/${PACKAGE}/${file} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "aidl could not generate ${PACKAGE}/${file}")
  endif()
  get_filename_component(name ${file} NAME_WE)
  file(READ ${OUT}/src/${PACKAGE}/${name}.cpp generated)
  if(NOT generated MATCHES "IMPLEMENT_META_INTERFACE\\([A-Za-z0-9_]+, \"([^\"]+)\"\\)")
    continue()  # a parcelable
  endif()
  set(descriptor ${CMAKE_MATCH_1})
  string(REGEX MATCHALL "case ::android::IBinder::FIRST_CALL_TRANSACTION \\+ [0-9]+ /\\* [A-Za-z0-9_]+ \\*/"
    cases "${generated}")
  if(NOT cases)
    message(FATAL_ERROR "no transaction codes found in the stub generated for ${PACKAGE}/${file}")
  endif()
  foreach(case ${cases})
    string(REGEX MATCH "\\+ ([0-9]+) /\\* ([A-Za-z0-9_]+)" ignored "${case}")
    # FIRST_CALL_TRANSACTION is 1.
    math(EXPR code "${CMAKE_MATCH_1} + 1")
    string(APPEND methods "AIDL_METHOD(\"${descriptor}\", ${code}, \"${CMAKE_MATCH_2}\")\n")
  endforeach()
endforeach()
file(WRITE ${OUT}/aidl_methods.inc "${methods}")
