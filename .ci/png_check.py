# Decodes an 8-bit RGB/RGBA PNG with the standard library and checks it is not blank.
import struct, sys, zlib
data = open(sys.argv[1], "rb").read()
assert data[:8] == b"\x89PNG\r\n\x1a\n", "not a PNG"
pos, idat = 8, b""
while pos < len(data):
    length, kind = struct.unpack(">I4s", data[pos:pos + 8])
    body = data[pos + 8:pos + 8 + length]
    if kind == b"IHDR":
        width, height, depth, ctype, _, _, interlace = struct.unpack(">IIBBBBB", body)
    elif kind == b"IDAT":
        idat += body
    pos += 12 + length
assert depth == 8 and ctype in (2, 6) and interlace == 0, f"unsupported PNG {depth=} {ctype=}"
bpp = 3 if ctype == 2 else 4
raw, stride = zlib.decompress(idat), width * bpp
prev, colours, coloured = bytearray(stride), set(), 0
for y in range(height):
    base = y * (stride + 1)
    ftype, row = raw[base], bytearray(raw[base + 1:base + 1 + stride])
    if ftype == 1:
        for i in range(bpp, stride): row[i] = (row[i] + row[i - bpp]) & 255
    elif ftype == 2:
        row = bytearray((a + b) & 255 for a, b in zip(row, prev))
    elif ftype == 3:
        for i in range(stride):
            row[i] = (row[i] + ((row[i - bpp] if i >= bpp else 0) + prev[i]) // 2) & 255
    elif ftype == 4:
        for i in range(stride):
            a = row[i - bpp] if i >= bpp else 0
            b, c = prev[i], (prev[i - bpp] if i >= bpp else 0)
            p = a + b - c
            pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
            row[i] = (row[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
    for x in range(0, stride, bpp):
        px = bytes(row[x:x + 3])
        colours.add(px)
        if px != b"\xff\xff\xff": coloured += 1
    prev = row
share = coloured / (width * height)
print(f"{width}x{height}, {len(colours)} colours, {100 * share:.1f}% non-white")
sys.exit(0 if len(colours) >= 8 and share >= 0.02 else 1)
