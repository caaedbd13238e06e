/* libkelvorn-sim from threads and from its own callbacks:
 *
 *   kelvorn_threads_test BSDL   (the kv_cpld64.bsd of tests/data)
 *
 * A progress callback that calls on its own handle (KV_E_REENTRANT, the
 * play goes on) or on another; closed, doubly closed and made-up handles
 * (KV_E_CLOSED); a long scan cancelled from inside it, and ended by a
 * close from another thread; then 8 threads of 500 mixed calls on one
 * handle and on two, with two threads racing to close a handle half-way:
 * every answer the thread's own and exact, or a clean KV_E_CLOSED. */
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>

#include <kelvorn/kelvorn.h>

#define THREADS 8
#define CALLS 500

static const char* const kNotOpen = "not an open handle: closed, or never given by kv_open";
static const char* const kClosedDuring = "the handle was closed by another thread during the call; pins given back";
static const char* const kDeadChain = "TDO stuck at 1: no device drives it";
static const char* const kGoodSvf = "STATE RESET;\nSDR 96 TDI(0) TDO(2468ace11b4d20930123402f);\n";

static const char* bsdl;
static char board[1024];
static char discovery[4096], sampled[1024];
static int passed, failed;
static pthread_mutex_t report = PTHREAD_MUTEX_INITIALIZER;

static void check(int ok, const char* what, const char* detail) {
    pthread_mutex_lock(&report);
    if (ok) {
        ++passed;
    } else {
        ++failed;
        printf("FAILED: %s%s%s\n", what, detail ? ": " : "", detail ? detail : "");
    }
    pthread_mutex_unlock(&report);
}

static void checkStatus(int status, int want, kv_device* dev, const char* what) {
    char detail[512];
    snprintf(detail, sizeof detail, "%s (%s), not %s", kv_status_name(status), kv_message(dev), kv_status_name(want));
    check(status == want, what, detail);
}

/* The chain: the BSDL CPLD nearest TDO (boundary pins), two plain devices;
 * the device on the pins of the chip at 0000:03:00.0. */
static kv_device* openDevice(const char* address) {
    kv_device* dev;
    char why[256] = "";
    if (kv_sim_configure(board, why, sizeof why) != KV_OK) check(0, "kv_sim_configure", why);
    checkStatus(kv_open("rotanMotub", address, 0, 0, &dev), KV_OK, dev, address);
    checkStatus(kv_add_bsdl(dev, bsdl), KV_OK, dev, bsdl);
    return dev;
}

static int play(kv_device* dev, const char* svf, kv_progress_fn progress, void* user, kv_play_result* r) {
    return kv_play_buffer(dev, svf, strlen(svf), "t.svf", KV_FORMAT_SVF, progress, user, r);
}

/* ---- a callback calling on its own handle, and on another ---- */

struct reentry {
    kv_device *dev, *other;
    int calls, close, play, discover, other_discover;
    char message[256];
};

static int reenter(void* user, uint64_t done, uint64_t total, uint64_t bits) {
    struct reentry* r = user;
    const char* json;
    (void)done, (void)total, (void)bits;
    if (r->calls++) return 0;
    r->close = kv_close(r->dev);
    snprintf(r->message, sizeof r->message, "%s", kv_message(r->dev));
    r->play = play(r->dev, "RUNTEST 10 TCK;", NULL, NULL, NULL);
    r->discover = kv_discover(r->dev, &json);
    r->other_discover = kv_discover(r->other, &json);
    return 0;
}

