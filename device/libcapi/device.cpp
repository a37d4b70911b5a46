// The device itself, its WAN, its LAN hosts and its cloud servers.
#include "exchange.h"

using namespace arvok::capi;

qzcap_devinfo *qzcap_get_devinfo() {
    return fetch<qzcap_devinfo>(call_of("qzcap_get_devinfo"), devinfo, {});
}

void qzcap_free_devinfo(qzcap_devinfo *record) {
    free_record(devinfo, record);
}

qzcap_diagnostics *qzcap_diagnostics_get() {
    return fetch<qzcap_diagnostics>(call_of("qzcap_diagnostics_get"), diagnostics, {});
}

void qzcap_free_diagnostics(qzcap_diagnostics *record) {
    free_record(diagnostics, record);
}

qzcap_netstatinfo *qzcap_diagnostics_netstat() {
    return fetch<qzcap_netstatinfo>(call_of("qzcap_diagnostics_netstat"), netstatinfo, {});
}

void qzcap_free_netstatinfo(qzcap_netstatinfo *record) {
    free_record(netstatinfo, record);
}

qzcap_terminalnum *qzcap_get_terminalnum() {
    return fetch<qzcap_terminalnum>(call_of("qzcap_get_terminalnum"), terminalnum, {});
}

void qzcap_free_terminalnum(qzcap_terminalnum *record) {
    free_record(terminalnum, record);
}

char *qzcap_get_led_switch() {
    return fetch_text(call_of("qzcap_get_led_switch"), {}, nullptr);
}

int qzcap_set_led_switch(const char *status, char **errtext) {
    return perform(call_of("qzcap_set_led_switch"), Arguments().text("status", status), errtext);
}

int qzcap_set_iptv(const qzcap_iptv *record, char **errtext) {
    return perform(call_of("qzcap_set_iptv"), Arguments().record(iptv, record), errtext);
}

int qzcap_set_workmode(const char *mode, char **errtext) {
    return perform(call_of("qzcap_set_workmode"), Arguments().text("mode", mode), errtext);
}

int qzcap_reset() {
    return perform(call_of("qzcap_reset"), {}, nullptr);
}

int qzcap_reboot() {
    return perform(call_of("qzcap_reboot"), {}, nullptr);
}

int qzcap_upgrade(const char *url, uint32_t size, const char *chksum, char **errtext) {
    return perform(call_of("qzcap_upgrade"),
                   Arguments().text("url", url).number("size", size).text("chksum", chksum), errtext);
}

qzcap_serverinfo *qzcap_get_serverinfo() {
    return fetch<qzcap_serverinfo>(call_of("qzcap_get_serverinfo"), serverinfo, {});
}

void qzcap_free_serverinfo(qzcap_serverinfo *record) {
    free_record(serverinfo, record);
}

int qzcap_set_serverinfo(const qzcap_serverinfo *record, char **errtext) {
    return perform(call_of("qzcap_set_serverinfo"), Arguments().record(serverinfo, record), errtext);
}

qzcap_waninfo *qzcap_get_waninfo() {
    return fetch<qzcap_waninfo>(call_of("qzcap_get_waninfo"), waninfo, {});
}

void qzcap_free_waninfo(qzcap_waninfo *record) {
    free_record(waninfo, record);
}

int qzcap_list_laninfo(unsigned int *count, qzcap_laninfo ***list) {
    return fetch_list(call_of("qzcap_list_laninfo"), laninfo, {}, count, list);
}

void qzcap_free_laninfos(unsigned int count, qzcap_laninfo **list) {
    free_list(laninfo, count, list);
}

int qzcap_set_laninfo(uint32_t index, const qzcap_laninfo *record, char **errtext) {
    return perform(call_of("qzcap_set_laninfo"), Arguments().number("index", index).record(laninfo, record),
                   errtext);
}

int qzcap_set_blacklist(const char *enable, const char *const *macs, unsigned int count, char **errtext) {
    return perform(call_of("qzcap_set_blacklist"),
                   Arguments().text("enable", enable).texts("macs", macs, count), errtext);
}
