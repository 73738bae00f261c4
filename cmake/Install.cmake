# The installed files, and the Debian packages that are made of them: one to use the command, one to
# build with the libraries, and one for Python.
include(CMakePackageConfigHelpers)

set(QM_PACKAGE QmMediaEditTranscode)
set(QM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/${QM_PACKAGE})

set_target_properties(QmMediaEdit_Transcode QmMediaEdit_Host qmtranscode_c PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
# Names for users: QmMediaEditTranscode::Transcode and QmMediaEditTranscode::Host.
set_target_properties(QmMediaEdit_Transcode PROPERTIES EXPORT_NAME Transcode)
set_target_properties(QmMediaEdit_Host PROPERTIES EXPORT_NAME Host)
# qmtranscode::qmtranscode, which needs none of the others.
set_target_properties(qmtranscode_c PROPERTIES EXPORT_NAME qmtranscode)
target_include_directories(qm_platform INTERFACE
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS qmtranscode
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
install(TARGETS qmtranscode_worker
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/qmtranscode COMPONENT tool)
install(TARGETS QmMediaEdit_Transcode QmMediaEdit_Host qm_platform qm_android EXPORT targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT tool NAMELINK_COMPONENT dev)
install(TARGETS qmtranscode_c EXPORT qmtranscode
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT tool NAMELINK_COMPONENT dev)
install(FILES tools/qmtranscode/report/run.schema.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/qmtranscode COMPONENT tool)
# install_compressed(FILE DIRECTORY NAME COMPONENT): as NAME.gz, the same whenever it is made.
find_program(GZIP gzip REQUIRED)
function(install_compressed file directory name component)
    set(compressed ${CMAKE_CURRENT_BINARY_DIR}/compressed/${component}/${name}.gz)
    install(CODE "file(MAKE_DIRECTORY \"${CMAKE_CURRENT_BINARY_DIR}/compressed/${component}\")
        execute_process(COMMAND \"${GZIP}\" -9nc
            INPUT_FILE \"${file}\" OUTPUT_FILE \"${compressed}\" COMMAND_ERROR_IS_FATAL ANY)"
        COMPONENT ${component})
    install(FILES ${compressed} DESTINATION ${directory} COMPONENT ${component})
endfunction()
foreach(page qmtranscode.1 qmtranscode-slurm.1)
    install_compressed(${CMAKE_BINARY_DIR}/docs/${page} ${CMAKE_INSTALL_MANDIR}/man1 ${page} tool)
endforeach()
foreach(package_component qmtranscode,tool qmtranscode-dev,dev python3-qmtranscode,python)
    string(REPLACE "," ";" package_component "${package_component}")
    list(GET package_component 0 package)
    list(GET package_component 1 component)
    install_compressed(${CMAKE_SOURCE_DIR}/CHANGELOG.md
        ${CMAKE_INSTALL_DATADIR}/doc/${package} changelog ${component})
endforeach()
install(PROGRAMS tools/qmtranscode-slurm
    DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
install(FILES ${CMAKE_BINARY_DIR}/docs/completion.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    RENAME qmtranscode COMPONENT tool)

install(DIRECTORY ${QM_PUBLIC_INCLUDE_DIR}/qmtranscode
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(DIRECTORY bindings/include/qmtranscode
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(DIRECTORY examples
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qmtranscode-dev COMPONENT dev)
install(FILES README.md docs/errors.md docs/library.md docs/messages.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qmtranscode-dev COMPONENT dev)
install(FILES README.md docs/errors.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qmtranscode COMPONENT tool)
# Where Debian's interpreter looks.
install(DIRECTORY bindings/python/qmtranscode
    DESTINATION lib/python3/dist-packages COMPONENT python
    PATTERN __pycache__ EXCLUDE)
install(FILES docs/errors.md docs/library.md examples/transcode.py
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/python3-qmtranscode COMPONENT python)
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
install(EXPORT qmtranscode
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qmtranscode
    FILE qmtranscodeConfig.cmake
    NAMESPACE qmtranscode:: COMPONENT dev)
write_basic_package_version_file(
    ${CMAKE_CURRENT_BINARY_DIR}/qmtranscodeConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qmtranscodeConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qmtranscode COMPONENT dev)
foreach(name ${QM_PACKAGE} QmMediaEditHost qmtranscode)
    configure_file(cmake/${name}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/${QM_PACKAGE}Config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/${QM_PACKAGE}ConfigVersion.cmake
    DESTINATION ${QM_CMAKE_DIR} COMPONENT dev)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "QmMediaEditTranscode")
set(CPACK_PACKAGE_CONTACT "QmMediaEditTranscode maintainers <maintainers@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL tool dev python)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS tool)
set(CPACK_COMPONENT_PYTHON_DEPENDS tool)

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME qmtranscode)
set(CPACK_COMPONENT_TOOL_DESCRIPTION "turns a media file into an MPEG-4 file, whole or in parts
The command qmtranscode, and the shared libraries that it and other
programs use. It reads what FFmpeg's libraries read, writes AVC and AAC,
and verifies each output.")
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOL_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/cmake/triggers)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The AMR encoders. libavfilter deinterlaces; it is loaded on demand, so no dependency on it is found.
string(REGEX MATCH "^[0-9]+" QM_AVFILTER_MAJOR "${AVFILTER_VERSION}")
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS "libavcodec-extra, libavfilter${QM_AVFILTER_MAJOR}")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME qmtranscode-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DESCRIPTION "transcoding libraries of qmtranscode, to build with
Headers for C and C++, pkg-config and CMake files, and examples.")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "android-libutils-dev, android-liblog-dev")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-qmtranscode)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "transcoding library of qmtranscode, for Python
A package with types, for programs and for asyncio, on the C library.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.11)")
include(CPack)
