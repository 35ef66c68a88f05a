#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "public/log/CommonLog.h"
#include "sim/PcapWriter.h"
#include "src/dev/Card.h"
#include "src/dev/ExanicDevFunc.h"
#include "src/dev/RxFrame.h"
#include "src/dev/soft/ReplaySource.h"
#include "tests/support/LogLines.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TempDir.h"

namespace {

constexpr int64_t kT0 = 1767225600LL * 1000000000;  // 2026-01-01 00:00:00 UTC

std::string Frame(char fill, size_t size) {
    return std::string(size, fill);
}

class ReplayTest : public ::testing::Test {
protected:
    ~ReplayTest() override {
        for (CardRx* rx : m_rx) {
            card_release_rx_buffer(rx);
        }
        if (m_handle != nullptr) {
            card_release_handle(m_handle);
        }
    }

    std::string WritePcap(const std::string& name, int linkType, bool nano,
                          const std::vector<std::pair<int64_t, std::string>>& packets) {
        const std::string path = m_dir.Path() + "/" + name;
        CPcapWriter writer(path, linkType, nano);
        for (const auto& [time, data] : packets) {
            writer.Write(data.data(), static_cast<uint32_t>(data.size()), time);
        }
        return path;
    }

    // Opens the replay and acquires both ports; false if the device failed.
    bool Open(const std::string& options) {
        m_device = "replay:" + options;
        m_handle = card_acquire_handle(m_device.c_str());
        if (m_handle == nullptr) {
            return false;
        }
        m_registers = card_get_devkit_registers(m_handle);
        m_rx = {card_acquire_rx_buffer(m_handle, 0, 0), card_acquire_rx_buffer(m_handle, 1, 0)};
        return true;
    }

    std::string Next(int port, size_t size = 2048) {
        std::vector<char> buf(size);
        const ssize_t n = card_receive_frame(m_rx[port], buf.data(), buf.size());
        return n > 0 ? std::string(buf.data(), static_cast<size_t>(n)) : "<" + std::to_string(n) + ">";
    }

    void StreamsOn() {
        reg_write(m_registers, REG_ORIG_DATA, 1);
        reg_write(m_registers, REG_DECODE_DATA, 1);
    }

    CTempDir m_dir;
    std::string m_device;
    CardHandle* m_handle = nullptr;
    volatile uint32_t* m_registers = nullptr;
    std::vector<CardRx*> m_rx;
};

TEST_F(ReplayTest, FramesComeBackOnTheirPortsInOrderByteForByte) {
    const std::vector<std::string> raw = {Frame('a', 60), Frame('b', 1514), Frame('c', 64)};
    const std::vector<std::string> decoded = {std::string("\x01\x00\x7f", 3), Frame('d', 200), Frame('e', 1)};
    const std::string rawPath =
        WritePcap("raw.pcap", DLT_EN10MB, true, {{kT0, raw[0]}, {kT0 + 2, raw[1]}, {kT0 + 4, raw[2]}});
    // Decoded records are delivered whatever the file's link type.
    const std::string decodedPath =
        WritePcap("decoded.pcap", DLT_USER0, false,
                  {{kT0 + 1000, decoded[0]}, {kT0 + 3000, decoded[1]}, {kT0 + 5000, decoded[2]}});
    ASSERT_TRUE(Open("raw=" + rawPath + ",decoded=" + decodedPath)) << card_get_last_error();
    StreamsOn();
    for (const std::string& frame : raw) {
        EXPECT_EQ(Next(1), frame);
    }
    for (const std::string& record : decoded) {
        EXPECT_EQ(Next(0), record);
    }
    EXPECT_EQ(Next(0), "<0>");
    EXPECT_EQ(Next(1), "<0>");
}

TEST_F(ReplayTest, MicrosecondAndNanosecondCapturesReadAlike) {
    const std::string micro = WritePcap("micro.pcap", DLT_EN10MB, false, {{kT0, "one"}, {kT0 + 1000, "two"}});
    ASSERT_TRUE(Open("raw=" + micro)) << card_get_last_error();
    StreamsOn();
    EXPECT_EQ(Next(1), "one");
    EXPECT_EQ(Next(1), "two");
}

TEST_F(ReplayTest, FramesAreDeliveredOnlyWhileTheirStreamIsOn) {
    const std::string rawPath =
        WritePcap("raw.pcap", DLT_EN10MB, true, {{kT0, "r1"}, {kT0, "r2"}, {kT0, "r3"}});
    const std::string decodedPath = WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, "d1"}, {kT0, "d2"}});
    ASSERT_TRUE(Open("raw=" + rawPath + ",decoded=" + decodedPath));
    reg_write(m_registers, REG_DECODE_DATA, 1);
    EXPECT_EQ(Next(1), "<0>");  // r1 dropped: raw stream off
    EXPECT_EQ(Next(0), "d1");
    reg_write(m_registers, REG_ORIG_DATA, 1);
    reg_write(m_registers, REG_DECODE_DATA, 0);
    EXPECT_EQ(Next(0), "<0>");  // d2 dropped: decoded stream off
    EXPECT_EQ(Next(1), "r2");
    EXPECT_EQ(Next(1), "r3");
    CSoftCard* card = card_get_soft_card(m_handle);
    EXPECT_EQ(card->GetFigures(1).dropped, 1u);
    EXPECT_EQ(card->GetFigures(0).dropped, 1u);
    EXPECT_EQ(card->GetFigures(1).frames, 2u);
}

