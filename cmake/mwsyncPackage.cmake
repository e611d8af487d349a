# The library as a product: its file names, exported symbols and Windows version resource, and the
# packages consumers use, installed (CMake package, pkg-config file, headers, docs) and in the build
# tree (-Dmwsync_DIR=<build folder>). Included by src/sync/CMakeLists.txt once mwsync exists.
include(CMakePackageConfigHelpers)

# A debug library carries a "d": a debug install beside a release one overwrites neither the
# library nor its pkg-config file (mwsyncd.pc); the CMake package holds one target file per
# configuration and hands each consumer configuration its own.
set_target_properties(mwsync PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${MW_SYNC_SOVERSION}
  DEBUG_POSTFIX d
  EXPORT_NAME sync)
if(MW_SYNC_LIBRARY_TYPE STREQUAL "STATIC")
  # The consumer's declarations then carry no import or visibility attribute (Export.h).
  target_compile_definitions(mwsync INTERFACE MW_SYNC_STATIC)
endif()

if(WIN32)
  # libmwsync.dll.a, so that -lmwsync finds the import library.
  set_target_properties(mwsync PROPERTIES IMPORT_PREFIX lib IMPORT_SUFFIX .dll.a)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/mwsync.rc.in ${CMAKE_CURRENT_BINARY_DIR}/mwsync.rc
    @ONLY)
  target_sources(mwsync PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/mwsync.rc)
  set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/mwsync.rc PROPERTIES
    COMPILE_DEFINITIONS $<$<CONFIG:Debug>:MW_SYNC_DEBUG_BUILD>)
elseif(MW_SYNC_LIBRARY_TYPE STREQUAL "SHARED")
  set(mw_export_map ${PROJECT_SOURCE_DIR}/cmake/mwsync.map)
  target_link_options(mwsync PRIVATE LINKER:--version-script=${mw_export_map})
  set_property(TARGET mwsync APPEND PROPERTY LINK_DEPENDS ${mw_export_map})
endif()

# Boost's headers as consumers reach them. A cross build links the host's headers into a folder of
# their own (src/sync/CMakeLists.txt); the package ships that link, and the CMake package and the
# pkg-config file point at it. A native build names Boost's folder unless the compiler searches it
# anyway.
set(MW_SYNC_BOOST_VERSION 1.67)
set(MW_SYNC_PACKAGE_CROSS_BOOST OFF)
set(mw_boost_cflags "")
set(mw_package_boost_subdir ${CMAKE_INSTALL_LIBDIR}/mwsync/boost-include)
if(DEFINED mw_boost_include)
  set(MW_SYNC_PACKAGE_CROSS_BOOST ON)
  string(APPEND mw_boost_cflags " -I\${libdir}/mwsync/boost-include")
else()
  get_target_property(mw_boost_dirs Boost::headers INTERFACE_INCLUDE_DIRECTORIES)
  foreach(dir IN LISTS mw_boost_dirs)
    if(dir AND NOT dir IN_LIST CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
      string(APPEND mw_boost_cflags " -I${dir}")
    endif()
  endforeach()
endif()

# The CMake package, for the build tree and for the install.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/mwsyncConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
export(TARGETS mwsync NAMESPACE mw:: FILE ${PROJECT_BINARY_DIR}/mwsyncTargets.cmake)
# A native build's configs never read the Boost folder; a path must still be given.
set(MW_SYNC_PACKAGE_BOOST_DIR ${PROJECT_BINARY_DIR})
if(MW_SYNC_PACKAGE_CROSS_BOOST)
  set(MW_SYNC_PACKAGE_BOOST_DIR ${mw_boost_include})
endif()
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/mwsyncConfig.cmake.in
  ${PROJECT_BINARY_DIR}/mwsyncConfig.cmake
  INSTALL_DESTINATION ${PROJECT_BINARY_DIR}
  INSTALL_PREFIX ${PROJECT_BINARY_DIR}
  PATH_VARS MW_SYNC_PACKAGE_BOOST_DIR)
set(MW_SYNC_PACKAGE_BOOST_DIR ${mw_package_boost_subdir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/mwsyncConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/mwsyncConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/mwsync
  PATH_VARS MW_SYNC_PACKAGE_BOOST_DIR)

# The pkg-config file, one per configuration: mwsync.pc, or mwsyncd.pc for Debug.
set(mw_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE ${mw_pc_dir})
  set(MW_SYNC_PC_TO_PREFIX ..)
  file(RELATIVE_PATH MW_SYNC_PC_TO_PREFIX ${mw_pc_dir} ${CMAKE_INSTALL_PREFIX})
else()
  string(REGEX REPLACE "[^/]+" ".." MW_SYNC_PC_TO_PREFIX ${mw_pc_dir})
endif()
set(MW_SYNC_PC_SUFFIX "$<$<CONFIG:Debug>:d>")
set(MW_SYNC_PC_LIBRARY "$<TARGET_FILE_BASE_NAME:mwsync>")
set(MW_SYNC_PC_CFLAGS "${mw_boost_cflags}")
set(MW_SYNC_PC_LIBS "")
if(WIN32)
  set(MW_SYNC_PC_DESCRIPTION "DLL")
else()
  string(APPEND MW_SYNC_PC_CFLAGS " -pthread")
  set(MW_SYNC_PC_LIBS " -pthread")
  string(TOLOWER ${MW_SYNC_LIBRARY_TYPE} MW_SYNC_PC_DESCRIPTION)
  if(MW_SYNC_LIBRARY_TYPE STREQUAL "STATIC")
    string(APPEND MW_SYNC_PC_CFLAGS " -DMW_SYNC_STATIC")
  endif()
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/mwsync.pc.in ${PROJECT_BINARY_DIR}/mwsync.pc.in @ONLY)
set(mw_pc_file ${PROJECT_BINARY_DIR}/pkgconfig/$<CONFIG>/mwsync$<$<CONFIG:Debug>:d>.pc)
file(GENERATE OUTPUT ${mw_pc_file} INPUT ${PROJECT_BINARY_DIR}/mwsync.pc.in)

if(NOT MW_SYNC_INSTALL)
  return()
endif()

install(TARGETS mwsync EXPORT mwsyncTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/concurrent DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  PATTERN "*.in" EXCLUDE)
install(FILES ${MW_SYNC_GENERATED_INCLUDE_DIR}/concurrent/Version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/concurrent)
install(EXPORT mwsyncTargets NAMESPACE mw:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/mwsync)
install(FILES ${PROJECT_BINARY_DIR}/package/mwsyncConfig.cmake
  ${PROJECT_BINARY_DIR}/mwsyncConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/mwsync)
install(FILES ${mw_pc_file} DESTINATION ${mw_pc_dir})
if(MW_SYNC_PACKAGE_CROSS_BOOST)
  install(CODE "
    set(link \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${mw_package_boost_subdir}/boost\")
    message(STATUS \"Installing: \${link} -> ${MW_SYNC_CROSS_BOOST_DIR}\")
    file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${mw_package_boost_subdir}\")
    file(REMOVE \"\${link}\")
    file(CREATE_LINK \"${MW_SYNC_CROSS_BOOST_DIR}\" \"\${link}\" SYMBOLIC)")
endif()
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  ${PROJECT_SOURCE_DIR}/README.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
