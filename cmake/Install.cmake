# What `cmake --install` puts where (docs/install.md):
#
#   bin/implvm
#   lib/implvm/                      libImplVirtualMachine and libCoreUtils, private
#   include/                         ImplVirtualMachine.h, Methods.h, Vocabulary.h and KALDO/
#   lib/cmake/ImplVirtualMachine/    find_package(ImplVirtualMachine)
#   lib/pkgconfig/ImplVirtualMachine.pc
#   share/man/man1/implvm.1
#   share/bash-completion/completions/implvm
#   share/doc/implvm/                README.md, LICENSE, docs/, examples/host/
#
# bin/ and lib/implvm/ stay as they are whatever GNUInstallDirs would pick:
# implvm finds the module by that relative path. No installed file names an
# absolute path, so an installed tree works wherever it is moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(IMPLVM_INSTALL_CMAKEDIR lib/cmake/ImplVirtualMachine)
set(IMPLVM_INSTALL_PKGCONFIGDIR lib/pkgconfig)
set(IMPLVM_INSTALL_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/implvm)

install(TARGETS implvm RUNTIME DESTINATION bin)
install(TARGETS CoreUtils ImplVirtualMachine
        EXPORT ImplVirtualMachineTargets
        LIBRARY DESTINATION ${IMPLVM_PRIVATE_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/support/include/KALDO
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
install(FILES ${CMAKE_SOURCE_DIR}/Impl_Mac/ImplVirtualMachine/ImplVirtualMachine.h
              ${CMAKE_SOURCE_DIR}/Impl_Common/ImplVm/Methods.h
              ${CMAKE_SOURCE_DIR}/Impl_Common/ImplVm/Vocabulary.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT ImplVirtualMachineTargets
        NAMESPACE ImplVirtualMachine::
        DESTINATION ${IMPLVM_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/ImplVirtualMachineConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/ImplVirtualMachineConfig.cmake
                              INSTALL_DESTINATION ${IMPLVM_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ImplVirtualMachineConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION}
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/ImplVirtualMachineConfig.cmake
              ${CMAKE_BINARY_DIR}/ImplVirtualMachineConfigVersion.cmake
        DESTINATION ${IMPLVM_INSTALL_CMAKEDIR})

file(RELATIVE_PATH IMPLVM_PC_PREFIX_FROM_PCDIR /prefix/${IMPLVM_INSTALL_PKGCONFIGDIR} /prefix)
configure_file(${CMAKE_SOURCE_DIR}/cmake/ImplVirtualMachine.pc.in
               ${CMAKE_BINARY_DIR}/ImplVirtualMachine.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/ImplVirtualMachine.pc DESTINATION ${IMPLVM_INSTALL_PKGCONFIGDIR})

install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/LICENSE
        DESTINATION ${IMPLVM_INSTALL_DOCDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs/
        DESTINATION ${IMPLVM_INSTALL_DOCDIR}/docs
        FILES_MATCHING PATTERN "*.md")
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/host/
        DESTINATION ${IMPLVM_INSTALL_DOCDIR}/examples/host)

# implvm(1) and the bash completion, made from the built implvm's help texts
# (cmake/HelpPages.cmake), so that every command it has is in both. Left out
# of sanitizer builds, which are not installed and whose implvm would run
# under the sanitizer's runtime at build time.
if(NOT IMPLVM_SANITIZE)
    set(IMPLVM_MAN_PAGE ${CMAKE_BINARY_DIR}/${CMAKE_INSTALL_MANDIR}/man1/implvm.1)
    set(IMPLVM_COMPLETION ${CMAKE_BINARY_DIR}/${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions/implvm)
    add_custom_command(
        OUTPUT ${IMPLVM_MAN_PAGE} ${IMPLVM_COMPLETION}
        COMMAND ${CMAKE_COMMAND} -DIMPLVM=$<TARGET_FILE:implvm> -DVERSION=${PROJECT_VERSION}
                -DMAN_PAGE=${IMPLVM_MAN_PAGE} -DCOMPLETION=${IMPLVM_COMPLETION}
                -P ${CMAKE_SOURCE_DIR}/cmake/HelpPages.cmake
        DEPENDS implvm ${CMAKE_SOURCE_DIR}/cmake/HelpPages.cmake
        COMMENT "implvm(1) and the bash completion from implvm's help texts"
        VERBATIM)
    add_custom_target(implvm-help-pages ALL DEPENDS ${IMPLVM_MAN_PAGE} ${IMPLVM_COMPLETION})
    install(FILES ${IMPLVM_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES ${IMPLVM_COMPLETION}
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
endif()
