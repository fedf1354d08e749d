#!/usr/bin/python3
# A real RTSP server for the network suite: GStreamer's RTSP server serving videotestsrc
# through x264enc, x265enc or jpegenc and the RTP payloaders on a free port of 127.0.0.1.
# Prints the port on its first line once it listens, then serves until it is killed.
#   rtsp_server.py CODEC [--frames N] [--live] [--drop P] [--gop N] [--mtu N] [--rate N]
#   rtsp_server.py --check   exits 0 when every element the server needs is installed, else
#                            prints what is missing
# --frames N: each client gets its own stream of N pictures from picture 0 (the same bytes
#             for every client), which ends with the RTSP session; without it the stream is
#             endless.
# --live:     one shared, live stream (clients join it as it runs).
# --drop P:   drops RTP packets with probability P after the payloader.
# Run with Debian's /usr/bin/python3 (the GStreamer bindings are Debian packages).
import argparse
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402

ENCODERS = {
    # One slice and one thread per picture: every client gets the same bytes.
    "h264": "x264enc tune=zerolatency speed-preset=ultrafast threads=1 sliced-threads=false key-int-max={gop}"
            " ! rtph264pay mtu={mtu} config-interval=-1 pt=96",
    "h265": "x265enc tune=zerolatency speed-preset=ultrafast key-int-max={gop}"
            " option-string=frame-threads=1:pools=none:log-level=error"
            " ! rtph265pay mtu={mtu} config-interval=-1 pt=96",
    "mjpeg": "jpegenc quality=85 ! rtpjpegpay mtu={mtu} pt=26",
}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("codec", nargs="?", choices=sorted(ENCODERS))
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--frames", type=int, default=-1)
    parser.add_argument("--live", action="store_true")
    parser.add_argument("--drop", type=float, default=0.0)
    parser.add_argument("--gop", type=int, default=10)
    parser.add_argument("--mtu", type=int, default=1400)
    parser.add_argument("--rate", type=int, default=50)
    args = parser.parse_args()

    Gst.init(None)
    if args.check:
        needed = ["videotestsrc", "identity", "x264enc", "x265enc", "jpegenc", "rtph264pay", "rtph265pay",
                  "rtpjpegpay"]
        missing = [name for name in needed if Gst.ElementFactory.find(name) is None]
        if missing:
            sys.exit("GStreamer elements missing: " + " ".join(missing))
        return
    source = "videotestsrc pattern=ball is-live={} num-buffers={}".format(
        "true" if args.live else "false", args.frames)
    caps = "video/x-raw,format=I420,width=320,height=240,framerate={}/1".format(args.rate)
    encode = ENCODERS[args.codec].format(gop=args.gop, mtu=args.mtu)
    # The server streams from the element named pay0: the dropper when there is one.
    if args.drop > 0:
        tail = " ! identity drop-probability={} name=pay0".format(args.drop)
    else:
        tail = " name=pay0"
    launch = "( {} ! {} ! {}{} )".format(source, caps, encode, tail)

    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service("0")
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(launch)
    factory.set_shared(args.live)
    server.get_mount_points().add_factory("/cam", factory)
    if server.attach(None) == 0:
        sys.exit("cannot listen")
    print(server.get_bound_port(), flush=True)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main()
