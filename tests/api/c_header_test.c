/* A host written in C: proves that the public header is valid C and that
 * the basic life cycle works through it. Exits 0 when every check holds. */
#include <stdio.h>
#include <string.h>

#include "ostrel_alg.h"

static int failures = 0;

#define CHECK(cond)                                                           \
    do {                                                                      \
        if (!(cond)) {                                                        \
            fprintf(stderr, "check failed: %s (line %d)\n", #cond, __LINE__); \
            ++failures;                                                       \
        }                                                                     \
    } while (0)

int main(void) {
    ostrel_alg *engine = NULL;
    uint8_t trained = 7;
    uint32_t model_id = 12345;
    const char *method = NULL;

    CHECK(sizeof(ostrel_alg_box) == 32);
    CHECK(sizeof(ostrel_alg_sample) == 48);
    CHECK(sizeof(ostrel_alg_image) == 40);

    CHECK(ostrel_alg_create(&engine) == 0);
    CHECK(engine != NULL);
    CHECK(ostrel_alg_setTrainingSize(engine, 100, 100, 640, 480) == 0);
    CHECK(ostrel_alg_setSensitivity(engine, 50) == 0);
    CHECK(ostrel_alg_setSensitivity(engine, 101) == 1);
    CHECK(ostrel_alg_istraied(engine, &trained) == 0);
    CHECK(trained == 0);
    CHECK(ostrel_alg_getModelId(engine, &model_id) == 1);
    CHECK(model_id == 12345);
    CHECK(ostrel_alg_setModelId(engine, 42) == 0);
    CHECK(ostrel_alg_getModelId(engine, &model_id) == 0);
    CHECK(model_id == 42);
    CHECK(ostrel_alg_temp_getAddNegativeMethod_ptr(engine, &method) == 0);
    CHECK(method != NULL && strcmp(method, "BELOW_CONF") == 0);
    CHECK(ostrel_alg_destroy(engine) == 0);
    CHECK(ostrel_alg_destroy(NULL) == 1);

    if (failures == 0) {
        printf("c header program: all checks passed\n");
    }
    return failures == 0 ? 0 : 1;
}
