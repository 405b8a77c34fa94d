# Writes the unit of the gate, at installation. Given are the directories `programs` and `units`, and
# whether this is for a `package`.

set(enabled ${units}/jobmill-gate.service)
if(package)
  set(enabled jobmill-gate)
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/jobmill-gate.service.in
  "$ENV{DESTDIR}${units}/jobmill-gate.service" @ONLY)
