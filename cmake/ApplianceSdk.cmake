# Builds against the appliance's own libraries under APPLIANCE_SDK instead of
# the host implementation in platform/.  The targets keep the names that the
# rest of the tree links.
foreach(lib kelu_utils_v4_comm q9mi metadata_v4 appliance_util)
  add_library(${lib} UNKNOWN IMPORTED)
  find_library(${lib}_path NAMES ${lib} PATHS ${APPLIANCE_SDK}/lib NO_DEFAULT_PATH REQUIRED)
  set_target_properties(${lib} PROPERTIES
    IMPORTED_LOCATION ${${lib}_path}
    INTERFACE_INCLUDE_DIRECTORIES ${APPLIANCE_SDK}/include)
endforeach()
