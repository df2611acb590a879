"""Settings by name: radar.settings."""

from __future__ import annotations

import ctypes
import difflib
import fnmatch
import functools
import importlib.resources
import json
import operator
import struct
from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, NamedTuple, Optional, Union

from . import errors
from ._library import Change as _Change
from ._library import decoded, encoded, library

if TYPE_CHECKING:
    from .radar import Radar

Value = Union[int, float, str]

AUTOMATIC = "auto"  #: as a value: the setting follows its automatic value again
_LIVE = "_LiveRead"  # ends the names of those that measure anew when they are read
_INTEGER, _FLOAT, _ITEM = 2048, 4096, 8
_PREFIXES = {-15: "f", -12: "p", -9: "n", -6: "µ", -3: "m", 0: "", 3: "k", 6: "M", 9: "G", 12: "T"}


class Meaning(NamedTuple):
    """What a setting or an action is for."""

    unit: str
    help: str
    basic: bool


@functools.cache
def _meanings() -> dict[str, dict[str, Meaning]]:
    file = importlib.resources.files(__package__) / "meanings.json"
    if not file.is_file():
        return {}
    table = json.loads(file.read_text(encoding="utf-8"))
    return {model: {name: Meaning(*entry) for name, entry in names.items()} for model, names in table.items()}


def quantity(value: Value, unit: str) -> str:
    """A value as people like it: "1.5 ns", "36 GHz", "20 pulses"."""
    if isinstance(value, str):
        return value
    if unit not in ("s", "Hz", "m"):
        counted = unit.removesuffix("s") if value == 1 else unit
        return (f"{value:.6g}" if isinstance(value, float) else f"{value}") + (f" {counted}" if unit else "")
    if value == 0 or unit == "m" and abs(value) >= 0.1:
        return f"{value:.6g} {unit}"
    exponent = int(f"{value:e}".partition("e")[2]) // 3 * 3
    if exponent not in _PREFIXES:
        return f"{value:g} {unit}"
    return f"{value / 10.0 ** exponent:.6g} {_PREFIXES[exponent]}{unit}"


class Change(NamedTuple):
    """A setting that has moved."""

    before: Value
    after: Value
    automatic: bool  #: it follows its automatic value now

    def __repr__(self) -> str:
        return f"{self.before!r} -> {self.after!r}" + (" (automatic)" if self.automatic else "")


@dataclass(frozen=True)
class Setting:
    """A setting as it is now."""

    name: str
    value: Optional[Value]  #: None while it is not visible
    automatic: bool  #: whether it follows its automatic value
    writable: bool
    minimum: Optional[Value]  #: None of an enumeration
    maximum: Optional[Value]
    items: tuple[str, ...]  #: of an enumeration
    unit: str  #: "" where it has none
    meaning: str
    basic: bool  #: one that most people need

    @property
    def state(self) -> str:
        if self.value is None:
            return "hidden"
        return "read-only" if not self.writable else "automatic" if self.automatic else "fixed"

    @property
    def range(self) -> str:
        if self.items:
            return " | ".join(self.items)
        if self.minimum is None or self.maximum is None:
            return ""
        return f"{self.minimum:g} to {quantity(self.maximum, self.unit)}"

    def __repr__(self) -> str:
        value = "not visible" if self.value is None else quantity(self.value, self.unit)
        parts = [f"{self.name} = {value}", self.state, self.range]
        return ", ".join(part for part in parts if part) + (f"\n  {self.meaning}" if self.meaning else "")


