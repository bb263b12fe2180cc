# Build constants. string(TIMESTAMP) honours SOURCE_DATE_EPOCH, so that equal sources give equal programs.
string(TIMESTAMP KVT_BUILD_DATE "%Y-%m-%d" UTC)
string(TIMESTAMP KVT_BUILD_SECONDS "%s" UTC)
set(KVT_BUILD_TAG "00000000")
find_package(Git QUIET)
if(GIT_FOUND)
  execute_process(COMMAND ${GIT_EXECUTABLE} -C ${CMAKE_SOURCE_DIR} rev-parse --short=8 HEAD
                  OUTPUT_VARIABLE kvt_rev OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE kvt_rc)
  if(kvt_rc EQUAL 0)
    string(SUBSTRING "${kvt_rev}" 0 8 KVT_BUILD_TAG)
  endif()
endif()
configure_file(${CMAKE_SOURCE_DIR}/cmake/tv_build_info.h.in ${CMAKE_BINARY_DIR}/gen/tv_build_info.h @ONLY)
