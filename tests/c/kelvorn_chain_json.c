/* The chain commands through libkelvorn-sim, each answer printed as the
 * library gives it, for a comparison with kelvorn-chain --json:
 *
 *   kelvorn_chain_json BOARD FPGA ADDRESS FLAGS BSDL_PATH COMMAND...
 *
 * FLAGS: "-" or "know" (KV_I_KNOW_THE_BOARD). BSDL_PATH: kv_bsdl_path's
 * argument. Each COMMAND is one
 * argument, words split on spaces: "discover", "sample DEV",
 * "usercode DEV", "drive DEV PORT=L..." (held 0 s), "hold DEV PORT=L..."
 * (until released), "connect DEV.PORT DEV.PORT", "release", "add FILE". Prints per command the JSON on one line, or
 * "status NAME: MESSAGE" (with the JSON after it on the next line when
 * the call gave one). Status 0 when the device opened. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <kelvorn/kelvorn.h>

#define MAX_WORDS 32

int main(int argc, char** argv) {
    char why[256] = "";
    kv_device* dev;
    int i, s;
    if (argc < 6) {
        fprintf(stderr, "usage: kelvorn_chain_json BOARD FPGA ADDRESS FLAGS BSDL_PATH COMMAND...\n");
        return 2;
    }
    if (kv_sim_configure(argv[1], why, sizeof why) != KV_OK) {
        printf("configure: %s\n", why);
        return 1;
    }
    s = kv_open(argv[2], argv[3], strcmp(argv[4], "know") == 0 ? KV_I_KNOW_THE_BOARD : 0, 0, &dev);
    if (s != KV_OK) {
        printf("open: %s: %s\n", kv_status_name(s), kv_message(dev));
        kv_close(dev);
        return 1;
    }
    kv_bsdl_path(dev, argv[5]);
    for (i = 6; i < argc; ++i) {
        char line[4096];
        char* words[MAX_WORDS];
        int n = 0;
        const char* json = NULL;
        strncpy(line, argv[i], sizeof line - 1);
        line[sizeof line - 1] = '\0';
        for (char* w = strtok(line, " "); w && n < MAX_WORDS; w = strtok(NULL, " ")) words[n++] = w;
        if (n == 0) continue;
        if (strcmp(words[0], "discover") == 0)
            s = kv_discover(dev, &json);
        else if (strcmp(words[0], "sample") == 0 && n == 2)
            s = kv_sample_device(dev, words[1], &json);
        else if (strcmp(words[0], "usercode") == 0 && n == 2)
            s = kv_usercode(dev, words[1], &json);
        else if ((strcmp(words[0], "drive") == 0 || strcmp(words[0], "hold") == 0) && n >= 2)
            s = kv_drive(dev, words[1], (const char* const*)(words + 2), (size_t)(n - 2),
                         strcmp(words[0], "hold") == 0 ? -1 : 0, &json);
        else if (strcmp(words[0], "connect") == 0 && n == 3)
            s = kv_connect(dev, words[1], words[2], &json);
        else if (strcmp(words[0], "release") == 0)
            s = kv_release(dev);
        else if (strcmp(words[0], "add") == 0 && n == 2)
            s = kv_add_bsdl(dev, words[1]);
        else {
            printf("not understood: %s\n", argv[i]);
            continue;
        }
        if (s != KV_OK) printf("status %s: %s\n", kv_status_name(s), kv_message(dev));
        if (json) printf("%s\n", json);
        if (s == KV_OK && !json) printf("ok\n");
    }
    kv_close(dev);
    return 0;
}
