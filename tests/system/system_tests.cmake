find_program(PYTHON3 python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)  # the system's own: quick to start

# orv_system_tests(PREFIX [NAME=VALUE...]) makes every test method of the Python files in the current folder a test of its
# own, named after PREFIX, in a sandbox of its own with a software TPM. The names with their values go into its environment.
# Tests that match `left_out`, if the caller has set that, are not made. With FEATUREWATCH_THOROUGH their samples are large.
function(orv_system_tests prefix)
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.py)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${sources})
    set(runner ${PROJECT_SOURCE_DIR}/tests/system)
    set(bytecode ${PROJECT_BINARY_DIR}/tests/bytecode)
    execute_process(
        COMMAND ${PYTHON3} -B ${runner}/list_tests.py ${CMAKE_CURRENT_SOURCE_DIR}
        OUTPUT_VARIABLE ids
        OUTPUT_STRIP_TRAILING_WHITESPACE
        COMMAND_ERROR_IS_FATAL ANY)
    string(REPLACE "\n" ";" ids "${ids}")
    if(left_out)
        list(FILTER ids EXCLUDE REGEX "${left_out}")
    endif()
    if(FEATUREWATCH_THOROUGH)
        list(APPEND ARGN FEATUREWATCH_THOROUGH=1)
    endif()
    foreach(id ${ids})
        add_test(NAME ${prefix}.${id}
            COMMAND ${SANDBOX} --tpm -- ${PYTHON3} -B ${runner}/run_test.py ${CMAKE_CURRENT_SOURCE_DIR} ${id})
        set_tests_properties(${prefix}.${id} PROPERTIES
            ENVIRONMENT "FEATUREWATCH=$<TARGET_FILE:featurewatch>;FEATUREWATCH_BYTECODE=${bytecode};${ARGN}"
            SKIP_RETURN_CODE 77
            TIMEOUT ${test_timeout})
        if(id MATCHES "^test_fleet_(faults|page|postgresql)\\.|[.]test_timer_survives_or_reports_each_failed_call$")
            set_tests_properties(${prefix}.${id} PROPERTIES TIMEOUT 300 COST 100)  # first, as they take longest
        endif()
    endforeach()
endfunction()
