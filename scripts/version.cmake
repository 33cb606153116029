# Writes the project's version and the git revision the tree was built from
# into OUT, touching it only when either changed, so that a build after a
# commit relinks the tools and nothing else.
#   cmake -DSRC=<source dir> -DOUT=<header> -DVERSION=<x.y.z> -P version.cmake
execute_process(COMMAND git -C ${SRC} describe --always --dirty --abbrev=12
  OUTPUT_VARIABLE revision OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
if(failed OR revision STREQUAL "")
  # A tree without its history (an exported source tarball).
  set(revision "unknown")
endif()
file(WRITE ${OUT}.new "#pragma once\n#define TARNIS_VERSION \"${VERSION}\"\n#define TARNIS_REVISION \"${revision}\"\n")
execute_process(COMMAND ${CMAKE_COMMAND} -E copy_if_different ${OUT}.new ${OUT})
file(REMOVE ${OUT}.new)
