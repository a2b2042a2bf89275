// The port manager under the real MACsec service, whose clients the test plays; KaYs, key server and
// port-control client are recorders in its place, so that every outcome can be had at will.
#include "tavu/port_manager/port_manager.h"

#include <map>

#include "support/topology_manager.h"
#include "support/world.h"
#include "tavu/kay/kay.h"
#include "tavu/key_server/key_server.h"
#include "tavu/oxmsi/oxmsi_server.h"

using namespace tavu;

namespace {

// What the port manager stands on.
struct {
    std::string calls; // of everything below, one a line
    std::map<std::string, oxpcsi_port_data> ports;
    kay_callbacks kay = {};
    bool kay_create = true;
    bool kay_connect = true;
    bool kay_fails_at_once = false; // and says so before kay_connect_secured returns
    kay_state_change_ind kay_now = {};
    kay_state_change_ind unauthenticated = {false, false, KAY_CP_OPER_ENABLED, MACSEC_ENCRYPTION_DISABLED};
} fake;

std::string take_calls() {
    return std::exchange(fake.calls, "");
}

} // namespace

namespace tavu {

bool kay_init(oka_mailbox, const kay_callbacks* callbacks) {
    fake.kay = *callbacks;
    return true;
}
bool kay_start() {
    return true;
}
bool kay_stop() {
    fake.calls += "stop\n";
    return true;
}
bool kay_get_state(const char*, kay_state_change_ind& indication) {
    indication = fake.kay_now;
    return true;
}
bool kay_create_instance(const char* port) {
    fake.calls += std::string("create ") + port + "\n";
    return fake.kay_create;
}
bool kay_connect_unauthenticated(const char* port, kay_state_change_ind& indication) {
    fake.calls += std::string("unauthenticated ") + port + "\n";
    if (fake.kay_connect)
        indication = fake.unauthenticated;
    return fake.kay_connect;
}
bool kay_connect_secured(const char* port, const char* ca, const char* key_server,
                         const kay_configuration_options& options) {
    fake.calls += std::string("secured ") + port + " " + ca + " " + key_server + "\n";
    EXPECT_TRUE((options.identifier == sci{{2, 0, 0, 0, 0, 10, 0, 0}}));
    EXPECT_EQ(options.mka_port_speed, 25000u);
    EXPECT_TRUE(options.replay_protection && options.always_use_sci && !options.use_es && !options.use_scb);
    EXPECT_TRUE(options.replay_window == 0 && options.validate_frames == 1);
    if (fake.kay_fails_at_once)
        fake.kay.handle_kay_state_change_ind(port, {true, false, KAY_CP_OPER_DISABLED, {}});
    return fake.kay_connect;
}
const char* kay_macsec_role_to_str(macsec_role) {
    return "a role";
}
const char* macsec_encryption_state_to_str(macsec_encryption_state) {
    return "a state";
}
const char* cp_oper_state_to_str(kay_cp_oper_state) {
    return "a state";
}
bool key_server_add_ca(const char* name) {
    fake.calls += std::string("add ") + name + "\n";
    return true;
}
bool key_server_remove_ca(const char* name) {
    fake.calls += std::string("remove ") + name + "\n";
    return true;
}
bool oxpcsi_get_port_data(const char* port, oxpcsi_port_data& output) {
    auto found = fake.ports.find(port);
    if (found != fake.ports.end())
        output = found->second;
    return found != fake.ports.end();
}

} // namespace tavu

namespace {

constexpr oxmsi_callbacks to_port_manager = {
    tavu_pm_handle_oxmsi_idl_link_added_req,   tavu_pm_handle_oxmsi_idl_link_deleted_req,
    tavu_pm_handle_oxmsi_idl_link_updated_req, tavu_pm_handle_oxmsi_subscribe_req,
    tavu_pm_handle_oxmsi_unsubscribe_req,      tavu_pm_handle_oxmsi_client_down_ind,
    tavu_pm_handle_oxmsi_connection_close_ind,
};

// With two ports and a client.
class port_manager_test : public test::world {
  protected:
    explicit port_manager_test(const char* mpid = "3") : service_(start(mpid)) {}

