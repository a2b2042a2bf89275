#include "tavu/kay_secy.h"

#include <algorithm>

#include "platform/oxhal/sim.h"
#include "support/world.h"
#include "tavu/tavu_utils.h"

using namespace tavu;
using namespace tavu::kay_internal;

namespace {

#define TX_SC "port 'IDL_A1'::TX SC (sci='SCI = { MAC = 02:00:00:00:00:01 , port identifier = 0 }')"
#define RX_SC "port 'IDL_A1'::RX SC (sci='SCI = { MAC = 02:00:00:00:00:02 , port identifier = 258 }')"
#define TX_SA TX_SC "::TX SA (an=1)"
#define RX_SA RX_SC "::RX SA (an=1)"
#define OWN "DiPort_A1 02:00:00:00:00:01/0"
#define PEER "DiPort_A1 02:00:00:00:00:02/258"

constexpr uint8_t key_octets[16] = {'s', 'e', 'c', 'r', 'e', 't'};
constexpr oxhal_macsec_key key = {key_octets, sizeof key_octets};

kay_record kay;
tx_sc transmit;
rx_sc receive;
constexpr tx_sa transmit_sa = {.an = 1, .cipher = MKA_CIPHER_GCM_AES_128, .key_name = {}};
constexpr rx_sa receive_sa = {
    .an = 1, .state = KAY_SA_PRIMARY, .cipher = MKA_CIPHER_GCM_AES_128, .key_name = {}, .disposal_timer = 0};

class kay_secy : public test::world {
  protected:
    kay_secy() {
        oxhal_sim::install();
        EXPECT_TRUE(initialize_oxhal());
        EXPECT_TRUE(kay_secy_macsec_init());
        kay.port.assign("IDL_A1");
        EXPECT_TRUE(idl_port_name_to_port_handle("IDL_A1", kay.port_handle));
        transmit.identifier = {{2, 0, 0, 0, 0, 1, 0, 0}};
        receive.identifier = {{2, 0, 0, 0, 0, 2, 1, 2}};
        sci_to_str1(transmit.sci_text, transmit.identifier);
        sci_to_str1(receive.sci_text, receive.identifier);
        EXPECT_TRUE(kay_secy_get_capabilities(kay));
        EXPECT_TRUE(enable_macsec_cp(kay));
        oxhal_sim::take_all_calls();
        forget_traces();
    }
};

#define SECY_ERROR ", SecY error code = 5\n"

struct operation_row {
    const char* call; // the hardware operation that is made to fail
    bool (*run)();
    const char* calls; // what the hardware sees when it does not fail
    const char* intention;
    const char* error;
};

#define SETTING(operation, value, name, text, run)                                                           \
    {                                                                                                        \
        operation, [] { return run; }, operation " DiPort_A1 " value "\n",                                   \
            "TAVU: Setting " name " to '" text "' on port 'IDL_A1'",                                         \
            "TAVU: Could not set " name " to '" text "' on port 'IDL_A1', SecY error code = 5\n"             \
    }

#define CREATE "Creating", "create"
#define DELETE "Deleting", "delete"
#define OBJECT(...) OBJECT_ROW(__VA_ARGS__)
#define OBJECT_ROW(operation, doing, infinitive, object, calls, run)                                         \
    {                                                                                                        \
        operation, [] { return run; }, calls, "TAVU: " doing " " object,                                     \
            "TAVU: Could not " infinitive " " object ": SecY error code = 5\n"                               \
    }

// In this order every row finds the SecY as the rows before it left it.
constexpr operation_row operations[] = {
    SETTING("protect_frames_set2", "true", "protectFrames", "true", kay_secy_set_protect_frames(kay, true)),
    SETTING("validate_frames_set2", "check", "validateFrames", "OXHAL_MACSEC_VALIDATE_FRAMES_CHECK",
            kay_secy_set_validate_frames(kay, 2)),
    SETTING("es_set", "true", "useES", "true", kay_secy_set_es(kay, true)),
    SETTING("scb_set", "false", "useSCB", "false", kay_secy_set_scb(kay, false)),
    SETTING("always_include_sci_set", "true", "alwaysUseSCI", "true",
            kay_secy_set_always_include_sci(kay, true)),
    {"replay_protect_set2", [] { return kay_secy_set_replay_protection(kay, true, 7); },
     "replay_protect_set2 DiPort_A1 true\nreplay_window_set DiPort_A1 7\n",
     "TAVU: Setting replay protection to 'true' with window size 7 on port 'IDL_A1'",
     "TAVU: Could not set replay protection = 'true' on port 'IDL_A1', SecY error code = 5\n"},
    {"replay_window_set", [] { return kay_secy_set_replay_protection(kay, false, 8); },
     "replay_protect_set2 DiPort_A1 false\nreplay_window_set DiPort_A1 8\n",
     "TAVU: Setting replay protection to 'false' with window size 8 on port 'IDL_A1'",
     "TAVU: Could not set replay protection window size 8 on port 'IDL_A1', SecY error code = 5\n"},
    {"enable_set", [] { return kay_secy_enable_cp(kay); }, "enable_set DiPort_A1 true\n",
     "TAVU: Enable MACsec controlled port on common port 'IDL_A1'",
     "TAVU: Could not enable MACsec controlled port on common port 'IDL_A1', SecY error code = 5\n"},
    OBJECT("transmit_sc_create", CREATE, TX_SC, "transmit_sc_create " OWN "\n",
           kay_secy_create_tx_sc(kay, transmit)),
    OBJECT("receive_sc_create", CREATE, RX_SC, "receive_sc_create " PEER "\n",
           kay_secy_create_rx_sc(kay, receive)),
    OBJECT("transmit_sa_create", CREATE, TX_SA,
           "transmit_sa_create " OWN " an=1 pn=128 conf\ntransmit_sa_enable " OWN " an=1 true\n",
           kay_secy_create_enable_tx_sa(kay, transmit, transmit_sa, 128, true, key)),
    OBJECT("receive_sa_create2", CREATE, RX_SA,
           "receive_sa_create2 " PEER " an=1 pn=128\nreceive_sa_enable " PEER " an=1 true\n",
           kay_secy_create_enable_rx_sa(kay, receive, receive_sa, 128, key)),
    {"transmit_sa_in_use_get", [] { return kay_secy_tx_sa_in_use(kay, transmit, transmit_sa); }, "",
     "TAVU: in_use for " TX_SA " = 'true'", "TAVU: Could not get in_use for " TX_SA SECY_ERROR},
    {"receive_sa_in_use_get", [] { return kay_secy_rx_sa_in_use(kay, receive, receive_sa); }, "",
     "TAVU: in_use for " RX_SA " = 'true'", "TAVU: Could not get in_use for " RX_SA SECY_ERROR},
    OBJECT("transmit_sa_delete", DELETE, TX_SA, "transmit_sa_delete " OWN " an=1\n",
           kay_secy_delete_tx_sa(kay, transmit, transmit_sa)),
    OBJECT("receive_sa_delete", DELETE, RX_SA, "receive_sa_delete " PEER " an=1\n",
           kay_secy_delete_rx_sa(kay, receive, receive_sa)),
    OBJECT("transmit_sc_delete", DELETE, TX_SC, "transmit_sc_delete " OWN "\n",
           kay_secy_delete_tx_sc(kay, transmit)),
    OBJECT("receive_sc_delete", DELETE, RX_SC, "receive_sc_delete " PEER "\n",
           kay_secy_delete_rx_sc(kay, receive)),
    {"transmit_sc_delete_all", [] { return kay_secy_delete_all_transmit_sc(kay); },
     "transmit_sc_delete_all DiPort_A1\n", "TAVU: Deleting all TX SC on port 'IDL_A1'",
     "TAVU: Could not delete all TX SC on port 'IDL_A1'" SECY_ERROR},
    {"receive_sc_delete_all", [] { return kay_secy_delete_all_receive_sc(kay); },
     "receive_sc_delete_all DiPort_A1\n", "TAVU: Deleting all RX SC on port 'IDL_A1'",
     "TAVU: Could not delete all RX SC on port 'IDL_A1'" SECY_ERROR},
};

// The driver's own errors: those of the hardware layer begin otherwise.
std::string of_driver(const std::string& errors) {
    std::string own;
    for (size_t begin = 0, end; (end = errors.find('\n', begin)) != std::string::npos; begin = end + 1) {
        if (errors.compare(begin, 5, "TAVU:") == 0)
            own += errors.substr(begin, end + 1 - begin);
    }
    return own;
}

TEST_F(kay_secy, OperationsTraceWhatTheyDoAndWhatFailed) {
    for (const operation_row& row : operations) {
        SCOPED_TRACE(row.call);
        oxhal_sim::fail(row.call);
        EXPECT_FALSE(row.run());
        EXPECT_EQ(of_driver(take_errors()), row.error);

        oxhal_sim::take_calls();
        EXPECT_TRUE(row.run());
        EXPECT_TRUE(traced(row.intention));
        EXPECT_EQ(take_errors(), "");
        EXPECT_EQ(oxhal_sim::take_calls(), row.calls);
    }
    EXPECT_EQ(oxhal_sim::channel_count("DiPort_A1"), 0u);
}

TEST_F(kay_secy, AnAssociationThatCannotBeEnabledIsDeletedAgain) {
    EXPECT_TRUE(kay_secy_create_tx_sc(kay, transmit));
    EXPECT_TRUE(kay_secy_create_rx_sc(kay, receive));
    oxhal_sim::fail("transmit_sa_enable");
    EXPECT_FALSE(kay_secy_create_enable_tx_sa(kay, transmit, transmit_sa, 1, true, key));
    EXPECT_TRUE(traced("TAVU: Enabling " TX_SA));
    EXPECT_TRUE(traced("TAVU: Could not enable " TX_SA ": SecY error code = 5"));
    oxhal_sim::fail("receive_sa_enable");
    EXPECT_FALSE(kay_secy_create_enable_rx_sa(kay, receive, receive_sa, 1, key));
    EXPECT_TRUE(traced("TAVU: Could not enable " RX_SA ": SecY error code = 5"));
    EXPECT_EQ(oxhal_sim::association_count("DiPort_A1"), 0u);
}

TEST_F(kay_secy, DisablingGoesThroughEveryStepAndConfiguringStopsAtTheFirstThatFails) {
    const char* steps[] = {"protect_frames_set2", "validate_frames_set2", "transmit_sc_delete_all",
                           "receive_sc_delete_all"};
    for (const char* step : steps) {
        SCOPED_TRACE(step);
        EXPECT_TRUE(kay_secy_create_rx_sc(kay, receive));
        oxhal_sim::take_calls();
        oxhal_sim::fail(step);
        EXPECT_FALSE(disable_macsec(kay));
        std::string calls = oxhal_sim::take_calls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), '\n'), 4) << calls;
        EXPECT_TRUE(disable_macsec(kay));
        EXPECT_EQ(oxhal_sim::take_calls(), "protect_frames_set2 DiPort_A1 false\n"
                                           "validate_frames_set2 DiPort_A1 disabled\n"
                                           "transmit_sc_delete_all DiPort_A1\n"
                                           "receive_sc_delete_all DiPort_A1\n");
        EXPECT_EQ(oxhal_sim::channel_count("DiPort_A1"), 0u);
    }

    kay.options = {.mka_port_speed = 0,
                   .replay_protection = true,
                   .replay_window = 3,
                   .identifier = {},
                   .use_es = true,
                   .use_scb = false,
                   .always_use_sci = true,
                   .validate_frames = OXHAL_MACSEC_VALIDATE_FRAMES_STRICT};
    const std::string configuration = "replay_protect_set2 DiPort_A1 true\n"
                                      "replay_window_set DiPort_A1 3\n"
                                      "validate_frames_set2 DiPort_A1 strict\n"
                                      "es_set DiPort_A1 true\n"
                                      "scb_set DiPort_A1 false\n"
                                      "always_include_sci_set DiPort_A1 true\n";
    EXPECT_TRUE(apply_macsec_configuration(kay));
    EXPECT_EQ(oxhal_sim::take_calls(), configuration);
    size_t end = 0;
    for (unsigned nth = 1; nth <= 6; nth++) {
        end = configuration.find('\n', end + 1);
        oxhal_sim::fail(nullptr, nth);
        EXPECT_FALSE(apply_macsec_configuration(kay));
        EXPECT_EQ(oxhal_sim::take_calls(), configuration.substr(0, end) + " = 5\n");
    }
}

