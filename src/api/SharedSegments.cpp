#include "src/api/SharedSegments.h"

#include <cstring>

#include "src/api/UpdateRing.h"
#include "src/api/shfe_recv.h"

SharedSegments attach_shared_segments() {
    SharedSegments segments{};
    segments.pUpdateRing = reinterpret_cast<uint16_t*>(
        create_shm(shm_key_path(QUVO_UPDATE_RING_KEY_FILE).c_str(), QUVO_UPDATE_RING_SIZE));
    CUpdateRing(segments.pUpdateRing).Reset();
    segments.pMdArea =
        reinterpret_cast<share*>(create_shm(shm_key_path(QUVO_MD_AREA_KEY_FILE).c_str(), QUVO_MD_AREA_SIZE));
    return segments;
}

void detach_shared_segments(const SharedSegments& segments) {
    free_shm(reinterpret_cast<char*>(segments.pMdArea));
    free_shm(reinterpret_cast<char*>(segments.pUpdateRing));
}

void clear_books(share& area) {
    for (instrument& inst : area.instmts) {
        memset(inst.bid_px, 0, sizeof(inst.bid_px));
        memset(inst.bid_vol, 0, sizeof(inst.bid_vol));
        memset(inst.ask_vol, 0, sizeof(inst.ask_vol));
        memset(inst.ask_px, 0, sizeof(inst.ask_px));
        inst.last_px = 0.0;
        inst.volume = 0;
        inst.turnover = 0.0;
        inst.open_interest = 0.0;
        inst.change_no = 0;
    }
}
