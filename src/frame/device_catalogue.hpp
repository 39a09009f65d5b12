// The list of one direction's devices as an engine shows it to the host.
// Owned by an engine; every method runs on a host thread under the family
// mutex and takes the catalogue's own lock, so a list is never read
// half-built. Audio threads never touch it.
#pragma once

#include <miniaudio.h>

#include <cstdint>
#include <mutex>
#include <vector>

#include "woodshed/common.h"

namespace ws::frame {

static_assert(sizeof(ma_device_id) == 256, "device ids are 256 bytes");

using ResultMapper = int32_t (*)(int ma_result);

class DeviceCatalogue {
public:
    explicit DeviceCatalogue(ma_device_type direction) : direction_(direction) {}

    // Re-enumerates. Returns the number of devices now listed, or a result
    // code (through `map`) with the previous lists kept untouched.
    int32_t refresh(ma_context* context, ResultMapper map);
    // 1 and the record copied, or 0 for an index outside the list.
    int32_t get(int32_t index, DeviceRecord* out) const;
    // Whether a listed device has exactly this id (all 256 bytes).
    bool contains(const ma_device_id& id) const;
    size_t size() const;

private:
    ma_device_type direction_;
    mutable std::mutex lock_;
    std::vector<DeviceRecord> records_;
    std::vector<ma_device_id> ids_;
};

// Resolves an id text for opening: true and `id` filled when the text is
// well formed, the catalogue refreshes and lists a device with that id;
// false means "use the default device".
bool resolve_listed_device(DeviceCatalogue& catalogue, ma_context* context, ResultMapper map,
                           const char* id_text, ma_device_id& id);

// The recorder's lookup: a capture device by exact name, its id text
// written into buf. 1 found, 0 not found or buf too small, -10 enumeration
// failed. Arguments are checked by the caller.
int32_t find_capture_by_name(ma_context* context, const char* name, char* buf, int32_t size);

}  // namespace ws::frame
