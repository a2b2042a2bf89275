#include "tavu/kay/kay.h"

#include "platform/oxhal/sim.h"
#include "support/world.h"
#include "tavu/common/tavu_utils.h"
#include "tavu/kay/kay_events.h"
#include "tavu/mka/mka_client.h"

using namespace tavu;

namespace {

constexpr const char* port = "IDL_A1";
constexpr const char* hardware = "DiPort_A1";
constexpr const char* ca = "CA_mp3_A_mp7_B";
const std::string failed_report = "IDL_A1 error=1 valid=0 oper=0 encryption=0\n";
const std::string pending_report = "IDL_A1 error=0 valid=0 oper=0 encryption=0\n";
const std::string joined_report = "IDL_A1 error=0 valid=1 oper=0 encryption=0\n";
const std::string clear_report = "IDL_A1 error=0 valid=1 oper=1 encryption=0\n";
const std::string secured_report = "IDL_A1 error=0 valid=1 oper=1 encryption=1\n";

constexpr sci own = {{2, 0, 0, 0, 0, 1, 0, 0}};
constexpr sci remote = {{2, 0, 0, 0, 0, 2, 0, 0}};
constexpr oxhal_macsec_sci remote_in_secy = {{2, 0, 0, 0, 0, 2, 0, 0}};
#define SC(direction, mac)                                                                                   \
    "port 'IDL_A1'::" direction " SC (sci='SCI = { MAC = " mac " , port identifier = 0 }')"
#define TX_SC SC("TX", "02:00:00:00:00:01")
#define RX_SC SC("RX", "02:00:00:00:00:02")

constexpr char key_a[] = "SAK-of-16-octets";
constexpr char key_b[] = "another SAK of16";
constexpr char key_256[] = "a SAK of 256 bits, for AES-256..";

std::string reports;

constexpr kay_callbacks callbacks = {[](const char* name, const kay_state_change_ind& indication) {
    char line[128];
    snprintf(line, sizeof line, "%s error=%d valid=%d oper=%u encryption=%u\n", name, indication.error,
             indication.port_valid, indication.oper_state, indication.encryption_state);
    reports += line;
}};

// What a key server asks for; the fields that a test does not set are right.
struct sa_request {
    uint32_t an = 0;
    const char* key = key_a;
    uint32_t cipher = MKA_CIPHER_GCM_AES_128;
    const char* key_name = "SAK 1";
    sci of = remote;
};

struct failing_row {
    const char* rule;
    std::function<void()> happens;
    const char* error;          // must be among the traces
    const char* secy = nullptr; // the hardware operation that fails
};

// A KaY on the simulated SecY, with the real MKA client under it, and its key server, which is the test.
class kay : public test::world {
  protected:
    kay() {
        oxhal_sim::install();
        EXPECT_TRUE(initialize_oxhal());
        route_to([](const oka_message* message) {
            EXPECT_TRUE(mka_client_dispatch_message(message) || kay_dispatch_message(message));
        });
        EXPECT_TRUE(kay_init(root(), &callbacks));
        EXPECT_TRUE(kay_start());
    }
    ~kay() override { settle(); }

    void create() {
        EXPECT_TRUE(kay_create_instance(port));
        EXPECT_EQ(take_reports(), "");
        oxhal_sim::take_calls();
    }
    void connect(const char* key_server_name = "mka-key-server") {
        EXPECT_TRUE(kay_connect_secured(port, ca, key_server_name, options_));
        settle();
    }
    // Up to the join confirmation.
    void connect_to_server() {
        server_.forget_all();
        connect();
        client_ = server_.take(MKA_CONNECTION_ESTABLISH_REQ).sender();
        answer(MKA_CONNECTION_ESTABLISH_CFM, 101, 1);
        server_.take(MKA_CAPABILITIES_GET_REQ);
        uint8_t no_capabilities[24] = {0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 1};
        server_.send_bytes(client_, MKA_CAPABILITIES_GET_CFM, no_capabilities, sizeof no_capabilities);
        settle();
        server_.take(MKA_HEARTBEAT_REQ);
        answer(MKA_HEARTBEAT_CFM, 5);
        join_request_ = server_.take(MKA_JOIN_CA_REQ);
    }
    void confirm_join() {
        answer(MKA_JOIN_CA_CFM, 3, MKA_STANDARD_IEEE_802_1AE_2006);
        server_.take(MKA_CREATE_TX_SC_REQ);
        take_reports();
    }
    void join_with_rx_sc() {
        connect_to_server();
        confirm_join();
        answer(MKA_CREATE_TX_SC_CFM, 100);
        request_rx_sc();
        server_.take(MKA_CREATE_RX_SC_RCFM);
        oxhal_sim::take_calls();
    }

