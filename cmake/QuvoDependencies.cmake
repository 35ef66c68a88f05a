# System libraries beyond GoogleTest and Google Benchmark.

find_path(PCAP_INCLUDE_DIR pcap/pcap.h)
find_library(PCAP_LIBRARY pcap)
if(NOT PCAP_INCLUDE_DIR OR NOT PCAP_LIBRARY)
    message(FATAL_ERROR "libpcap not found: run scripts/setup.sh (or apt-get install libpcap-dev)")
endif()
add_library(quvo::pcap UNKNOWN IMPORTED)
set_target_properties(quvo::pcap PROPERTIES IMPORTED_LOCATION ${PCAP_LIBRARY}
                                            INTERFACE_INCLUDE_DIRECTORIES ${PCAP_INCLUDE_DIR})

# libexanic is installed by the card's software, usually under /usr/local.
set(QUVO_HAVE_EXANIC 0)
if(NOT QUVO_WITH_EXANIC STREQUAL "OFF")
    find_path(EXANIC_INCLUDE_DIR exanic/exanic.h PATHS /usr/local/include)
    find_library(EXANIC_LIBRARY exanic PATHS /usr/local/lib /usr/local/lib64)
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
