#!/usr/bin/env python3
"""Compares two sprite sheets by their pixels.

Usage: compare_images.py LINUX_SHEET WINDOWS_SHEET MIN_PSNR

Both PNG: decoded here (zlib only) to RGBA; "same pixels" or a count of the
pixels that differ. A fully transparent pixel has no colour: GDI+ draws
premultiplied, so on Windows its colour channels are 0, where the Linux
drawing keeps what the source stored; such pixels are counted apart. Both JPEG: decoded by djpeg to RGB; "within" when the
sizes agree and the PSNR reaches MIN_PSNR dB, else "below". Prints one line.
"""
import math
import struct
import subprocess
import sys
import zlib


def paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


def decode_png(data):
    """RGBA bytes, width, height of a non-interlaced PNG."""
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("not a PNG")
    at, idat, palette, trns = 8, b"", b"", b""
    while at + 8 <= len(data):
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour, _, _, interlace = struct.unpack(">IIBBBBB", body)
        elif kind == b"PLTE":
            palette = body
        elif kind == b"tRNS":
            trns = body
        elif kind == b"IDAT":
            idat += body
        elif kind == b"IEND":
            break
        at += 12 + length
    if interlace:
        raise ValueError("interlaced PNG")
    channels = {0: 1, 2: 3, 3: 1, 4: 2, 6: 4}[colour]
    bits = channels * depth
    stride = (width * bits + 7) // 8
    step = max(1, bits // 8)
    raw = zlib.decompress(idat)
    rows, previous = [], bytearray(stride)
    for y in range(height):
        kind = raw[y * (stride + 1)]
        line = bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - step] if i >= step else 0
            b = previous[i]
            c = previous[i - step] if i >= step else 0
            line[i] = (line[i] + (0, a, b, (a + b) // 2, paeth(a, b, c))[kind]) & 0xFF
        rows.append(line)
        previous = line
    out = bytearray()
    for line in rows:
        for x in range(width):
            if depth < 8:
                per = 8 // depth
                value = (line[x // per] >> (8 - depth * (x % per + 1))) & ((1 << depth) - 1)
                samples = [value]
            else:
                samples = list(line[x * channels * (depth // 8):(x + 1) * channels * (depth // 8):depth // 8])
            if colour == 3:
                index = samples[0]
                alpha = trns[index] if index < len(trns) else 255
                out += palette[3 * index:3 * index + 3] + bytes([alpha])
            elif colour == 0:
                g = samples[0] * 255 // ((1 << depth) - 1)
                out += bytes([g, g, g, 255])
            elif colour == 4:
                out += bytes([samples[0]] * 3 + [samples[1]])
            elif colour == 2:
                out += bytes(samples + [255])
            else:
                out += bytes(samples)
    return bytes(out), width, height


def decode_jpeg(path):
    ppm = subprocess.run(["djpeg", "-pnm", path], check=True, capture_output=True).stdout
    fields, at = [], 0
    while len(fields) < 4:
        while ppm[at:at + 1].isspace():
            at += 1
        end = at
        while not ppm[end:end + 1].isspace():
            end += 1
        fields.append(ppm[at:end])
        at = end
    return ppm[at + 1:], int(fields[1]), int(fields[2])


def main():
    left_path, right_path, min_psnr = sys.argv[1], sys.argv[2], float(sys.argv[3])
    left, right = open(left_path, "rb").read(), open(right_path, "rb").read()
    if left[:4] == b"\x89PNG" and right[:4] == b"\x89PNG":
        a, aw, ah = decode_png(left)
        b, bw, bh = decode_png(right)
        if (aw, ah) != (bw, bh):
            print(f"size differs: {aw}x{ah} against {bw}x{bh}")
        else:
            differing = hidden = 0
            for i in range(0, len(a), 4):
                if a[i:i + 4] == b[i:i + 4]:
                    continue
                if a[i + 3] == 0 and b[i + 3] == 0:
                    hidden += 1
                else:
                    differing += 1
            if differing:
                print(f"pixels differ: {differing} of {aw * ah}")
            else:
                print(f"same pixels ({aw}x{ah} PNG; {len(left)} and {len(right)} bytes; "
                      f"{hidden} transparent pixels differ in hidden colour only)")
    elif left[:2] == b"\xff\xd8" and right[:2] == b"\xff\xd8":
        a, aw, ah = decode_jpeg(left_path)
        b, bw, bh = decode_jpeg(right_path)
        if (aw, ah) != (bw, bh):
            print(f"size differs: {aw}x{ah} against {bw}x{bh}")
            return
        error = sum((x - y) ** 2 for x, y in zip(a, b)) / max(1, len(a))
        psnr = float("inf") if error == 0 else 10 * math.log10(255 * 255 / error)
        verdict = "within" if psnr >= min_psnr else "below"
        print(f"{verdict} {min_psnr:g} dB: PSNR {psnr:.2f} dB ({aw}x{ah} JPEG; "
              f"{len(left)} and {len(right)} bytes)")
    else:
        print("formats differ or unknown")


if __name__ == "__main__":
    main()