    static oxpcsi_port_data port_data(const char* name, uint32_t admin_state = 1, uint32_t oper_state = 1) {
        oxpcsi_port_data data = {};
        data.port.assign(name);
        data.admin_state = admin_state;
        data.oper_state = oper_state;
        data.line_rate = 25000;
        data.mac_address[0] = 2;
        data.mac_address[5] = 10;
        return data;
    }

    test::topology_manager connect(const char* name) {
        return test::topology_manager(name, service_, [this] { settle(); });
    }
    static tavu_pm_state state(const char* port) {
        tavu_pm_state state = TAVU_PM_STATE_INITIAL;
        EXPECT_TRUE(get_tavu_pm_state(port, state));
        return state;
    }
    // The port comes up or goes down.
    static void set_port(const char* name, uint32_t admin_state, uint32_t oper_state) {
        fake.ports[name] = port_data(name, admin_state, oper_state);
        tavu_pm_handle_oxpcsi_port_state_change(fake.ports[name]);
    }
    static void report(const char* port, kay_state_change_ind indication) {
        fake.kay.handle_kay_state_change_ind(port, indication);
    }

    static constexpr kay_state_change_ind succeeded = {false, true, KAY_CP_OPER_ENABLED,
                                                       MACSEC_ENCRYPTION_ENABLED};
    static constexpr kay_state_change_ind failed = {true, false, KAY_CP_OPER_DISABLED,
                                                    MACSEC_ENCRYPTION_DISABLED};
    oka_mailbox service_;
    test::topology_manager client_ = connect("topology-manager");
    const std::string add_ = "add CA_mp3_IDL_A1_mp7_IDL_B2\n";
    const std::string secure_ = "secured IDL_A1 CA_mp3_IDL_A1_mp7_IDL_B2 mka-key-server\n";
    const std::string release_ = "unauthenticated IDL_A1\nremove CA_mp3_IDL_A1_mp7_IDL_B2\n";

  private:
    // The service's mailbox.
    oka_mailbox start(const char* mpid) {
        setenv("MPID", mpid, 1);
        route_to([](const oka_message* message) {
            EXPECT_TRUE(oxmsi_dispatch_message(message) || tavu_pm_dispatch_message(message));
        });
        for (const char* name : {"IDL_A1", "IDL_B1", "IDL_A2"})
            fake.ports[name] = port_data(name);
        EXPECT_TRUE(oxmsi_server_init(root(), &to_port_manager));
        EXPECT_TRUE(tavu_pm_init(root()));
        EXPECT_TRUE(oxmsi_server_start());
        EXPECT_TRUE(tavu_pm_start());
        EXPECT_TRUE(tavu_pm_create_instance("IDL_A1"));
        EXPECT_TRUE(tavu_pm_create_instance("IDL_B1"));
        EXPECT_TRUE(oxmsi_server_publish("oxmsi"));
        EXPECT_EQ(take_calls(),
                  "create IDL_A1\nunauthenticated IDL_A1\ncreate IDL_B1\nunauthenticated IDL_B1\n");
        test::peer finder("finder");
        oka_message* prepared = oka_alloc(4, OXMSI_SERVER_UP_IND);
        oka_locate_async("oxmsi", &prepared, finder.mailbox());
        settle();
        return finder.take(OXMSI_SERVER_UP_IND).sender();
    }
};

TEST_F(port_manager_test, a_link_is_confirmed_when_its_port_is_secured) {
    client_.subscribe("IDL_A1");
    EXPECT_EQ(client_.heard(), "SUBSCRIBE_CFM 1\nCHANGE_IND 1 IDL_A1 oper 1 encryption 0\n");
    client_.add("IDL_A1");
    EXPECT_EQ(take_calls(), add_ + secure_);
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_CA_JOINING);
    EXPECT_EQ(client_.heard(), "CHANGE_IND 1 IDL_A1 oper 0 encryption 0\n");

