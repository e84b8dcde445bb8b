# cmake --install gives bin/ (DLLs, programs), lib/ (import libraries and the CMake package)
# and include/qvdlm/ (public headers).
include(CMakePackageConfigHelpers)

install(TARGETS QvDLM LZMA QvDLMRes EXPORT QvDLMTargets
        RUNTIME DESTINATION bin
        LIBRARY DESTINATION bin
        ARCHIVE DESTINATION lib
        INCLUDES DESTINATION include/qvdlm)
file(GLOB QVDLM_PUBLIC_HEADERS ${CMAKE_SOURCE_DIR}/src/client/*.h)
install(FILES ${QVDLM_PUBLIC_HEADERS} DESTINATION include/qvdlm)
install(EXPORT QvDLMTargets NAMESPACE QvDLM:: DESTINATION lib/cmake/QvDLM)

configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/QvDLMConfig.cmake.in
  ${CMAKE_BINARY_DIR}/QvDLMConfig.cmake INSTALL_DESTINATION lib/cmake/QvDLM)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/QvDLMConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/QvDLMConfig.cmake ${CMAKE_BINARY_DIR}/QvDLMConfigVersion.cmake
        DESTINATION lib/cmake/QvDLM)