class Settings:
    """The settings of an open radar.

    radar.settings.PulsesPerStep          its value
    radar.settings.PulsesPerStep = 40     sets it, on the hardware at once; "auto" gives it back its automatic value
    radar.settings["PulsesPerStep"]       all about it: value, state, range, unit, meaning
    radar.settings.update(PulsesPerStep=40, FrameStitch=3)
                                          sets a group or nothing; what has moved, automatic values too
    radar.settings.matching("*Delay*")    some of them
    """

    __slots__ = ("_radar",)

    def __init__(self, radar: Radar) -> None:
        object.__setattr__(self, "_radar", radar)

    _radar: Radar

    # ---- Names ----

    def __iter__(self) -> Iterator[str]:
        return iter(self._radar._names("QTX_ListVariables"))

    def __len__(self) -> int:
        return len(list(iter(self)))

    def __contains__(self, name: object) -> bool:
        return name in self._radar._names("QTX_ListVariables")

    def __dir__(self) -> list[str]:
        return [*super().__dir__(), *self]

    def _ipython_key_completions_(self) -> list[str]:
        return list(self)

    def __repr__(self) -> str:
        basic = [name for name in self if self._radar._meaning(name).basic and not name.endswith(_LIVE)]
        return table([self[name] for name in basic or self])

    def matching(self, pattern: str) -> Table:
        """Those whose names fit a pattern such as "*Delay*", whatever the case."""
        return Table(self[name] for name in self if fnmatch.fnmatch(name.lower(), pattern.lower()))

    # ---- Values ----

    def __getattr__(self, name: str) -> Any:
        if name.startswith("_"):
            raise AttributeError(name)
        return self._value(name, self._type(name))

    def __setattr__(self, name: str, value: object) -> None:
        self.update({name: value})

    def __setitem__(self, name: str, value: object) -> None:
        self.update({name: value})

    def __getitem__(self, name: str) -> Setting:
        """All about a setting. Reading one whose name ends in _LiveRead measures anew."""
        radar, kind = self._radar, self._type(name)
        least, most = ctypes.c_uint64(), ctypes.c_uint64()
        writable, automatic = ctypes.c_uint32(), ctypes.c_uint32()
        properties = [ctypes.byref(slot) for slot in (least, most, writable, automatic)]
        meaning = radar._meaning(name)
        value: Optional[Value] = None
        minimum: Optional[Value] = None
        maximum: Optional[Value] = None
        try:
            radar._call("QTX_VarGetIntProperties_ByName", encoded(name), *properties)
            value = self._value(name, kind)
            if kind != _ITEM:
                minimum, maximum = _number(least.value, kind), _number(most.value, kind)
        except errors.NotVisible:
            pass
        return Setting(
            name=name,
            value=value,
            automatic=bool(automatic.value),
            writable=bool(writable.value),
            minimum=minimum,
            maximum=maximum,
            items=tuple(text for _, text in self._items(name)) if kind == _ITEM else (),
            unit=meaning.unit,
            meaning=meaning.help,
            basic=meaning.basic,
        )

    def as_dict(self, fixed: bool = False) -> dict[str, Value]:
        """Name and value of all that are visible, but for those that measure anew; fixed: only those that were set."""
        result: dict[str, Value] = {}
        for name in self:
            if name.endswith(_LIVE):
                continue
            setting = self[name]
            if setting.value is not None and (setting.state == "fixed" or not fixed):
                result[name] = setting.value
        return result

    def update(self, values: Mapping[str, object] = {}, /, **more: object) -> dict[str, Change]:
        """Sets them all, or none where one can't be set, and returns what has moved.

        Everything is checked before anything changes; what follows others moves with them."""
        wanted = {**values, **more}
        radar = self._radar
        names = (ctypes.c_char_p * len(wanted))(*map(encoded, wanted))
        texts = (ctypes.c_char_p * len(wanted))(*(encoded(self._text(name, value)) for name, value in wanted.items()))
        with radar._lock:
            changes = (_Change * (len(self) + 1))()
            count = ctypes.c_uint32(len(changes))
            radar._call("QTX_VarsSetMany", names, texts, len(wanted), changes, ctypes.byref(count))
        return {decoded(change.name): self._change(change) for change in changes[: count.value]}

    def reset(self, *names: str) -> dict[str, Change]:
        """Back to the automatic values: these, or all."""
        if names:
            return self.update({name: AUTOMATIC for name in names})
        before = self.as_dict()
        self._radar._call("QTX_VarsResetAllToDefault")
        after = self.as_dict()
        return {
            name: Change(value, after[name], self[name].automatic)
            for name, value in before.items()
            if name in after and after[name] != value
        }

    # ---- Words and texts ----

    def _type(self, name: str) -> int:
        known = self._radar._types.get(name)
        if known is None:
            kind = ctypes.c_uint32()
            self._radar._call("QTX_VarGetType_ByName", encoded(name), ctypes.byref(kind))
            known = self._radar._types[name] = kind.value
        return known

    def _value(self, name: str, kind: int) -> Value:
        word = ctypes.c_uint64()
        self._radar._call("QTX_VarGetValue_ByName", encoded(name), ctypes.byref(word))
        return dict(self._items(name)).get(word.value, word.value) if kind == _ITEM else _number(word.value, kind)

    def _items(self, name: str) -> tuple[tuple[int, str], ...]:
        """Symbol numbers and texts of an enumeration, in which an item may stand twice."""
        known = self._radar._items.get(name)
        if known is None:
            symbols, count = (ctypes.c_uint32 * 256)(), ctypes.c_int32(256)
            self._radar._call("QTX_VarGetEnumsItems_ByName", encoded(name), symbols, ctypes.byref(count))
            known = tuple((symbol, self._symbol(name, symbol)) for symbol in symbols[: count.value])
            self._radar._items[name] = known
        return known

    def _symbol(self, name: str, symbol: int) -> str:
        text = ctypes.create_string_buffer(257)
        self._radar._call("QTX_VarGetSymbolString", encoded(name), symbol, text, 256)
        return decoded(text.value)

    def _text(self, name: str, value: Any) -> str:
        """As the library takes it in a group."""
        if value is None:
            return AUTOMATIC
        if isinstance(value, str):
            return value
        try:
            number = operator.index(value) if hasattr(value, "__index__") else float(value)
        except (TypeError, ValueError):
            raise TypeError(f"{name} takes a number or a text, not {value!r}") from None
        kind = self._type(name)
        if kind == _FLOAT or isinstance(number, float) and not number.is_integer():
            return repr(float(number))
        return str(int(number)) if kind == _INTEGER else self._item(name, int(number))

    def _item(self, name: str, index: int) -> str:
        items = [text for _, text in self._items(name)]
        if 0 <= index < len(items):
            return items[index]
        raise errors.own(1286, f"{name} has {len(items)} items, none with index {index}", f"take one of {', '.join(items)}")

    def _change(self, change: _Change) -> Change:
        name = decoded(change.name)
        words = (change.before, change.after)
        if change.type == _ITEM:
            before, after = (dict(self._items(name)).get(word, str(word)) for word in words)
            return Change(before, after, bool(change.automatic))
        return Change(_number(words[0], change.type), _number(words[1], change.type), bool(change.automatic))