    report("IDL_A1", {false, true, KAY_CP_OPER_DISABLED, {}});
    report("IDL_A1", {false, false, KAY_CP_OPER_ENABLED, {}});
    set_port("IDL_A1", 1, 1); // nothing new: what is pending stays so
    EXPECT_EQ(client_.heard(), "");

    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_CA_JOINING);

    report("IDL_A1", succeeded);
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_CA_JOINED);
    report("IDL_A1", succeeded);
    settle();
    EXPECT_EQ(client_.heard(), "ADDED_CFM 2 IDL_A1 oper 1 encryption 1\n");

    client_.update("IDL_A1", OXMSI_LTM_LINK_STATUS_MACSEC_PENDING);
    EXPECT_EQ(client_.heard(), "UPDATED_CFM 3 IDL_A1 oper 1 encryption 1\n"); // is there already
    EXPECT_EQ(take_calls(), "");

    client_.remove("IDL_A1");
    EXPECT_EQ(take_calls(), release_);
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_UNAUTHENTICATED);
    // Of what it was told last, "not valid", the subscriber hears the change only now.
    EXPECT_EQ(client_.heard(),
              "DELETED_CFM 4 IDL_A1 oper 1 encryption 0\nCHANGE_IND 1 IDL_A1 oper 1 encryption 0\n");
    EXPECT_EQ(oka::simulation::live().timers, 0u);
}

TEST_F(port_manager_test, a_port_takes_the_role_that_its_state_and_its_link_ask_for) {
    struct row {
        uint32_t admin_state, oper_state, link_status, du_type;
        bool is_secured = false;
    };
    std::vector<row> rows = {{0, 1, 2, 2}, {1, 0, 2, 2},  {1, 666, 2, 2}, {666, 1, 2, 2},
                             {1, 1, 2, 1}, {1, 1, 10, 1}, {1, 1, 2, 0},   {1, 1, 2, 3}};
    for (uint32_t status = 0; status <= 11; status++)
        rows.push_back({1, 1, status, 2, status == 2 || status == 10});
    client_.add("IDL_A1", 0);
    for (const row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.admin_state << row.oper_state << " link " << row.link_status
                                        << " to " << row.du_type);
        set_port("IDL_A1", 0, 0);
        client_.update("IDL_A1", row.link_status, row.du_type);
        set_port("IDL_A1", row.admin_state, row.oper_state);
        EXPECT_EQ(state("IDL_A1"), row.is_secured ? TAVU_PM_STATE_CA_JOINING : TAVU_PM_STATE_UNAUTHENTICATED);
    }
}

// One unit's MP id, and where that puts the key server of a link to another.
struct location {
    const char* own_mpid;
    uint32_t remote_mpid;
    const char* ca;
    bool local;
};
class key_server_location : public port_manager_test, public testing::WithParamInterface<location> {
  protected:
    key_server_location() : port_manager_test(GetParam().own_mpid) {}
};

TEST_P(key_server_location, is_the_end_with_the_smaller_id) {
    const location& expected = GetParam();
    const std::string path(63, 'p');
    client_.add("IDL_A1", OXMSI_LTM_LINK_STATUS_UP, OXMSI_DU_TYPE_3, expected.remote_mpid, path.c_str());
    EXPECT_EQ(take_calls(), (expected.local ? std::string("add ") + expected.ca + "\n" : "") +
                                "secured IDL_A1 " + expected.ca + " " + (expected.local ? "" : path + "/") +
                                "mka-key-server\n");
    client_.remove("IDL_A1");
    EXPECT_EQ(take_calls(), std::string("unauthenticated IDL_A1\n") +
                                (expected.local ? std::string("remove ") + expected.ca + "\n" : ""));
}
INSTANTIATE_TEST_SUITE_P(, key_server_location,
                         testing::Values(location{"3", 7, "CA_mp3_IDL_A1_mp7_IDL_B2", true},
                                         location{"7", 3, "CA_mp3_IDL_B2_mp7_IDL_A1", false},
                                         location{"5", 5, "CA_mp5_IDL_B2_mp5_IDL_A1", false},
                                         location{"abc", 1, "CA_mp0_IDL_A1_mp1_IDL_B2", true},
                                         location{"3", 0xffffffff, "CA_mp3_IDL_A1_mp-1_IDL_B2", true},
                                         location{"-1", 7, "CA_mp7_IDL_B2_mp-1_IDL_A1", false}));

