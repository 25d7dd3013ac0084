# cpack runs this between the installation and the packing. It makes the files comply with Debian's rules.

file(GLOB_RECURSE pages ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/*)
foreach(page IN LISTS pages)
    if(NOT page MATCHES "\\.gz$")
        execute_process(COMMAND gzip -9nf ${page} COMMAND_ERROR_IS_FATAL ANY)
    endif()
endforeach()

# The shared files are stripped already. The archive keeps its symbols, because the linker needs them.
file(GLOB_RECURSE archives ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a)
foreach(archive IN LISTS archives)
    execute_process(COMMAND ${CPACK_ZOL_STRIP} --strip-debug --enable-deterministic-archives ${archive}
        COMMAND_ERROR_IS_FATAL ANY)
endforeach()