    // To the first client.
    message_header header(uint32_t procedure_reference) { return {{}, procedure_reference, 1}; }
    void answer(uint32_t number, uint32_t procedure_reference) {
        server_.send(client_, number, header(procedure_reference));
        settle();
    }
    // An answer of one word.
    void answer(uint32_t number, uint32_t procedure_reference, uint32_t word) {
        server_.send(client_, number, mka_rej{header(procedure_reference), word});
        settle();
    }
    template<class Request>
    void request(uint32_t number, Request fields) {
        fields.ca.assign(ca);
        server_.send(client_, number, fields);
        settle();
    }
    void request_rx_sc(const sci& identifier = remote) {
        request(MKA_CREATE_RX_SC_RREQ, mka_create_sc_req{header(102), {}, identifier});
    }
    void request_sa(uint32_t number, const sa_request& wanted) {
        mka_create_sa_rreq fields = {};
        fields.header = header(103);
        fields.ca.assign(ca);
        fields.identifier = wanted.of;
        fields.cipher_suite = wanted.cipher;
        fields.an = wanted.an;
        fields.packet_number = 128;
        fields.key_name.assign(wanted.key_name);
        fields.sak_len = static_cast<uint32_t>(strlen(wanted.key));
        std::string bytes(reinterpret_cast<const char*>(&fields), sizeof fields);
        bytes += wanted.key;
        server_.send_bytes(client_, number, bytes.data(), bytes.size());
        settle();
    }
    void request_tx_sa(sa_request wanted = {}) {
        wanted.of = own;
        request_sa(MKA_CREATE_TX_SA_RREQ, wanted);
    }
    void request_rx_sa(const sa_request& wanted = {}) { request_sa(MKA_CREATE_RX_SA_RREQ, wanted); }
    void install_tx_sa(const sa_request& wanted) {
        request_tx_sa(wanted);
        expect_confirmed(MKA_CREATE_TX_SA_RCFM);
    }
    void install_rx_sa(const sa_request& wanted = {}) {
        request_rx_sa(wanted);
        expect_confirmed(MKA_CREATE_RX_SA_RCFM);
    }
    void request_protect_frames(uint32_t value) {
        request(MKA_UPDATE_PROTECT_FRAMES_RREQ, mka_update_protect_frames_rreq{header(105), {}, value});
    }
    void expect_confirmed(uint32_t number, uint32_t procedure_reference = 103) {
        EXPECT_EQ(server_.take(number).as<message_header>().procedure_reference, procedure_reference);
    }

    // Lets time pass on a link that is alive.
    void pass(uint64_t milliseconds) {
        for (; milliseconds > 0; milliseconds -= 500) {
            advance(500);
            while (!server_.is_silent()) {
                server_.take(MKA_HEARTBEAT_REQ);
                answer(MKA_HEARTBEAT_CFM, 5);
            }
        }
    }

