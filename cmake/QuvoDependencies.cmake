# System libraries beyond GoogleTest and Google Benchmark.

find_path(PCAP_INCLUDE_DIR pcap/pcap.h)
find_library(PCAP_LIBRARY pcap)
if(NOT PCAP_INCLUDE_DIR OR NOT PCAP_LIBRARY)
    message(FATAL_ERROR "libpcap not found: run scripts/setup.sh (or apt-get install libpcap-dev)")
endif()
add_library(quvo::pcap UNKNOWN IMPORTED)
set_target_properties(quvo::pcap PROPERTIES IMPORTED_LOCATION ${PCAP_LIBRARY}
                                            INTERFACE_INCLUDE_DIRECTORIES ${PCAP_INCLUDE_DIR})

# JSON: the expected-state file, quvo-dump --json and --check.
find_package(nlohmann_json 3 REQUIRED)

# libexanic is installed by the card's software, usually under /usr/local.
# Given its source (QUVO_EXANIC_SRC), a copy is built and installed into
# this build tree instead; the source folder is never written to.
set(QUVO_HAVE_EXANIC 0)
if(QUVO_EXANIC_SRC AND NOT QUVO_WITH_EXANIC STREQUAL "OFF")
    get_filename_component(_exanic_src "${QUVO_EXANIC_SRC}" ABSOLUTE)
    if(NOT EXISTS "${_exanic_src}/fifo_rx.c" OR NOT EXISTS "${_exanic_src}/Makefile")
        message(FATAL_ERROR "QUVO_EXANIC_SRC=${QUVO_EXANIC_SRC} is not libexanic's source (no fifo_rx.c and Makefile there)")
    endif()
    set(_exanic_copy "${CMAKE_BINARY_DIR}/libexanic-src")
    set(_exanic_prefix "${CMAKE_BINARY_DIR}/libexanic")
    set(_exanic_stamp "${_exanic_prefix}/built-from")
    set(_exanic_built "")
    if(EXISTS "${_exanic_stamp}")
        file(READ "${_exanic_stamp}" _exanic_built)
    endif()
    if(NOT _exanic_built STREQUAL _exanic_src OR NOT EXISTS "${_exanic_prefix}/lib/libexanic.a")
        message(STATUS "Building libexanic from ${_exanic_src} into ${_exanic_prefix}")
        file(REMOVE_RECURSE "${_exanic_copy}" "${_exanic_prefix}")
        file(COPY "${_exanic_src}/" DESTINATION "${_exanic_copy}")
        execute_process(COMMAND make -C "${_exanic_copy}" -j2 install "PREFIX=${_exanic_prefix}"
                        RESULT_VARIABLE _exanic_result
                        OUTPUT_FILE "${CMAKE_BINARY_DIR}/libexanic-build.log"
                        ERROR_FILE "${CMAKE_BINARY_DIR}/libexanic-build.log")
        if(NOT _exanic_result EQUAL 0)
            message(FATAL_ERROR "Building libexanic failed; see ${CMAKE_BINARY_DIR}/libexanic-build.log")
        endif()
        file(WRITE "${_exanic_stamp}" "${_exanic_src}")
    endif()
    find_path(EXANIC_INCLUDE_DIR exanic/exanic.h PATHS "${_exanic_prefix}/include" NO_DEFAULT_PATH)
    find_library(EXANIC_LIBRARY exanic PATHS "${_exanic_prefix}/lib" NO_DEFAULT_PATH)
elseif(NOT QUVO_WITH_EXANIC STREQUAL "OFF")
    find_path(EXANIC_INCLUDE_DIR exanic/exanic.h PATHS /usr/local/include)
    find_library(EXANIC_LIBRARY exanic PATHS /usr/local/lib /usr/local/lib64)
endif()
if(NOT QUVO_WITH_EXANIC STREQUAL "OFF")
    if(EXANIC_INCLUDE_DIR AND EXANIC_LIBRARY)
        set(QUVO_HAVE_EXANIC 1)
        add_library(quvo::exanic UNKNOWN IMPORTED)
        set_target_properties(quvo::exanic PROPERTIES IMPORTED_LOCATION ${EXANIC_LIBRARY}
                                                      INTERFACE_INCLUDE_DIRECTORIES ${EXANIC_INCLUDE_DIR})
        message(STATUS "ExaNIC card support: libexanic at ${EXANIC_LIBRARY}")
    elseif(QUVO_WITH_EXANIC STREQUAL "ON")
        message(FATAL_ERROR
            "QUVO_WITH_EXANIC=ON but libexanic was not found (looked for exanic/exanic.h and libexanic). "
            "Install the card's software (it puts them under /usr/local), or configure with "
            "-DQUVO_WITH_EXANIC=AUTO or OFF to build with the software card only.")
    else()
        message(STATUS "ExaNIC card support: libexanic not found; building the software card only")
    endif()
elseif(QUVO_WITH_EXANIC STREQUAL "OFF")
    message(STATUS "ExaNIC card support: disabled (QUVO_WITH_EXANIC=OFF)")
endif()
if(NOT QUVO_WITH_EXANIC MATCHES "^(AUTO|ON|OFF)$")
    message(FATAL_ERROR "QUVO_WITH_EXANIC must be AUTO, ON or OFF, not '${QUVO_WITH_EXANIC}'")
endif()
