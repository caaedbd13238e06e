"""A whole JTAG chain from Python, through libkelvorn.

kelvorn drives the JTAG port of an FPGA or CPLD on a network-equipment
board by bit-banging GPIO pins of another chip on that board. This module
is plain Python over the C library (ctypes): open a device, find what is on
its chain, shift instructions and data of one device with the others in
BYPASS, play SVF and XSVF files, and, from the devices' BSDL files, sample
a device's pins, read its USERCODE, drive its pins and test a net between
two devices.

    import kelvorn
    with kelvorn.open("rotanMotub", "0000:03:00.0") as dev:
        for d in dev.discover():
            print(d.position, d.idcode, d.manufacturer)
        print(dev.sample("KV_FPGA6").pins)
        dev.play("image.svf")

Answers are typed records (DeviceFacts, Sample, Usercode, Drive, Connect,
PlayResult); their fields are kelvorn-chain --json's keys, which also index
them (d["position"]). A device is named by its position on the chain or by
the entity name of its BSDL file. Each failure raises the subclass of Error
for its status (Locked, DeadChain, DriveRefused, ...).

With ``sim="--chain ..."`` the device is on the simulated board instead
(libkelvorn-sim, configured with kelvorn-sim's board options), so a
script can be tested without hardware.

The libraries are found where the dynamic linker finds them, or in the
directory named by the KELVORN_LIBRARY_PATH environment variable.
"""

from __future__ import annotations

import ctypes
import json
import os
import threading
from dataclasses import dataclass, fields
from typing import Any, Callable, Dict, Iterator, List, Mapping, Optional, Sequence, Type, Union

__all__ = ["open", "Device", "Error", "BadArgument", "NoBackend", "Locked", "Refused", "Unreadable", "BadSyntax",
           "Unsupported", "TdoMismatch", "Cancelled", "DeadChain", "BsdlError", "SimError", "OutOfMemory",
           "Reentrant", "Closed", "DriveRefused", "NotConnected", "FaultFound", "BadNetlist", "DeviceFacts", "Sample",
           "Usercode", "Drive", "Connect", "NetResult", "Fault", "BoardTest", "PlayResult", "LIBRARY", "SIM_LIBRARY", "MAX_BITS"]

LIBRARY = "libkelvorn.so.1"
SIM_LIBRARY = "libkelvorn-sim.so.1"

# Statuses of kelvorn/kelvorn.h.
OK = 0
E_ARGUMENT = 1
E_NO_BACKEND = 2
E_LOCKED = 3
E_REFUSED = 4
E_UNREADABLE = 5
E_SYNTAX = 6
E_UNSUPPORTED = 7
E_MISMATCH = 8
E_CANCELLED = 9
E_DEAD_CHAIN = 10
E_BSDL = 11
E_SIM = 12
E_MEMORY = 13
E_REENTRANT = 14
E_CLOSED = 15
E_DRIVE_REFUSED = 16
E_NOT_CONNECTED = 17
E_FAULT_FOUND = 18
E_NETLIST = 19

# The longest data register shift_dr shifts (KV_MAX_BITS): 2**30 bits, 128 MiB.
MAX_BITS = 1 << 30
_UINT_MAX = 0xFFFFFFFF  # what the C functions' positions and lengths hold

_TEST_MODE = 1
_I_KNOW_THE_BOARD = 2
_FORMATS = {"auto": 0, "svf": 1, "xsvf": 2}

Progress = Callable[[int, int, int], Optional[bool]]
# A device on the chain: its position, or the entity name of its BSDL file.
DeviceName = Union[int, str]


class _Record:
    """A record's fields by kelvorn-chain's JSON keys too: rec["position"]."""

    _keys: Dict[str, str] = {}  # JSON key -> field, where they differ

    def __getitem__(self, key: str) -> Any:
        name = self._keys.get(key, key)
        if name not in self.keys():
            raise KeyError(key)
        return getattr(self, name)

    def keys(self) -> List[str]:
        return [f.name for f in fields(self)]

    def __iter__(self) -> Iterator[str]:
        return iter(self.keys())


