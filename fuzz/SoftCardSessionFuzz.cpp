// libFuzzer target: a whole feed session on the software card. The input
// (SoftCardSessionInput.h) becomes a raw and a decoded capture and a
// configuration; quvo_recv then runs in this process, replaying them until the
// card, idle, raises SIGINT. Its shared segments are keyed in a directory of
// their own and are reused by every input.
//
// Beyond what the sanitizers see, the run must end in order (0, its segments
// detached, its card released unless a restart holds it), and what it leaves
// must keep the feed's rules:
// - the update ring holds announced slots up to its first end marker and
//   end markers after it, and announces slots in an order that the decoded
//   records addressed them, each record at most once;
// - the counts of instruments stay within the exchanges' limits, and a slot
//   no record addressed has nothing beyond the snapshot's six levels;
// - when the pipeline never restarted (a restart clears the table): every
//   announced slot has its exchange's type and holds an instrument, and where
//   all records of a slot were incremental, its announcements took the last
//   change numbers up to the slot's own, in record order, and its five
//   published levels pass the price check (TAS instruments exempt).
// A tenth-level ask insert writes the first eight bytes of the next slot by
// design, so the checks of a slot's identifier are skipped when the slot
// before it was addressed, and the counts when INE instrument 0 was.
#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "fuzz/DecodedRecordHead.h"
#include "fuzz/FuzzSupport.h"
#include "fuzz/SoftCardSessionInput.h"
#include "fuzz/TcpChecksum.h"
#include "interface/commonheader.h"
#include "public/log/CommonLog.h"
#include "sim/PcapWriter.h"
#include "src/ExanicMdImpl.h"
#include "src/api/InstrumentId.h"
#include "src/api/shfe_recv.h"
#include "src/dev/Card.h"
#include "src/udp/DecodedRecord.h"
#include "tests/support/BookModel.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"

using namespace soft_card_session_fuzz;
using namespace fuzz_frames;

namespace {

// Idle time after which the card stops the feed: long enough for the
// snapshot worker to finish the frames it was handed.
constexpr const char* kExitSeconds = "0.02";
constexpr size_t kSnapshotLevels = 6;

struct Session {
    ~Session() {
        shmdt(area);
        shmdt(ring);
        close(devNull);
    }

