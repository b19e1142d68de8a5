# Fails unless every dynamic symbol that the library defines belongs to the public classes.
execute_process(COMMAND nm -D --defined-only -C ${LIB} OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REPLACE "\n" ";" lines "${symbols}")
set(bad "")
foreach(line IN LISTS lines)
  if(line STREQUAL "")
    continue()
  endif()
  string(REGEX REPLACE "^[0-9a-fA-F]+ [A-Za-z] " "" name "${line}")
  if(name MATCHES "^FerritCore::(Access|Error|ResourceRequest|ResourceResponse)::" OR
     name MATCHES "^(typeinfo|vtable|typeinfo name) for FerritCore::(Access|Error|ResourceRequest|ResourceResponse)$" OR
     name MATCHES "^_init$|^_fini$|^_edata$|^_end$|^__bss_start$" OR
     name MATCHES "^ferritcore_(access_api|start_offline)$" OR
     name MATCHES "^ferritcore_(open|close|answer_request|fail_request|update_foreground|update_background|push_message|prefetch|update_pack|status_report|free_text|set_network|set_locale|set_log_level)$")
    continue()
  endif()
  # Template instantiations of the standard library emitted as weak symbols are not ours.
  if(line MATCHES " [VWu] ")
    continue()
  endif()
  list(APPEND bad "${name}")
endforeach()
if(bad)
  message(FATAL_ERROR "unexpected exported symbols: ${bad}")
endif()
