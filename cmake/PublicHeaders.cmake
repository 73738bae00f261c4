# The installed headers, in the build folder as they will be below the include folder. Within the
# project they include each other by short names, as on a device; installed, by their place below
# qmtranscode/, so that a host needs no include folder of theirs.
set(QM_PUBLIC_INCLUDE_DIR ${CMAKE_BINARY_DIR}/include)

file(GLOB_RECURSE platform_headers RELATIVE ${QM_COMPONENT_DIR} CONFIGURE_DEPENDS
    ${QM_COMPONENT_DIR}/platform/*.h)
set(component_headers TranscodeComponent.h TranscodeErrors.h TranscodeTypes.h)

# stage(SOURCE NAME): with its includes rewritten.
function(stage source name)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
    file(READ ${source} text)
    foreach(header ${component_headers})
        string(REPLACE "#include <${header}>" "#include <qmtranscode/${header}>" text "${text}")
    endforeach()
    foreach(header ${platform_headers})
        string(REGEX REPLACE "^platform/" "" short ${header})
        string(REPLACE "#include <${short}>" "#include <qmtranscode/${header}>" text "${text}")
    endforeach()
    file(CONFIGURE OUTPUT ${QM_PUBLIC_INCLUDE_DIR}/qmtranscode/${name} CONTENT "${text}" @ONLY)
endfunction()

foreach(header ${component_headers} ${platform_headers})
    stage(${QM_COMPONENT_DIR}/${header} ${header})
endforeach()
stage(${CMAKE_SOURCE_DIR}/host/Host.h Host.h)
