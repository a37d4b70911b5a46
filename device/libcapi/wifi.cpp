// Radios, switches, the schedule, what the radios hear, and access-point interfaces.
#include "exchange.h"

using namespace arvok::capi;

namespace {

/// An access-point interface is named by its band and its index.
Arguments &at_interface(Arguments &&arguments, int band, uint32_t index) {
    return arguments.number("band", band).number("index", index);
}

}  // namespace

qzcap_wifiinfo *qzcap_get_wifiinfo(int band) {
    return fetch<qzcap_wifiinfo>(call_of("qzcap_get_wifiinfo"), wifiinfo, Arguments().number("band", band));
}

void qzcap_free_wifiinfo(qzcap_wifiinfo *record) {
    free_record(wifiinfo, record);
}

int qzcap_set_wifiinfo_async(int band, const qzcap_wifiinfo *record, int) {
    return perform(call_of("qzcap_set_wifiinfo_async"),
                   Arguments().number("band", band).record(wifiinfo, record), nullptr);
}

qzcap_wifi_switch *qzcap_get_wifi_switch() {
    return fetch<qzcap_wifi_switch>(call_of("qzcap_get_wifi_switch"), wifi_switch, {});
}

void qzcap_free_wifi_switch(qzcap_wifi_switch *record) {
    free_record(wifi_switch, record);
}

int qzcap_wifi_timer_list(unsigned int *count, qzcap_wifi_timer ***list) {
    return fetch_list(call_of("qzcap_wifi_timer_list"), wifi_timer, {}, count, list);
}

void qzcap_free_wifi_timers(unsigned int count, qzcap_wifi_timer **list) {
    free_list(wifi_timer, count, list);
}

int qzcap_wifi_timer_add(const qzcap_wifi_timer *record, char **errtext) {
    return perform(call_of("qzcap_wifi_timer_add"), Arguments().record(wifi_timer, record), errtext);
}

int qzcap_wifi_timer_set(uint32_t id, const qzcap_wifi_timer *record, char **errtext) {
    return perform(call_of("qzcap_wifi_timer_set"), Arguments().number("id", id).record(wifi_timer, record),
                   errtext);
}

int qzcap_wifi_timer_delete(uint32_t id, char **errtext) {
    return perform(call_of("qzcap_wifi_timer_delete"), Arguments().number("id", id), errtext);
}

int qzcap_get_neighbourinfo(unsigned int *count, qzcap_neighbourinfo ***list) {
    return fetch_list(call_of("qzcap_get_neighbourinfo"), neighbourinfo, {}, count, list);
}

void qzcap_free_neighbourinfo(unsigned int count, qzcap_neighbourinfo **list) {
    free_list(neighbourinfo, count, list);
}

int qzcap_get_channel_score(int band, unsigned int *count, qzcap_channel_score ***list) {
    return fetch_list(call_of("qzcap_get_channel_score"), channel_score, Arguments().number("band", band),
                      count, list);
}

void qzcap_free_channel_score(unsigned int count, qzcap_channel_score **list) {
    free_list(channel_score, count, list);
}

int qzcap_wifi_channelscan(char **errtext) {
    return perform(call_of("qzcap_wifi_channelscan"), {}, errtext);
}

int qzcap_wifi_ap_list(int band, unsigned int *count, qzcap_wifi_ap ***list) {
    return fetch_list(call_of("qzcap_wifi_ap_list"), wifi_ap, Arguments().number("band", band), count, list);
}

void qzcap_free_wifi_aps(unsigned int count, qzcap_wifi_ap **list) {
    free_list(wifi_ap, count, list);
}

qzcap_wifi_ap *qzcap_wifi_ap_get(int band, uint32_t index) {
    return fetch<qzcap_wifi_ap>(call_of("qzcap_wifi_ap_get"), wifi_ap, at_interface({}, band, index));
}

void qzcap_free_wifi_ap(qzcap_wifi_ap *record) {
    free_record(wifi_ap, record);
}

int qzcap_wifi_ap_set(int band, uint32_t index, const qzcap_wifi_ap *record, char **errtext) {
    return perform(call_of("qzcap_wifi_ap_set"), at_interface({}, band, index).record(wifi_ap, record),
                   errtext);
}

int qzcap_wifi_ap_set_async(int band, uint32_t index, const qzcap_wifi_ap *record, int, char **errtext) {
    return perform(call_of("qzcap_wifi_ap_set_async"), at_interface({}, band, index).record(wifi_ap, record),
                   errtext);
}

int qzcap_wifi_ap_add(int band, const qzcap_wifi_ap *record, char **errtext) {
    return perform_for_value(call_of("qzcap_wifi_ap_add"),
                             Arguments().number("band", band).record(wifi_ap, record), errtext);
}

int qzcap_wifi_ap_delete(int band, uint32_t index, char **errtext) {
    return perform(call_of("qzcap_wifi_ap_delete"), at_interface({}, band, index), errtext);
}

qzcap_wifi_apstat *qzcap_wifi_ap_stats(int band, uint32_t index) {
    return fetch<qzcap_wifi_apstat>(call_of("qzcap_wifi_ap_stats"), wifi_apstat,
                                    at_interface({}, band, index));
}

void qzcap_free_wifi_apstat(qzcap_wifi_apstat *record) {
    free_record(wifi_apstat, record);
}
