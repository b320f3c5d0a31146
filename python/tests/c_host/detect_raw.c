/* detect_raw.c - a minimal host of the C interface for the Python tests:
 * loads a model and detects on pictures given as raw interleaved BGR files,
 * printing one "box x y w h score label main second" line per box and one
 * "picture N count C" line per picture, so that the tests can compare the
 * Python package's results with the C interface's own, box for box.
 * Usage: detect_raw MODEL SENSITIVITY (RAW_FILE WIDTH HEIGHT)...
 */
#include <stdio.h>
#include <stdlib.h>

#include "ostrel_alg.h"

static unsigned char *read_file(const char *path, long expected) {
    FILE *file = fopen(path, "rb");
    if (file == NULL) return NULL;
    unsigned char *bytes = malloc((size_t)expected);
    size_t got = bytes ? fread(bytes, 1, (size_t)expected, file) : 0;
    fclose(file);
    if (bytes == NULL || got != (size_t)expected) {
        free(bytes);
        return NULL;
    }
    return bytes;
}

int main(int argc, char **argv) {
    if (argc < 3 || (argc - 3) % 3 != 0) {
        fprintf(stderr, "usage: %s MODEL SENSITIVITY (RAW WIDTH HEIGHT)...\n", argv[0]);
        return 2;
    }
    ostrel_alg *engine = NULL;
    if (ostrel_alg_create(&engine) != 0 || ostrel_alg_checkModelValidation_ptr(engine, argv[1]) != 0 ||
        ostrel_alg_importModel_ptr(engine, argv[1]) != 0 ||
        ostrel_alg_setSensitivity(engine, (uint32_t)atoi(argv[2])) != 0) {
        fprintf(stderr, "cannot load model %s\n", argv[1]);
        return 1;
    }
    for (int i = 3, picture = 0; i < argc; i += 3, ++picture) {
        int width = atoi(argv[i + 1]), height = atoi(argv[i + 2]);
        unsigned char *pixels = read_file(argv[i], (long)width * height * 3);
        if (pixels == NULL) {
            fprintf(stderr, "cannot read %s\n", argv[i]);
            return 1;
        }
        ostrel_alg_image image = {width, height, 3, pixels, picture + 1, 0, OSTREL_ALG_FORMAT_INTERLEAVED};
        ostrel_alg_box *boxes = NULL;
        uint32_t count = 0;
        if (ostrel_alg_runDetector_ptr(engine, &image, &boxes, &count) != 0) {
            fprintf(stderr, "detection failed on %s\n", argv[i]);
            return 1;
        }
        printf("picture %d count %u\n", picture, count);
        for (uint32_t b = 0; b < count; ++b)
            printf("box %d %d %d %d %.9g %d %d %d\n", boxes[b].x, boxes[b].y, boxes[b].width, boxes[b].height,
                   boxes[b].score, boxes[b].label, boxes[b].color_main, boxes[b].color_second);
        free(pixels);
    }
    ostrel_alg_destroy(engine);
    return 0;
}
