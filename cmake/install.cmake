# What `cmake --install` copies, and where. The tree may be moved afterwards: every path in it is relative.
include(CMakePackageConfigHelpers)

set(VX_PROGRAM_DIR ${CMAKE_INSTALL_LIBEXECDIR}/vx_cons)  # programs of the laboratory; people call vxlab instead
set(VX_LAB_DIR ${CMAKE_INSTALL_DATADIR}/vx_cons/lab)
set(VX_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vx_cons)
set(VX_EXAMPLE_DIR ${CMAKE_INSTALL_DOCDIR}/examples)
set(VX_UNIT_DIR lib/systemd/system)
set(generated ${PROJECT_BINARY_DIR}/install)

# vx_way(VARIABLE FROM TO): the relative path between two directories of the installation.
function(vx_way variable from to)
  cmake_path(ABSOLUTE_PATH from BASE_DIRECTORY /prefix NORMALIZE)
  cmake_path(ABSOLUTE_PATH to BASE_DIRECTORY /prefix NORMALIZE)
  cmake_path(RELATIVE_PATH to BASE_DIRECTORY ${from})
  set(${variable} ${to} PARENT_SCOPE)
endfunction()

# vx_install_link(DIRECTORY NAME TARGET): a link whose target is given as from the prefix.
function(vx_install_link directory name target)
  vx_way(way ${directory} ${target})
  file(MAKE_DIRECTORY ${generated}/${directory})
  file(CREATE_LINK ${way} ${generated}/${directory}/${name} SYMBOLIC)
  install(FILES ${generated}/${directory}/${name} DESTINATION ${directory})
endfunction()

# --- For hosts: libraries, headers, what finds them, an example
install(TARGETS vx_cons vx_host EXPORT vx_cons
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/vx_cons.h host/include/vx_host.h host/include/vx_host_layer.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT vx_cons NAMESPACE vx_cons:: FILE vx_cons-targets.cmake DESTINATION ${VX_PACKAGE_DIR})
configure_package_config_file(cmake/vx_cons-config.cmake.in ${generated}/vx_cons-config.cmake
                              INSTALL_DESTINATION ${VX_PACKAGE_DIR})
write_basic_package_version_file(${generated}/vx_cons-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${generated}/vx_cons-config.cmake ${generated}/vx_cons-config-version.cmake
        DESTINATION ${VX_PACKAGE_DIR})

vx_way(VX_PREFIX_FROM_PC ${CMAKE_INSTALL_LIBDIR}/pkgconfig .)
foreach(name vx_cons vx_host)
  configure_file(cmake/${name}.pc.in ${generated}/${name}.pc @ONLY)
  install(FILES ${generated}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

install(FILES examples/minimal_host.c examples/CMakeLists.txt host/kesh/kesh.conf.example DESTINATION ${VX_EXAMPLE_DIR})
# The documents lie as in the sources, with links to what is installed elsewhere, so that they can link to it.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.md"
        PATTERN man EXCLUDE)
install(FILES model/register.pml DESTINATION ${CMAKE_INSTALL_DOCDIR}/model)
foreach(header include/vx_cons.h host/include/vx_host.h host/include/vx_host_layer.h)
  cmake_path(GET header PARENT_PATH folder)
  cmake_path(GET header FILENAME name)
  vx_install_link(${CMAKE_INSTALL_DOCDIR}/${folder} ${name} ${CMAKE_INSTALL_INCLUDEDIR}/${name})
endforeach()
set(host_docs ${CMAKE_INSTALL_DOCDIR}/host)
vx_install_link(${host_docs}/kesh kesh.conf.example ${VX_EXAMPLE_DIR}/kesh.conf.example)
vx_install_link(${host_docs}/keepalived kesh.conf ${CMAKE_INSTALL_DATADIR}/kesh/keepalived.conf)
vx_install_link(${host_docs}/prometheus kesh.rules.yml ${CMAKE_INSTALL_DATADIR}/kesh/kesh.rules.yml)
vx_install_link(${host_docs}/systemd kesh.service ${VX_UNIT_DIR}/kesh.service)
vx_install_link(${host_docs}/systemd keepalived.conf ${VX_UNIT_DIR}/keepalived.service.d/kesh.conf)

foreach(page kesh.8 kesh.conf.5 vxlab.1 vx-check.1 vx-sim.1 vx_cons.3)
  string(REGEX REPLACE ".*[.]" "" chapter ${page})
  install(FILES ${VX_MAN_DIR}/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${chapter})
endforeach()

# --- Programs
vx_way(way ${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_LIBDIR})
set_target_properties(kesh PROPERTIES INSTALL_RPATH "$ORIGIN/${way}")
install(TARGETS kesh vx-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# For keepalived, Prometheus and systemd; a package puts the units where systemd looks.
install(FILES host/keepalived/kesh.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/kesh RENAME keepalived.conf)
install(FILES host/prometheus/kesh.rules.yml DESTINATION ${CMAKE_INSTALL_DATADIR}/kesh)
install(FILES host/systemd/kesh.service DESTINATION ${VX_UNIT_DIR})
install(FILES host/systemd/keepalived.conf DESTINATION ${VX_UNIT_DIR}/keepalived.service.d RENAME kesh.conf)

# --- The laboratory: its Python finds the programs by the link "programs" beside it.
vx_way(way ${VX_PROGRAM_DIR} ${CMAKE_INSTALL_LIBDIR})
set_target_properties(vx-kesh PROPERTIES INSTALL_RPATH "$ORIGIN/${way}")
set(lab_programs vx-kesh vx-node-view vx-fabric vx-kesh-clients)
if(TARGET vx-etcd-clients)
  list(APPEND lab_programs vx-etcd-clients)
endif()
install(TARGETS ${lab_programs} vx_disk_faults vx_clock_shift
        RUNTIME DESTINATION ${VX_PROGRAM_DIR} LIBRARY DESTINATION ${VX_PROGRAM_DIR})
install(PROGRAMS lab/vxlab lab/vx-check DESTINATION ${VX_LAB_DIR})
install(DIRECTORY lab/vxlab_lib DESTINATION ${VX_LAB_DIR} FILES_MATCHING PATTERN "*.py"
        PATTERN "*.html" PATTERN "*.css" PATTERN __pycache__ EXCLUDE)
install(DIRECTORY lab/wireshark DESTINATION ${VX_LAB_DIR} FILES_MATCHING PATTERN "*.lua")
vx_install_link(${VX_LAB_DIR} programs ${VX_PROGRAM_DIR})
vx_install_link(${CMAKE_INSTALL_BINDIR} vxlab ${VX_LAB_DIR}/vxlab)
vx_install_link(${CMAKE_INSTALL_BINDIR} vx-check ${VX_LAB_DIR}/vx-check)
