# Manual pages. A program's options are told by the program itself, and by no second text.
find_program(HELP2MAN help2man REQUIRED)
find_program(MD2MAN go-md2man REQUIRED)
set(manuals ${PROJECT_SOURCE_DIR}/docs/man)

# qurn_manual(PAGE COMMAND...): a page that the command writes to its standard output.
function(qurn_manual page)
  cmake_path(GET page EXTENSION LAST_ONLY section)
  string(SUBSTRING ${section} 1 -1 section)
  set(file ${PROJECT_BINARY_DIR}/man/${page})
  cmake_parse_arguments(PARSE_ARGV 1 made "" "" "COMMAND;DEPENDS;COMPONENT")
  add_custom_command(OUTPUT ${file} COMMAND ${made_COMMAND} > ${file} DEPENDS ${made_DEPENDS}
                     WORKING_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY} VERBATIM)
  add_custom_target(manual_${page} ALL DEPENDS ${file})
  install(FILES ${file} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${made_COMPONENT})
endfunction()

file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
foreach(page libqurnadapt.3 qurnadapt.yaml.5)
  set(component development)
  if(page MATCHES yaml)
    set(component platform)
  endif()
  qurn_manual(${page} COMMAND ${MD2MAN} -in ${manuals}/${page}.md DEPENDS ${manuals}/${page}.md
              COMPONENT ${component})
endforeach()
foreach(target qurn_report qurn_inspect qurn_guard qurn_host)
  if(TARGET ${target})
    string(REPLACE _ - program ${target})
    set(component examples)
    if(program MATCHES "report|inspect")
      set(component tools)
    endif()
    # By its name alone: a path with a space in it would be two words to help2man.
    qurn_manual(${program}.1 COMMAND ${HELP2MAN} --no-info --version-string=${PROJECT_VERSION}
                --include=${manuals}/${program}.h2m ./$<TARGET_FILE_NAME:${target}>
                DEPENDS ${target} ${manuals}/${program}.h2m COMPONENT ${component})
  endif()
endforeach()
