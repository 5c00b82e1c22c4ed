# vlx_choose_netclock(TARGET WITH WITHOUT): the source that follows or serves network clocks, with what
# it needs; or, if VLX_NETCLOCK is off, the one that stands in for it.

function(vlx_choose_netclock target with without)
    if(NOT VLX_NETCLOCK)
        target_sources(${target} PRIVATE ${without})
        return()
    endif()
    pkg_check_modules(GSTNET REQUIRED IMPORTED_TARGET GLOBAL
        gstreamer-1.0 gstreamer-net-1.0 gio-2.0)
    target_sources(${target} PRIVATE ${with})
    target_link_libraries(${target} PRIVATE PkgConfig::GSTNET)
endfunction()
