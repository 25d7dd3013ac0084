# Run by cpack between the installation and the packing: what Debian wants of the files.

file(GLOB_RECURSE pages ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/usr/share/man/*)
foreach(page IN LISTS pages)
    if(NOT page MATCHES "\\.gz$")
        execute_process(COMMAND gzip -9nf ${page} COMMAND_ERROR_IS_FATAL ANY)
    endif()
endforeach()

# The debugging information of the shared files has gone; an archive keeps its symbols, which the linker needs.
file(GLOB_RECURSE archives ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a)
foreach(archive IN LISTS archives)
    execute_process(COMMAND ${CPACK_ZOL_STRIP} --strip-debug --enable-deterministic-archives ${archive}
        COMMAND_ERROR_IS_FATAL ANY)
endforeach()