TEST_F(ReplayTest, HeldDecodedFramesWaitUntilTheRawStreamWasOnAndOff) {
    const std::string rawPath = WritePcap("raw.pcap", DLT_EN10MB, true, {{kT0, "r1"}});
    const std::string decodedPath = WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, "d1"}, {kT0, "d2"}});
    ASSERT_TRUE(Open("raw=" + rawPath + ",decoded=" + decodedPath + ",hold=1"));
    reg_write(m_registers, REG_DECODE_DATA, 1);
    EXPECT_EQ(Next(0), "<0>");  // raw stream not yet on
    reg_write(m_registers, REG_ORIG_DATA, 1);
    EXPECT_EQ(Next(0), "<0>");  // raw stream on: the snapshot is being taken
    EXPECT_EQ(Next(1), "r1");
    EXPECT_EQ(Next(0), "<0>");
    reg_write(m_registers, REG_ORIG_DATA, 0);
    EXPECT_EQ(Next(0), "d1");  // held frames were not dropped, only delayed
    reg_write(m_registers, REG_ORIG_DATA, 1);
    EXPECT_EQ(Next(0), "d2");  // released once for good
    CSoftCard* card = card_get_soft_card(m_handle);
    EXPECT_EQ(card->GetFigures(0).dropped, 0u);
    EXPECT_EQ(card->GetFigures(0).frames, 2u);
}

// A capture written on a host of the other byte order is not read from the
// mapping but through the library; the frames are the same.
TEST_F(ReplayTest, CaptureOfTheOtherByteOrderReadsAlike) {
    std::string file;
    const auto big = [&file](uint32_t value, int bytes) {
        for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
            file.push_back(static_cast<char>((value >> shift) & 0xff));
        }
    };
    big(0xa1b2c3d4, 4);
    big(2, 2);
    big(4, 2);
    big(0, 4);
    big(0, 4);
    big(65535, 4);
    big(1, 4);  // Ethernet
    for (const std::string& frame : {Frame('a', 60), Frame('b', 1514)}) {
        big(1767225600, 4);
        big(5, 4);
        big(static_cast<uint32_t>(frame.size()), 4);
        big(static_cast<uint32_t>(frame.size()), 4);
        file += frame;
    }
    const std::string path = m_dir.WriteFile("swapped.pcap", file);
    ASSERT_TRUE(Open("raw=" + path)) << card_get_last_error();
    StreamsOn();
    EXPECT_EQ(Next(1), Frame('a', 60));
    EXPECT_EQ(Next(1), Frame('b', 1514));
    EXPECT_EQ(Next(1), "<0>");
}

TEST_F(ReplayTest, FrameOfNoBytesIsDroppedAndTheNextComesThrough) {
    // The ring cannot carry an empty frame, so neither delivery path does.
    const std::string decodedPath = WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, ""}, {kT0, "d2"}});
    ASSERT_TRUE(Open("decoded=" + decodedPath));
    StreamsOn();
    EXPECT_EQ(Next(0), "<0>");
    EXPECT_EQ(Next(0), "d2");
    EXPECT_EQ(card_get_soft_card(m_handle)->GetFigures(0).dropped, 1u);
    EXPECT_EQ(card_get_soft_card(m_handle)->GetFigures(0).frames, 1u);
}

TEST_F(ReplayTest, MarkingAFrameThatIsNotThereFails) {
    const std::string decodedPath = WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, "d1"}});
    ASSERT_TRUE(Open("decoded=" + decodedPath));
    CSoftPort* port = card_get_soft_card(m_handle)->GetPort(0);
    EXPECT_TRUE(port->MarkFrame(0, RX_FRAME_CORRUPT));
    EXPECT_FALSE(port->MarkFrame(1, RX_FRAME_CORRUPT));
    StreamsOn();
    EXPECT_EQ(Next(0), "<" + std::to_string(-RX_FRAME_CORRUPT) + ">");
}

