/// The platform capability library: the device's records, settings and actions as C calls.
///
/// Every call is one bounded exchange with the platform daemons over the bus and may be made from the loop
/// thread only. Three rules hold throughout, and the comments below name only what departs from them:
///
/// - A record that a call returns belongs to the caller and is released with the `qzcap_free_*` of its kind;
///   null means failure. Every release call takes null. Texts inside a record are allocated by the library
///   (qzcap_strdup, qzcap_free) and may be replaced in place; a text that the platform does not know is null.
/// - A call that returns int gives a negative number on failure and 0 or more on success. Lists come through
///   two out-parameters, count first; on failure both are left untouched.
/// - `errtext`, where it exists, may be null. On failure it receives a text that says why, or null; the
/// caller
///   releases it with qzcap_free. On success it is set to null. Records passed in are only read.
///
/// Fields that the platform fills but nobody here reads keep their place under the name `reserved<n>`, so
/// that the n-th member is the platform's field n.
#ifndef ARVOK_QZCAP_H
#define ARVOK_QZCAP_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#include <libubox/blobmsg.h>
#include <libubus.h>

/* ---- bus session ----------------------------------------------------------------------------------------
 */

/// Numbers of the platform objects that send notifications.
enum qzcap_object {
    QZCAP_OBJ_LANINFO = 5,
    QZCAP_OBJ_WAN = 6,
    QZCAP_OBJ_WIFI = 7,
    QZCAP_OBJ_MESH = 15,
    QZCAP_OBJ_ROAMING = 16,
    QZCAP_OBJ_VSIE = 30,
};

/// Connects to the bus ($UBUS_SOCKET, else the bus library's default) and prepares the loop, which ends when
/// the bus goes away. Returns 0, or non-zero with nothing left behind when the bus is missing. `flags` is 0.
int qzcap_ubus_start(int flags);
/// Ends the session and releases everything it holds; harmless without a session.
void qzcap_ubus_done(void);
/// The session's bus context; null without a session. Stays the library's.
struct ubus_context *qzcap_get_ubus_context(void);
/// The bus id of a platform object by its number (enum qzcap_object); 0 when unknown or absent from the bus.
uint32_t qzcap_get_objid_by_id(int number);
/// The bus id of a bus object by its name; 0 when absent from the bus.
uint32_t qzcap_get_objid_by_name(const char *name);
/// Registers the subscriber (its `cb` must be set) and subscribes it to the object `id`.
int qzcap_ubus_subscribe(struct ubus_subscriber *subscriber, uint32_t id);
/// Ends the subscription to `id` and unregisters the subscriber, also when `id` is not subscribed or is gone.
int qzcap_ubus_unsubscribe(struct ubus_subscriber *subscriber, uint32_t id);
/// The library's shared message buffer; valid until the next call that is given or uses it.
struct blob_buf *qzcap_get_blob_buf(void);
/// A ubus_data_handler_t that stores the answer as compact JSON text in *(char **)req->priv, which starts as
/// null; the caller releases it with qzcap_free.
void qzcap_data_cb(struct ubus_request *req, int type, struct blob_attr *msg);
/// The same, storing a copy of the answer itself in *(struct blob_attr **)req->priv, for
/// blobmsg_format_json_with_cb(answer, true, ...).
void qzcap_data_blob_cb(struct ubus_request *req, int type, struct blob_attr *msg);
/// Reads {"result": n, "failreason": "..."}. Returns 0 when `result` is 0; otherwise, also for a null or
/// malformed reply, non-zero with *reason set to a text that the caller releases with qzcap_free.
int qzcap_parse_result_and_failreason(const char *reply, char **reason);

/* ---- memory and log -------------------------------------------------------------------------------------
 */

/// Zeroed memory from the allocator that all records and texts use; null when exhausted or when the product
/// overflows.
void *qzcap_calloc(size_t count, size_t size);
/// A copy of `text`; null for null or when memory is exhausted.
char *qzcap_strdup(const char *text);
/// Releases memory of qzcap_calloc, qzcap_strdup or malloc; null is allowed.
void qzcap_free(void *memory);
/// Writes to the process's log (standard error), unbuffered, each call in one write. A line starts with its
/// local time; a text without a line feed leaves its line open for the next call.
void qzcap_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* ---- apps -----------------------------------------------------------------------------------------------
 */

/// What an app lets the app manager call. Each slot has the form of a bus method handler; null: not offered.
struct qzcap_appmgtcb {
    ubus_handler_t start;
    ubus_handler_t stop;
    ubus_handler_t postmsg;  ///< delivery of a message from another app
    ubus_handler_t restore;
};

/// One installed app.
struct qzcap_app {
    char *name;
    char *version;
    char *state;  ///< "running" or "stopped"
};

/// Called once when an installation has ended, with {"result", "failreason", "name", "version"} or a null
/// message when the platform never answered; `req->priv` is the `priv` given to qzcap_install_app.
typedef void (*qzcap_install_handler_t)(struct ubus_request *req, struct blob_attr *msg);

