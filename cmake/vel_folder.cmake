# vel_folder(NAME DEPENDS ... SOURCES ... TESTS ...)
#
# One folder of the library: an object library vel_NAME and, with VEL_TESTS, one test program NAME_test that links
# only this folder and what it depends on, so that a call up the house fails to link.
# DEPENDS lists every folder whose headers this one includes; the tidy test reads the same list.
function(vel_folder name)
    cmake_parse_arguments(folder "" "" "DEPENDS;SOURCES;TESTS" ${ARGN})

    set(below "")
    foreach(dependency IN LISTS folder_DEPENDS)
        get_property(beneath GLOBAL PROPERTY vel_${dependency}_closure)
        list(APPEND below ${beneath})
    endforeach()
    list(REMOVE_DUPLICATES below)
    if(NOT folder_SOURCES)
        set_property(GLOBAL PROPERTY vel_${name}_closure ${below})
        return()
    endif()
    set_property(GLOBAL PROPERTY vel_${name}_closure ${below} ${name})
    set_property(GLOBAL APPEND PROPERTY vel_folders ${name})

    add_library(vel_${name} OBJECT ${folder_SOURCES})
    target_include_directories(vel_${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_compile_definitions(vel_${name} PRIVATE VEL_VERSION="${PROJECT_VERSION}")
    target_compile_options(vel_${name} PRIVATE -fno-semantic-interposition) # exported functions are inlined as well

    if(VEL_TESTS AND folder_TESTS)
        add_executable(${name}_test ${folder_TESTS})
        target_include_directories(${name}_test PRIVATE ${PROJECT_SOURCE_DIR})
        foreach(part IN LISTS below name)
            target_link_libraries(${name}_test PRIVATE vel_${part})
        endforeach()
        target_link_libraries(${name}_test PRIVATE GTest::gmock GTest::gtest_main Threads::Threads)
        gtest_discover_tests(${name}_test TEST_PREFIX "${name}/" DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                             PROPERTIES TIMEOUT 120 LABELS ${name})
    endif()
endfunction()