// The delivery a process's software cards use comes from QUVO_SOFT_CARD_RX.
class DeliveryChoiceTest : public ReplayTest {
protected:
    ~DeliveryChoiceTest() override { unsetenv("QUVO_SOFT_CARD_RX"); }

    bool OpenWith(const char* delivery) {
        setenv("QUVO_SOFT_CARD_RX", delivery, 1);
        return Open("decoded=" + WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, "d1"}}));
    }
};

TEST_F(DeliveryChoiceTest, DirectIsAvailableInEveryBuild) {
    ASSERT_TRUE(OpenWith("direct")) << card_get_last_error();
    EXPECT_FALSE(card_get_soft_card(m_handle)->UsesRing());
    StreamsOn();
    EXPECT_EQ(Next(0), "d1");
}

TEST_F(DeliveryChoiceTest, RingNeedsTheCardLibrary) {
#if QUVO_HAVE_EXANIC
    ASSERT_TRUE(OpenWith("ring")) << card_get_last_error();
    EXPECT_TRUE(card_get_soft_card(m_handle)->UsesRing());
    StreamsOn();
    EXPECT_EQ(Next(0), "d1");
#else
    EXPECT_FALSE(OpenWith("ring"));
    EXPECT_EQ(std::string(card_get_last_error()),
              "QUVO_SOFT_CARD_RX=ring needs the card library: build with the card preset");
#endif
}

TEST_F(DeliveryChoiceTest, AnyOtherChoiceIsRefused) {
    EXPECT_FALSE(OpenWith("dma"));
    EXPECT_EQ(std::string(card_get_last_error()), "QUVO_SOFT_CARD_RX must be ring or direct, not 'dma'");
}

TEST_F(ReplayTest, CardBuildDeliversThroughTheRingByDefault) {
    ASSERT_TRUE(Open("decoded=" + WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, "d1"}})));
    EXPECT_EQ(card_get_soft_card(m_handle)->UsesRing(), QUVO_HAVE_EXANIC != 0);
}

TEST_F(ReplayTest, EitherFileMayBeOmitted) {
    const std::string decodedPath = WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, "d1"}});
    ASSERT_TRUE(Open("decoded=" + decodedPath));
    StreamsOn();
    EXPECT_EQ(Next(1), "<0>");
    EXPECT_EQ(Next(0), "d1");
}

TEST_F(ReplayTest, FrameLongerThanTheCallersBufferGivesTheTruncatedStatus) {
    const std::string rawPath =
        WritePcap("raw.pcap", DLT_EN10MB, true, {{kT0, Frame('x', 3000)}, {kT0, "after"}});
    ASSERT_TRUE(Open("raw=" + rawPath));
    StreamsOn();
    EXPECT_EQ(Next(1), "<" + std::to_string(CARD_RX_FRAME_TRUNCATED) + ">");
    EXPECT_EQ(Next(1), "after");
}

TEST_F(ReplayTest, RawCaptureMustBeEthernet) {
    const std::string rawPath = WritePcap("raw.pcap", DLT_RAW, true, {{kT0, "ip"}});
    EXPECT_FALSE(Open("raw=" + rawPath));
    EXPECT_EQ(std::string(card_get_last_error()),
              "capture " + rawPath + " has link type RAW, expected Ethernet");
}

TEST_F(ReplayTest, MissingFileNamesTheFileAndLibpcapsReason) {
    const std::string missing = m_dir.Path() + "/missing.pcap";
    EXPECT_FALSE(Open("decoded=" + missing));
    const std::string error = card_get_last_error();
    EXPECT_EQ(error.rfind("cannot open capture " + missing + ": ", 0), 0u) << error;
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
}

TEST_F(ReplayTest, FileCutShortIsAReadError) {
    const std::string path =
        WritePcap("cut.pcap", DLT_EN10MB, true, {{kT0, Frame('a', 100)}, {kT0, Frame('b', 100)}});
    ASSERT_EQ(truncate(path.c_str(), 24 + 16 + 100 + 16 + 50), 0);
    EXPECT_FALSE(Open("raw=" + path));
    const std::string error = card_get_last_error();
    EXPECT_EQ(error.rfind("cannot read capture " + path + " after 1 packets: ", 0), 0u) << error;
}

