// quvo-bridge and its mirror with --creds, through a NATS server in operator
// mode that admits only users an account it knows has signed. The operator,
// the accounts, the users and their credentials files are made afresh by
// each test.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "interface/quvoreader.h"
#include "tests/support/BridgeRun.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/NatsCreds.h"
#include "tests/support/NatsServer.h"
#include "tests/support/Poll.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

namespace {

// Generous: under the sanitizers every process here runs several times slower.
constexpr double kTimeoutSeconds = 60;

class BridgeCredsE2E : public ::testing::Test {
protected:
    void SetUp() override {
        const NatsKey op = make_nats_key(ENkeyKind::Operator);
        const NatsKey system = make_nats_key(ENkeyKind::Account);
        const NatsKey account = make_nats_key(ENkeyKind::Account);
        const NatsKey user = make_nats_key(ENkeyKind::User);
        // Signed by an account the server was never told of.
        const NatsKey stranger = make_nats_key(ENkeyKind::Account);
        const NatsKey strangersUser = make_nats_key(ENkeyKind::User);
        const std::string operatorJwt =
            m_dir.WriteFile("operator.jwt", nats_operator_jwt(op, "quvo-test", system.publicKey));
        const std::map<std::string, std::string> accounts = {
            {system.publicKey, nats_account_jwt(op, system, "SYS", false)},
            {account.publicKey, nats_account_jwt(op, account, "books", true)}};
        m_server = std::make_unique<CNatsServer>(QUVO_NATS_SERVER_PATH, m_dir.Path(), "n1");
        m_server->SetConfig(
            m_dir.WriteFile("server.conf", nats_operator_config(operatorJwt, system.publicKey, accounts)));
        std::string error;
        ASSERT_TRUE(m_server->Start(kTimeoutSeconds / 4, error)) << error;
        m_creds =
            m_dir.WriteFile("bridge.creds", nats_creds_text(nats_user_jwt(account, user, "bridge"), user));
        m_strangerCreds = m_dir.WriteFile(
            "stranger.creds",
            nats_creds_text(nats_user_jwt(stranger, strangersUser, "stranger"), strangersUser));
    }

    void TearDown() override {
        if (m_server) {
            m_server->Stop();
        }
    }

    std::unique_ptr<CChildProcess> StartFeed(const std::string& device) {
        const std::string config = m_dir.WriteFile(
            "feed.ini", "[config]\ndevice = " + device +
                            "\ncpucore = -1\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n");
        return std::make_unique<CChildProcess>(in_key_dir(m_feedKeys.Dir(), {QUVO_MD_PATH, config}),
                                               m_dir.Path(), Out("feed.out"));
    }

    std::unique_ptr<CChildProcess> StartBridge(const std::string& keyDir, const std::string& output,
                                               std::vector<std::string> args) {
        args.insert(args.begin(), {QUVO_BRIDGE_PATH, "--server", m_server->Url()});
        return std::make_unique<CChildProcess>(in_key_dir(keyDir, args), m_dir.Path(), Out(output));
    }

    // Runs a bridge expected to end by itself: its exit status, or -1 when
    // it was still running at the bound.
    int RunToEnd(const std::string& keyDir, const std::vector<std::string>& args, const std::string& output) {
        std::unique_ptr<CChildProcess> bridge = StartBridge(keyDir, output, args);
        int status = -1;
        return bridge->Wait(kTimeoutSeconds / 4, status) ? status : -1;
    }

    std::string Out(const std::string& name) const { return m_dir.Path() + "/" + name; }

    // SIGINT; the process ends with status 0 within the bound.
    void ExpectStops(CChildProcess& process, const std::string& output) {
        process.Signal(SIGINT);
        int status = -1;
        ASSERT_TRUE(process.Wait(kTimeoutSeconds / 4, status)) << read_file(Out(output));
        EXPECT_EQ(status, 0) << read_file(Out(output));
    }

