/* libkelvorn: a whole JTAG chain from C, through the GPIO pins of a chip on
 * the board (the chips libxilinx drives): open a device, find what is on
 * its chain, shift instructions and data of one device with the others in
 * BYPASS, play SVF and XSVF files, and sample a device's pins from its
 * BSDL file.
 *
 * libkelvorn-sim has the same functions and the same ABI with the simulated
 * board behind them (its chips, a chain hung on the device's pins), so a
 * program runs unchanged against the simulator when it links or loads
 * libkelvorn-sim.so.1 instead of libkelvorn.so.1.
 *
 * Handles. kv_open always gives a handle, also when it fails: kv_message
 * then says why, and kv_close frees it. Every function returns a status
 * (KV_OK or a KV_E_ code) and leaves a one-line message on the handle,
 * "" after success. Nothing is kept outside the handles except what the
 * simulator is told by kv_sim_configure. A handle is a number, not memory
 * of the caller's: once closed it names nothing, and a call with it (a
 * second kv_close too) returns KV_E_CLOSED; numbers are never used twice.
 *
 * Threads. Any thread may call on any handle: the calls are taken one at a
 * time (in the whole process). A call on a handle from inside a call on
 * the same handle, from its progress callback, returns KV_E_REENTRANT and
 * does nothing (a callback may call on other handles). kv_close from
 * another thread while a call runs on the handle ends that call at its
 * next look-in, which comes at least every million TCK cycles (also inside
 * one long scan): it gives the pins back and returns KV_E_CLOSED; the
 * close then takes effect and returns.
 *
 * Strings. What a call hands out (kv_message, the JSON of kv_discover,
 * kv_sample and the other commands, kv_mismatch's strings) is kept per
 * thread and per handle: calls from other threads neither change nor
 * free it. It stays valid
 * until the same thread's next call on the handle (kv_close included) or,
 * once another thread closed the handle, until this thread's next call on
 * any handle; at the latest until the thread ends.
 *
 * Pins. An open device is selected: its JTAG pins are driven and its
 * routing set, as the kelvorn tool leaves them. kv_play gives the pins back
 * (inputs again, routing undone) when it ends, however it ends; the next
 * call that needs them takes them again. kv_close gives them back and drops
 * the device's lock; a process that ends without closing has its devices
 * closed at exit().
 *
 * Bits. A register's bits are packed in bytes, bit i in byte i / 8 at
 * bit i % 8; bit 0 is the one nearest TDO, the first out and the last in
 * (the least significant bit of an opcode or an IDCODE). Positions on the
 * chain count from the device nearest TDO, 0.
 */
#ifndef KELVORN_KELVORN_H
#define KELVORN_KELVORN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __GNUC__
#pragma GCC visibility push(default)
#endif

typedef struct kv_device kv_device;

/* Statuses. */
#define KV_OK 0
#define KV_E_ARGUMENT 1    /* an argument is wrong: a null pointer, a PCI address, a position, a bit count */
#define KV_E_NO_BACKEND 2  /* no backend serves the device name on this board */
#define KV_E_LOCKED 3      /* the device's lock is held, by another process or another open handle */
#define KV_E_REFUSED 4     /* the backend refused the board (it printed why, on standard output or error) */
#define KV_E_UNREADABLE 5  /* a file cannot be read, or it changed after its check */
#define KV_E_SYNTAX 6      /* not valid SVF or XSVF */
#define KV_E_UNSUPPORTED 7 /* a statement that cannot be carried out, a timing value out of range */
#define KV_E_MISMATCH 8    /* TDO other than expected (kv_mismatch tells where) */
#define KV_E_CANCELLED 9   /* the progress callback asked to stop */
#define KV_E_DEAD_CHAIN 10 /* no device answers, or the chain answers inconsistently */
#define KV_E_BSDL 11       /* a BSDL file cannot be read, or none describes the device */
#define KV_E_SIM 12        /* simulator options not understood, or not the simulator library */
#define KV_E_MEMORY 13     /* out of memory */
#define KV_E_REENTRANT 14  /* a call on the handle from within a call on it (its progress callback) */
#define KV_E_CLOSED 15     /* the handle is closed (or never was one), or was closed during the call */
#define KV_E_DRIVE_REFUSED 16 /* kv_drive, kv_connect: no output cell, ports that share a control, a file not given */
#define KV_E_NOT_CONNECTED 17 /* kv_connect: the net is stuck or inverted */
#define KV_E_FAULT_FOUND 18   /* kv_test_netlist: a net failed (the JSON document names the faults) */
#define KV_E_NETLIST 19       /* kv_test_netlist: the netlist cannot be read or does not fit the chain */

