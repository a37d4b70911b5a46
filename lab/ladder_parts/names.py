"""What messages are called, and what they are about."""

import base64
import binascii
import json


def members_of(data):
    """The members of a JSON object; None for anything else."""
    try:
        value = json.loads(data)
    except (ValueError, RecursionError):
        return None
    return value if isinstance(value, dict) else None


def from_base64(text):
    try:
        return base64.b64decode(b"".join(text.split()), validate=True)
    except binascii.Error:
        return None


def listed(names, what):
    """A few names, or how many there are."""
    names = [str(name) for name in names]
    return ", ".join(names) if len(names) <= 2 else f"{len(names)} {what}"


def each(message, member, name):
    value = message.get(member)
    entries = value if isinstance(value, list) else []
    return [entry[name] for entry in entries if isinstance(entry, dict) and isinstance(entry.get(name), str)]


def keys_of(message, member):
    return list(message[member]) if isinstance(message.get(member), dict) else []


def count_of(message, member):
    return f"{len(message[member])}" if isinstance(message.get(member), list) else ""


# By the name of a message, what else tells the reader what it is about.
DETAILS = {
    "get_status": lambda m: listed(each(m, "get", "name"), "items"),
    "status": lambda m: listed(keys_of(m, "status"), "items"),
    "control": lambda m: listed(each(m, "data", "command"), "commands"),
    "cfg": lambda m: listed(keys_of(m, "set") or [key for key in m if key.endswith("_report")], "settings"),
    "event": lambda m: listed(each(m, "data", "event"), "events"),
    "dev_report": lambda m: count_of(m, "dev") and count_of(m, "dev") + " hosts",
    "wan_report": lambda m: str(m["status"].get("status", "")) if isinstance(m.get("status"), dict) else "",
    "ubus_call": lambda m: f"{m.get('object', '')} {m.get('method', '')}",
    "ubus_subscribe": lambda m: str(m.get("object", "")),
    "ubus_notify": lambda m: str(m.get("method", "")),
    "Boot": lambda m: count_of(m, "BizPlat") and count_of(m, "BizPlat") + " servers",
    "ListPlugin": lambda m: count_of(m, "Plugin") and count_of(m, "Plugin") + " apps",
}


def word(value):
    return str(value) if isinstance(value, (str, int, float)) and not isinstance(value, bool) else ""


def carried(message):
    """What a message carries in base64, as text and members."""
    for name in ("Parameter", "return_Parameter", "Message"):
        if isinstance(message.get(name), str):
            text = from_base64(message[name].encode("utf-8", "replace"))
            members = members_of(text) if text else None
            if members is not None:
                return text.decode("utf-8", "replace"), members
    return None, {}


def fault_of(message, member="errcode"):
    """What a message says went wrong, as the result in this member or as the Status of a command; "" for nothing."""
    result = message.get(member)
    if isinstance(result, (int, float)) and result:
        return f"{member} {word(result)}"
    if message.get("CmdType") and message.get("Status") not in (None, "0", 0):
        return f"Status {message['Status']}"
    return ""


def named(message, members, numbered, judged):
    """What a message is called, what it carries, and whether it went well: as members of a Message.
    It has its name in the first of `members`, or as an acknowledgement in the second."""
    name, reply = next(((message[key], number) for number, key in enumerate(members)
                        if isinstance(message.get(key), str)), ("message without a type", 0))
    text, inside = carried(message)
    kind = next((inside[key] for key in ("CmdType", "type") if isinstance(inside.get(key), str)), "")
    number = word(message.get(numbered))
    return {
        "name": ("Ack " if reply else "") + name,
        "number": number if len(number) < 12 else "",  # a UUID tells the reader nothing
        "detail": kind or (DETAILS[name](message).strip() if name in DETAILS else ""),
        "fault": fault_of(message, judged) or fault_of(inside),
        "texts": [text] if text else [],
    }