class Actions:
    """The actions of an open radar: radar.actions.MeasureAll()"""

    __slots__ = ("_radar",)

    def __init__(self, radar: Radar) -> None:
        self._radar = radar

    def __iter__(self) -> Iterator[str]:
        return iter(self._radar._names("QTX_ListActions"))

    def __dir__(self) -> list[str]:
        return [*super().__dir__(), *self]

    def __repr__(self) -> str:
        width = max(map(len, self), default=0)
        return "\n".join(f"{name:{width}}  {self._radar._meaning(name).help}" for name in self)

    def __call__(self, name: str) -> None:
        self._radar._call("QTX_ExecuteAction_ByName", encoded(name))

    def __getattr__(self, name: str) -> Any:
        if name not in self._radar._names("QTX_ListActions"):
            near = difflib.get_close_matches(name, self, 1)
            raise errors.own(1284, name, f"near is {near[0]}" if near else "")
        return functools.partial(self, name)


class Table(tuple[Setting, ...]):
    """Settings, shown a line each."""

    def __repr__(self) -> str:
        return table(self)


def table(settings: tuple[Setting, ...] | list[Setting]) -> str:
    rows = [("setting", "value", "state", "range", "meaning")]
    for setting in settings:
        value = "" if setting.value is None else quantity(setting.value, setting.unit)
        rows.append((setting.name, value, setting.state, setting.range, setting.meaning))
    widths = [max(len(row[column]) for row in rows) for column in range(4)]
    return "\n".join("  ".join([*(cell.ljust(width) for cell, width in zip(row, widths)), row[4]]).rstrip() for row in rows)


def meaning_of(models: list[str], name: str) -> Meaning:
    for model in models:
        if name in _meanings().get(model, {}):
            return _meanings()[model][name]
    return Meaning("", "", False)


def _number(word: int, kind: int) -> Value:
    if kind == _FLOAT:
        return float(struct.unpack("<d", word.to_bytes(8, "little"))[0])
    return word