static void testCallbacks(void) {
    kv_play_result result;
    const char* json = NULL;
    kv_device* dev = openDevice("0000:03:00.0");
    kv_device* other = openDevice("0000:04:00.0"); /* its chip has no chain on its pins */
    struct reentry r = {.dev = dev, .other = other};
    checkStatus(play(dev, kGoodSvf, reenter, &r, &result), KV_OK, dev, "a play whose callback calls on its handle");
    check(r.close == KV_E_REENTRANT && r.play == KV_E_REENTRANT && r.discover == KV_E_REENTRANT,
          "close, play and discover from the callback: KV_E_REENTRANT", NULL);
    check(strncmp(r.message, "a call on the handle from within a call on it", 45) == 0, "the reentrant message", r.message);
    check(r.other_discover == KV_E_DEAD_CHAIN, "another handle from the callback: its own answer", NULL);
    check(result.scans == 1, "the play went on to its end", NULL);
    checkStatus(kv_discover(dev, &json), KV_OK, dev, "the handle still open after the callback");
    check(json && strcmp(json, discovery) == 0, "its discovery", json);

    checkStatus(kv_close(other), KV_OK, other, "close");
    checkStatus(kv_close(other), KV_E_CLOSED, other, "a second close");
    check(strcmp(kv_message(other), kNotOpen) == 0, "a second close: its message", kv_message(other));
    checkStatus(kv_discover(other, &json), KV_E_CLOSED, other, "a call on a closed handle");
    checkStatus(kv_shift_dr((kv_device*)(uintptr_t)0x5eed, 0, 8, NULL, NULL), KV_E_CLOSED, NULL, "a made-up handle");
    checkStatus(kv_close(dev), KV_OK, dev, "close");
}

/* ---- one long scan: cancelled from inside it; ended by a close ---- */

struct watch {
    int calls, cancel_at;
    uint64_t bits;
    pthread_mutex_t mutex;
    pthread_cond_t started;
};

static int watch(void* user, uint64_t done, uint64_t total, uint64_t bits) {
    struct watch* w = user;
    (void)done, (void)total;
    pthread_mutex_lock(&w->mutex);
    ++w->calls;
    w->bits = bits;
    pthread_cond_signal(&w->started);
    pthread_mutex_unlock(&w->mutex);
    return w->cancel_at && w->calls >= w->cancel_at;
}

struct closer {
    kv_device* dev;
    struct watch* w;
    int status;
};

static void* closeOnceStarted(void* arg) {
    struct closer* c = arg;
    pthread_mutex_lock(&c->w->mutex);
    while (!c->w->calls) pthread_cond_wait(&c->w->started, &c->w->mutex);
    pthread_mutex_unlock(&c->w->mutex);
    c->status = kv_close(c->dev);
    return NULL;
}

static void testLongScan(void) {
    struct watch w = {0, 0, 0, PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER};
    kv_play_result r;
    pthread_t thread;
    char pins[256] = "";
    kv_device* dev = openDevice("0000:03:00.0");
    struct closer c = {.dev = dev, .w = &w};

    /* Counts past what fits are refused before anything is allocated or shifted. */
    checkStatus(kv_shift_dr(dev, 1, KV_MAX_BITS + 1, NULL, NULL), KV_E_ARGUMENT, dev, "a register past KV_MAX_BITS");
    check(strcmp(kv_message(dev), "a data register of 1073741825 bits (1 to 1073741824)") == 0, "its message",
          kv_message(dev));
    checkStatus(kv_irlen_is(dev, 0xffffffffu, 8), KV_E_ARGUMENT, dev, "an IR length at position 2^32 - 1");
    /* 3 * 2^20 cycles in one statement: called at least every million,
     * so four times inside it (without that: once after it, once at the end). */
    checkStatus(play(dev, "SDR 3145728 TDI(0);", watch, &w, &r), KV_OK, dev, "a 3 * 2^20-bit scan");
    check(w.calls >= 4 && r.tck_cycles > 3145728, "progress inside the scan, at least every million cycles", NULL);
    /* 2^24: the first call cancels, inside the scan, and the pins are given back. */
    w.calls = 0;
    w.cancel_at = 1;
    checkStatus(play(dev, "SDR 16777216 TDI(0);", watch, &w, &r), KV_E_CANCELLED, dev, "a 2^24-bit scan cancelled");
    check(r.tck_cycles < 1000000, "cancelled inside the scan", NULL);
    kv_sim_pins(dev, pins, sizeof pins);
    check(strncmp(pins, "TCK=z TDI=z TMS=z ", 18) == 0, "the pins given back", pins); /* TDO: mid-scan */

    /* A close from another thread, once the scan is going: the scan ends
     * at its next look-in, then the close returns. */
    w.calls = 0;
    w.cancel_at = 0;
    pthread_create(&thread, NULL, closeOnceStarted, &c);
    checkStatus(play(dev, "SDR 33554432 TDI(0);", watch, &w, &r), KV_E_CLOSED, dev, "a 2^25-bit scan, closed meanwhile");
    pthread_join(thread, NULL);
    check(strcmp(kv_message(dev), kClosedDuring) == 0, "the message of a call the close ended", kv_message(dev));
    check(c.status == KV_OK && r.tck_cycles < 33554432, "the close ended the scan and took effect", NULL);
    checkStatus(kv_close(dev), KV_E_CLOSED, dev, "closed already");
}