TEST_F(port_manager_test, a_failure_is_confirmed_once_and_tried_again_every_second) {
    client_.add("IDL_A1");
    take_calls();
    report("IDL_A1", failed);
    settle();
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_FAILED);
    EXPECT_EQ(client_.heard(), "ADDED_CFM 1 IDL_A1 oper 0 encryption 0\n");
    report("IDL_A1", succeeded); // too late, but how frames leave the port is taken note of
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_FAILED);
    advance(999);
    EXPECT_EQ(take_calls(), "");
    advance(1);
    EXPECT_EQ(take_calls(), add_ + secure_);
    report("IDL_A1", succeeded);
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_CA_JOINED);

    // Established, it falls back for any of three reasons.
    for (kay_state_change_ind lost : {kay_state_change_ind{true, true, KAY_CP_OPER_ENABLED, {}},
                                      kay_state_change_ind{false, false, KAY_CP_OPER_ENABLED, {}},
                                      kay_state_change_ind{false, true, KAY_CP_OPER_DISABLED, {}}}) {
        report("IDL_A1", lost);
        EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_FAILED);
        advance(1000);
        EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_CA_JOINING);
        report("IDL_A1", succeeded);
    }
    EXPECT_EQ(client_.heard(), "");
    EXPECT_EQ(oka::simulation::live().timers, 0u);

    fake.kay_fails_at_once = true;
    client_.add("IDL_B1");
    EXPECT_EQ(state("IDL_B1"), TAVU_PM_STATE_FAILED);
    EXPECT_EQ(client_.heard(), "ADDED_CFM 2 IDL_B1 oper 0 encryption 0\n");
    EXPECT_EQ(oka::simulation::live().timers, 1u);
}

TEST_F(port_manager_test, a_kay_that_has_nothing_to_report_is_asked) {
    // It fails again in the state in which it is already.
    fake.kay_now = failed;
    client_.add("IDL_A1");
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_FAILED);
    EXPECT_EQ(client_.heard(), "ADDED_CFM 1 IDL_A1 oper 0 encryption 0\n");
    advance(1000);
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_FAILED);
    // It is secured, and was so all the time.
    fake.kay_now = succeeded;
    client_.update("IDL_A1", OXMSI_LTM_LINK_STATUS_UP);
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_CA_JOINED);
    EXPECT_EQ(client_.heard(), "UPDATED_CFM 2 IDL_A1 oper 1 encryption 1\n");
    // In its CA, but no frame passes yet.
    report("IDL_A1", failed);
    fake.kay_now = {false, true, KAY_CP_OPER_DISABLED, MACSEC_ENCRYPTION_ENABLED};
    advance(1000);
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_CA_JOINING);
    report("IDL_A1", succeeded);
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_CA_JOINED);
    EXPECT_EQ(oka::simulation::live().timers, 0u);
}

TEST_F(port_manager_test, an_unauthenticated_role_can_fail_too) {
    const kay_state_change_ind usual = fake.unauthenticated;
    fake.unauthenticated = {true, true, KAY_CP_OPER_ENABLED, MACSEC_ENCRYPTION_ENABLED};
    client_.add("IDL_A1", OXMSI_LTM_LINK_STATUS_DOWN);
    EXPECT_EQ(take_calls(), "unauthenticated IDL_A1\n"); // and the CA is not touched
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_FAILED);
    EXPECT_EQ(client_.heard(), "ADDED_CFM 1 IDL_A1 oper 0 encryption 1\n");
    fake.unauthenticated = usual;
    advance(1000);
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_UNAUTHENTICATED);
}

TEST_F(port_manager_test, a_retry_that_is_late_changes_nothing) {
    client_.add("IDL_A1");
    report("IDL_A1", failed);
    oka::simulation::advance_ms(1000);
    oka::simulation::queue_due_timers();
    set_port("IDL_A1", 1, 1); // just before the expiry is received
    EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_CA_JOINING);
    take_calls();
    settle();
    EXPECT_EQ(take_calls(), "");
    // A link that goes takes the retry along.
    report("IDL_A1", failed);
    client_.remove("IDL_A1");
    EXPECT_EQ(oka::simulation::live().timers, 0u);
}

