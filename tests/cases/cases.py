"""The table's calls through the Python package: a call a line, tabs between, an answer a line."""
import sys

import numpy

import pulsekit3

radar = pulsekit3.Radar()
settings = radar.settings
failure = ""


def get(name):
    value = getattr(settings, name)
    return settings[name].items.index(value) if isinstance(value, str) else value


def measured(kind, capacity):
    out = None
    if capacity:
        out = numpy.empty(int(capacity), numpy.uint32 if kind == "raw" else numpy.float64)
    frame = radar.frame(kind, out)
    return [len(frame), frame.mean()]


def ends(name):
    setting = settings[name]
    return [setting.minimum, setting.maximum, int(setting.writable), int(setting.automatic)]


def geometry():
    shape = radar.geometry
    return [shape.samplers, shape.first_range, shape.range_step, shape.pulse_rate]


def streamed(rate, count):
    last = list(radar.stream(float(rate), "raw", int(count)))[-1]
    return [last.number, len(last)]


def pin(number, level):
    radar.set_pin(int(number), int(level))
    return [radar.pin(int(number))]


def whole(texts):
    return [int(text, 0) for text in texts]


def spi(channel, count, *out):
    return list(radar.spi(int(channel), bytes(whole(out)), int(count)))


CALLS = {
    "version": lambda: [pulsekit3.version()],
    "list": lambda: [radar._text("QTX_ListRadarModules")],
    "open": lambda connection: radar.open(connection),
    "close": radar.close,
    "state": lambda: [("closed", "open", "lost").index(radar.state)],
    "power_off": radar.power_off,
    "power_on": radar.power_on,
    "error": lambda: [failure],
    "set_int": lambda name, value: settings.update({name: int(value, 0)}) and None,
    "set_float": lambda name, value: settings.update({name: float(value)}) and None,
    "automatic": lambda name: settings.reset(name) and None,
    "set": lambda *pairs: list(settings.update(dict(pair.split("=") for pair in pairs))),
    "get": lambda name: [get(name)],
    "items": lambda name: [getattr(settings, name), *settings[name].items],
    "range": ends,
    "action": lambda name: radar.actions(name),
    "reset": lambda: settings.reset() and None,
    "save": radar.save,
    "load": radar.load,
    "store": lambda: radar.flash.save_settings(),
    "restore": lambda: radar.flash.load_settings(),
    "raw": lambda capacity=None: measured("raw", capacity),
    "frame": lambda capacity=None: measured("double", capacity),
    "cdf": lambda: radar.cdf().shape[::-1],
    "geometry": geometry,
    "check": lambda: [len(radar.check())],
    "calibrate": lambda block: radar.calibrate(None if block == "-1" else int(block)) and None,
    "stream": streamed,
    "flash_write": lambda address, *data: radar.flash.write(int(address), bytes(whole(data))),
    "flash_read": lambda address, size: list(radar.flash.read(int(address), int(size))),
    "board": lambda: list(radar.board.read(8)),
    "register_write": lambda address, size, value: radar.write_register(int(address, 0), int(value, 0), int(size)),
    "register_read": lambda address, size: [radar.read_register(int(address, 0), int(size))],
    "pin": pin,
    "spi": spi,
}
for line in sys.stdin:
    name, *arguments = line.rstrip("\n").split("\t")
    try:
        answer = CALLS[name](*arguments)
        print(*answer if answer is not None else ["ok"])
    except pulsekit3.Error as error:
        failure = error.text
        print("error", error.code)
