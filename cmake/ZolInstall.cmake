# Installed files and their places. Each package is a component:
#   runtime      the shared library
#   development  headers, static library, examples and manual pages for applications
#   kivtest      the tools for the board: kivtest.exe and zol
#   kivboard     the virtual board, its configuration and tokens, and zol_timing, for the PC
#   python       the package of Python and its examples

include(CMakePackageConfigHelpers)
if(NOT PROJECT_IS_TOP_LEVEL)
    set(CMAKE_INSTALL_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/zol)
endif()

set(zol_data ${CMAKE_INSTALL_DATADIR}/zol)
set(zol_package ${CMAKE_INSTALL_LIBDIR}/cmake/zol)
set(zol_generated ${PROJECT_BINARY_DIR}/install)

# The library.
install(TARGETS zol EXPORT zol_shared
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS zol_static EXPORT zol_static
    ARCHIVE COMPONENT development)
install(DIRECTORY Include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

# The CMake package. The static library has more requirements than the shared one, so it is a component of its own.
foreach(kind IN ITEMS shared static)
    install(EXPORT zol_${kind} NAMESPACE zol:: DESTINATION ${zol_package} FILE zol-${kind}.cmake COMPONENT development)
endforeach()
configure_package_config_file(cmake/zol-config.cmake.in ${zol_generated}/zol-config.cmake
    INSTALL_DESTINATION ${zol_package} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${zol_generated}/zol-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${zol_generated}/zol-config.cmake ${zol_generated}/zol-config-version.cmake
    DESTINATION ${zol_package} COMPONENT development)

# zol_install_configured(<file> <directory> <component>): installs a file in which variables like @zol_prefix@ stand
# for installed places. They are replaced at the installation, because cmake --install --prefix may change the places.
function(zol_install_configured file directory component)
    get_filename_component(source ${file} ABSOLUTE BASE_DIR ${PROJECT_SOURCE_DIR})
    get_filename_component(name ${file} NAME)
    string(REGEX REPLACE "\\.in$" "" name ${name})
    install(CODE "
        set(PROJECT_VERSION \"${PROJECT_VERSION}\")
        set(PROJECT_DESCRIPTION \"${PROJECT_DESCRIPTION}\")
        set(zol_prefix \"\${CMAKE_INSTALL_PREFIX}\")
        set(zol_datadir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}\")
        set(zol_docdir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
        set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
        set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
        configure_file(\"${source}\" \"${zol_generated}/${name}\" @ONLY)"
        COMPONENT ${component})
    install(FILES ${zol_generated}/${name} DESTINATION ${directory} COMPONENT ${component})
endfunction()

zol_install_configured(cmake/libzol.pc.in ${CMAKE_INSTALL_LIBDIR}/pkgconfig development)

# The tools. Outside of /usr an RPATH leads them to the library beside them.
if(ZOL_BUILD_TOOLS)
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        file(RELATIVE_PATH zol_from_tool /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
        set_target_properties(kivtest zol_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${zol_from_tool}")
    endif()
    install(TARGETS kivtest zol_tool COMPONENT kivtest)
    install(TARGETS zol_timing COMPONENT kivboard)
endif()
if(TARGET kivboard)
    install(TARGETS kivboard COMPONENT kivboard)
    install(FILES Conf/kiv_board.xml DESTINATION ${zol_data} COMPONENT kivboard)
endif()

# The configuration that the virtual board shows as /etc/kiv/conf.xml, its tokens, and examples for real boards. Nothing is
# installed in /etc/kiv, which belongs to the administrator.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS Conf/kiv_test.xml)
file(READ Conf/kiv_test.xml zol_configuration)
string(REPLACE ">Conf/tokens<" ">@zol_datadir@/zol/tokens<" zol_configuration "${zol_configuration}")
file(WRITE ${zol_generated}/kiv_test.xml.in "${zol_configuration}")
if(ZOL_BUILD_TOOLS)
    zol_install_configured(${zol_generated}/kiv_test.xml.in ${zol_data} kivboard)
    install(DIRECTORY Conf/tokens DESTINATION ${zol_data} COMPONENT kivboard)
endif()
install(FILES Conf/conf.xml Conf/header_40_pins.xml Packaging/zol-application.service
    DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT runtime)

# The examples, in the package of the headers.
string(REGEX REPLACE "/libzol0$" "/libzol-dev" zol_examples ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY Examples/ DESTINATION ${zol_examples}/examples COMPONENT development
    FILES_MATCHING PATTERN *.[ch] PATTERN *.cpp PATTERN *.play)

# The package of Python, in Debian's directory of /usr. Below another prefix PYTHONPATH names the directory, and the package
# finds the library in the directory lib.
set(ZOL_PYTHON_DIR lib/python3/dist-packages CACHE STRING "Directory of Python packages, below the prefix")
install(DIRECTORY Python/zol DESTINATION ${ZOL_PYTHON_DIR} COMPONENT python
    FILES_MATCHING PATTERN *.py PATTERN py.typed PATTERN __pycache__ EXCLUDE)
string(REGEX REPLACE "/libzol0$" "/python3-zol" zol_python_doc ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY Python/examples DESTINATION ${zol_python_doc} COMPONENT python
    FILES_MATCHING PATTERN *.py PATTERN __pycache__ EXCLUDE)

# zol_completion(<component> <command>...)
function(zol_completion component)
    list(TRANSFORM ARGN PREPEND Tools/completion/)
    install(FILES ${ARGN} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT ${component})
endfunction()
if(ZOL_BUILD_TOOLS)
    zol_completion(kivtest kivtest.exe zol)
    zol_completion(kivboard kivboard zol_timing)
endif()

# zol_manual(<component> <page>...)
function(zol_manual component)
    foreach(page IN LISTS ARGN)
        get_filename_component(section ${page} LAST_EXT)
        string(SUBSTRING ${section} 1 -1 section)
        zol_install_configured(Docs/man/${page} ${CMAKE_INSTALL_MANDIR}/man${section} ${component})
    endforeach()
endfunction()
zol_manual(runtime kiv_conf.5 zol_troubleshooting.7)
if(ZOL_BUILD_TOOLS)
    zol_manual(kivtest kivtest.exe.1 zol.1)
    zol_manual(kivboard kivboard.1 zol_timing.1)
endif()

# The manual pages of section 3 are made from the headers.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
    file(GLOB zol_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/Include/zol/*.h)
    set(zol_man3 ${zol_generated}/man3)
    add_custom_command(OUTPUT ${zol_man3}/libzol.3
        COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/Docs/man/from_headers.py
            --version ${PROJECT_VERSION} ${zol_man3} ${zol_headers}
        DEPENDS ${zol_headers} Docs/man/from_headers.py
        COMMENT "Making the manual from the headers")
    add_custom_target(zol_manual_pages ALL DEPENDS ${zol_man3}/libzol.3)
    install(DIRECTORY ${zol_man3} DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)
else()
    message(STATUS "No Python 3: the manual pages of section 3 are not made")
endif()
