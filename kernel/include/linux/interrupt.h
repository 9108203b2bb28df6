#pragma once
// Bottom-half exclusion. The model counts the nesting depth so hosts can
// check that list operations run inside it and that it is balanced.
void local_bh_disable(void);
void local_bh_enable(void);