@dataclass(frozen=True)
class DeviceFacts(_Record):
    """A device found on the chain, nearest TDO first."""
    position: int
    idcode: Optional[str]  # "0x0a5c7035"; None: BYPASS after reset
    ir_length: int
    ir_length_from: str  # "bsdl", "option", "detected", "guess"
    manufacturer: Optional[str]
    part: Optional[str]  # the BSDL file's entity
    version: Optional[int]
    bsdl: Optional[str]  # the BSDL file's path
    jep106: Optional[Dict[str, int]]  # {"bank": B, "code": C}


@dataclass(frozen=True)
class Sample(_Record):
    """SAMPLE of a device's pins: each port with an input cell, in cell order."""
    device: int
    pins: Dict[str, int]
    package: Optional[str]
    package_pins: Dict[str, List[str]]


@dataclass(frozen=True)
class Usercode(_Record):
    device: int
    usercode: int


@dataclass(frozen=True)
class Drive(_Record):
    """What a drive drives: the ports at their levels (the two-state outputs
    not named among them, at their safe levels), held hold_s seconds or
    (None) until release()."""
    device: int
    driving: Dict[str, int]
    two_state_at_safe_level: List[str]
    hold_s: Optional[float]


@dataclass(frozen=True)
class Connect(_Record):
    """A net tested: "connected", "stuck-0", "stuck-1" or "inverted"."""
    from_: str
    to: str
    result: str
    _keys = {"from": "from_"}

    @property
    def connected(self) -> bool:
        return self.result == "connected"


@dataclass(frozen=True)
class NetResult(_Record):
    """A net of the board test: its class ("testable", "pulled",
    "untestable", "power"), result ("pass", "fail", "untestable"), every
    pin as "REF.PIN", and why it is untestable."""
    name: str
    class_: str
    result: str
    pins: List[str]
    reason: Optional[str] = None
    _keys = {"class": "class_"}


@dataclass(frozen=True)
class Fault(_Record):
    """A fault the board test found: kind "open", "short", "stuck-0" or
    "stuck-1"; a short's behaviour is "wired-and", "wired-or" or the net
    that dominates."""
    kind: str
    nets: List[str]
    pins: List[str]
    behaviour: Optional[str]


@dataclass(frozen=True)
class BoardTest(_Record):
    """A board's interconnect test: every net, the faults, the patterns
    applied and the DR scans they took."""
    nets: List[NetResult]
    faults: List[Fault]
    patterns: int
    scans: int

    @property
    def passed(self) -> bool:
        return not self.faults and all(n.result != "fail" for n in self.nets)


@dataclass(frozen=True)
class PlayResult(_Record):
    """A play's counts, of this play alone."""
    statements: int
    scans: int
    bits: int
    tck_cycles: int
    seconds: float


class Error(Exception):
    """A call the library refused or that failed; ``status`` is its KV_E_ code."""

    def __init__(self, status: int, message: str) -> None:
        super().__init__(message)
        self.status = status
        self.message = message


class TdoMismatch(Error):
    """TDO other than a vector file expected.

    ``file`` is the path (or the buffer's name); ``line`` the SVF line (from 1)
    or ``offset`` the XSVF byte offset (from 0), the other None; ``statement``
    the scan's keyword; ``bits`` its length; ``expected``, ``mask`` and
    ``actual`` the whole scan as ints (bit 0 the first shifted).
    """

    def __init__(self, status: int, message: str, info: Optional["_MismatchInfo"] = None) -> None:
        super().__init__(status, message)
        self.file: str = info.file.decode(errors="replace") if info else ""
        self.line: Optional[int] = None if not info or info.byte_offset else int(info.where)
        self.offset: Optional[int] = int(info.where) if info and info.byte_offset else None
        self.statement: str = info.statement.decode(errors="replace") if info else ""
        self.bits: int = int(info.nbits) if info else 0
        self.expected: int = int(info.expected or b"0", 16) if info else 0
        self.mask: int = int(info.mask or b"0", 16) if info else 0
        self.actual: int = int(info.actual or b"0", 16) if info else 0


class Cancelled(Error):
    """The progress callback stopped a play; the pins were given back."""


class Closed(Error):
    """The device is closed, or another thread closed it during the call
    (which then gave the pins back)."""


class Reentrant(Error):
    """A call on the device from inside a call on it (its progress
    callback): nothing was done; the running call must return first."""


