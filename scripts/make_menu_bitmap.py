#!/usr/bin/env python3
"""Draws the 32x32 menu glyph of the extension (bitmap 205) as a 24-bit BMP.

A managed drive as the product shows it: a slate drive body with its status light, a mountain ridge (the
"mount" of Velmount) on its face, and an amber arrow for the quick copy and move. Run from the repository
root: python3 scripts/make_menu_bitmap.py resources/MenuIcon.bmp
"""
import struct
import sys

SIZE = 32
BACKGROUND = (255, 255, 255)
BODY = (52, 73, 94)
BODY_EDGE = (33, 47, 61)
FACE = (93, 173, 226)
RIDGE = (245, 248, 250)
SHADOW = (40, 116, 166)
ARROW = (243, 156, 18)
ARROW_EDGE = (175, 96, 5)
LIGHT = (46, 204, 113)


def inside_rounded(x, y, left, top, right, bottom, radius):
    if x < left or x > right or y < top or y > bottom:
        return False
    cx = min(max(x, left + radius), right - radius)
    cy = min(max(y, top + radius), bottom - radius)
    return (x - cx) ** 2 + (y - cy) ** 2 <= radius ** 2


def ridge_height(x):
    # Two peaks over the face, the right one higher: a V between them.
    peaks = [(9, 11), (19, 7)]
    return min(abs(x - px) * 1.1 + py for px, py in peaks)


def arrow(x, y):
    # A right-pointing arrow in the lower right corner: shaft, then head.
    if 17 <= x <= 23 and 23 <= y <= 26:
        return True
    if 23 <= x <= 29 and abs(y - 24.5) <= (29 - x) * 0.9 + 0.5:
        return True
    return False


def pixel(x, y):
    colour = BACKGROUND
    if inside_rounded(x, y, 2, 3, 29, 28, 4):
        colour = BODY_EDGE
    if inside_rounded(x, y, 3, 4, 28, 27, 3):
        colour = BODY
    if 5 <= x <= 26 and 6 <= y <= 19:
        colour = FACE
        if y >= ridge_height(x):
            colour = RIDGE if y <= ridge_height(x) + 2 else SHADOW
    if 6 <= x <= 8 and 22 <= y <= 24:
        colour = LIGHT
    if arrow(x, y):
        colour = ARROW
        if not (arrow(x - 1, y) and arrow(x + 1, y) and arrow(x, y - 1) and arrow(x, y + 1)):
            colour = ARROW_EDGE
    return colour


def main(path):
    rows = []
    for y in range(SIZE - 1, -1, -1):  # BMP rows go bottom-up
        row = bytearray()
        for x in range(SIZE):
            r, g, b = pixel(x, y)
            row += bytes((b, g, r))
        rows.append(bytes(row))  # 96 bytes: already a multiple of 4
    bits = b"".join(rows)
    info = struct.pack("<IiiHHIIiiII", 40, SIZE, SIZE, 1, 24, 0, len(bits), 2835, 2835, 0, 0)
    header = struct.pack("<2sIHHI", b"BM", 14 + len(info) + len(bits), 0, 0, 14 + len(info))
    with open(path, "wb") as out:
        out.write(header + info + bits)


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "resources/MenuIcon.bmp")
