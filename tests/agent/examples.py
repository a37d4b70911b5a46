"""Reads the examples of a page, and compares them with what a home says. "…" stands for what a page leaves out."""

import base64
import json
import re

LEFT_OUT = "…"
EXAMPLE = re.compile(r'\{\s*\\?"')  # where an object begins, also inside of a text of the shell
# Members that differ from run to run: of these only the kind of value is compared.
VOLATILE = {"sequence", "link_mac", "firstOnline", "dh_key", "dh_p", "ChallengeCode", "ID", "Time", "heartbeat",
            "number", "time", "ms", "connection", "length", "id", "value", "LANHostNextCheck", "GuestNextCheck"}


def blocks(page):
    """The code blocks of a page: fenced ones, and indented ones behind an empty line."""
    with open(page) as text:
        parts = re.split(r"(?m)^```.*\n", text.read())
    for prose, code in zip(parts[::2], parts[1::2] + [""]):
        yield from (match.group(1) for match in re.finditer(r"(?m)(?<=\n\n)((?:    .*\n)+)", prose))
        yield code


def objects(text):
    """The JSON objects of a text. What a page leaves out becomes a value or a member of that name."""
    for pattern, kept in ((r"\{…\}", '"…"'), (r",\s*…\s*\]", ', "…"]'), (r",\s*…\s*\}", ', "…": "…"}'),
                          (r',\s*…\s*"', ', "…": "…", "')):
        text = re.sub(pattern, kept, text)
    found, at = [], 0
    while match := EXAMPLE.search(text, at):
        value, at = json.JSONDecoder(strict=False).raw_decode(text, match.start())
        found.append(value)
    return found


def steps(block):
    """Commands, each with the text behind it; the text before the first one has none."""
    command, shown = "", ""
    for line in block.splitlines():
        line = line[4:] if block.startswith("    ") else line
        if line.startswith("$ "):
            yield command, shown
            command, shown = line[2:], ""
        elif command.count("'") % 2 and not shown:
            command += "\n" + line
        else:
            shown += line + "\n"
    yield command, shown


def like(example, real, gateway, name=""):
    """Whether the home's value is what the example shows, with the same members in the same order. Each home's gateway has
    a MAC of its own."""
    if example == LEFT_OUT:
        return True
    if type(example) is not type(real):
        return False
    if isinstance(example, dict):
        shown = [key for key in example if key != LEFT_OUT]
        return shown == [key for key in real if LEFT_OUT not in example or key in shown] and all(
            like(example[key], real[key], gateway, key) for key in shown)
    if isinstance(example, list):
        shown = [value for value in example if value != LEFT_OUT]
        return (len(shown) == len(real) or len(shown) < min(len(example), len(real))) and all(
            like(*pair, gateway) for pair in zip(shown, real))
    if isinstance(example, str) and example.endswith(LEFT_OUT):
        return real.startswith(example[:-1])
    return example == real or name in VOLATILE or real == gateway and bool(re.fullmatch("[0-9A-F]{12}", example))


def inside(value):
    """The objects in a value, also those that travel in base64."""
    if isinstance(value, dict):
        yield value
    if isinstance(value, (dict, list)):
        for each in value.values() if isinstance(value, dict) else value:
            yield from inside(each)
    elif isinstance(value, str) and value.startswith("eyJ"):
        yield from inside(json.loads(base64.b64decode(value)))
