"""What a hostile gateway or platform asks for: as much as fits one frame."""

import base64
import json

from .wire import BODY_MAX

ITEMS = ("wifi wifitimer ledswitch wifiswitch wpsswitch syncswitch bandsupport diaginfo cpurate cputemp memoryuserate flashusage "
         "flashfree uploadspeed downloadspeed wlanstats channel onlineTime terminalNum load real_devinfo arvokstat neighborinfo "
         "networktype workmode webServer netstatPorts flashStat mapInfo mapTopology ethWanPortIndex ethLanPortIndex "
         "channelQuality capability blacklist whitelist waninfo").split()
MAC = "1E4DBE81FCE2"
CLOUD_ROOM = 8500  # of a link message inside a platform's request: in base64 twice, it fills a frame


def filled(message, member, elements, room):
    """The message with as many of the elements, over and over, as it has room for, in its array `member`."""
    many, size = [], len(json.dumps({**message, member: []}, separators=(",", ":")))
    while True:
        element = elements[len(many) % len(elements)]
        size += len(json.dumps(element, separators=(",", ":"))) + 1
        if size > room:
            return {**message, member: many}
        many.append(element)


def status(names, room, sequence=1):
    return filled({"type": "get_status", "sequence": sequence, "mac": MAC}, "get", [{"name": name} for name in names], room)


def large(room=BODY_MAX - 16, sequence=1):
    """Requests that name the same things hundreds of times."""
    head = {"sequence": sequence, "mac": MAC}
    call = {"object": "qzcapd.laninfo", "method": "list", "message": {}}
    element = {"command": "sendvsie", "id": "siege", "band": "2.4G", "data": "ZGQwNQ==", "persist": 1}
    inside = lambda member, elements: filled({}, member, elements, room - 100)[member]
    return [
        status(["real_devinfo"], room, sequence),
        status(["wifi"], room, sequence),
        status(["neighborinfo", "wlanstats", "mapTopology"], room, sequence),
        status(ITEMS, room, sequence),
        status(["x" * 200], room, sequence),
        filled({"type": "ubus_call", **head}, "data", [call], room),
        filled({"type": "control", **head}, "data", [element], room),
        {"type": "cfg", **head, "set": {"mode": "set", "speedlimit": inside("x", [{"mac": "02C0FFEE0001", "uplimit": 0, "downlimit": 0}])}},
        {"type": "getrssiinfo", **head, "data": {"mac": inside("x", ["02C0FFEE0002"])}},
        {"type": "ubus_call", **head, **call},
    ]


def requests_of_platform():
    """Everything that a platform may ask, with an effect that would be seen."""
    wrapped = lambda message: base64.b64encode(json.dumps(message).encode()).decode()
    own = {"RPCMethod": "SetPluginParams", "ID": "1", "Plugin_Name": "ArvokAP", "Version": ""}
    app = {"Plugin_Name": "com.marobelvinta.all.smartap.radio_ipq5018x", "Version": "2.0"}
    return [
        {**own, "Parameter": wrapped({"type": "control", "sequence": 1, "mac": MAC, "data": [{"command": "reboot"}]})},
        {**own, "Parameter": wrapped({"type": "cfg", "sequence": 1, "mac": MAC, "set": {"mode": "set", "ledswitch": {"status": "OFF"}}})},
        {"RPCMethod": "RequestConnectBSS", "ID": "1", "Server": "100.64.0.4", "Port": "8088"},
        {"RPCMethod": "Install", "ID": "1", **app, "Download_url": "http://100.64.0.9/none", "Plugin_size": "1", "NeedRun": "0",
         "OS": "", "upgrade_ID": "1"},
        *({"RPCMethod": method, "ID": "1", **app} for method in ("Uninstall", "Stop", "Run", "RestorePlugin")),
        {"RPCMethod": "ListPlugin", "ID": "1"},
    ]


def inside_platform_request(message):
    text = base64.b64encode(json.dumps(message, separators=(",", ":")).encode()).decode()
    return {"RPCMethod": "SetPluginParams", "ID": "1", "Plugin_Name": "ArvokAP", "Version": "", "Parameter": text}


# Calls of the platform that a peer without a key must not bring about.
DEEDS = ("qzcap_reboot", "qzcap_reset", "qzcap_upgrade", "qzcap_set_led_switch", "qzcap_install_app", "qzcap_uninstall_app",
         "qzcap_run_app", "qzcap_stop_app", "qzcap_restore_app")
