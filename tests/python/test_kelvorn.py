"""The Python package on the simulated board (sim=...): discovery, players,
shifts, samples and the errors a script sees. Runs against whichever
kelvorn package and libraries the environment gives: the build tree
(PYTHONPATH=python, KELVORN_LIBRARY_PATH=build/lib) or a staged install.
KELVORN_TEST_BUILD names the build directory (kelvorn-vectors) and
KELVORN_TEST_DATA the test data (BSDL files)."""

import ctypes
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

import kelvorn

BUILD = Path(os.environ["KELVORN_TEST_BUILD"])
BSDL = Path(os.environ["KELVORN_TEST_DATA"]) / "bsdl"
FPGA, ADDRESS = "rotanMotub", "0000:03:00.0"  # the PEX 8600 backend
CPU = "--cpu 0x16:0x30"
# A BSDL CPLD nearest TDO, a programmable device of 64 rows of 32 bits, a plain one.
CHAIN = f"bsdl={BSDL / 'kv_cpld64.bsd'},0x1b4d2093:6:mem=64x32,0x2468ace1:10"


def board(*options: str) -> str:
    return " ".join((CPU, "--chain", CHAIN) + options)


def raised(cls, call, *args, match=None, **kwargs):
    """The exception, a cls, that call(*args, **kwargs) raised; its text matching match if given."""
    with pytest.raises(cls, match=match) as caught:
        call(*args, **kwargs)
    return caught.value


def said(e):
    return e.status, e.message


def test_discover_three_devices():
    with kelvorn.open(FPGA, ADDRESS, sim=board()) as dev:
        dev.add_bsdl(BSDL)
        devices = dev.discover()
    assert [(d.position, d.idcode, d.ir_length, d.ir_length_from, d.part, d.version)
            for d in devices] == [
        (0, "0x0123402f", 8, "bsdl", "kv_cpld64", 0),
        (1, "0x1b4d2093", 6, "detected", None, 1),
        (2, "0x2468ace1", 10, "detected", None, 2),
    ]
    assert devices[0].bsdl.endswith("kv_cpld64.bsd") and devices[0]["bsdl"] == devices[0].bsdl
    # A length given for a device is taken, and said to be.
    with kelvorn.open(FPGA, ADDRESS, sim=board()) as dev:
        dev.set_irlen(2, 10)
        assert [(d.ir_length, d.ir_length_from) for d in dev.discover()] == [
            (8, "detected"), (6, "detected"), (10, "option")]
        raised(kelvorn.Error, dev.set_irlen, 0, 1, match=r"an IR length of 1 bits \(2 to 999\)")
    assert devices[1].manufacturer == "Xilinx"
    assert devices[2].manufacturer is None and devices[2].jep106 == {"bank": 13, "code": 112}


