# Installs the build tree into PREFIX and checks that the installed programs start (they find
# the library through their relative run path) and that their man pages and bash completion
# are installed. Run by CTest: cmake -DBUILD=... -DPREFIX=... -P install_check.cmake
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${PREFIX} RESULT_VARIABLE status OUTPUT_QUIET)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${status}")
endif()
foreach(program nkctl nkdevice)
  # Without the build tree's run path: only the installed one can find the library.
  execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${PREFIX}/bin/${program} --version
                  RESULT_VARIABLE status OUTPUT_VARIABLE version ERROR_VARIABLE error)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "installed ${program} does not start: ${error}")
  endif()
  foreach(file share/man/man1/${program}.1 share/bash-completion/completions/${program})
    if(NOT EXISTS ${PREFIX}/${file})
      message(FATAL_ERROR "${file} is not installed")
    endif()
  endforeach()
endforeach()
# A run with TLS options is handed to nkctl-tls in libexec: it, not the plain nkctl, reads the
# certificate files and names the one that is missing.
execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${PREFIX}/bin/nkctl
                        --tls-cert /nonexistent/station.crt --tls-key /nonexistent/station.key
                        --tls-ca /nonexistent/ca.crt state
                RESULT_VARIABLE status OUTPUT_QUIET ERROR_VARIABLE error)
if(NOT status EQUAL 3 OR NOT error MATCHES "cannot read TLS certificate /nonexistent/station.crt")
  message(FATAL_ERROR "installed nkctl does not hand TLS runs to nkctl-tls (status ${status}): ${error}")
endif()
# The dashboard's files, where an installed nkstation looks for them (bin/../share/nkstation/web).
if(EXISTS ${PREFIX}/bin/nkstation)
  foreach(file index.html app.js fleet.js panel.js desired.js style.css)
    if(NOT EXISTS ${PREFIX}/share/nkstation/web/${file})
      message(FATAL_ERROR "the dashboard's ${file} is not installed in share/nkstation/web")
    endif()
  endforeach()
endif()
file(REMOVE_RECURSE ${PREFIX})
