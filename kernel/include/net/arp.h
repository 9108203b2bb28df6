#pragma once
// The IPv4 neighbour table.
#include "net/neighbour.h"

extern struct neigh_table arp_tbl;