TEST_F(port_manager_test, a_new_request_first_ends_the_one_that_waits) {
    client_.add("IDL_A1");
    client_.add("IDL_B1");
    EXPECT_EQ(client_.heard(), "");
    client_.update("IDL_A1", OXMSI_LTM_LINK_STATUS_UP);
    EXPECT_EQ(client_.heard(), "ADDED_CFM 1 IDL_A1 oper 0 encryption 0\n");
    client_.remove("IDL_A1");
    EXPECT_EQ(client_.heard(),
              "UPDATED_CFM 3 IDL_A1 oper 0 encryption 0\nDELETED_CFM 4 IDL_A1 oper 1 encryption 0\n");
    report("IDL_B1", succeeded);
    settle();
    EXPECT_EQ(client_.heard(), "ADDED_CFM 2 IDL_B1 oper 1 encryption 1\n");
}

TEST_F(port_manager_test, an_update_changes_all_of_a_link_but_its_id_and_its_path) {
    client_.add("IDL_A1", OXMSI_LTM_LINK_STATUS_DOWN, OXMSI_DU_TYPE_3, 7, "unit-7");
    EXPECT_EQ(take_calls(), release_);
    client_.update("IDL_A1", OXMSI_LTM_LINK_STATUS_UP, OXMSI_DU_TYPE_3, 2);
    EXPECT_EQ(take_calls(), "secured IDL_A1 CA_mp2_IDL_B2_mp3_IDL_A1 unit-7/mka-key-server\n");
}

TEST_F(port_manager_test, requests_that_cannot_be_met_are_rejected_and_leave_the_port_as_it_is) {
    constexpr uint32_t up = OXMSI_LTM_LINK_STATUS_UP;
    uint32_t procedure = 1;
    auto expect = [&](const char* answer, uint32_t reason) {
        EXPECT_EQ(client_.heard(), std::string(answer) + " " + std::to_string(++procedure) + " reason " +
                                       std::to_string(reason) + "\n");
        EXPECT_EQ(take_calls(), "");
        EXPECT_EQ(state("IDL_A1"), TAVU_PM_STATE_CA_JOINED);
    };
    client_.add("IDL_A1");
    report("IDL_A1", succeeded);
    settle();
    client_.heard();
    take_calls();
    client_.add("IDL_A1", up, OXMSI_DU_TYPE_2, 1);
    expect("ADDED_REJ", 11);
    client_.update("IDL_A1", up, OXMSI_DU_TYPE_2, 1, 18);
    expect("UPDATED_REJ", 13);

    auto ports = std::exchange(fake.ports, {});
    for (const char* port : {"IDL_X", "IDL_B1"}) {
        client_.add(port);
        expect("ADDED_REJ", 10);
        client_.update(port, up);
        expect("UPDATED_REJ", 10);
        client_.remove(port);
        expect("DELETED_REJ", strcmp(port, "IDL_X") ? 13 : 10);
    }
    client_.remove("IDL_A1", 18);
    expect("DELETED_REJ", 13);
    client_.remove("IDL_A1");
    expect("DELETED_REJ", 10);

    fake.ports = ports;
    set_port("IDL_A1", 0, 0); // nothing of all that reached the names
    EXPECT_EQ(take_calls(), release_);
}

TEST_F(port_manager_test, the_loss_of_any_client_releases_every_port) {
    test::topology_manager second = connect("second");
    client_.subscribe("IDL_A1");
    second.subscribe("IDL_A1");
    second.add("IDL_A1");
    client_.heard();
    second.heard();
    take_calls();
    fake.ports.erase("IDL_B1"); // stays as it is, and does not keep the other

    client_.die();
    EXPECT_EQ(take_calls(), release_);
    // The pending link is not answered; the other client's subscriptions live on.
    EXPECT_EQ(second.heard(), "CHANGE_IND 1 IDL_A1 oper 1 encryption 0\n");

    // The count of the released link is stale; no request stumbles over it.
    second.remove("IDL_A1");
    second.remove("IDL_A1");
    EXPECT_EQ(second.heard(), "DELETED_CFM 3 IDL_A1 oper 1 encryption 0\nDELETED_REJ 4 reason 13\n");
    second.add("IDL_A1");
    take_calls();
    second.close();
    EXPECT_EQ(take_calls(), release_);
    test::topology_manager third = connect("third");
    third.add("IDL_A1");
    EXPECT_EQ(take_calls(), add_ + secure_);
    // It has the id of a client that is gone, and none of its subscriptions.
    third.subscribe("IDL_A1");
    EXPECT_EQ(third.heard(), "SUBSCRIBE_CFM 2\nCHANGE_IND 2 IDL_A1 oper 0 encryption 0\n");
}