    std::string take_reports() { return std::exchange(reports, {}); }
    // The numbers of the receive associations that are installed, "0 1 ".
    std::string receive_sas() {
        std::string numbers;
        const oxhal::channel* channel = oxhal_sim::receive_channel(hardware, remote_in_secy);
        for (unsigned an = 0; channel && an < oxhal::associations_per_channel; an++) {
            if (channel->associations[an].installed)
                numbers += std::to_string(an) + " ";
        }
        return numbers;
    }
    void expect_failed() {
        EXPECT_EQ(take_reports(), failed_report);
        EXPECT_EQ(oxhal_sim::channel_count(hardware), 0u);
        EXPECT_FALSE(oxhal_sim::secy(hardware).wanted.protect_frames);
        EXPECT_EQ(oxhal_sim::secy(hardware).wanted.validate_frames, OXHAL_MACSEC_VALIDATE_FRAMES_DISABLED);
        EXPECT_FALSE(mka_client_delete(1)) << "the client still exists";
        EXPECT_TRUE(server_.is_silent()) << "the key server is told nothing: " << server_.waiting();
    }
    void expect_each_fails(const std::vector<failing_row>& rows, const std::function<void()>& begin) {
        for (const failing_row& row : rows) {
            SCOPED_TRACE(row.rule);
            begin();
            take_reports();
            server_.forget_all();
            forget_traces();
            if (row.secy)
                oxhal_sim::fail(row.secy);
            row.happens();
            settle();
            EXPECT_TRUE(traced(row.error));
            EXPECT_EQ(take_errors().find("there is no such"), std::string::npos)
                << "a record without its object";
            expect_failed();
        }
    }
    void expect_clean_stop() {
        EXPECT_TRUE(kay_stop());
        EXPECT_EQ(oxhal_sim::channel_count(hardware), 0u);
        EXPECT_EQ(oka::simulation::live().timers, 0u);
        server_.disappear();
        join_request_ = {};
        expect_nothing_left();
    }

