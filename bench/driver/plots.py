"""Line plots as SVG."""
import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 720, 420
LEFT, RIGHT, TOP, BOTTOM = 70, 190, 40, 55
COLOURS = ["#0b5fa5", "#c2410c", "#15803d", "#7e22ce", "#a16207", "#be123c", "#0f766e"]


def ticks(low, high, logarithmic):
    if logarithmic:
        powers = range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)
        steps = (1, 2, 5) if len(powers) < 5 else (1,)
        return [step * 10.0**power for power in powers for step in steps if low <= step * 10.0**power <= high]
    rough = (high - low) / 5 or 1
    magnitude = 10.0 ** math.floor(math.log10(rough))
    step = next(magnitude * factor for factor in (1, 2, 5, 10) if magnitude * factor >= rough)
    first = math.ceil(low / step)
    return [step * i for i in range(first, math.floor(high / step) + 1)]


def label(value):
    if value >= 1e6:
        return f"{value / 1e6:g}M"
    return f"{value / 1e3:g}k" if value >= 1e4 else f"{value:g}"


class Axis:
    def __init__(self, values, logarithmic, start, end):
        positive = [value for value in values if value > 0]
        self.logarithmic = logarithmic
        self.low = min(positive) if logarithmic else 0
        self.high = max(values)
        if self.high <= self.low:
            self.high = self.low + 1
        if logarithmic: # to the next round value, so that no line lies on the frame
            self.low, self.high = self.low / 1.25, self.high * 1.25
        else:
            self.high *= 1.05
        self.start, self.end = start, end

    def at(self, value):
        if self.logarithmic:
            value, low, high = math.log(max(value, self.low)), math.log(self.low), math.log(self.high)
        else:
            low, high = self.low, self.high
        return self.start + (value - low) / (high - low) * (self.end - self.start)

    def ticks(self):
        return ticks(self.low, self.high, self.logarithmic)


def draw(figure, series):
    """The picture of {label: [(x, y)]} with the title and axes of the table's entry."""
    points = [point for line in series.values() for point in line]
    if not points:
        raise SystemExit(f"bench: nothing was measured for the plot {figure['file']}")
    scale = figure.get("log", "")
    horizontal = Axis([x for x, _ in points], "x" in scale, LEFT, WIDTH - RIGHT)
    vertical = Axis([y for _, y in points], "y" in scale, HEIGHT - BOTTOM, TOP)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" '
           f'font-size="13">', f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
           f'<text x="{LEFT}" y="22" font-size="16" font-weight="bold">{escape(figure["title"])}</text>']
    bottom, right = HEIGHT - BOTTOM, WIDTH - RIGHT
    for tick in vertical.ticks():
        y = vertical.at(tick)
        out.append(f'<line x1="{LEFT}" y1="{y:.1f}" x2="{right}" y2="{y:.1f}" stroke="#e5e5e5"/>'
                   f'<text x="{LEFT - 8}" y="{y + 4:.1f}" text-anchor="end">{label(tick)}</text>')
    for tick in horizontal.ticks() if len(figure["at"]) > 8 else figure["at"]:
        if tick < horizontal.low:
            continue
        x = horizontal.at(tick)
        out.append(f'<line x1="{x:.1f}" y1="{bottom}" x2="{x:.1f}" y2="{bottom + 5}" stroke="#555"/>'
                   f'<text x="{x:.1f}" y="{bottom + 20}" text-anchor="middle">{label(tick)}</text>')
    out.append(f'<path d="M{LEFT} {TOP}V{bottom}H{right}" fill="none" stroke="#555"/>')
    out.append(f'<text x="{(LEFT + right) / 2}" y="{HEIGHT - 12}" text-anchor="middle">{escape(figure["x"])}</text>')
    out.append(f'<text transform="translate(18 {(TOP + bottom) / 2}) rotate(-90)" text-anchor="middle">'
               f'{escape(figure["y"])}</text>')
    for index, (name, line) in enumerate(series.items()):
        colour = COLOURS[index % len(COLOURS)]
        line = [(x, y) for x, y in line if not ("x" in scale and x <= 0)]
        path = " ".join(f"{horizontal.at(x):.1f},{vertical.at(y):.1f}" for x, y in line)
        out.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        out += [f'<circle cx="{horizontal.at(x):.1f}" cy="{vertical.at(y):.1f}" r="3" fill="{colour}"/>'
                for x, y in line]
        y = TOP + 12 + 20 * index
        out.append(f'<line x1="{right + 12}" y1="{y - 4}" x2="{right + 32}" y2="{y - 4}" stroke="{colour}" '
                   f'stroke-width="2"/><text x="{right + 38}" y="{y}">{escape(name)}'
                   f'{"" if line else " (not here)"}</text>')
    return "\n".join(out) + "\n</svg>\n"