oxhal_macsec_port_cap capability(uint32_t standard, uint32_t rx_scs, uint32_t ciphers) {
    oxhal_macsec_port_cap entry = {};
    entry.standard = standard;
    entry.confidentiality_supported = 1;
    entry.num_of_rx_scs = rx_scs;
    entry.num_of_rx_sas = 3;
    entry.num_of_additional_ciphers = ciphers;
    return entry;
}

TEST_F(kay_secy, CapabilitiesAreThoseOfTheLastEntryOfTheStandard) {
    const oxhal_macsec_port_cap entries[] = {capability(0, 9, 0), capability(0, 8, 2), capability(1, 7, 0)};
    oxhal_sim::set_capabilities("DiPort_A1", entries, 3);
    EXPECT_TRUE(kay_secy_get_capabilities(kay));
    EXPECT_TRUE(
        traced("TAVU: KaY does not support additional ciphers, ignoring SecY values on port 'IDL_A1'"));
    EXPECT_EQ(kay.capabilities.num_of_rx_scs, 8u);
    EXPECT_EQ(kay.capabilities.num_of_rx_sas, 3u);
    EXPECT_EQ(kay.capabilities.replay_protection_supported, 0u);
    EXPECT_EQ(kay.capabilities.confidentiality_supported, 1u);
    EXPECT_EQ(kay.capabilities.additional_ciphers, 0u);
    EXPECT_TRUE(kay_secy_is_macsec_supported(kay));

    oxhal_sim::fail("port_cap_get");
    EXPECT_FALSE(kay_secy_get_capabilities(kay));
    EXPECT_TRUE(
        traced("TAVU: Could not get MACsec hardware capabilities for port 'IDL_A1', SecY error code = 5"));
    oxhal_sim::set_no_capability_list("DiPort_A1");
    EXPECT_FALSE(kay_secy_get_capabilities(kay));
    EXPECT_TRUE(traced("TAVU: Could not get MACsec hardware capabilities for port 'IDL_A1'"));
}