TEST_F(port_manager_test, subscriptions_are_the_clients_own_and_at_most_32) {
    EXPECT_TRUE(tavu_pm_create_instance("IDL_A2"));
    client_.unsubscribe("IDL_A1");
    client_.subscribe("IDL_X");
    client_.subscribe("IDL_A1");
    client_.subscribe("IDL_A1");
    EXPECT_EQ(client_.heard(), "UNSUBSCRIBE_CFM 1\nSUBSCRIBE_REJ 2 reason 10\n"
                               "SUBSCRIBE_CFM 3\nCHANGE_IND 3 IDL_A1 oper 1 encryption 0\n"
                               "SUBSCRIBE_REJ 4 reason 8\n");

    std::vector<std::unique_ptr<test::topology_manager>> others;
    for (int index = 0; index < 11; index++) {
        others.push_back(std::make_unique<test::topology_manager>(("m" + std::to_string(index)).c_str(),
                                                                  service_, [this] { settle(); }));
        for (const char* port : {"IDL_A1", "IDL_B1", "IDL_A2"})
            others.back()->subscribe(port);
    }
    // 1 + 10 * 3 are taken: one more has room.
    EXPECT_EQ(others.back()->heard(), "SUBSCRIBE_CFM 1\nCHANGE_IND 1 IDL_A1 oper 1 encryption 0\n"
                                      "SUBSCRIBE_REJ 2 reason 9\nSUBSCRIBE_REJ 3 reason 9\n");
    client_.unsubscribe("IDL_A1");
    others.back()->subscribe("IDL_B1");
    EXPECT_EQ(others.back()->heard(), "SUBSCRIBE_CFM 4\nCHANGE_IND 4 IDL_B1 oper 1 encryption 0\n");
}

TEST_F(port_manager_test, stops_with_every_port_unauthenticated_and_can_start_again) {
    client_.subscribe("IDL_A1");
    client_.add("IDL_A1");
    client_.add("IDL_B1");
    report("IDL_B1", failed);
    take_calls();
    EXPECT_TRUE(tavu_pm_stop());
    EXPECT_EQ(take_calls(), "unauthenticated IDL_B1\nunauthenticated IDL_A1\nstop\n"); // the newest first
    EXPECT_EQ(oka::simulation::live().timers, 0u);

    EXPECT_TRUE(tavu_pm_start());
    EXPECT_TRUE(tavu_pm_create_instance("IDL_A1"));
    client_.subscribe("IDL_A1"); // nobody is subscribed any more
    EXPECT_TRUE(client_.heard().ends_with("ADDED_CFM 2 IDL_A1 oper 1 encryption 0\n"
                                          "SUBSCRIBE_CFM 4\nCHANGE_IND 4 IDL_A1 oper 1 encryption 0\n"));
    EXPECT_TRUE(tavu_pm_stop());
    EXPECT_TRUE(oxmsi_server_stop());
    client_.die();
    expect_nothing_left();
}

TEST_F(port_manager_test, creates_a_port_once_and_only_with_its_kay) {
    EXPECT_FALSE(tavu_pm_create_instance("IDL_A1"));
    fake.kay_create = false;
    EXPECT_FALSE(tavu_pm_create_instance("IDL_A2"));
    tavu_pm_state state;
    EXPECT_FALSE(get_tavu_pm_state("IDL_A2", state));
    // A port whose first role fails is there all the same, and is not tried again by itself.
    fake.kay_create = true;
    fake.kay_connect = false;
    EXPECT_FALSE(tavu_pm_create_instance("IDL_A2"));
    EXPECT_TRUE(get_tavu_pm_state("IDL_A2", state));
    EXPECT_EQ(oka::simulation::live().timers, 0u);
}

TEST(port_manager_start_up, needs_an_mp_id) {
    unsetenv("MPID");
    EXPECT_FALSE(tavu_pm_init(1));
}

} // namespace
