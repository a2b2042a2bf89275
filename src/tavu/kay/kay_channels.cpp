#include "tavu/kay/kay_channels.h"

#include "tavu/common/tavu_utils.h"
#include "tavu/kay/kay_secy.h"

namespace tavu::kay_internal {

namespace {

bool parse_cipher_suite(uint32_t value, mka_cipher& cipher) {
    TAVU_FUNCTION();
    if (value != MKA_CIPHER_NULL && !find_cipher_suite(value)) {
        TRACE_ERROR("TAVU: Invalid mka_macsec_cipher value: %u", value);
        return false;
    }
    cipher = static_cast<mka_cipher>(value);
    return true;
}

// Without encryption any length will do.
bool verify_sak_len(uint32_t length, mka_cipher cipher) {
    TAVU_FUNCTION();
    const cipher_suite* suite = find_cipher_suite(cipher);
    if (!suite || length == suite->sak_len)
        return true;
    TRACE_ERROR("TAVU: Invalid SAK length for cipher '%s': actual %u, expected %u", cipher_to_str(cipher),
                length, suite->sak_len);
    return false;
}

// A port keeps the first cipher suite that was accepted for as long as its KaY lives.
bool update_cipher(kay_record& kay, mka_cipher cipher) {
    TAVU_FUNCTION();
    if (kay.cipher_set) {
        if (kay.cipher == cipher)
            return true;
        TRACE_ERROR("TAVU: Changing cipher suite on port '%s' is not supported: old cipher suite = '%s', new "
                    "cipher suite = '%s'",
                    kay.port.c_str(), cipher_to_str(kay.cipher), cipher_to_str(cipher));
        return false;
    }
    if (!kay_secy_is_cipher_supported(kay, kay.standard, cipher)) {
        TRACE_ERROR("TAVU: Cipher suite '%s' is not supported on port '%s'", cipher_to_str(cipher),
                    kay.port.c_str());
        return false;
    }
    kay.cipher = cipher;
    kay.cipher_set = true;
    TRACE("TAVU: Setting cipher suite the first time on port '%s': cipher suite = '%s'", kay.port.c_str(),
          cipher_to_str(cipher));
    return true;
}

template<class Channel>
Channel* create_sc(const kay_record& kay, record_list<Channel>& channels, const sci& identifier,
                   bool (*install)(const kay_record&, const Channel&)) {
    Channel* sc = channels.add();
    if (!sc)
        return nullptr;
    sc->identifier = identifier;
    sci_to_str1(sc->sci_text, identifier);
    if (install(kay, *sc))
        return sc;
    channels.remove(*sc);
    return nullptr;
}

template<class Association, class Install>
Association* create_sa(kay_record& kay, record_list<Association>& associations,
                       const mka_create_sa_rreq& request, Install install) {
    uint8_t an;
    mka_cipher cipher;
    if (!parse_an(request.an, an) || !parse_cipher_suite(request.cipher_suite, cipher) ||
        !verify_sak_len(request.sak_len, cipher))
        return nullptr;
    Association* sa = associations.add();
    if (!sa)
        return nullptr;
    sa->an = an;
    sa->cipher = cipher;
    sa->key_name.assign(request.key_name);
    if (update_cipher(kay, cipher) && install(*sa, oxhal_macsec_key{request.sak(), request.sak_len}))
        return sa;
    associations.remove(*sa);
    return nullptr;
}

// Deletes all, the newest first. A record that the SecY refuses to delete does not stop the others.
template<class Record, class Delete>
bool delete_each(record_list<Record>& records, Delete delete_record) {
    bool deleted = true;
    while (Record* newest = records.first()) {
        if (!delete_record(*newest))
            deleted = false;
    }
    return deleted;
}

} // namespace

bool parse_an(uint32_t value, uint8_t& an) {
    TAVU_FUNCTION();
    if (value > UINT8_MAX) {
        TRACE_ERROR("TAVU: Invalid AN value: %u", value);
        return false;
    }
    an = static_cast<uint8_t>(value);
    return true;
}

tx_sc* create_tx_sc(kay_record& kay, const sci& identifier) {
    TAVU_FUNCTION();
    return create_sc(kay, kay.tx_scs, identifier, kay_secy_create_tx_sc);
}

rx_sc* create_rx_sc(kay_record& kay, const sci& identifier) {
    TAVU_FUNCTION();
    return create_sc(kay, kay.rx_scs, identifier, kay_secy_create_rx_sc);
}

tx_sa* create_tx_sa(kay_record& kay, tx_sc& sc, const mka_create_sa_rreq& request) {
    TAVU_FUNCTION();
    return create_sa(kay, sc.associations, request, [&](const tx_sa& sa, const oxhal_macsec_key& key) {
        return kay_secy_create_enable_tx_sa(kay, sc, sa, request.packet_number, sa.cipher != MKA_CIPHER_NULL,
                                            key);
    });
}

rx_sa* create_rx_sa(kay_record& kay, rx_sc& sc, const mka_create_sa_rreq& request) {
    TAVU_FUNCTION();
    return create_sa(kay, sc.associations, request, [&](const rx_sa& sa, const oxhal_macsec_key& key) {
        return kay_secy_create_enable_rx_sa(kay, sc, sa, request.packet_number, key);
    });
}

void cancel_disposal_timer(rx_sa& sa) {
    if (sa.disposal_timer == 0)
        return;
    oka_timer_cancel(sa.disposal_timer);
    sa.disposal_timer = 0;
}

bool delete_tx_sa(const kay_record& kay, tx_sc& sc, tx_sa& sa) {
    TAVU_FUNCTION();
    TRACE("TAVU: Deleting %s", object_name(kay, sc, sa.an).c_str());
    bool deleted = kay_secy_delete_tx_sa(kay, sc, sa);
    sc.associations.remove(sa);
    return deleted;
}

bool delete_rx_sa(const kay_record& kay, rx_sc& sc, rx_sa& sa) {
    TAVU_FUNCTION();
    const object_name name(kay, sc, sa.an);
    TRACE("TAVU: Deleting %s", name.c_str());
    cancel_disposal_timer(sa);
    bool deleted = kay_secy_delete_rx_sa(kay, sc, sa);
    sc.associations.remove(sa);
    TRACE("TAVU: Deleted %s", name.c_str());
    return deleted;
}

bool delete_all_tx_sa(const kay_record& kay, tx_sc& sc) {
    TAVU_FUNCTION();
    TRACE("TAVU: Deleting all TX SAs for %s", object_name(kay, sc).c_str());
    return delete_each(sc.associations, [&](tx_sa& sa) { return delete_tx_sa(kay, sc, sa); });
}

bool delete_all_rx_sa(const kay_record& kay, rx_sc& sc) {
    TAVU_FUNCTION();
    TRACE("TAVU: Deleting all RX SAs for %s", object_name(kay, sc).c_str());
    return delete_each(sc.associations, [&](rx_sa& sa) { return delete_rx_sa(kay, sc, sa); });
}

bool delete_tx_sc(kay_record& kay, tx_sc& sc) {
    TAVU_FUNCTION();
    bool associations_deleted = delete_all_tx_sa(kay, sc);
    bool deleted = kay_secy_delete_tx_sc(kay, sc);
    kay.tx_scs.remove(sc);
    return associations_deleted && deleted;
}

bool delete_rx_sc(kay_record& kay, rx_sc& sc) {
    TAVU_FUNCTION();
    bool associations_deleted = delete_all_rx_sa(kay, sc);
    bool deleted = kay_secy_delete_rx_sc(kay, sc);
    kay.rx_scs.remove(sc);
    return associations_deleted && deleted;
}

bool delete_all_tx_sc(kay_record& kay) {
    TAVU_FUNCTION();
    TRACE("TAVU: Deleting all TX SCs for KaY on port '%s'", kay.port.c_str());
    return delete_each(kay.tx_scs, [&](tx_sc& sc) { return delete_tx_sc(kay, sc); });
}

bool delete_all_rx_sc(kay_record& kay) {
    TAVU_FUNCTION();
    TRACE("TAVU: Deleting all RX SCs for KaY on port '%s'", kay.port.c_str());
    return delete_each(kay.rx_scs, [&](rx_sc& sc) { return delete_rx_sc(kay, sc); });
}

} // namespace tavu::kay_internal
