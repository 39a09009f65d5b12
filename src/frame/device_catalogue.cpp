#include "frame/device_catalogue.hpp"

#include <cstdio>
#include <cstring>

#include "frame/id_text.hpp"

namespace ws::frame {

static_assert(sizeof(DeviceRecord::id_text) == 264 && sizeof(DeviceRecord::name) == 256);

namespace {
const uint8_t* bytes_of(const ma_device_id& id) { return reinterpret_cast<const uint8_t*>(&id); }

// Bounded copy of a text into a fixed field, as "%s" formatting would do it:
// at most cap - 1 bytes and a NUL, cut at a byte boundary.
template <size_t Cap>
void copy_text(char (&field)[Cap], const char* text) {
    const size_t n = text != nullptr ? strnlen(text, Cap - 1) : 0;
    std::memcpy(field, text, n);
    field[n] = '\0';
}
}  // namespace

int32_t DeviceCatalogue::refresh(ma_context* context, ResultMapper map) {
    ma_device_info* infos = nullptr;  // owned by the context
    ma_uint32 count = 0;
    const ma_result r = direction_ == ma_device_type_capture
                            ? ma_context_get_devices(context, nullptr, nullptr, &infos, &count)
                            : ma_context_get_devices(context, &infos, &count, nullptr, nullptr);
    if (r != MA_SUCCESS) return map(r);

    std::lock_guard<std::mutex> guard(lock_);
    records_.clear();
    ids_.clear();
    records_.reserve(count);
    ids_.reserve(count);
    char text[kMaxIdTextChars + 1];
    for (ma_uint32 i = 0; i < count; ++i) {
        DeviceRecord rec;
        std::memset(&rec, 0, sizeof rec);
        copy_text(rec.name, infos[i].name);
        write_id_text(bytes_of(infos[i].id), text);
        // Bounded: an id longer than 131 bytes is cut here, and the odd-length
        // result later selects the default device.
        copy_text(rec.id_text, text);
        rec.is_default = infos[i].isDefault ? 1u : 0u;
        records_.push_back(rec);
        ids_.push_back(infos[i].id);
    }
    return static_cast<int32_t>(records_.size());
}

int32_t DeviceCatalogue::get(int32_t index, DeviceRecord* out) const {
    std::lock_guard<std::mutex> guard(lock_);
    if (index < 0 || static_cast<size_t>(index) >= records_.size()) return 0;
    std::memcpy(out, &records_[static_cast<size_t>(index)], sizeof(DeviceRecord));
    return 1;
}

bool DeviceCatalogue::contains(const ma_device_id& id) const {
    std::lock_guard<std::mutex> guard(lock_);
    for (const ma_device_id& listed : ids_) {
        if (std::memcmp(&listed, &id, sizeof id) == 0) return true;
    }
    return false;
}

size_t DeviceCatalogue::size() const {
    std::lock_guard<std::mutex> guard(lock_);
    return records_.size();
}

bool resolve_listed_device(DeviceCatalogue& catalogue, ma_context* context, ResultMapper map,
                           const char* id_text, ma_device_id& id) {
    if (!parse_id_text(id_text, reinterpret_cast<uint8_t*>(&id))) return false;
    if (catalogue.refresh(context, map) < 0) return false;
    return catalogue.contains(id);
}

int32_t find_capture_by_name(ma_context* context, const char* name, char* buf, int32_t size) {
    ma_device_info* infos = nullptr;
    ma_uint32 count = 0;
    if (ma_context_get_devices(context, nullptr, nullptr, &infos, &count) != MA_SUCCESS) {
        return ws_backend_init_failed;
    }
    for (ma_uint32 i = 0; i < count; ++i) {
        if (std::strcmp(infos[i].name, name) != 0) continue;
        const uint8_t* id = bytes_of(infos[i].id);
        const size_t n = significant_length(id);
        if (2 * n + 1 > static_cast<size_t>(size)) return 0;
        write_id_text(id, buf);
        return 1;
    }
    return 0;
}

}  // namespace ws::frame
