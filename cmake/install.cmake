# What is installed where. The libraries get a folder of their own: they have no version in their
# names, so the system's is not the place for them.

set(VELMORA_LIBDIR ${CMAKE_INSTALL_LIBDIR}/velmora)
set(VELMORA_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/velmora)
set(VELMORA_BASH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/bash-completion/completions CACHE STRING
  "Folder of the completions for bash")
set(VELMORA_ZSH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING
  "Folder of the completions for zsh")
set(VELMORA_FISH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d CACHE STRING
  "Folder of the completions for fish")

# CMake leaves the folders that it makes to the umask of whoever installs. These are made first, and
# open to all.
set(folders ${CMAKE_INSTALL_BINDIR} ${VELMORA_LIBDIR} ${VELMORA_INCLUDEDIR}
  ${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_LIBDIR}/cmake/velmora
  ${CMAKE_INSTALL_MANDIR}/man1 ${CMAKE_INSTALL_MANDIR}/man3
  ${VELMORA_BASH_COMPLETIONS} ${VELMORA_ZSH_COMPLETIONS} ${VELMORA_FISH_COMPLETIONS})
install(CODE "set(folders \"${folders}\")")
install(SCRIPT cmake/folders.cmake)

# The way from one installed folder, which `origin` names, to another: relative, so that the tree
# can be moved, unless one of the two was given as a place outside of it.
function(velmora_way variable origin from to)
  if(IS_ABSOLUTE "${to}")
    set(way ${to})
  elseif(IS_ABSOLUTE "${from}")
    set(way ${CMAKE_INSTALL_PREFIX}/${to})
  else()
    file(RELATIVE_PATH way /${from} /${to})
    string(PREPEND way ${origin}/)
  endif()
  set(${variable} ${way} PARENT_SCOPE)
endfunction()

# Installs a program, under a name, that finds the libraries.
function(velmora_install_program target name)
  velmora_way(libraries "$ORIGIN" "${CMAKE_INSTALL_BINDIR}" "${VELMORA_LIBDIR}")
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name}
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/installed
    INSTALL_RPATH "${libraries};${external_libraries}")
  install(TARGETS ${target})
endfunction()

# Installs a manual page with the version in it.
function(velmora_install_page page)
  configure_file(${PROJECT_SOURCE_DIR}/man/${page} ${PROJECT_BINARY_DIR}/man/${page} @ONLY)
  string(REGEX REPLACE ".*\\." "man" section ${page})
  install(FILES ${PROJECT_BINARY_DIR}/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/${section})
endfunction()

# Installs a library, its page, and what is needed to build with it: its header, for CMake
# velmora::TARGET, for pkg-config TARGET.pc. What is built with either finds the library's file.
function(velmora_install_library target file header description)
  velmora_way(installed "$<INSTALL_PREFIX>" "" "${VELMORA_LIBDIR}")
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${VELMORA_INCLUDEDIR}>)
  target_link_options(${target} INTERFACE "$<INSTALL_INTERFACE:LINKER:-rpath,${installed}>")
  install(TARGETS ${target} EXPORT velmora LIBRARY DESTINATION ${VELMORA_LIBDIR})
  install(FILES ${header} DESTINATION ${VELMORA_INCLUDEDIR})

  set(folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  velmora_way(libdir "\${pcfiledir}" "${folder}" "${VELMORA_LIBDIR}")
  velmora_way(includedir "\${pcfiledir}" "${folder}" "${VELMORA_INCLUDEDIR}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${target}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${target}.pc DESTINATION ${folder})
  velmora_install_page(${file}.3)
endfunction()
