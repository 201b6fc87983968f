#!/usr/bin/python3
"""Captures the screen of $DISPLAY, or the RandR output given by its id, to standard output as a picture (PPM)."""
import sys

import gi

gi.require_version("Ryx", "1")
from gi.repository import GLib, Ryx  # noqa: E402

try:
    Ryx.host_register()
    Ryx.host_load_modules(None)
    output = int(sys.argv[1]) if len(sys.argv) > 1 else 0
    reader = Ryx.host_create(Ryx.FRAME_BUFFER_READER_EXTENSION_POINT, None, ["output-id"], [output])
    reader.setup()
    reader.configure()
    picture = reader.grab_frame().get_frame_data()
except GLib.Error as error:
    sys.exit(error.message)

width, height, stride = picture.get_width(), picture.get_height(), picture.get_stride()
size = Ryx.pixel_format_get_size(picture.get_format())
data = picture.get_bytes().get_data()
sys.stdout.buffer.write(b"P6 %d %d 255\n" % (width, height))
for start in range(0, height * stride, stride):
    blue, green, red = (data[start + i : start + width * size : size] for i in range(3))
    sys.stdout.buffer.write(bytes(byte for pixel in zip(red, green, blue) for byte in pixel))
