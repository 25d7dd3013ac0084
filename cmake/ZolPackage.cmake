# Debian packages, one per component of the installation, for the architecture of the build. The build must be
# configured for /usr; Scripts/package.sh does that.

set(ZOL_MAINTAINER "libzol developers <libzol@localhost>" CACHE STRING "Who answers for the packages")
set(ZOL_TARGET_LIBRARIES "" CACHE PATH "Cross builds: where dpkg-shlibdeps finds the target's libraries")

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON) # otherwise the patterns below are read as escapes
set(CPACK_PACKAGE_NAME libzol)
set(CPACK_PACKAGE_VENDOR libzol)
set(CPACK_PACKAGE_CONTACT ${ZOL_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # otherwise it would begin the description of every package
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON) # files that the installation writes name the places on the user's machine
set(CPACK_STRIP_FILES ON)
set(CPACK_ZOL_STRIP ${CMAKE_STRIP})
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/ZolPackageFinish.cmake)

set(CPACK_COMPONENTS_ALL runtime development kivtest python)
if(TARGET kivboard)
    list(APPEND CPACK_COMPONENTS_ALL kivboard)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib ${ZOL_TARGET_LIBRARIES})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/Packaging/triggers)
if(CMAKE_CROSSCOMPILING)
    execute_process(COMMAND dpkg-architecture -f -t ${CMAKE_LIBRARY_ARCHITECTURE} -q DEB_HOST_ARCH
        OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()

# zol_package(<component> <name> <section> <depends> <description>): the last is a title, a line end, and text.
function(zol_package component name section depends description)
    string(TOUPPER ${component} key)
    foreach(pair IN ITEMS "PACKAGE_NAME;${name}" "PACKAGE_SECTION;${section}" "PACKAGE_DEPENDS;${depends}"
            "DESCRIPTION;${description}")
        list(POP_FRONT pair what)
        set(CPACK_DEBIAN_${key}_${what} "${pair}" PARENT_SCOPE)
    endforeach()
    install(FILES Packaging/copyright ${zol_generated}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS Packaging/changelog)
execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/Packaging/changelog OUTPUT_FILE ${zol_generated}/changelog.gz)

set(zol_this "libzol0 (= ${PROJECT_VERSION})")
zol_package(runtime libzol0 libs ""
"hardware services for embedded Linux boards
I2C registers, GPIO pins and their interrupts, events, worker threads with
message queues, timing logs, settings from XML, calibration tokens and
levelled logging, behind a plain C interface.
.
This package contains the shared library.")
# The static library needs the static GLib and libxml2, which need more than their packages depend on.
string(REGEX MATCH "^[0-9]+" zol_compiler "${CMAKE_CXX_COMPILER_VERSION}")
set(zol_static_needs libglib2.0-dev libxml2-dev liblzma-dev zlib1g-dev
    "libstdc++-${zol_compiler}-dev | libstdc++-dev")
list(JOIN zol_static_needs ", " zol_static_needs)
zol_package(development libzol-dev libdevel "${zol_this}, ${zol_static_needs}"
"hardware services for embedded Linux boards - development files
Headers, the static library, the manual of section 3, examples, and the files
of pkg-config and CMake, for applications in C and C++ that use libzol.")
zol_package(kivtest kivtest utils "${zol_this}"
"command-line diagnostics of embedded Linux boards
kivtest.exe reads and writes registers of I2C devices and runs test modules
for GPIO pins, events, worker threads, storage and timers, over libzol.
.
zol does one thing a call: it reads, drives and watches pins, finds I2C
devices, reads, writes and compares their registers, shows calibration
tokens, and checks the configuration.")
zol_package(kivboard kivboard utils ""
"virtual embedded Linux board for tests on a PC
kivboard runs an unmodified program in a file system of its own, in which the
device nodes of a board exist: I2C buses with register devices, and GPIO pins
with interrupts that can be raised by hand. It needs FUSE and, for ordinary
users, user namespaces. A configuration and calibration tokens for such
programs come with it.
.
zol_timing makes pictures and waveforms of the timing logs of libzol.")
set(CPACK_DEBIAN_KIVBOARD_PACKAGE_SUGGESTS "kivtest, i2c-tools")
foreach(relation IN ITEMS REPLACES BREAKS) # earlier versions had the configuration in kivtest
    set(CPACK_DEBIAN_KIVBOARD_PACKAGE_${relation} "kivtest (<< ${PROJECT_VERSION})")
endforeach()
set(CPACK_DEBIAN_KIVTEST_PACKAGE_SUGGESTS kivboard)
zol_package(python python3-zol python "python3:any (>= 3.11), libzol0 (>= ${PROJECT_VERSION})"
"hardware services for embedded Linux boards - Python 3 module
The package zol gives Python programs the services of libzol: I2C registers,
GPIO pins and their interrupts, events, worker threads, timing logs, settings
and calibration tokens. It has type hints, and readers for asyncio.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS kivboard)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/Packaging/python/postinst ${PROJECT_SOURCE_DIR}/Packaging/python/prerm)

# The source package: the tree without what is built in it.
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_PACKAGE_FILE_NAME libzol-${PROJECT_VERSION})
string(REGEX REPLACE "([][.+*?^$()|\\\\])" "\\\\\\1" zol_tree "${PROJECT_SOURCE_DIR}")
set(CPACK_SOURCE_IGNORE_FILES "^${zol_tree}/(build(-[^/]*)?|\\.git|\\.cache)(/|$)" "/__pycache__/" "/Python/build/" "\\.egg-info/" "/compile_commands\\.json$")

include(CPack)