    kay_configuration_options options_ = {.mka_port_speed = 10000,
                                          .replay_protection = true,
                                          .replay_window = 0,
                                          .identifier = own,
                                          .use_es = false,
                                          .use_scb = false,
                                          .always_use_sci = true,
                                          .validate_frames = OXHAL_MACSEC_VALIDATE_FRAMES_STRICT};
    test::peer server_{"mka-key-server"};
    oka_mailbox client_ = OKA_MAILBOX_NONE;
    test::received join_request_;
};

TEST_F(kay, SecuresALinkInTheOrderOfTheKeyServersRequests) {
    EXPECT_TRUE(kay_create_instance(port));
    const std::string disable = "protect_frames_set2 DiPort_A1 false\n"
                                "validate_frames_set2 DiPort_A1 disabled\n"
                                "transmit_sc_delete_all DiPort_A1\n"
                                "receive_sc_delete_all DiPort_A1\n";
    EXPECT_EQ(oxhal_sim::take_calls(),
              "init\ninit macsec\n" + disable + "enable_set DiPort_A1 true\n" + disable);
    EXPECT_EQ(take_reports(), "");

    connect_to_server();
    EXPECT_EQ(oxhal_sim::take_calls(), "replay_protect_set2 DiPort_A1 true\n"
                                       "replay_window_set DiPort_A1 0\n"
                                       "validate_frames_set2 DiPort_A1 strict\n"
                                       "es_set DiPort_A1 false\n"
                                       "scb_set DiPort_A1 false\n"
                                       "always_include_sci_set DiPort_A1 true\n");
    EXPECT_EQ(take_reports(), pending_report);
    const auto& joining = join_request_.as<mka_join_ca_req>();
    EXPECT_STREQ(joining.ca.c_str(), ca);
    EXPECT_EQ(joining.port_speed, 10000u);
    // Eight receive channels with four associations each, replay protection, confidentiality.
    EXPECT_EQ(join_request_.hex().substr((84 - 4) * 3),
              "00 00 00 00 00 00 00 28 00 00 00 08 00 00 00 04 00 00 00 01 00 00 00 01 "
              "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");

    answer(MKA_JOIN_CA_CFM, 3, MKA_STANDARD_IEEE_802_1AE_2006);
    EXPECT_EQ(take_reports(), joined_report);
    EXPECT_EQ(oxhal_sim::take_calls(), "transmit_sc_create DiPort_A1 02:00:00:00:00:01/0\n");
    const std::string announcement = server_.take(MKA_CREATE_TX_SC_REQ).hex();
    EXPECT_EQ(announcement.substr(0, 11), "00 00 00 64");
    EXPECT_EQ(announcement.substr((76 - 4) * 3), "02 00 00 00 00 01 00 00");
    answer(MKA_CREATE_TX_SC_CFM, 100);

    request_rx_sc();
    expect_confirmed(MKA_CREATE_RX_SC_RCFM, 102);
    install_rx_sa();
    install_tx_sa({.key = key_b});
    EXPECT_EQ(take_reports(), "") << "nothing changes before frames are protected";
    EXPECT_EQ(oxhal_sim::take_calls(), "receive_sc_create DiPort_A1 02:00:00:00:00:02/0\n"
                                       "receive_sa_create2 DiPort_A1 02:00:00:00:00:02/0 an=0 pn=128\n"
                                       "receive_sa_enable DiPort_A1 02:00:00:00:00:02/0 an=0 true\n"
                                       "transmit_sa_create DiPort_A1 02:00:00:00:00:01/0 an=0 pn=128 conf\n"
                                       "transmit_sa_enable DiPort_A1 02:00:00:00:00:01/0 an=0 true\n");
    EXPECT_TRUE(oxhal_sim::has_receive_key(hardware, remote_in_secy, 0, (const uint8_t*)key_a, 16));
    EXPECT_TRUE(oxhal_sim::has_transmit_key(hardware, 0, (const uint8_t*)key_b, 16));

    request_protect_frames(1);
    expect_confirmed(MKA_UPDATE_PROTECT_FRAMES_RCFM, 105);
    EXPECT_EQ(take_reports(), secured_report);
    install_tx_sa({.an = 1});

    EXPECT_TRUE(kay_connect_secured(port, "another CA", "another server", {}));
    EXPECT_EQ(take_errors(), "");
    EXPECT_TRUE(server_.is_silent());
    expect_clean_stop();
    EXPECT_EQ(oxhal_sim::take_calls(), "protect_frames_set2 DiPort_A1 true\n"
                                       "transmit_sa_create DiPort_A1 02:00:00:00:00:01/0 an=1 pn=128 conf\n"
                                       "transmit_sa_enable DiPort_A1 02:00:00:00:00:01/0 an=1 true\n"
                                       "transmit_sa_delete DiPort_A1 02:00:00:00:00:01/0 an=0\n"
                                       "transmit_sa_delete DiPort_A1 02:00:00:00:00:01/0 an=1\n"
                                       "transmit_sc_delete DiPort_A1 02:00:00:00:00:01/0\n"
                                       "receive_sa_delete DiPort_A1 02:00:00:00:00:02/0 an=0\n"
                                       "receive_sc_delete DiPort_A1 02:00:00:00:00:02/0\n" +
                                           disable);
}

// What a KaY reports of a port depends on frame protection and on the associations that are in use.
TEST_F(kay, DerivesTheControlledPortAndTheEncryptionState) {
    create();
    connect_to_server();
    confirm_join();
    request_protect_frames(0);
    EXPECT_EQ(take_reports(), clear_report);
    request_protect_frames(1);
    EXPECT_EQ(take_reports(), joined_report) << "there is no cipher yet";
    EXPECT_TRUE(traced("TAVU: No active TX SA exists on port 'IDL_A1'"));
    request_tx_sa();
    EXPECT_EQ(take_reports(), "IDL_A1 error=0 valid=1 oper=0 encryption=1\n");
    EXPECT_TRUE(traced("TAVU: No active RX SA exists on port 'IDL_A1'"));
    request_rx_sc();
    oxhal_sim::fail("receive_sa_in_use_get");
    request_rx_sa();
    EXPECT_EQ(take_reports(), "") << "the SecY does not say that it is in use";
    request_rx_sa({.an = 1, .key = key_b});
    EXPECT_EQ(take_reports(), secured_report);
    request_protect_frames(0);
    EXPECT_EQ(take_reports(), clear_report);
}

// Each row begins with a KaY that has joined, with one receive channel and one association a direction.
TEST_F(kay, FailsOnWhatItCannotCarryOut) {
    const std::vector<failing_row> rows = {
        {"the receive channel exists", [&] { request_rx_sc(); }, "TAVU: " RX_SC " already exists"},
        {"the transmit channel is another's", [&] { request_sa(MKA_CREATE_TX_SA_RREQ, {.an = 1}); },
         "TAVU: Could not find " SC("TX", "02:00:00:00:00:02")},
        {"the transmit association exists", [&] { request_tx_sa({.key = key_b}); },
         "TAVU: " TX_SC "::TX SA (an=0) already exists"},
        {"an association number has 8 bits", [&] { request_tx_sa({.an = 256}); },
         "TAVU: Invalid AN value: 256"},
        {"which numbers there are is the SecY's to say", [&] { request_tx_sa({.an = 5}); },
         "TAVU: Could not create " TX_SC "::TX SA (an=5): SecY error code = 22"},
        {"a key is as long as its cipher suite wants it", [&] { request_rx_sa({.an = 1, .key = key_256}); },
         "TAVU: Invalid SAK length for cipher 'MKA_CIPHER_GCM_AES_128': actual 32, expected 16"},
        {"the SecY refuses a receive association", [&] { request_rx_sa({.an = 1}); },
         "TAVU: Could not create " RX_SC "::RX SA (an=1): SecY error code = 5", "receive_sa_create2"},
        {"protection is on or off", [&] { request_protect_frames(2); },
         "TAVU: Invalid protect_frames value: 2"},
        {"the SecY refuses to protect frames", [&] { request_protect_frames(1); },
         "TAVU: Could not set protectFrames to 'true' on port 'IDL_A1', SecY error code = 5",
         "protect_frames_set2"},
        {"the port's cipher suite stays the first one",
         [&] { request_tx_sa({.an = 1, .key = key_256, .cipher = MKA_CIPHER_GCM_AES_256}); },
         "TAVU: Changing cipher suite on port 'IDL_A1' is not supported: old cipher suite = "
         "'MKA_CIPHER_GCM_AES_128', new cipher suite = 'MKA_CIPHER_GCM_AES_256'"},
        {"the key server goes away", [&] { server_.disappear(); },
         "TAVU: KaY on port 'IDL_A1' left CA 'CA_mp3_A_mp7_B'"},
    };
    create();
    expect_each_fails(rows, [&] {
        join_with_rx_sc();
        request_tx_sa();
        request_rx_sa();
    });
}

TEST_F(kay, FailsOnTheWayToItsFirstKey) {
    const std::vector<failing_row> rows = {
        {"of the standards only the first is supported", [&] { answer(MKA_JOIN_CA_CFM, 3, 1); },
         "TAVU: MACsec standard 'MKA_STANDARD_IEEE_802_1AEbn_2011' used by CA 'CA_mp3_A_mp7_B' is not "
         "supported by KaY on port 'IDL_A1'"},
        {"the key server rejects the transmit channel",
         [&] {
             confirm_join();
             answer(MKA_CREATE_TX_SC_REJ, 100, MKA_REJ_SCI_ALREADY_USED);
         },
         "TAVU: " TX_SC " creation rejected"},
        {"the first cipher suite must be one of the SecY's",
         [&] {
             confirm_join();
             request_tx_sa({.key = key_256, .cipher = MKA_CIPHER_GCM_AES_256});
         },
         "TAVU: Cipher suite 'MKA_CIPHER_GCM_AES_256' is not supported on port 'IDL_A1'"},
    };
    create();
    expect_each_fails(rows, [&] { connect_to_server(); });
}

TEST_F(kay, IgnoresAnswersThatItDoesNotAwait) {
    create();
    connect_to_server();
    confirm_join();
    oxhal_sim::take_calls();
    answer(MKA_CREATE_TX_SC_CFM, 99);
    answer(MKA_CREATE_TX_SC_CFM, 100);
    answer(MKA_CREATE_TX_SC_CFM, 100);
    answer(MKA_CREATE_TX_SC_REJ, 100, MKA_REJ_SCI_ALREADY_USED);
    EXPECT_EQ(oxhal_sim::take_calls(), "");
    EXPECT_EQ(take_reports(), "");
    EXPECT_TRUE(server_.is_silent());
}

TEST_F(kay, RejectsTheFifthReceiveChannelAndTheFifthKeyOfOne) {
    create();
    join_with_rx_sc();
    for (uint32_t an = 0; an < 4; an++)
        install_rx_sa({.an = an});
    request_rx_sa({.an = 0});
    EXPECT_EQ(server_.take(MKA_CREATE_RX_SA_RREJ).hex(), "00 00 00 67 00 00 00 01 00 00 00 04");
    EXPECT_EQ(receive_sas(), "0 1 2 3 ");

    for (uint8_t number = 3; number <= 5; number++) {
        request_rx_sc({{2, 0, 0, 0, 0, number, 0, 0}});
        expect_confirmed(MKA_CREATE_RX_SC_RCFM, 102);
    }
    request_rx_sc({{2, 0, 0, 0, 0, 6, 0, 0}});
    EXPECT_EQ(server_.take(MKA_CREATE_RX_SC_RREJ).hex(), "00 00 00 66 00 00 00 01 00 00 00 02");
    EXPECT_EQ(oxhal_sim::channel_count(hardware), 5u);
}

TEST_F(kay, OldReceiveKeysGoEightSecondsAfterTheNewestCame) {
    create();
    join_with_rx_sc();
    install_rx_sa({.an = 0, .key_name = "SAK 0"});
    pass(3000);
    install_rx_sa({.an = 1, .key_name = "SAK 1"});
    EXPECT_EQ(oka::simulation::live().timers, 2u) << "the newest key's and the heartbeat's";
    pass(7500);
    EXPECT_EQ(receive_sas(), "0 1 ");
    pass(500);
    EXPECT_EQ(receive_sas(), "1 ");

    // Keys that come quickly one after another: all older ones wait for the newest.
    install_rx_sa({.an = 2, .key_name = "SAK 2"});
    pass(5000);
    install_rx_sa({.an = 3, .key_name = "SAK 3"});
    pass(7500);
    EXPECT_EQ(receive_sas(), "1 2 3 ");
    oxhal_sim::fail("receive_sa_delete");
    pass(500);
    EXPECT_EQ(oxhal_sim::call_count("receive_sa_delete"), 3u) << "one that is refused keeps no other";
    EXPECT_EQ(take_reports(), "") << "old keys that go are no news";
}

TEST_F(kay, DropsADisposalTimeoutThatIsNotForThePrimary) {
    using kay_internal::kay_sa_disposal_timeout_ind;
    kay_sa_disposal_timeout_ind right = {{}, {}, remote, 1, {}, {}};
    right.port.assign(port);
    right.key_name.assign("SAK 1");
    std::vector<kay_sa_disposal_timeout_ind> wrong(3, right);
    wrong[0].identifier = own;
    wrong[1].an = 0; // is not the newest any more
    wrong[1].key_name.assign("SAK 0");
    wrong[2].key_name.assign("an older key of the same number");
    auto expire = [&](const kay_sa_disposal_timeout_ind& timeout, size_t size = sizeof right) {
        test::prepare_bytes(KAY_SA_DISPOSAL_TIMEOUT_IND, &timeout, size);
        settle();
    };
    create();
    join_with_rx_sc();
    request_rx_sa({.an = 0, .key_name = "SAK 0"});
    request_rx_sa({.an = 1, .key_name = "SAK 1"});
    for (const kay_sa_disposal_timeout_ind& timeout : wrong)
        expire(timeout);
    expire(right, sizeof right - 1);
    server_.send(root(), KAY_SA_DISPOSAL_TIMEOUT_IND, right); // not the KaY's own
    settle();
    EXPECT_EQ(receive_sas(), "0 1 ");
    expire(right);
    EXPECT_EQ(receive_sas(), "1 ");
}

TEST_F(kay, AClientIdThatIsGivenAgainBelongsToItsNewPort) {
    EXPECT_TRUE(kay_create_instance("IDL_B1"));
    create();
    connect_to_server();
    answer(MKA_JOIN_CA_REJ, 3, 5);
    EXPECT_TRUE(take_reports().ends_with(failed_report));
    server_.forget_all();
    EXPECT_TRUE(kay_connect_secured("IDL_B1", ca, "mka-key-server", options_));
    settle();
    client_ = server_.take(MKA_CONNECTION_ESTABLISH_REQ).sender();
    take_reports();
    answer(MKA_CONNECTION_ESTABLISH_REJ, 101, 7);
    EXPECT_EQ(take_reports(), "IDL_B1 error=1 valid=0 oper=0 encryption=0\n");
}

TEST_F(kay, BecomesUnauthenticatedWithoutAReport) {
    kay_state_change_ind indication = {};
    auto shows = [&](bool error, bool valid, uint32_t oper) {
        return indication.error == error && indication.port_valid == valid && indication.oper_state == oper &&
               indication.encryption_state == MACSEC_ENCRYPTION_DISABLED;
    };
    create();
    EXPECT_TRUE(kay_connect_unauthenticated(port, indication));
    EXPECT_TRUE(shows(false, true, KAY_CP_OPER_ENABLED));
    EXPECT_EQ(oxhal_sim::take_calls(), "") << "it is already";

    join_with_rx_sc();
    EXPECT_TRUE(kay_connect_unauthenticated(port, indication));
    EXPECT_TRUE(shows(false, true, KAY_CP_OPER_ENABLED));
    EXPECT_EQ(take_reports(), "");

    join_with_rx_sc();
    oxhal_sim::fail("receive_sc_delete");
    EXPECT_TRUE(kay_connect_unauthenticated(port, indication));
    EXPECT_TRUE(shows(true, false, KAY_CP_OPER_DISABLED)) << "a SecY that is not cleared is no clear port";
    expect_failed();
    EXPECT_TRUE(kay_connect_unauthenticated(port, indication));
    EXPECT_TRUE(shows(true, false, KAY_CP_OPER_DISABLED)) << "only a secured connect starts it again";
    connect_to_server();
    EXPECT_EQ(take_reports(), pending_report) << "no longer failed";
}

TEST_F(kay, APortWithoutMacsecIsLeftAloneAndCannotBeSecured) {
    oxhal_sim::set_capabilities(hardware, nullptr, 0);
    oxhal_sim::take_calls();
    EXPECT_TRUE(kay_create_instance(port));
    connect_to_server();
    EXPECT_EQ(join_request_.hex().substr((80 - 4) * 3), "00 00 00 00 00 00 00 00 00 00 00 00")
        << "no information element";
    answer(MKA_JOIN_CA_CFM, 3, 0);
    EXPECT_EQ(oxhal_sim::take_calls(), "");
}

TEST_F(kay, CreationThatFailsLeavesNothing) {
    EXPECT_FALSE(kay_create_instance("eth0"));
    for (const char* operation : {"port_cap_get", "transmit_sc_delete_all", "enable_set"}) {
        oxhal_sim::fail(operation);
        EXPECT_FALSE(kay_create_instance(port)) << operation;
    }
    oxhal_sim::fail("receive_sc_delete_all", 2);
    EXPECT_FALSE(kay_create_instance(port)) << "the second clearing, on the way to unauthenticated";
    create();
    EXPECT_FALSE(kay_create_instance(port));
    EXPECT_FALSE(kay_create_instance("IDLA1")) << "two names of one port";
    EXPECT_FALSE(kay_connect_secured("IDL_B1", ca, "mka-key-server", options_));
}

TEST_F(kay, OperationsRefuseInTheWrongState) {
    EXPECT_FALSE(kay_init(root(), &callbacks));
    EXPECT_FALSE(kay_start());
    create();
    join_with_rx_sc();
    EXPECT_TRUE(mka_client_stop());
    EXPECT_FALSE(kay_stop()) << "the MKA client is stopped already";
    EXPECT_EQ(oxhal_sim::channel_count(hardware), 0u);
    EXPECT_FALSE(kay_stop());
    EXPECT_FALSE(kay_create_instance(port));
    EXPECT_FALSE(kay_connect_secured(port, ca, "mka-key-server", options_));
}

} // namespace
