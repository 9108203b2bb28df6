#pragma once
#include "linux/types.h"

void get_random_bytes(void *buf, int nbytes);
