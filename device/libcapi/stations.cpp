// Stations and how they roam, the mesh, and vendor-specific elements.
#include "exchange.h"

using namespace arvok::capi;

int qzcap_wifi_deassociation(const char *const *macs, unsigned int count, char **errtext) {
    return perform(call_of("qzcap_wifi_deassociation"), Arguments().texts("macs", macs, count), errtext);
}

int qzcap_start_rssi_query(const qzcap_rssi_query *record, char **errtext) {
    return perform(call_of("qzcap_start_rssi_query"), Arguments().record(rssi_query, record), errtext);
}

int qzcap_bss_transition(const qzcap_bsstransition *record, char **errtext) {
    return perform(call_of("qzcap_bss_transition"), Arguments().record(bsstransition, record), errtext);
}

qzcap_roaming *qzcap_get_roaming() {
    return fetch<qzcap_roaming>(call_of("qzcap_get_roaming"), roaming, {});
}

void qzcap_free_roaming(qzcap_roaming *record) {
    free_record(roaming, record);
}

int qzcap_set_roaming(const qzcap_roaming *record, char **errtext) {
    return perform(call_of("qzcap_set_roaming"), Arguments().record(roaming, record), errtext);
}

qzcap_mesh *qzcap_get_mesh() {
    return fetch<qzcap_mesh>(call_of("qzcap_get_mesh"), mesh, {});
}

void qzcap_free_mesh(qzcap_mesh *record) {
    free_record(mesh, record);
}

qzcap_backhaulbss *qzcap_mesh_backhaulbss() {
    return fetch<qzcap_backhaulbss>(call_of("qzcap_mesh_backhaulbss"), backhaulbss, {});
}

void qzcap_free_backhaulbss(qzcap_backhaulbss *record) {
    free_record(backhaulbss, record);
}

char *qzcap_mesh_topo(int) {
    return fetch_text(call_of("qzcap_mesh_topo"), {}, nullptr);
}

int qzcap_set_mesh_role(const char *role, char **errtext) {
    return perform(call_of("qzcap_set_mesh_role"), Arguments().text("role", role), errtext);
}

qzcap_roaming *qzcap_get_mesh_roaming() {
    return fetch<qzcap_roaming>(call_of("qzcap_get_mesh_roaming"), roaming, {});
}

int qzcap_set_mesh_roaming(const qzcap_roaming *record, char **errtext) {
    return perform(call_of("qzcap_set_mesh_roaming"), Arguments().record(roaming, record), errtext);
}

int qzcap_add_vsie_beacontx(const qzcap_vsie_beacontx *record, char **errtext) {
    return perform_for_value(call_of("qzcap_add_vsie_beacontx"), Arguments().record(vsie_beacontx, record),
                             errtext);
}

int qzcap_vsie_beacontx_action(int index, const char *action, char **errtext) {
    return perform(call_of("qzcap_vsie_beacontx_action"),
                   Arguments().number("index", index).text("action", action), errtext);
}

int qzcap_delete_vsie_beacontx_by_name(const char *name, char **errtext) {
    return perform(call_of("qzcap_delete_vsie_beacontx_by_name"), Arguments().text("name", name), errtext);
}

int qzcap_add_vsie_proberesp(const qzcap_vsie_proberesp *record, char **errtext) {
    return perform(call_of("qzcap_add_vsie_proberesp"), Arguments().record(vsie_proberesp, record), errtext);
}
