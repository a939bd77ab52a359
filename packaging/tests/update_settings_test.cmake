# cmake -P update_settings_test.cmake: which update feed and key a build accepts.
cmake_minimum_required(VERSION 3.22)
include(${CMAKE_CURRENT_LIST_DIR}/../update_settings.cmake)

set(key "pfIShU4dEXqPd5ObYNfDBiQWcXozk7estwzTnF9BamQ=")
# Each case: feed | key | "ok" or a word the error must contain.
set(cases
  "||ok"
  "https://updates.example.org/vistrel/appcast.xml|${key}|ok"
  "https://example.org/feed.xml?channel=beta|${key}|ok"
  "https://example.org/appcast.xml||both"
  "|${key}|both"
  "http://example.org/appcast.xml|${key}|https"
  "https://example.org/a b.xml|${key}|https"
  "https://example.org/a.xml?x=1&y=2|${key}|https"
  "https://example.org/\${HOME}.xml|${key}|https"
  "https://example.org/appcast.xml|pfIShU4dEXqPd5ObYNfDBiQWcXozk7estwzTnF9Bam=|44 characters"
  "https://example.org/appcast.xml|pfIShU4dEXqPd5ObYNfDBiQWcXozk7estwzTnF9BamQ|44 characters"
  "https://example.org/appcast.xml|pfIShU4dEXqPd5ObYNfDBiQWcXozk7estwzTnF9Bam!=|44 characters"
)
set(failed 0)
foreach(case IN LISTS cases)
  string(REPLACE "|" ";" parts "${case}")
  list(GET parts 0 feed)
  list(GET parts 1 public_key)
  list(GET parts 2 expected)
  vistrel_check_update_settings("${feed}" "${public_key}" error)
  if(expected STREQUAL "ok")
    if(NOT error STREQUAL "")
      message(SEND_ERROR "'${feed}' '${public_key}': refused (${error}), should be accepted")
      math(EXPR failed "${failed} + 1")
    endif()
  else()
    string(FIND "${error}" "${expected}" at)
    if(at EQUAL -1)
      message(SEND_ERROR "'${feed}' '${public_key}': error '${error}' does not say '${expected}'")
      math(EXPR failed "${failed} + 1")
    endif()
  endif()
endforeach()
if(failed)
  message(FATAL_ERROR "${failed} update-settings case(s) failed")
endif()
