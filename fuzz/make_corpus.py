#!/usr/bin/env python3
"""Regenerates the seed corpora under fuzz/corpus/ from small real samples made by
FFmpeg's own encoders. Each seed is: one option byte, then payloads joined by b"ORVO".
Arguments name the targets to regenerate (default: all)."""
import os, struct, subprocess, sys, tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus")
SEP = b"ORVO"
ONLY = set(sys.argv[1:])


def wanted(target):
    return not ONLY or target in ONLY


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
    if not wanted(target):
        return
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

    # Length-prefixed NAL units (MP4 samples, camera SDKs): each start code becomes a 4-byte length.
    length_prefixed = lambda us: b"".join(struct.pack(">I", len(u) - 4) + u[4:] for u in us)
    save("fuzz_nal_payload_form", "h264_access_units", 0, [length_prefixed(units)])
    save("fuzz_nal_payload_form", "h264_nal_per_image", 0, [length_prefixed([u]) for u in units[:4]])
    save("fuzz_decode_h264", "length_prefixed", 0x00, [length_prefixed(units[:3]), length_prefixed(units[3:])])

    mjpeg = jpegs(ffmpeg(lavfi("32x24", 2) + ["-c:v", "mjpeg", "-pix_fmt", "yuvj422p", "-f", "image2pipe"], ".mjpeg"))
    save("fuzz_decode_mjpeg", "ffmpeg_path", 0, mjpeg[:2])
    save("fuzz_decode_mjpeg", "qt_path", 1, [b"\x00" * 384 + mjpeg[0]])
    save("fuzz_decode_mxpeg", "iframes", 1, mjpeg[:2])
    save("fuzz_decode_mxpeg", "ffmpeg_path", 0, mjpeg[:2])

    m4v = ffmpeg(lavfi("32x24", 3) + ["-c:v", "mpeg4", "-g", "2", "-f", "m4v"], ".m4v")
    save("fuzz_decode_mpeg", "mpeg4", 0, [m4v])
    # Key pictures: Motion JPEG, an MxPEG P-frame shape (MXM comment, no frame header), MPEG-4
    # with its VOL header, with B-frames in between and an extended pixel aspect ratio.
    m4v_b = ffmpeg(lavfi("33x25", 4) + ["-c:v", "mpeg4", "-g", "3", "-bf", "1", "-aspect", "11:7", "-f", "m4v"], ".m4v")
    mxm = b"\xff\xd8\xff\xfe\x00\x0fMXM\x00\x02\x00\x02\x00\x00\x00\x00\x00\xf0" + mjpeg[0][2:]
    save("fuzz_key_picture", "three_formats", 0x35, [mjpeg[0], mxm, m4v, m4v_b])
    # Decoded small, the size switched on and off from image to image: the decoder is
    # reopened at key pictures, with B-frames held.
    save("fuzz_decode_mpeg", "mpeg4_small_switching", 0x1b, [m4v_b[: len(m4v_b) // 2], m4v_b[len(m4v_b) // 2:], m4v])
    save("fuzz_decode_mxpeg", "pframes_small_switching", 0x1b, [mjpeg[0], mxm, mjpeg[1], mxm])  # the library
    save("fuzz_decode_mxpeg", "pframes_small_switching_ffmpeg", 0x1a, [mjpeg[0], mxm, mjpeg[1], mxm])
    m2v = ffmpeg(lavfi("32x32", 3) + ["-c:v", "mpeg2video", "-g", "2", "-f", "mpeg2video"], ".m2v")
    save("fuzz_decode_mpeg", "mpeg2", 1, [m2v])

    j2k = ffmpeg(lavfi("40x24", 1) + ["-c:v", "jpeg2000", "-f", "image2pipe"], ".j2k")
    save("fuzz_decode_jpeg2000", "codestream", 1, [j2k])

    # JPEG 2000 boxes: a JP2 file (signature, ftyp, jp2h, jp2c), a camera payload with a
    # header in front of its boxes, and a chain that ends in a zero-length box.
    jp2 = ffmpeg(lavfi("32x32", 1) + ["-c:v", "libopenjpeg", "-format", "jp2", "-numresolution", "3",
                                      "-f", "image2pipe"], ".jp2")
    box = lambda t, body: struct.pack(">I", 8 + len(body)) + t + body
    chain = box(b"ftyp", b"jp2 \0\0\0\0") + box(b"jp2h", box(b"ihdr", bytes(14))) + b"\0\0\0\0jp2c" + j2k[:64]
    for target in ("fuzz_jpeg2000_boxes", "fuzz_decode_jpeg2000_av"):
        save(target, "jp2_file", 0, [jp2])
        save(target, "jp2_codestream_atoms", 0x03, [b"CAMHDR00" + jp2, jp2])
        save(target, "zero_length_mjpeg", 0x06, [chain, mjpeg[0]])

    # H.264 slice dump and payload cut: access units, and camera payloads with doubled start
    # codes, a single trailing byte and FF padding before the next start code.
    sc = b"\x00\x00\x00\x01"
    save("fuzz_h264_slice_dump", "access_units", 0x03, [b"".join(units)])
    save("fuzz_h264_slice_dump", "camera_repairs", 0x03,
         [sc + sc + units[-1][4:] + sc + b"\x09" + sc, units[-1] + b"\xff" * 4 + sc + b"\x00", sc + sc + sc + b"\x65\x88" + sc])

    # Preset files: the usual name=value lines, comments, CR LF, blanks, unknown and bad values.
    for target in ("fuzz_encoder_presets", "fuzz_preset_tokenizer"):
        if not wanted(target):
            continue
        presets = os.path.join(OUT, target)
        os.makedirs(presets, exist_ok=True)
        with open(os.path.join(presets, "x264_lines"), "wb") as f:
            f.write(b"# low-delay camera recording\ncoder=0\r\nflags=+loop\n  me_method=dia\nsubq=1\ng=25\n"
                    b"bf=0\nrefs=1\nthreads=1\npreset=ultrafast\ntune=zerolatency\nqmin = 10\nnot_an_option=3\n"
                    b"crf=abc\n=\n\n\t# tab comment\nx264-params=keyint=5:scenecut=0\n")
        with open(os.path.join(presets, "no_newline"), "wb") as f:
            f.write(b"qcomp=0.6\nqmax=51")

    # Audio buffer scripts (operation byte, then arguments; see fuzz_audio_buffer.cpp).
    def count16(n):
        return bytes([1, n >> 8 & 255, n & 255])
    ops = b"".join([
        bytes([0x8A, 3]),                          # 4 pictures
        bytes([0x00]) + count16(3000) + bytes([0]),  # enqueue 3000 while audio lags
        bytes([0x80]) + count16(3000) + bytes([7]),  # enqueue ahead
        bytes([0x03]) + count16(5000),             # silence
        bytes([0x09]) + bytes([0, 3]),             # push 3 at front
        bytes([0x08]) + bytes([0, 5]) + bytes([0, 10]),  # discard(5, 10)
        bytes([0x07]) + bytes([0, 20]),            # discard_front(20)
        bytes([0x0D, 0x84, 0x0C, 0x02]),           # rooms, flush ahead, reset, enqueue_some
    ])
    def save_raw(target, name, data):
        if wanted(target):
            os.makedirs(os.path.join(OUT, target), exist_ok=True)
            open(os.path.join(OUT, target, name), "wb").write(data)
    for target in ("fuzz_audio_buffer", "fuzz_audio_buffer_encoder"):
        save_raw(target, "mixed_ops", ops)
    full = b"".join([bytes([0x03, 3, 255, 255, 255, 255]), bytes([0x00]) + count16(60000) + bytes([0]),
                     bytes([0x0F, 1, 0x20, 0x00]), bytes([0x8A, 7, 0x04, 0x0E])])
    for target in ("fuzz_audio_buffer", "fuzz_audio_buffer_encoder"):
        save_raw(target, "buffer_full", full)

    # H.265: access units of a small stream, and camera style one NAL unit per image.
    h265 = ffmpeg(lavfi("64x48", 3) + ["-c:v", "libx265", "-preset", "ultrafast", "-g", "2", "-bf", "0",
                                       "-x265-params", "log-level=none", "-f", "hevc"], ".hevc")
    hevc_units = nal_units(h265)
    save("fuzz_decode_h265", "access_units", 0, [h265])
    save("fuzz_decode_h265", "nal_per_image", 0, [b"".join(hevc_units[:4])] + hevc_units[4:7])
    save("fuzz_nal_payload_form", "hevc_access_units", 1, [length_prefixed(hevc_units)])
    save("fuzz_decode_h265", "length_prefixed", 0, [length_prefixed(hevc_units[:5]), length_prefixed(hevc_units[5:])])

    # Network image headers: a plain one, one with an odd I-frame byte and attached data after it.
    header = lambda t, flags, iframe, ident, time, ch, sid, psize, asize: (
        b"OIMG" + bytes([1, t, flags, iframe]) + struct.pack(">QqIIII", ident, time, ch, sid, psize, asize))
    os.makedirs(os.path.join(OUT, "fuzz_image_header"), exist_ok=True) if wanted("fuzz_image_header") else None
    for name, data in [("h264_iframe", header(ord("h"), 0, 1, 42, 1700000000000, 3, 7, 1234, 0)),
                       ("odd_iframe_byte_attached", header(ord("j"), 2, 0x80, 2**64 - 1, -40, 0, 2**32 - 1, 63, 5)
                        + b"extra"),
                       ("version_2", b"OIMG" + bytes([2]) + bytes(35))]:
        if wanted("fuzz_image_header"):
            open(os.path.join(OUT, "fuzz_image_header", name), "wb").write(data)

    # QImage import: header bytes (see fuzz_qimage_import.cpp), then pixels of a real picture.
    rgb = ffmpeg(lavfi("16x16", 1) + ["-pix_fmt", "bgra", "-f", "rawvideo"], ".rgb")
    if wanted("fuzz_qimage_import"):
        os.makedirs(os.path.join(OUT, "fuzz_qimage_import"), exist_ok=True)
        for name, head in [("argb_into_420", bytes([0x01, 15, 15, 31, 23, 4, 2])),
                           ("rgb888_enlarge_422", bytes([0x1A, 15, 11, 7, 7, 250, 3])),
                           ("rgb32_halved_444_mapped", bytes([0xE0, 15, 15, 15, 15, 0, 0]))]:
            open(os.path.join(OUT, "fuzz_qimage_import", name), "wb").write(head + rgb)

    # Decoder switching: selector byte + payload per chunk (code index 4 'h', 6 'j', 10 'y', 8 'm').
    save("fuzz_decoder_switching", "h264_jpeg_yuv_mpeg4", 0x01,
         [bytes([0x84]) + units[0] + units[1] + units[2], bytes([6]) + mjpeg[0], bytes([10]) + yuv_short(16, 8),
          bytes([8]) + m4v[:1500]])
    save("fuzz_decoder_switching", "flipping_preferences", 0x48,
         [bytes([6]) + mjpeg[0], bytes([6]) + mjpeg[1], bytes([0x84]) + b"".join(units[:3]), bytes([0x2E]) + j2k])

    vc2 = ffmpeg(["-f", "lavfi", "-i", "color=gray:size=720x288:rate=25", "-frames:v", "1", "-c:v", "vc2",
                  "-b:v", "300k", "-strict", "-1", "-f", "rawvideo"], ".drc")
    if len(vc2) < 65536:  # VC-2 has a floor of about 44 KB per field
        save("fuzz_decode_wavelet", "vc2_288", 0, [vc2])
    else:
        print("vc2 sample too large:", len(vc2), file=sys.stderr)


if __name__ == "__main__":
    main()