TEST_F(ReplayTest, NotACaptureFileIsRefused) {
    const std::string path = m_dir.WriteFile("text.pcap", "this is not a capture file at all\n");
    EXPECT_FALSE(Open("raw=" + path));
    EXPECT_EQ(std::string(card_get_last_error()).rfind("cannot open capture " + path + ": ", 0), 0u);
}

TEST_F(ReplayTest, InitDevReportsAnUnreadableCapture) {
    CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(31));
    ExanicMdConfigData config;
    config.cpucore = -1;
    config.device = "replay:raw=" + m_dir.Path() + "/nothing.pcap";
    UEnableMask mask{};
    CExanicDevFunc dev(config, mask);
    CStdoutCapture capture;
    EXPECT_EQ(dev.InitDev(), -1);
    const std::vector<std::string> errors = log_messages(capture.Stop(), "[E]", "InitDev");
    ASSERT_EQ(errors.size(), 1u);
    const std::string prefix =
        "get [" + config.device + "] handle failed, cannot open capture " + m_dir.Path() + "/nothing.pcap: ";
    EXPECT_EQ(errors[0].rfind(prefix, 0), 0u) << errors[0];
}

TEST(ReplayOptionsTest, ParsesEveryKey) {
    ReplayOptions options;
    std::string error;
    ASSERT_TRUE(parse_replay_options("raw=/a/r.pcap,decoded=d.pcap,speed=2.5,exit=3,hold=1", options, error))
        << error;
    EXPECT_EQ(options.raw, "/a/r.pcap");
    EXPECT_EQ(options.decoded, "d.pcap");
    EXPECT_EQ(options.speed, 2.5);
    EXPECT_EQ(options.exitSeconds, 3);
    EXPECT_TRUE(options.hold);
}

TEST(ReplayOptionsTest, DefaultsToUnpacedAndNoExit) {
    ReplayOptions options;
    std::string error;
    ASSERT_TRUE(parse_replay_options("raw=r.pcap", options, error));
    EXPECT_EQ(options.speed, 0);
    EXPECT_LT(options.exitSeconds, 0);
    EXPECT_FALSE(options.hold);
}

TEST(ReplayOptionsTest, RefusesBadOptionsSayingWhich) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"raw=r.pcap,colour=red",
         "unknown replay option 'colour' (expected raw, decoded, speed, exit, hold)"},
        {"raw=r.pcap,hold=yes", "bad value 'yes' for replay option hold: expected 0 or 1"},
        {"raw=r.pcap,speed=fast", "bad value 'fast' for replay option speed: expected a number >= 0"},
        {"raw=r.pcap,speed=-1", "bad value '-1' for replay option speed: expected a number >= 0"},
        {"raw=r.pcap,exit=", "bad value '' for replay option exit: expected a number >= 0"},
        {"raw=r.pcap,exit=2s", "bad value '2s' for replay option exit: expected a number >= 0"},
        {"raw=r.pcap,raw=s.pcap", "replay option raw is given twice"},
        {"raw", "replay option 'raw' has no value (expected key=value)"},
        {"raw=", "replay option raw needs a file name"},
        {"speed=1", "replay needs raw=FILE, decoded=FILE or both"},
        {"", "replay needs raw=FILE, decoded=FILE or both"},
    };
    for (const auto& [text, expected] : cases) {
        ReplayOptions options;
        std::string error;
        EXPECT_FALSE(parse_replay_options(text, options, error)) << text;
        EXPECT_EQ(error, expected) << text;
    }
}

TEST_F(ReplayTest, PacedReplayHoldsFramesUntilTheirTime) {
    // Both files on one clock: the decoded record was captured an hour later.
    const std::string rawPath = WritePcap("raw.pcap", DLT_EN10MB, true, {{kT0, "now"}});
    const std::string decodedPath =
        WritePcap("d.pcap", DLT_EN10MB, true, {{kT0 + 3600LL * 1000000000, "later"}});
    ASSERT_TRUE(Open("raw=" + rawPath + ",decoded=" + decodedPath + ",speed=1"));
    StreamsOn();
    EXPECT_EQ(Next(1), "now");
    EXPECT_EQ(Next(0), "<0>");
    EXPECT_EQ(card_get_soft_card(m_handle)->GetFigures(0).dropped, 0u);
}

// A microsecond capture's fractions are microseconds: 900 ms apart, not 0.9 ms.
TEST_F(ReplayTest, PacedMicrosecondCaptureKeepsItsSubsecondSpacing) {
    const std::string rawPath =
        WritePcap("raw.pcap", DLT_EN10MB, false, {{kT0, "first"}, {kT0 + 900000000, "second"}});
    ASSERT_TRUE(Open("raw=" + rawPath + ",speed=1"));
    StreamsOn();
    EXPECT_EQ(Next(1), "first");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(Next(1), "<0>");
}

