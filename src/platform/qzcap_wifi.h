/// Part of the platform capability library, whose rules qzcap.h tells: radios, access points, stations and
/// what they send.
#ifndef ARVOK_QZCAP_WIFI_H
#define ARVOK_QZCAP_WIFI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- radios ---- */

/// Band codes: of the radio calls, and of the access-point calls.
enum qzcap_band {
    QZCAP_RADIO_2G = 8,
    QZCAP_RADIO_5G = 9,
    QZCAP_AP_2G = 10,
    QZCAP_AP_5G = 11,
};

/// One radio.
struct qzcap_wifiinfo {
    char *enable;             ///< "yes" or "no"
    int32_t channel;          ///< as set; 0: automatic
    int32_t current_channel;  ///< in use
    char *txpower;
    char *load;
    uint32_t bandwidth;  ///< code: 0 "20", 1 "40", 2 automatic, 3 "80", 4 "160", 5 "80+80"
    char *wifimode;
    char *supported_modes;
    char *supported_auth;
};

/// The three switches, each "on" or "off".
struct qzcap_wifi_switch {
    char *wifiswitch;
    char *wpsswitch;
    char *arvoksync;
};

/// One entry of the Wi-Fi schedule.
struct qzcap_wifi_timer {
    uint32_t id;
    char *weekday;
    char *time;
    char *enable;  ///< "yes" or "no"
};

/// One network heard nearby.
struct qzcap_neighbourinfo {
    char *rfband;
    char *ssidname;
    char *bssid;
    char *networktype;
    uint32_t channel;
    int32_t rssi;
    uint32_t bandwidth;  ///< code as in qzcap_wifiinfo
    char *standard;
};

/// How well one channel is usable.
struct qzcap_channel_score {
    uint32_t channel;
    uint32_t score;
};

/// The radio of `band` (QZCAP_RADIO_*).
struct qzcap_wifiinfo *qzcap_get_wifiinfo(int band);
void qzcap_free_wifiinfo(struct qzcap_wifiinfo *record);
/// Hands new settings to a radio and does not wait for its restart. Sets enable, channel, txpower, bandwidth
/// and wifimode (a null text leaves its setting); the other fields are ignored. `flags` is 0.
int qzcap_set_wifiinfo_async(int band, const struct qzcap_wifiinfo *record, int flags);
/// Reads the three switches. They are set with method "set" of the bus object "qzcapd.wifi".
struct qzcap_wifi_switch *qzcap_get_wifi_switch(void);
void qzcap_free_wifi_switch(struct qzcap_wifi_switch *record);
int qzcap_wifi_timer_list(unsigned int *count, struct qzcap_wifi_timer ***list);
void qzcap_free_wifi_timers(unsigned int count, struct qzcap_wifi_timer **list);
/// Adds an entry; the platform chooses its id.
int qzcap_wifi_timer_add(const struct qzcap_wifi_timer *record, char **errtext);
/// Replaces the entry `id`.
int qzcap_wifi_timer_set(uint32_t id, const struct qzcap_wifi_timer *record, char **errtext);
int qzcap_wifi_timer_delete(uint32_t id, char **errtext);
int qzcap_get_neighbourinfo(unsigned int *count, struct qzcap_neighbourinfo ***list);
void qzcap_free_neighbourinfo(unsigned int count, struct qzcap_neighbourinfo **list);
/// The scores of the channels of `band` (QZCAP_RADIO_*).
int qzcap_get_channel_score(int band, unsigned int *count, struct qzcap_channel_score ***list);
void qzcap_free_channel_score(unsigned int count, struct qzcap_channel_score **list);
/// Starts a scan of the channels; its results appear as neighbours and scores.
int qzcap_wifi_channelscan(char **errtext);

/* ---- access points ---- */

/// One access-point interface of a radio.
struct qzcap_wifi_ap {
    uint32_t index;  ///< from 1; 1 is the main interface
    uint32_t hidden;
    char *encrypt;
    char *auth;
    char *key;
    char *ssid;
    char *enable;  ///< "yes" or "no"
    char *bssid;
    uint32_t inuse;  ///< 0: free for a new network; 1 once enabled
    uint32_t guest;  ///< 1: guest network
};

