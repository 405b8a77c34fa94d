# bats_cases(NAME LABEL RESULTS SITE SUITE): the test NAME.CASE for every case of SUITE.bats. It tells
# what came out: the test that sets up the fixture LABEL goes through all suites at once and leaves
# their results in RESULTS/SITE.SUITE.tap.
function(bats_cases name label results site suite)
  file(STRINGS ${suite}.bats cases REGEX "^@test ")
  foreach(case IN LISTS cases)
    string(REGEX REPLACE "^@test \"(.*)\".*" "\\1" case ${case})
    add_test(NAME ${name}.${case}
      COMMAND ${PROJECT_SOURCE_DIR}/tests/cluster/result ${results} ${site} ${suite} ${case})
    set_tests_properties(${name}.${case} PROPERTIES
      FIXTURES_REQUIRED ${label}
      SKIP_RETURN_CODE 77
      TIMEOUT 20
      LABELS ${label})
  endforeach()
endfunction()
