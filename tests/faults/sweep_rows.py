"""What each call of the platform is for, and what its failure costs, by the part of the agent that makes the call."""

import base64
import json
import subprocess

from config_test import AS_IT_IS, ap, band
from desk import call, wait_until
from events_test import ALL, BACKHAUL, DESK, DNS, LAN, MESH, PHONE, WAN, event, online, role
from plugin_test import MKAPP, SELF, WEATHER, plugin
from status_test import DUAL, Sweep
from sweep_case import Row

MAC = "025A10000001"
DONE = (0, "")


def failed(text):
    return 10004, text + " failed"


def refused(text):
    return 10004, text + " failed: {}"


# --- status items ---

NO_RADIO = {"channel": 0, "currentChannel": 0, "txpower": "", "bandwidth": "20", "wifimode": ""}
NO_PORTS = [{"errmsg": port + " is null"} for port in ("wanports", "lanports")]
# The items of a call that gives nothing. Where the device says nothing of a second band, it has none.
BLANK = {
    "qzcap_get_wifiinfo": {
        "wifi": [{**item, "radio": {"mode": item["radio"]["mode"], **NO_RADIO}} for item in DUAL["wifi"]],
        "channel": {"2.4G": 0, "5G": 0}, "load": {"2.4G": "", "5G": ""},
        "capability": {**DUAL["capability"], "WiFi": [{**item, "auth": "", "wifimode": ""}
                                                      for item in DUAL["capability"]["WiFi"]]}},
    "qzcap_wifi_ap_list": {"wifi": [{**item, "ap": []} for item in DUAL["wifi"]], "wlanstats": [],
                           "real_devinfo": [{**host, "ssid": ""} for host in DUAL["real_devinfo"]]},
    "qzcap_get_devinfo": {
        "bandsupport": ["2.4G"], "workmode": "", "webServer": {"support": "", "wepIp": "", "webUrl": ""},
        "ethWanPortIndex": NO_PORTS[0], "ethLanPortIndex": NO_PORTS[1],
        "capability": {"supportMesh": 0, **{key: DUAL["capability"][key][:1] for key in ("WiFi", "vsie")}}},
    "qzcap_wifi_ap_stats": {"wlanstats": [{key: value if key in ("apidx", "ssid", "band") else 0
                                           for key, value in item.items()} for item in DUAL["wlanstats"]]},
    "qzcap_get_mesh": {"mapInfo": {"mapRole": "", "mapAlmac": ""},
                       "mapTopology": [{**DUAL["mapTopology"][0], "mapRole": "", "mapAlmac": "", "onlineTime": 0}]},
    "qzcap_mesh_backhaulbss": {"mapInfo": {**DUAL["mapInfo"], "backhaulBSS": dict.fromkeys(BACKHAUL, "")}},
    "qzcap_mesh_topo": {"mapTopology": {"errmsg": "qzcap_mesh_topo failed"}},
    "qzcap_get_channel_score": {"channelQuality": [{**item, "quality": []} for item in DUAL["channelQuality"]]},
}


def hollow(value):
    """What is left of an item when nothing in it has a value."""
    if isinstance(value, dict):
        return {"status": "OFF"} if "status" in value and len(value) == 1 else {k: hollow(v) for k, v in value.items()}
    return {str: "0%" if str(value).endswith("%") else "", int: 0, list: []}[type(value)]


def status_rows():
    """Each call costs its own items, while those beside them do not notice. Silence is waited out for one item only."""
    for name, items in Sweep.ITEMS.items():
        function, items = Sweep.CALLS.get(name, name), items.split()
        for names, modes in ((items, ("error", "empty", "blank")), (items[:1], ("timeout",))):
            beside = {item: DUAL[item] for item in ("terminalNum", "cputemp") if item not in items}
            of = lambda values: {**{item: values(item) for item in names}, **beside}
            blank = of(lambda item: BLANK[function][item] if function in BLANK else hollow(DUAL[item]))
            code = 10004 if any(isinstance(value, dict) and "errmsg" in value for value in blank.values()) else 0
            yield Row(function, lambda t, asked=[*names, *beside]: t.status(*asked), (0, of(DUAL.get)),
                      (10004, of(lambda item: {"errmsg": name + " failed"})), (code, blank), modes=modes, times=100)


STATUS = list(status_rows())

