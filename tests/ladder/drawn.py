"""What lab/ladder draws of a recording, read back from its SVG and its HTML."""

import html.parser
import json
import os
import struct
import subprocess
import sys
import xml.etree.ElementTree

REPO = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
SVG = "{http://www.w3.org/2000/svg}"


def run(*arguments):
    return subprocess.run([sys.executable, "-B", os.path.join(REPO, "lab/ladder"), *arguments], capture_output=True, text=True,
                          timeout=60)


class Picture:
    """The rows of an SVG, from the top: kind, time, label, whether it is marked as an error, and the sentence about it."""

    def __init__(self, path):
        self.root = xml.etree.ElementTree.parse(path).getroot()
        self.rows = []
        for group in self.root.iter(SVG + "g"):
            if (group.get("class") or "").startswith("row "):
                title = group.find(SVG + "title").text
                time, label = group.findall(SVG + "text")
                self.rows.append((group.get("class")[4:], float(time.text), label.text, label.get("class") == "bad", title))
        self.lanes = [text.text for text in self.root.iter(SVG + "text") if text.get("class") == "lane"]
        self.lanes = self.lanes[:len(self.lanes) // 2]
        # Of each connection: was it there from the first row on?
        self.bars = [int(bar.get("y")) < 125 for bar in self.root.iter(SVG + "rect") if bar.get("class") == "open"]
        self.waves = sum(path.get("class") == "wave" for path in self.root.iter(SVG + "path")) // 2

    def labels(self):
        return [label for _, _, label, _, _ in self.rows]


class Page(html.parser.HTMLParser):
    """The articles of a page, each a list of (element, text), and all elements that there are."""

    def __init__(self, path):
        super().__init__()
        self.articles, self.elements, self.open, self.bands = [], set(), [], 0
        with open(path, encoding="utf-8") as file:
            self.feed(file.read())
        assert not self.open, self.open

    def handle_starttag(self, tag, attributes):
        self.elements.add(tag)
        self.bands += ("class", "band") in attributes
        if tag in ("meta",):
            return
        self.open.append(tag)
        if tag == "article":
            self.articles.append([])
        elif self.articles and "article" in self.open:
            self.articles[-1].append([tag + "." + dict(attributes).get("class", ""), ""])

    def handle_endtag(self, tag):
        assert self.open.pop() == tag, tag

    def handle_data(self, data):
        if self.articles and "article" in self.open[:-1]:
            self.articles[-1][-1][1] += data

    def messages(self, way):
        """The messages that went a way, in the order of the page, with how they were encrypted."""
        found = []
        for article in self.articles:
            facts = article[1][1]
            if way in facts:
                cipher = facts.split(", ")[2:3]
                found += [(*cipher, json.loads(text)) for kind, text in article if kind == "pre."]
        return found


def drawn(path, *options, kind=Picture):
    """A recording's picture, or its page, and what was said about it."""
    output = path + (".svg" if kind is Picture else ".html")
    done = run(path, "-o", output, *options)
    assert done.returncode == 0, done.stderr
    return kind(output), done.stderr


def frames(*messages):
    """The frames of the gateway link with these messages, or bodies."""
    bodies = [json.dumps(message).encode() if isinstance(message, dict) else message for message in messages]
    return [b"\x3f\x72\x1f\xb5" + struct.pack(">I", len(body)) + body for body in bodies]