/* ---- threads ---- */

struct worker {
    pthread_t thread;
    int t;
    kv_device* dev[2];
    int handles;
    int closes;      /* closes dev[0] (and dev[1]) half-way */
    int closeStatus; /* of dev[0]'s close */
    long ok, refused, closed;
};

static int closing; /* a close has begun: KV_E_CLOSED may come (atomic) */

/* One call's outcome: what the thread asked for, to the letter, or KV_E_CLOSED. */
static void expect(struct worker* w, kv_device* dev, int* gone, int status, int want, const char* message,
                   const char* what) {
    char detail[768];
    const char* said = kv_message(dev);
    if (status == KV_E_CLOSED) {
        int clean = __atomic_load_n(&closing, __ATOMIC_SEQ_CST) && (strcmp(said, kNotOpen) == 0 || (!*gone && strcmp(said, kClosedDuring) == 0));
        if (strcmp(said, kNotOpen) == 0) *gone = 1;
        snprintf(detail, sizeof detail, "thread %d: %s", w->t, said);
        check(clean, "KV_E_CLOSED only after a close, with its message", detail);
        ++w->closed;
        return;
    }
    snprintf(detail, sizeof detail, "thread %d, %s: %s \"%s\", not %s \"%s\"", w->t, what, kv_status_name(status), said,
             kv_status_name(want), message);
    if (status != want || (*message ? strncmp(said, message, strlen(message)) : strcmp(said, "")) != 0 || *gone) {
        check(0, "a thread's own answer", detail);
        return;
    }
    if (status == KV_OK)
        ++w->ok;
    else
        ++w->refused;
}

static void* work(void* arg) {
    struct worker* w = arg;
    int gone[2] = {0, 0};
    char position[128], irlen[128], svf[256], wrong[32], detail[256];
    const char* json;
    uint8_t out[8];
    kv_mismatch_info m;
    int i, s, op;

    snprintf(position, sizeof position, "no device at position %d (the chain has 3)", 3 + w->t);
    snprintf(irlen, sizeof irlen, "position %d is past any chain (at most 64 devices)", 100 + w->t);
    /* A TDO only this thread expects: the last device's IDCODE off by its number. */
    snprintf(wrong, sizeof wrong, "%08x1b4d20930123402f", 0x2468ace1u ^ (unsigned)(w->t + 1));
    snprintf(svf, sizeof svf, "STATE RESET;\nSDR 96 TDI(0) TDO(%s);\n", wrong);
    for (i = 0; i < CALLS; ++i) {
        int h = (i + w->t) % w->handles;
        kv_device* dev = w->dev[h];
        int live = h == 0; /* dev[1]'s chip has no chain */
        if (w->closes && i == CALLS / 2) {
            __atomic_store_n(&closing, 1, __ATOMIC_SEQ_CST);
            w->closeStatus = kv_close(w->dev[0]);
            if (w->handles == 2 && w->closes == 2) kv_close(w->dev[1]);
        }
        op = (i * 3 + w->t) % 7;
        switch (op) {
            case 0: /* discover */
            case 1: /* sample */
                json = NULL;
                s = op ? kv_sample(dev, 0, &json) : kv_discover(dev, &json);
                expect(w, dev, &gone[h], s, live ? KV_OK : KV_E_DEAD_CHAIN, live ? "" : kDeadChain, op ? "sample" : "discover");
                if (s == KV_OK) {
                    sched_yield(); /* others call meanwhile: the text stays this thread's */
                    check(strcmp(json, op ? sampled : discovery) == 0, op ? "sample's JSON" : "discover's JSON", json);
                }
                break;
            case 2:
                memset(out, 0xff, sizeof out);
                s = kv_shift_ir(dev, 1, 6, (const uint8_t*)"\x01", out);
                expect(w, dev, &gone[h], s, live ? KV_OK : KV_E_DEAD_CHAIN, live ? "" : kDeadChain, "shift_ir");
                if (s == KV_OK) check(out[0] == 0x01, "the IR capture of device 1", NULL);
                break;
            case 3:
                s = kv_shift_dr(dev, 3 + (unsigned)w->t, 8, out, out);
                expect(w, dev, &gone[h], s, live ? KV_E_ARGUMENT : KV_E_DEAD_CHAIN, live ? position : kDeadChain,
                       "shift_dr past the chain");
                break;
            case 4:
                s = kv_irlen_is(dev, 100 + (unsigned)w->t, 5);
                expect(w, dev, &gone[h], s, KV_E_ARGUMENT, irlen, "irlen_is past any chain");
                break;
            case 5:
                s = play(dev, live ? kGoodSvf : "RUNTEST 10 TCK;", NULL, NULL, NULL);
                expect(w, dev, &gone[h], s, KV_OK, "", "play");
                break;
            default:
                s = play(dev, live ? svf : "STATE RESET;\nSDR 8 TDI(0) TDO(00);\n", NULL, NULL, NULL);
                expect(w, dev, &gone[h], s, KV_E_MISMATCH, "t.svf:2: SDR of ", "a play that mismatches");
                if (s == KV_E_MISMATCH && kv_mismatch(dev, &m) == KV_OK) {
                    sched_yield();
                    snprintf(detail, sizeof detail, "thread %d: %s, not %s", w->t, m.expected, live ? wrong : "00");
                    check(strcmp(m.expected, live ? wrong : "00") == 0 && m.where == 2,
                          "kv_mismatch: this thread's play", detail);
                }
                break;
        }
    }
    return NULL;
}