def test_play_programs_the_image(tmp_path):
    # An SVF image through the library from C: libkelvorn_test.sh; here XSVF, named by its format.
    chain = "0x0a5c7035:8,0x1b4d2093:6:mem=64x32,0x2468ace1:10"
    image = bytes((i * 37 + 11) % 256 for i in range(64 * 32 // 8))
    (tmp_path / "image.bin").write_bytes(image)
    subprocess.run([BUILD / "bin" / "kelvorn-vectors", "--chain", chain, "--xsvf", tmp_path / "image.xsvf",
                    tmp_path / "image.bin"], check=True)
    memory, seen = tmp_path / "memory.bin", []
    with kelvorn.open(FPGA, ADDRESS, sim=f"{CPU} --chain {chain} --dump-memory {memory}") as dev:
        result = dev.play(tmp_path / "image.xsvf", format="xsvf",
                          progress=lambda done, total, bits: seen.append((done, total)))
    assert memory.read_bytes() == image  # written when the board ends, at close
    assert set(result) == {"statements", "scans", "bits", "tck_cycles", "seconds"}
    assert (result["scans"], result["statements"]) == (8 + 2 * 64, 20 + 8 + 2 * 64)
    assert result["tck_cycles"] > result["bits"] > 0 and result["seconds"] > 0
    size = (tmp_path / "image.xsvf").stat().st_size
    assert seen[-1] == (size, size)  # the last call: the whole file
    # A device that takes far longer to program a row than the file waits:
    # the first row reads back erased.
    slow = chain.replace("mem=64x32", "mem=64x32:program=100000000")
    with kelvorn.open(FPGA, ADDRESS, sim=f"{CPU} --chain {slow}") as dev:
        e = raised(kelvorn.TdoMismatch, dev.play, tmp_path / "image.xsvf")
    data = (tmp_path / "image.xsvf").read_bytes()
    assert e.line is None and e.offset is not None and e.statement == "XSDRTDO" and e.bits == 34
    assert data[e.offset] == 0x09  # XSDRTDO's command byte
    row0 = int.from_bytes(image[:4], "little")
    assert (e.expected, e.mask, e.actual) == (row0 << 1, 0x1fffffffe, 0x1fffffffe)  # BYPASS bits unread


def test_tdo_mismatch_names_its_line(tmp_path):
    svf = tmp_path / "idcodes.svf"
    # After a reset the DR path is the IDCODE registers: device 0's first out.
    svf.write_text("STATE RESET;\n"
                   "SDR 64 TDI(0) TDO(1b4d20930a5c7035);\n"
                   "STATE RESET;\n"
                   "SDR 64 TDI(0) TDO(1b4d20930a5c7036) MASK(00000000ffffffff);\n")
    with kelvorn.open(FPGA, ADDRESS, sim=f"{CPU} --chain 0x0a5c7035:8,0x1b4d2093:6") as dev:
        e = raised(kelvorn.TdoMismatch, dev.play, svf)
        assert e.status == kelvorn.E_MISMATCH
        assert (e.file, e.line, e.offset, e.statement, e.bits) == (str(svf), 4, None, "SDR", 64)
        # TDO is read only where the mask has ones: the other bits of actual are 0.
        assert (e.expected, e.mask, e.actual) == (0x1b4d20930a5c7036, 0x00000000ffffffff, 0x0a5c7035)
        assert str(e).startswith(f"{svf}:4: SDR of 64 bits: TDO mismatch: expected 1b4d20930a5c7036")
        # The same file from memory: its name in the messages.
        e = raised(kelvorn.TdoMismatch, dev.play_bytes, svf.read_bytes(), name="from-memory.svf")
        assert (e.file, e.line) == ("from-memory.svf", 4)


def test_shift_ir_and_dr_through_bypass():
    with kelvorn.open(FPGA, ADDRESS, sim=board()) as dev:
        dev.discover()  # thousands of cycles before a play, which counts its own: the reset (5), on through
        result = dev.play_bytes(b"SIR 8 TDI (ff);")  # Run-Test/Idle to Shift-IR (5), 8 bits, to Run-Test/Idle (2)
        assert isinstance(result, kelvorn.PlayResult) and (result.scans, result.bits, result["scans"]) == (1, 8, 1)
        assert result.tck_cycles == 5 + 5 + 8 + 2
        # IDCODE (0x1) into the device in the middle; IR captures ...01.
        assert dev.shift_ir(1, 0x01) == 0x01
        assert dev.shift_dr(1, 0, 32) == 0x1b4d2093
        # The 4096-bit loop-back register (0x2) gives back what the scan before left in it.
        dev.shift_ir(2, 0x002, 10)
        pattern = int.from_bytes(bytes((i * 73 + 5) % 256 for i in range(512)), "little")
        assert dev.shift_dr(2, pattern, 4096) == 0
        assert dev.shift_dr(2, pattern >> 1, 4096) == pattern
        assert dev.shift_dr(2, 0, 4096) == pattern >> 1
        # A scan longer than the slices the library cuts a shift into (2**18
        # cycles, for its look-ins): the register's 4096 zeros and the two
        # BYPASS bits the scan put before its bits, then every bit that went
        # in, in order across the cuts.
        long = int.from_bytes(bytes((i * 151 + 7) % 256 for i in range(75000)), "little")
        assert dev.shift_dr(2, long, 600000) == (long << 4098) & ((1 << 600000) - 1)
        assert said(raised(kelvorn.Error, dev.shift_ir, 1, 1, 5)) == (
            kelvorn.E_ARGUMENT, "device 1's instruction register has 6 bits, not 5")
        raised(kelvorn.Error, dev.shift_dr, 3, 0, 8, match=r"no device at position 3 \(the chain has 3\)")
        raised(ValueError, dev.shift_dr, 1, 0x100, 8)


def test_sample_pins_of_a_bsdl_device():
    with kelvorn.open(FPGA, ADDRESS, sim=board("--pin 0.clk=0", "--pin 0.d(3)=0")) as dev:
        dev.add_bsdl(BSDL / "kv_cpld64.bsd")
        sample = dev.sample(0)
        assert sample.pins == {"clk": 0, "rst_n": 1, "d(0)": 1, "d(1)": 1, "d(2)": 1, "d(3)": 0}
        assert (sample.device, sample.package, sample.package_pins["d(3)"]) == (0, "TQ44", ["7"])
        assert dev.sample("KV_CPLD64") == sample  # by its entity name, any case
        assert said(raised(kelvorn.BsdlError, dev.sample, 1)) == (kelvorn.E_BSDL, "device 1 has no BSDL file (kv_add_bsdl)")


def test_cancel_lock_and_refusals(tmp_path):
    svf = tmp_path / "long.svf"
    svf.write_text("STATE RESET;\n" + "RUNTEST 2000 TCK;\n" * 2000)
    with kelvorn.open(FPGA, ADDRESS, sim=board()) as dev:
        assert said(raised(kelvorn.Error, kelvorn.open, FPGA, ADDRESS, sim=board())) == (
            kelvorn.E_LOCKED, "Lock file is locked by another process.")
        assert raised(kelvorn.Cancelled, dev.play, svf, progress=lambda done, total, bits: True).status == kelvorn.E_CANCELLED
        assert dev.sim_pins() == "TCK=z TDI=z TMS=z TDO=1"  # given back
        # The pins are taken again for the next call (the chain reset: IDCODE, bit 0 a one).
        assert dev.shift_dr(1, 0, 1) == 1
        assert dev.sim_pins().startswith("TCK=0 ")
        # An exception in the callback stops the play and comes out of it.
        raised(ZeroDivisionError, dev.play, svf, progress=lambda done, total, bits: 1 / 0)
        assert dev.sim_pins() == "TCK=z TDI=z TMS=z TDO=1"
    # The boards a script cannot open: a status, a message, and the script goes on.
    refusals = {(FPGA, "0000:03:00", board()): kelvorn.E_ARGUMENT,
                ("nosuchfpga", ADDRESS, board()): (kelvorn.E_NO_BACKEND, "no backend serves nosuchfpga on this board"),
                ("fodak", "0000:00:14.0", "--platform gozip --cpu 0x10:0x00"): (
                    kelvorn.E_REFUSED, "the fodak backend refused this board (it printed why)"),
                (FPGA, ADDRESS, "--chain 0x1:1"): kelvorn.E_SIM}
    for (fpga, address, sim), want in refusals.items():
        e = raised(kelvorn.Error, kelvorn.open, fpga, address, sim=sim)
        assert (said(e) if isinstance(want, tuple) else e.status) == want, (fpga, address, sim)
    with kelvorn.open(FPGA, ADDRESS, sim=f"{CPU} --tdo stuck-1") as dead:
        e = raised(kelvorn.Error, dead.discover)
    assert e.status == kelvorn.E_DEAD_CHAIN and e.message.startswith("TDO stuck at 1: no device drives it")


def test_calls_from_the_callback_and_after_the_close():
    # A long scan cancelled inside it, or ended by a close from another
    # thread: the library's own thread test (kelvorn_threads_test.c).
    with kelvorn.open(FPGA, ADDRESS, sim=board()) as dev:
        # From its own progress callback a call on the device is refused: the
        # play stops with that, and the device stays open and usable.
        # (close, play and discover alike: kelvorn_threads_test.c).
        e = raised(kelvorn.Reentrant, dev.play_bytes, b"STATE RESET;\nRUNTEST 100 TCK;\n",
                   progress=lambda done, total, bits: dev.close())
        assert e.status == kelvorn.E_REENTRANT and e.message.startswith("a call on the handle from within a call on it")
        assert dev.sim_pins() == "TCK=z TDI=z TMS=z TDO=1"
        assert dev.shift_ir(1, 0x01) == 0x01
    raised(kelvorn.Closed, dev.discover, match="rotanMotub 0000:03:00.0 is closed")
    dev.close()  # closing twice does nothing


def test_numbers_that_do_not_fit_are_refused():
    import tracemalloc
    with kelvorn.open(FPGA, ADDRESS, sim=board()) as dev:
        # 2**32 + 1 would reach C as position 1, 2**32 + 8 as an IR length of 8.
        raised(ValueError, dev.shift_ir, 2**32 + 1, 0x01, 6, match=r"position: 4294967297 is out of range \(0 to 4294967295\)")
        raised(ValueError, dev.set_irlen, 0, 2**32 + 8, match="IR length: 4294967304 is out of range")
        raised(ValueError, dev.sample, -1)
        raised(kelvorn.Error, dev.set_irlen, 100, 8, match=r"position 100 is past any chain \(at most 64 devices\)")
        # More bits than MAX_BITS: refused before a byte is allocated for them.
        tracemalloc.start()
        raised(ValueError, dev.shift_dr, 1, 0, 2**31, match=r"data register bits: 2147483648 is out of range \(1 to 1073741824\)")
        peak = tracemalloc.get_traced_memory()[1]
        tracemalloc.stop()
        assert peak < 1 << 20
        raised(ValueError, dev.shift_dr, 1, 0, 0)
        assert dev.shift_ir(1, 0x01) == 0x01  # nothing of that reached the chain


HEADER = Path(os.environ["KELVORN_TEST_DATA"]).parent.parent / "libkelvorn" / "include" / "kelvorn" / "kelvorn.h"


def test_statuses_are_the_headers_each_with_its_exception():
    defined = dict(re.findall(r"^#define KV_(OK|E_[A-Z_]+) (\d+)", HEADER.read_text(), re.M))
    assert len(defined) == 20 and defined["E_NETLIST"] == "19"
    assert {name: getattr(kelvorn, name) for name in defined} == {name: int(v) for name, v in defined.items()}
    # One Error subclass per status, and the status is the class's.
    classes = {status: type(kelvorn._error(status, "x")) for status in range(1, 20)}
    assert len(set(classes.values())) == 19 and all(issubclass(c, kelvorn.Error) and c is not kelvorn.Error
                                                   for c in classes.values())
    assert (classes[kelvorn.E_CANCELLED], classes[kelvorn.E_CLOSED], classes[kelvorn.E_REENTRANT],
            classes[kelvorn.E_MISMATCH]) == (kelvorn.Cancelled, kelvorn.Closed, kelvorn.Reentrant, kelvorn.TdoMismatch)
    lib = kelvorn._load(kelvorn.SIM_LIBRARY)
    assert [lib.kv_status_name(s) for s in (16, 17, 19, 20)] == [b"drive refused", b"not connected", b"netlist", b"unknown"]


# Three BSDL devices; two nets between the first two, one input held low.
NETS = (f"{CPU} --chain bsdl={BSDL / 'kv_cpld64.bsd'}:usercode=0xcafe0001,"
        f"bsdl={BSDL / 'KV_FPGA6.BSD'}:usercode=0x12345678,bsdl={BSDL / 'kv_dap4.bsd'} "
        "--net 0.led=1.SW(1) --net 1.BUS=0.d(0) --pin 1.SW(2)=0")


def test_usercode_drive_connect_and_the_default_bsdl_path(tmp_path, monkeypatch):
    with kelvorn.open(FPGA, ADDRESS, sim=NETS, bsdl_path=[BSDL]) as dev:
        assert dev.usercode(1) == kelvorn.Usercode(device=1, usercode=0x12345678)
        assert dev.usercode("kv_cpld64").usercode == 0xcafe0001
        # Found in a directory, not given: EXTEST is refused before any pin moves.
        raised(kelvorn.DriveRefused, dev.drive, 0, {"led": 1}, match="device 0's BSDL file was found, not given")
        raised(kelvorn.DriveRefused, dev.connect, "0.led", "1.SW(1)", match="connect refused")
        dev.add_bsdl(BSDL / "kv_cpld64.bsd")  # given now
        drive = dev.drive("kv_cpld64", {"led": 1, "d(2)": 0, "d(3)": "1", "d(1)": "z"}, hold=0)
        assert drive == kelvorn.Drive(device=0, driving={"led": 1, "d(2)": 0, "d(3)": 1}, two_state_at_safe_level=[],
                                      hold_s=0.0)
        raised(kelvorn.DriveRefused, dev.drive, 0, {"d(2)": 0}, match=r"d\(2\) shares control cell 7 with d\(3\), not named")
        net = dev.connect("0.led", "KV_FPGA6.SW(1)")
        assert (net.from_, net.to, net.result, net.connected, net["from"]) == ("0.led", "1.SW(1)", "connected", True,
                                                                              "0.led")
        e = raised(kelvorn.NotConnected, dev.connect, "0.led", "1.SW(2)")
        assert said(e) == (kelvorn.E_NOT_CONNECTED, "0.led -> 1.SW(2): stuck-0")
        assert e.connect == kelvorn.Connect(from_="0.led", to="1.SW(2)", result="stuck-0")
    # A drive held until release(): the hold is null, and the device answers again after it.
    with kelvorn.open(FPGA, ADDRESS, sim=NETS, bsdl_path=str(BSDL), i_know_the_board=True) as dev:
        held = dev.drive(1, {"OUT0": 1})
        assert (held.driving, held.hold_s) == ({"OUT0": 1}, None)
        dev.release()
        assert dev.usercode(1).usercode == 0x12345678
        # Held, then another command: the chain is reset first and the command answers.
        dev.drive(1, {"BUS": 1})
        assert dev.sample(1).pins["SW(2)"] == 0
    # No bsdl_path: the default, found through XDG_DATA_HOME.
    shutil.copytree(BSDL, tmp_path / "kelvorn" / "bsdl")
    monkeypatch.setenv("XDG_DATA_HOME", str(tmp_path))
    with kelvorn.open(FPGA, ADDRESS, sim=NETS) as dev:
        assert dev.discover()[1].bsdl == str(tmp_path / "kelvorn" / "bsdl" / "KV_FPGA6.BSD")
        dev.set_bsdl_path([])  # none: the parts unknown, the names with them
        raised(kelvorn.BadArgument, dev.usercode, "KV_FPGA6", match="no device on the chain is KV_FPGA6")
        dev.set_bsdl_path(None)  # the default again
        assert dev.usercode("KV_FPGA6").usercode == 0x12345678


def test_wrong_arguments_are_errors_of_the_package_or_type_errors():
    with kelvorn.open(FPGA, ADDRESS, sim=NETS, bsdl_path=str(BSDL)) as dev:
        raised(kelvorn.BadArgument, dev.sample, "STM32F407", match="no device on the chain is STM32F407")
        for call in (lambda: dev.sample(1.5), lambda: dev.sample(None), lambda: dev.usercode(True),
                     lambda: dev.drive(0, ["led"]), lambda: dev.connect(0, "1.SW(1)"),
                     lambda: dev.play_bytes("STATE RESET;"), lambda: dev.play_bytes(b"", name=3),
                     lambda: dev.set_bsdl_path(7), lambda: kelvorn.open(None, ADDRESS, sim=NETS)):
            assert not isinstance(raised(TypeError, call), ctypes.ArgumentError)
        raised(TypeError, dev.usercode, b"KV_FPGA6", match=r"a device is a position \(int\) or the entity name")
        raised(ValueError, dev.drive, 0, {"led": 2}, match=r"led: a level is 0, 1 or 'z', not 2")
        raised(ValueError, dev.usercode, -1, match="position: -1 is out of range")
        raised(ValueError, dev.play_bytes, b"", format="vhdl", match="format")
        assert dev.usercode(1).usercode == 0x12345678  # none of that reached the chain


def test_board_test_names_the_faults_the_command_line_names(tmp_path):
    data = BSDL.parent
    chain = f"bsdl={BSDL / 'kv_io48.bsd'},bsdl={BSDL / 'kv_dap4.bsd'},bsdl={BSDL / 'KV_BGA36.BSD'}"
    sim = f"{CPU} --chain {chain} --netlist {data / 'netlist' / 'board.net'} --part U1=0 --part U2=2"
    # The faults and records tests/e2e/interconnect_test.sh sees from kelvorn-chain on the same board.
    with kelvorn.open(FPGA, ADDRESS, sim=f"{sim} --open 0.io(10) --stuck D8=1") as dev:
        dev.add_bsdl(BSDL / "kv_io48.bsd")
        dev.add_bsdl(BSDL / "KV_BGA36.BSD")
        report = dev.test(data / "netlist" / "board.txt", parts={"U1": 0, "U2": "KV_BGA36"},
                          junit=tmp_path / "result.xml")
        assert not report.passed and (report.patterns, report.scans) == (14, 16)
        assert report.faults == [kelvorn.Fault(kind="open", nets=["A0"], pins=["U1.16"], behaviour=None),
                                 kelvorn.Fault(kind="stuck-1", nets=["D8"], pins=["U1.14", "U2.C1"], behaviour=None)]
        ext0 = next(n for n in report.nets if n.name == "EXT0")
        assert (ext0["class"], ext0.result, ext0.reason, ext0.pins) == ("untestable", "untestable",
                                                                         "one boundary-scan pin", ["J1.1", "U1.19"])
        assert (tmp_path / "result.xml").read_text().count("<testcase ") == 22
        raised(kelvorn.BadNetlist, dev.test, data / "netlist" / "board.txt", parts={"U7": 0}, match=r"no net touches U7")
        raised(TypeError, dev.test, data / "netlist" / "board.txt", parts={"U1": 1.5})