class BadArgument(Error):
    """An argument the library refused: a position or a name no device on
    the chain has, a bit count, a PCI address."""


class NoBackend(Error):
    """No backend serves the device name on this board."""


class Locked(Error):
    """The device's lock is held, by another process or another open device."""


class Refused(Error):
    """The backend refused the board (it printed why)."""


class Unreadable(Error):
    """A file cannot be read, or it changed after its check."""


class BadSyntax(Error):
    """Not valid SVF or XSVF."""


class Unsupported(Error):
    """A statement that cannot be carried out, a timing value out of range."""


class DeadChain(Error):
    """No device answers, or the chain answers inconsistently."""


class BsdlError(Error):
    """A BSDL file cannot be read, or none describes what a command needs."""


class SimError(Error):
    """Simulator options not understood, or not the simulator library."""


class OutOfMemory(Error):
    """The library ran out of memory."""


class DriveRefused(Error):
    """A drive or connect refused before any pin moved: a port with no
    output cell, ports that share a control cell, a BSDL file found rather
    than given (open with i_know_the_board=True to allow it)."""


class NotConnected(Error):
    """connect(): the net is stuck or inverted; ``connect`` holds the test's record."""

    def __init__(self, status: int, message: str, connect: Optional[Connect] = None) -> None:
        super().__init__(status, message)
        self.connect = connect


class FaultFound(Error):
    """The board test found a fault (test() returns the report instead of raising it)."""


class BadNetlist(Error):
    """The netlist cannot be read, or does not fit the chain: a part with
    no BSDL file, a pin not in a part's pin map."""


_ERRORS: Dict[int, Type[Error]] = {
    E_ARGUMENT: BadArgument, E_NO_BACKEND: NoBackend, E_LOCKED: Locked, E_REFUSED: Refused,
    E_UNREADABLE: Unreadable, E_SYNTAX: BadSyntax, E_UNSUPPORTED: Unsupported, E_MISMATCH: TdoMismatch,
    E_CANCELLED: Cancelled, E_DEAD_CHAIN: DeadChain, E_BSDL: BsdlError, E_SIM: SimError, E_MEMORY: OutOfMemory,
    E_REENTRANT: Reentrant, E_CLOSED: Closed, E_DRIVE_REFUSED: DriveRefused, E_NOT_CONNECTED: NotConnected,
    E_FAULT_FOUND: FaultFound, E_NETLIST: BadNetlist,
}


def _error(status: int, message: str) -> Error:
    return _ERRORS.get(status, Error)(status, message)


def _text(name: str, value: object) -> bytes:
    """A str argument for C, refused with TypeError (never ctypes' ArgumentError) when it is none."""
    if not isinstance(value, str):
        raise TypeError(f"{name} must be a str, not {type(value).__name__}")
    if "\0" in value:
        raise ValueError(f"{name} holds a NUL character")
    return value.encode()


def _device(value: object) -> bytes:
    """A device as the library names it: a position, or an entity name."""
    if isinstance(value, bool) or not isinstance(value, (int, str)):
        raise TypeError(f"a device is a position (int) or the entity name of its BSDL file (str), "
                        f"not {type(value).__name__}")
    if isinstance(value, int):
        return str(_count("position", value, 0, _UINT_MAX)).encode()
    return _text("device", value)


def _count(name: str, value: int, low: int, high: int) -> int:
    """value as a C count or position, refused (never wrapped) outside low..high."""
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"{name} must be an int, not {type(value).__name__}")
    if not low <= value <= high:
        raise ValueError(f"{name}: {value} is out of range ({low} to {high})")
    return value


class _PlayResult(ctypes.Structure):
    _fields_ = [
        ("statements", ctypes.c_uint64),
        ("scans", ctypes.c_uint64),
        ("bits", ctypes.c_uint64),
        ("tck_cycles", ctypes.c_uint64),
        ("seconds", ctypes.c_double),
    ]


class _TestRequest(ctypes.Structure):
    _fields_ = [
        ("netlist", ctypes.c_char_p),
        ("parts", ctypes.POINTER(ctypes.c_char_p)),
        ("n_parts", ctypes.c_size_t),
        ("packages", ctypes.POINTER(ctypes.c_char_p)),
        ("n_packages", ctypes.c_size_t),
        ("pulls", ctypes.POINTER(ctypes.c_char_p)),
        ("n_pulls", ctypes.c_size_t),
        ("power", ctypes.POINTER(ctypes.c_char_p)),
        ("n_power", ctypes.c_size_t),
        ("junit", ctypes.c_char_p),
    ]