/* 8 threads on the handles; threads 6 and 7 both close dev[0] half-way
 * (thread 6 dev[1] too): one close takes it, the other finds it closed. */
static void testThreads(int handles) {
    struct worker w[THREADS];
    long ok = 0, refused = 0, closed = 0;
    int i;
    kv_device* dev[2];
    dev[0] = openDevice("0000:03:00.0");
    dev[1] = handles == 2 ? openDevice("0000:04:00.0") : NULL;
    __atomic_store_n(&closing, 0, __ATOMIC_SEQ_CST);
    for (i = 0; i < THREADS; ++i) {
        w[i] = (struct worker){.t = i, .dev = {dev[0], dev[1]}, .handles = handles, .closes = i == 6 ? 2 : i == 7};
        pthread_create(&w[i].thread, NULL, work, &w[i]);
    }
    for (i = 0; i < THREADS; ++i) {
        pthread_join(w[i].thread, NULL);
        ok += w[i].ok;
        refused += w[i].refused;
        closed += w[i].closed;
    }
    check((w[6].closeStatus == KV_OK) != (w[7].closeStatus == KV_OK) &&
              (w[6].closeStatus | w[7].closeStatus) == KV_E_CLOSED,
          "two racing closes: one takes the handle, the other KV_E_CLOSED", NULL);
    check(ok + refused + closed == THREADS * CALLS && ok > 0 && closed > 0, "every call answered", NULL);
    printf("%d threads on %d handle(s): %ld calls, %ld ok, %ld refused as asked, %ld closed\n", THREADS, handles,
           ok + refused + closed, ok, refused, closed);
}

int main(int argc, char** argv) {
    kv_device* dev;
    const char* json;
    if (argc != 2) {
        fprintf(stderr, "usage: kelvorn_threads_test BSDL\n");
        return 2;
    }
    bsdl = argv[1];
    snprintf(board, sizeof board, "--cpu 0x16:0x30 --chain bsdl=%s,0x1b4d2093:6,0x2468ace1:10", argv[1]);
    /* What one thread alone is answered. */
    dev = openDevice("0000:03:00.0");
    if (kv_discover(dev, &json) == KV_OK) snprintf(discovery, sizeof discovery, "%s", json);
    if (kv_sample(dev, 0, &json) == KV_OK) snprintf(sampled, sizeof sampled, "%s", json);
    check(strstr(discovery, "\"idcode\":\"0x0123402f\"") && strstr(sampled, "\"pins\":{"), "one thread's answers", NULL);
    kv_close(dev);

    testCallbacks();
    testLongScan();
    testThreads(1);
    testThreads(2);
    printf("%d passed, %d failed\n", passed, failed);
    return failed != 0;
}