TEST_F(ReplayTest, FasterSpeedShortensTheWait) {
    // 10 ms apart at 1000x: due 10 us after the first poll.
    const std::string rawPath = WritePcap("raw.pcap", DLT_EN10MB, true, {{kT0, "a"}, {kT0 + 10000000, "b"}});
    ASSERT_TRUE(Open("raw=" + rawPath + ",speed=1000"));
    StreamsOn();
    EXPECT_EQ(Next(1), "a");
    std::string next = Next(1);
    for (int polls = 0; next == "<0>" && polls < 50000000; ++polls) {
        next = Next(1);
    }
    EXPECT_EQ(next, "b");
}

volatile sig_atomic_t g_interrupts = 0;
void CountInterrupt(int) {
    g_interrupts = g_interrupts + 1;
}

TEST_F(ReplayTest, ExitRaisesOneInterruptOnceBothFilesAreDone) {
    const std::string rawPath = WritePcap("raw.pcap", DLT_EN10MB, true, {{kT0, "r"}});
    const std::string decodedPath = WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, "d"}});
    ASSERT_TRUE(Open("raw=" + rawPath + ",decoded=" + decodedPath + ",exit=0"));
    auto* previous = signal(SIGINT, CountInterrupt);
    g_interrupts = 0;
    StreamsOn();
    EXPECT_EQ(Next(0), "d");
    EXPECT_EQ(Next(0), "<0>");
    EXPECT_EQ(g_interrupts, 0);  // the raw file still holds a frame
    EXPECT_EQ(Next(1), "r");
    EXPECT_EQ(Next(0), "<0>");
    EXPECT_EQ(g_interrupts, 1);
    EXPECT_EQ(Next(0), "<0>");
    EXPECT_EQ(Next(1), "<0>");
    EXPECT_EQ(g_interrupts, 1);
    signal(SIGINT, previous);
}

// Frames moved on one port keep the other port's quiet polls from ending the
// replay, and the quiet time runs from the last of them, not from the start.
TEST_F(ReplayTest, ExitWaitsForQuietAfterTheLastFrameMoved) {
    const std::string rawPath = WritePcap("raw.pcap", DLT_EN10MB, true, {});
    const std::string decodedPath =
        WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, "a"}, {kT0, "b"}, {kT0, "c"}});
    ASSERT_TRUE(Open("raw=" + rawPath + ",decoded=" + decodedPath + ",exit=0.2"));
    auto* previous = signal(SIGINT, CountInterrupt);
    g_interrupts = 0;
    StreamsOn();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    for (const char* frame : {"a", "b", "c"}) {
        EXPECT_EQ(Next(1), "<0>");
        EXPECT_EQ(Next(0), frame);
    }
    EXPECT_EQ(Next(1), "<0>");
    EXPECT_EQ(Next(0), "<0>");
    EXPECT_EQ(g_interrupts, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(Next(1), "<0>");
    EXPECT_EQ(g_interrupts, 1);
    signal(SIGINT, previous);
}

TEST_F(ReplayTest, ExitCountsAStreamThatIsOffAsDone) {
    const std::string rawPath = WritePcap("raw.pcap", DLT_EN10MB, true, {{kT0, "r"}});
    const std::string decodedPath = WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, "d"}});
    ASSERT_TRUE(Open("raw=" + rawPath + ",decoded=" + decodedPath + ",exit=0"));
    auto* previous = signal(SIGINT, CountInterrupt);
    g_interrupts = 0;
    reg_write(m_registers, REG_DECODE_DATA, 1);
    EXPECT_EQ(Next(0), "d");
    EXPECT_EQ(Next(0), "<0>");
    EXPECT_EQ(g_interrupts, 1);
    signal(SIGINT, previous);
}

TEST_F(ReplayTest, WithoutExitTheReplayNeverInterrupts) {
    const std::string decodedPath = WritePcap("d.pcap", DLT_EN10MB, true, {{kT0, "d"}});
    ASSERT_TRUE(Open("decoded=" + decodedPath));
    auto* previous = signal(SIGINT, CountInterrupt);
    g_interrupts = 0;
    StreamsOn();
    EXPECT_EQ(Next(0), "d");
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(Next(0), "<0>");
    }
    EXPECT_EQ(g_interrupts, 0);
    signal(SIGINT, previous);
}

}  // namespace
