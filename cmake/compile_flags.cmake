# Flags of every target of this project: link vx_flags.
add_library(vx_flags INTERFACE)
target_compile_options(vx_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${VX_WERROR}>:-Werror>
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>)
target_compile_definitions(vx_flags INTERFACE $<$<BOOL:${VX_CHECK_LOCKS}>:CONS_CHECK_LOCKS>)

if(VX_SANITIZE STREQUAL "address")
  set(VX_SANITIZE_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(VX_SANITIZE STREQUAL "thread")
  set(VX_SANITIZE_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT VX_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VX_SANITIZE is \"${VX_SANITIZE}\": use address, thread or nothing")
endif()
if(VX_SANITIZE_FLAGS)
  target_compile_options(vx_flags INTERFACE ${VX_SANITIZE_FLAGS})
  target_link_options(vx_flags INTERFACE ${VX_SANITIZE_FLAGS})
  target_compile_definitions(vx_flags INTERFACE VX_SANITIZED)
else()
  # Hardened, in every build that may ship: sanitizers have checks of their own, and fortified calls would hide some.
  # Fortified calls need optimisation.
  target_compile_options(vx_flags INTERFACE
    -fstack-protector-strong
    "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  target_link_options(vx_flags INTERFACE LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
endif()

# Position-independent executables: without this only their objects are.
include(CheckPIESupported)
check_pie_supported()
