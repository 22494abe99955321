# The .deb packages, one for each component: the library, what it takes to build against it, and the
# local service.

if(NOT BUILD_SHARED_LIBS)
  message(FATAL_ERROR "The packages are for the shared library")
endif()
find_program(HELP2MAN help2man REQUIRED)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "QuorvaSDK developers <developers@quorva.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each has its own
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development localservice)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE quorvasdk)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# A program needs the version that it was built against, or a later one.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)

set(runtime_package libquorvasdk${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "client library for short links and deep links
Makes short links that lead to the right place on each platform, resolves
them, and finds out which one opened an application, or led to its
installation.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libquorvasdk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS quorva-localservice)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "headers of the client library for short links and deep links
What it takes to build a program that makes short links, resolves them, and
hears which one opened it or led to its installation: headers, and the files
by which CMake and pkg-config find the library.")

set(CPACK_DEBIAN_LOCALSERVICE_PACKAGE_NAME quorva-localservice)
set(CPACK_DEBIAN_LOCALSERVICE_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_LOCALSERVICE_DESCRIPTION "service for short links to develop and test against
Stands in for the hosted service on the developer's machine: takes the calls
of an application that uses libquorvasdk, serves the links it makes, and shows
on a page what the application said. Faults can be switched on, from there or
by the application's own tests.")

# What Debian wants to find beside each.
set(compress gzip -9n --force --keep)
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog changelog COPYONLY)
execute_process(COMMAND ${compress} changelog WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
  COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} COMPONENT)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME} COMPONENT ${component})
endforeach()
install(FILES ${CMAKE_CURRENT_LIST_DIR}/overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
  RENAME ${runtime_package} COMPONENT runtime)
set(manual ${CMAKE_CURRENT_BINARY_DIR}/quorva-localservice.1)
# Run beside the program, since help2man can't run one with a blank in its path.
add_custom_command(OUTPUT ${manual}.gz
  COMMAND ${HELP2MAN} --no-info --version-string=${PROJECT_VERSION} --output=${manual}
    --name "service for short links to develop and test against" ./$<TARGET_FILE_NAME:quorva-localservice>
  COMMAND ${compress} ${manual}
  DEPENDS quorva-localservice
  WORKING_DIRECTORY $<TARGET_FILE_DIR:quorva-localservice> VERBATIM)
add_custom_target(manual ALL DEPENDS ${manual}.gz)
install(FILES ${manual}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT localservice)

include(CPack)
