# Writes the units of the status page, at installation. Given are the directories `programs` and `units`, and
# whether this is for a `package`.

set(destination "$ENV{DESTDIR}${units}")
set(enabled ${units}/jobmill-status.service)
if(package)
  set(enabled jobmill-status)
endif()
foreach(unit IN ITEMS jobmill-status.service jobmill-collector.service)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${unit}.in ${destination}/${unit} @ONLY)
endforeach()
