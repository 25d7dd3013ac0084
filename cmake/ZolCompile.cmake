# Compiler options of the whole tree: targets link zol_compile to get them.

add_library(zol_compile INTERFACE)

# Only a frame as large as a page could step over the guard page of a stack. A target with the property ZOL_SMALL_FRAMES has none.
set(zol_has_small_frames $<BOOL:$<TARGET_PROPERTY:ZOL_SMALL_FRAMES>>)

target_compile_options(zol_compile INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2 -Wvla
    -fstack-protector-strong
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    $<$<CXX_COMPILER_ID:GNU>:$<IF:${zol_has_small_frames},-Wframe-larger-than=4000,-fstack-clash-protection>>)

# Files of any size and inode number on 32-bit targets. The public headers depend on the width of time_t, but not on that of
# off_t, so applications are free to choose.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    target_compile_definitions(zol_compile INTERFACE _FILE_OFFSET_BITS=64)
endif()

target_link_options(zol_compile INTERFACE
    -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)

if(ZOL_SANITIZE)
    # The sanitizers check more than fortified calls do, and intercept only plain calls.
    target_compile_options(zol_compile INTERFACE
        -fsanitize=${ZOL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(zol_compile INTERFACE -fsanitize=${ZOL_SANITIZE})
elseif(PROJECT_IS_TOP_LEVEL) # another project may have a choice of its own
    target_compile_definitions(zol_compile INTERFACE
        $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()
