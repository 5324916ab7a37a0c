# SPDX-License-Identifier: Apache-2.0
"""What the drawings of docs/drawings are drawn with: SVG of 400 units in width, so that a telephone shows
letters large enough, on a card of its own, light or dark as the reader's system is."""

from xml.sax.saxutils import escape

WIDTH = 400
LINE = 16
SIZES = {"title": 13.5, "line": 12, "note": 11.5}
STYLE = """
  svg { color-scheme: light dark; font-family: system-ui, -apple-system, "Segoe UI", "DejaVu Sans", sans-serif; }
  .card { fill: #ffffff; stroke: #d5dae1; }
  .box { fill: #f1f4f8; stroke: #7d8a9b; } .ours { fill: #e2edfc; stroke: #3b74c4; }
  .good { fill: #e2f3e6; stroke: #37864f; } .bad { fill: #fce8e8; stroke: #c24a4a; }
  .warn { fill: #fff3d9; stroke: #b07d10; } .band { fill: #f6f8fa; stroke: none; }
  .frame { fill: none; stroke: #7d8a9b; stroke-dasharray: 5 4; }
  .way { fill: none; stroke: #4d5968; stroke-width: 1.5; } .head { fill: #4d5968; }
  .rare { stroke-dasharray: 4 3; }
  text { fill: #1a212b; font-size: 12px; } .title { font-size: 13.5px; font-weight: 600; }
  .note { fill: #4d5968; font-size: 11.5px; }
  @media (prefers-color-scheme: dark) {
    .card { fill: #161b22; stroke: #3a4452; }
    .box { fill: #232b36; stroke: #8592a5; } .ours { fill: #16304f; stroke: #6ea6f2; }
    .good { fill: #15361f; stroke: #5dbb79; } .bad { fill: #451d1f; stroke: #e58383; }
    .warn { fill: #3e3112; stroke: #dcae45; } .band { fill: #1c222b; }
    .frame { stroke: #8592a5; } .way { stroke: #aab5c3; } .head { fill: #aab5c3; }
    text { fill: #e9eef4; } .note { fill: #b3bdca; }
  }
"""


def width_of(text, style):
    """A little more than any usual font takes."""
    size = SIZES[style] * (1.06 if style == "title" else 1)
    units = sum(0.34 if one in "ijltfI.,:;|'!()[]/ " else 0.92 if one in "mwMW…→" else
                0.72 if one.isupper() else 0.59 for one in text)
    return units * size


class Drawing:
    def __init__(self, title, says, height):
        self.title, self.says, self.height = title, says, height
        self.parts = []

    def text(self, x, y, text, style="line", anchor="start", room=None):
        wide = width_of(text, style)
        left = x - {"start": 0, "middle": wide / 2, "end": wide}[anchor]
        if left < 2 or left + wide > WIDTH - 2 or room and wide > room or not 0 < y < self.height:
            raise ValueError(f"{self.title}: no room for \"{text}\", {wide:.0f} wide")
        kind = "" if style == "line" else f' class="{style}"'
        where = "" if anchor == "start" else f' text-anchor="{anchor}"'
        self.parts.append(f'<text x="{x:g}" y="{y:g}"{kind}{where}>{escape(text)}</text>')

    def box(self, x, y, w, title, *lines, kind="box", h=None, left=False):
        """The y below it."""
        count = len(lines) + (title is not None)
        tall = h or count * LINE + 12
        if x + w > WIDTH - 4 or y + tall > self.height - 4:
            raise ValueError(f"{self.title}: no room for the box \"{title}\"")
        self.parts.append(f'<rect class="{kind}" x="{x:g}" y="{y:g}" width="{w:g}" height="{tall:g}" rx="5"/>')
        row = y + tall / 2 - count * LINE / 2 + 12
        for at, text in enumerate(([title] if title is not None else []) + list(lines)):
            style = "title" if at == 0 and title is not None else "line"
            self.text(x + 8 if left else x + w / 2, row + at * LINE, text, style,
                      "start" if left else "middle", w - (10 if left else 4))
        return y + tall

    def bar(self, x, y, w, h, kind):
        self.parts.append(f'<rect class="{kind}" x="{x:g}" y="{y:g}" width="{w:g}" height="{h:g}" rx="3"/>')

    def frame(self, x, y, w, h, label):
        self.parts.append(f'<rect class="frame" x="{x:g}" y="{y:g}" width="{w:g}" height="{h:g}" rx="7"/>')
        self.text(x + 8, y + 15, label, "note", room=w - 10)

    def band(self, y, h, label):
        self.parts.append(f'<rect class="band" x="6" y="{y:g}" width="{WIDTH - 12}" height="{h:g}" rx="4"/>')
        self.text(12, y + 14, label, "note")

    def line(self, *points, rare=False):
        path = " ".join(f"{x:g},{y:g}" for x, y in points)
        self.parts.append(f'<polyline class="way{" rare" if rare else ""}" points="{path}"/>')

    def arrow(self, *points, rare=False, both=False):
        self.line(*points, rare=rare)
        self.head(points[-2], points[-1])
        if both:
            self.head(points[1], points[0])

    def head(self, before, tip):
        (a, b), (x, y) = before, tip
        length = ((x - a) ** 2 + (y - b) ** 2) ** 0.5
        u, v = (x - a) / length * 8, (y - b) / length * 8
        self.parts.append(f'<polygon class="head" points="{x:g},{y:g} {x - u + v / 2:.4g},{y - v - u / 2:.4g} '
                          f'{x - u - v / 2:.4g},{y - v + u / 2:.4g}"/>')

    def svg(self):
        return "\n".join([
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {self.height}" '
            f'width="520" height="{self.height * 520 / WIDTH:g}" role="img" aria-labelledby="title says">',
            "<!-- SPDX-License-Identifier: Apache-2.0; drawn by scripts/drawings/draw.py -->",
            f'<title id="title">{escape(self.title)}</title>', f'<desc id="says">{escape(self.says)}</desc>',
            f"<style>{STYLE}</style>",
            f'<rect class="card" x="1" y="1" width="{WIDTH - 2}" height="{self.height - 2}" rx="8"/>',
            *self.parts, "</svg>", ""])