TEST_F(kay_secy, APortWithoutMacsecIsLeftAlone) {
    const oxhal_macsec_port_cap other = capability(1, 4, 0);
    oxhal_sim::set_capabilities("DiPort_A1", &other, 1);
    EXPECT_TRUE(kay_secy_get_capabilities(kay));
    EXPECT_FALSE(kay_secy_is_macsec_supported(kay));
    oxhal_sim::take_all_calls();
    EXPECT_TRUE(enable_macsec_cp(kay));
    EXPECT_TRUE(traced("TAVU: Port 'IDL_A1' does not support MACsec API"));
    EXPECT_TRUE(disable_macsec(kay));
    EXPECT_TRUE(apply_macsec_configuration(kay));
    EXPECT_EQ(count_traced("TAVU: Port 'IDL_A1' does not support MACsec"), 2u);
    EXPECT_EQ(oxhal_sim::take_all_calls(), "");
    EXPECT_FALSE(kay_secy_is_cipher_supported(kay, MKA_STANDARD_IEEE_802_1AE_2006, MKA_CIPHER_GCM_AES_128));
}

TEST_F(kay_secy, OneCipherOfOneStandardIsSupported) {
    kay.ca.assign("CA_1");
    for (uint32_t standard = 0; standard <= MKA_STANDARD_IEEE_802_1AEcg_2017; standard++) {
        for (uint32_t cipher = 0; cipher <= MKA_CIPHER_GCM_AES_XPN_256; cipher++)
            EXPECT_EQ(kay_secy_is_cipher_supported(kay, static_cast<mka_standard>(standard),
                                                   static_cast<mka_cipher>(cipher)),
                      standard == 0 && cipher == 1)
                << standard << " " << cipher;
    }
    EXPECT_TRUE(traced("TAVU: MACsec standard 'MKA_STANDARD_IEEE_802_1AE_2006' used by CA 'CA_1' is "
                       "supported by SecY on port 'IDL_A1'"));
    EXPECT_TRUE(traced("TAVU: MACsec standard 'MKA_STANDARD_IEEE_802_1AEbw_2013' used by CA 'CA_1' is not "
                       "supported by SecY on port 'IDL_A1'"));
}

} // namespace
