#!/usr/bin/env python3
"""Packs FFmpeg's filter library for the GPU machine into .device/filters.tar.xz.

The library opens libavfilter at run time for scaling on the GPU. Its own dependencies
(speech synthesis, subtitles, fonts, OpenCL, ...) would take the bundle past the 64 MiB that
travel to the GPU machine, and none of them serves a scaling filter: each library that
libavfilter needs and the bundle lacks is replaced by a stub with its name and the symbols
(and symbol versions) libavfilter takes from it. libavfilter binds every symbol at load time,
so the stubs must define them all; their functions trap if ever called.

Usage, after ../shared/tools/device-bundle.sh: tests/gpu/pack_filters.py .device
On the GPU machine, unpack filters.tar.xz over the unpacked libs.tar.xz."""
import os
import re
import subprocess
import sys
import tarfile
import tempfile

RUNTIMES = re.compile(r"/(libc|libm|libpthread|libdl|librt|libstdc\+\+|libgcc_s)\.so|ld-linux")
KEEP = ("libavfilter.so", "libpostproc.so")


def run(*args):
    return subprocess.run(args, check=True, capture_output=True, text=True).stdout


def direct_needs(path):
    return re.findall(r"\(NEEDED\)\s+Shared library: \[(.+?)\]", run("readelf", "-d", path))


def resolved(path):
    """soname -> path of every library `path` loads (ldd)."""
    out = {}
    for line in run("ldd", path).splitlines():
        m = re.match(r"\s*(\S+) => (/\S+)", line)
        if m:
            out[m.group(1)] = m.group(2)
    return out


def undefined_imports(path):
    """name -> version (or None) of the undefined dynamic symbols of `path`."""
    out = {}
    for line in run("readelf", "--dyn-syms", "-W", path).splitlines():
        parts = line.split()
        if len(parts) >= 8 and parts[6] == "UND" and parts[7]:
            name, _, version = parts[7].partition("@")
            version = re.sub(r"\s*\(\d+\)$", "", version)
            out[name] = version or None
    return out


def defined_objects(path):
    """name -> (is_object, size) of what `path` exports."""
    out = {}
    for line in run("nm", "-D", "-S", "--defined-only", path).splitlines():
        parts = line.split()
        if len(parts) == 4:
            _, size, kind, name = parts
            out[name.split("@")[0]] = (kind in "DBRVdbrv", int(size, 16))
        elif len(parts) == 3:
            out[parts[2].split("@")[0]] = (parts[1] in "DBRVdbrv", 8)
    return out


def make_stub(soname, real, imports, workdir):
    exported = defined_objects(real)
    wanted = {n: v for n, v in imports.items() if n in exported}
    source, script = [], {}
    for name, version in sorted(wanted.items()):
        is_object, size = exported[name]
        source.append(f"char {name}[{max(size, 1)}];" if is_object else f"void {name}(void) {{ __builtin_trap(); }}")
        script.setdefault(version, []).append(name)
    c = os.path.join(workdir, soname + ".c")
    with open(c, "w") as f:
        f.write("\n".join(source) + "\n")
    args = ["gcc", "-shared", "-fPIC", "-O1", "-fno-builtin", "-w", "-o", os.path.join(workdir, "lib", soname),
            f"-Wl,-soname,{soname}", c]
    named = [v for v in script if v]
    if named:
        # Unversioned imports bind to a default version: they go with the first node.
        script.setdefault(named[0], []).extend(script.pop(None, []))
        vs = os.path.join(workdir, soname + ".map")
        with open(vs, "w") as f:
            for version, names in script.items():
                f.write(f"{version} {{ global: {' '.join(n + ';' for n in names)} }};\n")
        args.append(f"-Wl,--version-script={vs}")
    run(*args)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else ".device"
    with tarfile.open(os.path.join(out, "libs.tar.xz")) as t:
        bundled = {os.path.basename(n) for n in t.getnames()}
    ldd = resolved(run("sh", "-c", "ls /usr/lib/*/libavfilter.so.[0-9]*").split()[0])
    avfilter = run("sh", "-c", "ls /usr/lib/*/libavfilter.so.[0-9]*").split()[0]
    imports = undefined_imports(avfilter)
    with tempfile.TemporaryDirectory() as work:
        os.mkdir(os.path.join(work, "lib"))
        keep = [avfilter] + [p for s, p in ldd.items() if s.startswith(KEEP) and s not in bundled]
        for path in keep:
            target = os.path.join(work, "lib", os.path.basename(path))
            run("cp", "-L", path, target)
            run("strip", "--strip-unneeded", target)
        stubs = [s for s in direct_needs(avfilter)
                 if s not in bundled and not s.startswith(KEEP) and not RUNTIMES.search("/" + s)]
        for soname in stubs:
            make_stub(soname, ldd[soname], imports, work)
        archive = os.path.join(out, "filters.tar.xz")
        run("sh", "-c", f"tar -C {work}/lib -cf - . | xz -T2 -9 > {archive}")
    print(f"{archive}: {os.path.getsize(archive) // 1024} KiB, "
          f"{len(keep)} libraries and {len(stubs)} stubs ({', '.join(stubs)})")


if __name__ == "__main__":
    main()
