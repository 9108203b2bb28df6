#pragma once
// Kernel error numbers (the host's values match the kernel's for these).
#include <errno.h>
