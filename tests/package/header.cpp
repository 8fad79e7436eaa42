#include "tilvarcm.h"

static_assert(CM_LEN_TEXT == -3, "the measuring length is part of every caller");
static_assert(sizeof(cm_mem_block) == 32, "the payload of a block follows its 32 bytes");
