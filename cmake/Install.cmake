# What is installed, in five components: the library (runtime), what building against it needs
# (development), the stand-in platform with the guard's client (platform), the reader of reports
# (tools), and the examples.
include(CMakePackageConfigHelpers)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qurnadapt)

# qurn_install_completions(COMPONENT PROGRAM...)
function(qurn_install_completions component)
  foreach(program ${ARGN})
    install(FILES ${PROJECT_SOURCE_DIR}/tools/completion.bash RENAME ${program}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT ${component})
  endforeach()
endfunction()

install(TARGETS qurnadapt EXPORT qurnadaptTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS tovplatform bexlin EXPORT tovplatformTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT platform)
install(DIRECTORY include/qurnadapt DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(DIRECTORY platform/include/tovplatform DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT platform)
install(FILES ${PROJECT_BINARY_DIR}/platform/tovplatform.catalog DESTINATION lib/systemd/catalog
        COMPONENT platform)
if(QURN_BUILD_EXAMPLES)
  install(TARGETS qurn_host qurn_guard RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT examples)
  install(TARGETS legacy_component LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/qurnadapt
          COMPONENT examples)
  install(FILES examples/host/host.yaml DESTINATION ${CMAKE_INSTALL_DATADIR}/qurnadapt
          COMPONENT examples)
  install(FILES ${PROJECT_BINARY_DIR}/examples/qurn-host.service
                ${PROJECT_BINARY_DIR}/examples/qurn-host-inspect.service
          DESTINATION lib/systemd/system COMPONENT examples)
  qurn_install_completions(examples qurn-guard qurn-host)
endif()
if(QURN_BUILD_TOOLS)
  install(TARGETS qurn_inspect qurn_report RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  qurn_install_completions(tools qurn-inspect qurn-report)
endif()

# Two sets of targets, because a host with a real platform does without the stand-in.
install(EXPORT qurnadaptTargets NAMESPACE qurnadapt:: DESTINATION ${config_dir}
        COMPONENT development)
install(EXPORT tovplatformTargets NAMESPACE qurnadapt:: DESTINATION ${config_dir}
        COMPONENT platform)
configure_package_config_file(cmake/qurnadaptConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/qurnadaptConfig.cmake
                              INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qurnadaptConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qurnadaptConfig.cmake
              ${PROJECT_BINARY_DIR}/qurnadaptConfigVersion.cmake
        DESTINATION ${config_dir} COMPONENT development)
# Found from where the file lies, so that it holds wherever the installation was put.
file(RELATIVE_PATH from_pkgconfig_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/qurnadapt.pc.in ${PROJECT_BINARY_DIR}/qurnadapt.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qurnadapt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