/// Publishes this process as an app (bus object "qzapp." and the program's name). `owner` is null or kept for
/// the caller; `callbacks` must outlive the registration. Null on failure.
void *qzcap_register_appmgtcb(void *owner, const struct qzcap_appmgtcb *callbacks);
/// Withdraws the app; null is allowed.
void qzcap_unregister_appmgtcb(void *handle);
/// Starts an installation; the result comes later through `done`, from the loop.
int qzcap_install_app(struct ubus_context *ctx, const char *url, qzcap_install_handler_t done, void *priv);
/// Removes an app. This call and the next three give non-zero on failure.
int qzcap_uninstall_app(struct ubus_context *ctx, const char *name, char **errtext);
/// Starts an app.
int qzcap_run_app(struct ubus_context *ctx, const char *name, char **errtext);
/// Stops an app.
int qzcap_stop_app(struct ubus_context *ctx, const char *name, char **errtext);
/// Returns an app to the state in which it was installed.
int qzcap_restore_app(struct ubus_context *ctx, const char *name, char **errtext);
/// Lists the installed apps.
int qzcap_get_applist(struct ubus_context *ctx, unsigned int *count, struct qzcap_app ***list);
void qzcap_free_applist(unsigned int count, struct qzcap_app **list);
/// Hands the JSON text `message` to an app and returns its answer as JSON text (release with qzcap_free), or
/// null.
char *qzcap_app_postmsg(struct ubus_context *ctx, const char *name, const char *message, char **errtext);

/* ---- device ---------------------------------------------------------------------------------------------
 */

/// The device's identity and abilities.
struct qzcap_devinfo {
    char *mac;
    char *vendor;
    char *model;
    char *swversion;
    char *hdversion;
    char *sn;
    char *url;
    char *lan_source;  ///< IPv4 address of the LAN side
    char *wireless;
    char *support_5g;   ///< "yes" or "no"
    char *support_5g2;  ///< second 5 GHz radio: "yes" or "no"
    char *mode;         ///< "router" or "bridge"
    uint32_t reserved12;
    uint32_t supportMesh;
    uint32_t reserved14;
    uint32_t reserved15;
    uint32_t reserved16;
    char *QZEI;
    uint32_t *lanports;  ///< zero-terminated; may be null
    uint32_t *wanports;  ///< zero-terminated; may be null
    char *devtype;
    char *description;
    char *support;
    char *wepIp;
    char *webUrl;
};

/// Load and temperature at the time of the call.
struct qzcap_diagnostics {
    uint32_t cputemp;
    uint32_t cpurate;      ///< percent
    uint32_t memoryusage;  ///< percent
    uint32_t flashusage;
    uint32_t flashfree;
};

/// Ports in use on the device.
struct qzcap_netstatinfo {
    uint32_t *tcp;  ///< zero-terminated; may be null
    uint32_t *udp;  ///< zero-terminated; may be null
};

/// Terminals connected, by how they are connected.
struct qzcap_terminalnum {
    uint32_t wired;
    uint32_t wireless_2g;
    uint32_t wireless_5g;
};

/// VLAN bridging of the television ports.
struct qzcap_iptv {
    char *enable;  ///< "yes" or "no"
    uint32_t vlan;
    uint32_t *ports;  ///< zero-terminated; may be null
};

struct qzcap_devinfo *qzcap_get_devinfo(void);
void qzcap_free_devinfo(struct qzcap_devinfo *record);
struct qzcap_diagnostics *qzcap_diagnostics_get(void);
void qzcap_free_diagnostics(struct qzcap_diagnostics *record);
struct qzcap_netstatinfo *qzcap_diagnostics_netstat(void);
void qzcap_free_netstatinfo(struct qzcap_netstatinfo *record);
struct qzcap_terminalnum *qzcap_get_terminalnum(void);
void qzcap_free_terminalnum(struct qzcap_terminalnum *record);
/// The LED switch, "on" or "off"; release with qzcap_free.
char *qzcap_get_led_switch(void);
/// Sets the LED switch to "on" or "off".
int qzcap_set_led_switch(const char *status, char **errtext);
/// Sets the television bridging.
int qzcap_set_iptv(const struct qzcap_iptv *record, char **errtext);
/// Switches to "router" or "bridge" mode.
int qzcap_set_workmode(const char *mode, char **errtext);
/// Restores the factory settings.
int qzcap_reset(void);
/// Restarts the device.
int qzcap_reboot(void);
/// Starts a firmware upgrade from `url`; `size` in bytes.
int qzcap_upgrade(const char *url, uint32_t size, const char *chksum, char **errtext);

/* ---- WAN ------------------------------------------------------------------------------------------------
 */

/// The upstream connection. Byte and packet counts are decimal texts.
struct qzcap_waninfo {
    char *networktype;
    char *ipaddr;
    char *subnetmask;
    char *gateway;
    char *dns1;
    char *dns2;
    char *pppoe_user;
    char *reserved7;
    char *status;       ///< "up" or "down"
    uint32_t negorate;  ///< negotiated rate
    char *duplexmode;
    char *bytessent;
    char *bytesreceived;
    char *packetssent;
    char *packetsreceived;
    uint32_t crcerror;
    char *uploadspeed;
    char *downloadspeed;
    uint32_t onlinetime;  ///< seconds
    char *status6;
    char *ipaddr6;
    char *prefix6;
    char *prefixlen6;
    char *gateway6;
    char *dns61;
    char *dns62;
};