class _MismatchInfo(ctypes.Structure):
    _fields_ = [
        ("file", ctypes.c_char_p),
        ("byte_offset", ctypes.c_int),
        ("where", ctypes.c_uint64),
        ("statement", ctypes.c_char_p),
        ("nbits", ctypes.c_uint32),
        ("expected", ctypes.c_char_p),
        ("mask", ctypes.c_char_p),
        ("actual", ctypes.c_char_p),
    ]


_PROGRESS = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_uint64, ctypes.c_uint64, ctypes.c_uint64)
_libraries: Dict[str, ctypes.CDLL] = {}
_loading = threading.Lock()


def _load(name: str) -> ctypes.CDLL:
    with _loading:
        if name in _libraries:
            return _libraries[name]
        where = os.environ.get("KELVORN_LIBRARY_PATH")
        lib = ctypes.CDLL(os.path.join(where, name) if where else name)
        dev = ctypes.c_void_p
        u8p = ctypes.POINTER(ctypes.c_uint8)
        signatures = {
            "kv_status_name": (ctypes.c_char_p, [ctypes.c_int]),
            "kv_open": (ctypes.c_int, [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_uint, ctypes.c_double,
                                       ctypes.POINTER(dev)]),
            "kv_close": (ctypes.c_int, [dev]),
            "kv_message": (ctypes.c_char_p, [dev]),
            "kv_add_bsdl": (ctypes.c_int, [dev, ctypes.c_char_p]),
            "kv_irlen_is": (ctypes.c_int, [dev, ctypes.c_uint, ctypes.c_uint]),
            "kv_discover": (ctypes.c_int, [dev, ctypes.POINTER(ctypes.c_char_p)]),
            "kv_shift_ir": (ctypes.c_int, [dev, ctypes.c_uint, ctypes.c_uint32, u8p, u8p]),
            "kv_shift_dr": (ctypes.c_int, [dev, ctypes.c_uint, ctypes.c_uint32, u8p, u8p]),
            "kv_sample": (ctypes.c_int, [dev, ctypes.c_uint, ctypes.POINTER(ctypes.c_char_p)]),
            "kv_sample_device": (ctypes.c_int, [dev, ctypes.c_char_p, ctypes.POINTER(ctypes.c_char_p)]),
            "kv_usercode": (ctypes.c_int, [dev, ctypes.c_char_p, ctypes.POINTER(ctypes.c_char_p)]),
            "kv_drive": (ctypes.c_int, [dev, ctypes.c_char_p, ctypes.POINTER(ctypes.c_char_p), ctypes.c_size_t,
                                        ctypes.c_double, ctypes.POINTER(ctypes.c_char_p)]),
            "kv_release": (ctypes.c_int, [dev]),
            "kv_connect": (ctypes.c_int, [dev, ctypes.c_char_p, ctypes.c_char_p, ctypes.POINTER(ctypes.c_char_p)]),
            "kv_bsdl_path": (ctypes.c_int, [dev, ctypes.c_char_p]),
            "kv_test_netlist": (ctypes.c_int, [dev, ctypes.POINTER(_TestRequest), ctypes.POINTER(ctypes.c_char_p)]),
            "kv_play": (ctypes.c_int, [dev, ctypes.c_char_p, ctypes.c_int, _PROGRESS, ctypes.c_void_p,
                                       ctypes.POINTER(_PlayResult)]),
            "kv_play_buffer": (ctypes.c_int, [dev, ctypes.c_char_p, ctypes.c_size_t, ctypes.c_char_p, ctypes.c_int,
                                              _PROGRESS, ctypes.c_void_p, ctypes.POINTER(_PlayResult)]),
            "kv_mismatch": (ctypes.c_int, [dev, ctypes.POINTER(_MismatchInfo)]),
            "kv_sim_configure": (ctypes.c_int, [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_size_t]),
            "kv_sim_pins": (ctypes.c_int, [dev, ctypes.c_char_p, ctypes.c_size_t]),
        }
        for fn, (restype, argtypes) in signatures.items():
            f = getattr(lib, fn)
            f.restype = restype
            f.argtypes = argtypes
        _libraries[name] = lib
        return lib


