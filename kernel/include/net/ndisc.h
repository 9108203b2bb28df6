#pragma once
// The IPv6 neighbour table.
#include "net/neighbour.h"

extern struct neigh_table nd_tbl;
