# Every fuzz target once, for the libFuzzer build (fuzz/CMakeLists.txt) and
# for the corpus replay tests (fuzz/ReplayTargets.cmake): calls
# `fn(name corpus sources...)` per target, where fuzz/corpus/<corpus> holds the
# target's checked-in inputs. Each target links quvo_core.
function(quvo_for_each_fuzz_target fn)
    set(dir ${PROJECT_SOURCE_DIR}/fuzz)
    cmake_language(CALL ${fn} parse_mirp_fuzz parse_mirp ${dir}/ParseMirpFuzz.cpp)
    # Frames through the snapshot reassembly: raw bytes, and frames completed
    # with a correct checksum so that inputs get past the frame checks.
    cmake_language(CALL ${fn} packet_handler_fuzz packet_handler ${dir}/PacketHandlerFuzz.cpp)
    cmake_language(CALL ${fn} packet_handler_checksum_fuzz packet_handler ${dir}/PacketHandlerChecksumFuzz.cpp)
    # The configuration file: the INI reader and the record, against a reading of their rules.
    cmake_language(CALL ${fn} config_fuzz config ${dir}/ConfigFuzz.cpp)
    # A whole feed session in process on the software card's replay.
    cmake_language(CALL ${fn} soft_card_session_fuzz soft_card_session ${dir}/SoftCardSessionFuzz.cpp
                   ${PROJECT_SOURCE_DIR}/sim/PcapWriter.cpp ${PROJECT_SOURCE_DIR}/tests/support/ShmSandbox.cpp
                   ${PROJECT_SOURCE_DIR}/tests/support/TempDir.cpp)
endfunction()
