# Run by 'cmake --install': writes vexasdk.pc for the prefix of this install
# (--prefix, or the configured one), as a packaged library's file names it:
# prefix=/usr, libdir=${prefix}/lib/x86_64-linux-gnu, includedir=${prefix}/include.
# DESTDIR only stages the files; the paths in the file leave it out.
#
# Set by the install code before this runs: VEXA_PC_TEMPLATE, VEXA_PC_LIBDIR,
# VEXA_PC_INCLUDEDIR (relative to the prefix, or absolute), PROJECT_VERSION
# and VEXA_PC_PLATFORM_LIBS.
cmake_path(SET VEXA_PC_PREFIX NORMALIZE "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "(.)/$" "\\1" VEXA_PC_PREFIX "${VEXA_PC_PREFIX}")
foreach(dir LIBDIR INCLUDEDIR)
    if(NOT IS_ABSOLUTE "${VEXA_PC_${dir}}")
        if(VEXA_PC_PREFIX STREQUAL "/")
            set(VEXA_PC_${dir} "/${VEXA_PC_${dir}}")
        else()
            set(VEXA_PC_${dir} "\${prefix}/${VEXA_PC_${dir}}")
        endif()
    endif()
endforeach()
if(IS_ABSOLUTE "${VEXA_PC_LIBDIR}")
    set(destination "${VEXA_PC_LIBDIR}/pkgconfig")
else()
    string(REPLACE "\${prefix}" "${VEXA_PC_PREFIX}" destination "${VEXA_PC_LIBDIR}/pkgconfig")
endif()
string(STRIP "-lvexasdk ${VEXA_PC_PLATFORM_LIBS}" VEXA_PC_LIBS)
# Written beside the build under a name of this run: two installs of one
# build at once do not share it.
string(RANDOM LENGTH 12 run)
set(staged "${CMAKE_CURRENT_BINARY_DIR}/pkgconfig-${run}")
configure_file("${VEXA_PC_TEMPLATE}" "${staged}/vexasdk.pc" @ONLY)
file(INSTALL DESTINATION "${destination}" TYPE FILE FILES "${staged}/vexasdk.pc")
file(REMOVE_RECURSE "${staged}")
