"""A whole JTAG chain from Python, through libkelvorn.

kelvorn drives the JTAG port of an FPGA or CPLD on a network-equipment
board by bit-banging GPIO pins of another chip on that board. This module
is plain Python over the C library (ctypes): open a device, find what is on
its chain, shift instructions and data of one device with the others in
BYPASS, play SVF and XSVF files, sample a device's pins from its BSDL file.

    import kelvorn
    with kelvorn.open("rotanMotub", "0000:03:00.0") as dev:
        for d in dev.discover():
            print(d["position"], d["idcode"], d["manufacturer"])
        dev.play("image.svf")

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
from typing import Any, Callable, Dict, List, Optional, Union

__all__ = ["open", "Device", "Error", "TdoMismatch", "Cancelled", "Closed", "Reentrant", "PlayResult", "LIBRARY",
           "SIM_LIBRARY", "MAX_BITS"]

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

# The longest data register shift_dr shifts (KV_MAX_BITS): 2**30 bits, 128 MiB.
MAX_BITS = 1 << 30
_UINT_MAX = 0xFFFFFFFF  # what the C functions' positions and lengths hold

_TEST_MODE = 1
_FORMATS = {"auto": 0, "svf": 1, "xsvf": 2}

PlayResult = Dict[str, Union[int, float]]
Progress = Callable[[int, int, int], Optional[bool]]


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

    def __init__(self, status: int, message: str, info: "_MismatchInfo") -> None:
        super().__init__(status, message)
        self.file: str = info.file.decode(errors="replace")
        self.line: Optional[int] = None if info.byte_offset else int(info.where)
        self.offset: Optional[int] = int(info.where) if info.byte_offset else None
        self.statement: str = info.statement.decode(errors="replace")
        self.bits: int = int(info.nbits)
        self.expected: int = int(info.expected or b"0", 16)
        self.mask: int = int(info.mask or b"0", 16)
        self.actual: int = int(info.actual or b"0", 16)


class Cancelled(Error):
    """The progress callback stopped a play; the pins were given back."""


class Closed(Error):
    """The device is closed, or another thread closed it during the call
    (which then gave the pins back)."""


class Reentrant(Error):
    """A call on the device from inside a call on it (its progress
    callback): nothing was done; the running call must return first."""


_ERRORS = {E_CANCELLED: Cancelled, E_CLOSED: Closed, E_REENTRANT: Reentrant}


def _error(status: int, message: str) -> Error:
    return _ERRORS.get(status, Error)(status, message)


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
        self._devices: Optional[List[Dict[str, Any]]] = None

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
        """A BSDL file, or a directory of *.bsd and *.bsdl files found by IDCODE."""
        h = self._h()
        self._check(self._lib.kv_add_bsdl(h, os.fsencode(path)), h)

    def set_irlen(self, position: int, length: int) -> None:
        """The instruction register length of the device at position, where the chain does not tell it."""
        _count("position", position, 0, _UINT_MAX)
        _count("IR length", length, 0, _UINT_MAX)
        h = self._h()
        self._check(self._lib.kv_irlen_is(h, position, length), h)

    def discover(self) -> List[Dict[str, Any]]:
        """The devices on the chain, nearest TDO first, each a dict with
        kelvorn-chain's JSON keys: position, idcode ("0x..." or None),
        ir_length, ir_length_from, manufacturer, part, version, bsdl."""
        text = ctypes.c_char_p()
        h = self._h()
        self._check(self._lib.kv_discover(h, ctypes.byref(text)), h)
        devices: List[Dict[str, Any]] = json.loads(text.value or b"{}")["devices"]
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
            lengths = [d["ir_length"] for d in self._devices or [] if d["position"] == position]
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

    def sample(self, position: int) -> Dict[str, int]:
        """SAMPLE on the device at position: {port: level} for every port
        with an input cell, from the device's BSDL file (add_bsdl)."""
        _count("position", position, 0, _UINT_MAX)
        text = ctypes.c_char_p()
        h = self._h()
        self._check(self._lib.kv_sample(h, position, ctypes.byref(text)), h)
        pins: Dict[str, int] = json.loads(text.value or b"{}")["pins"]
        return pins

    def play(self, path: Union[str, bytes, "os.PathLike[str]"], progress: Optional[Progress] = None,
             format: str = "auto") -> PlayResult:
        """Plays an SVF or XSVF file (checked whole first; nothing moves for
        a file that does not read). progress(done_bytes, total_bytes, bits)
        is called every tenth of a second or 262144 TCK cycles, whichever
        comes first, also inside one long scan; a true return cancels
        (Cancelled, the pins given back). It must not call on this device
        (Reentrant). Returns statements, scans, bits, tck_cycles and
        seconds. Raises TdoMismatch, or Error with .status."""
        return self._play(lambda h, cb, res: int(self._lib.kv_play(h, os.fsencode(path), _FORMATS[format], cb,
                                                                   None, res)), progress)

    def play_bytes(self, data: bytes, name: str = "buffer", progress: Optional[Progress] = None,
                   format: str = "auto") -> PlayResult:
        """play() for a file already in memory; name is what errors call it."""
        return self._play(lambda h, cb, res: int(self._lib.kv_play_buffer(h, data, len(data), name.encode(),
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
        return {"statements": result.statements, "scans": result.scans, "bits": result.bits,
                "tck_cycles": result.tck_cycles, "seconds": result.seconds}

    def sim_pins(self) -> str:
        """On the simulated board: the device's pins as its chip drives them
        ("TCK=z TDI=z TMS=z TDO=1": z not driven)."""
        text = ctypes.create_string_buffer(512)
        h = self._h()
        self._check(self._lib.kv_sim_pins(h, text, len(text)), h)
        return text.value.decode()


def open(fpga: str, address: str, *, test_mode: bool = False, frequency: Optional[float] = None,
         sim: Optional[str] = None) -> Device:
    """Opens device fpga (the kelvorn tool's names) at PCI address
    "dddd:bb:dd.f", taking its lock. test_mode: the lock file (and register
    files) of test mode, under /tmp. frequency: a ceiling on TCK in Hz, on
    every edge. sim: kelvorn-sim's board options; the device is then on the
    simulated board (libkelvorn-sim). Raises Error with .status."""
    lib = _load(SIM_LIBRARY if sim is not None else LIBRARY)
    if sim is not None:
        why = ctypes.create_string_buffer(512)
        status = lib.kv_sim_configure(sim.encode(), why, len(why))
        if status != OK:
            raise Error(status, why.value.decode(errors="replace"))
    handle = ctypes.c_void_p()
    status = lib.kv_open(fpga.encode(), address.encode(), _TEST_MODE if test_mode else 0, float(frequency or 0),
                         ctypes.byref(handle))
    if status != OK:
        message = (lib.kv_message(handle) or b"").decode(errors="replace") if handle else "out of memory"
        lib.kv_close(handle)
        raise Error(status, message)
    return Device(lib, handle, fpga, address)