# --- commands and settings of the gateway ---

SEND = {"command": "sendvsie", "id": "a", "band": "2.4G", "data": "ZGQwNQ==", "persist": 60}
STOP = {"command": "stopvsie", "id": "a"}
SOFTWARE = {"downurl": "http://100.64.0.9/nothing", "fileSize": 1, "chksum": ""}
THRESHOLDS = {"enable": "ON", "rssi2G": -70, "rssi5G": -65, "interval": 30}
PORTS = {"enable": "ON", "vlan": 45, "ports": [1]}
LIMIT = [{"mac": DESK, "uplimit": 1, "downlimit": 2}]
QUERY = {"mac": PHONE, "band": "5G", "duration": 1}
MOVE = {"mac": PHONE, "bssid": "02:5A:10:00:02:02", "band": "5G", "channel": 36}
PROBE = {"command": "proberesp", "id": "a", "band": "2.4G", "mac": "02:AA", "data": "ZGQwNQ=="}
CHANGE = [band({"channel": 11}, [ap(ssid="A")]), band({"channel": 40}, [ap(ssid="B")], "5G")]
ENTRY = {"weekday": "1", "time": "10:00", "enable": "1"}


def control(*commands):
    return lambda t: t.control(*commands)


def cfg(**rows):
    return lambda t: t.cfg(**rows)


def signed(**rows):
    """As cfg, with the MAC that the agent signs with: it is what it knows of the device."""
    def act(t):
        reply = t.request({"type": "cfg", "set": rows})
        return reply["mac"], reply["errcode"], reply["errmsg"]
    return act


def and_then(act):
    """What follows a reply has happened when the next one comes."""
    return lambda t: (act(t), t.control())[0]


def request(kind, **data):
    def act(t):
        reply = t.request({"type": kind, "data": data})
        return reply["errcode"], reply["errmsg"]
    return act


def as_router(t):
    t.patch({"devinfo": {"mode": "router"}})
    t.status("workmode")


