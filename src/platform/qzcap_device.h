/// Part of the platform capability library, whose rules qzcap.h tells: the device, its networks and who it is
/// to the cloud.
#ifndef ARVOK_QZCAP_DEVICE_H
#define ARVOK_QZCAP_DEVICE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- device ---- */

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

/* ---- WAN ---- */

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

/* ---- LAN hosts ---- */

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

/* ---- mesh ---- */

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

/* ---- cloud servers ---- */

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
