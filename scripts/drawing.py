"""Pictures as SVG, for light and dark pages: the viewer's colour scheme selects the colours of the paper and of the ink."""
import math
from xml.sax.saxutils import escape

STYLE = """<style>
.paper { fill: #ffffff } .ink { fill: #1f2328 } .pale { fill: #59636e } .grid { stroke: #d1d9e0 } .axis { stroke: #59636e }
.noise { fill: #d1d9e0 } .bar { fill: #36608c }
@media (prefers-color-scheme: dark) {
.paper { fill: #0d1117 } .ink { fill: #f0f6fc } .pale { fill: #9198a1 } .grid { stroke: #3d444d } .axis { stroke: #9198a1 }
.noise { fill: #3d444d } .bar { fill: #6ea0d8 }
}
</style>"""
# Readable on both papers.
COLOURS = ("#2f81f7", "#e0691a", "#2da44e", "#c4459a", "#8b6fe0", "#b08800", "#d1453b", "#1b9aaa")
SHAPES = ("circle", "square", "diamond", "triangle")


class Picture:
    def __init__(self, width, height):
        self.width, self.height, self.parts = width, height, []

    def text(self, x, y, text, anchor="start", size=12, style="ink"):
        self.parts.append(f'<text class="{style}" x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}">'
                          f"{escape(text)}</text>")

    def line(self, x1, y1, x2, y2, style="grid"):
        self.parts.append(f'<path class="{style}" d="M{x1:.1f} {y1:.1f}L{x2:.1f} {y2:.1f}"/>')

    def stroke(self, points, colour, width=1.0):
        path = "L".join(f"{x:.1f} {y:.1f}" for x, y in points)
        self.parts.append(f'<path d="M{path}" fill="none" stroke="{colour}" stroke-width="{width}"/>')

    def rectangle(self, x, y, width, height, style):
        self.parts.append(f'<rect class="{style}" x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}"/>')

    def mark(self, x, y, index, title="", hollow=False):
        """A point of the series with this index: a shape and a colour of its own."""
        colour = COLOURS[index % len(COLOURS)]
        fill = f'class="paper" stroke="{colour}" stroke-width="1.6"' if hollow else f'fill="{colour}"'
        shape = SHAPES[(index + index // len(COLOURS)) % len(SHAPES)]
        tip = f"<title>{escape(title)}</title>" if title else ""
        if shape == "circle":
            self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="4" {fill}>{tip}</circle>')
            return
        corners = {"square": ((-3.5, -3.5), (3.5, -3.5), (3.5, 3.5), (-3.5, 3.5)),
                   "diamond": ((0, -5), (5, 0), (0, 5), (-5, 0)), "triangle": ((0, -5), (4.7, 4), (-4.7, 4))}[shape]
        path = "L".join(f"{x + dx:.1f} {y + dy:.1f}" for dx, dy in corners)
        self.parts.append(f'<path d="M{path}Z" {fill}>{tip}</path>')

    def svg(self):
        head = (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {self.height}" width="{self.width}" '
                f'height="{self.height}" font-family="sans-serif">')
        paper = f'<rect class="paper" width="{self.width}" height="{self.height}"/>'
        return "\n".join([head, STYLE, paper, *self.parts, "</svg>"]) + "\n"

    def save(self, path):
        path.write_text(self.svg(), encoding="utf-8")


class Scale:
    """From values to coordinates, linear or logarithmic; values outside are drawn at the edge."""

    def __init__(self, low, high, start, end, logarithmic=False):
        self.of = math.log10 if logarithmic else float
        self.low, self.high, self.start, self.end, self.logarithmic = low, high, start, end, logarithmic

    def __call__(self, value):
        value = min(max(value, self.low), self.high)
        share = (self.of(value) - self.of(self.low)) / (self.of(self.high) - self.of(self.low))
        return self.start + share * (self.end - self.start)

    def ticks(self):
        """Returns 1, 2 and 5 of each power of ten within, or about five round steps."""
        if self.logarithmic:
            powers = range(math.floor(math.log10(self.low)), math.ceil(math.log10(self.high)) + 1)
            steps = (1, 2, 5) if self.high / self.low <= 1000 else (1,)
            values = [factor * 10.0 ** power for power in powers for factor in steps]
        else:
            raw = (self.high - self.low) / 5
            power = 10.0 ** math.floor(math.log10(raw))
            step = next(factor * power for factor in (1, 2, 5, 10) if factor * power >= raw)
            values = [self.low + step * n for n in range(8)]
        return [value for value in values if self.low * 0.999 <= value <= self.high * 1.001]


def short(value):
    """Returns 1,200,000 as 1.2M."""
    for limit, letter in ((1e6, "M"), (1e3, "k")):
        if value >= limit:
            return f"{value / limit:.3g}{letter}"
    return f"{value:.3g}"
