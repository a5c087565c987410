# The compiler settings of every target of ours, kept on one INTERFACE target.
add_library(orv_build_flags INTERFACE)

target_compile_options(orv_build_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
    -fstack-protector-strong
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

if(FEATUREWATCH_SANITIZE)
    set(sanitize -O1 -fsanitize=${FEATUREWATCH_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_compile_options(orv_build_flags INTERFACE ${sanitize})
    target_link_options(orv_build_flags INTERFACE ${sanitize})
else()
    target_compile_definitions(orv_build_flags INTERFACE $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
endif()

# Without it libFuzzer sees which paths an input takes through the target, and none through the parser.
if(FEATUREWATCH_LIBFUZZER)
    target_compile_options(orv_build_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

# clang records the lines of each program by itself; g++ adds up what all programs ran, for gcov.
if(FEATUREWATCH_COVERAGE)
    set(coverage --coverage)
    if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
        set(coverage -fprofile-instr-generate -fcoverage-mapping)
    endif()
    target_compile_options(orv_build_flags INTERFACE ${coverage})
    target_link_options(orv_build_flags INTERFACE ${coverage})
endif()