    CTempDir m_dir;
    CShmSandbox m_feedKeys;
    CShmSandbox m_mirrorKeys;
    std::unique_ptr<CNatsServer> m_server;
    std::string m_creds;
    std::string m_strangerCreds;
};

TEST_F(BridgeCredsE2E, BridgeAndMirrorWithCredsCarryEveryBook) {
    std::unique_ptr<CChildProcess> feed =
        StartFeed("sim:shfe=100,ine=20,rate=20000,records=10000,seed=31,exit=0.5");
    std::unique_ptr<CChildProcess> bridge = StartBridge(m_feedKeys.Dir(), "bridge.out", {"--creds", m_creds});
    std::unique_ptr<CChildProcess> mirror =
        StartBridge(m_mirrorKeys.Dir(), "mirror.out", {"--mirror", "--creds", m_creds});
    int status = -1;
    ASSERT_TRUE(feed->Wait(kTimeoutSeconds, status)) << read_file(Out("feed.out"));
    ASSERT_EQ(status, 0) << read_file(Out("feed.out"));
    CQuvoReader feedReader;
    CQuvoReader mirrorReader;
    attach_at(feedReader, m_feedKeys.Dir());
    attach_at(mirrorReader, m_mirrorKeys.Dir());
    if (HasFatalFailure()) {
        return;
    }
    ASSERT_GT(feedReader.ListSlots().size(), 100u);
    std::vector<std::string> differences;
    EXPECT_TRUE(poll_until(
        [&] {
            differences = area_differences(*feedReader.Area(), *mirrorReader.Area());
            return differences.empty();
        },
        kTimeoutSeconds / 2, 50))
        << differences.size() << " differences, first: " << differences.front() << "\nbridge:\n"
        << read_file(Out("bridge.out")) << "\nmirror:\n"
        << read_file(Out("mirror.out")) << "\nserver:\n"
        << m_server->Output();
    ExpectStops(*bridge, "bridge.out");
    ExpectStops(*mirror, "mirror.out");
}

TEST_F(BridgeCredsE2E, ClientTheServerRefusesEndsNamingTheCause) {
    // Neither mode may keep running without a connection it will never get.
    for (const bool mirror : {false, true}) {
        SCOPED_TRACE(mirror ? "mirror" : "bridge");
        const std::string keyDir = mirror ? m_mirrorKeys.Dir() : m_feedKeys.Dir();
        const std::vector<std::string> mode =
            mirror ? std::vector<std::string>{"--mirror"} : std::vector<std::string>{};
        std::vector<std::string> withStranger = mode;
        withStranger.insert(withStranger.end(), {"--creds", m_strangerCreds});
        EXPECT_EQ(RunToEnd(keyDir, mode, "none.out"), 2) << read_file(Out("none.out"));
        EXPECT_TRUE(contains(read_file(Out("none.out")), "refused the connection: it requires credentials"))
            << read_file(Out("none.out"));
        EXPECT_EQ(RunToEnd(keyDir, withStranger, "stranger.out"), 2) << read_file(Out("stranger.out"));
        EXPECT_TRUE(
            contains(read_file(Out("stranger.out")),
                     "refused the connection: it does not accept the credentials in " + m_strangerCreds))
            << read_file(Out("stranger.out"));
    }
    // Each of the four tried three times before it gave up.
    EXPECT_EQ(count_of(m_server->Output(), "authentication error"), 12u) << m_server->Output();
}

TEST_F(BridgeCredsE2E, RefusalAfterTheStartEndsItNamingTheCause) {
    // Unreachable at the start, the server is waited for; once up, it refuses
    // both, and the library never tries again: each ends with status 2.
    m_server->Stop();
    std::unique_ptr<CChildProcess> mirror = StartBridge(
        m_mirrorKeys.Dir(), "mirror.out", {"--mirror", "--stats=0.1", "--creds", m_strangerCreds});
    std::unique_ptr<CChildProcess> bridge =
        StartBridge(m_feedKeys.Dir(), "bridge.out", {"--stats=0.1", "--creds", m_strangerCreds});
    ASSERT_TRUE(wait_for_text(Out("mirror.out"), "\"connected\":false", kTimeoutSeconds / 4, 20))
        << read_file(Out("mirror.out"));
    ASSERT_TRUE(wait_for_text(Out("bridge.out"), "waiting for the feed", kTimeoutSeconds / 4, 20))
        << read_file(Out("bridge.out"));
    std::string error;
    ASSERT_TRUE(m_server->Start(kTimeoutSeconds / 4, error)) << error;
    for (const auto& [process, output] :
         {std::pair{mirror.get(), "mirror.out"}, std::pair{bridge.get(), "bridge.out"}}) {
        int status = -1;
        ASSERT_TRUE(process->Wait(kTimeoutSeconds / 4, status)) << read_file(Out(output));
        EXPECT_EQ(status, 2) << read_file(Out(output));
        EXPECT_TRUE(
            contains(read_file(Out(output)),
                     "NATS closed the connection for good: the NATS server refused the connection: it "
                     "does not accept the credentials in " +
                         m_strangerCreds))
            << read_file(Out(output)) << m_server->Output();
    }
}

TEST_F(BridgeCredsE2E, CredsFileThatCannotBeReadEndsTheStart) {
    const std::string missing = m_dir.Path() + "/missing.creds";
    EXPECT_EQ(RunToEnd(m_feedKeys.Dir(), {"--creds", missing}, "missing.out"), 2);
    EXPECT_TRUE(contains(read_file(Out("missing.out")),
                         "cannot read the credentials file " + missing + ": No such file or directory"))
        << read_file(Out("missing.out"));
    EXPECT_EQ(RunToEnd(m_mirrorKeys.Dir(), {"--mirror", "--creds", m_dir.Path()}, "directory.out"), 2);
    EXPECT_TRUE(contains(read_file(Out("directory.out")),
                         "cannot read the credentials file " + m_dir.Path() + ": Is a directory"))
        << read_file(Out("directory.out"));
    const std::string seedless = m_dir.WriteFile("seedless.creds", read_file(m_creds).substr(0, 300));
    EXPECT_EQ(RunToEnd(m_feedKeys.Dir(), {"--creds", seedless}, "seedless.out"), 2);
    EXPECT_TRUE(contains(read_file(Out("seedless.out")),
                         "the credentials file " + seedless + " holds no user JWT and seed"))
        << read_file(Out("seedless.out"));
    EXPECT_EQ(count_of(m_server->Output(), "cid:"), 0u) << m_server->Output();
}

}  // namespace
