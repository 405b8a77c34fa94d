# Where what is built is installed. Without JOBMILL_PACKAGE below one prefix, wherever that is (README).
# With it, and the prefix /usr, as a distribution's package has it: programs in lib/jobmill with links
# where commands are looked for, configuration in /etc/jobmill, units where systemd looks.
#
# Everything belongs to one of the components daemon, client, simulator, status, gate, python, library and
# development: each is a package.

include(GNUInstallDirs)
set(JOBMILL_UNITS lib/systemd/system CACHE STRING
  "Where the units are installed with JOBMILL_PACKAGE")
set(JOBMILL_ZSH_COMPLETIONS share/zsh/site-functions CACHE STRING
  "Where the completion of zsh is installed with JOBMILL_PACKAGE")
set(JOBMILL_PYTHON share/jobmill/python CACHE STRING
  "Where the Python kit is installed")
set(jobmill_shared ${CMAKE_INSTALL_DATADIR}/jobmill)
if(JOBMILL_PACKAGE)
  set(jobmill_programs lib/jobmill)
  set(jobmill_units ${JOBMILL_UNITS})
  set(jobmill_zsh ${JOBMILL_ZSH_COMPLETIONS})
else()
  set(jobmill_programs ${CMAKE_INSTALL_BINDIR})
  set(jobmill_units ${jobmill_shared}/systemd)
  set(jobmill_zsh ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
endif()

# jobmill_install_link(DIRECTORY NAME TARGET COMPONENT)
function(jobmill_install_link directory name target component)
  set(links ${CMAKE_CURRENT_BINARY_DIR}/links)
  file(MAKE_DIRECTORY ${links})
  file(CREATE_LINK ${target} ${links}/${name} SYMBOLIC)
  install(FILES ${links}/${name} DESTINATION ${directory} COMPONENT ${component})
endfunction()

# jobmill_install_program(TARGET COMPONENT DIRECTORY): from a package the program is found through a
# link in DIRECTORY, sbin or bin.
function(jobmill_install_program target component directory)
  install(TARGETS ${target} DESTINATION ${jobmill_programs} COMPONENT ${component})
  if(JOBMILL_PACKAGE)
    get_target_property(name ${target} OUTPUT_NAME)
    if(NOT name)
      set(name ${target})
    endif()
    jobmill_install_link(${directory} ${name} ../lib/jobmill/${name} ${component})
  endif()
endfunction()

# jobmill_install_completion(PROGRAM COMPONENT): for a program that says by --complete what may come
# next on its command line.
function(jobmill_install_completion program component)
  set(completion ${CMAKE_CURRENT_BINARY_DIR}/completion)
  configure_file(${PROJECT_SOURCE_DIR}/deploy/completion/bash.in ${completion}/${program} @ONLY)
  configure_file(${PROJECT_SOURCE_DIR}/deploy/completion/zsh.in ${completion}/_${program} @ONLY)
  install(FILES ${completion}/${program}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT ${component})
  install(FILES ${completion}/_${program} DESTINATION ${jobmill_zsh} COMPONENT ${component})
endfunction()
