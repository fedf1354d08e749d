# ORVO_SANITIZE=address: ASan + UBSan; ORVO_SANITIZE=thread: TSan. Applies to every target.
if(ORVO_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(ORVO_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(ORVO_SANITIZE)
  message(FATAL_ERROR "ORVO_SANITIZE must be empty, 'address' or 'thread'")
endif()
if(ORVO_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "ORVO_FUZZ needs clang: configure with CC=clang CXX=clang++")
  endif()
  # Coverage instrumentation goes only to the fuzz targets and their library copy
  # (fuzz/CMakeLists.txt): the test suites of the same build run uninstrumented.
endif()
