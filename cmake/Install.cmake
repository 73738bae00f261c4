# What is installed, and the Debian packages that are made of it: one to use the command, one to
# build with the library.
include(CMakePackageConfigHelpers)

set(QM_PACKAGE QmMediaEditTranscode)
set(QM_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/${QM_PACKAGE})
set(QM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/${QM_PACKAGE})

set_target_properties(QmMediaEdit_Transcode QmMediaEdit_Host PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
# Names for users: QmMediaEditTranscode::Transcode and QmMediaEditTranscode::Host.
set_target_properties(QmMediaEdit_Transcode PROPERTIES EXPORT_NAME Transcode)
set_target_properties(QmMediaEdit_Host PROPERTIES EXPORT_NAME Host)
target_include_directories(qm_platform INTERFACE
    $<INSTALL_INTERFACE:${QM_INCLUDE_DIR}>
    $<INSTALL_INTERFACE:${QM_INCLUDE_DIR}/platform>)

install(TARGETS qmtranscode
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
install(TARGETS qmtranscode_worker
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/qmtranscode COMPONENT tool)
install(TARGETS QmMediaEdit_Transcode QmMediaEdit_Host qm_platform qm_android EXPORT targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT tool NAMELINK_COMPONENT dev)
install(FILES tools/qmtranscode/report/run.schema.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/qmtranscode COMPONENT tool)
install(PROGRAMS tools/qmtranscode-slurm
    DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
install(FILES ${CMAKE_BINARY_DIR}/docs/qmtranscode.1 ${CMAKE_BINARY_DIR}/docs/qmtranscode-slurm.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
install(FILES ${CMAKE_BINARY_DIR}/docs/completion.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    RENAME qmtranscode COMPONENT tool)

install(DIRECTORY ${QM_COMPONENT_DIR}/
    DESTINATION ${QM_INCLUDE_DIR} COMPONENT dev
    FILES_MATCHING PATTERN *.h)
install(FILES host/Host.h
    DESTINATION ${QM_INCLUDE_DIR}/host COMPONENT dev)
install(EXPORT targets
    DESTINATION ${QM_CMAKE_DIR}
    FILE ${QM_PACKAGE}Targets.cmake
    NAMESPACE ${QM_PACKAGE}:: COMPONENT dev)
configure_package_config_file(cmake/${QM_PACKAGE}Config.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/${QM_PACKAGE}Config.cmake
    INSTALL_DESTINATION ${QM_CMAKE_DIR})
write_basic_package_version_file(
    ${CMAKE_CURRENT_BINARY_DIR}/${QM_PACKAGE}ConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
configure_file(cmake/${QM_PACKAGE}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${QM_PACKAGE}.pc @ONLY)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/${QM_PACKAGE}Config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/${QM_PACKAGE}ConfigVersion.cmake
    DESTINATION ${QM_CMAKE_DIR} COMPONENT dev)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${QM_PACKAGE}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "QmMediaEditTranscode")
set(CPACK_PACKAGE_CONTACT "QmMediaEditTranscode maintainers <maintainers@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL tool dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS tool)

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME qmtranscode)
set(CPACK_COMPONENT_TOOL_DESCRIPTION "turns a media file into an MPEG-4 file, whole or in parts")
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
# The AMR encoders. libavfilter deinterlaces; it is loaded on demand, so no dependency on it is found.
string(REGEX MATCH "^[0-9]+" QM_AVFILTER_MAJOR "${AVFILTER_VERSION}")
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS "libavcodec-extra, libavfilter${QM_AVFILTER_MAJOR}")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME qmtranscode-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DESCRIPTION "transcoding library of qmtranscode, to build with")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "android-libutils-dev, android-liblog-dev")
include(CPack)