struct qzcap_waninfo *qzcap_get_waninfo(void);
void qzcap_free_waninfo(struct qzcap_waninfo *record);

/* ---- LAN hosts ------------------------------------------------------------------------------------------
 */

/// One host that the device has seen on its LAN. Byte and packet counts are decimal texts.
struct qzcap_laninfo {
    uint32_t index;  ///< object index
    char *mac;
    char *vmac;
    char *hostname;
    char *devname;  ///< second name
    char *uploadspeed;
    char *downloadspeed;
    uint32_t onlinetime;   ///< seconds
    uint32_t connecttype;  ///< 0 wired, 1 wireless
    char *ipaddr;
    uint32_t port;      ///< wired: switch port; wireless: index of the access-point interface
    uint32_t negorate;  ///< kbit/s
    char *duplexmode;
    char *bytessent;
    char *bytesreceived;
    char *packetssent;
    char *packetsreceived;
    uint32_t crcerror;
    char *band;  ///< "2.4G", "5G", "5G-2"; empty when wired
    int32_t rssi;
    char *ipaddr6;
    int32_t internetaccess;
    int32_t storageaccess;
    int32_t active;  ///< 0: not connected now
    char *activetime;
    char *inactivetime;
    char *brand;
    char *model;
    int32_t downlimit;  ///< 0: none
    int32_t uplimit;    ///< 0: none
};

/// Lists the LAN hosts, absent ones included.
int qzcap_list_laninfo(unsigned int *count, struct qzcap_laninfo ***list);
void qzcap_free_laninfos(unsigned int count, struct qzcap_laninfo **list);
/// Writes the settable fields of the host `index` (hostname, devname, brand, model, internetaccess,
/// storageaccess, downlimit, uplimit) back; the others are the platform's own observations and are ignored.
int qzcap_set_laninfo(uint32_t index, const struct qzcap_laninfo *record, char **errtext);
/// Enables ("yes") or disables ("no") the access list and replaces the MACs on it.
int qzcap_set_blacklist(const char *enable, const char *const *macs, unsigned int count, char **errtext);

/* ---- radios ---------------------------------------------------------------------------------------------
 */

/// Band codes: of the radio calls, and of the access-point calls.
enum qzcap_band {
    QZCAP_RADIO_2G = 8,
    QZCAP_RADIO_5G = 9,
    QZCAP_AP_2G = 10,
    QZCAP_AP_5G = 11,
};

/// One radio.
struct qzcap_wifiinfo {
    char *enable;  ///< "yes" or "no"
    int32_t channel;
    int32_t current_channel;
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

/* ---- access points --------------------------------------------------------------------------------------
 */

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
    uint32_t inuse;  ///< 0: free for a new network
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

/* ---- stations -------------------------------------------------------------------------------------------
 */

/// Asks the radios to hear out a station.
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

/* ---- mesh -----------------------------------------------------------------------------------------------
 */

/// This device's part in the mesh.
struct qzcap_mesh {
    char *role;  ///< "controller", "agent" or "auto"
    char *almac;
    uint32_t onlinetime;  ///< seconds
};

/// The network that joins the mesh's devices.
struct qzcap_backhaulbss {
    char *encrypt;
    char *auth;
    char *key;
    char *ssid;
};

struct qzcap_mesh *qzcap_get_mesh(void);
void qzcap_free_mesh(struct qzcap_mesh *record);
struct qzcap_backhaulbss *qzcap_mesh_backhaulbss(void);
void qzcap_free_backhaulbss(struct qzcap_backhaulbss *record);
/// The mesh's topology as JSON text; release with qzcap_free. `flags` is 0.
char *qzcap_mesh_topo(int flags);
/// Sets the role: "controller", "agent" or "auto".
int qzcap_set_mesh_role(const char *role, char **errtext);
struct qzcap_roaming *qzcap_get_mesh_roaming(void);
/// As qzcap_set_roaming, for stations that roam within the mesh.
int qzcap_set_mesh_roaming(const struct qzcap_roaming *record, char **errtext);

/* ---- vendor-specific elements ---------------------------------------------------------------------------
 */

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

/* ---- cloud servers --------------------------------------------------------------------------------------
 */

/// Where the operator's servers are and who this device is to them. Servers are "host:port".
struct qzcap_serverinfo {
    char *bss;
    char *abi;  ///< first business server; null: none
    char *devtoken;
    char *devid;
    uint32_t abi_count;  ///< entries of abi_list
    char **abi_list;     ///< further business servers
};

struct qzcap_serverinfo *qzcap_get_serverinfo(void);
void qzcap_free_serverinfo(struct qzcap_serverinfo *record);
/// Stores the record so that it survives a restart.
int qzcap_set_serverinfo(const struct qzcap_serverinfo *record, char **errtext);

#ifdef __cplusplus
}
#endif

#endif
