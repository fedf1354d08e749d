#!/usr/bin/python3
"""Checks that includes run one way between the library's folders.

    tests/house/check_layers.py [SOURCE_ROOT]

Reads every #include of the library folders (and of the public headers, each of which
belongs to one folder) and fails when a folder includes from a folder it may not use: one
that depends on it, or one the house plan keeps it apart from. The folders, lowest first:

    util <- frames <- backends <- decoders <- async
    encoders: util, frames and the decoders' preferences (and FFmpeg log mode)

Also fails for a public header that belongs to no folder below (add it where it belongs),
for an include that names no file of the tree, and for an example that includes anything
but public headers and its own files.
"""
import os
import re
import sys

# What each folder may include from, besides itself.
ALLOWED = {
    "util": set(),
    "frames": {"util"},
    "backends": {"util", "frames"},
    "decoders": {"util", "frames", "backends"},
    "encoders": {"util", "frames", "decoders"},
    "async": {"util", "frames", "backends", "decoders"},
}

# The folder each public header (include/orvo/) belongs to.
PUBLIC = {
    "util": ["elapsed_timer.h", "export.h", "image.h", "log.h", "rect.h", "rendering_timings.h"],
    "frames": ["picture_bound.h", "qimage_import.h", "scale_context.h", "video_buffer.h", "video_frame.h",
               "video_frame_helper.h", "video_frame_qt.h"],
    "decoders": ["decoder.h", "decoder_av.h", "decoder_h264.h", "decoder_jpeg.h", "decoder_jpeg2000.h",
                 "decoder_mxpeg.h", "decoder_null.h", "decoder_preferences.h", "decoder_wavelet.h", "decoding_path.h", "hardware_testing.h",
                 "decoder_yuv.h", "ffmpeg_log.h", "ffmpeg_module.h", "stream_reader.h"],
    "async": ["async_decoder.h", "async_decoder_interfaces.h", "concurrent_decoder.h",
              "concurrent_decoder_impl.h", "decoder_error.h", "single_threaded_decoder.h"],
    "encoders": ["audio_buffer_encoder.h", "av_encoder.h", "encoder.h", "encoder_error.h"],
}
# Includes every public header, for clients; nothing inside the library includes it.
UMBRELLA = "orvo.h"

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
SOURCES = (".h", ".hpp", ".cpp", ".c")


def includes(path):
    with open(path, encoding="utf-8", errors="replace") as f:
        for number, line in enumerate(f, 1):
            m = INCLUDE.match(line)
            if m:
                yield number, m.group(1) == '"', m.group(2)


def files(root, folder):
    top = os.path.join(root, folder)
    for name in sorted(os.listdir(top)):
        if name.endswith(SOURCES):
            yield os.path.join(top, name)


def main():
    root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", ".."))
    problems = []
    owner = {name: folder for folder, names in PUBLIC.items() for name in names}
    public_dir = os.path.join(root, "include", "orvo")
    for name in sorted(os.listdir(public_dir)):
        if name.endswith(".h") and name not in owner and name != UMBRELLA:
            problems.append(f"include/orvo/{name}: belongs to no folder (add it to PUBLIC in {os.path.relpath(__file__, root)})")
    for name in owner:
        if not os.path.isfile(os.path.join(public_dir, name)):
            problems.append(f"include/orvo/{name}: listed in PUBLIC but missing")

    def folder_of(target):
        """The folder an include names, None for a system header, '' for an unknown file."""
        first, _, rest = target.partition("/")
        if first == "orvo" and rest:
            if rest == UMBRELLA:
                return "umbrella"
            if rest not in owner and os.path.isfile(os.path.join(public_dir, rest)):
                return "unowned"  # reported once, above
            return owner.get(rest, "")
        if first in ALLOWED and rest:
            return first if os.path.isfile(os.path.join(root, target)) else ""
        return None

    def check(path, folder):
        shown = os.path.relpath(path, root)
        for number, quoted, target in includes(path):
            used = folder_of(target)
            if used is None:
                if quoted and not os.path.isfile(os.path.join(os.path.dirname(path), target)):
                    problems.append(f"{shown}:{number}: includes \"{target}\", which is no file of the tree")
                continue
            if used == "unowned":
                continue
            if used == "":
                problems.append(f"{shown}:{number}: includes {target}, which is no file of the tree")
            elif used == "umbrella":
                problems.append(f"{shown}:{number}: includes the clients' umbrella header {target}")
            elif used != folder and used not in ALLOWED[folder]:
                why = "which depends on it" if folder in ALLOWED[used] or depends(used, folder) else \
                    "which it may not use"
                problems.append(f"{shown}:{number}: {folder}/ includes {target} from {used}/, {why}")

    def depends(lower, upper):
        """True when `lower` may reach `upper` through the allowed includes."""
        seen, todo = set(), [lower]
        while todo:
            f = todo.pop()
            for g in ALLOWED[f]:
                if g == upper:
                    return True
                if g not in seen:
                    seen.add(g)
                    todo.append(g)
        return False

    for folder in ALLOWED:
        if depends(folder, folder):
            problems.append(f"ALLOWED lets {folder}/ reach itself: the plan has a loop")
        for path in files(root, folder):
            check(path, folder)
    for folder, names in PUBLIC.items():
        for name in names:
            path = os.path.join(public_dir, name)
            if os.path.isfile(path):
                check(path, folder)

    # Examples are built against the installed package: public headers and their own files.
    examples = os.path.join(root, "examples")
    for dirpath, _, names in os.walk(examples):
        for name in sorted(names):
            if not name.endswith(SOURCES):
                continue
            path = os.path.join(dirpath, name)
            for number, quoted, target in includes(path):
                local = quoted and os.path.isfile(os.path.join(dirpath, target))
                first, _, rest = target.partition("/")
                public = first == "orvo" and (rest in owner or rest == UMBRELLA)
                if not local and not public and (quoted or first in ALLOWED or first == "orvo"):
                    problems.append(f"{os.path.relpath(path, root)}:{number}: includes {target}, "
                                    "which is not a public header")

    for p in problems:
        print(p)
    if problems:
        print(f"{len(problems)} include(s) against the house plan")
        return 1
    print("includes run one way: " + ", ".join(f"{f} <- {', '.join(sorted(a)) or '-'}" for f, a in ALLOWED.items()))
    return 0


if __name__ == "__main__":
    sys.exit(main())
