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

# Appends a line to `failures` for every include of a file under `tree` that
# names a folder outside `allowed`, and for Qt where `no_qt` is set.
function(check_tree tree allowed no_qt)
  file(GLOB_RECURSE sources "${ROOT}/${tree}/*.h" "${ROOT}/${tree}/*.cpp")
  foreach(source ${sources})
    file(STRINGS "${source}" lines REGEX "^[ \t]*#[ \t]*include")
    file(RELATIVE_PATH name "${ROOT}" "${source}")
    foreach(line ${lines})
      if(line MATCHES "#[ \t]*include[ \t]*\"tests/([a-z_]+)/")
        # Test helpers of a layer above are as far out of reach as its code.
        if(NOT CMAKE_MATCH_1 STREQUAL "support" AND NOT CMAKE_MATCH_1 IN_LIST allowed)
          string(APPEND failures "${name}: ${line} (${tree} may include: ${allowed})\n")
        endif()
      elseif(line MATCHES "#[ \t]*include[ \t]*\"([a-z_]+)/")
        if(NOT CMAKE_MATCH_1 IN_LIST allowed)
          string(APPEND failures "${name}: ${line} (${tree} may include: ${allowed})\n")
        endif()
      elseif(no_qt AND line MATCHES "#[ \t]*include[ \t]*<(Q[A-Za-z]*|qt[a-z]*)[/>]")
        string(APPEND failures "${name}: ${line} (Qt belongs to the window program in app/)\n")
      endif()
    endforeach()
  endforeach()
  set(failures "${failures}" PARENT_SCOPE)
endfunction()

foreach(layer ${layers})
  set(no_qt ON)
  if(layer STREQUAL "app")
    set(no_qt OFF)
  endif()
  check_tree("${layer}" "${allowed_${layer}}" ${no_qt})
  check_tree("tests/${layer}" "${allowed_${layer}};tests" ${no_qt})
endforeach()
# The shared test helpers start the network servers: they sit with net.
check_tree("tests/support" "${allowed_net};tests" ON)

if(failures)
  message(FATAL_ERROR "Includes that run up the layers:\n${failures}")
endif()
message(STATUS "Every include runs down the layers.")
