# Fails when a file includes a header of a room that its own room may not know, another room's private header, a private
# one from a public one, or one of tests from what is no test; and when a file is in no room.
#
#   cmake -D ROOT=<source tree> -P check.cmake
cmake_minimum_required(VERSION 3.25)

# Every room, and the rooms that it may know directly. What those may know it may know too. A folder below a room's
# source/ is a layer: its headers are private to the room, and within the room the same rules hold.
set(engine platform/lbm/embedded/source)
set(arrows
    "tools -> price_server/ps_common/connector price_server/ps_common/feed misc/posix misc/statistics"
    "bench -> price_server/ps_common/connector platform/lbm/scripted tests/support"
    "price_server/ps_common/connector -> lbm price_server/ps_common/config misc/logger misc/statistics platform/onload"
    "price_server/ps_common/config -> misc/posix"
    "price_server/ps_common/feed ->"
    "lbm -> platform/lbm messaging misc/logger misc/posix misc/statistics"
    "messaging ->"
    "misc/logger -> misc/posix misc/statistics"
    "misc/statistics -> misc/posix"
    "misc/posix ->"
    "platform/onload ->"
    "platform/lbm/embedded -> ${engine}/api"
    "${engine}/api -> ${engine}/core ${engine}/transport/host ${engine}/transport/nats ${engine}/transport/combined"
    "${engine}/core -> ${engine}/options ${engine}/transport ${engine}/system ${engine}/statistics platform/lbm"
    "${engine}/options -> ${engine}/system platform/lbm"
    "${engine}/transport/host -> ${engine}/transport ${engine}/transport/host/ring ${engine}/transport/host/link"
    "${engine}/transport/host/ring -> ${engine}/transport/host/wire ${engine}/system"
    "${engine}/transport/host/link -> ${engine}/transport/host/wire ${engine}/system"
    "${engine}/transport/host/wire -> ${engine}/transport"
    "${engine}/transport/nats -> ${engine}/transport ${engine}/system"
    "${engine}/transport/combined -> ${engine}/transport ${engine}/system"
    "${engine}/transport -> ${engine}/statistics"
    "${engine}/statistics -> misc/statistics"
    "${engine}/system -> misc/posix"
    "platform/lbm/scripted -> platform/lbm"
    "platform/lbm ->"
    "tests/fuzz -> tools platform/lbm/embedded"
    "tests/support -> misc/posix")

# They look inside those that they may know.
set(insiders tests/fuzz)

# A room's tests may use the test kit too, and what they share.
set(test_kit platform/lbm/scripted tests/support)

# Headers that are not in the source tree because they are generated: a pattern, and the room that has them.
set(generated_pattern "\\.pb\\.h$")
set(generated_room messaging)

set(rooms)
foreach(arrow IN LISTS arrows)
  string(REGEX MATCH "^([^ ]+) ->(.*)$" _ "${arrow}")
  set(room ${CMAKE_MATCH_1})
  list(APPEND rooms ${room})
  separate_arguments(direct_${room} UNIX_COMMAND "${CMAKE_MATCH_2}")
endforeach()

# Sets known_<room> to the room itself and everything reachable from it.
foreach(room IN LISTS rooms)
  set(known ${room})
  set(open ${room})
  while(open)
    list(POP_FRONT open next)
    foreach(direct IN LISTS direct_${next})
      if(NOT direct IN_LIST rooms)
        message(FATAL_ERROR "The table of arrows names an unknown room: ${direct}")
      endif()
      if(NOT direct IN_LIST known)
        list(APPEND known ${direct})
        list(APPEND open ${direct})
      endif()
    endforeach()
  endwhile()
  set(known_${room} ${known})
endforeach()

