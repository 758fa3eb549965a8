#!/usr/bin/env python3
"""Draws the dialog logo (a falcon's wing over a rising bar in a rounded tile) as a PNG.

The image is ours: geometry below, rendered with 4x4 supersampling and written with zlib,
so no image library is needed. Run it again after changing the drawing:
    python3 scripts/make_logo.py src/core/ksdeploycore/resources/Kestra7.png
"""
import math
import struct
import sys
import zlib

SIZE = 64
SS = 4

TILE = (31, 78, 140)
WING = (255, 255, 255)
BAR = (242, 153, 48)


def inside_rounded(x, y, x0, y0, x1, y1, r):
    if x < x0 or x > x1 or y < y0 or y > y1:
        return False
    cx = min(max(x, x0 + r), x1 - r)
    cy = min(max(y, y0 + r), y1 - r)
    return (x - cx) ** 2 + (y - cy) ** 2 <= r * r


def inside_polygon(x, y, pts):
    hit = False
    j = len(pts) - 1
    for i in range(len(pts)):
        xi, yi = pts[i]
        xj, yj = pts[j]
        if (yi > y) != (yj > y) and x < (xj - xi) * (y - yi) / (yj - yi) + xi:
            hit = not hit
        j = i
    return hit


# A swept wing: a curved leading edge from the lower left up to the tip, feathers cut below.
WING_PTS = []
for k in range(0, 21):
    t = k / 20.0
    WING_PTS.append((12 + 40 * t, 44 - 30 * math.sin(t * math.pi / 2) ** 1.3))
for fx, fy in ((46, 24), (48, 28), (40, 30), (42, 34), (33, 36), (34, 40), (24, 42), (22, 46)):
    WING_PTS.append((fx, fy))


def colour_at(x, y):
    if not inside_rounded(x, y, 2, 2, 62, 62, 11):
        return None
    if inside_rounded(x, y, 12, 50, 52, 55, 2.5):
        return BAR
    if inside_polygon(x, y, WING_PTS):
        return WING
    return TILE


def render():
    rows = []
    for py in range(SIZE):
        row = bytearray([0])
        for px in range(SIZE):
            r = g = b = a = 0
            for sy in range(SS):
                for sx in range(SS):
                    c = colour_at(px + (sx + 0.5) / SS, py + (sy + 0.5) / SS)
                    if c is not None:
                        r += c[0]
                        g += c[1]
                        b += c[2]
                        a += 1
            n = SS * SS
            if a:
                row += bytes((r // a, g // a, b // a, 255 * a // n))
            else:
                row += bytes((0, 0, 0, 0))
        rows.append(bytes(row))
    return b"".join(rows)


def chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "Kestra7.png"
    png = b"\x89PNG\r\n\x1a\n"
    png += chunk(b"IHDR", struct.pack(">IIBBBBB", SIZE, SIZE, 8, 6, 0, 0, 0))
    png += chunk(b"IDAT", zlib.compress(render(), 9))
    png += chunk(b"IEND", b"")
    with open(out, "wb") as f:
        f.write(png)


if __name__ == "__main__":
    main()
