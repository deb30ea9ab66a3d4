# Settings of one CPack generator (CPACK_PROJECT_CONFIG_FILE, read by cpack).
if(CPACK_GENERATOR STREQUAL "DEB")
  # A package of its own folder: cloudplugin-host finds the plug-in and the jar
  # under its folder's parent.
  set(CPACK_PACKAGING_INSTALL_PREFIX /opt/qvazureplugin)
endif()