SETTINGS = [
    Row("qzcap_wifi_deassociation", control({"command": "deassociation", "mac": PHONE}), DONE,
        refused("qzcap_wifi_deassociation")),
    Row("qzcap_add_vsie_beacontx", control(SEND), DONE, refused("qzcap_add_vsie_beacontx")),
    Row("qzcap_vsie_beacontx_action", control(SEND), DONE, refused("qzcap_vsie_beacontx_action")),
    Row("qzcap_vsie_beacontx_action", control(STOP), DONE, refused("qzcap_vsie_beacontx_action"), first=control(SEND)),
    Row("qzcap_add_vsie_proberesp", control(PROBE), DONE, refused("qzcap_add_vsie_proberesp")),
    Row("qzcap_wifi_channelscan", control({"command": "channelscan"}), DONE, refused("qzcap_wifi_channelscan")),
    Row("qzcap_reset", and_then(control({"command": "reset"})), DONE, DONE, log="[ERROR] qzcap_reset failed\n"),
    Row("qzcap_reboot", and_then(control({"command": "reboot"})), DONE, DONE, log="[ERROR] qzcap_reboot failed\n"),
    Row("qzcap_get_wifiinfo", cfg(wifi=CHANGE), DONE, failed("update_wifi_info"), DONE),
    Row("qzcap_get_devinfo", signed(wifi=CHANGE), (MAC, *DONE), (MAC, *failed("update_wifi_info")), ("", *DONE)),
    Row("qzcap_wifi_ap_get", cfg(wifi=CHANGE), DONE, failed("qzcap_wifi_ap_get 2.4G"), DONE),
    Row("qzcap_set_wifiinfo_async", cfg(wifi=CHANGE), DONE, failed("qzcap_set_wifiinfo_async")),
    Row("qzcap_wifi_ap_set_async", cfg(wifi=CHANGE), DONE, failed("qzcap_wifi_ap_set_async")),
    Row("qzcap_set_workmode", and_then(cfg(wifi=AS_IT_IS)), DONE, DONE, log="[ERROR] qzcap_set_workmode failed: {}\n",
        first=as_router),
    Row("qzcap_wifi_timer_list", cfg(wifitimer=[ENTRY]), DONE, failed("qzcap_wifi_timer_list"), DONE),
    Row("qzcap_wifi_timer_set", cfg(wifitimer=[ENTRY]), DONE, refused("qzcap_wifi_timer_delete 1")),
    Row("qzcap_wifi_timer_add", cfg(wifitimer=[ENTRY] * 3), DONE, refused("qzcap_wifi_timer_add")),
    Row("qzcap_wifi_timer_delete", cfg(wifitimer=[]), DONE, refused("qzcap_wifi_timer_delete 1")),
    Row("qzcap_set_led_switch", cfg(ledswitch={"status": "OFF"}), DONE, refused("qzcap_set_led_switch")),
    Row("qzcap_get_wifi_switch", cfg(wpsswitch={"status": "ON"}), DONE, failed("qzcap_get_wifi_switch"), DONE),
    Row("qzcap_upgrade", cfg(upgrade=SOFTWARE), DONE, refused("qzcap_upgrade")),
    Row("qzcap_install_app", cfg(upgrade_client=SOFTWARE), DONE, failed("qzcap_install_app")),
    Row("qzcap_get_roaming", cfg(roaming_set=THRESHOLDS), DONE, failed("qzcap_get_roaming"), DONE),
    Row("qzcap_set_roaming", cfg(roaming_set=THRESHOLDS), DONE, refused("qzcap_set_roaming")),
    Row("qzcap_get_mesh_roaming", cfg(map_roaming_set=THRESHOLDS), DONE, failed("qzcap_get_mesh_roaming"), DONE),
    Row("qzcap_set_mesh_roaming", cfg(map_roaming_set=THRESHOLDS), DONE, refused("qzcap_set_mesh_roaming")),
    Row("qzcap_set_blacklist", cfg(blacklist={"enable": "ON", "mac": [PHONE]}), DONE, refused("qzcap_set_blacklist")),
    Row("qzcap_set_mesh_role", cfg(setMapRole="agent"), DONE, refused("qzcap_set_mesh_role")),
    Row("qzcap_get_devinfo", signed(iptv=PORTS), (MAC, *DONE), (MAC, *failed("qzcap_get_devinfo")),
        ("", 10002, "invalid ports")),
    Row("qzcap_set_iptv", cfg(iptv=PORTS), DONE, refused("qzcap_set_iptv")),
    Row("qzcap_list_laninfo", cfg(speedlimit=LIMIT), DONE, failed("qzcap_list_laninfo"),
        (10002, "unknown mac " + DESK)),
    Row("qzcap_set_laninfo", cfg(speedlimit=LIMIT), DONE, refused("qzcap_set_laninfo")),
    Row("qzcap_start_rssi_query", request("startaprssiquery", **QUERY), DONE, refused("qzcap_start_rssi_query")),
    Row("qzcap_get_wifiinfo", request("startaprssiquery", **QUERY), DONE, failed("update_wifi_info"), DONE),
    Row("qzcap_bss_transition", request("startstabsstransitionrequest", **MOVE), DONE, refused("qzcap_bss_transition")),
    Row("qzcap_list_laninfo", request("getrssiinfo"), DONE, failed("qzcap_list_laninfo"), DONE),
    Row("qzcap_get_wifiinfo", request("getrssiinfo"), DONE, failed("update_wifi_info"), DONE),
]
# As many again, so that they run beside each other.
COMMANDS, SETTINGS = SETTINGS[:14], SETTINGS[14:]

# --- notifications of the platform ---

HOST_CAME = (LAN, "devicestatus", {"mac": DESK, "active": 1})
ROLE = (MESH, "mode", {"mode": "agent"})
CHANGED = event("rolechange", role="agent")


def sent_on(*notification):
    def act(t):
        t.quiet()
        t.notify(*notification)
        return [message["type"] if message["type"] == "dev_report" else message for message in t.sent()]
    return act


def wan_report(t):
    t.control()  # a message from the gateway makes the agent ask again
    t.forget()
    t.notify(WAN, "x", {"status": "up"})
    return t.wait_for_message("wan_report")[0]["status"]


def listen(t):
    t.cfg(eventsub=ALL)


