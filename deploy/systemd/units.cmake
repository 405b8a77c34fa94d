# Writes the units, at installation: jobmill.service, and jobmill@.service for further daemons. Given
# are the directories `programs`, `shared` and `units`, and whether this is for a `package`.

set(destination "$ENV{DESTDIR}${units}")

set(enabled ${units}/jobmill.service)
set(configuration jobmill.conf)
set(options "# Without that file:
Environment=\"OPTIONS=-p 5000 -s ${programs}/vkmpi_dir.sh\"
EnvironmentFile=-/etc/jobmill/jobmill.conf")
if(package)
  set(enabled jobmill)
  set(options EnvironmentFile=/etc/jobmill/jobmill.conf)
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/jobmill.service.in ${destination}/jobmill.service @ONLY)

string(REPLACE jobmill.service jobmill@NAME.service enabled ${enabled})
string(REGEX REPLACE "jobmill$" "jobmill@NAME" enabled ${enabled})
set(configuration NAME.conf)
set(options EnvironmentFile=/etc/jobmill/%i.conf)
configure_file(${CMAKE_CURRENT_LIST_DIR}/jobmill.service.in ${destination}/jobmill@.service @ONLY)
