# The include rule: a folder may include its own headers and those of the
# layers below it, never one above. Run as
#   cmake -DROOT=<source dir> -P tests/layers.cmake
# and fails naming every file and line that breaks the rule. Qt stays out of
# every layer below the programs.
#
#   base <- store, mime <- net <- core <- services <- ui <- app
cmake_minimum_required(VERSION 3.25)

set(allowed_base base)
set(allowed_store base store)
set(allowed_mime base mime)
set(allowed_net base mime net)
set(allowed_core base store mime net core)
set(allowed_services ${allowed_core} services)
set(allowed_ui ${allowed_services} ui)
set(allowed_app ${allowed_ui} app)
set(layers base store mime net core services ui app)

set(failures "")
foreach(layer ${layers})
  foreach(tree "${layer}" "tests/${layer}")
    if(tree STREQUAL "${layer}")
      set(allowed ${allowed_${layer}})
    else()
      set(allowed ${allowed_${layer}} tests)
    endif()
    file(GLOB_RECURSE sources "${ROOT}/${tree}/*.h" "${ROOT}/${tree}/*.cpp")
    foreach(source ${sources})
      file(STRINGS "${source}" lines REGEX "^[ \t]*#[ \t]*include")
      file(RELATIVE_PATH name "${ROOT}" "${source}")
      foreach(line ${lines})
        if(line MATCHES "#[ \t]*include[ \t]*\"([a-z_]+)/")
          set(target "${CMAKE_MATCH_1}")
          if(NOT target IN_LIST allowed)
            string(APPEND failures "${name}: ${line} (${tree} may include: ${allowed})\n")
          endif()
        elseif(line MATCHES "#[ \t]*include[ \t]*<(Q[A-Za-z]*|qt[a-z]*)[/>]" AND NOT layer STREQUAL "app")
          string(APPEND failures "${name}: ${line} (Qt belongs to the window program in app/)\n")
        endif()
      endforeach()
    endforeach()
  endforeach()
endforeach()

# The shared test helpers start the network servers: they sit with net.
file(GLOB_RECURSE sources "${ROOT}/tests/support/*.h" "${ROOT}/tests/support/*.cpp")
foreach(source ${sources})
  file(STRINGS "${source}" lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  file(RELATIVE_PATH name "${ROOT}" "${source}")
  foreach(line ${lines})
    if(line MATCHES "#[ \t]*include[ \t]*\"([a-z_]+)/" AND NOT CMAKE_MATCH_1 IN_LIST allowed_net
       AND NOT CMAKE_MATCH_1 STREQUAL "tests")
      string(APPEND failures "${name}: ${line} (tests/support may include: ${allowed_net} tests)\n")
    endif()
  endforeach()
endforeach()

if(failures)
  message(FATAL_ERROR "Includes that run up the layers:\n${failures}")
endif()
message(STATUS "Every include runs down the layers.")
