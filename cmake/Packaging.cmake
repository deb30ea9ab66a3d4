# Packages a host engineer can take away, made with CPack from a build tree.
#
#   Windows (the windows-mingw build): a ZIP laid out as a host's install
#   folder expects it,
#     Plugin/Azure/QVAzurePlugin.dll
#     Plugin/Azure/XNAzurePlugIn.jar
#   Linux: a TGZ and a DEB with the plug-in, the jar and cloudplugin-host,
#     bin/cloudplugin-host
#     Plugin/Azure/libQVAzurePlugin.so
#     Plugin/Azure/XNAzurePlugIn.jar
#     share/man/man1/cloudplugin-host.1, share/bash-completion/completions/
#     cloudplugin-host and share/zsh/site-functions/_cloudplugin-host (man-db
#     and bash-completion find them beside the bin/ folder on the PATH)
#   (the DEB installs them under /opt/qvazureplugin; cloudplugin-host takes
#   its own folder's parent as the install folder).
#
# Install components: "plugin" holds the plug-in library and the jar, "host"
# cloudplugin-host (the top-level CMakeLists.txt assigns them). The ZIP
# carries the plugin component only.

install(FILES $<TARGET_FILE:QVAzurePlugin> DESTINATION Plugin/Azure COMPONENT plugin)

set(CPACK_PACKAGE_NAME qvazureplugin)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Cloud-storage plug-in for backup hosts: Azure Blob storage through the host's JVM")
set(CPACK_PACKAGE_CONTACT "QVAzurePlugin maintainers")
set(CPACK_STRIP_FILES ON)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/CPackOptions.cmake)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME win64)
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
  set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
  set(CPACK_COMPONENTS_ALL plugin)
else()
  set(CPACK_GENERATOR TGZ DEB)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION misc)
  # The plug-in joins its host's JVM; cloudplugin-host starts one of a JDK or JRE 17.
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, openjdk-17-jre-headless | java17-runtime-headless")
endif()

include(CPack)
