# With VX_PRECOMPILE the headers that most sources include are parsed once per build and not once per source. The core
# in src/ includes few, and goes without. A source includes what it uses all the same: builds without the option, as a
# package's, see what is missing.

# vx_precompile(TARGET HEADER...): this target makes them, for itself and for those that share them.
function(vx_precompile target)
  if(VX_PRECOMPILE)
    list(TRANSFORM ARGN REPLACE "(.+)" "<\\1>")
    target_precompile_headers(${target} PRIVATE ${ARGN})
  endif()
endfunction()

# vx_share_precompiled(OWNER TARGET...): what gcc demands is that no macro is defined for the owner alone, and that all of
# them are libraries, or all of them executables.
function(vx_share_precompiled owner)
  if(VX_PRECOMPILE)
    foreach(target ${ARGN})
      target_precompile_headers(${target} REUSE_FROM ${owner})
    endforeach()
  endif()
endfunction()
