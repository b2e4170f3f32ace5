# Dependency provider for cross builds: find_package(GTest) builds GoogleTest and GoogleMock for the
# target from the local source tree of Debian's googletest package instead of looking for the
# host's prebuilt libraries (which are for the host architecture). No network access.
# Provides GTest::gtest, GTest::gtest_main, GTest::gmock and GTest::gmock_main.

set(AFD_GTEST_SOURCE_DIR "/usr/src/googletest" CACHE PATH "GoogleTest source tree built for the target")

macro(afd_provide_dependency method package_name)
    if("${package_name}" STREQUAL "GTest")
        if(NOT TARGET GTest::gtest)
            if(NOT EXISTS "${AFD_GTEST_SOURCE_DIR}/CMakeLists.txt")
                message(FATAL_ERROR "GoogleTest sources not found in ${AFD_GTEST_SOURCE_DIR} "
                                    "(Debian package googletest)")
            endif()
            include(FetchContent)
            set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
            set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
            FetchContent_Declare(afd_googletest SOURCE_DIR "${AFD_GTEST_SOURCE_DIR}")
            FetchContent_MakeAvailable(afd_googletest)
            # Third-party code: its warnings are not ours to fix and only hide our own.
            foreach(_afd_gt IN ITEMS gtest gtest_main gmock gmock_main)
                if(TARGET ${_afd_gt})
                    target_compile_options(${_afd_gt} PRIVATE -w)
                endif()
            endforeach()
        endif()
        set(GTest_FOUND TRUE)
    endif()
endmacro()

cmake_language(SET_DEPENDENCY_PROVIDER afd_provide_dependency SUPPORTED_METHODS FIND_PACKAGE)
