/* The public headers must be valid C: this file includes them all and is
 * compiled as C11, so their static assertions run under a C compiler too. */
#include "woodshed/woodshed.h"

size_t woodshed_c_record_size(int which) {
    switch (which) {
        case 0: return sizeof(TunerConfig);
        case 1: return sizeof(TunerReading);
        case 2: return sizeof(DeviceRecord);
        default: return 0;
    }
}
