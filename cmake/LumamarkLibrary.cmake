# The C library (include/lumamark/lumamark.h): a shared library with a
# versioned SONAME and a static library, and the install rules of the whole
# package (tools, header, libraries, pkg-config file, CMake package, man
# pages).
#
# The library's objects are built apart from the tools' object libraries:
# each layer the C library needs (api and the layers below it) gets a twin
# object library from the same sources, position-independent, with every
# symbol hidden except the lumamark_* API, so the tools' own code is compiled
# exactly as before. A twin sees the same headers as its layer and links the
# twins of the layers its layer links, so the layer rules hold in the library
# too. The command-line layer is not part of the library.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(lumamark_lib_layers common kernels payload filter decode api)
set(lumamark_lib_objects "")
foreach(layer ${lumamark_lib_layers})
  get_target_property(layer_sources lumamark_${layer} SOURCES)
  get_target_property(layer_includes lumamark_${layer} INCLUDE_DIRECTORIES)
  add_library(lumamark_${layer}_pic OBJECT ${layer_sources})
  target_include_directories(lumamark_${layer}_pic PUBLIC ${layer_includes})
  target_link_libraries(lumamark_${layer}_pic PUBLIC Threads::Threads)
  foreach(used ${lumamark_${layer}_uses})
    target_link_libraries(lumamark_${layer}_pic PUBLIC lumamark_${used}_pic)
  endforeach()
  set_target_properties(lumamark_${layer}_pic PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  list(APPEND lumamark_lib_objects $<TARGET_OBJECTS:lumamark_${layer}_pic>)
endforeach()

set(lumamark_public_include
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

# liblumamark.so -> liblumamark.so.2 -> liblumamark.so.2.1.3. The version
# script keeps the exported symbols to the API even where the C++ runtime's
# headers ask for default visibility.
add_library(lumamark_shared SHARED ${lumamark_lib_objects})
target_include_directories(lumamark_shared PUBLIC ${lumamark_public_include})
target_link_libraries(lumamark_shared PRIVATE Threads::Threads)
target_link_options(lumamark_shared PRIVATE
  -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/lumamark.map)
# A sanitizer's runtime is linked into the executables only (clang), so a
# sanitized shared library leaves its hooks for them to resolve.
if(NOT LUMAMARK_SANITIZE)
  target_link_options(lumamark_shared PRIVATE -Wl,--no-undefined)
endif()
set_target_properties(lumamark_shared PROPERTIES
  OUTPUT_NAME lumamark
  EXPORT_NAME lumamark
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/lumamark.map)

# liblumamark.a: C programs linking it also need the C++ runtime.
add_library(lumamark_static STATIC ${lumamark_lib_objects})
target_include_directories(lumamark_static PUBLIC ${lumamark_public_include})
target_link_libraries(lumamark_static PUBLIC Threads::Threads INTERFACE stdc++ m)
set_target_properties(lumamark_static PROPERTIES
  OUTPUT_NAME lumamark
  EXPORT_NAME lumamark_static)

add_library(lumamark::lumamark ALIAS lumamark_shared)
add_library(lumamark::lumamark_static ALIAS lumamark_static)

# Install.
install(TARGETS lumamark RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET lumamark-detect)
  install(TARGETS lumamark-detect RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(TARGETS lumamark_shared lumamark_static EXPORT lumamarkTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/lumamark/lumamark.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lumamark)
install(EXPORT lumamarkTargets NAMESPACE lumamark::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/lumamark)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/lumamarkConfig.cmake.in
  ${PROJECT_BINARY_DIR}/lumamarkConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/lumamark)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/lumamarkConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/lumamarkConfig.cmake
  ${PROJECT_BINARY_DIR}/lumamarkConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/lumamark)
file(RELATIVE_PATH LUMAMARK_PC_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" LUMAMARK_PC_UP "${LUMAMARK_PC_UP}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/lumamark.pc.in ${PROJECT_BINARY_DIR}/lumamark.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/lumamark.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES ${PROJECT_SOURCE_DIR}/man/lumamark.1 ${PROJECT_SOURCE_DIR}/man/lumamark-detect.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
