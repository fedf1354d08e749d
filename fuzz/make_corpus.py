#!/usr/bin/env python3
"""Regenerates the seed corpora under fuzz/corpus/ from small real samples made by
FFmpeg's own encoders. Each seed is: one option byte, then payloads joined by b"ORVO"."""
import os, struct, subprocess, sys, tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus")
SEP = b"ORVO"


def ffmpeg(args, suffix):
    with tempfile.NamedTemporaryFile(suffix=suffix, delete=False) as f:
        path = f.name
    subprocess.run(["ffmpeg", "-nostdin", "-y", "-loglevel", "error"] + args + [path], check=True)
    data = open(path, "rb").read()
    os.unlink(path)
    return data


def nal_units(stream):
    """Annex B NAL units, each with its 4-byte start code."""
    starts = []
    i = 0
    while True:
        i = stream.find(b"\x00\x00\x01", i)
        if i < 0:
            break
        starts.append(i - 1 if i > 0 and stream[i - 1] == 0 else i)
        i += 3
    units = []
    for k, s in enumerate(starts):
        e = starts[k + 1] if k + 1 < len(starts) else len(stream)
        unit = stream[s:e]
        if not unit.startswith(b"\x00\x00\x00\x01"):
            unit = b"\x00" + unit
        units.append(unit)
    return units


def jpegs(stream):
    parts = stream.split(b"\xff\xd8")
    return [b"\xff\xd8" + p for p in parts[1:]]


def save(target, name, options, payloads):
    d = os.path.join(OUT, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(bytes([options]) + SEP.join(payloads))


def yuv_short(w, h):
    a = w * h
    return struct.pack(">HH", w, h) + bytes((x * 7) & 255 for x in range(a + a // 2))


def main():
    lavfi = lambda size, n: ["-f", "lavfi", "-i", f"testsrc2=size={size}:rate=25", "-frames:v", str(n)]
    # raw YUV: short form, and long form with rotations (the eight extra header bytes count as Y data)
    save("fuzz_decode_yuv", "short_16x8", 0, [yuv_short(16, 8), yuv_short(17, 3)])
    long_form = struct.pack(">HHHHHH", 0, 1, 2, 3, 8, 4) + bytes(range(40))
    save("fuzz_decode_yuv", "long_8x4", 0, [long_form])

    h264 = ffmpeg(lavfi("64x48", 3) + ["-c:v", "libx264", "-preset", "ultrafast", "-g", "2", "-bf", "0", "-f", "h264"], ".h264")
    units = nal_units(h264)
    aud = b"\x00\x00\x00\x01\x09"
    # camera style: one NAL per image, followed by a start code and a byte
    save("fuzz_decode_h264", "nal_per_image", 0x07, [u + aud + b"\x00\x00\x00\x01" for u in units[:4]])
    save("fuzz_decode_h264", "access_units", 0x80, [b"".join(units)])

    mjpeg = jpegs(ffmpeg(lavfi("32x24", 2) + ["-c:v", "mjpeg", "-pix_fmt", "yuvj422p", "-f", "image2pipe"], ".mjpeg"))
    save("fuzz_decode_mjpeg", "ffmpeg_path", 0, mjpeg[:2])
    save("fuzz_decode_mjpeg", "qt_path", 1, [b"\x00" * 384 + mjpeg[0]])
    save("fuzz_decode_mxpeg", "iframes", 1, mjpeg[:2])
    save("fuzz_decode_mxpeg", "ffmpeg_path", 0, mjpeg[:2])

    m4v = ffmpeg(lavfi("32x24", 3) + ["-c:v", "mpeg4", "-g", "2", "-f", "m4v"], ".m4v")
    save("fuzz_decode_mpeg", "mpeg4", 0, [m4v])
    m2v = ffmpeg(lavfi("32x32", 3) + ["-c:v", "mpeg2video", "-g", "2", "-f", "mpeg2video"], ".m2v")
    save("fuzz_decode_mpeg", "mpeg2", 1, [m2v])

    j2k = ffmpeg(lavfi("40x24", 1) + ["-c:v", "jpeg2000", "-f", "image2pipe"], ".j2k")
    save("fuzz_decode_jpeg2000", "codestream", 1, [j2k])

    vc2 = ffmpeg(["-f", "lavfi", "-i", "color=gray:size=720x288:rate=25", "-frames:v", "1", "-c:v", "vc2",
                  "-b:v", "300k", "-strict", "-1", "-f", "rawvideo"], ".drc")
    if len(vc2) < 65536:  # VC-2 has a floor of about 44 KB per field
        save("fuzz_decode_wavelet", "vc2_288", 0, [vc2])
    else:
        print("vc2 sample too large:", len(vc2), file=sys.stderr)


if __name__ == "__main__":
    main()