    CTempDir files;
    CShmSandbox keys;
    std::string rawPath;
    std::string decodedPath;
    std::string configPath;
    std::string device;
    share* area = nullptr;
    uint16_t* ring = nullptr;
    int devNull = -1;
    bool logging = false;
};

Session& TheSession() {
    static Session* session = [] {
        Session* s = new Session();
        s->rawPath = s->files.Path() + "/raw.pcap";
        s->decodedPath = s->files.Path() + "/decoded.pcap";
        s->configPath = s->files.Path() + "/feed.ini";
        s->logging = fuzz_logging();
        // Without QUVO_FUZZ_LOG the two lines the feed logs before the
        // configuration silences it find no directory to open a file in.
        std::string logDir = s->files.Path() + (s->logging ? "" : "/no-log");
        CCommonLog::GetInstance().SetLogPath(logDir);
        s->devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
        // The harness's own attachments, read after each run; they also keep
        // the segments alive between runs.
        s->ring =
            reinterpret_cast<uint16_t*>(create_shm(s->keys.RingKeyPath().c_str(), QUVO_UPDATE_RING_SIZE));
        s->area = reinterpret_cast<share*>(create_shm(s->keys.AreaKeyPath().c_str(), QUVO_MD_AREA_SIZE));
        if (s->devNull < 0) {
            perror("soft card session fuzz: /dev/null");
            abort();
        }
        // Segments and files go when the process ends normally.
        atexit([] { delete &TheSession(); });
        return s;
    }();
    return *session;
}

[[noreturn]] void Fail(const char* what, long detail = -1) {
    fprintf(stderr, "soft card session fuzz: %s (%ld)\n", what, detail);
    abort();
}

// Makes the IP total length and the TCP checksum agree with the frame's bytes.
void CompleteRaw(std::vector<uint8_t>& f) {
    if (f.size() < kEth + 40) {
        return;
    }
    uint8_t* ip = f.data() + kEth;
    if ((ip[0] & 0x0F) < 5) {
        ip[0] = static_cast<uint8_t>((ip[0] & 0xF0) | 5);
    }
    const size_t hl = static_cast<size_t>(ip[0] & 0x0F) * 4;
    if (f.size() < kEth + hl + 20) {
        return;
    }
    ip[9] = 6;
    SealSegment(ip, hl, f.size() - kEth);
}

void WriteCapture(const std::string& path, const std::vector<Frame>& frames, bool complete, int64_t timeNs) {
    CPcapWriter writer(path, 1, true);
    for (const Frame& frame : frames) {
        std::vector<uint8_t> bytes(frame.data, frame.data + frame.size);
        if (complete) {
            CompleteRaw(bytes);
        }
        writer.Write(bytes.data(), static_cast<uint32_t>(bytes.size()), timeNs);
        timeNs += 1000;
    }
}

void WriteConfig(Session& s, uint8_t control) {
    const uint8_t feeds = control & kFeedMask;
    s.device = "replay:raw=" + s.rawPath + ",decoded=" + s.decodedPath + ",exit=" + kExitSeconds +
               ((control & kPaced) != 0 ? ",speed=1" : "");
    std::string text = "[config]\ndevice = " + s.device + "\ncpucore = -1\n";
    text += std::string("insts = ") + ((control & kListed) != 0 ? kListedInstruments : "all") + "\n";
    text += (control & kOptionsOff) != 0 ? "options = norecv\n" : "";
    text += feeds != kFeedIne ? "shfe2ps = enabled\n" : "";
    text += feeds != kFeedShfe ? "ine2ps = enabled\n" : "";
    text += s.logging ? "log_level = 31\n" : "log_level = 0\n";
    FILE* file = fopen(s.configPath.c_str(), "w");
    if (file == nullptr || fputs(text.c_str(), file) < 0 || fclose(file) != 0) {
        perror(s.configPath.c_str());
        abort();
    }
}

int g_running = 1;

void StopFeed(int) {
    __atomic_store_n(&g_running, 0, __ATOMIC_RELAXED);
}

// Runs the feed; true when its pipeline restarted.
bool Run(Session& s) {
    struct sigaction stop {};
    struct sigaction previous {};
    stop.sa_handler = StopFeed;
    sigemptyset(&stop.sa_mask);
    sigaction(SIGINT, &stop, &previous);
    int savedStdout = -1;
    if (!s.logging) {
        fflush(stdout);
        savedStdout = dup(STDOUT_FILENO);
        dup2(s.devNull, STDOUT_FILENO);
    }
    g_running = 1;
    const int result = quvo_recv(s.configPath.c_str(), &g_running);
    if (savedStdout >= 0) {
        fflush(stdout);
        dup2(savedStdout, STDOUT_FILENO);
        close(savedStdout);
    }
    sigaction(SIGINT, &previous, nullptr);
    fuzz_set_log_level();

    if (result != 0) {
        Fail("quvo_recv did not end in order", result);
    }
    for (const std::string& key : {s.keys.RingKeyPath(), s.keys.AreaKeyPath()}) {
        if (CShmSandbox::AttachCount(key) != 1) {
            Fail("the feed left a segment attached", CShmSandbox::AttachCount(key));
        }
    }
    // A restart acquires the card again without releasing it, and the stop
    // releases it once; this process goes on, so the remaining hold goes here.
    const int held = card_get_ref_count(s.device.c_str());
    if (held > 0) {
        CardHandle* handle = card_acquire_handle(s.device.c_str());
        const std::vector<std::string> events = card_get_soft_card(handle)->GetEvents();
        const auto times = [&events](const char* event) {
            return std::count(events.begin(), events.end(), event);
        };
        if (times("handle acquired") != held + 2 || times("handle released") != 1 ||
            times("rx 0 released") != 1 || times("rx 1 released") != 1) {
            Fail("the stop did not release the card once", held);
        }
        for (int i = 0; i <= held; ++i) {
            card_release_handle(handle);
        }
    }
    return held > 0;
}

// A decoded record the feed would parse into a slot.
struct Record {
    uint32_t slot;
    uint32_t changeNo;
    bool incremental;
};

struct Addressed {
    std::vector<Record> records;  // in capture order
    std::vector<bool> slots = std::vector<bool>(QUVO_INST_SLOTS, false);
    std::vector<bool> onlyIncremental = std::vector<bool>(QUVO_INST_SLOTS, true);
};

Addressed Analyse(const std::vector<Frame>& decoded) {
    Addressed a;
    for (const Frame& frame : decoded) {
        if (frame.size > kDecodedFrameMaxLen) {
            continue;
        }
        const DecodedRecordHead head = read_decoded_record_head(frame.data, frame.size);
        const uint32_t slot = head.slot;
        if (slot == kNoSlot) {
            continue;
        }
        const bool incremental = head.incre.fieldID == FID_MARKET_DATA_INCRE;
        a.records.push_back({slot, head.incre.changeNo, incremental});
        a.slots[slot] = true;
        a.onlyIncremental[slot] = a.onlyIncremental[slot] && incremental;
    }
    return a;
}

// Adjacent occupied levels strictly worse going out, and bid 1 below ask 1.
bool PassesPriceCheck(const instrument& inst) {
    return CBookModel::FirstBookFailure(inst.bid_px, inst.bid_vol, inst.ask_px, inst.ask_vol) == 0;
}

bool ZeroBytes(const void* p, size_t n) {
    const unsigned char* bytes = static_cast<const unsigned char*>(p);
    return std::all_of(bytes, bytes + n, [](unsigned char b) { return b == 0; });
}

bool BeyondSnapshotEmpty(const instrument& inst) {
    const size_t deep = QUVO_BOOK_LEVELS - kSnapshotLevels;
    return ZeroBytes(&inst.bid_px[kSnapshotLevels], deep * sizeof(double)) &&
           ZeroBytes(&inst.ask_px[kSnapshotLevels], deep * sizeof(double)) &&
           ZeroBytes(&inst.bid_vol[kSnapshotLevels], deep * sizeof(int32_t)) &&
           ZeroBytes(&inst.ask_vol[kSnapshotLevels], deep * sizeof(int32_t));
}

// The ring's announcements, checked for form and against the records' order.
std::vector<uint32_t> Announced(const uint16_t* ring, const Addressed& a) {
    size_t count = 0;
    while (count < QUVO_UPDATE_RING_ENTRIES && ring[count] != QUVO_UPDATE_RING_END) {
        ++count;
    }
    for (size_t i = count; i < QUVO_UPDATE_RING_ENTRIES; ++i) {
        if (ring[i] != QUVO_UPDATE_RING_END) {
            Fail("ring entry after the end marker", static_cast<long>(i));
        }
    }
    std::vector<uint32_t> slots;
    size_t next = 0;
    for (size_t i = 0; i < count; ++i) {
        while (next < a.records.size() && a.records[next].slot != ring[i]) {
            ++next;
        }
        if (next == a.records.size()) {
            Fail("announced slot that no later record addressed", ring[i]);
        }
        ++next;
        slots.push_back(ring[i]);
    }
    return slots;
}

// The last `announced` applied records of `slot` carried the change numbers
// up to the slot's own, one apart, in record order.
bool ChangeNumbersLeadTo(const Addressed& a, uint32_t slot, uint32_t announced, uint32_t changeNo) {
    uint32_t wanted = changeNo - announced + 1;
    uint32_t found = 0;
    for (const Record& record : a.records) {
        if (found < announced && record.slot == slot && record.changeNo == wanted) {
            ++wanted;
            ++found;
        }
    }
    return found == announced;
}

void Check(const Session& s, const Addressed& a, bool restarted) {
    const share& area = *s.area;
    const std::vector<uint32_t> announced = Announced(s.ring, a);

    if (!a.slots[quvo_ine_slot(0)] &&
        (area.shfe_inst_cnt < 0 || area.shfe_inst_cnt > QUVO_SHFE_MAX_INST_CNT || area.ine_inst_cnt < 0 ||
         area.ine_inst_cnt > QUVO_INE_MAX_INST_CNT)) {
        Fail("instrument count beyond its exchange's limit", area.shfe_inst_cnt);
    }
    for (uint32_t slot = 0; slot < QUVO_INST_SLOTS; ++slot) {
        if (!a.slots[slot] && !BeyondSnapshotEmpty(area.instmts[slot])) {
            Fail("levels beyond the snapshot's six in a slot no record addressed", slot);
        }
    }
    if (restarted) {
        return;
    }

    std::map<uint32_t, uint32_t> counts;
    for (uint32_t slot : announced) {
        ++counts[slot];
    }
    for (const auto& [slot, count] : counts) {
        const instrument& inst = area.instmts[slot];
        const bool idWritable = slot > 0 && a.slots[slot - 1];
        if (inst.type != (quvo_slot_is_ine(slot) ? 1 : 0)) {
            Fail("announced slot without its exchange's type", slot);
        }
        if (!idWritable && inst.inst_id[0] == 0) {
            Fail("announced slot holds no instrument", slot);
        }
        if (!a.onlyIncremental[slot]) {
            continue;
        }
        if (!ChangeNumbersLeadTo(a, slot, count, inst.change_no)) {
            Fail("change numbers of the announced records do not lead to the slot's", slot);
        }
        if (!PassesPriceCheck(inst) && !is_tas_instrument(inst) && !idWritable) {
            Fail("applied book fails the price check", slot);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return fuzz_initialize(TheSession);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    Session& s = TheSession();
    const uint8_t control = data[0];
    const Captures captures = SplitCaptures(data, size);
    WriteCapture(s.rawPath, captures.raw, (control & kCompleteRaw) != 0, 0);
    WriteCapture(s.decodedPath, captures.decoded, false, (control & kPaced) != 0 ? kPacedDelayNs : 0);
    WriteConfig(s, control);
    const bool restarted = Run(s);
    Check(s, Analyse(captures.decoded), restarted);
    return 0;
}