/* The longest data register kv_shift_dr shifts, in bits (128 MiB packed):
 * the longest scan the SVF and XSVF readers take. */
#define KV_MAX_BITS 1073741824u

/* kv_open's flags. */
#define KV_TEST_MODE 1u /* the lock file (and register files) of test mode, under /tmp */
/* kv_drive and kv_connect on any device, also one whose BSDL file was found
 * in a directory rather than named to kv_add_bsdl: EXTEST drives its pins,
 * which on a live board may fight the board's own drivers. */
#define KV_I_KNOW_THE_BOARD 2u

/* kv_play's formats. */
#define KV_FORMAT_AUTO 0 /* XSVF when the first 4096 bytes hold a control character, else SVF */
#define KV_FORMAT_SVF 1
#define KV_FORMAT_XSVF 2

/* The short name of a status: "ok", "argument", "no backend", "locked", ... */
const char* kv_status_name(int status);

/* Opens device fpga (the kelvorn tool's names: "fodak", "komefi", ...) at
 * the PCI address "dddd:bb:dd.f", taking its lock, and selects it.
 * frequency_hz, when not 0, is a ceiling on TCK on every edge for
 * everything the handle does (an SVF's FREQUENCY may lower it, never raise
 * it). *device receives the handle, NULL only when there is no memory for
 * one; close it also when the open failed. */
int kv_open(const char* fpga, const char* pci_address, unsigned flags, double frequency_hz, kv_device** device);

/* Gives the pins back, drops the lock and frees the handle. NULL does
 * nothing. A call running on the handle in another thread is ended first
 * (it returns KV_E_CLOSED). KV_E_CLOSED when the handle is closed already
 * (or another thread is closing it), KV_E_REENTRANT from the handle's own
 * progress callback: the handle stays open. */
int kv_close(kv_device* device);

/* What this thread's last call on the handle did wrong, in one line; ""
 * after success (and before any call). Valid until this thread's next
 * call on the handle (see Strings above). */
const char* kv_message(const kv_device* device);

/* ---- the chain ---- */

/* BSDL files for kv_discover and the commands below: a file, or a directory
 * whose *.bsd and *.bsdl files are found by IDCODE. Files added first win;
 * after them come the directories of the search path (kv_bsdl_path). A
 * file named here is "given": kv_drive and kv_connect may drive its
 * device's pins (else only with KV_I_KNOW_THE_BOARD). */
int kv_add_bsdl(kv_device* device, const char* path);
/* The search path for BSDL files by IDCODE, "DIR:DIR..." ("" none), as
 * kelvorn-chain --bsdl-path. NULL, and without a call: the default, the
 * share directory beside the program (<exe>/../share/kelvorn/bsdl) then
 * $XDG_DATA_HOME/kelvorn/bsdl (or ~/.local/share/kelvorn/bsdl), as the
 * environment is when the chain is discovered. */
int kv_bsdl_path(kv_device* device, const char* dirs);
/* The instruction register length (2 to 999) of the device at a position
 * (below 64, the most devices discovery reads), where the chain's IR
 * capture does not tell it. */
int kv_irlen_is(kv_device* device, unsigned position, unsigned length);

/* Finds the devices on the chain. *json receives the facts as one JSON
 * document, the same as kelvorn-chain --json prints:
 *   {"devices":[{"position":0,"idcode":"0x0a5c7035","ir_length":8,
 *     "ir_length_from":"detected","manufacturer":"...","part":null,
 *     "version":0,"bsdl":null},...],"ir_total":14}
 * valid until this thread's next call on the handle. The chain is left in
 * Test-Logic-Reset. kv_shift_ir, kv_shift_dr and kv_sample run it first
 * when it has not run. KV_E_DEAD_CHAIN when nothing answers. */
