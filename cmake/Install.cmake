# What `cmake --install` and `cpack` give: headers, libraries, package files for CMake and pkg-config, udev rule, documents.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME pulsekit3)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(documents ${CMAKE_INSTALL_DATAROOTDIR}/doc/pulsekit3)
if(WIN32)
  set(documents .)
endif()
set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/Pulsekit3)
set(libraries Pulsekit3)
file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h ${PROJECT_SOURCE_DIR}/include/*.hpp)
list(APPEND headers ${PROJECT_SOURCE_DIR}/src/interface/FTx232H/D2XX/FTx232H_D2XX.h)
if(TARGET Pulsekit3Simulator)
  list(APPEND libraries Pulsekit3Simulator)
  list(APPEND headers ${PROJECT_SOURCE_DIR}/simulator/Pulsekit3Simulator.h)
endif()

install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS ${libraries} EXPORT Pulsekit3Targets INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT Pulsekit3Targets NAMESPACE Pulsekit3:: DESTINATION ${package_directory})
configure_package_config_file(${PROJECT_SOURCE_DIR}/packaging/Pulsekit3Config.cmake.in Pulsekit3Config.cmake
                              INSTALL_DESTINATION ${package_directory})
write_basic_package_version_file(Pulsekit3ConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/Pulsekit3Config.cmake ${PROJECT_BINARY_DIR}/Pulsekit3ConfigVersion.cmake
        DESTINATION ${package_directory})

if(WIN32)
  # Other compilers make their own import library of it.
  install(FILES ${PROJECT_BINARY_DIR}/Pulsekit3.def DESTINATION ${CMAKE_INSTALL_LIBDIR})
  if(TARGET pulsekit)
    install(TARGETS pulsekit)
  endif()
endif()

# The tool comes with its library's place relative to it, so that any prefix works.
if(TARGET pulsekit AND UNIX)
  cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_FULL_BINDIR} OUTPUT_VARIABLE to_libraries)
  set_target_properties(pulsekit PROPERTIES INSTALL_RPATH $ORIGIN/${to_libraries})
  install(TARGETS pulsekit)
  set(manual ${PROJECT_BINARY_DIR}/pulsekit.1)
  set(manual_maker ${PROJECT_SOURCE_DIR}/packaging/manual.py)
  add_custom_command(
    OUTPUT ${manual}
    COMMAND Python3::Interpreter ${manual_maker} $<TARGET_FILE:pulsekit> ${PROJECT_VERSION} > ${manual}
    DEPENDS pulsekit ${manual_maker}
    COMMENT "Writing the manual page"
    VERBATIM)
  set(completions)
  function(pulsekit_completion shell file folder)
    set(output ${PROJECT_BINARY_DIR}/completion/${file})
    add_custom_command(
      OUTPUT ${output}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/completion
      COMMAND pulsekit completion ${shell} > ${output}
      DEPENDS pulsekit
      COMMENT "Writing the completion for ${shell}"
      VERBATIM)
    install(FILES ${output} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/${folder})
    set(completions ${completions} ${output} PARENT_SCOPE)
  endfunction()
  pulsekit_completion(bash pulsekit bash-completion/completions)
  pulsekit_completion(zsh _pulsekit zsh/vendor-completions)
  pulsekit_completion(fish pulsekit.fish fish/vendor_completions.d)
  add_custom_target(manual ALL DEPENDS ${manual} ${completions})
  install(FILES ${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

if(TARGET Pulsekit3Usb)
  install(TARGETS Pulsekit3Usb DESTINATION ${CMAKE_INSTALL_LIBDIR})
  set_target_properties(Pulsekit3Usb PROPERTIES INSTALL_RPATH $ORIGIN)
endif()

# pulsekit_pkg_config(<name> <library> <description> [<required package>])
function(pulsekit_pkg_config pc_name pc_library pc_description)
  set(pc_requires ${ARGN})
  # From the folder of the .pc file, so that the installed tree can be moved.
  cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
             OUTPUT_VARIABLE pc_prefix)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/pulsekit3.pc.in ${PROJECT_BINARY_DIR}/${pc_name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc_name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
pulsekit_pkg_config(pulsekit3 Pulsekit3 "Control of impulse-radar sensors")
if(TARGET Pulsekit3Simulator)
  pulsekit_pkg_config(pulsekit3-simulator Pulsekit3Simulator "Simulated radars for programs that use Pulsekit3" pulsekit3)
endif()

if(UNIX AND NOT APPLE)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/60-pulsekit3.rules DESTINATION lib/udev/rules.d)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ ${PROJECT_BINARY_DIR}/docs/ DESTINATION ${documents}/docs
        FILES_MATCHING PATTERN *.md PATTERN *.svg)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_SOURCE_DIR}/packaging/copyright
        DESTINATION ${documents})
install(FILES ${PROJECT_SOURCE_DIR}/examples/room.toml DESTINATION ${documents}/examples)

# A package of its own. Otherwise pip is who knows where an interpreter looks.
install(DIRECTORY ${PULSEKIT_PYTHON_PACKAGE}/pulsekit3 DESTINATION lib/python3/dist-packages COMPONENT python EXCLUDE_FROM_ALL
        FILES_MATCHING PATTERN *.py PATTERN meanings.json PATTERN py.typed PATTERN __pycache__ EXCLUDE)
file(GLOB python_examples CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/examples/*.py)
set(python_documents ${CMAKE_INSTALL_DATAROOTDIR}/doc/python3-pulsekit3)
install(FILES ${python_examples} DESTINATION ${python_documents}/examples COMPONENT python EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright DESTINATION ${python_documents} COMPONENT python EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL pulsekit3 python)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
endif()
set(CPACK_PACKAGE_NAME pulsekit3)
set(CPACK_PACKAGE_CONTACT "Pulsekit3 developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Control of impulse-radar sensors behind USB bridges")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "Control of impulse-radar sensors from Python")
set(CPACK_STRIP_FILES ON)
if(UNIX)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
endif()
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_VERSION 3.3.0~RC1)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_DEBIAN_PULSEKIT3_PACKAGE_NAME pulsekit3)
set(CPACK_DEBIAN_PULSEKIT3_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PULSEKIT3_PACKAGE_SUGGESTS gnuplot-nox)
set(CPACK_DEBIAN_PULSEKIT3_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/postinst ${PROJECT_SOURCE_DIR}/packaging/postrm
    ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-pulsekit3)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.11), python3-numpy, pulsekit3 (>= ${CPACK_DEBIAN_PACKAGE_VERSION})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS python3-matplotlib)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/python/postinst ${PROJECT_SOURCE_DIR}/packaging/python/prerm)
include(CPack)