def _bytes_of(value: int, bits: int) -> "ctypes.Array[ctypes.c_uint8]":
    if value < 0 or value >> bits:
        raise ValueError(f"{value:#x} does not fit in {bits} bits")
    n = (bits + 7) // 8
    return (ctypes.c_uint8 * max(n, 1))(*value.to_bytes(max(n, 1), "little"))


class Device:
    """An open device: its lock held, its pins selected. Use as a context
    manager, or call close(); a process that ends without closing has its
    devices closed at exit all the same."""

    def __init__(self, lib: ctypes.CDLL, handle: ctypes.c_void_p, fpga: str, address: str) -> None:
        self._lib = lib
        self._handle: Optional[ctypes.c_void_p] = handle
        self.fpga = fpga
        self.address = address
        self._devices: Optional[List[DeviceFacts]] = None

    def __enter__(self) -> "Device":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self) -> None:
        try:
            self.close()
        except Exception:
            pass

    def __repr__(self) -> str:
        state = "open" if self._handle else "closed"
        return f"<kelvorn.Device {self.fpga} {self.address} {state}>"

    def close(self) -> None:
        """Gives the pins back and drops the lock; a call running on the
        device in another thread ends first (raising Closed there). Closing
        twice does nothing. From the device's own progress callback:
        Reentrant, and the device stays open."""
        handle, self._handle = self._handle, None
        if handle:
            status = self._lib.kv_close(handle)
            if status == E_REENTRANT:
                self._handle = handle
                self._check(status, handle)

    def _h(self) -> ctypes.c_void_p:
        handle = self._handle
        if not handle:
            raise Closed(E_CLOSED, f"{self.fpga} {self.address} is closed")
        return handle

    def _check(self, status: int, handle: ctypes.c_void_p) -> None:
        """The status of a call on handle; its message is this thread's."""
        if status != OK:
            raise _error(status, (self._lib.kv_message(handle) or b"").decode(errors="replace"))

    def add_bsdl(self, path: Union[str, "os.PathLike[str]"]) -> None:
        """A BSDL file, or a directory of *.bsd and *.bsdl files found by
        IDCODE; before the search path. A file named here is given: drive()
        and connect() may drive its device's pins."""
        h = self._h()
        self._check(self._lib.kv_add_bsdl(h, os.fsencode(path)), h)

    def set_bsdl_path(self, dirs: Union[None, str, Sequence[Union[str, "os.PathLike[str]"]]]) -> None:
        """The directories searched for BSDL files by IDCODE ("DIR:DIR", or a
        list); [] or "": none; None: the default (the share directory beside
        the program, then $XDG_DATA_HOME/kelvorn/bsdl or
        ~/.local/share/kelvorn/bsdl)."""
        h = self._h()
        self._check(self._lib.kv_bsdl_path(h, _path_list(dirs)), h)

    def set_irlen(self, position: int, length: int) -> None:
        """The instruction register length of the device at position, where the chain does not tell it."""
        _count("position", position, 0, _UINT_MAX)
        _count("IR length", length, 0, _UINT_MAX)
        h = self._h()
        self._check(self._lib.kv_irlen_is(h, position, length), h)

    def discover(self) -> List[DeviceFacts]:
        """The devices on the chain, nearest TDO first, with kelvorn-chain's
        JSON keys: position, idcode ("0x..." or None), ir_length,
        ir_length_from, manufacturer, part, version, bsdl, jep106."""
        text = ctypes.c_char_p()
        h = self._h()
        self._check(self._lib.kv_discover(h, ctypes.byref(text)), h)
        devices = [DeviceFacts(**d) for d in json.loads(text.value or b"{}")["devices"]]
        self._devices = devices
        return devices

    def shift_ir(self, position: int, value: int, bits: Optional[int] = None) -> int:
        """Loads value into the instruction register of the device at
        position (bits: its length, the discovered one when None), every
        other device BYPASS; returns what the register captured."""
        _count("position", position, 0, _UINT_MAX)
        if bits is None:
            if self._devices is None:
                self.discover()
            lengths = [d.ir_length for d in self._devices or [] if d.position == position]
            if not lengths:
                raise Error(E_ARGUMENT, f"no device at position {position} (the chain has {len(self._devices or [])})")
            bits = int(lengths[0])
        _count("instruction register bits", bits, 1, MAX_BITS)
        buf = _bytes_of(value, bits)
        out = (ctypes.c_uint8 * len(buf))()
        h = self._h()
        self._check(self._lib.kv_shift_ir(h, position, bits, buf, out), h)
        return int.from_bytes(bytes(out), "little")

    def shift_dr(self, position: int, value: int, bits: int) -> int:
        """Shifts value through the bits-long register the device's
        instruction selects, every other device a one-bit BYPASS; returns
        what the register held. bits: 1 to MAX_BITS, refused before
        anything is allocated."""
        _count("position", position, 0, _UINT_MAX)
        _count("data register bits", bits, 1, MAX_BITS)
        buf = _bytes_of(value, bits)
        out = (ctypes.c_uint8 * len(buf))()
        h = self._h()
        self._check(self._lib.kv_shift_dr(h, position, bits, buf, out), h)
        return int.from_bytes(bytes(out), "little")

    def _answer(self, call: Callable[[ctypes.c_void_p, Any], int]) -> Dict[str, Any]:
        """A command's JSON answer, or its status raised."""
        text = ctypes.c_char_p()
        h = self._h()
        self._check(call(h, ctypes.byref(text)), h)
        answer: Dict[str, Any] = json.loads(text.value or b"{}")
        return answer

    def sample(self, device: DeviceName) -> Sample:
        """SAMPLE on the device (a position or an entity name): the level of
        every port with an input cell, from its BSDL file."""
        name = _device(device)
        return Sample(**self._answer(lambda h, out: int(self._lib.kv_sample_device(h, name, out))))

    def usercode(self, device: DeviceName) -> Usercode:
        """The device's USERCODE register (BsdlError when it has none)."""
        name = _device(device)
        answer = self._answer(lambda h, out: int(self._lib.kv_usercode(h, name, out)))
        return Usercode(device=answer["device"], usercode=int(answer["usercode"], 16))

    def drive(self, device: DeviceName, levels: Mapping[str, Union[int, str]], hold: Optional[float] = None) -> Drive:
        """Drives the device's ports under EXTEST: {port: 0, 1 or "z"}; every
        other output released (two-state ones at their safe levels, listed
        in the answer). DriveRefused, before any pin moves, when the
        boundary register cannot drive exactly that, or the device's BSDL
        file was found rather than given to add_bsdl (unless the device
        was opened with i_know_the_board=True). hold: seconds to hold, then
        every device back at its function; None: until release(), close()
        or the next call that moves the chain."""
        name = _device(device)
        if not isinstance(levels, Mapping):
            raise TypeError(f"levels must be a mapping of port to 0, 1 or 'z', not {type(levels).__name__}")
        words = []
        for port, level in levels.items():
            text = {0: "0", 1: "1", "0": "0", "1": "1", "z": "z", "Z": "z"}.get(level) \
                if isinstance(level, (int, str)) else None
            if text is None:
                raise ValueError(f"{port}: a level is 0, 1 or 'z', not {level!r}")
            words.append(_text("port", port) + b"=" + text.encode())
        if hold is not None and (isinstance(hold, bool) or not isinstance(hold, (int, float))
                                 or not 0 <= hold <= 86400):
            raise ValueError(f"hold: {hold!r} is not 0 to 86400 seconds, or None")
        array = (ctypes.c_char_p * max(len(words), 1))(*words)
        seconds = -1.0 if hold is None else float(hold)
        return Drive(**self._answer(lambda h, out: int(self._lib.kv_drive(h, name, array, len(words), seconds, out))))

    def release(self) -> None:
        """Ends a drive: every device back at its function (Test-Logic-Reset)."""
        h = self._h()
        self._check(self._lib.kv_release(h), h)

    def connect(self, source: str, target: str) -> Connect:
        """Tests the net from "DEV.PORT" source (driven low, then high) to
        "DEV.PORT" target (its input captured). NotConnected, with the
        record in .connect, when it is stuck or inverted; the driver is
        allowed as for drive()."""
        a, b = _text("source", source), _text("target", target)
        text = ctypes.c_char_p()
        h = self._h()
        status = int(self._lib.kv_connect(h, a, b, ctypes.byref(text)))
        if status == E_NOT_CONNECTED:
            answer = json.loads(text.value or b"{}")
            message = (self._lib.kv_message(h) or b"").decode(errors="replace")
            raise NotConnected(status, message, Connect(from_=answer["from"], to=answer["to"], result=answer["result"]))
        self._check(status, h)
        answer = json.loads(text.value or b"{}")
        return Connect(from_=answer["from"], to=answer["to"], result=answer["result"])

    def test(self, netlist: Union[str, "os.PathLike[str]"], parts: Mapping[str, DeviceName],
             packages: Optional[Mapping[int, str]] = None, pulls: Optional[Mapping[str, str]] = None,
             power: Sequence[str] = (), junit: Optional[Union[str, "os.PathLike[str]"]] = None) -> BoardTest:
        """Tests the whole board from its netlist (as kelvorn-chain test):
        parts maps each reference designator to its chain device (a position
        or an entity name), packages a position to a package other than its
        BSDL file's default, pulls a net to "up" or "down"; power names
        power nets besides the netlist's; junit: a file for JUnit XML. The
        report is returned whether or not a fault was found (.passed);
        BadNetlist when the netlist cannot be read or does not fit."""
        if not isinstance(parts, Mapping) or not parts:
            raise TypeError("parts must be a non-empty mapping of reference to device")

        def array(items: List[bytes]) -> Any:
            return (ctypes.c_char_p * max(len(items), 1))(*items)

        part_words = [_text("reference", ref) + b"=" + _device(dev) for ref, dev in parts.items()]
        package_words = [str(_count("position", p, 0, _UINT_MAX)).encode() + b"=" + _text("package", n)
                         for p, n in (packages or {}).items()]
        pull_words = []
        for net, how in (pulls or {}).items():
            if how not in ("up", "down"):
                raise ValueError(f"{net}: a pull is 'up' or 'down', not {how!r}")
            pull_words.append(_text("net", net) + b"=" + how.encode())
        power_words = [_text("net", net) for net in power]
        keep = [array(part_words), array(package_words), array(pull_words), array(power_words)]
        request = _TestRequest(os.fsencode(netlist), keep[0], len(part_words), keep[1], len(package_words),
                               keep[2], len(pull_words), keep[3], len(power_words),
                               None if junit is None else os.fsencode(junit))
        text = ctypes.c_char_p()
        h = self._h()
        status = int(self._lib.kv_test_netlist(h, ctypes.byref(request), ctypes.byref(text)))
        if status != E_FAULT_FOUND:
            self._check(status, h)
        answer = json.loads(text.value or b"{}")
        return BoardTest(nets=[NetResult(name=n["name"], class_=n["class"], result=n["result"], pins=n["pins"],
                                         reason=n.get("reason")) for n in answer["nets"]],
                         faults=[Fault(**f) for f in answer["faults"]],
                         patterns=answer["patterns"], scans=answer["scans"])

    def play(self, path: Union[str, bytes, "os.PathLike[str]"], progress: Optional[Progress] = None,
             format: str = "auto") -> PlayResult:
        """Plays an SVF or XSVF file (checked whole first; nothing moves for
        a file that does not read). progress(done_bytes, total_bytes, bits)
        is called every tenth of a second or 262144 TCK cycles, whichever
        comes first, also inside one long scan; a true return cancels
        (Cancelled, the pins given back). It must not call on this device
        (Reentrant). Returns statements, scans, bits, tck_cycles and
        seconds. Raises TdoMismatch, or Error with .status."""
        if format not in _FORMATS:
            raise ValueError(f"format: {format!r} is none of {', '.join(_FORMATS)}")
        return self._play(lambda h, cb, res: int(self._lib.kv_play(h, os.fsencode(path), _FORMATS[format], cb,
                                                                   None, res)), progress)

    def play_bytes(self, data: bytes, name: str = "buffer", progress: Optional[Progress] = None,
                   format: str = "auto") -> PlayResult:
        """play() for a file already in memory; name is what errors call it."""
        if not isinstance(data, (bytes, bytearray, memoryview)):
            raise TypeError(f"data must be bytes, not {type(data).__name__}")
        if format not in _FORMATS:
            raise ValueError(f"format: {format!r} is none of {', '.join(_FORMATS)}")
        buffer, label = bytes(data), _text("name", name)
        return self._play(lambda h, cb, res: int(self._lib.kv_play_buffer(h, buffer, len(buffer), label,
                                                                          _FORMATS[format], cb, None, res)), progress)

    def _play(self, call: Callable[[Any, Any, Any], int], progress: Optional[Progress]) -> PlayResult:
        raised: List[BaseException] = []

        def relay(_user: Optional[int], done: int, total: int, bits: int) -> int:
            if progress is None:
                return 0
            try:
                return 1 if progress(done, total, bits) else 0
            except BaseException as e:  # stops the play; raised again below
                raised.append(e)
                return 1

        callback = _PROGRESS(relay)
        result = _PlayResult()
        h = self._h()
        status = call(h, callback, ctypes.byref(result))
        if raised:
            raise raised[0]
        if status == E_MISMATCH:
            info = _MismatchInfo()
            message = (self._lib.kv_message(h) or b"").decode(errors="replace")
            if self._lib.kv_mismatch(h, ctypes.byref(info)) == OK:
                raise TdoMismatch(status, message, info)
        self._check(status, h)
        return PlayResult(statements=result.statements, scans=result.scans, bits=result.bits,
                          tck_cycles=result.tck_cycles, seconds=result.seconds)

    def sim_pins(self) -> str:
        """On the simulated board: the device's pins as its chip drives them
        ("TCK=z TDI=z TMS=z TDO=1": z not driven)."""
        text = ctypes.create_string_buffer(512)
        h = self._h()
        self._check(self._lib.kv_sim_pins(h, text, len(text)), h)
        return text.value.decode()


