# Installation. Components: library (the shared library), development (headers, static libraries, CMake and pkg-config
# files), tools (the programs with their manuals, completions and unit).
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kytfer)
set(include_dir ${CMAKE_INSTALL_INCLUDEDIR}/kytfer)

# Libraries, and the headers that each names in its FILE_SET.
set(libraries kytfer_shared kytfer_static kyplatformcheck)
if(KYTFER_HOST)
    list(APPEND libraries kyhost)
endif()
install(TARGETS ${libraries} EXPORT kytferTargets
    LIBRARY COMPONENT library NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development
    FILE_SET HEADERS DESTINATION ${include_dir} COMPONENT development
    INCLUDES DESTINATION ${include_dir})

# The CMake package.
set(version_compatibility SameMinorVersion)
if(PROJECT_VERSION_MAJOR GREATER 0)
    set(version_compatibility SameMajorVersion)
endif()
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/kytferConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/kytferConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kytferConfigVersion.cmake
    COMPATIBILITY ${version_compatibility})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kytferConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/kytferConfigVersion.cmake
    DESTINATION ${package_dir} COMPONENT development)
install(EXPORT kytferTargets NAMESPACE kytfer:: DESTINATION ${package_dir} COMPONENT development)

# ky_install_with_prefix(TEMPLATE DESTINATION COMPONENT): installs a file with @prefix@, @libdir@, @includedir@ and
# @bindir@ filled in. That happens at installation, because `cmake --install --prefix` may change the prefix.
function(ky_install_with_prefix TEMPLATE DESTINATION COMPONENT)
    cmake_path(GET TEMPLATE FILENAME name)
    string(REGEX REPLACE "[.]in$" "" name ${name})
    set(filled ${CMAKE_CURRENT_BINARY_DIR}/installed/${name})
    install(CODE "
        cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
        cmake_path(APPEND libdir \"\${prefix}\" \"${CMAKE_INSTALL_LIBDIR}\")
        cmake_path(APPEND includedir \"\${prefix}\" \"${CMAKE_INSTALL_INCLUDEDIR}\")
        cmake_path(APPEND bindir \"\${prefix}\" \"${CMAKE_INSTALL_BINDIR}\")
        set(PROJECT_DESCRIPTION \"${PROJECT_DESCRIPTION}\")
        set(PROJECT_VERSION \"${PROJECT_VERSION}\")
        configure_file(\"${TEMPLATE}\" \"${filled}\" @ONLY)"
        COMPONENT ${COMPONENT})
    install(FILES ${filled} DESTINATION ${DESTINATION} COMPONENT ${COMPONENT})
endfunction()

ky_install_with_prefix(${PROJECT_SOURCE_DIR}/cmake/kytfer.pc.in ${CMAKE_INSTALL_LIBDIR}/pkgconfig development)
if(NOT KYTFER_HOST)
    return()
endif()
ky_install_with_prefix(${PROJECT_SOURCE_DIR}/cmake/kytfer-host.pc.in ${CMAKE_INSTALL_LIBDIR}/pkgconfig development)

# The programs, and the unit, user and directories of the service for systemd.
set(KYTFER_UNIT_DIR lib/systemd/system CACHE STRING "Where systemd finds units, below the prefix or absolute")
install(TARGETS tfersvc tferctl RUNTIME COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/tools/tferctl/tferctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/service/tfersvc.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT tools)
set(completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${PROJECT_SOURCE_DIR}/tools/tferctl/tferctl.bash
    DESTINATION ${completions} RENAME tferctl COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/service/tfersvc.bash
    DESTINATION ${completions} RENAME tfersvc COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/tfersvc.sysusers
    DESTINATION lib/sysusers.d RENAME tfersvc.conf COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/tfersvc.tmpfiles
    DESTINATION lib/tmpfiles.d RENAME tfersvc.conf COMPONENT tools)

# The unit in the tree has the path of an installation in /usr.
file(READ ${PROJECT_SOURCE_DIR}/service/tfersvc.service unit)
string(REPLACE "ExecStart=/usr/bin/" "ExecStart=@bindir@/" unit "${unit}")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/tfersvc.service.in "${unit}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/service/tfersvc.service)
ky_install_with_prefix(${CMAKE_CURRENT_BINARY_DIR}/tfersvc.service.in ${KYTFER_UNIT_DIR} tools)
