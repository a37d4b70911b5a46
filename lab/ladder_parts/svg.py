"""The picture: rows on lanes, as SVG that is legible on a light and on a dark ground."""

import datetime
import html
import re
import unicodedata

from .rows import WAIT, duration, lanes_of

LEFT, RIGHT, STEP = 118, 71, 237  # of the first lane, behind the last one, and between two
ROOM = STEP - 36  # for a label
NARROWEST = 640  # what heading and legend need
LETTER = 6.62  # how wide a letter of 11 pixels is in a monospaced font, at the most
ROW, BREATH, GAP = 17, 5, 32
HEAD = 40
BURST = 10**7  # what comes later than this after the row before stands a little apart
TITLES = {"gateway": "gateway", "device": "device", "platform": "platform", "apps": "apps, bus", "clients": "local clients"}
KINDS = (("plain", "plain"), ("aes", "encrypted"), ("rsa", "encrypted with RSA"), ("bus", "on the bus"),
         ("closed", "cannot be decrypted"), ("end", "connection"))

SHAPES = """
svg{font:11px monospace}.time{font-size:10px}.title{font:bold 16px sans-serif}.lane{font:bold 12px sans-serif}
.small{font:11px sans-serif}.bad{font-weight:bold}path{fill:none;stroke-width:1.3}
.plain .line{stroke-dasharray:5 3}.closed .line{stroke-dasharray:2 3}.end .line{stroke-dasharray:1 3}"""
# Not every viewer knows variables, so there is a rule for each ground.
COLOURS = """
text{fill:INK}.faint,.end text,.row .time,.small{fill:FAINT}.ground{fill:GROUND;stroke:EDGE}.box{fill:BOX;stroke:EDGE}
.life{stroke:EDGE}.open{fill:EDGE}.cut{fill:GROUND}.wave,.end path{stroke:FAINT}
.plain path{stroke:PLAIN}.plain text{fill:PLAIN}.aes path{stroke:AES}.aes text{fill:AES}.rsa path{stroke:RSA}.rsa text{fill:RSA}
.bus path{stroke:BUS}.bus text{fill:BUS}.closed path{stroke:FAINT}.closed text{fill:FAINT}.row .bad,.bad .bad{fill:BAD}"""
LIGHT = {"GROUND": "#fff", "EDGE": "#d0d7de", "INK": "#1f2328", "FAINT": "#656d76", "BOX": "#f6f8fa", "PLAIN": "#a85400",
         "AES": "#0757ba", "RSA": "#8250df", "BUS": "#0f766e", "BAD": "#cf222e"}
DARK = {"GROUND": "#0d1117", "EDGE": "#3d444d", "INK": "#e6edf3", "FAINT": "#9198a1", "BOX": "#161b22", "PLAIN": "#f0a848",
        "AES": "#6cb6ff", "RSA": "#c49bff", "BUS": "#45c4b0", "BAD": "#ff7b72"}


def coloured(palette):
    return re.sub("[A-Z]{3,}", lambda name: palette[name[0]], COLOURS)


STYLE = f"{SHAPES}{coloured(LIGHT)}\n@media (prefers-color-scheme:dark){{{coloured(DARK)}}}\n"


def clean(text):
    """A text that may stand anywhere in XML."""
    return html.escape(re.sub("[^\t\n\r -\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]", "\ufffd", text))


def width_of(text):
    return sum(2 if unicodedata.east_asian_width(letter) in "WF" else 1 for letter in text) * LETTER


def shortened(text, width):
    """As much of a text as there is room for, on one line."""
    text = " ".join(text.split())
    if width_of(text) <= width:
        return text
    text = text[:int(width / LETTER)]
    while text and width_of(text) > width - LETTER:
        text = text[:-1]
    return text.rstrip() + "…"


CIPHERS = {"plain": "in clear", "encrypted": "", "key": "encrypted", "client-key": "encrypted with the client key",
           "server-key": "encrypted with the server key", "rsa": "encrypted with RSA", "bus": ""}


def kind_of(message):
    if message.event:
        return "end"
    return {"plain": "plain", "rsa": "rsa", "bus": "bus", "encrypted": "closed", "": "closed"}.get(message.cipher, "aes")


def clock(nanoseconds):
    time = datetime.datetime.fromtimestamp(nanoseconds // 10**9)
    return f"{time:%H:%M:%S}.{nanoseconds // 1000 % 10**6:06d}"


class Picture:
    """Its parts, from the top: `heading`, `heads` of the lanes, `body`; each is drawn at 0 and says how high it is."""

    def __init__(self, messages, rows, before, start, title):
        self.rows, self.before, self.start, self.title = rows, before, start, title
        self.messages = messages
        self.lanes = lanes_of(messages)
        self.width = max(NARROWEST, LEFT + STEP * (len(self.lanes) - 1) + RIGHT)
        self.at = {lane: LEFT + number * STEP for number, lane in enumerate(self.lanes)}

    def heading(self):
        day = datetime.datetime.fromtimestamp(self.start // 10**9)
        span = duration(self.messages[-1].time - self.messages[0].time)
        count = sum(not message.event for message in self.messages)
        parts = [f'<text class="title" x="16" y="28">{clean(shortened(self.title, (self.width - 32) * LETTER / 9))}</text>',
                 f'<text class="small" x="16" y="46">{count} messages in {span}, from {day:%Y-%m-%d %H:%M:%S} on; '
                 'times in seconds, waits shortened</text>']
        x, used = 16, {kind_of(message) for message in self.messages}
        entries = [entry for entry in KINDS if entry[0] in used]
        entries += [("bad", "error")] if any(message.fault for message in self.messages) else []
        for kind, text in entries:
            line = "" if kind == "bad" else f'<path class="line" d="M{x} 64h26"/>'
            at = x if kind == "bad" else x + 32
            style = ' class="bad"' if kind == "bad" else ""
            parts.append(f'<g class="{kind}">{line}<text{style} x="{at}" y="68">{text}</text></g>')
            x = at + round(len(text) * LETTER) + 22
        return parts, 80

    def heads(self):
        parts = []
        for lane, x in self.at.items():
            wide = 124
            peers = self.lanes[lane] if lane not in ("device", "apps") else []
            below = peers[0] + "".join(", ." + peer.rsplit(".", 1)[1] for peer in peers[1:]) if peers else ""
            below = {"device": "the agent", "apps": "on the device"}.get(lane, below)
            parts.append(f'<rect class="box" x="{x - wide // 2}" y="2" width="{wide}" height="34" rx="5"/>'
                         f'<text class="lane" x="{x}" y="17" text-anchor="middle">{TITLES[lane]}</text>'
                         f'<text class="small" x="{x}" y="30" text-anchor="middle">{clean(shortened(below, wide))}</text>')
        return parts, HEAD

    def body(self, top=0, tail=14):
        """The rows from `top` on. Behind them stand the lanes, of which the parts with a connection are wider."""
        y, drawn, waits, spans = top, [], [], []
        alive = {key: top for key in self.before if key[0] in self.at}
        for number, row in enumerate(self.rows):
            if row.waited >= WAIT:
                waits.append((y, row.waited))
                y += GAP
            elif row.waited >= BURST:
                y += BREATH
            y += ROW
            drawn.append(self.row(number, row, y))
            message = row.first
            key = (message.lane, message.connection)
            if message.event == "end":
                if key in alive:
                    spans.append((message.lane, alive.pop(key), y))
            elif message.connection:
                alive.setdefault(key, y)
        bottom = y + tail
        spans += [(lane, since, bottom) for (lane, _), since in alive.items()]
        parts = [f'<path class="life" d="M{x} {top}V{bottom}"/>' for x in self.at.values()]
        parts += [f'<rect class="open" x="{self.at[lane] - 3}" y="{since}" width="6" height="{until - since}"/>'
                  for lane, since, until in sorted(set(spans))]
        parts += [part for y, waited in waits for part in self.wait(y, waited)]
        return parts + drawn, bottom - top

    def wait(self, y, waited):
        """Time goes on here, and the picture does not."""
        yield f'<rect class="cut" x="1.5" y="{y + 12}" width="{self.width - 3}" height="{GAP - 16}"/>'
        for edge in (y + 12, y + GAP - 4):
            waves = "q7-3 14 0t14 0" * ((self.width - 80) // 28)
            yield f'<path class="wave" d="M66 {edge}{waves}"/>'
        yield (f'<text class="faint" x="{self.at["device"]}" y="{y + GAP / 2 + 8:g}" text-anchor="middle">'
               f'{duration(waited)} later</text>')

    def ends(self, message):
        """Where an arrow begins and ends; the connection's bar is 3 to either side."""
        device, peer = self.at["device"], self.at[message.lane]
        inward = 4 if peer < device else -4
        ends = (device - inward // 4, peer + inward)
        return ends if message.from_device else ends[::-1]

    def row(self, number, row, y):
        message = row.first
        tail, head = self.ends(message)
        back = -7 if head > tail else 7
        # Labels stand in the outermost part of an arrow, so that none is crossed by a lane.
        peer = self.at[message.lane]
        middle = peer + (STEP if peer < self.at["device"] else -STEP) // 2
        label = shortened(self.label(row), ROOM)
        half = round(width_of(label) / 2 + 5) * (1 if head > tail else -1)
        style = ' class="bad"' if message.fault else ""
        time = f'{(message.time - self.start) / 1e9:.3f}'
        return (f'<g class="row {kind_of(message)}" id="row{number}"><title>{clean(self.spoken(row))}</title>'
                f'<text class="time" x="56" y="{y + 3.5}" text-anchor="end">{time}</text>'
                f'<path class="line" d="M{tail} {y}H{middle - half}M{middle + half} {y}H{head}"/>'
                f'<path d="M{head + back} {y - 3.5}L{head} {y}l{back} 3.5"/>'
                f'<text{style} x="{middle}" y="{y + 3.5}" text-anchor="middle">{clean(label)}</text></g>')

    def label(self, row):
        """What an arrow says. Where there is too little room, what went wrong goes before what it is about, and that before
        the number."""
        message = row.first
        if message.event == "open" and message.lane != "clients":
            return f"{row.label} to {message.peer.rsplit(':', 1)[0]}"
        if message.event or message.fault in ("not recorded", "no frame", "unreadable"):
            return row.label
        if not message.fault:
            choice = [row.label] + ([f"{message.name} · {message.detail}"] if len(row.messages) == 1 else [])
        else:
            choice = [f"{row.label}, {message.fault}", f"{row.label.split(' · ')[0]} · {message.fault}"]
        return next((label for label in choice if width_of(label) <= ROOM), choice[-1] if message.fault else choice[0])

    def spoken(self, row):
        """A row as a line of text."""
        return f"{clock(row.first.time)} {row.label}, " + ", ".join(filter(None, (row.first.fault, self.facts(row.first))))

    def facts(self, message):
        """How a message has travelled."""
        peer = message.peer if message.lane == "apps" else f"{TITLES[message.lane]} {message.peer}"
        way = f"device to {peer}" if message.from_device else f"{peer} to device"
        size = f"{message.size} bytes" if message.size else ""
        return ", ".join(filter(None, (way, CIPHERS.get(message.cipher, message.cipher), size)))

    def svg(self):
        """All of it, as a file of its own."""
        parts, y = [], 0
        for part, height in (self.heading(), self.heads()):
            parts.append(f'<g transform="translate(0 {y})">{"".join(part)}</g>')
            y += height
        body, height = self.body(y - 4, 12)
        y += height - 4
        heads, height = self.heads()
        parts += body + [f'<g transform="translate(0 {y})">{"".join(heads)}</g>']
        y += height + 6
        return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {y}" width="{self.width}" height="{y}" '
                f'role="img" aria-labelledby="name"><title id="name">{clean(self.title)}</title><style>{STYLE}</style>\n'
                f'<rect class="ground" x=".5" y=".5" width="{self.width - 1}" height="{y - 1}" rx="8"/>\n'
                + "\n".join(parts) + "\n</svg>\n")
