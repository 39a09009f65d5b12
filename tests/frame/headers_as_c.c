/* The public headers must be valid C: this file includes them all and is
 * compiled as C11, so their static assertions (record sizes and offsets) run
 * under a C compiler too. */
#include "woodshed/woodshed.h"