def _path_list(dirs: Union[None, str, Sequence[Union[str, "os.PathLike[str]"]]]) -> Optional[bytes]:
    """A BSDL search path for C: "DIR:DIR"; None stays None (the default)."""
    if dirs is None:
        return None
    if isinstance(dirs, str):
        return _text("bsdl_path", dirs)
    if isinstance(dirs, (bytes, bytearray)) or not isinstance(dirs, Sequence):
        raise TypeError(f"bsdl_path must be a str or a list of directories, not {type(dirs).__name__}")
    return b":".join(os.fsencode(d) for d in dirs)


def open(fpga: str, address: str, *, test_mode: bool = False, frequency: Optional[float] = None,
         sim: Optional[str] = None,
         bsdl_path: Union[None, str, Sequence[Union[str, "os.PathLike[str]"]]] = None,
         i_know_the_board: bool = False) -> Device:
    """Opens device fpga (the kelvorn tool's names) at PCI address
    "dddd:bb:dd.f", taking its lock. test_mode: the lock file (and register
    files) of test mode, under /tmp. frequency: a ceiling on TCK in Hz, on
    every edge. sim: kelvorn-sim's board options; the device is then on the
    simulated board (libkelvorn-sim). bsdl_path: the directories searched
    for BSDL files by IDCODE (see Device.set_bsdl_path); None: the default.
    i_know_the_board: drive() and connect() on any device, also one whose
    BSDL file was found rather than given. Raises the Error subclass of the
    status."""
    fpga_text, address_text = _text("fpga", fpga), _text("address", address)
    path = _path_list(bsdl_path)
    lib = _load(SIM_LIBRARY if sim is not None else LIBRARY)
    if sim is not None:
        why = ctypes.create_string_buffer(512)
        status = lib.kv_sim_configure(_text("sim", sim), why, len(why))
        if status != OK:
            raise _error(status, why.value.decode(errors="replace"))
    handle = ctypes.c_void_p()
    flags = (_TEST_MODE if test_mode else 0) | (_I_KNOW_THE_BOARD if i_know_the_board else 0)
    status = lib.kv_open(fpga_text, address_text, flags, float(frequency or 0), ctypes.byref(handle))
    if status != OK:
        message = (lib.kv_message(handle) or b"").decode(errors="replace") if handle else "out of memory"
        lib.kv_close(handle)
        raise _error(status, message)
    device = Device(lib, handle, fpga, address)
    if path is not None:
        device._check(lib.kv_bsdl_path(handle, path), handle)
    return device
