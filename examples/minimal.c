/* minimal.c - a complete host of ostrel_alg in C: teach the detector dark
 * rings on a light picture, find them in a second picture, save the model
 * and check the file. Build: cc minimal.c $(pkg-config --cflags --libs ostrel_alg) */
#include <stdio.h>
#include <string.h>

#include "ostrel_alg.h"

enum { W = 640, H = 480, BOX = 64 }; /* one box size: the detector learns one window */

/* A light, slightly noisy picture with a dark ring centred in every box. */
static void paint(uint8_t *bgr, const ostrel_alg_box *boxes, int n, unsigned seed) {
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            seed = seed * 1103515245u + 12345u;
            uint8_t v = (uint8_t)(200 + (seed >> 16) % 24);
            for (int i = 0; i < n; ++i) {
                int dx = x - (boxes[i].x + BOX / 2), dy = y - (boxes[i].y + BOX / 2);
                int d2 = dx * dx + dy * dy;
                if (d2 < 24 * 24 && d2 > 12 * 12) v = 40;
            }
            memset(bgr + 3 * (y * W + x), v, 3);
        }
}

static ostrel_alg_box box_at(int x, int y) {
    ostrel_alg_box b = {x, y, BOX, BOX, 0.0f, 1, 0, 0}; /* label 1: the object */
    return b;
}

int main(int argc, char **argv) {
    static uint8_t train_pixels[W * H * 3], test_pixels[W * H * 3];
    const char *model = argc > 1 ? argv[1] : "minimal.model";
    ostrel_alg_box marked[6], hidden[4];
    for (int i = 0; i < 6; ++i) marked[i] = box_at(40 + 100 * i, 60 + 160 * (i % 3));
    for (int i = 0; i < 4; ++i) hidden[i] = box_at(90 + 140 * i, 120 + 90 * (i % 2));
    paint(train_pixels, marked, 6, 1u);
    paint(test_pixels, hidden, 4, 2u);
    /* Every picture needs its own key: the engine reuses features per key. */
    ostrel_alg_image train = {W, H, 3, train_pixels, 1, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
    ostrel_alg_image test = {W, H, 3, test_pixels, 2, 0, OSTREL_ALG_FORMAT_INTERLEAVED};

    ostrel_alg *engine = NULL;
    ostrel_alg_box *found = NULL; /* owned by the engine */
    uint32_t count = 0, detections = 0;
    if (ostrel_alg_create(&engine) != 0) return 1;
    int ok = ostrel_alg_setSensitivity(engine, 50) == 0 && ostrel_alg_setRandomSeed(engine, 1) == 0 &&
             ostrel_alg_setDetector_ptr(engine, &train, marked, 6) == 0 &&
             ostrel_alg_runDetector_ptr(engine, &test, &found, &count) == 0;
    for (uint32_t i = 0; ok && i < count; ++i)
        if (found[i].label == 1) {
            ++detections;
            printf("found %d,%d %dx%d score %.2f\n", found[i].x, found[i].y, found[i].width,
                   found[i].height, found[i].score);
        }
    ok = ok && ostrel_alg_exportModel_ptr(engine, model) == 0 &&
         ostrel_alg_checkModelValidation_ptr(engine, model) == 0;
    ostrel_alg_destroy(engine);
    printf("%s: %u detections, model %s\n", ok ? "ok" : "failed", detections, model);
    return ok && detections > 0 ? 0 : 1;
}
