# tsd_install_config(SOURCE DESTINATION DIR [RENAME NAME])
#
# Installs a configuration file (anything under /etc) without ever replacing
# one that is there already: a module's /etc/default/tsd holds its UUID, and a
# reinstall must not reset it. When DESTDIR/DIR/NAME exists, the shipped
# version goes beside it as NAME.dist and the install says so; compare and
# merge by hand. Packages get the same guarantee from dpkg (conffiles), whose
# staging root is empty, so there the file is always installed as it is.
function(tsd_install_config source)
  cmake_parse_arguments(ARG "" "DESTINATION;RENAME" "" ${ARGN})
  get_filename_component(name ${source} NAME)
  if(ARG_RENAME)
    set(name ${ARG_RENAME})
  endif()
  get_filename_component(source ${source} ABSOLUTE)
  install(CODE "
    set(tsdConfigTarget \"\$ENV{DESTDIR}${ARG_DESTINATION}/${name}\")
    if(EXISTS \"\${tsdConfigTarget}\")
      message(STATUS \"Keeping: \${tsdConfigTarget} (shipped version: \${tsdConfigTarget}.dist)\")
      file(INSTALL DESTINATION \"${ARG_DESTINATION}\" TYPE FILE RENAME \"${name}.dist\" FILES \"${source}\")
    else()
      file(INSTALL DESTINATION \"${ARG_DESTINATION}\" TYPE FILE RENAME \"${name}\" FILES \"${source}\")
    endif()")
endfunction()
