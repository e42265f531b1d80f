#!/usr/bin/python3
"""A GStreamer RTSP server on loopback for the RTSP fetcher's integration tests.

Mounts (all live test sources, 320x240 at 25 fps, 8 kHz or 16 kHz audio):
  /h264aac   H.264 + AAC (MPEG4-GENERIC)      /h264latm  H.264 + AAC (MP4A-LATM)
  /hevc      H.265                            /mjpeg     JPEG + PCMA
  /mpeg4     MPEG-4 Part 2 from --mpeg4-file  /pcma      PCMA only
  /amr       JPEG + AMR narrow band           /tcponly   H.264, RTP over TCP only
  /stopping  JPEG that stops sending after --stop-after seconds (the session stays)

With --auth basic|digest every mount needs --user/--password (anonymous requests get 401).
Runs until killed; the test harness bounds it in time and stops it by its pid.
"""
import argparse
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtsp", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtsp, GstRtspServer  # noqa: E402

VIDEO = ("videotestsrc is-live=true pattern=ball ! "
         "video/x-raw,format=I420,width=320,height=240,framerate=25/1 ! ")
H264 = VIDEO + ("x264enc tune=zerolatency speed-preset=ultrafast key-int-max=25 "
                "bitrate=500 ! rtph264pay name=pay0 pt=96 config-interval=1")
AAC_SRC = ("audiotestsrc is-live=true wave=sine ! "
           "audio/x-raw,rate=16000,channels=1 ! voaacenc bitrate=32000 ! ")
PCMA_SRC = ("audiotestsrc is-live=true wave=sine ! audio/x-raw,rate=8000,channels=1 ! "
            "alawenc ! ")

MOUNTS = {
    "/h264aac": f"( {H264} {AAC_SRC} rtpmp4gpay name=pay1 pt=97 )",
    "/h264latm": f"( {H264} {AAC_SRC} rtpmp4apay name=pay1 pt=97 )",
    "/hevc": "( " + VIDEO + "x265enc tune=zerolatency speed-preset=ultrafast "
             "key-int-max=25 bitrate=500 ! rtph265pay name=pay0 pt=96 config-interval=1 )",
    "/mjpeg": "( " + VIDEO + "jpegenc quality=60 ! rtpjpegpay name=pay0 pt=26 "
              + PCMA_SRC + "rtppcmapay name=pay1 pt=8 )",
    "/pcma": "( " + PCMA_SRC + "rtppcmapay name=pay0 pt=8 )",
    "/amr": "( " + VIDEO + "jpegenc quality=60 ! rtpjpegpay name=pay0 pt=26 "
            "audiotestsrc is-live=true ! audio/x-raw,rate=8000,channels=1 ! "
            "amrnbenc ! rtpamrpay name=pay1 pt=97 )",
    "/tcponly": f"( {H264} )",
    "/stopping": "( " + VIDEO + "jpegenc quality=60 ! identity name=gate ! "
                 "rtpjpegpay name=pay0 pt=26 )",
}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--auth", choices=["none", "basic", "digest"], default="none")
    parser.add_argument("--user", default="")
    parser.add_argument("--password", default="")
    parser.add_argument("--stop-after", type=float, default=3.0)
    # The encoder element cannot restart a live pipeline, so MPEG-4 Part 2 is served from
    # a Matroska file the test prepared (paced by its timestamps).
    parser.add_argument("--mpeg4-file", default="")
    args = parser.parse_args()
    mounts_launch = dict(MOUNTS)
    if args.mpeg4_file:
        mounts_launch["/mpeg4"] = (f"( filesrc location={args.mpeg4_file} ! matroskademux ! "
                                   "mpeg4videoparse ! rtpmp4vpay name=pay0 pt=96 "
                                   "config-interval=1 )")

    Gst.init(None)
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(str(args.port))
    mounts = server.get_mount_points()

    if args.auth != "none":
        auth = GstRtspServer.RTSPAuth()
        token = GstRtspServer.RTSPToken()
        token.set_string(GstRtspServer.RTSP_TOKEN_MEDIA_FACTORY_ROLE, "user")
        if args.auth == "basic":
            auth.set_supported_methods(GstRtsp.RTSPAuthMethod.BASIC)
            auth.add_basic(GstRtspServer.RTSPAuth.make_basic(args.user, args.password), token)
        else:
            auth.set_supported_methods(GstRtsp.RTSPAuthMethod.DIGEST)
            auth.add_digest(args.user, args.password, token)
        server.set_auth(auth)

    for path, launch in mounts_launch.items():
        factory = GstRtspServer.RTSPMediaFactory()
        factory.set_launch(launch)
        factory.set_shared(False)
        if path == "/tcponly":
            factory.set_protocols(GstRtsp.RTSPLowerTrans.TCP)
        if args.auth != "none":
            factory.add_role_from_structure(Gst.Structure.new_from_string(
                "user, media.factory.access=(boolean)true, "
                "media.factory.construct=(boolean)true"))
        if path == "/stopping":
            factory.connect("media-configure", on_stopping_media, args.stop_after)
        mounts.add_factory(path, factory)

    if server.attach(None) == 0:
        print("cannot listen on port", args.port, file=sys.stderr)
        return 1
    print("listening on", args.port, flush=True)
    GLib.MainLoop().run()
    return 0


def on_stopping_media(factory, media, stop_after):
    gate = media.get_element().get_by_name("gate")

    def close_gate():
        gate.set_property("drop-probability", 1.0)
        return False

    GLib.timeout_add(int(stop_after * 1000), close_gate)


if __name__ == "__main__":
    sys.exit(main())
