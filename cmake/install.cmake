# What is installed, and where. Each component is one Debian package: agent (featurewatch), tools (featurewatch-tools) and
# library (featurewatch-dev).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(data_folder ${CMAKE_INSTALL_DATADIR}/featurewatch)

# --- programs

install(TARGETS featurewatch DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT agent)

# The commands of the other sides, and the Python package that they share.
file(GLOB commands CONFIGURE_DEPENDS LIST_DIRECTORIES false tools/*)
install(PROGRAMS ${commands} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(DIRECTORY tools/featurewatch_tools DESTINATION ${data_folder} COMPONENT tools OPTIONAL
    FILES_MATCHING PATTERN "*.py" PATTERN "page.*" PATTERN "__pycache__" EXCLUDE)

# --- schemas, manual pages, completions; a page or completion of the agent's has a name that begins with its own

install(DIRECTORY schemas/ DESTINATION ${data_folder}/schemas COMPONENT agent OPTIONAL FILES_MATCHING PATTERN "*.json")

# install_texts(DESTINATION FILE...) installs each file with the component whose name it carries.
function(install_texts destination)
    foreach(file ${ARGN})
        set(component tools)
        if(file MATCHES "/_?featurewatch[^/]*$")
            set(component agent)
        endif()
        install(FILES ${file} DESTINATION ${destination} COMPONENT ${component})
    endforeach()
endfunction()

foreach(section 1 5 7 8)
    file(GLOB pages CONFIGURE_DEPENDS docs/man/*.${section})
    install_texts(${CMAKE_INSTALL_MANDIR}/man${section} ${pages})
endforeach()
foreach(place bash:bash-completion/completions zsh:zsh/vendor-completions fish:fish/vendor_completions.d)
    string(REPLACE : ";" place ${place})
    list(GET place 0 shell)
    list(GET place 1 folder)
    file(GLOB completions CONFIGURE_DEPENDS LIST_DIRECTORIES false completions/${shell}/*)
    install_texts(${CMAKE_INSTALL_DATADIR}/${folder} ${completions})
endforeach()

# --- the library for other programs

set(library_headers "")  # as seen from src/
foreach(layer foundation runtime identity jose)
    set_target_properties(orv_${layer} PROPERTIES OUTPUT_NAME orvanta_${layer})
    install(TARGETS orv_${layer} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library)
    # The headers beside a layer's sources are public, those in its rooms are not.
    file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/src src/${layer}/*.h)
    list(REMOVE_ITEM headers runtime/error_text.h runtime/orvlog_setup.h)  # for one concept's sources only
    list(APPEND library_headers ${headers})
    list(TRANSFORM headers PREPEND src/)
    install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvanta/${layer} COMPONENT library)
endforeach()

set(library_config_folder ${CMAKE_INSTALL_LIBDIR}/cmake/orvanta)
configure_package_config_file(cmake/orvantaConfig.cmake.in orvantaConfig.cmake
    INSTALL_DESTINATION ${library_config_folder}
    PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/orvantaConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/orvantaConfig.cmake ${PROJECT_BINARY_DIR}/orvantaConfigVersion.cmake
    DESTINATION ${library_config_folder} COMPONENT library)

configure_file(cmake/orvanta.pc.in orvanta.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orvanta.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)