/// Traffic of one access-point interface. The first four are decimal texts.
struct qzcap_wifi_apstat {
    char *bytessent;
    char *bytesreceived;
    char *packetssent;
    char *packetsreceived;
    uint32_t errorsreceived;
    uint32_t errorssent;
    uint32_t discardsent;
    uint32_t discardreceived;
};

/// The interfaces of `band` (QZCAP_AP_*, as in all calls of this group).
int qzcap_wifi_ap_list(int band, unsigned int *count, struct qzcap_wifi_ap ***list);
void qzcap_free_wifi_aps(unsigned int count, struct qzcap_wifi_ap **list);
struct qzcap_wifi_ap *qzcap_wifi_ap_get(int band, uint32_t index);
void qzcap_free_wifi_ap(struct qzcap_wifi_ap *record);
/// Sets an interface: every non-null text, hidden and guest. index, bssid and inuse are the platform's.
int qzcap_wifi_ap_set(int band, uint32_t index, const struct qzcap_wifi_ap *record, char **errtext);
/// The same without waiting for the radio to restart. `flags` is 0.
int qzcap_wifi_ap_set_async(int band, uint32_t index, const struct qzcap_wifi_ap *record, int flags,
                            char **errtext);
/// Adds an interface and returns its index; below 1 on failure.
int qzcap_wifi_ap_add(int band, const struct qzcap_wifi_ap *record, char **errtext);
int qzcap_wifi_ap_delete(int band, uint32_t index, char **errtext);
struct qzcap_wifi_apstat *qzcap_wifi_ap_stats(int band, uint32_t index);
void qzcap_free_wifi_apstat(struct qzcap_wifi_apstat *record);

/* ---- stations ---- */

/// Asks the radios to measure how they hear a station.
struct qzcap_rssi_query {
    char *mac;
    char *band;  ///< "2.4G" or "5G"
    uint32_t channel;
    uint32_t duration;  ///< milliseconds
};

/// Asks a station to move to another access point.
struct qzcap_bsstransition {
    char *mac;
    char *bssid;  ///< the target
    uint32_t channel;
    uint32_t timeout;  ///< seconds until the station is disconnected; 0: never
};

/// When stations are made to roam.
struct qzcap_roaming {
    char *enable;  ///< "yes" or "no"
    int32_t rssi_2g;
    int32_t rssi_5g;
    uint32_t difference;  ///< dB by which the target must be better
    uint32_t interval;    ///< seconds
};

/// Disconnects stations.
int qzcap_wifi_deassociation(const char *const *macs, unsigned int count, char **errtext);
/// Starts a query; its result comes as the notification "aprssi" {"mac", "rssi"} of the roaming object.
int qzcap_start_rssi_query(const struct qzcap_rssi_query *record, char **errtext);
int qzcap_bss_transition(const struct qzcap_bsstransition *record, char **errtext);
struct qzcap_roaming *qzcap_get_roaming(void);
void qzcap_free_roaming(struct qzcap_roaming *record);
int qzcap_set_roaming(const struct qzcap_roaming *record, char **errtext);

/* ---- vendor-specific elements ---- */

/// An element sent in beacons.
struct qzcap_vsie_beacontx {
    char *name;  ///< the owner
    uint32_t flag;
    uint32_t lifetime;  ///< seconds
    unsigned char *data;
    uint32_t length;
};

/// An element sent in probe responses to one station.
struct qzcap_vsie_proberesp {
    char *mac;
    uint32_t flag;
    unsigned char *data;
    uint32_t length;
};

/// Registers an element, not yet sent, and returns its index.
int qzcap_add_vsie_beacontx(const struct qzcap_vsie_beacontx *record, char **errtext);
/// "start" or "stop" sending the element `index`.
int qzcap_vsie_beacontx_action(int index, const char *action, char **errtext);
/// Removes all elements of an owner; having none is a success.
int qzcap_delete_vsie_beacontx_by_name(const char *name, char **errtext);
int qzcap_add_vsie_proberesp(const struct qzcap_vsie_proberesp *record, char **errtext);

#ifdef __cplusplus
}
#endif

#endif