NOTIFICATIONS = [
    Row("qzcap_list_laninfo", sent_on(*HOST_CAME), [online(DESK), "dev_report"], ["dev_report"], ["dev_report"],
        "[ERROR] send_arvok_lan_event qzcap_list_laninfo failed\n", listen, ("error", "empty", "blank")),
    # Who has not answered is not asked again for the report.
    Row("qzcap_list_laninfo", sent_on(*HOST_CAME), [online(DESK), "dev_report"], [], None,
        "[ERROR] qzcap_list_laninfo failed", listen, ("timeout",)),
    Row("qzcap_wifi_ap_list", sent_on(*HOST_CAME), [online(DESK), "dev_report"], [online(DESK), "dev_report"],
        [online(DESK), "dev_report"], "[ERROR] update_ap_info qzcap_wifi_ap_list 2.4G failed\n", listen),
    Row("qzcap_get_mesh", sent_on(*ROLE), [CHANGED, role("controller")], [CHANGED],
        [CHANGED, {"type": "map_report", "mapRole": "", "mapAlmac": ""}], "[ERROR] qzcap_get_mesh failed\n", listen),
    Row("qzcap_mesh_backhaulbss", sent_on(*ROLE), [CHANGED, role("controller")], [CHANGED],
        [CHANGED, {**role("controller"), "backhaulBSS": dict.fromkeys(BACKHAUL, "")}],
        "[ERROR] qzcap_mesh_backhaulbss failed\n", listen),
    # The report goes out with what was known before.
    Row("qzcap_get_waninfo", wan_report, {"status": "up", "dns": DNS}, {"status": "up", "dns": DNS},
        {"status": "up", "dns": ["", ""]}),
]

# --- commands of other apps ---

NETWORK = {"SSID": "Visitors", "PWD": "come-in!", "ENCRYPT": "5", "Enable": "1", "SSIDHide": "0"}
ALWAYS = {"ContinueID": "c", "GroupID": "g", "Mode": "0", "StartTime": "00:00", "EndTime": "24:00", "Enable": "1"}
SUCCESS = {"FailReason": "", "Status": "0"}


def list_hosts(t):
    answer = t.ask_app("GET_LANHOST_INFO", OprType="1")
    return answer["Status"], answer["FailReason"], len(answer["Info"])


def applied(t, function, command, **members):
    """Sends a command and waits until what it sets has been applied: until the function has been called."""
    before = t.calls().count(function)
    t.ask_app(command, **members)
    wait_until(lambda: t.calls().count(function) > before, function)
    t.ask_app("GET_STATUS")  # answered behind it


def block(t):
    """Whether the rule of a blocked host has been carried out."""
    applied(t, "qzcap_list_laninfo", "SET_LANHOST_INTERNET", Info=[{"MAC": DESK, "InternetAccess": "0"}])
    done = t.ask_app("GET_LANHOST_INTERNET")["Info"][0]["Exec"]
    # Until it is known that nothing is wanted any more, what was refused waits for its time.
    looks = lambda: t.agent.lines().count("extcc next check is ")
    before = looks()
    t.ask_app("SET_LANHOST_INTERNET", Info=[])
    wait_until(lambda: looks() > before, "a look")
    return done


def schedule(t):
    """The access of a host with a schedule that holds all day."""
    applied(t, "qzcap_list_laninfo", "SET_LANHOST_TIMER", MAC=DESK, Info=[ALWAYS])
    access = t.state()["laninfo"][DESK]["internetaccess"]
    applied(t, "qzcap_list_laninfo", "SET_LANHOST_TIMER", MAC=DESK, Info=[])
    return access


def create_guest(t):
    """The answer, and how many interfaces the band has then."""
    answer = t.ask_app("SET_GUEST_WIFI", Info=[NETWORK])
    return answer, len(t.state()["wifi_ap"]["2.4G"])


def delete_guest(t):
    """The answer, and what is left of the guest's interface."""
    answer = t.ask_app("DELETE_GUEST_WIFI")
    return answer, t.state()["wifi_ap"]["2.4G"].get("5", {}).get("enable")


