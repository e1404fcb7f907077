# Debian packages of the library, of what programs are built with, and of the documentation. CPack
# makes one of each component; scripts/package calls it.
set(runtime_package libtessel${PROJECT_VERSION_MAJOR})
set(dev_package libtessel-dev)
set(doc_package tessel-doc)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "the tessel authors <authors@tessel.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each component has its own in its first line
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev doc)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SOURCE tessel)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(release ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

# Its lines stay as they are; CPack puts a space before each and a dot into the empty one.
set(about "
tessel gives the processes of one machine or of a network two services on
ZeroMQ: publish/subscribe with a last-value cache, so that a late joiner has
the state of the system at once, and remote procedure calls.

")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_BINARY_DIR}/packaging/shlibs ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "publish/subscribe and remote calls on ZeroMQ - library${about}This package has what programs need to run.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${dev_package})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${runtime_package} (= ${release})")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS ${doc_package})
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "publish/subscribe and remote calls on ZeroMQ - development files${about}This package has the headers, and what CMake and pkg-config find them by.")

set(CPACK_DEBIAN_DOC_PACKAGE_NAME ${doc_package})
set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOC_DESCRIPTION
    "publish/subscribe and remote calls on ZeroMQ - documentation${about}This package has the guide, the reference and the examples.")

# A program built against this release runs with it and with later ones of the same major version.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/packaging/shlibs
     "libtessel ${PROJECT_VERSION_MAJOR} ${runtime_package} (>= ${PROJECT_VERSION})\n")

# What every package says about itself. The date is that of the sources, if SOURCE_DATE_EPOCH is.
function(install_papers package component)
  set(papers ${CMAKE_CURRENT_BINARY_DIR}/packaging/${package})
  string(TIMESTAMP tessel_changed "%a, %d %b %Y %H:%M:%S +0000" UTC)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${papers}/changelog.Debian @ONLY)
  configure_file(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${papers}/changelog COPYONLY)
  execute_process(COMMAND gzip -9nf ${papers}/changelog.Debian ${papers}/changelog
                  COMMAND_ERROR_IS_FATAL ANY)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/overrides-${component}.in ${papers}/overrides @ONLY)
  install(FILES ${papers}/changelog.Debian.gz ${papers}/changelog.gz
                ${PROJECT_SOURCE_DIR}/packaging/copyright
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  install(FILES ${papers}/overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
          RENAME ${package} COMPONENT ${component})
endfunction()
install_papers(${runtime_package} runtime)
install_papers(${dev_package} dev)
install_papers(${doc_package} doc)

# The folders lie to each other as in the sources: the pages link to the examples.
set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/${doc_package})
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/SECURITY.md
              ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        DESTINATION ${doc_dir} COMPONENT doc)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${doc_dir} COMPONENT doc
        FILES_MATCHING PATTERN *.md PATTERN *.dot PATTERN snippets EXCLUDE PATTERN site EXCLUDE)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${doc_dir} COMPONENT doc
        FILES_MATCHING PATTERN *.cc PATTERN *.h PATTERN *.py PATTERN *.md
        PATTERN *_test.cc EXCLUDE PATTERN __pycache__ EXCLUDE)
if(EXISTS ${PROJECT_SOURCE_DIR}/build/docs/index.html)  # by scripts/docs
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/build/docs/ DESTINATION ${doc_dir}/html COMPONENT doc)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/doc-base
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc-base RENAME ${doc_package} COMPONENT doc)
endif()

include(CPack)
