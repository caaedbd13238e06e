/* A libkelvorn user's program, built against the installed header and
 * library alone:
 *
 *   kelvorn_test BOARD FPGA ADDRESS [FILE]
 *
 * tells the simulator the board options BOARD (kv_sim_configure; the
 * hardware library refuses, and the device is then opened in test mode),
 * opens the device, tries a second open of it, discovers the chain and,
 * given a vector file, plays it twice: once cancelled from the progress
 * callback (then prints the simulated pins), once to the end. FILE "exit"
 * instead ends the program with exit(0) before it closes the device. One
 * line per step; status 0 when the steps ran, 1 when the open failed. */
#include <stdlib.h>
#include <string.h>
#include <kelvorn/kelvorn.h>
#include <stdio.h>

static int cancel(void* user, uint64_t done, uint64_t total, uint64_t bits) {
    (void)done, (void)total, (void)bits;
    ++*(int*)user;
    return 1;
}

static int count(void* user, uint64_t done, uint64_t total, uint64_t bits) {
    (void)bits;
    ++*(int*)user;
    return done > total; /* never */
}

int main(int argc, char** argv) {
    char why[256] = "";
    char pins[256];
    kv_device *dev, *second;
    kv_play_result r;
    const char* json;
    unsigned flags;
    int calls = 0;
    int s;

    if (argc != 4 && argc != 5) {
        fprintf(stderr, "usage: kelvorn_test BOARD FPGA ADDRESS [FILE]\n");
        return 2;
    }
    s = kv_sim_configure(argv[1], why, sizeof why);
    printf("configure: %s%s%s\n", kv_status_name(s), *why ? ": " : "", why);
    flags = s == KV_OK ? 0 : KV_TEST_MODE;
    s = kv_open(argv[2], argv[3], flags, 0, &dev);
    printf("open: %s%s%s\n", kv_status_name(s), *kv_message(dev) ? ": " : "", kv_message(dev));
    if (s != KV_OK) {
        kv_close(dev);
        return 1;
    }
    s = kv_open(argv[2], argv[3], flags, 0, &second);
    printf("second open: %s: %s\n", kv_status_name(s), kv_message(second));
    kv_close(second);
    s = kv_discover(dev, &json);
    printf("discover: %s: %s\n", kv_status_name(s), s == KV_OK ? json : kv_message(dev));
    if (argc == 5 && strcmp(argv[4], "exit") == 0) {
        fflush(stdout);
        exit(0); /* the device left open: the library closes it at exit */
    }
    if (argc == 5) {
        s = kv_play(dev, argv[4], KV_FORMAT_AUTO, cancel, &calls, &r);
        printf("cancelled: %s after %d call(s), %s\n", kv_status_name(s), calls, kv_message(dev));
        if (kv_sim_pins(dev, pins, sizeof pins) == KV_OK) printf("pins: %s\n", pins);
        calls = 0;
        s = kv_play(dev, argv[4], KV_FORMAT_AUTO, count, &calls, &r);
        printf("play: %s: %llu statements, %llu scans, %llu bits, %llu TCK cycles, progress %s\n", kv_status_name(s),
               (unsigned long long)r.statements, (unsigned long long)r.scans, (unsigned long long)r.bits,
               (unsigned long long)r.tck_cycles, calls > 0 ? "called" : "never called");
    }
    kv_close(dev);
    return 0;
}