# The innermost room that has the file; empty when none has.
function(room_of file result)
  set(best "")
  string(LENGTH "${best}" best_length)
  foreach(room IN LISTS rooms)
    string(FIND "${file}" "${room}/" at)
    string(LENGTH "${room}" length)
    if(at EQUAL 0 AND length GREATER best_length)
      set(best ${room})
      set(best_length ${length})
    endif()
  endforeach()
  set(${result} "${best}" PARENT_SCOPE)
endfunction()

# The file of the tree, relative to it, that an include in one of the room's files means; empty when it is none of ours.
function(resolve name file room result)
  get_filename_component(folder ${file} DIRECTORY)
  set(candidates ${folder} ${room}/source ${room}/include ${room}/tests)
  foreach(other IN LISTS rooms)
    list(APPEND candidates ${other}/include ${other}/tests/include)
  endforeach()
  foreach(other IN LISTS rooms)
    list(APPEND candidates ${other}/source)
  endforeach()
  set(found "")
  foreach(candidate IN LISTS candidates)
    if(EXISTS ${ROOT}/${candidate}/${name})
      cmake_path(SET found NORMALIZE ${candidate}/${name})
      break()
    endif()
  endforeach()
  set(${result} "${found}" PARENT_SCOPE)
endfunction()

# What is wrong with a file's including name; empty when nothing is.
function(fault_of file room name result)
  set(${result} "" PARENT_SCOPE)
  resolve(${name} ${file} ${room} target)
  if(target)
    room_of(${target} target_room)
  elseif(name MATCHES "${generated_pattern}")
    set(target_room ${generated_room})
  else()
    return()
  endif()

  set(may_know ${known_${room}})
  set(is_test FALSE)
  if(file MATCHES "^${room}/(.*/)?tests/" OR room IN_LIST insiders)
    set(is_test TRUE)
    list(APPEND may_know ${test_kit})
  endif()
  string(REGEX REPLACE "/source/.*" "" whole_room ${room})
  if(NOT target_room IN_LIST may_know)
    set(${result} "but ${room} may not know ${target_room}" PARENT_SCOPE)
  elseif(target MATCHES "^${target_room}/(.*/)?tests/" AND NOT is_test)
    set(${result} "which is for the tests of ${target_room}" PARENT_SCOPE)
  elseif(target AND NOT target MATCHES "^${target_room}/(tests/)?include/" AND NOT room IN_LIST insiders)
    if(NOT target MATCHES "^${whole_room}/" OR file MATCHES "^${room}/include/")
      set(${result} "which is private to ${target_room}" PARENT_SCOPE)
    endif()
  endif()
endfunction()

# Every source of the tree but those that stand for other people's.
file(GLOB folders ${ROOT}/*)
list(REMOVE_ITEM folders ${ROOT}/build)
list(TRANSFORM folders APPEND "/*")
file(GLOB_RECURSE files RELATIVE ${ROOT} ${folders})
list(FILTER files INCLUDE REGEX "\\.(h|hpp|c|cc|cpp)$|/include/")
list(FILTER files EXCLUDE REGEX "^(examples|tests/(arrows|package))/")

set(checked 0)
set(violations)
foreach(file IN LISTS files)
  room_of(${file} room)
  if(NOT room)
    list(APPEND violations "${file}: is in no room of the table")
    continue()
  endif()
  file(STRINGS ${ROOT}/${file} includes REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]")
  foreach(include IN LISTS includes)
    string(REGEX MATCH "[<\"]([^>\"]+)[>\"]" _ "${include}")
    set(name ${CMAKE_MATCH_1})
    math(EXPR checked "${checked} + 1")
    fault_of(${file} ${room} ${name} fault)
    if(fault)
      list(APPEND violations "${file}: includes ${name}, ${fault}")
    endif()
  endforeach()
endforeach()

if(checked EQUAL 0)
  message(FATAL_ERROR "No include line found under ${ROOT}")
endif()
if(violations)
  list(JOIN violations "\n  " text)
  message(FATAL_ERROR "Against the allowed arrows:\n  ${text}")
endif()
message(STATUS "${checked} include lines follow the allowed arrows")
