#include "support/test_data.h"