EXTENDED = [
    Row("qzcap_list_laninfo", list_hosts, ("0", "", 4), ("-101", "qzcapd.laninfo list failed", 0), ("0", "", 0)),
    Row("qzcap_list_laninfo", block, "True", "False", "False"),
    Row("qzcap_set_laninfo", block, "True", "False"),
    Row("qzcap_list_laninfo", schedule, 1, 2, 2, "): extcc next check is "),
    Row("qzcap_set_laninfo", schedule, 1, 2, log="): extcc next check is "),
    # Whoever cannot look for a guest network makes no second one; where none can be made, a spare interface serves.
    Row("qzcap_wifi_ap_list", create_guest, (SUCCESS, 5),
        ({"FailReason": "failed to add/set guest wifi", "Status": "-102"}, 4), (SUCCESS, 5)),
    Row("qzcap_wifi_ap_add", create_guest, (SUCCESS, 5), (SUCCESS, 4),
        log="): extcc wifi ap add failed: {}, try find available ap\n"),
    Row("qzcap_wifi_ap_set", create_guest, (SUCCESS, 5), ({"FailReason": "{}", "Status": "-102"}, 5),
        first=create_guest),
    Row("qzcap_wifi_ap_get", create_guest, (SUCCESS, 5),
        ({"FailReason": "failed to add/set guest wifi", "Status": "-102"}, 5),
        ({"FailReason": "the device has no such interface", "Status": "-102"}, 5), first=create_guest),
    Row("qzcap_wifi_ap_delete", delete_guest, (SUCCESS, None), (SUCCESS, "no"), first=create_guest),
]

# --- requests of the cloud ---


def ask(method, **members):
    return lambda t: t.ask_cloud(method, **members)


def list_apps(t):
    reply = t.ask_cloud("ListPlugin")
    return reply["Result"], reply.get("FailReason"), len(reply.get("Plugin", ()))


def action(method, function, number):
    return Row(function, ask(method, **WEATHER), {"Result": 0},
               {"Result": -1, "FailReason": "qzacp app action %d failed: {}" % number})


def order(package, run):
    return {**plugin("radio_ipq5018x", "2.0"), "Download_url": "http://100.64.0.9/" + package, "Plugin_size": "1",
            "NeedRun": run, "OS": "linux", "upgrade_ID": "1"}


def install_and_run(t):
    """Whether the app that was installed runs."""
    package = subprocess.check_output([MKAPP, "radio", "2.0"], text=True).strip()
    call("lab.cloud", "messages", {"clear": True})
    t.ask_cloud("Install", **order(package, "1"))
    # Of an earlier order there may still be one that tells of a failure.
    heard = lambda: [(entry["message"].get("RPCMethod"), entry["message"].get("Result"))
                     for entry in call("lab.cloud", "messages")["messages"]]
    wait_until(lambda: ("InstallNotification", 0) in heard(), heard)
    return t.ask_cloud("ListPlugin")["Plugin"][-1]["Run"]


def message_to_app(t):
    reply = t.ask_cloud("SetPluginParams", **WEATHER, Parameter=base64.b64encode(b"{}").decode())
    reply.pop("return_Parameter", None)
    return reply


def enrol_again(t):
    call("lab.cloud", "messages", {"clear": True})
    reply = t.ask_cloud("RequestConnectBSS", Server="bss.arvok.example", Port="8088")
    heard = lambda: [entry["message"].get("RPCMethod") for entry in call("lab.cloud", "messages")["messages"]]
    wait_until(lambda: "Heartbeat" in heard(), heard)
    t.note_connections()
    return reply


CLOUD = [
    Row("qzcap_get_applist", list_apps, (0, None, 3), (-1, "qzcap_get_applist failed", 0), (0, None, 0)),
    *(action(*row) for row in (("Uninstall", "qzcap_uninstall_app", 0), ("Stop", "qzcap_stop_app", 1),
                               ("Run", "qzcap_run_app", 2), ("RestorePlugin", "qzcap_restore_app", 3))),
    Row("qzcap_install_app", ask("Install", **order("nothing.ipk", "0")), {"Result": 0},
        {"Result": -1, "FailReason": "qzcap_install_app failed"}),
    Row("qzcap_run_app", install_and_run, 1, 0, log="[WARNING] plugin_install_cb: qzcap_run_app failed: {}\n"),
    Row("qzcap_app_postmsg", message_to_app, {"Result": 0, "return": {"Status": "0", "Sky": "clear"}},
        {"Result": -1, "FailReason": "qzcap_app_postmsg failed: {}"}, {"Result": 0}),
    Row("qzcap_set_serverinfo", enrol_again, {"Result": 0}, {"Result": 0},
        log="[ERROR] qzcap set serverinfo failed: {}\n"),
]

ALL_ROWS = (*STATUS, *COMMANDS, *SETTINGS, *NOTIFICATIONS, *EXTENDED, *CLOUD)
