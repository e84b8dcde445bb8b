# LZMA.dll: the LZMA SDK's LZMA2 decoder, built from the C sources that scripts/setup fetches
# with `apt-get source 7zip`. Only the four functions the decoding stage calls are exported.
if(NOT QVDLM_LZMA_SDK_DIR)
  file(GLOB _sdk_candidates LIST_DIRECTORIES true ${CMAKE_SOURCE_DIR}/.cache/7zip/7zip-*/C)
  list(SORT _sdk_candidates)
  list(POP_BACK _sdk_candidates _sdk)
  set(QVDLM_LZMA_SDK_DIR "${_sdk}" CACHE PATH "Folder holding the LZMA SDK's C sources (Lzma2Dec.c)")
endif()
if(NOT EXISTS "${QVDLM_LZMA_SDK_DIR}/Lzma2Dec.c")
  message(FATAL_ERROR "LZMA SDK not found (QVDLM_LZMA_SDK_DIR='${QVDLM_LZMA_SDK_DIR}'): run scripts/setup")
endif()

add_library(LZMA SHARED
  ${QVDLM_LZMA_SDK_DIR}/Lzma2Dec.c
  ${QVDLM_LZMA_SDK_DIR}/LzmaDec.c
  ${CMAKE_SOURCE_DIR}/cmake/LZMA.def)
set_target_properties(LZMA PROPERTIES PREFIX "" IMPORT_PREFIX "" OUTPUT_NAME LZMA)
target_include_directories(LZMA SYSTEM PUBLIC $<BUILD_INTERFACE:${QVDLM_LZMA_SDK_DIR}>)
target_compile_definitions(LZMA PRIVATE Z7_ST)
if(NOT MSVC)
  target_compile_options(LZMA PRIVATE -O2)
endif()