int kv_discover(kv_device* device, const char** json);

/* One IR scan: the device at position gets in (as many bits as its
 * instruction register has: nbits), every other device BYPASS; out, when
 * not NULL, receives what its instruction register captured. The
 * instruction stays in force. */
int kv_shift_ir(kv_device* device, unsigned position, uint32_t nbits, const uint8_t* in, uint8_t* out);
/* One DR scan through the register the device's instruction selects, nbits
 * long (1 to KV_MAX_BITS); every other device is a one-bit BYPASS register. out, when not
 * NULL, receives what the register held before. */
int kv_shift_dr(kv_device* device, unsigned position, uint32_t nbits, const uint8_t* in, uint8_t* out);

/* SAMPLE on the device at position (its BSDL file names the instruction
 * and the boundary register), every other device BYPASS: *json receives
 * {"device":0,"pins":{"PORT":0|1,...},"package":"NAME","package_pins":
 * {"PORT":["PIN",...],...}}, each port with an input cell once, in cell
 * order (as kelvorn-chain --json prints it), valid until this thread's next
 * call on the handle. */
int kv_sample(kv_device* device, unsigned position, const char** json);

/* The commands below name a device as kelvorn-chain does: its position
 * ("0", "2") or the entity name of its BSDL file ("KV_FPGA6", any case).
 * A name no device has, or one on the chain twice: KV_E_ARGUMENT. Each
 * answer is kelvorn-chain --json's document for the same command, valid as
 * kv_sample's. */

/* kv_sample of the device named. */
int kv_sample_device(kv_device* device, const char* name, const char** json);

/* The device's USERCODE register: *json receives
 * {"device":1,"usercode":"0x12345678"}. KV_E_BSDL when its BSDL file has
 * no USERCODE instruction. */
int kv_usercode(kv_device* device, const char* name, const char** json);

/* Drives pins of the device named under EXTEST: port_levels holds n words
 * "PORT=0", "PORT=1" or "PORT=z" (released; a port may be "NAME(i)").
 * Every output not named is released, but for two-state outputs, which are
 * driven at the level their maker declares safe and listed so. Refused
 * (KV_E_DRIVE_REFUSED, before any pin moves) when the register cannot
 * drive exactly that: a port with no output cell, ports that share a
 * control cell not named alike, a device whose BSDL file was not given to
 * kv_add_bsdl (unless KV_I_KNOW_THE_BOARD). *json receives
 * {"device":0,"driving":{"led":1,...},"two_state_at_safe_level":[...],
 * "hold_s":S}.
 * hold_s 0 to 86400: the pins are held that long, then every device goes
 * back to its function (Test-Logic-Reset) before the call returns; a
 * kv_close from another thread ends the hold (KV_E_CLOSED). hold_s < 0
 * ("hold_s":null): the call returns with the pins driven; they stay so
 * until kv_release, kv_close, or the next call on the handle that moves
 * the chain, each of which resets it first. */
int kv_drive(kv_device* device, const char* name, const char* const* port_levels, size_t n, double hold_s,
             const char** json);
/* Ends a drive (Test-Logic-Reset); nothing when none holds. */
int kv_release(kv_device* device);

/* Tests a net: "DEV.PORT" from drives its port low, then high (EXTEST),
 * while "DEV.PORT" to's input cell captures each level; the chain is left
 * in Test-Logic-Reset. *json receives {"from":"0.led","to":"1.SW(1)",
 * "result":"connected"} (or "stuck-0", "stuck-1", "inverted"), also with
 * KV_E_NOT_CONNECTED, the status when the result is not "connected". The
 * driving device is allowed as for kv_drive. */
int kv_connect(kv_device* device, const char* from, const char* to, const char** json);

/* A whole board's interconnect test from its netlist (as kelvorn-chain's
 * test command): every part in EXTEST at once, every net driven from one
 * boundary-scan pin and read at the others; opens, shorts and stuck nets
 * named. parts: "REF=DEV" (DEV a position or an entity name), packages
 * "POS=NAME", pulls "NET=up|down", power "NET" (each may be NULL with its
 * count 0); junit: a file to write the result to as JUnit XML, or NULL.
 * Each part's BSDL file must be given (kv_add_bsdl) or the handle opened
 * with KV_I_KNOW_THE_BOARD. *json receives {"nets":[...],"faults":[...],
 * "patterns":K,"scans":S}, also with KV_E_FAULT_FOUND. The chain is left
 * in Test-Logic-Reset. */
