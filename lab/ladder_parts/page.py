"""The picture as a page, which shows what a message said when it is pointed at or chosen with the keyboard."""

import json
import os
import re

from .svg import STYLE, clean, clock, kind_of

HERE = os.path.dirname(os.path.abspath(__file__))
SHOWN = 20  # of equal messages


def pretty(text):
    """A JSON text, a member a line; any other text as it is."""
    try:
        return json.dumps(json.loads(text), indent=2, ensure_ascii=False)
    except (ValueError, RecursionError):
        return text


def details(picture, number, row):
    """What is shown of a row."""
    message = row.first
    parts = [f'<h2>{clean(row.label)}</h2><p>{clock(message.time)}, {clean(picture.facts(message))}</p>']
    if message.fault:
        parts.append(f'<p class="bad">{clean(message.fault)}</p>')
    for equal in row.messages[:SHOWN]:
        if len(row.messages) > 1:
            parts.append(f"<p>{clock(equal.time)}</p>")
        for text, start in zip(equal.texts, ("<pre>", '<p>carries in base64:</p><pre class="carried">')):
            parts.append(f"{start}{clean(pretty(text))}</pre>")
    if len(row.messages) > SHOWN:
        parts.append(f"<p>and {len(row.messages) - SHOWN} more</p>")
    if not any(equal.texts for equal in row.messages) and not message.event:
        parts.append("<p>The key log has no key for this.</p>" if message.cipher == "encrypted" else "")
    return f'<article id="body{number}" class="{kind_of(message)}" hidden>{"".join(parts)}</article>'


def own(name):
    with open(os.path.join(HERE, name), encoding="utf-8") as file:
        return file.read()


def drawing(picture, part, attributes):
    parts, height = part
    return f'<svg viewBox="0 0 {picture.width} {height}" {attributes}>' + "\n".join(parts) + "</svg>"


def page(picture):
    body, height = picture.body()
    # A row can be pointed at anywhere.
    band = re.compile(r'(<g class="row [^>]*)>(<title>)(.*?</title>)<text class="time" x="\d+" y="([\d.]+)"', re.S)
    chosen = lambda found: (f'{found[1]} role="option">{found[2]}{found[3]}<rect class="band" x="1" y="{float(found[4]) - 12}" '
                            f'width="{picture.width - 2}" height="17"/><text class="time" x="56" y="{found[4]}"')
    body = [band.sub(chosen, part) for part in body]
    values = {
        "TITLE": clean(picture.title),
        "WIDTH": str(picture.width),
        "STYLE": STYLE + own("page.css"),
        "HEADING": drawing(picture, picture.heading(), f'role="img" aria-label="{clean(picture.title)}"'),
        "HEADS": drawing(picture, picture.heads(), 'role="img" aria-label="The lanes"'),
        "BODY": drawing(picture, (body, height), 'id="rows" role="listbox" tabindex="-1" aria-label="Messages"'),
        "DETAILS": "\n".join(details(picture, number, row) for number, row in enumerate(picture.rows)),
        "SCRIPT": own("page.js"),
    }
    return re.sub(r"\{\{([A-Z]+)\}\}", lambda name: values[name[1]], own("page.html"))
