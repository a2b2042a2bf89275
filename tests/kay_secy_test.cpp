#include "tavu/kay/kay_secy.h"

#include <algorithm>

#include "platform/oxhal/sim.h"
#include "support/world.h"
#include "tavu/common/tavu_utils.h"

using namespace tavu;
using namespace tavu::kay_internal;

namespace {

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
        EXPECT_TRUE(kay_secy_get_capabilities(kay));
        EXPECT_TRUE(enable_macsec_cp(kay));
        oxhal_sim::take_all_calls();
        forget_traces();
    }
};

TEST_F(kay_secy, AnAssociationThatCannotBeEnabledIsDeletedAgain) {
    EXPECT_TRUE(kay_secy_create_tx_sc(kay, transmit));
    EXPECT_TRUE(kay_secy_create_rx_sc(kay, receive));
    oxhal_sim::fail("transmit_sa_enable");
    EXPECT_FALSE(kay_secy_create_enable_tx_sa(kay, transmit, transmit_sa, 1, true, key));
    oxhal_sim::fail("receive_sa_enable");
    EXPECT_FALSE(kay_secy_create_enable_rx_sa(kay, receive, receive_sa, 1, key));
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
    EXPECT_EQ(kay.capabilities.num_of_rx_scs, 8u);
    EXPECT_EQ(kay.capabilities.num_of_rx_sas, 3u);
    EXPECT_EQ(kay.capabilities.replay_protection_supported, 0u);
    EXPECT_EQ(kay.capabilities.confidentiality_supported, 1u);
    EXPECT_EQ(kay.capabilities.additional_ciphers, 0u);
    EXPECT_TRUE(kay_secy_is_macsec_supported(kay));

    oxhal_sim::fail("port_cap_get");
    EXPECT_FALSE(kay_secy_get_capabilities(kay));
    oxhal_sim::set_no_capability_list("DiPort_A1");
    EXPECT_FALSE(kay_secy_get_capabilities(kay));
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
}

} // namespace