typedef struct kv_test_request {
    const char* netlist;
    const char* const* parts;
    size_t n_parts;
    const char* const* packages;
    size_t n_packages;
    const char* const* pulls;
    size_t n_pulls;
    const char* const* power;
    size_t n_power;
    const char* junit;
} kv_test_request;
int kv_test_netlist(kv_device* device, const kv_test_request* request, const char** json);

/* ---- players ---- */

typedef struct kv_play_result {
    uint64_t statements; /* SVF statements or XSVF commands played */
    uint64_t scans;
    uint64_t bits;       /* shifted in scans, headers and trailers included */
    uint64_t tck_cycles;
    double seconds;      /* the play's time, the check before it not counted */
} kv_play_result;

/* Called as a play goes on, from the calling thread, and once at the end:
 * bytes of the file done, of how many, and bits of the scans begun. It
 * comes when a tenth of a second or 262144 TCK cycles have passed since
 * its last call, whichever is first, looked for after every statement and
 * inside long ones: never a million TCK cycles (nor bits) without a call.
 * A non-zero return stops the play: the pins are given back and kv_play
 * returns KV_E_CANCELLED. A call from here on the same handle returns
 * KV_E_REENTRANT. */
typedef int (*kv_progress_fn)(void* user, uint64_t done_bytes, uint64_t total_bytes, uint64_t bits);

/* Plays an SVF or XSVF file ("-": standard input). The whole file is read
 * and checked first, before any pin moves, so a file that breaks off or
 * asks for something unsupported plays nothing. result, when not NULL,
 * receives the counts as far as the play went. The pins are given back at
 * the end. */
int kv_play(kv_device* device, const char* path, int format, kv_progress_fn progress, void* user,
            kv_play_result* result);
/* The same for a file already in memory; name is what messages call it. */
int kv_play_buffer(kv_device* device, const void* data, size_t size, const char* name, int format,
                   kv_progress_fn progress, void* user, kv_play_result* result);

typedef struct kv_mismatch_info {
    const char* file;      /* the path, or the buffer's name */
    int byte_offset;       /* 0: where is an SVF line (from 1); 1: an XSVF byte offset (from 0) */
    uint64_t where;
    const char* statement; /* "SDR", "XSDRTDO", ... */
    uint32_t nbits;        /* the scan's length */
    /* The whole scan in hexadecimal, most significant digit first (bit 0
     * is the last digit's lowest bit). */
    const char* expected;
    const char* mask;
    const char* actual;
} kv_mismatch_info;

/* After KV_E_MISMATCH: the first scan whose TDO differed, in the last play
 * on the handle from this thread. The strings are this thread's, valid
 * until its next play on the handle or the handle's close (see Strings). */
int kv_mismatch(kv_device* device, kv_mismatch_info* info);

/* ---- the simulated board (libkelvorn-sim) ---- */

/* The simulated board for the next kv_open in this process: kelvorn-sim's
 * board options in one string ("--chain 0x0a5c7035:8,0x1b4d2093:6
 * --platform komefi ..."). Without it the KELVORN_SIM environment variable
 * holds them; without either, the simulator's defaults. The board is made
 * when the first device opens and ends when the last one closes (its
 * records, such as --dump-memory, are written then). On a bad option,
 * KV_E_SIM with the reason in why (when not NULL, up to why_size bytes).
 * libkelvorn returns KV_E_SIM: it drives real boards only. */
int kv_sim_configure(const char* options, char* why, size_t why_size);

/* The simulated device's pins as its chip drives them, into text (up to
 * size bytes): "TCK=0 TDI=1 TMS=1 TDO=1 ..." (z: not driven, an input).
 * libkelvorn returns KV_E_SIM. */
int kv_sim_pins(kv_device* device, char* text, size_t size);

#ifdef __GNUC__
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif
